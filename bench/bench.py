#!/usr/bin/env python3
"""Benchmark of zvcompute against a plain C streaming reference, the data-movement floor and,
where installed, NumPy (.npy files), NumPy with the mrcfile package (.mrc files) and the vips
command line (its own .v files).

    python3 bench/bench.py [--size 28] [--runs 5] [--smoke] [--zvcompute PATH] [--dir DIR]

--size S      main case of 2^S elements (default 28: 1 GiB per real32 file); a 2^24 case is run
              too (--small, 0 to skip)
--runs N      timed runs per tool and case (default 5), alternating tools, medians reported; one
              more untimed run per tool first warms the page cache and checks the output
--smoke       everything once at 2^20 elements, no timing claims; exit status 1 if outputs disagree
--zvcompute   binary to measure (default: built here, cmake Release into build-bench)
--compare B   also time binary B (an earlier build) in the same rotation, as "before"; its outputs
              must equal zvcompute's bit for bit
--dir DIR     where the temporary directory with the inputs goes (default /tmp); removed at the end
--markdown F  also write the tables as Markdown to F; --json F: every measurement as JSON

Operations: a + b, a * 2.5, sqrt a, exp a, ln a, sin a, real32 of an int16 image, a gt 0.5, -mean,
+nran 1, phase d, abs d (d: a cmplx32 image of 2^(S-2) elements, 512 MiB at S = 28), on native
(.img), MRC (.mrc), NPY (.npy) and uncompressed TIFF (.tif: one page, one strip) files; with --ops
also cos tan asin acos atan of a and +uran 1. Tools per case:
  zvcompute, C reference, floor   every case
  numpy                           .npy cases (np.load / np.save, whole arrays in memory)
  mrcfile                         .mrc cases (mrcfile.read / mrcfile.write, NumPy arithmetic)
  vips                            with the native cases of + * sqrt exp real32 gt +nran, on .v copies
                                  of the inputs; +nran is gaussnoise then add (two commands)
The C reference (bench/ref_stream.c, compiled here with cc) reads and writes 1 MiB chunks with
read()/write(), skips the input header and writes a zero placeholder header. The floor is one shell
command: `cat` of the inputs to /dev/null (read() into a user buffer) and `cat` of an output-sized
file into the output (copy_file_range, an in-kernel copy).

Output checks against zvcompute's output of the same case: the C reference must agree bit for bit in
every case (it draws the same rand() sequence for +nran and +uran). NumPy, mrcfile and vips must
agree bit for bit for +, *, sqrt, real32 and gt (vips gives 255 for true: compared as 255 x
zvcompute's mask); for the functions and -mean within 2^-20 relative + 2^-30 absolute, NaN agreeing
with NaN (different implementations; a differently summed mean); +uran has no peer; for +nran, whose
random sequences differ, the added noise of every tool (zvcompute's too) must have mean 0 within 6
standard errors + 0.002 (zvcompute's rand()-based generator has a bias of about 7e-4 that 2^28 draws
resolve) and standard deviation 1 within 1 %.

Memory check: peak resident memory (wait4 ru_maxrss, which counts mapped file pages) of zvcompute on
a 2^(S+2)-element image (4 GiB of real32 at S = 28) and on a 2^24-element (64 MiB) one, for a + b
(native), a * 2.5 (MRC) and sqrt a (NPY): the big run must stay within 3 blocks of 2^24 real32 plus
16 MiB and within 32 MiB of the small run. Exit status 3 when it does not (not enforced in --smoke).

NumPy is needed only for the NumPy and mrcfile tools and for the checks with a tolerance; without
it those are skipped and said so. When the running interpreter lacks NumPy, the benchmark re-runs
itself under /usr/bin/python3 if that one has it (Debian: python3-numpy python3-mrcfile).
"""
import argparse
import datetime
import json
import os
import platform
import shutil
import statistics
import struct
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(HERE)
BLOCK = 1 << 24  # zvcompute's block: elements per block
MIB = 1 << 20


def reexec_with_numpy():
    """Re-run under an interpreter that has NumPy when this one has not (once)."""
    try:
        import numpy  # noqa: F401
        return
    except ImportError:
        pass
    if os.environ.get("ZV_BENCH_REEXEC"):
        return
    for cand in ("/usr/bin/python3", "/usr/local/bin/python3"):
        if os.path.realpath(cand) == os.path.realpath(sys.executable) or not os.access(cand, os.X_OK):
            continue
        if subprocess.run([cand, "-c", "import numpy"], stderr=subprocess.DEVNULL).returncode == 0:
            os.environ["ZV_BENCH_REEXEC"] = "1"
            print(f"bench: NumPy is not importable here; running under {cand}", flush=True)
            os.execv(cand, [cand] + sys.argv)


reexec_with_numpy()
try:
    import numpy as np
except ImportError:
    np = None
try:
    import mrcfile  # noqa: F401
    HAVE_MRCFILE = np is not None
except ImportError:
    HAVE_MRCFILE = False

# ---------------------------------------------------------------------------------------------
# Operations: label, inputs, zvcompute arguments, C reference arguments, output element type, and
# how a peer's output is checked (exact, tol, x255 for vips' masks, noise).

