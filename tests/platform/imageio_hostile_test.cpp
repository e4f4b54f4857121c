// Hostile files: each is refused by the library with its code and a reason naming the file, and by
// the tool, as an operand and as the file of an in-place run, with one error line, exit status 1, in
// little time and memory, the file unchanged and nothing created.
#include <sys/stat.h>

#include "imageio_helpers.h"

namespace {

struct Hostile {
  char format;  // the good file patched: z native, m MRC, n NPY, t TIFF, d deflated TIFF
  void (*patch)(std::string &);
  uint32_t code;
  const char *part;
  const char *forced = nullptr;  // opened as this format instead of by content
};

// An .npy file of the given version and dict text, padded the way writers do, then the data bytes.
std::string Npy(const std::string &dict, const std::string &data) {
  const size_t total = (10 + dict.size() + 1 + 63) / 64 * 64;
  return std::string("\x93NUMPY\x01\x00", 8) + static_cast<char>((total - 10) & 0xff) + static_cast<char>((total - 10) >> 8) + dict +
         std::string(total - 11 - dict.size(), ' ') + "\n" + data;
}
std::string Dict(const char *descr, const char *shape, const char *fortran = "False") {
  return std::string("{'descr': '") + descr + "', 'fortran_order': " + fortran + ", 'shape': " + shape + ", }";
}
const std::string kData(24, '\0');  // 2 x 3 float32
std::string NpyWith(const char *descr, const char *shape, const std::string &data = kData) { return Npy(Dict(descr, shape), data); }

// Classic little-endian TIFF: the directory after the one at ifd (the first for 0), and a tag's value
// set (a SHORT made LONG when the value needs it) in a directory (the first for 0).
size_t NextIfd(const std::string &s, size_t ifd = 0) { return ifd ? Get(s, ifd + 2 + 12 * Get<uint16_t>(s, ifd)) : Get(s, 4); }
void Set(std::string &s, uint16_t tag, uint32_t v, size_t ifd = 0) {
  ifd = ifd ? ifd : NextIfd(s);
  for (size_t i = 0, n = Get<uint16_t>(s, ifd), at = ifd + 10; i < n; ++i, at += 12)
    if (Get<uint16_t>(s, at - 8) == tag) {
      if (Get<uint16_t>(s, at - 6) == 3 && v > 65535) s[at - 6] = 4;
      return Put32(s, at, v);
    }
  ADD_FAILURE() << "no tag " << tag;
}

const Hostile kCases[] = {
    {'z', [](std::string &s) { s[1] = 'X'; }, E_IMAGEIO_FORMAT, "matches none"},
    {'z', [](std::string &s) { Put32(s, 8, 2); }, E_IMAGEIO_HEADER, "version 2"},
    {'z', [](std::string &s) { Put32(s, 12, 0x501003); }, E_IMAGEIO_HEADER, "element type"},
    {'z', [](std::string &s) { Put32(s, 20, 0); }, E_IMAGEIO_DIM, "0 axes"},
    {'z', [](std::string &s) { Put32(s, 20, 5); }, E_IMAGEIO_DIM, "5 axes"},
    {'z', [](std::string &s) { Put64(s, 24, 1ull << 33), Put64(s, 32, 1ull << 31); }, E_IMAGEIO_SIZE, "overflow"},
    {'z', [](std::string &s) { Put32(s, 20, 4), Put64(s, 40, 1ull << 32), Put64(s, 48, 1ull << 32); }, E_IMAGEIO_SIZE, "overflow"},
    {'z', [](std::string &s) { Put64(s, 64, 20); }, E_IMAGEIO_HEADER, "data size"},
    {'z', [](std::string &s) { Put64(s, 24, 1000), Put64(s, 64, 12000); }, E_IMAGEIO_READ, "shorter than its header"},
    {'z', [](std::string &s) { Put32(s, 20, 3), Put64(s, 24, 1000), Put64(s, 32, 1000), Put64(s, 40, 1000), Put64(s, 64, 4000000000ull); },
     E_IMAGEIO_READ, "shorter than its header"},
    {'z', [](std::string &s) { Put64(s, 56, 100); }, E_IMAGEIO_HEADER, "data offset"},
    {'z', [](std::string &s) { Put64(s, 56, ~0ull - 63); }, E_IMAGEIO_READ, "shorter"},
    {'z', [](std::string &s) { s.resize(4096); }, E_IMAGEIO_READ, "shorter"},
    {'z', [](std::string &s) { s += "zz"; }, E_IMAGEIO_HEADER, "does not match"},
    {'z', [](std::string &s) { s.resize(900); }, E_IMAGEIO_HEADER, "too short"},
    {'z', [](std::string &s) { s.resize(1056); }, E_IMAGEIO_READ, "shorter"},  // every field there, no data
    {'z', [](std::string &s) { s.clear(); }, E_IMAGEIO_HEADER, "empty file"},
    {'z', [](std::string &s) { s = "just some text\n"; }, E_IMAGEIO_FORMAT, "zv, mrc, npy"},
    {'m', [](std::string &s) { Put32(s, 0, static_cast<uint32_t>(-4)); }, E_IMAGEIO_HEADER, "nx = -4"},
    {'m', [](std::string &s) { Put32(s, 4, 0xfffffffe); }, E_IMAGEIO_HEADER, "ny = -2"},
    {'m', [](std::string &s) { Put32(s, 0, 0x7fffffff), Put32(s, 4, 0x7fffffff), Put32(s, 8, 0x7fffffff); }, E_IMAGEIO_SIZE, "overflow"},
    {'m', [](std::string &s) { Put32(s, 0, 0x7fffffff), Put32(s, 4, 1000); }, E_IMAGEIO_READ, "shorter than its header"},
    {'m', [](std::string &s) { Put32(s, 92, 5000); }, E_IMAGEIO_HEADER, "extends past the end"},
    {'m', [](std::string &s) { Put32(s, 92, 0x7fffffff); }, E_IMAGEIO_HEADER, "extends past the end"},
    {'m', [](std::string &s) { Put32(s, 92, static_cast<uint32_t>(-8)); }, E_IMAGEIO_HEADER, "negative extended"},
    {'m', [](std::string &s) { Put32(s, 92, 16); }, E_IMAGEIO_READ, "shorter"},
    {'m', [](std::string &s) { Put32(s, 12, 7); }, E_IMAGEIO_HEADER, "unknown MRC mode 7"},
    {'m', [](std::string &s) { Put32(s, 12, 101); }, E_IMAGEIO_TYPE, "4-bit"},
    {'m', [](std::string &s) { s.resize(1024); }, E_IMAGEIO_READ, "shorter"},
    {'m', [](std::string &s) { s += "abc"; }, E_IMAGEIO_HEADER, "does not match"},
    {'m', [](std::string &s) { s.resize(500); }, E_IMAGEIO_FORMAT, "matches none"},
    {'m', [](std::string &s) { s.resize(500); }, E_IMAGEIO_HEADER, "too short", "mrc"},
    {'n', [](std::string &s) { s = Npy("{'descr': '<f4', 'shape': (2, 3), }", kData); }, E_IMAGEIO_HEADER, "missing key"},
    {'n', [](std::string &s) { s = Npy(Dict("<f4", "(2, 3)") + "'x': 1}", kData); }, E_IMAGEIO_HEADER, "after the dict"},
    {'n', [](std::string &s) { s = Npy("{'descr': '<f4', 'fortran_order': False, 'shape': (2, 3), 'x': 1}", kData); }, E_IMAGEIO_HEADER, "'x'"},
    {'n', [](std::string &s) { s = Npy("{'descr': '<f4', 'descr': '<f4', 'fortran_order': False, 'shape': (2, 3)}", kData); }, E_IMAGEIO_HEADER, "repeated"},
    {'n', [](std::string &s) { s = NpyWith("<f4", "(2, -3)"); }, E_IMAGEIO_HEADER, "negative"},
    {'n', [](std::string &s) { s = NpyWith("<f4", "(-1, 3)", ""); }, E_IMAGEIO_HEADER, "negative"},
    {'n', [](std::string &s) { s = NpyWith("<f4", "(2.5, 3)"); }, E_IMAGEIO_HEADER, "shape"},
    {'n', [](std::string &s) { s = NpyWith("<f4", "(99999999999999999999, 3)"); }, E_IMAGEIO_SIZE, "overflow"},
    {'n', [](std::string &s) { s = NpyWith("<f4", "(4611686018427387904,)"); }, E_IMAGEIO_SIZE, "overflow"},  // 2^64 bytes
    {'n', [](std::string &s) { s = NpyWith("<i2", "(4611686018427387904,)"); }, E_IMAGEIO_READ, "shorter"},  // 2^63 bytes
    {'n', [](std::string &s) { s = NpyWith("<c16", "(4294967296, 4294967296)", ""); }, E_IMAGEIO_SIZE, "overflow"},
    {'n', [](std::string &s) { std::string m = "(";
       while (m.size() < 300000) m += "2, ";
       s = NpyWith("<f4", (m + ")").c_str(), ""); }, E_IMAGEIO_HEADER, "malformed 'shape'"},
    {'n', [](std::string &s) { s = Npy(Dict("<f4", "(2, 3)", "0"), kData); }, E_IMAGEIO_HEADER, "True or False"},
    {'n', [](std::string &s) { s = NpyWith("<U4", "(2, 3)"); }, E_IMAGEIO_TYPE, "'<U4'"},
    {'n', [](std::string &s) { s = Npy("{'descr': [('a', '<f4')], 'fortran_order': False, 'shape': (2, 3), }", kData); }, E_IMAGEIO_HEADER, "descr"},
    {'n', [](std::string &s) { s = NpyWith("f4", "(2, 3)"); }, E_IMAGEIO_TYPE, "not supported"},
    {'n', [](std::string &s) { s = NpyWith("xf4", "(2, 3)"); }, E_IMAGEIO_TYPE, "not supported"},
    {'n', [](std::string &s) { s = Npy("{'descr': '<f4' 'fortran_order': False, 'shape': (2, 3), }", kData); }, E_IMAGEIO_HEADER, "NPY header"},
    {'n', [](std::string &s) { s = Npy("['descr', '<f4']", kData); }, E_IMAGEIO_HEADER, "not a dict"},
    {'n', [](std::string &s) { s = NpyWith("<f8", "(2, 3)"); }, E_IMAGEIO_READ, "shorter than its header"},
    {'n', [](std::string &s) { s = NpyWith("<f8", "(1000000, 1000000)", "abcd"); }, E_IMAGEIO_READ, "shorter than its header"},
    {'n', [](std::string &s) { s[6] = 4; }, E_IMAGEIO_HEADER, "version 4"},
    {'n', [](std::string &s) { s[8] = '\xff', s[9] = '\x7f'; }, E_IMAGEIO_HEADER, "past the end"},
    {'n', [](std::string &s) { s = std::string("\x93NUMPY\x02\x00\xff\xff\xff\xff{", 13); }, E_IMAGEIO_HEADER, "header too long"},
    {'n', [](std::string &s) { s.resize(9); }, E_IMAGEIO_HEADER, "file too short"},
    {'n', [](std::string &s) { s[7] = 1; }, E_IMAGEIO_HEADER, "version 1.1"},
    {'n', [](std::string &s) { s = NpyWith("<f4", "(2, 03)"); }, E_IMAGEIO_HEADER, "shape"},
    {'n', [](std::string &s) {  // Python 2's long suffix: version 1 and 2 readers take it, version 3 ones do not
       const std::string d = Dict("<f4", "(2L, 3)") + std::string(128 - 12 - Dict("<f4", "(2L, 3)").size() - 1, ' ') + "\n";
       s = std::string("\x93NUMPY\x03\x00", 8) + std::string(1, static_cast<char>(d.size())) + std::string(3, '\0') + d + kData; },
     E_IMAGEIO_HEADER, "shape"},
    {'n', [](std::string &s) { s[22] = '\0'; }, E_IMAGEIO_HEADER, "NUL"},  // inside the descr
    {'n', [](std::string &s) { std::fill(s.begin() + s.find('}') + 1, s.begin() + s.find('\n') + 1, '\0'); }, E_IMAGEIO_HEADER, "NUL"},
    {'t', [](std::string &s) { Set(s, 273, 1u << 30); }, E_IMAGEIO_HEADER, "page 1, strip 1 of 48 bytes at offset 1073741824 lies past the end"},
    {'t', [](std::string &s) { Set(s, 256, 0xffffffffu); }, E_IMAGEIO_HEADER, "past the end"},
    {'t', [](std::string &s) { Set(s, 257, 0xffffffffu); Set(s, 278, 1); }, E_IMAGEIO_HEADER, ""},
    {'t', [](std::string &s) { size_t i1 = NextIfd(s, NextIfd(s)); Put32(s, i1 + 2 + 12 * Get<uint16_t>(s, i1), NextIfd(s)); }, E_IMAGEIO_HEADER,
     "page 3: the chain of page directories loops back"},
    {'t', [](std::string &s) { Set(s, 256, 7, NextIfd(s, NextIfd(s))); }, E_IMAGEIO_TYPE, "page 2 is 7 x 4"},
    {'t', [](std::string &s) { Set(s, 277, 3); }, E_IMAGEIO_TYPE, "3 samples per pixel"},
    {'t', [](std::string &s) { Set(s, 258, 12); }, E_IMAGEIO_TYPE, "12-bit unsigned integer samples"},
    {'t', [](std::string &s) { Set(s, 339, 4); }, E_IMAGEIO_TYPE, "undefined samples"},
    {'t', [](std::string &s) { Set(s, 259, 34712); }, E_IMAGEIO_TYPE, "cannot decode"},
    {'t', [](std::string &s) { Put32(s, 4, 1u << 31); }, E_IMAGEIO_HEADER, "TIFF header"},
    {'t', [](std::string &s) { s.resize(12); }, E_IMAGEIO_HEADER, "TIFF header"},
    {'t', [](std::string &s) { s = "II*"; }, E_IMAGEIO_FORMAT, "zv, mrc, npy, tiff"},
    // libtiff mends the byte counts of uncompressed single strips by itself, not of compressed ones.
    {'d', [](std::string &s) { Set(s, 279, 1u << 30); }, E_IMAGEIO_HEADER, "past the end"},
    {'d', [](std::string &s) { Set(s, 256, 1u << 24); }, E_IMAGEIO_HEADER, "compressed more than 32768 to 1"},
    {'d', [](std::string &s) { Set(s, 256, 1u << 26); }, E_IMAGEIO_TYPE, "strip of more than 256 MiB"},
};

// Refused by the library, then by the tool as an operand and in place.
void ExpectRefused(const TempDir &dir, const std::string &in, uint32_t code, const char *part, const char *forced) {
  ExpectOpenFails(in, code, part, forced);
  const std::string bytes = ReadFileBytes(in);
  for (bool inplace : {false, true}) {
    std::vector<std::string> args = inplace ? std::vector<std::string>{in, "*", "2"} : std::vector<std::string>{dir / "o.img", "=", in, "+", "1"};
    if (forced) args.insert(args.begin(), {inplace ? "-fmt" : "-fmtin", forced});
    const RunResult r = RunTool(args);
    EXPECT_EQ(r.status, 1) << in;
    EXPECT_NE(r.err.find(in), std::string::npos) << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    EXPECT_TRUE(r.seconds < 5 && r.max_rss_kb < 200 * 1024) << in << ": " << r.seconds << " s, " << r.max_rss_kb << " kB";
    EXPECT_EQ(ReadFileBytes(in), bytes) << in;
    EXPECT_FALSE(FileExists(dir / "o.img")) << in;
  }
}

TEST_F(ImageioTest, HostileFilesAreRefused) {
  ASSERT_TRUE(WriteImage(dir / "good.zv", TypeUint32, {2, 3}, std::vector<uint32_t>{1, 2, 3, 4, 5, 6}));
  ASSERT_TRUE(WriteImage(dir / "good.tif", TypeUint16, {6, 4, 2}, Pattern(TypeUint16, 48)));
  ASSERT_TRUE(WriteImage(dir / "zip.tif", TypeUint16, {6, 4}, Pattern(TypeUint16, 24), Caps("deflate")));
  const std::string good[] = {ReadFileBytes(dir / "good.zv"), MrcHeader(4, 2, 1, 2, false, std::string(32, '\0')),
                              NpyWith("<f4", "(2, 3)"), ReadFileBytes(dir / "good.tif"), ReadFileBytes(dir / "zip.tif")};
  int i = 0;
  for (const Hostile &c : kCases) {
    std::string s = good[std::string("zmntd").find(c.format)], path = dir / ("h" + std::to_string(i++) + "." + c.format);
    c.patch(s);
    WriteFileBytes(path, s);
    ExpectRefused(dir, path, c.code, c.part, c.forced);
  }
  // Not regular files at all.
  ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
  for (auto [path, part] : {std::pair{dir / "missing.zv", "No such file or directory"}, {dir.path, "Is a directory"},
                            {dir / "fifo", "not a regular file"}, {std::string("/dev/zero"), "not a regular file"}}) {
    ExpectOpenFails(path, E_IMAGEIO_OPEN, part);
    const RunResult r = RunTool({dir / "o.img", "=", path, "+", "1"});
    EXPECT_TRUE(r.status == 1 && r.err.find(path) != std::string::npos && r.seconds < 5) << r.err;
  }
  EXPECT_FALSE(FileExists(dir / "o.img"));
}

}  // namespace
