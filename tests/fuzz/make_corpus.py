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
import gzip, os, shutil, struct, subprocess, sys, tempfile

ZV = sys.argv[1]
OUT = sys.argv[2] if len(sys.argv) > 2 else os.path.join(os.path.dirname(__file__), "corpus")
TMP = tempfile.mkdtemp(prefix="zvcorpus-")
TYPES = ["uint8", "uint16", "uint32", "uint64", "int8", "int16", "int32", "int64", "real32", "real64", "imag32",
         "imag64", "cmplx32", "cmplx64"]


def npy(descr, shape, data, version=1, fortran=False):
    shp = "(" + ", ".join(str(s) for s in shape) + ("," if len(shape) == 1 else "") + ")"
    d = "{'descr': '%s', 'fortran_order': %s, 'shape': %s, }" % (descr, fortran, shp)
    pre = 10 if version == 1 else 12
    d += " " * ((pre + len(d) + 64) // 64 * 64 - pre - len(d) - 1) + "\n"
    return b"\x93NUMPY" + bytes([version, 0]) + struct.pack("<H" if version == 1 else "<I", len(d)) + d.encode() + data


def f32(values, big=False):
    return struct.pack((">" if big else "<") + "%df" % len(values), *values)


def read(path):
    with open(path, "rb") as f:
        return f.read()


def save(target, name, data):
    os.makedirs(os.path.join(OUT, target), exist_ok=True)
    with open(os.path.join(OUT, target, name), "wb") as f:
        f.write(data)


def made(fmt, name, *args):
    """The file the tool makes in a format from the arguments, or None when it refuses."""
    r = subprocess.run([ZV, "-fmt", fmt, os.path.join(TMP, name), "=", *args], stderr=subprocess.PIPE, text=True)
    return read(os.path.join(TMP, name)) if r.returncode == 0 else None


def big_endian_mrc(m, esize):
    """A little-endian MRC file turned big-endian: header words (52 to 55 but the stamp), stamp and data."""
    swapped = lambda b, size: b"".join(b[i:i + size][::-1] for i in range(0, len(b), size))
    return swapped(m[:208], 4) + m[208:212] + b"\x11\x11\x00\x00" + swapped(m[216:224], 4) + m[224:1024] + swapped(m[1024:], esize)


def word(m, i, value):
    return m[:4 * i] + struct.pack("<i", value) + m[4 * i + 4:]


# Small real32 arrays of 1 to 4 axes; values include negatives, fractions and a large one.
src = {}
for shape, n in [((7,), 7), ((3, 4), 12), ((2, 3, 4), 24), ((2, 2, 3, 4), 48), ((0, 3), 0)]:
    src[len(shape) if n else 0] = p = os.path.join(TMP, "in%d_%d.npy" % (len(shape), n))
    with open(p, "wb") as f:
        f.write(npy("<f4", shape, f32([((i * 37) % 11 - 5) * 0.75 for i in range(n - 1)] + [300.5] * (n > 0))))

# Every format the tool knows: every element type it holds on one shape, every axis count on real32.
error = subprocess.run([ZV, "-fmt", "?", "x", "sqrt"], capture_output=True, text=True).stderr
for fmt in error.split("known formats: ", 1)[1].split(")", 1)[0].split(", "):
    ext = "img" if fmt == "zv" else fmt
    for t in TYPES:
        data = made(fmt, "%s.%s" % (t, ext), t, src[2])
        if data is not None:
            save(fmt, "%s_2d.%s" % (t, ext), data)
    for dim in (1, 3, 4):
        save(fmt, "real32_%dd.%s" % (dim, ext), made(fmt, "r.%s" % ext, "real32", src[dim]))
save("zv", "empty.img", made("zv", "empty.img", "+", src[0]))

# MRC and NPY variants at the byte level: byte orders, extended headers, old style, modes 3 and 12;
# versions, column-major, float16 and unusual shapes.
mrc = {t: read(os.path.join(OUT, "mrc", "%s_2d.mrc" % t)) for t in ["int16", "real32", "cmplx32"]}
for t, esize in [("real32", 4), ("int16", 2), ("cmplx32", 4)]:
    save("mrc", "%s_big.mrc" % t, big_endian_mrc(mrc[t], esize))
m = mrc["real32"]
for ext in (101, 128):  # 101: data not aligned to the element size
    save("mrc", "real32_ext%d.mrc" % ext, word(m[:1024], 23, ext) + bytes(range(ext)) + m[1024:])
save("mrc", "real32_oldstyle.mrc", m[:208] + bytes(8) + m[216:])  # no "MAP " stamp, no machine stamp
save("mrc", "half_mode12.mrc", word(mrc["int16"], 3, 12))
save("mrc", "cint16_mode3.mrc", word(word(word(mrc["int16"], 3, 3), 0, 2), 7, 2))  # 4 x 3 int16 as 2 x 3 pairs

vals = [0.5 * i - 2 for i in range(12)]
for name, data in {
        "v2.npy": npy("<f4", (3, 4), f32(vals), version=2),
        "v3.npy": npy("<f4", (3, 4), f32(vals), version=3),
        "big_f4.npy": npy(">f4", (3, 4), f32(vals, big=True)),
        "big_i2.npy": npy(">i2", (2, 3), struct.pack(">6h", -3, -1, 0, 1, 2, 32767)),
        "big_c8.npy": npy(">c8", (3,), f32([1, 2, -3, 4, 5.5, -6], big=True)),
        "fortran.npy": npy("<f4", (3, 4), f32(vals), fortran=True),
        "fortran_3d.npy": npy("<i2", (2, 3, 2), struct.pack("<12h", *range(-6, 6)), fortran=True),
        "half.npy": npy("<f2", (2, 2), struct.pack("<4H", 0x3C00, 0xC000, 0x0001, 0x7C00)),
        "bool.npy": npy("|b1", (4,), bytes([0, 1, 1, 0])),
        "scalar.npy": npy("<f8", (), struct.pack("<d", 2.5)),
        "five_axes.npy": npy("<f4", (1, 1, 2, 1, 3), f32(vals[:6])),
        "zero_axis.npy": npy("<f4", (0, 5), b""),
        # A header of odd length, not padded: data not aligned to the element size.
        "unaligned.npy": b"\x93NUMPY\x01\x00\x3b\x00{'descr': '<i4', 'fortran_order': False, 'shape': (2, 2) }\n" +
                         struct.pack("<4i", -1, 2, -3, 2147483647),
        "trailing.npy": npy("|u1", (3,), b"\x01\x02\x03") + b"extra"}.items():
    save("npy", name, data)

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

# Argument vectors (arguments separated by zero bytes) and option declarations.
for name, a in {"switch": "-h", "seed": "-seed 42 out.img = a.img + 1", "seed_huge": "-seed 18446744073709551615",
                "formats": "-fmt mrc -cap=read,sync x", "reals": "-r=1,2.5,-3e2 -r 4", "reals_list": "-r 0 1 99.5 a",
                "dashdash": "-- -h -seed", "negative": "-h a.mrc - -3", "repeat": "-seed 1 -seed 2", "unknown": "-nope 1"}.items():
    save("option_args", name, a.replace(" ", "\0").encode())
for i, d in enumerate(["[ h ]", "[ seed <> Size ]", "[ fmt   <> String ]", "[ cap= <> String ]", "[ x 1:3 Real ]",
                       "[ x 1:8 =2 Real ]", "[ m 1:16 * Size ]", "[ v 3 Index <= -5:5 ]", "[ v Complex + ]",
                       "[ x Coord -2.5: ]", "[ mode Keyword ]", "[ b Bool ]", "[ x <a b> Size ]", "[ x <_*> Size ]",
                       "[ p : 2 Real ]", "[ v Offset -3:3 ]", "[ files 1:3 String ]", "[ x 2: Real ]"]):
    save("option_decl", "decl%02d" % i, d.encode())
shutil.rmtree(TMP)