OPS = {
    "add": dict(label="a + b", ins=("a", "b"), zv=lambda o, i: [o, "=", i[0], "+", i[1]],
                ref=["add"], out="f4", peer="exact"),
    "mul": dict(label="a * 2.5", ins=("a",), zv=lambda o, i: [o, "=", i[0], "*", "2.5"],
                ref=["mul", "2.5"], out="f4", peer="exact"),
    "sqrt": dict(label="sqrt a", ins=("a",), zv=lambda o, i: [o, "=", "sqrt", i[0]],
                 ref=["sqrt"], out="f4", peer="exact"),
    "exp": dict(label="exp a", ins=("a",), zv=lambda o, i: [o, "=", "exp", i[0]],
                ref=["exp"], out="f4", peer="tol"),
    "real32": dict(label="real32 of int16", ins=("c",), zv=lambda o, i: [o, "=", "real32", i[0]],
                   ref=["real32"], out="f4", peer="exact"),
    "gt": dict(label="a gt 0.5", ins=("a",), zv=lambda o, i: [o, "=", i[0], "gt", "0.5"],
               ref=["gt", "0.5"], out="u1", peer="exact"),
    "mean": dict(label="-mean", ins=("a",), zv=lambda o, i: [o, "=", "-mean", i[0]],
                 ref=["mean"], out="f4", peer="tol"),
    "nran": dict(label="+nran 1", ins=("a",), zv=lambda o, i: [o, "=", i[0], "+nran", "1"],
                 ref=["nran", "1"], out="f4", peer="noise"),
    "uran": dict(label="+uran 1", ins=("a",), zv=lambda o, i: [o, "=", i[0], "+uran", "1"],
                 ref=["uran", "1"], out="f4", peer=None),
    "phase": dict(label="phase d", ins=("d",), zv=lambda o, i: [o, "=", "phase", i[0]],
                  ref=["phase"], out="f4", peer="tol"),
    "abs": dict(label="abs d", ins=("d",), zv=lambda o, i: [o, "=", "abs", i[0]],
                ref=["abs"], out="f4", peer="tol"),
}
# The elementary functions other than exp, on input a: same shape as exp.
for _f in ("ln", "sin", "cos", "tan", "asin", "acos", "atan"):
    OPS[_f] = dict(label=f"{_f} a", ins=("a",), zv=lambda o, i, f=_f: [o, "=", f, i[0]],
                   ref=[_f], out="f4", peer="tol")
DEFAULT_OPS = "add,mul,sqrt,exp,ln,sin,real32,gt,mean,nran,phase,abs"
# Input d is cmplx32 with a quarter of the elements of a (a 512 MiB file at 2^28); the outputs of
# phase and abs are real32 of that count.
def out_count(op, n):
    return n // 4 if OPS[op]["ins"] == ("d",) else n


VIPS_OPS = ("add", "mul", "sqrt", "exp", "real32", "gt", "nran")
FORMATS = {"zv": ".img", "mrc": ".mrc", "npy": ".npy", "tiff": ".tif"}
FORMAT_LABEL = {"zv": "native", "mrc": "MRC", "npy": "NPY", "tiff": "TIFF"}

# The NumPy tools, run as their own process (interpreter start and imports included).
PEER_SCRIPT = r"""
import sys
import numpy as np
op, fmt, out = sys.argv[1:4]
ins = sys.argv[4:]
if fmt == "npy":
    load = np.load
    def save(p, x): np.save(p, x)
else:
    import mrcfile
    load = mrcfile.read
    def save(p, x): mrcfile.write(p, x, overwrite=True)
x = [load(p) for p in ins]
a = x[0]
if op == "add": r = a + x[1]
elif op == "mul": r = a * np.float32(2.5)
elif op == "sqrt": r = np.sqrt(a)
elif op == "exp": r = np.exp(a)
elif op == "real32": r = a.astype(np.float32)
elif op == "gt":
    # MRC has no unsigned 8-bit mode that mrcfile writes: int8 (mode 0) holds the same bytes.
    r = (a > np.float32(0.5)).view(np.uint8 if fmt == "npy" else np.int8)
elif op == "mean":
    f = a.reshape(-1)
    r = np.empty_like(f)
    for s in range(0, f.size, 1 << 24):
        blk = f[s:s + (1 << 24)]
        r[s:s + blk.size] = (blk.astype(np.float64) - blk.mean(dtype=np.float64)).astype(np.float32)
    r = r.reshape(a.shape)
elif op == "nran":
    r = a + np.random.default_rng(123).standard_normal(a.shape, dtype=np.float32)
elif op == "ln": r = np.log(a)
elif op in ("sin", "cos", "tan"): r = getattr(np, op)(a)
elif op in ("asin", "acos", "atan"): r = getattr(np, "arc" + op[1:])(a)
elif op == "phase": r = np.angle(a).astype(np.float32)
elif op == "abs": r = np.abs(a)
save(out, r)
"""


# ---------------------------------------------------------------------------------------------
# Input files: headers written here, data generated by the C helper, other formats copied.

