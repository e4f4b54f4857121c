// Interoperability with the field's own readers and writers: numpy and mrcfile write files that we
// read, read and validate files that we write, and check what the tool makes of MRC files.
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>

#include "imageio_helpers.h"

namespace {

using Dims = std::vector<uint64_t>;

// A Python interpreter that has numpy and mrcfile, or empty.
const std::string &Python() {
  static const std::string py = [] {
    for (const char *c : {"/usr/bin/python3", "python3"}) {
      std::string cmd = std::string(c) + " -c 'import numpy, mrcfile' > /dev/null 2>&1";
      if (std::system(cmd.c_str()) == 0) return std::string(c);
    }
    return std::string();
  }();
  return py;
}

// Run a script in the directory; returns its exit status, output in *out.
int RunPython(const TempDir &dir, const std::string &script, std::string *out) {
  WriteFileBytes(dir / "script.py", script);
  std::string cmd = "cd '" + dir.path + "' && " + Python() + " script.py > script.out 2>&1";
  int st = std::system(cmd.c_str());
  *out = ReadFileBytes(dir / "script.out");
  return st;
}

const std::map<std::string, uint32_t> kLabels = {
    {"uint8", TypeUint8},   {"uint16", TypeUint16}, {"uint32", TypeUint32}, {"uint64", TypeUint64},
    {"int8", TypeInt8},     {"int16", TypeInt16},   {"int32", TypeInt32},   {"int64", TypeInt64},
    {"real32", TypeReal32}, {"real64", TypeReal64}, {"cmplx32", TypeCmplx32}, {"cmplx64", TypeCmplx64}};

const char *kNumpyName[] = {"uint8", "uint16", "uint32", "uint64", "int8", "int16", "int32", "int64",
                            "float32", "float64", "", "", "complex64", "complex128"};

std::string NumpyName(uint32_t type) {
  for (int i = 0; i < 14; ++i)
    if (kAllTypes[i] == type) return kNumpyName[i];
  return "";
}

#define REQUIRE_PYTHON()                                                      \
  if (Python().empty()) GTEST_SKIP() << "python3 with numpy and mrcfile not available"

TEST_F(ImageioTest, InteropFilesFromNumpyAndMrcfileRead) {
  REQUIRE_PYTHON();
  // Each file comes with the values it must read as (little-endian bytes of the element type we
  // expect, image axis order) and a manifest line: file type voxel(3) origin(3) lengths...
  const std::string script = R"PY(
import numpy as np, mrcfile, warnings
warnings.simplefilter('ignore')
out = open('manifest.txt', 'w')
label = {'u1': 'uint8', 'i1': 'int8', 'u2': 'uint16', 'i2': 'int16', 'u4': 'uint32', 'i4': 'int32',
         'u8': 'uint64', 'i8': 'int64', 'f2': 'real32', 'f4': 'real32', 'f8': 'real64', 'c8': 'cmplx32',
         'c16': 'cmplx64', 'b1': 'uint8'}
seen = {'real32': 'f4', 'real64': 'f8', 'cmplx32': 'c8', 'cmplx64': 'c16'}
def values(shape, code):
    n = int(np.prod(shape))
    v = (np.arange(n, dtype=np.int64) * 7919 % 251) - 120
    if code in ('u1', 'u2', 'u4', 'u8', 'b1'): v = np.abs(v)
    if code == 'b1': v = v % 2
    if code.startswith('c'): v = v + 1j * (v[::-1] / 4.0)
    elif code.startswith('f'): v = v / 8.0
    return v.reshape(shape)
def note(name, arr, code, vox=(0, 0, 0), org=(0, 0, 0), axes=None):
    lab = label[code]
    want = np.ascontiguousarray(arr).astype('<' + seen.get(lab, code.replace('b1', 'u1')))
    want.tofile(name + '.raw')
    axes = axes if axes is not None else list(reversed(arr.shape)) or [1]
    out.write(' '.join([name, lab] + ['%r' % float(x) for x in vox] + ['%r' % float(x) for x in org] +
                       [str(a) for a in axes]) + '\n')
k = 0
for code in ['u1', 'i1', 'u2', 'i2', 'u4', 'i4', 'u8', 'i8', 'f2', 'f4', 'f8', 'c8', 'c16', 'b1']:
    for shape in [(5,), (3, 4), (2, 3, 4), (2, 2, 3, 4), ()]:
        a = values(shape, code).astype('|b1' if code == 'b1' else '<' + code)
        k += 1; np.save('n%d.npy' % k, a); note('n%d.npy' % k, a, code)
        if code not in ('u1', 'i1', 'b1'):
            k += 1; b = a.astype('>' + code); np.save('n%d.npy' % k, b); note('n%d.npy' % k, a, code)
        if len(shape) >= 2:
            k += 1; np.save('n%d.npy' % k, np.asfortranarray(a)); note('n%d.npy' % k, a, code)
for code in ['i1', 'i2', 'f4', 'c8', 'u2', 'f2']:
    for shape, kind in [((3, 4), 'image'), ((2, 3, 4), 'volume'), ((2, 3, 4), 'stack'), ((2, 3, 3, 4), 'vstack')]:
        a = values(shape, code).astype('<' + code)
        for order in '<>':
            k += 1; name = 'm%d.mrc' % k
            with mrcfile.new(name) as m:
                m.set_data(a.astype(order + code))
                if kind == 'stack': m.set_image_stack()
                m.voxel_size = (1.5, 2.25, 3.0)
                m.header.origin = (10.0, -20.0, 30.5)
            axes = {'image': [4, 3], 'volume': [4, 3, 2], 'stack': [4, 3, 2], 'vstack': [4, 3, 3, 2]}[kind]
            note(name, a, code, (1.5, 2.25, 3.0), (10.0, -20.0, 30.5), axes)
out.close()
)PY";
  std::string out;
  ASSERT_EQ(RunPython(dir, script, &out), 0) << out;
  std::ifstream manifest(dir / "manifest.txt");
  std::string line;
  int files = 0;
  while (std::getline(manifest, line)) {
    std::istringstream in(line);
    std::string name, label;
    double vox[3], org[3];
    in >> name >> label >> vox[0] >> vox[1] >> vox[2] >> org[0] >> org[1] >> org[2];
    Dims axes;
    for (uint64_t a; in >> a;) axes.push_back(a);
    ImageDesc d{};
    ImageioHandle *h = OpenRead(dir / name, &d);
    ASSERT_NE(h, nullptr) << name << ": " << LastError();
    EXPECT_EQ(d.type, kLabels.at(label)) << name;
    EXPECT_EQ(Dims(d.len, d.len + d.dim), axes) << name;
    std::string raw = ReadFileBytes(dir / (name + ".raw"));
    uint64_t n = Count(axes);
    auto got = ReadBlock(h, d.type, 0, n);
    EXPECT_EQ(std::string(got.begin(), got.end()), raw) << name;
    if (name[0] == 'm') {
      auto *g = reinterpret_cast<const ImageioGeometry *>(d.geom);
      ASSERT_NE(g, nullptr);
      for (int i = 0; i < 3; ++i) {
        EXPECT_NEAR(g->voxel[i], vox[i], 1e-6) << name;
        EXPECT_EQ(g->origin[i], org[i]) << name;
      }
    }
    ImageioClose(h);
    ++files;
  }
  EXPECT_GT(files, 150);
}

