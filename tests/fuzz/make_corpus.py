#!/usr/bin/env python3
"""Writes the seed corpora of the fuzz targets into tests/fuzz/corpus/<target>/.

usage: make_corpus.py ZVCOMPUTE [CORPUS_DIR]

The image files are made by the built tool from small NumPy arrays (written here byte by byte): for
every format the tool knows (the list its "unknown file format" error gives), every element type the
format holds and every axis count. They are then varied at the byte level where the tool only writes
one form: big-endian MRC and NPY, NPY versions 2 and 3, column-major NPY, MRC with an extended header,
old-style MRC, MRC modes 3 and 12, and gzip-compressed files.
Only the standard library is used. Existing files of the same name are replaced; regression files
(crash-*) are left alone.
"""
import gzip
import os
import shutil
import struct
import subprocess
import sys
import tempfile

ZV = sys.argv[1]
OUT = sys.argv[2] if len(sys.argv) > 2 else os.path.join(os.path.dirname(__file__), "corpus")


def npy_bytes(descr, shape, data, version=1, fortran=False):
    shp = "(" + ", ".join(str(s) for s in shape) + ("," if len(shape) == 1 else "") + ")"
    d = "{'descr': '%s', 'fortran_order': %s, 'shape': %s, }" % (descr, "True" if fortran else "False", shp)
    pre = 10 if version == 1 else 12
    total = (pre + len(d) + 1 + 63) // 64 * 64
    d = d + " " * (total - pre - len(d) - 1) + "\n"
    head = b"\x93NUMPY" + bytes([version, 0])
    head += struct.pack("<H" if version == 1 else "<I", len(d))
    return head + d.encode("latin-1") + data


def f32(values, big=False):
    return struct.pack((">" if big else "<") + "%df" % len(values), *values)


def save(target, name, data):
    d = os.path.join(OUT, target)
    os.makedirs(d, exist_ok=True)
    with open(os.path.join(d, name), "wb") as f:
        f.write(data)


def run(*args, check=True):
    return subprocess.run([ZV, *args], check=check, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)


def known_formats():
    """The formats of the tool's registry, from its error text for an unknown one."""
    r = subprocess.run([ZV, "-fmt", "?", "x", "sqrt"], capture_output=True, text=True)
    return r.stderr.split("known formats: ", 1)[1].split(")", 1)[0].split(", ")


def read(path):
    with open(path, "rb") as f:
        return f.read()


def swap_words(b, size):
    fmt = {2: "H", 4: "I", 8: "Q"}[size]
    n = len(b) // size
    return struct.pack(">%d%s" % (n, fmt), *struct.unpack("<%d%s" % (n, fmt), b))


def mrc_big_endian(m, esize):
    """A little-endian MRC file turned big-endian: header words, stamp and data."""
    head = bytearray(m[:1024])
    for i in list(range(0, 52)) + [54, 55]:
        head[4 * i:4 * i + 4] = head[4 * i:4 * i + 4][::-1]
    head[212:216] = b"\x11\x11\x00\x00"
    data = m[1024:]
    if esize > 1:
        data = swap_words(data, esize)
    return bytes(head) + data


def mrc_set(m, word, value, fmt="<i"):
    b = bytearray(m)
    b[4 * word:4 * word + 4] = struct.pack(fmt, value)
    return bytes(b)


