// Interoperability with the field's own readers and writers: numpy and mrcfile read and validate
// files that we write, write files that we read, and check what the tool makes of MRC files.
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "imageio_helpers.h"

namespace {

// A Python interpreter that has numpy and mrcfile, or empty.
const std::string &Python() {
  static const std::string py = [] {
    for (const char *c : {"/usr/bin/python3", "python3"})
      if (std::system((std::string(c) + " -c 'import numpy, mrcfile' > /dev/null 2>&1").c_str()) == 0) return std::string(c);
    return std::string();
  }();
  return py;
}

// Runs a script in the directory; its exit status, with its output in *out.
int RunPython(const TempDir &dir, const std::string &script, std::string *out) {
  WriteFileBytes(dir / "script.py", "import numpy as np, mrcfile, io, sys, contextlib, warnings\n"
                                    "warnings.simplefilter('ignore')\n" + script);
  int st = std::system(("cd '" + dir.path + "' && " + Python() + " script.py > script.out 2>&1").c_str());
  *out = ReadFileBytes(dir / "script.out");
  return st;
}

TEST_F(ImageioTest, InteropWithNumpyAndMrcfile) {
  if (Python().empty()) GTEST_SKIP() << "python3 with numpy and mrcfile not available";
  // Files we write, every numpy-compatible type and 1-4 axes; finite floats with a non-zero mean
  // so that the MRC statistics are checked for real.
  std::string ours;
  ImageioGeometry g{{1.5, 2.0, 2.5}, {-4.0, 8.5, 0.25}, {1, 2, 3}, 0, {10, -20, 30}};
  ImageioSetHistory("zvcompute interop test");
  int k = 0;
  for (uint32_t type : kAllTypes) {
    if (type == TypeImag32 || type == TypeImag64) continue;
    bool mrc = (type & 0xff) <= 2 || type == TypeReal32 || type == TypeCmplx32;
    size_t fsize = type == TypeReal64 || type == TypeCmplx64 ? 8 : type == TypeReal32 || type == TypeCmplx32 ? 4 : 0;
    for (const Dims &dims : kShapes) {
      if (Count(dims) == 0) continue;
      auto data = Pattern(type, Count(dims), ++k);
      for (uint64_t i = 0; fsize && i < data.size() / fsize; ++i) {
        double x = 3.0 + static_cast<double>((i * 37) % 29) / 4.0;
        float f = static_cast<float>(x);
        std::memcpy(&data[fsize * i], fsize == 8 ? static_cast<void *>(&x) : &f, fsize);
      }
      std::string shape, base = "w" + std::to_string(k);
      for (size_t i = dims.size(); i-- > 0;) shape += std::to_string(dims[i]) + (i ? "," : "");
      WriteFileBytes(dir / (base + ".raw"), std::string(data.begin(), data.end()));
      for (const char *ext : {".npy", ".mrc"}) {
        if (ext[1] == 'm' && !mrc) continue;
        ASSERT_TRUE(WriteWith(dir / (base + ext), type, dims, data.data(), ImageioParamDefault, &g)) << LastError();
        ours += base + ext + " " + TypeIdent(type) + " " + shape + "\n";
      }
    }
  }
  ImageioSetHistory("");
  WriteFileBytes(dir / "ours.txt", ours);
  std::string out;
  ASSERT_EQ(RunPython(dir, R"PY(
bad = []
for line in open('ours.txt'):
    name, t, shape = line.split(); shape = tuple(int(x) for x in shape.split(','))
    dt = '<' + np.dtype(dict(real32='f4', real64='f8', cmplx32='c8', cmplx64='c16').get(t, t)).str[1:]
    want = np.fromfile(name[:-4] + '.raw', dtype=dt).reshape(shape)
    if name.endswith('.npy'):
        a = np.load(name)
        if a.shape != shape or a.dtype != want.dtype or not np.array_equal(a, want, equal_nan=True): bad.append(name)
        continue
    with contextlib.redirect_stdout(io.StringIO()): ok = mrcfile.validate(name)
    with mrcfile.open(name, permissive=False) as m:
        d, h = m.data, m.header
        if t == 'uint8': d = d.view(np.uint8)  # mrcfile ignores the signed-bytes flag
        exp = want.reshape(1, shape[0]) if len(shape) == 1 else want
        ok = ok and d.shape == exp.shape and np.array_equal(d, exp) and (len(shape) < 4 or h.ispg == 401)
        ok = ok and m.voxel_size.item() == (1.5, 2.0, 2.5) and h.origin.item() == (-4.0, 8.5, 0.25) and h.nxstart == 10 and h.nystart == -20 and h.nzstart == 30
        ok = ok and h.nlabl == 1 and m.get_labels()[0].startswith('zvcompute interop test')
        if t == 'uint8' and d.max() > 127: ok = ok and h.dmax < h.dmin
        elif not np.iscomplexobj(d):
            ok = ok and h.dmin == d.min() and h.dmax == d.max() and np.isclose(h.dmean, d.mean(dtype=np.float64), rtol=1e-5)
            ok = ok and np.isclose(h.rms, d.std(dtype=np.float64), rtol=1e-5)
    if not ok: bad.append(name)
# Files they write, with the values they must read as and the geometry.
out = open('theirs.txt', 'w')
label = dict(u1='uint8', i1='int8', u2='uint16', i2='int16', u4='uint32', i4='int32', u8='uint64', i8='int64',
             f2='real32', f4='real32', f8='real64', c8='cmplx32', c16='cmplx64', b1='uint8')
def values(shape, code):
    v = (np.arange(int(np.prod(shape)), dtype=np.int64) * 7919 % 251) - 120
    if code[0] in 'ub': v = np.abs(v) % (2 if code == 'b1' else 256)
    v = v + 1j * (v[::-1] / 4.0) if code[0] == 'c' else v / 8.0 if code[0] == 'f' else v
    return v.reshape(shape).astype('|b1' if code == 'b1' else '<' + code)
def note(name, a, code, geom, axes):
    np.ascontiguousarray(a).astype('<' + {'f2': 'f4', 'b1': 'u1'}.get(code, code)).tofile(name + '.raw')
    out.write(' '.join([name, label[code]] + [repr(float(x)) for x in geom] + [str(x) for x in axes]) + '\n')
k = 0
for code in label:
    # 0-d: one element; more than four axes: those of length 1 dropped, then the slowest folded.
    for shape, axes in [((5,), [5]), ((3, 4), [4, 3]), ((2, 3, 4), [4, 3, 2]), ((2, 2, 3, 4), [4, 3, 2, 2]), ((), [1]),
                        ((2, 1, 3, 1, 2, 2), [2, 2, 3, 2]), ((2, 3, 2, 2, 2), [2, 2, 2, 6])]:
        a = values(shape, code)
        for b in [a] + [a.astype('>' + code)] * (code not in ('u1', 'i1', 'b1')) + [np.asfortranarray(a)] * (len(shape) > 1):
            k += 1; np.save('n%d.npy' % k, b); note('n%d.npy' % k, a, code, (0,) * 6, axes)
for code in ['i1', 'i2', 'f4', 'c8', 'u2', 'f2']:
    for shape, axes in [((3, 4), [4, 3]), ((2, 3, 4), [4, 3, 2]), ((2, 3, 4), None), ((2, 3, 3, 4), [4, 3, 3, 2])]:
        for order in '<>':
            k += 1; name = 'm%d.mrc' % k
            with mrcfile.new(name) as m:
                m.set_data(values(shape, code).astype(order + code))
                if axes is None: m.set_image_stack()
                m.voxel_size = (1.5, 2.25, 3.0); m.header.origin = (10.0, -20.0, 30.5)
            note(name, values(shape, code), code, (1.5, 2.25, 3.0, 10.0, -20.0, 30.5), axes or [4, 3, 2])
out.close()
print('mismatch:', *bad); sys.exit(1 if bad else 0)
)PY", &out), 0) << out;
  std::ifstream theirs(dir / "theirs.txt");
  int files = 0;
  for (std::string line; std::getline(theirs, line); ++files) {
    std::istringstream in(line);
    std::string name, label;
    double geom[6];
    in >> name >> label >> geom[0] >> geom[1] >> geom[2] >> geom[3] >> geom[4] >> geom[5];
    Dims axes;
    for (uint64_t a; in >> a;) axes.push_back(a);
    ImageDesc d{};
    ImageioHandle *h = OpenRead(dir / name, &d);
    ASSERT_NE(h, nullptr) << name << ": " << LastError();
    EXPECT_EQ(TypeIdent(d.type), label) << name;
    EXPECT_EQ(Dims(d.len, d.len + d.dim), axes) << name;
    auto got = ReadBlock(h, d.type, 0, Count(axes));
    EXPECT_EQ(std::string(got.begin(), got.end()), ReadFileBytes(dir / (name + ".raw"))) << name;
    auto *r = reinterpret_cast<const ImageioGeometry *>(d.geom);
    for (int i = 0; i < 3 && name[0] == 'm'; ++i)
      EXPECT_TRUE(r && std::fabs(r->voxel[i] - geom[i]) < 1e-6 && r->origin[i] == geom[3 + i]) << name;
    ImageioClose(h);
  }
  EXPECT_GT(files, 150);
}

TEST_F(ImageioTest, InteropToolRunsOnMrcFilesStayValid) {
  if (Python().empty()) GTEST_SKIP() << "python3 with numpy and mrcfile not available";
  const std::string data = "a = (np.arange(2 * 30 * 40, dtype=np.float32).reshape(2, 30, 40) % 17) * 0.5 + 100\n";
  std::string out;
  ASSERT_EQ(RunPython(dir, data + R"PY(
with mrcfile.new('a.mrc') as m:
    m.set_data(a); m.voxel_size = 1.7
with mrcfile.new('s.mrc') as m:
    m.set_data((np.arange(2 * 3 * 30 * 40) % 200 - 100).astype(np.int8).reshape(6, 30, 40)); m.header.ispg = 401; m.header.mz = 3
)PY", &out), 0) << out;
  for (auto args : {std::vector<std::string>{"b.mrc", "=", "a.mrc", "+", "1"}, {"a.mrc", "*", "2"},
                    {"c.npy", "=", "a.mrc", "-", "b.mrc"}, {"t.mrc", "=", "s.mrc", "+", "0.5"}}) {
    RunResult r = RunTool(args, {}, dir.path);
    ASSERT_EQ(r.status, 0) << r.err;
  }
  // Types MRC cannot hold are refused before anything is created.
  RunResult r = RunTool({"bad.mrc", "=", "real64", "a.mrc"}, {}, dir.path);
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("real64"), std::string::npos) << r.err;
  EXPECT_FALSE(FileExists(dir / "bad.mrc"));
  EXPECT_EQ(RunPython(dir, data + R"PY(
bad = 0
for name in ['a.mrc', 'b.mrc', 't.mrc']:
    with contextlib.redirect_stdout(io.StringIO()): bad += not mrcfile.validate(name)
with mrcfile.open('a.mrc') as m: bad += not np.array_equal(m.data, a * 2)
with mrcfile.open('b.mrc') as m:
    bad += not np.array_equal(m.data, a + 1) or not np.allclose(m.voxel_size.item(), (1.7, 1.7, 1.7))
    bad += len(m.get_labels()) != 2 or 'a.mrc + 1' not in m.get_labels()[1]
with mrcfile.open('t.mrc') as m: bad += m.header.ispg != 401 or m.header.mz != 3 or m.data.shape != (2, 3, 30, 40)
c = np.load('c.npy')
sys.exit(bad + (c.shape != (2, 30, 40) or not np.array_equal(c, a * 2 - (a + 1))))
)PY", &out), 0) << out;
}

// What users' files carry survives a run: the map's start, FEI extended headers, gzip-compressed files
// both ways, binary16 storage; checked with mrcfile, gemmi and NumPy's own float16 conversion.
TEST_F(ImageioTest, InteropStartExtendedHeadersGzipAndHalf) {
  if (Python().empty()) GTEST_SKIP() << "python3 with numpy and mrcfile not available";
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
    ASSERT_TRUE(WriteWith(dir / name, TypeReal32, {sweep.size() / 4}, sweep.data(), Caps("half"))) << LastError();
  struct Run { std::vector<std::string> args; const char *error; };  // error null: the run succeeds
  const Run runs[] = {
      {{"o1.mrc", "=", "FEI1.mrc", "+", "1"}, nullptr}, {{"o2.map.gz", "=", "FEI2.mrc", "*", "2"}, nullptr},
      {{"o3.mrc", "=", "s.map.gz", "-", "1"}, nullptr}, {{"ip.mrc", "*", "2"}, nullptr},
      {{"c.npy", "=", "cat.npy.gz", "+", "0"}, nullptr}, {{"-cap", "half", "h.mrc", "=", "FEI1.mrc", "+", "0"}, nullptr},
      {{"-cap", "half", "h.mrc", "+", "0.001"}, nullptr}, {{"-cap", "half", "h.npy.gz", "=", "FEI1.mrc", "*", "3"}, nullptr},
      {{"x.npy", "=", "long.mrc.gz", "+", "0"}, "does not match the header"}, {{"x.npy", "=", "short.mrc.gz", "+", "0"}, "ends early"},
      {{"x.npy", "=", "cut.npy.gz", "+", "0"}, "cut short"}, {{"x.npy", "=", "bad.npy.gz", "+", "0"}, "corrupt gzip data"},
      {{"x.npy", "=", "f.npy.gz", "+", "0"}, "column-major"}, {{"s.map.gz", "+", "1"}, "cannot be rewritten in place"},
      {{"-cap", "half", "x.img", "=", "FEI1.mrc", "+", "0"}, "zv files cannot store binary16"},
      {{"-cap", "half", "x.mrc", "=", "int16", "FEI1.mrc"}, "holds real32 images, not int16"},
      {{"-cap", "half", "FEI1.mrc", "+", "1"}, "does not store binary16"}, {{"h.mrc", "+", "1"}, "-cap half"}};
  for (const Run &r : runs) {
    RunResult res = RunTool(r.args, {}, dir.path);
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
