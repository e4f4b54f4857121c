// Interoperability with the field's own readers and writers: numpy and mrcfile read and validate
// files that we write, write files that we read, and check what the tool makes of MRC files.
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <tuple>

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
  ImageioGeometry g{{1.5, 2.0, 2.5}, {-4.0, 8.5, 0.25}, {1, 2, 3}, 0};
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
        ok = ok and m.voxel_size.item() == (1.5, 2.0, 2.5) and h.origin.item() == (-4.0, 8.5, 0.25)
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
    for shape in [(5,), (3, 4), (2, 3, 4), (2, 2, 3, 4), ()]:
        a = values(shape, code)
        for b in [a] + [a.astype('>' + code)] * (code not in ('u1', 'i1', 'b1')) + [np.asfortranarray(a)] * (len(shape) > 1):
            k += 1; np.save('n%d.npy' % k, b); note('n%d.npy' % k, a, code, (0,) * 6, list(reversed(shape)) or [1])
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

// TIFF with tifffile and libtiff's tools. Debian's tifffile writes no LZW or zstd (it has no codec
// for them): such files are made, and ours read, through libtiff's tiffcp.
TEST_F(ImageioTest, InteropTiffWithTifffileAndLibtiffTools) {
  std::string out;
  if (Python().empty() || RunPython(dir, "import tifffile", &out) != 0 || std::system("command -v tiffinfo > /dev/null") != 0)
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
  const ImageioGeometry geom{{1.25, 1.25, 0}, {0, 0, 0}, {1, 2, 3}, 0};
  std::string list;
  for (auto [caps, type, dims] : {std::tuple{"read", TypeUint16, Dims{40, 30, 4}}, {"deflate", TypeReal32, Dims{33, 7, 2, 3}},
                                  {"lzw", TypeInt8, Dims{100}}, {"zstd", TypeCmplx64, Dims{5, 6, 2}}, {"read", TypeReal64, Dims{3, 2}}}) {
    std::string base = "o" + std::to_string(list.size());
    auto data = Pattern(type, Count(dims), 3);
    if (type == TypeReal32 || type == TypeCmplx64 || type == TypeReal64)
      for (size_t i = 0; i < data.size(); i += 4) data[i + 3] &= 0x3f;  // finite
    ASSERT_TRUE(WriteWith(dir / (base + ".tif"), type, dims, data.data(), Caps(caps), &geom)) << LastError();
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
    RunResult r = RunTool(args, {}, dir.path);
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
  RunResult r = RunTool({"q.tif", "+", "1"}, {}, dir.path);
  EXPECT_EQ(r.err, "zvcompute: write error (TIFF compressed data cannot be rewritten in place; write a new file instead): q.tif\n");
  EXPECT_EQ(ReadFileBytes(dir / "q.tif"), before);
  EXPECT_EQ(RunPython(dir, "import tifffile\nsys.exit(not np.array_equal(tifffile.imread('t.tif'), 2 * np.load('t.npy')))", &out), 0) << out;
}

}  // namespace