TEST_F(ImageioTest, InteropFilesWeWriteLoadAndValidate) {
  REQUIRE_PYTHON();
  std::string manifest;
  ImageioGeometry g{{1.5, 2.0, 2.5}, {-4.0, 8.5, 0.25}, {1, 2, 3}, 0};
  ImageioSetHistory("zvcompute interop test");
  int k = 0;
  for (uint32_t type : kAllTypes) {
    std::string np = NumpyName(type);
    if (np.empty()) continue;
    bool mrc = type == TypeInt8 || type == TypeUint8 || type == TypeInt16 || type == TypeUint16 ||
               type == TypeReal32 || type == TypeCmplx32;
    for (const Dims &dims : std::vector<Dims>{{5}, {4, 3}, {4, 3, 2}, {4, 3, 2, 3}}) {
      auto data = Pattern(type, Count(dims), ++k);
      if (type == TypeReal32 || type == TypeCmplx32 || type == TypeReal64 || type == TypeCmplx64) {
        // Finite values with a non-zero mean, so that the header statistics are checked for real.
        for (uint64_t i = 0; i < data.size() / (type == TypeReal64 || type == TypeCmplx64 ? 8 : 4); ++i) {
          double x = 3.0 + static_cast<double>((i * 37) % 29) / 4.0;
          if (type == TypeReal64 || type == TypeCmplx64) std::memcpy(data.data() + 8 * i, &x, 8);
          else { float f = static_cast<float>(x); std::memcpy(data.data() + 4 * i, &f, 4); }
        }
      }
      std::string shape;
      for (size_t i = dims.size(); i-- > 0;) shape += std::to_string(dims[i]) + ",";
      std::string base = "w" + std::to_string(k);
      WriteFileBytes(dir / (base + ".raw"), std::string(data.begin(), data.end()));
      ASSERT_TRUE(WriteWith(dir / (base + ".npy"), type, dims, data.data(), ImageioParamDefault)) << LastError();
      manifest += base + ".npy " + np + " " + shape + "\n";
      if (mrc) {
        ASSERT_TRUE(WriteWith(dir / (base + ".mrc"), type, dims, data.data(), ImageioParamDefault, &g)) << LastError();
        manifest += base + ".mrc " + np + " " + shape + "\n";
      }
    }
  }
  ImageioSetHistory("");
  WriteFileBytes(dir / "manifest.txt", manifest);
  const std::string script = R"PY(
import numpy as np, mrcfile, io, sys, contextlib, warnings
warnings.simplefilter('ignore')
bad = 0
for line in open('manifest.txt'):
    name, dt, shape = line.split()
    shape = tuple(int(x) for x in shape.strip(',').split(','))
    want = np.fromfile(name[:-4] + '.raw', dtype='<' + np.dtype(dt).str[1:]).reshape(shape)
    if name.endswith('.npy'):
        a = np.load(name)
        if a.shape != shape or a.dtype != want.dtype or not np.array_equal(a, want, equal_nan=True):
            print('npy mismatch', name, a.shape, a.dtype); bad += 1
        continue
    msg = io.StringIO()
    with contextlib.redirect_stdout(msg):
        ok = mrcfile.validate(name)
    if not ok:
        print('invalid', name, msg.getvalue()); bad += 1
    with mrcfile.open(name, permissive=False) as m:
        d = m.data
        if dt == 'uint8': d = d.view(np.uint8)  # mrcfile ignores IMOD's signedness flag
        exp = want.reshape(1, shape[0]) if len(shape) == 1 else want
        if len(shape) == 4 and m.header.ispg != 401: print('ispg', name); bad += 1
        if d.shape != exp.shape or not np.array_equal(d, exp):
            print('mrc data mismatch', name, d.shape, exp.shape); bad += 1
        if tuple(float(v) for v in m.voxel_size.item()) != (1.5, 2.0, 2.5):
            print('voxel size', name, m.voxel_size); bad += 1
        if tuple(float(v) for v in m.header.origin.item()) != (-4.0, 8.5, 0.25):
            print('origin', name, m.header.origin); bad += 1
        if m.header.nlabl != 1 or not m.get_labels()[0].startswith('zvcompute interop test'):
            print('labels', name, m.get_labels()); bad += 1
        if dt == 'uint8' and d.max() > 127:
            if not m.header.dmax < m.header.dmin: print('uint8 stats should be unset', name); bad += 1
        elif not np.iscomplexobj(d):
            h = m.header
            if h.dmin != d.min() or h.dmax != d.max() or not np.isclose(h.dmean, d.mean(dtype=np.float64), rtol=1e-5) \
               or not np.isclose(h.rms, d.std(dtype=np.float64), rtol=1e-5):
                print('stats', name, h.dmin, h.dmax, h.dmean, h.rms, d.min(), d.max(), d.mean(), d.std()); bad += 1
sys.exit(1 if bad else 0)
)PY";
  std::string out;
  EXPECT_EQ(RunPython(dir, script, &out), 0) << out;
}

