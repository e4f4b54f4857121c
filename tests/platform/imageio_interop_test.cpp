// Interoperability with the field's own readers and writers: numpy and mrcfile read and validate the
// files that we write; the tool copies and rewrites in place the files that they write (versions,
// byte orders, column-major arrays, extended headers, ten labels), and they read the results back.
#include "imageio_helpers.h"

namespace {

TEST_F(ImageioTest, InteropWithNumpyAndMrcfile) {
  const char *py = "/usr/bin/python3";
  Child probe = Start({py, "-c", "import numpy, mrcfile"});
  if (Finish(probe).status) GTEST_SKIP() << "python3 with numpy and mrcfile not available";
  // Files we write: every type numpy holds, 1-4 axes; finite floats with a non-zero mean so that
  // the MRC statistics are checked for real.
  std::string ours;
  ImageioGeometry g{{1.5, 2.0, 2.5}, {-4.0, 8.5, 0.25}, {1, 2, 3}, 0};
  ImageioSetHistory("zvcompute interop test");
  int k = 0;
  for (uint32_t type : kAllTypes) {
    if (type == TypeImag32 || type == TypeImag64) continue;
    const bool mrc = TypeSize(type) <= 2 || type == TypeReal32 || type == TypeCmplx32;
    const size_t fsize = type == TypeReal64 || type == TypeCmplx64 ? 8 : type == TypeReal32 || type == TypeCmplx32 ? 4 : 0;
    for (const Dims &dims : {Dims{7}, Dims{5, 3}, Dims{4, 3, 2}, Dims{3, 2, 2, 3}}) {
      auto data = Pattern(type, Count(dims), ++k);
      for (uint64_t i = 0; fsize && i < data.size() / fsize; ++i) {
        const double x = 3.0 + static_cast<double>((i * 37) % 29) / 4.0;
        const float f = static_cast<float>(x);
        std::memcpy(&data[fsize * i], fsize == 8 ? static_cast<const void *>(&x) : &f, fsize);
      }
      std::string shape, base = "w" + std::to_string(k);
      for (size_t i = dims.size(); i-- > 0;) shape += std::to_string(dims[i]) + (i ? "," : "");
      WriteFileBytes(dir / (base + ".raw"), std::string(data.begin(), data.end()));
      for (const char *ext : {".npy", ".mrc"}) {
        if (ext[1] == 'm' && !mrc) continue;
        ASSERT_TRUE(WriteImage(dir / (base + ext), type, dims, data.data(), ImageioParamDefault, &g)) << LastError();
        ours += base + ext + " " + TypeIdent(type) + " " + shape + "\n";
      }
    }
  }
  ImageioSetHistory("");
  WriteFileBytes(dir / "ours.txt", ours);
  WriteFileBytes(dir / "script.py", R"PY(
import numpy as np, mrcfile, io, re, subprocess, sys, contextlib, warnings
warnings.simplefilter('ignore')
bad = []
def valid(name):
    with contextlib.redirect_stdout(io.StringIO()): return mrcfile.validate(name)
def run(*args): return subprocess.run([sys.argv[1], *args], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL).returncode
for line in open('ours.txt'):
    name, t, shape = line.split(); shape = tuple(int(x) for x in shape.split(','))
    dt = '<' + np.dtype(dict(real32='f4', real64='f8', cmplx32='c8', cmplx64='c16').get(t, t)).str[1:]
    want = np.fromfile(name[:-4] + '.raw', dtype=dt).reshape(shape)
    if name.endswith('.npy'):
        a = np.load(name)
        if a.shape != shape or a.dtype != want.dtype or not np.array_equal(a, want, equal_nan=True): bad.append(name)
        continue
    ok = valid(name)
    with mrcfile.open(name, permissive=False) as m:
        d, h = m.data, m.header
        if t == 'uint8': d = d.view(np.uint8)  # mrcfile ignores the signed-bytes flag
        exp = want.reshape(1, shape[0]) if len(shape) == 1 else want
        ok = ok and d.shape == exp.shape and d.dtype == exp.dtype and np.array_equal(d, exp) and (len(shape) < 4 or h.ispg == 401)
        ok = ok and m.voxel_size.item() == (1.5, 2.0, 2.5) and h.origin.item() == (-4.0, 8.5, 0.25)
        ok = ok and h.nlabl == 1 and m.get_labels()[0].startswith('zvcompute interop test')
        if t == 'uint8' and d.max() > 127: ok = ok and h.dmax < h.dmin
        elif not np.iscomplexobj(d):
            ok = ok and h.dmin == d.min() and h.dmax == d.max() and np.isclose(h.dmean, d.mean(dtype=np.float64), rtol=1e-5)
            ok = ok and np.isclose(h.rms, d.std(dtype=np.float64), rtol=1e-5)
    if not ok: bad.append(name)
# Files they write, copied by the tool into the same format (their type named) and rewritten in place:
# "* 2" for single-precision data, "xor 1" for integers; half floats are read only.
label = dict(u1='uint8', i1='int8', u2='uint16', i2='int16', u4='uint32', i4='int32', u8='uint64', i8='int64',
             f2='real32', f4='real32', f8='real64', c8='cmplx32', c16='cmplx64', b1='uint8')
def values(shape, code):
    v = (np.arange(int(np.prod(shape)), dtype=np.int64) * 7919 % 251) - 120
    if code[0] in 'ub': v = np.abs(v) % (2 if code == 'b1' else 256)
    v = v + 1j * (v[::-1] / 4.0) if code[0] == 'c' else v / 8.0 if code[0] == 'f' else v
    return v.reshape(shape).astype('|b1' if code == 'b1' else '<' + code)
def load(name):
    if name.endswith('.npy'): return np.load(name), None
    with mrcfile.open(name) as m:
        return m.data.copy(), (m.voxel_size.item(), m.header.origin.item(), int(m.header.ispg), [l.strip() for l in m.get_labels()], int(m.header.nsymbt))
def labels_after(head, new): return new[-1].startswith('zvcompute ') and new == (head[3] + new[-1:])[-10:] and re.fullmatch(
    r'\d\d-\w{3}-\d\d  \d\d:\d\d:\d\d *', new[-1][60:])
def check(name, code, want, shape):
    before, head = load(name)
    copy = 'copy' + name[-4:]
    got, chead = load(copy) if run(copy, '=', label[code], name) == 0 else (None, None)
    ok = got is not None and got.dtype == want.dtype and np.array_equal(got, want.reshape(shape))
    ok = ok and (head is None or (chead[:3] == head[:3] and chead[4] == 0 and labels_after(head, chead[3]) and valid(copy)))
    raw = open(name, 'rb').read()
    if code == 'f2': return ok and run(name, '*', '2') == 1 and open(name, 'rb').read() == raw
    single = code in ('f4', 'c8')
    if not single and code[0] in 'fc': return ok
    ok = ok and run(name, *(('*', '2') if single else ('xor', '1'))) == 0
    after, ahead = load(name)
    ok = ok and after.dtype == before.dtype and after.flags.f_contiguous == before.flags.f_contiguous
    ok = ok and np.array_equal(after, before * 2 if single else before ^ before.dtype.type(1))
    return ok and (head is None or (valid(name) and labels_after(head, ahead[3]) and ahead[3][-1].startswith('zvcompute ' + name)))
files = 0
for code in label:
    for shape, read in [((5,), (5,)), ((2, 3, 4), (2, 3, 4)), ((), (1,)), ((1, 1, 2, 1, 3, 2), (2, 1, 3, 2))]:
        a = values(shape, code)
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
    for shape, kind in [((3, 4), 'image'), ((2, 3, 4), 'volume'), ((2, 3, 4), 'stack'), ((2, 3, 3, 4), 'volumes')]:
        for order in '<>':
            files += 1; name = 'm%d.mrc' % files
            with mrcfile.new(name) as m:
                m.set_data(values(shape, code).astype(order + code))
                if kind == 'stack': m.set_image_stack()
                if kind == 'volumes': m.header.ispg = 401; m.header.mz = 3
                m.voxel_size = (1.5, 2.25, 3.0); m.header.origin = (10.0, -20.0, 30.5)
                m.set_extended_header(np.arange(10, dtype=np.int32)); m.header.exttyp = b'SERI'
                for i in range(9): m.add_label('label %d' % i)
            want = values(shape, code).astype('<' + {'f2': 'f4'}.get(code, code))
            if not check(name, code, want, shape): bad.append(name)
print(files, "files; mismatch:", *bad); sys.exit(1 if bad or files < 150 else 0)
)PY");
  Child c = Start({py, "script.py", ZVCOMPUTE_BIN}, {dir.path});
  const RunResult r = Finish(c);
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

}  // namespace