def shape_of(n_log2):
    nx = 1 << ((n_log2 + 1) // 2)
    return nx, (1 << n_log2) // nx


def native_header(nx, ny, type_code, esize):
    h = bytearray(4096)
    h[0:8] = b"\x89ZVIMG\r\n"
    struct.pack_into("<IIII", h, 8, 1, type_code, 0, 2)
    struct.pack_into("<QQQQ", h, 24, nx, ny, 0, 0)
    struct.pack_into("<QQ", h, 56, 4096, nx * ny * esize)
    struct.pack_into("<iii", h, 128, 1, 2, 3)
    return bytes(h)


def mrc_header(nx, ny, mode):
    h = bytearray(1024)
    struct.pack_into("<10i", h, 0, nx, ny, 1, mode, 0, 0, 0, nx, ny, 1)
    struct.pack_into("<6f", h, 40, float(nx), float(ny), 1.0, 90.0, 90.0, 90.0)
    struct.pack_into("<3i", h, 64, 1, 2, 3)
    struct.pack_into("<3f", h, 76, 0.0, -1.0, -2.0)  # statistics not computed
    struct.pack_into("<ii", h, 88, 0, 0)  # ispg 0 (an image), no extended header
    struct.pack_into("<i", h, 108, 20141)
    h[208:212] = b"MAP "
    h[212:216] = b"\x44\x44\x00\x00"
    struct.pack_into("<f", h, 216, -1.0)
    return bytes(h)


def npy_header(nx, ny, descr):
    d = "{'descr': '%s', 'fortran_order': False, 'shape': (%d, %d), }" % (descr, ny, nx)
    pad = 64 - (10 + len(d) + 1) % 64
    d = d + " " * (pad % 64) + "\n"
    return b"\x93NUMPY\x01\x00" + struct.pack("<H", len(d)) + d.encode()


# NPY descr -> TIFF BitsPerSample and SampleFormat of the inputs.
TIFF_SAMPLES = {"<f4": (32, 3), "<i2": (16, 2), "<c8": (64, 6)}


def tiff_header(nx, ny, bits, fmt):
    """A classic TIFF directory first, then one uncompressed strip from offset 4096 to the end of the
    file (the C reference takes its element count from the file size)."""
    tags = [(256, 4, nx), (257, 4, ny), (258, 3, bits), (259, 3, 1), (262, 3, 1), (273, 4, 4096), (277, 3, 1),
            (278, 4, ny), (279, 4, nx * ny * bits // 8), (339, 3, fmt)]
    h = bytearray(4096)
    h[0:10] = b"II*\x00" + struct.pack("<IH", 8, len(tags))
    for i, (tag, kind, value) in enumerate(tags):
        struct.pack_into("<HHI" + ("I" if kind == 4 else "H2x"), h, 10 + 12 * i, tag, kind, 1, value)
    return bytes(h)


def data_offset(path):
    """Where the elements start in a file written by any of the tools."""
    with open(path, "rb") as f:
        head = f.read(1024)
    if head[:8] == b"\x89ZVIMG\r\n":
        return struct.unpack_from("<Q", head, 56)[0]
    if head[:6] == b"\x93NUMPY":
        if head[6] == 1:
            return 10 + struct.unpack_from("<H", head, 8)[0]
        return 12 + struct.unpack_from("<I", head, 8)[0]
    if head[208:212] == b"MAP ":
        return 1024 + struct.unpack_from("<i", head, 92)[0]
    if head[:4] in (b"\x08\xf2\xa6\xb6", b"\xb6\xa6\xf2\x08"):
        return 64
    if head[:4] == b"II*\x00":
        # Uncompressed single-page classic TIFF with its strips in order: the first strip's offset.
        with open(path, "rb") as f:
            f.seek(struct.unpack_from("<I", head, 4)[0])
            count = struct.unpack("<H", f.read(2))[0]
            for tag, kind, n, value in struct.iter_unpack("<HHII", f.read(12 * count)):
                if tag == 273:
                    size, code = (4, "<I") if kind == 4 else (2, "<H")
                    if n * size <= 4:
                        return struct.unpack_from(code, struct.pack("<I", value))[0]
                    f.seek(value)
                    return struct.unpack(code, f.read(size))[0]
    raise RuntimeError(f"unknown output format: {path}")


def copy_range(src, src_off, dst, length):
    with open(src, "rb") as fi, open(dst, "r+b") as fo:
        off, dst_off = src_off, os.fstat(fo.fileno()).st_size
        while length > 0:
            n = os.copy_file_range(fi.fileno(), fo.fileno(), min(length, 1 << 30), off, dst_off)
            if n <= 0:
                raise RuntimeError("copy_file_range failed")
            off += n
            dst_off += n
            length -= n


class Inputs:
    """Inputs of one size: a, b (real32) and c (int16) in each format, .v copies for vips."""

    def __init__(self, ctx, n_log2, names=("a", "b", "c", "d"), formats=("zv", "mrc", "npy"), vips=True):
        self.ctx, self.n_log2 = ctx, n_log2
        self.n = 1 << n_log2
        self.nx, self.ny = shape_of(n_log2)
        self.dir = os.path.join(ctx.tmp, f"in{n_log2}")
        os.makedirs(self.dir, exist_ok=True)
        self.files = {}  # (fmt, name) -> (path, data offset)
        seeds = {"a": 1, "b": 2, "c": 3, "d": 4}
        # name: (generator type, element count, native type code, element size, MRC mode, NPY descr)
        kinds = {"c": ("int16", self.n, 0x301002, 2, 1, "<i2"),
                 "d": ("cmplx32", self.n // 4, 0xd02008, 8, 4, "<c8")}
        for name in names:
            gtype, count, code, esize, mode, descr = kinds.get(name, ("real32", self.n, 0x501004, 4, 2, "<f4"))
            nx, ny = shape_of(n_log2 - 2) if name == "d" else (self.nx, self.ny)
            path = os.path.join(self.dir, name + ".img")
            with open(path, "wb") as f:
                f.write(native_header(nx, ny, code, esize))
            run_checked([ctx.ref, "gen", gtype, str(count), str(seeds[name]), path])
            self.files[("zv", name)] = (path, 4096)
            for fmt in formats:
                if fmt == "zv":
                    continue
                p = os.path.join(self.dir, name + FORMATS[fmt])
                hdr = (mrc_header(nx, ny, mode) if fmt == "mrc"
                       else tiff_header(nx, ny, *TIFF_SAMPLES[descr]) if fmt == "tiff"
                       else npy_header(nx, ny, descr))
                with open(p, "wb") as f:
                    f.write(hdr)
                copy_range(path, 4096, p, count * esize)
                self.files[(fmt, name)] = (p, len(hdr))
            if vips and ctx.vips and name != "d":
                p = os.path.join(self.dir, name + ".v")
                run_checked(["vips", "rawload", path, p, str(self.nx), str(self.ny), "1",
                             "--offset", "4096", "--format", "short" if name == "c" else "float"])
                self.files[("v", name)] = (p, 64)
        # Source of the floor's copy for an output of n bytes (uint8, or real32 from d; other real32
        # outputs copy input a).
        self.u8src = os.path.join(self.dir, "u8.bin")
        open(self.u8src, "wb").close()
        copy_range(self.files[("zv", "a")][0], 4096, self.u8src, self.n)

    def remove(self):
        shutil.rmtree(self.dir, ignore_errors=True)


# ---------------------------------------------------------------------------------------------
# Running and measuring.

def run_checked(argv):
    r = subprocess.run(argv, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
    if r.returncode != 0:
        raise RuntimeError(f"{' '.join(argv)} failed: {r.stderr.strip()}")


def measure(ctx, argv, errfile, env=None):
    """Runs argv through the measuring helper; returns (seconds, peak RSS in MiB, exit status)."""
    actions = [(os.POSIX_SPAWN_OPEN, 0, "/dev/null", os.O_RDONLY, 0),
               (os.POSIX_SPAWN_OPEN, 1, "/dev/null", os.O_WRONLY, 0),
               (os.POSIX_SPAWN_OPEN, 2, errfile, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o644)]
    res = os.path.join(ctx.tmp, "measure.txt")
    unlink(res)
    pid = os.posix_spawn(ctx.measure, [ctx.measure, res] + argv, env if env is not None else os.environ,
                         file_actions=actions)
    _, status, _ = os.wait4(pid, 0)
    if os.waitstatus_to_exitcode(status) != 0:
        with open(errfile) as f:
            raise RuntimeError("measuring helper failed: " + f.read().strip())
    with open(res) as f:
        sec, kib, code = f.read().split()
    return float(sec), int(kib) / 1024.0, int(code)


def unlink(*paths):
    for p in paths:
        try:
            os.unlink(p)
        except FileNotFoundError:
            pass


class Context:
    pass


def tool_commands(ctx, inp, op, fmt, tool, outdir):
    """(argv, output path, extra files to remove, env) of one tool for one case, or None."""
    o = OPS[op]
    ins = [inp.files[(fmt, nm)] for nm in o["ins"]]
    ext = FORMATS[fmt]
    if tool in ("zvcompute", "before"):
        out = os.path.join(outdir, ("zv" if tool == "zvcompute" else "before") + ext)
        binary = ctx.zv if tool == "zvcompute" else ctx.before
        return [binary] + o["zv"](out, [p for p, _ in ins]), out, [], None
    if tool == "ref":
        out = os.path.join(outdir, "ref" + ext)
        argv = [ctx.ref, o["ref"][0], out, str(ins[0][1]), ins[0][0], str(ins[0][1])]
        if len(ins) > 1:
            argv += [ins[1][0], str(ins[1][1])]
        return argv + o["ref"][1:], out, [], None
    if tool == "floor":
        out = os.path.join(outdir, "floor" + ext)
        src = inp.u8src if o["out"] == "u1" or o["ins"] == ("d",) else inp.files[("zv", "a")][0]
        script = 'cat "$@" > /dev/null && cat "$SRC" > "$DST"'
        env = dict(os.environ, SRC=src, DST=out)
        return ["sh", "-c", script, "sh"] + [p for p, _ in ins], out, [], env
    if tool in ("numpy", "mrcfile"):
        out = os.path.join(outdir, tool + ext)
        return [sys.executable, "-c", PEER_SCRIPT, op, fmt, out] + [p for p, _ in ins], out, [], None
    if tool == "vips":
        vin = [inp.files[("v", nm)][0] for nm in o["ins"]]
        out = os.path.join(outdir, "vips.v")
        env = dict(os.environ, VIPS_CONCURRENCY="1")
        if op == "add":
            return ["vips", "add", vin[0], vin[1], out], out, [], env
        if op == "mul":
            return ["vips", "linear", vin[0], out, "2.5", "0"], out, [], env
        if op == "sqrt":
            return ["vips", "math2_const", vin[0], out, "pow", "0.5"], out, [], env
        if op == "exp":
            return ["vips", "math", vin[0], out, "exp"], out, [], env
        if op == "real32":
            return ["vips", "cast", vin[0], out, "float"], out, [], env
        if op == "gt":
            return ["vips", "relational_const", vin[0], out, "more", "0.5"], out, [], env
        if op == "nran":
            noise = os.path.join(outdir, "noise.v")
            script = ('vips gaussnoise "$3" %d %d --sigma 1 --mean 0 && vips add "$1" "$3" "$2"'
                      % (inp.nx, inp.ny))
            return ["sh", "-c", script, "sh", vin[0], out, noise], out, [noise], env
    return None


def tools_for(ctx, op, fmt):
    tools = ["zvcompute", "ref", "floor"] + (["before"] if ctx.before else [])
    if OPS[op]["peer"] is None:
        return tools
    if fmt == "npy" and np is not None:
        tools.append("numpy")
    if fmt == "mrc" and HAVE_MRCFILE:
        tools.append("mrcfile")
    if fmt == "zv" and ctx.vips and op in VIPS_OPS:
        tools.append("vips")
    return tools


# ---------------------------------------------------------------------------------------------
# Output checks.

def check_output(kind, n, dtype, exp_path, got_path, a_file=None, got_off=None):
    """Compares got with zvcompute's output exp; returns an error text or None ('' = not checked)."""
    eo = data_offset(exp_path)
    go = data_offset(got_path) if got_off is None else got_off
    esize = 1 if dtype == "u1" else 4
    if np is None:
        if kind != "exact":
            return ""
        with open(exp_path, "rb") as fe, open(got_path, "rb") as fg:
            fe.seek(eo)
            fg.seek(go)
            left = n * esize
            while left > 0:
                k = min(left, 4 * MIB)
                if fe.read(k) != fg.read(k):
                    return "differs"
                left -= k
        return None
    ex = np.memmap(exp_path, dtype=np.uint8 if esize == 1 else np.float32, mode="r", offset=eo, shape=(n,))
    gt = np.memmap(got_path, dtype=np.uint8 if esize == 1 else np.float32, mode="r", offset=go, shape=(n,))
    if kind == "noise":
        a = np.memmap(a_file[0], dtype=np.float32, mode="r", offset=a_file[1], shape=(n,))
        errs = []
        for name, arr in (("zvcompute", ex), ("tool", gt)):
            s1 = s2 = 0.0
            for s in range(0, n, 1 << 22):
                d = arr[s:s + (1 << 22)].astype(np.float64) - a[s:s + (1 << 22)]
                s1 += float(d.sum())
                s2 += float((d * d).sum())
            mean = s1 / n
            sd = (s2 / n - mean * mean) ** 0.5
            # 0.002 on top of six standard errors: the rand()-based polar method has a small bias
            # (about 7e-4 of the amplitude) that 2^28 draws resolve.
            if abs(mean) > 6.0 / n ** 0.5 + 0.002 or abs(sd - 1.0) > 0.01:
                errs.append(f"{name} noise mean {mean:.3g} sd {sd:.4f}")
        return "; ".join(errs) or None
    bad = 0
    worst = 0.0
    for s in range(0, n, 1 << 22):
        x, y = ex[s:s + (1 << 22)], gt[s:s + (1 << 22)]
        if kind == "exact":
            ne = x.view(np.uint8 if esize == 1 else np.uint32) != y.view(np.uint8 if esize == 1 else np.uint32)
        elif kind == "x255":
            ne = x.astype(np.uint16) * 255 != y
        else:  # tol
            # Equal values (infinities included) and NaN against NaN agree.
            xd = x.astype(np.float64)
            diff = np.abs(xd - y)
            ne = ~((xd == y) | (np.isnan(xd) & np.isnan(y)) | (diff <= 2.0 ** -20 * np.abs(xd) + 2.0 ** -30))
            if np.count_nonzero(ne):
                worst = max(worst, float(np.nanmax(np.where(ne, diff, 0))))
        bad += int(np.count_nonzero(ne))
    if bad:
        return f"{bad} of {n} elements differ" + (f" (max abs diff {worst:.3g})" if kind == "tol" else "")
    return None


def check_kind(op, tool):
    if tool in ("ref", "before"):
        return "exact"
    kind = OPS[op]["peer"]
    if tool == "vips" and op == "gt":
        return "x255"
    return kind


# ---------------------------------------------------------------------------------------------
# One size: every case, alternating tools.

def run_size(ctx, n_log2, runs, results, failures):
    n = 1 << n_log2
    need = n * (4 + 4 + 2 + 2) * 3 + n * 10 + n * 4 * 3
    free = shutil.disk_usage(ctx.tmp).free
    if need > free:
        raise SystemExit(f"bench: 2^{n_log2} needs about {need / 2**30:.1f} GiB in {ctx.tmp}, "
                         f"{free / 2**30:.1f} GiB free")
    print(f"\n== 2^{n_log2} elements ({n * 4 / MIB:.0f} MiB per real32 file): generating inputs", flush=True)
    inp = Inputs(ctx, n_log2, formats=("zv", "mrc", "npy") + (("tiff",) if "tiff" in ctx.formats else ()), vips=True)
    outdir = os.path.join(ctx.tmp, "out")
    os.makedirs(outdir, exist_ok=True)
    try:
        for op in ctx.ops:
            for fmt in ctx.formats:
                tools = tools_for(ctx, op, fmt)
                case = dict(size=n_log2, op=op, fmt=fmt, tools={})
                cmds = {t: tool_commands(ctx, inp, op, fmt, t, outdir) for t in tools}
                errfile = os.path.join(ctx.tmp, "stderr.txt")
                # Untimed first round: warms the page cache and checks every output.
                expected = None
                for t in tools:
                    argv, out, extra, env = cmds[t]
                    sec, rss, code = measure(ctx, argv, errfile, env)
                    rec = case["tools"].setdefault(t, dict(times=[], rss=[], check=None))
                    rec["first"] = sec
                    rec["rss"].append(rss)
                    if code != 0:
                        with open(errfile) as f:
                            msg = f.read().strip()[-300:]
                        rec["check"] = f"exit status {code}: {msg}"
                        (failures if t in ("zvcompute", "ref", "before") else ctx.warnings).append(
                            f"2^{n_log2} {op} {fmt} {t}: {rec['check']}")
                        unlink(out, *extra)
                        if t == "zvcompute":
                            break
                        continue
                    if t == "zvcompute":
                        expected = os.path.join(outdir, "expected" + FORMATS[fmt])
                        os.replace(out, expected)
                        if op == "nran" and np is not None:
                            err = check_output("noise", n, "f4", expected, expected,
                                               inp.files[(fmt, "a")])
                            if err:
                                rec["check"] = err
                                failures.append(f"2^{n_log2} {op} {fmt} zvcompute: {err}")
                    elif t != "floor" and expected:
                        kind = check_kind(op, t)
                        err = check_output(kind, out_count(op, n), OPS[op]["out"], expected, out, inp.files[(fmt, "a")],
                                           inp.files[(fmt, OPS[op]["ins"][0])][1] if t == "ref" else None)
                        rec["check"] = err if err is None or err else "not checked (needs NumPy)"
                        if err:
                            failures.append(f"2^{n_log2} {op} {fmt} {t}: {err}")
                    unlink(out, *extra)
                if expected is None:
                    results.append(case)
                    continue
                unlink(expected)
                ok_tools = [t for t in tools if not (case["tools"][t]["check"] or "").startswith("exit")]
                for r in range(runs):
                    k = r % len(ok_tools)
                    for t in ok_tools[k:] + ok_tools[:k]:  # rotate the order from round to round
                        argv, out, extra, env = cmds[t]
                        sec, rss, code = measure(ctx, argv, errfile, env)
                        unlink(out, *extra)
                        rec = case["tools"][t]
                        rec["times"].append(sec)
                        rec["rss"].append(rss)
                for t, rec in case["tools"].items():
                    ts = rec["times"] or ([rec["first"]] if "first" in rec else [])
                    rec["median"] = statistics.median(ts) if ts else None
                    rec["min"] = min(ts) if ts else None
                    rec["peak"] = max(rec["rss"]) if rec["rss"] else None
                results.append(case)
                zv = case["tools"]["zvcompute"].get("median")
                line = "  ".join(f"{t} {case['tools'][t]['median']:.3f}s" for t in tools
                                 if case["tools"][t].get("median") is not None)
                print(f"  {OPS[op]['label']:16} {FORMAT_LABEL[fmt]:6}  {line}", flush=True)
                del zv
    finally:
        inp.remove()
        shutil.rmtree(outdir, ignore_errors=True)


# ---------------------------------------------------------------------------------------------
# Flat memory.

def memory_check(ctx, big_log2, small_log2, enforce):
    cases = [("add", "zv"), ("mul", "mrc"), ("sqrt", "npy")]
    rows, ok = [], True
    limit_abs = 3 * BLOCK * 4 / MIB + 16
    peaks = {}
    for n_log2 in (small_log2, big_log2):
        n = 1 << n_log2
        need = n * 4 * 3 + 64 * MIB
        free = shutil.disk_usage(ctx.tmp).free
        if need > free:
            print(f"bench: memory check skipped: 2^{n_log2} needs {need / 2**30:.1f} GiB, "
                  f"{free / 2**30:.1f} GiB free")
            return None, True
        print(f"\n== memory check: 2^{n_log2} elements ({n * 4 / MIB:.0f} MiB per file)", flush=True)
        for op, fmt in cases:
            names = ("a", "b") if op == "add" else ("a",)
            inp = Inputs(ctx, n_log2, names=names, formats=(fmt,), vips=False)
            unlink(inp.u8src)
            outdir = os.path.join(ctx.tmp, "out")
            os.makedirs(outdir, exist_ok=True)
            argv, out, _, _ = tool_commands(ctx, inp, op, fmt, "zvcompute", outdir)
            # Inputs are read once untimed so the run sees them in the page cache, as in the table.
            subprocess.run(["cat"] + [inp.files[(fmt, nm)][0] for nm in names], stdout=subprocess.DEVNULL)
            sec, rss, code = measure(ctx, argv, os.path.join(ctx.tmp, "stderr.txt"))
            unlink(out)
            inp.remove()
            if code != 0:
                print(f"bench: memory check run failed: {' '.join(argv)}")
                return None, False
            peaks[(op, fmt, n_log2)] = (rss, sec)
    for op, fmt in cases:
        small, big = peaks[(op, fmt, small_log2)][0], peaks[(op, fmt, big_log2)][0]
        good = big <= limit_abs and big <= small + 32
        ok &= good
        rows.append([f"{OPS[op]['label']} ({FORMAT_LABEL[fmt]})", f"{small:.0f}", f"{big:.0f}",
                     f"{peaks[(op, fmt, big_log2)][1]:.2f}", "pass" if good else "FAIL"])
    head = ["operation", f"peak MiB 2^{small_log2}", f"peak MiB 2^{big_log2}", f"s 2^{big_log2}",
            f"flat (<= {limit_abs:.0f} MiB and small + 32)" + ("" if enforce else ", not enforced")]
    return (head, rows), (ok or not enforce)


# ---------------------------------------------------------------------------------------------
# Tables.

def fmt_s(v):
    return "-" if v is None else (f"{v:.3f}" if v < 10 else f"{v:.1f}")


def table_rows(results):
    head = ["size", "op", "format", "zvcompute s", "MiB", "C ref s", "ref/zv", "MiB", "floor s", "floor/zv",
            "peer", "peer s", "peer/zv", "MiB", "zv/floor", "zv/ref", "check"]
    before = any("before" in case["tools"] for case in results)
    if before:
        head[-1:-1] = ["before s", "before/floor", "zv/before"]
    rows = []
    for case in results:
        t = case["tools"]
        zv = t.get("zvcompute", {})
        zt = zv.get("median")

        def cell(name):
            rec = t.get(name)
            if not rec or rec.get("median") is None:
                return "-", "-", "-"
            ratio = f"{rec['median'] / zt:.2f}" if zt else "-"
            return fmt_s(rec["median"]), ratio, f"{rec['peak']:.0f}"
        ref = cell("ref")
        flo = cell("floor")
        peer = next((p for p in ("numpy", "mrcfile", "vips") if p in t), None)
        pc = cell(peer) if peer else ("-", "-", "-")
        checks = []
        for name, rec in t.items():
            c = rec.get("check")
            if c:
                checks.append(f"{name}: {c}")
        fm = t.get("floor", {}).get("median")
        zf = f"{zt / fm:.2f}" if zt and fm else "-"
        zr = f"{zt / t['ref']['median']:.2f}" if zt and t.get("ref", {}).get("median") else "-"
        row = [f"2^{case['size']}", OPS[case["op"]]["label"], FORMAT_LABEL[case["fmt"]],
               fmt_s(zt), f"{zv['peak']:.0f}" if zv.get("peak") else "-",
               ref[0], ref[1], ref[2], flo[0], flo[1], peer or "-", pc[0], pc[1], pc[2], zf, zr]
        if before:
            bm = t.get("before", {}).get("median")
            row += [fmt_s(bm), f"{bm / fm:.2f}" if bm and fm else "-", f"{zt / bm:.2f}" if zt and bm else "-"]
        rows.append(row + ["; ".join(checks) or "ok"])
    return head, rows


def render_text(head, rows):
    w = [max(len(str(r[i])) for r in [head] + rows) for i in range(len(head))]
    lines = ["  ".join(str(c).ljust(w[i]) for i, c in enumerate(head))]
    lines.append("  ".join("-" * x for x in w))
    for r in rows:
        lines.append("  ".join(str(c).ljust(w[i]) for i, c in enumerate(r)))
    return "\n".join(lines)


def render_md(head, rows):
    lines = ["| " + " | ".join(head) + " |", "|" + "---|" * len(head)]
    for r in rows:
        lines.append("| " + " | ".join(str(c).replace("|", "/") for c in r) + " |")
    return "\n".join(lines)


def machine_text():
    model = "unknown"
    mem = "unknown"
    try:
        with open("/proc/cpuinfo") as f:
            for line in f:
                if line.startswith("model name"):
                    model = line.split(":", 1)[1].strip()
                    break
        with open("/proc/meminfo") as f:
            for line in f:
                if line.startswith("MemTotal"):
                    mem = f"{int(line.split()[1]) / 2**20:.1f} GiB"
                    break
    except OSError:
        pass
    vips = "absent"
    if shutil.which("vips"):
        vips = subprocess.run(["vips", "--version"], capture_output=True, text=True).stdout.strip()
    return (f"{datetime.datetime.now().strftime('%Y-%m-%d %H:%M')}; {os.cpu_count()} CPUs, {model}; "
            f"memory {mem}; kernel {platform.release()}; Python {platform.python_version()}, "
            f"NumPy {np.__version__ if np is not None else 'absent'}, "
            f"mrcfile {'present' if HAVE_MRCFILE else 'absent'}, {vips}")


# ---------------------------------------------------------------------------------------------

def build_zvcompute():
    build = os.path.join(ROOT, "build-bench")
    print(f"bench: building zvcompute in {build}", flush=True)
    run_checked(["cmake", "-S", ROOT, "-B", build, "-DCMAKE_BUILD_TYPE=Release", "-DZV_TESTS=OFF"])
    run_checked(["cmake", "--build", build, "-j2", "--target", "zvcompute"])
    return os.path.join(build, "zvcompute")


def main():
    ap = argparse.ArgumentParser(description="zvcompute benchmark (see the module text)")
    ap.add_argument("--size", type=int, default=28, help="main case: 2^SIZE elements (default 28)")
    ap.add_argument("--small", type=int, default=24, help="second case: 2^SMALL elements (0: none)")
    ap.add_argument("--runs", type=int, default=5, help="timed runs per tool and case (default 5)")
    ap.add_argument("--smoke", action="store_true", help="everything once at 2^20, no timing claims")
    ap.add_argument("--zvcompute", help="zvcompute binary (default: build it into build-bench)")
    ap.add_argument("--compare", help="another zvcompute binary (an earlier build), timed side by side as "
                    "'before'; its outputs must equal zvcompute's bit for bit")
    ap.add_argument("--dir", default="/tmp", help="parent of the temporary directory (default /tmp)")
    ap.add_argument("--ops", default=DEFAULT_OPS, help="comma-separated subset of " + ",".join(OPS)
                    + " (default " + DEFAULT_OPS + ")")
    ap.add_argument("--formats", default="zv,mrc,npy,tiff", help="comma-separated subset of zv,mrc,npy,tiff")
    ap.add_argument("--no-memcheck", action="store_true", help="skip the flat-memory check")
    ap.add_argument("--no-vips", action="store_true", help="leave vips out even when installed")
    ap.add_argument("--markdown", help="also write the tables as Markdown to this file")
    ap.add_argument("--json", help="write every measurement as JSON to this file")
    args = ap.parse_args()

    ctx = Context()
    ctx.ops = [o for o in args.ops.split(",") if o]
    ctx.formats = [f for f in args.formats.split(",") if f]
    for o in ctx.ops:
        if o not in OPS:
            ap.error(f"unknown operation {o}")
    for f in ctx.formats:
        if f not in FORMATS:
            ap.error(f"unknown format {f}")
    ctx.vips = bool(shutil.which("vips")) and not args.no_vips
    ctx.warnings = []
    if args.smoke:
        sizes, runs = [20], 0
        big, small = 22, 20
    else:
        sizes = [args.size] + ([args.small] if args.small and args.small != args.size else [])
        runs = args.runs
        big, small = args.size + 2, 24
    ctx.zv = os.path.abspath(args.zvcompute) if args.zvcompute else build_zvcompute()
    ctx.before = os.path.abspath(args.compare) if args.compare else None
    if ctx.before and not os.access(ctx.before, os.X_OK):
        raise SystemExit(f"bench: no zvcompute binary at {ctx.before}")
    if not os.access(ctx.zv, os.X_OK):
        raise SystemExit(f"bench: no zvcompute binary at {ctx.zv}")
    ctx.tmp = tempfile.mkdtemp(prefix="zvbench-", dir=args.dir)
    failures = []
    results = []
    mem = None
    mem_ok = True
    try:
        ctx.ref = os.path.join(ctx.tmp, "ref_stream")
        cc = os.environ.get("CC", "cc")
        run_checked([cc, "-O2", "-fvect-cost-model=dynamic", "-ffp-contract=off", "-fno-math-errno",
                     "-o", ctx.ref, os.path.join(HERE, "ref_stream.c"), "-lm"])
        ctx.measure = os.path.join(ctx.tmp, "measure")
        run_checked([cc, "-O2", "-o", ctx.measure, os.path.join(HERE, "measure.c")])
        machine = machine_text()
        print("bench: " + machine)
        missing = [name for name, have in (("NumPy", np is not None), ("mrcfile", HAVE_MRCFILE),
                                           ("vips", ctx.vips)) if not have]
        if missing:
            print("bench: not installed, skipped: " + ", ".join(missing)
                  + " (Debian: python3-numpy python3-mrcfile libvips-tools)")
        for s in sizes:
            run_size(ctx, s, runs, results, failures)
        if not args.no_memcheck:
            mem, mem_ok = memory_check(ctx, big, small, enforce=not args.smoke)
    finally:
        shutil.rmtree(ctx.tmp, ignore_errors=True)

    head, rows = table_rows(results)
    note = ("smoke run: single runs at a tiny size, no timing claims" if args.smoke else
            f"median of {runs} alternating runs after one untimed run per tool")
    print(f"\nSeconds ({note}); MiB = peak resident memory (max over runs); "
          "x/zv = that tool's time / zvcompute's; peer = numpy (NPY), mrcfile (MRC), vips (.v, "
          "native rows)\n")
    print(render_text(head, rows))
    if mem:
        print("\nFlat memory (zvcompute peak resident MiB):\n")
        print(render_text(*mem))
    for w in ctx.warnings:
        print("bench: warning: " + w)
    for f in failures:
        print("bench: MISMATCH: " + f)
    if args.markdown:
        with open(args.markdown, "w") as f:
            f.write(f"Machine: {machine}\n\nSeconds ({note}).\n\n{render_md(head, rows)}\n")
            if mem:
                f.write("\nFlat memory (zvcompute peak resident MiB):\n\n" + render_md(*mem) + "\n")
    if args.json:
        with open(args.json, "w") as f:
            json.dump(dict(machine=machine, results=results, memory=mem, failures=failures), f, indent=1)
    if failures:
        print(f"bench: {len(failures)} output check(s) failed")
        return 1
    if not mem_ok:
        print("bench: memory check failed: peak resident memory grows with the image")
        return 3
    print("bench: all outputs agree")
    return 0


if __name__ == "__main__":
    sys.exit(main())
