#!/usr/bin/env python3
"""Small broadcast operands: a four-axis real32 image plus a small operand that is one of its
sub-arrays, against the same image plus a number (the same data movement, one block per 2^24
elements), side by side in one run.

    python3 bench/subarrays.py [--size 26] [--runs 5] [--zvcompute PATH] [--compare B] [--dir DIR]

--size S      the image has 2^S elements (default 26: 256 MiB); sub-arrays of 1, 16 and 4096 elements
--runs N      timed runs per command (default 5), alternating, medians reported
--zvcompute   binary to measure (default: build/zvcompute of this checkout)
--compare B   also time binary B (an earlier build) on the sub-array commands, as "before"
--smoke       2^20 elements, one run, outputs checked, no timing claims

Every output is checked against NumPy's broadcast sum (exact: one binary32 addition per element).
"""
import argparse
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

try:
    import numpy as np
except ImportError:
    if not os.environ.get("ZV_BENCH_REEXEC") and os.access("/usr/bin/python3", os.X_OK):
        os.environ["ZV_BENCH_REEXEC"] = "1"
        os.execv("/usr/bin/python3", ["/usr/bin/python3"] + sys.argv)
    raise

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


def timed(argv):
    t = time.perf_counter()
    subprocess.run(argv, check=True)
    return time.perf_counter() - t


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--size", type=int, default=26)
    ap.add_argument("--runs", type=int, default=5)
    ap.add_argument("--zvcompute", default=os.path.join(ROOT, "build", "zvcompute"))
    ap.add_argument("--compare")
    ap.add_argument("--dir", default="/tmp")
    ap.add_argument("--smoke", action="store_true")
    args = ap.parse_args()
    size, runs = (20, 1) if args.smoke else (args.size, args.runs)
    n = 1 << size
    tmp = tempfile.mkdtemp(prefix="zvsub-", dir=args.dir)
    failures = []
    try:
        rows = []
        for k in (1, 16, 4096):
            # Axes 0-2 hold the k elements of a sub-array, axis 3 counts the n / k sub-arrays.
            side = int(k ** 0.5)
            a_path, s_path, out = (os.path.join(tmp, x) for x in ("a.npy", "s.npy", "o.npy"))
            a = np.lib.format.open_memmap(a_path, mode="w+", dtype="<f4", shape=(n // k, 1, side, side))
            for i in range(0, n // k, max(1, (1 << 22) // k)):
                j = min(n // k, i + max(1, (1 << 22) // k))
                a[i:j] = (np.arange(i * k, j * k, dtype=np.int64) % 1000 / 8.0).astype("<f4").reshape(j - i, 1, side, side)
            s = (np.arange(k, dtype=np.float32) / 4 + 2.5).reshape(side, side)
            np.save(s_path, s)
            del a
            cmds = {"sub-array": [args.zvcompute, out, "=", a_path, "+", s_path],
                    "number": [args.zvcompute, out, "=", a_path, "+", "2.5"]}
            if args.compare:
                cmds["before"] = [args.compare, out, "=", a_path, "+", s_path]
            times = {name: [] for name in cmds}
            for name, argv in cmds.items():  # warm the page cache; check every output
                timed(argv)
                got, want = np.load(out, mmap_mode="r"), np.load(a_path, mmap_mode="r")
                expect = s if name != "number" else np.float32(2.5)
                step = max(1, (1 << 22) // k)
                if got.shape != want.shape or any(not np.array_equal(got[i:i + step], want[i:i + step] + expect)
                                                  for i in range(0, n // k, step)):
                    failures.append(f"{k}-element sub-arrays: {name} output differs from NumPy's")
            for _ in range(runs):
                for name, argv in cmds.items():
                    times[name].append(timed(argv))
            med = {name: statistics.median(v) for name, v in times.items()}
            row = [f"2^{size}", str(k), f"{n // k}", f"{med['sub-array']:.3f}", f"{med['number']:.3f}",
                   f"{med['sub-array'] / med['number']:.2f}"]
            if args.compare:
                row += [f"{med['before']:.3f}", f"{med['before'] / med['sub-array']:.1f}"]
            rows.append(row)
        head = ["size", "sub-array elements", "sub-arrays", "a + s s", "a + 2.5 s", "ratio"]
        if args.compare:
            head += ["before s", "before / now"]
        print("| " + " | ".join(head) + " |\n|" + "---|" * len(head))
        for r in rows:
            print("| " + " | ".join(r) + " |")
    finally:
        shutil.rmtree(tmp)
    for f in failures:
        print("subarrays:", f, file=sys.stderr)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