def main():
    tmp = tempfile.mkdtemp(prefix="zvcorpus-")
    src = {}
    # Small real32 arrays of 1 to 4 axes; values include negatives, fractions and a large one.
    for shape in [(7,), (3, 4), (2, 3, 4), (2, 2, 3, 4)]:
        n = 1
        for s in shape:
            n *= s
        vals = [((i * 37) % 11 - 5) * 0.75 for i in range(n)]
        vals[-1] = 300.5
        p = os.path.join(tmp, "in%d.npy" % len(shape))
        with open(p, "wb") as f:
            f.write(npy_bytes("<f4", shape, f32(vals)))
        src[len(shape)] = p

    # Every format: every element type it holds on one shape, every axis count on real32.
    types = ["uint8", "uint16", "uint32", "uint64", "int8", "int16", "int32", "int64", "real32",
             "real64", "imag32", "imag64", "cmplx32", "cmplx64"]
    for fmt in known_formats():
        suffix = "img" if fmt == "zv" else fmt
        for t in types:
            p = os.path.join(tmp, "%s.%s" % (t, suffix))
            if run("-fmt", fmt, p, "=", t, src[2], check=False).returncode == 0:
                save(fmt, "%s_2d.%s" % (t, suffix), read(p))
        for dim in (1, 3, 4):
            p = os.path.join(tmp, "r%d.%s" % (dim, suffix))
            run("-fmt", fmt, p, "=", "real32", src[dim])
            save(fmt, "real32_%dd.%s" % (dim, suffix), read(p))

    p = os.path.join(tmp, "empty.img")
    with open(os.path.join(tmp, "empty.npy"), "wb") as f:
        f.write(npy_bytes("<f4", (0, 3), b""))
    run(p, "=", "+", os.path.join(tmp, "empty.npy"))
    save("zv", "empty.img", read(p))

    # MRC variants at the byte level.
    mrc = {t: read(os.path.join(OUT, "mrc", "%s_2d.mrc" % t)) for t in ["int16", "real32", "cmplx32"]}
    save("mrc", "real32_big.mrc", mrc_big_endian(mrc["real32"], 4))
    save("mrc", "int16_big.mrc", mrc_big_endian(mrc["int16"], 2))
    save("mrc", "cmplx32_big.mrc", mrc_big_endian(mrc["cmplx32"], 4))
    m = mrc["real32"]
    for ext in (101, 128):  # 101: data not aligned to the element size
        save("mrc", "real32_ext%d.mrc" % ext, mrc_set(m[:1024], 23, ext) + bytes(range(ext)) + m[1024:])
    old = bytearray(m)
    old[208:216] = bytes(8)  # no "MAP " stamp, no machine stamp
    save("mrc", "real32_oldstyle.mrc", bytes(old))
    save("mrc", "half_mode12.mrc", mrc_set(mrc["int16"], 3, 12))
    cint = mrc_set(mrc_set(mrc["int16"], 3, 3), 0, 2)  # 4 x 3 int16 as 2 x 3 pairs
    save("mrc", "cint16_mode3.mrc", mrc_set(cint, 7, 2))

    # NPY variants: versions, byte order, column-major, float16 and unusual shapes.
    vals = [0.5 * i - 2 for i in range(12)]
    save("npy", "v2.npy", npy_bytes("<f4", (3, 4), f32(vals), version=2))
    save("npy", "v3.npy", npy_bytes("<f4", (3, 4), f32(vals), version=3))
    save("npy", "big_f4.npy", npy_bytes(">f4", (3, 4), f32(vals, big=True)))
    save("npy", "big_i2.npy", npy_bytes(">i2", (2, 3), struct.pack(">6h", -3, -1, 0, 1, 2, 32767)))
    save("npy", "big_c8.npy", npy_bytes(">c8", (3,), f32([1, 2, -3, 4, 5.5, -6], big=True)))
    save("npy", "fortran.npy", npy_bytes("<f4", (3, 4), f32(vals), fortran=True))
    save("npy", "fortran_3d.npy", npy_bytes("<i2", (2, 3, 2), struct.pack("<12h", *range(-6, 6)), fortran=True))
    save("npy", "half.npy", npy_bytes("<f2", (2, 2), struct.pack("<4H", 0x3C00, 0xC000, 0x0001, 0x7C00)))
    save("npy", "bool.npy", npy_bytes("|b1", (4,), bytes([0, 1, 1, 0])))
    save("npy", "scalar.npy", npy_bytes("<f8", (), struct.pack("<d", 2.5)))
    save("npy", "five_axes.npy", npy_bytes("<f4", (1, 1, 2, 1, 3), f32(vals[:6])))
    save("npy", "zero_axis.npy", npy_bytes("<f4", (0, 5), b""))
    # A header of odd length, not padded: data not aligned to the element size.
    odd = "{'descr': '<i4', 'fortran_order': False, 'shape': (2, 2) }\n"
    save("npy", "unaligned.npy", b"\x93NUMPY\x01\x00" + struct.pack("<H", len(odd)) + odd.encode() +
         struct.pack("<4i", -1, 2, -3, 2147483647))
    save("npy", "trailing.npy", npy_bytes("|u1", (3,), b"\x01\x02\x03") + b"extra")

    # Detection by content sees a few of every kind.
    for target, names in {"zv": ["real32_2d.img", "cmplx64_2d.img", "uint8_2d.img"],
                          "mrc": ["real32_4d.mrc", "int16_big.mrc", "real32_oldstyle.mrc", "real32_ext101.mrc"],
                          "npy": ["v2.npy", "big_f4.npy", "fortran.npy", "half.npy"]}.items():
        for name in names:
            save("auto", name, read(os.path.join(OUT, target, name)))

    # Compressed files, read through the inflate stream: one gzip member, and two in a row.
    for target, name in [("mrc", "real32_4d.mrc"), ("npy", "v2.npy"), ("zv", "uint8_2d.img")]:
        data = read(os.path.join(OUT, target, name))
        save("auto", name + ".gz", gzip.compress(data, mtime=0))
        save("auto", "two_" + name + ".gz", gzip.compress(data[:700], mtime=0) + gzip.compress(data[700:], mtime=0))

    # Argument vectors: arguments separated by zero bytes.
    args = {
        "switch": ["-h"],
        "seed": ["-seed", "42", "out.img", "=", "a.img", "+", "1"],
        "seed_huge": ["-seed", "18446744073709551615"],
        "formats": ["-fmt", "mrc", "-cap=read,sync", "x"],
        "reals": ["-r=1,2.5,-3e2", "-r", "4"],
        "reals_list": ["-r", "0", "1", "99.5", "a"],
        "dashdash": ["--", "-h", "-seed"],
        "negative": ["-h", "a.mrc", "-", "-3"],
        "repeat": ["-seed", "1", "-seed", "2"],
        "unknown": ["-nope", "1"],
    }
    for name, a in args.items():
        save("option_args", name, b"\0".join(s.encode() for s in a))

    # Option declarations.
    decls = ["[ h ]", "[ seed <> Size ]", "[ fmt   <> String ]", "[ cap= <> String ]", "[ x 1:3 Real ]",
             "[ x 1:8 =2 Real ]", "[ m 1:16 * Size ]", "[ v 3 Index <= -5:5 ]", "[ v Complex + ]",
             "[ x Coord -2.5: ]", "[ mode Keyword ]", "[ b Bool ]", "[ x <a b> Size ]", "[ x <_*> Size ]",
             "[ p : 2 Real ]", "[ v Offset -3:3 ]", "[ files 1:3 String ]", "[ x 2: Real ]"]
    for i, d in enumerate(decls):
        save("option_decl", "decl%02d" % i, d.encode())
    shutil.rmtree(tmp)


main()
