// Interoperability with the field's own readers and writers: the tool copies and rewrites in place
// the files that numpy and mrcfile write (versions, byte orders, column-major arrays, extended
// headers, ten labels), and they read and validate the results.
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
    ok = ok and (head is None or (chead[:3] == head[:3] and chead[4] == 0 and labels_after(head, chead[3]) and valid(copy) and stats(got, chead)))
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
    for shape, read in [((5,), (5,)), ((2, 3, 4), (2, 3, 4)), ((), (1,)), ((1, 1, 2, 1, 3, 2), (2, 1, 3, 2))]:
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
print(files, "files; mismatch:", *bad); sys.exit(1 if bad or files < 150 else 0)
)PY");
  Child c = Start({py, "script.py", ZVCOMPUTE_BIN}, {dir.path});
  const RunResult r = Finish(c);
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

}  // namespace
