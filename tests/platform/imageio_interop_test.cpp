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

}  // namespace