TEST_F(ImageioTest, InteropToolRunsOnMrcFilesStayValid) {
  REQUIRE_PYTHON();
  std::string out;
  ASSERT_EQ(RunPython(dir, R"PY(
import numpy as np, mrcfile
a = (np.arange(2 * 30 * 40, dtype=np.float32).reshape(2, 30, 40) % 17) * 0.5 + 100
with mrcfile.new('a.mrc') as m:
    m.set_data(a); m.voxel_size = 1.7
with mrcfile.new('s.mrc') as m:
    m.set_data((np.arange(2 * 3 * 30 * 40) % 200 - 100).astype(np.int8).reshape(6, 30, 40)); m.header.ispg = 401; m.header.mz = 3
)PY", &out), 0) << out;
  RunResult r = RunTool({"b.mrc", "=", "a.mrc", "+", "1"}, {}, dir.path);
  ASSERT_EQ(r.status, 0) << r.err;
  r = RunTool({"a.mrc", "*", "2"}, {}, dir.path);
  ASSERT_EQ(r.status, 0) << r.err;
  r = RunTool({"c.npy", "=", "a.mrc", "-", "b.mrc"}, {}, dir.path);
  ASSERT_EQ(r.status, 0) << r.err;
  r = RunTool({"t.mrc", "=", "s.mrc", "+", "0.5"}, {}, dir.path);
  ASSERT_EQ(r.status, 0) << r.err;
  // Types MRC cannot hold are refused before anything is created.
  r = RunTool({"bad.mrc", "=", "real64", "a.mrc"}, {}, dir.path);
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("real64"), std::string::npos) << r.err;
  EXPECT_FALSE(FileExists(dir / "bad.mrc"));
  EXPECT_EQ(RunPython(dir, R"PY(
import numpy as np, mrcfile, sys, io, contextlib
a = (np.arange(2 * 30 * 40, dtype=np.float32).reshape(2, 30, 40) % 17) * 0.5 + 100
bad = 0
for name in ['a.mrc', 'b.mrc', 't.mrc']:
    msg = io.StringIO()
    with contextlib.redirect_stdout(msg):
        if not mrcfile.validate(name): print(msg.getvalue()); bad += 1
with mrcfile.open('a.mrc') as m:
    bad += not np.array_equal(m.data, a * 2)
with mrcfile.open('b.mrc') as m:
    bad += not np.array_equal(m.data, a + 1)
    bad += not np.allclose(m.voxel_size.item(), (1.7, 1.7, 1.7))
    bad += len(m.get_labels()) != 2 or 'a.mrc + 1' not in m.get_labels()[1]
with mrcfile.open('t.mrc') as m:
    bad += m.header.ispg != 401 or m.header.mz != 3 or m.data.shape != (2, 3, 30, 40)
c = np.load('c.npy')
bad += c.shape != (2, 30, 40) or not np.array_equal(c, a * 2 - (a + 1))
sys.exit(bad)
)PY", &out), 0) << out;
}

}  // namespace
