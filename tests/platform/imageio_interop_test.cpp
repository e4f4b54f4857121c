// Interoperability with the field's own readers and writers: the tool copies and rewrites in place
// the files that numpy and mrcfile write (versions, byte orders, column-major arrays, extended
// headers, ten labels), and they read and validate the results.
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <numeric>
#include <sstream>
#include <tuple>

#include "imageio_helpers.h"

namespace {

TEST_F(ImageioTest, InteropWithNumpyAndMrcfile) {
  const char *py = "/usr/bin/python3";
  Child probe = Start({py, "-c", "import numpy, mrcfile"});
  if (Finish(probe).status) GTEST_SKIP() << "python3 with numpy and mrcfile not available";
  WriteFileBytes(dir / "script.py", R"PY(
import numpy as np, mrcfile, io, re, subprocess, sys, contextlib, warnings
warnings.simplefilter('ignore')
bad = []
def valid(name):
    with contextlib.redirect_stdout(io.StringIO()): return mrcfile.validate(name)
def run(*args): return subprocess.run([sys.argv[1], *args], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL).returncode
# Files they write, copied by the tool into the same format (their type named) and rewritten in place:
# "* 2" for single-precision data, "xor 1" for integers; half floats are read only. The copies are
# our writer's files: numpy and mrcfile read them, mrcfile validates them (header statistics
# included), and MRC geometry and labels carry over.
label = dict(u1='uint8', i1='int8', u2='uint16', i2='int16', u4='uint32', i4='int32', u8='uint64', i8='int64',
             f2='real32', f4='real32', f8='real64', c8='cmplx32', c16='cmplx64', b1='uint8')
def values(shape, code, inf=-65504):
    v = (np.arange(int(np.prod(shape)), dtype=np.int64) * 7919 % 251) - 120
    if code[0] in 'ub': v = np.abs(v) % (2 if code == 'b1' else 256)
    v = v + 1j * (v[::-1] / 4.0) if code[0] == 'c' else v / 8.0 if code[0] == 'f' else v
    if code == 'f2' and v.size > 4: v[:4] = [inf, 2.0 ** -24, -0.0, 65504]  # half-float specials
    return v.reshape(shape).astype('|b1' if code == 'b1' else '<' + code)
def load(name):
    if name.endswith('.npy'): return np.load(name), None
    with mrcfile.open(name) as m:
        h = m.header
        return m.data.copy(), (m.voxel_size.item(), h.origin.item(), int(h.ispg), [l.strip() for l in m.get_labels()], int(h.nsymbt),
                               [float(h.dmin), float(h.dmax), float(h.dmean), float(h.rms)])
def stats(d, head):  # the header's statistics of the data, closer than mrcfile.validate checks them
    return np.iscomplexobj(d) or np.allclose(head[5], [d.min(), d.max(), d.mean(dtype=np.float64), d.std(dtype=np.float64)], rtol=1e-5)
def labels_after(head, new): return new[-1].startswith('zvcompute ') and new == (head[3] + new[-1:])[-10:] and re.fullmatch(
    r'\d\d-\w{3}-\d\d  \d\d:\d\d:\d\d *', new[-1][60:])
def check(name, code, want, shape):
    before, head = load(name)
    copy = 'copy' + name[-4:]
    got, chead = load(copy) if run(copy, '=', label[code], name) == 0 else (None, None)
    ok = got is not None and got.dtype == want.dtype and np.array_equal(got, want.reshape(shape))
    ok = ok and (head is None or (chead[:3] == head[:3] and chead[4] in (0, head[4], head[4] + 4) and labels_after(head, chead[3]) and valid(copy) and stats(got, chead)))
    raw = open(name, 'rb').read()
    if code == 'f2': return ok and run(name, '*', '2') == 1 and open(name, 'rb').read() == raw
    single = code in ('f4', 'c8')
    if not single and code[0] in 'fc': return ok
    ok = ok and run(name, *(('*', '2') if single else ('xor', '1'))) == 0
    after, ahead = load(name)
    ok = ok and after.dtype == before.dtype and after.flags.f_contiguous == before.flags.f_contiguous
    ok = ok and np.array_equal(after, before * 2 if single else before ^ before.dtype.type(1))
    return ok and (head is None or (valid(name) and stats(after, ahead) and labels_after(head, ahead[3]) and ahead[3][-1].startswith('zvcompute ' + name)))
files = 0
for code in label:
    for shape, read in [((5,), (5,)), ((2, 3, 4), (2, 3, 4)), ((), (1,)), ((1, 1, 2, 1, 3, 2), (2, 1, 3, 2)), ((2, 3, 2, 2, 2), (6, 2, 2, 2))]:
        a = values(shape, code, np.inf)
        want = a.astype('<' + {'f2': 'f4', 'b1': 'u1'}.get(code, code))
        forms = [a] + [a.astype('>' + code)] * (code not in ('u1', 'i1', 'b1')) + [np.asfortranarray(a)] * (a.ndim > 1)
        for version in [None] + [(2, 0), (3, 0)] * (code == 'i4'):
            for b in forms:
                files += 1; name = 'n%d.npy' % files
                with open(name, 'wb') as f: np.lib.format.write_array(f, b, version=version)
                if not check(name, code, want, read): bad.append(name)
# Large enough for the tool to work in pieces that start and end inside columns.
a = (np.arange(3 * 301 * 307) % 1000 / 8.0).astype('<f4').reshape(3, 301, 307)
files += 1; np.save('big.npy', np.asfortranarray(a))
if not check('big.npy', 'f4', a, a.shape): bad.append('big.npy')
for code in ['i1', 'i2', 'f4', 'c8', 'u2', 'f2']:
    # An image, volumes (space group 1 or another kept), a stack, volume stacks (401 or another kept).
    for shape, ispg in [((3, 4), 0), ((2, 3, 4), 1), ((2, 3, 4), 19), ((2, 3, 4), 0), ((2, 3, 3, 4), 401), ((3, 1, 4, 5), 419)]:
        for order in '<>':
            files += 1; name = 'm%d.mrc' % files
            with mrcfile.new(name) as m:
                m.set_data(values(shape, code).astype(order + code))
                if len(shape) == 3 and not ispg: m.set_image_stack()
                m.header.ispg = ispg; m.header.mz = shape[1] if len(shape) == 4 else m.header.mz
                m.voxel_size = (1.5, 2.25, 3.0); m.header.origin = (10.0, -20.0, 30.5)
                m.set_extended_header(np.arange(10, dtype=np.int32)); m.header.exttyp = b'SERI'
                for i in range(9): m.add_label('label %d' % i)
            want = values(shape, code).astype('<' + {'f2': 'f4'}.get(code, code))
            if not check(name, code, want, shape): bad.append(name)
# Unsigned bytes in MRC: statistics when every value reads the same as a signed byte (two positive
# values of little spread, so that every sum shows), else marked undetermined.
np.save('low.npy', np.array([[1, 2]], dtype=np.uint8)); np.save('high.npy', np.array([[1, 200]], dtype=np.uint8))
for name, src, undetermined in [('high.mrc', 'high.npy', True), ('low.mrc', 'low.npy', False)]:
    if run(name, '=', 'uint8', src) or not valid(name): bad.append(name)
    d, head = load(name)
    (head[5][1] < head[5][0]) == undetermined and (undetermined or stats(d.view(np.uint8), head)) or bad.append(name)
# Infinities: an infinite or undefined mean, an undefined rms, as NumPy has them.
for i, d in enumerate([[1, np.inf, 3], [np.inf, np.inf], [-np.inf, np.inf]]):
    np.save('inf.npy', np.array([d], dtype=np.float32)); name = 'inf%d.mrc' % i
    if run(name, '=', 'inf.npy', '+', '0') or not valid(name): bad.append(name)
print(files, "files; mismatch:", *bad); sys.exit(1 if bad or files < 150 else 0)
)PY");
  Child c = Start({py, "script.py", ZVCOMPUTE_BIN}, {dir.path});
  const RunResult r = Finish(c);
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

// Runs a Python script (numpy as np, mrcfile, io, sys and contextlib imported) in the directory: its exit status, its output in *out.
int RunPython(const TempDir &dir, const std::string &script, std::string *out) {
  WriteFileBytes(dir / "script.py", "import numpy as np, mrcfile, io, sys, contextlib, warnings\nwarnings.simplefilter('ignore')\n" + script);
  Child c = Start({"/usr/bin/python3", "script.py"}, {dir.path});
  const RunResult r = Finish(c);
  *out = r.out + r.err;
  return r.status;
}

// TIFF with tifffile and libtiff's tools. Debian's tifffile writes no LZW or zstd (it has no codec
// for them): such files are made, and ours read, through libtiff's tiffcp.
TEST_F(ImageioTest, InteropTiffWithTifffileAndLibtiffTools) {
  std::string out;
  if (RunPython(dir, "import tifffile", &out) != 0 || std::system("command -v tiffinfo > /dev/null") != 0)
    GTEST_SKIP() << "tifffile or libtiff's tools not installed";
  // Theirs: multi-page uint16 made LZW, tiled float32 BigTIFF, big-endian int16, deflate float32 with
  // a resolution, complex64 and float16 pages; the arrays beside them as .npy files.
  ASSERT_EQ(RunPython(dir, R"PY(
import tifffile, subprocess
r = np.random.default_rng(5)
arrays = {'m': (r.integers(0, 65535, (4, 30, 40))).astype(np.uint16), 't': r.random((3, 50, 70), np.float32),
          'b': r.integers(-32768, 32767, (2, 20, 30)).astype('>i2'), 'd': r.random((2, 17, 9), np.float32),
          'c': (r.random((2, 10, 12)) + 1j * r.random((2, 10, 12))).astype(np.complex64), 'h': r.random((9, 7)).astype(np.float16)}
for k, a in arrays.items(): np.save(k + '.npy', a.astype(np.float32 if k == 'h' else a.dtype.newbyteorder('=')))
kw = dict(photometric='minisblack')
tifffile.imwrite('m.tif', arrays['m'], **kw); subprocess.run(['tiffcp', '-c', 'lzw', 'm.tif', 'lzw.tif'], check=True)
tifffile.imwrite('t.tif', arrays['t'], bigtiff=True, tile=(16, 32), **kw)
tifffile.imwrite('b.tif', arrays['b'], byteorder='>', **kw)
tifffile.imwrite('d.tif', arrays['d'], compression='zlib', resolution=(1e8 / 2, 1e8 / 2.5), resolutionunit='CENTIMETER', **kw)
tifffile.imwrite('c.tif', arrays['c'], **kw); tifffile.imwrite('h.tif', arrays['h'], **kw)
)PY", &out), 0) << out;
  for (const char *name : {"lzw", "t", "b", "d", "c", "h"}) {
    TestImage a = ReadImage(dir / (name + std::string(".tif"))), b = ReadImage(dir / ((name[1] ? "m" : name) + std::string(".npy")));
    EXPECT_TRUE(a.type == b.type && a.dims == b.dims && a.data == b.data) << name;
  }
  ImageDesc d{};
  ImageioHandle *h = OpenRead(dir / "d.tif", &d);
  auto *g = h ? reinterpret_cast<const ImageioGeometry *>(d.geom) : nullptr;
  EXPECT_TRUE(g && std::fabs(g->voxel[0] - 2) < 1e-6 && std::fabs(g->voxel[1] - 2.5) < 1e-6);
  ImageioClose(h);
  // Ours, each compression: read equal by tifffile (LZW and zstd after tiffcp made them plain), with
  // the voxel size as resolution, and clean for tiffinfo and tiffdump.
  const ImageioGeometry geom{{1.25, 1.25, 0}, {0, 0, 0}, {1, 2, 3}, 0, {0, 0, 0}};
  std::string list;
  for (auto [caps, type, dims] : {std::tuple{"read", TypeUint16, Dims{40, 30, 4}}, {"deflate", TypeReal32, Dims{33, 7, 2, 3}},
                                  {"lzw", TypeInt8, Dims{100}}, {"zstd", TypeCmplx64, Dims{5, 6, 2}}, {"read", TypeReal64, Dims{3, 2}}}) {
    std::string base = "o" + std::to_string(list.size());
    auto data = Pattern(type, std::accumulate(dims.begin(), dims.end(), uint64_t{1}, std::multiplies<>()), 3);
    if (type == TypeReal32 || type == TypeCmplx64 || type == TypeReal64)
      for (size_t i = 0; i < data.size(); i += 4) data[i + 3] &= 0x3f;  // finite
    ASSERT_TRUE(WriteImage(dir / (base + ".tif"), type, dims, data.data(), Caps(caps), &geom)) << LastError();
    WriteImage(dir / (base + ".npy"), type, dims, data.data());
    list += base + " ";
  }
  ASSERT_EQ(RunPython(dir, "names = '" + list + R"PY('.split()
import tifffile, subprocess
bad = []
for n in names:
    info = subprocess.run(['tiffinfo', '-D', n + '.tif'], capture_output=True, text=True)
    dump = subprocess.run(['tiffdump', n + '.tif'], capture_output=True, text=True)
    subprocess.run(['tiffcp', '-c', 'none', n + '.tif', n + 'p.tif'], check=True)
    with tifffile.TiffFile(n + 'p.tif') as t:
        a, tags = t.asarray(), t.pages[0].tags
        want = np.load(n + '.npy'); want = want.reshape((-1,) + want.shape[-2:]) if want.ndim > 3 else want
        ok = a.dtype == want.dtype and np.array_equal(a.reshape(want.shape), want)
        ok = ok and tags['XResolution'].value == tags['YResolution'].value and tags['ResolutionUnit'].value == 3
        ok = ok and abs(1e8 * tags['XResolution'].value[1] / tags['XResolution'].value[0] - 1.25) < 1e-6
    if not ok or info.returncode or dump.returncode or 'rror' in info.stderr + dump.stderr: bad.append(n)
print('mismatch:', *bad); sys.exit(1 if bad else 0)
)PY", &out), 0) << out;
  // The tool on TIFF: format by name and by content; compressed files refused in place, untouched.
  for (auto args : {std::vector<std::string>{"frames.mrc", "=", "uint16", "m.npy"}, {"-cap", "lzw", "frames.tif", "=", "uint16", "frames.mrc"},
                    {"dark.tif", "=", "uint16", "lzw.tif"}, {"sum.mrc", "=", "frames.tif", "+", "dark.tif"}, {"t.tif", "*", "2"},
                    {"-cap", "zstd", "q.tif", "=", "real32", "t.tif"}, {"dm.mrc", "=", "d.tif", "+", "d.tif"}}) {
    RunResult r = RunTool(args, RunOptions(dir.path));
    EXPECT_EQ(r.status, 0) << r.err;
  }
  std::vector<float> sum;
  for (uint16_t v : ReadImage(dir / "m.npy").as<uint16_t>()) sum.push_back(2.0f * v);
  EXPECT_EQ(ReadImage(dir / "sum.mrc").as<float>(), sum);
  h = OpenRead(dir / "dm.mrc", &d);  // the pixel size goes on from TIFF to MRC
  g = h ? reinterpret_cast<const ImageioGeometry *>(d.geom) : nullptr;
  EXPECT_TRUE(g && std::fabs(g->voxel[0] - 2) < 1e-6 && std::fabs(g->voxel[1] - 2.5) < 1e-6);
  ImageioClose(h);
  const std::string before = ReadFileBytes(dir / "q.tif");
  RunResult r = RunTool({"q.tif", "+", "1"}, RunOptions(dir.path));
  EXPECT_EQ(r.err, "zvcompute: write error (TIFF compressed data cannot be rewritten in place; write a new file instead): q.tif\n");
  EXPECT_EQ(ReadFileBytes(dir / "q.tif"), before);
  EXPECT_EQ(RunPython(dir, "import tifffile\nsys.exit(not np.array_equal(tifffile.imread('t.tif'), 2 * np.load('t.npy')))", &out), 0) << out;
}

// What users' files carry survives a run: the map's start, FEI extended headers, gzip-compressed files
// both ways, binary16 storage; checked with mrcfile, gemmi and NumPy's own float16 conversion.
TEST_F(ImageioTest, InteropStartExtendedHeadersGzipAndHalf) {
  const std::string a = "a = (np.arange(60, dtype=np.float32).reshape(3, 4, 5) % 7) * 0.25 - 0.5\n";
  std::string out;
  ASSERT_EQ(RunPython(dir, a + R"PY(
import gzip, shutil
from mrcfile.dtypes import get_ext_header_dtype
for t in ('FEI1', 'FEI2'):
    e = np.zeros(3, get_ext_header_dtype(t.encode())); e['Metadata size'] = e.itemsize; e['Alpha tilt'] = (-30, 0, 30.5)
    with mrcfile.new(t + '.mrc') as m:
        m.set_data(a); m.set_extended_header(e); m.header.exttyp = t; m.voxel_size = (1.5, 2, 2.5)
        m.header.nxstart, m.header.nystart, m.header.nzstart = 10, 20, -30
shutil.copy('FEI2.mrc', 'ip.mrc')
z = lambda name, data: open(name, 'wb').write(data)
raw = open('FEI1.mrc', 'rb').read(); np.save('n.npy', a); npy = open('n.npy', 'rb').read(); g = gzip.compress(npy)
z('s.map.gz', gzip.compress(raw)); z('long.mrc.gz', gzip.compress(raw + b'x')); z('short.mrc.gz', gzip.compress(raw[:-4]))
z('cat.npy.gz', gzip.compress(npy[:100]) + gzip.compress(npy[100:])); z('cut.npy.gz', g[:-20])
z('bad.npy.gz', g[:-8] + bytes([g[-8] ^ 1]) + g[-7:]); np.save('f.npy', np.asfortranarray(a)); z('f.npy.gz', gzip.compress(open('f.npy', 'rb').read()))
# Every top half of a binary32 pattern with low halves at and around the rounding points.
bits = (np.arange(1 << 16, dtype=np.uint32)[:, None] << 16) | np.array([0, 0xfff, 0x1000, 0x1001, 0x2fff, 0x3000, 0x3001, 0xffff], np.uint32)
bits.tofile('sweep.raw')
)PY", &out), 0) << out;
  std::string sweep = ReadFileBytes(dir / "sweep.raw");
  for (const char *name : {"sweep.npy", "sweep.mrc"})
    ASSERT_TRUE(WriteImage(dir / name, TypeReal32, {sweep.size() / 4}, sweep.data(), Caps("half"))) << LastError();
  struct Run { std::vector<std::string> args; const char *error; };  // error null: the run succeeds
  const Run runs[] = {
      {{"o1.mrc", "=", "FEI1.mrc", "+", "1"}, nullptr}, {{"o2.map.gz", "=", "FEI2.mrc", "*", "2"}, nullptr},
      {{"o3.mrc", "=", "s.map.gz", "-", "1"}, nullptr}, {{"ip.mrc", "*", "2"}, nullptr},
      {{"c.npy", "=", "cat.npy.gz", "+", "0"}, nullptr}, {{"-cap", "half", "h.mrc", "=", "FEI1.mrc", "+", "0"}, nullptr},
      {{"-cap", "half", "h.mrc", "+", "0.001"}, nullptr}, {{"-cap", "half", "h.npy.gz", "=", "FEI1.mrc", "*", "3"}, nullptr},
      {{"x.npy", "=", "long.mrc.gz", "+", "0"}, "does not match the header"}, {{"x.npy", "=", "short.mrc.gz", "+", "0"}, "ends early"},
      {{"x.npy", "=", "cut.npy.gz", "+", "0"}, "cut short"}, {{"x.npy", "=", "bad.npy.gz", "+", "0"}, "corrupt gzip data"},
      {{"x.npy", "=", "f.npy.gz", "+", "0"}, "column-major"}, {{"x.tif.gz", "=", "FEI1.mrc", "+", "0"}, "not written through gzip"}, {{"s.map.gz", "+", "1"}, "cannot be rewritten in place"},
      {{"-cap", "half", "x.img", "=", "FEI1.mrc", "+", "0"}, "zv files cannot store binary16"},
      {{"-cap", "half", "x.mrc", "=", "int16", "FEI1.mrc"}, "holds real32 images, not int16"},
      {{"-cap", "half", "FEI1.mrc", "+", "1"}, "does not store binary16"}, {{"h.mrc", "+", "1"}, "-cap half"}};
  for (const Run &r : runs) {
    RunResult res = RunTool(r.args, RunOptions(dir.path));
    EXPECT_EQ(res.status, r.error ? 1 : 0) << r.args[0] << ": " << res.err;
    EXPECT_NE(res.err.find(r.error ? r.error : ""), std::string::npos) << res.err;
  }
  EXPECT_FALSE(FileExists(dir / "x.npy") || FileExists(dir / "x.img") || FileExists(dir / "x.mrc"));
  ASSERT_EQ(RunPython(dir, a + R"PY(
import gemmi, gzip
bad = []
def check(ok, what): ok or bad.append(what)
for name, src, want in [('o1.mrc', 'FEI1.mrc', a + 1), ('o2.map.gz', 'FEI2.mrc', a * 2), ('o3.mrc', 'FEI1.mrc', a - 1), ('ip.mrc', 'FEI2.mrc', a * 2)]:
    with contextlib.redirect_stdout(io.StringIO()): ok = mrcfile.validate(name)
    with mrcfile.open(name) as m, mrcfile.open(src) as s:
        h = m.header
        check(ok and np.array_equal(m.data, want) and h.exttyp == s.header.exttyp and bytes(m.extended_header) == bytes(s.extended_header), name)
        check((h.nxstart, h.nystart, h.nzstart) == (10, 20, -30) and m.voxel_size.item() == (1.5, 2, 2.5), name + ' geometry')
    g = gemmi.read_ccp4_map(name); e = g.get_extent().minimum
    check(g.grid.unit_cell.parameters == (7.5, 8, 7.5, 90, 90, 90) and np.allclose((e.x, e.y, e.z), (2, 5, -10)), name + ' in gemmi')
h16 = lambda x: np.asarray(x, np.float32).astype(np.float16)
sweep = np.fromfile('sweep.raw', np.float32).astype(np.float16).view(np.uint16)
check(np.array_equal(np.load('sweep.npy').view(np.uint16), sweep), 'sweep.npy')
with mrcfile.open('sweep.mrc', permissive=True) as m: check(np.array_equal(m.data.ravel().view(np.uint16), sweep), 'sweep.mrc')
with mrcfile.open('h.mrc') as m:
    h, d = m.header, m.data.astype(np.float64)
    check(h.mode == 12 and np.array_equal(m.data, h16(h16(a).astype(np.float32) + np.float32(0.001))), 'h.mrc')
    check(h.dmin == d.min() and h.dmax == d.max() and np.isclose(h.dmean, d.mean(), rtol=1e-6) and np.isclose(h.rms, d.std(), rtol=1e-6), 'h.mrc statistics')
check(np.array_equal(np.load(gzip.open('h.npy.gz')), h16(a * 3)) and np.array_equal(np.load('c.npy'), a), 'h.npy.gz, c.npy')
print('mismatch:', *bad); sys.exit(1 if bad else 0)
)PY", &out), 0) << out;
}

}  // namespace
