// The command line end to end: what a user types, what comes out, and what is left on disk; the
// manual page, the installed program, and the progress line of long runs.
#include <gtest/gtest.h>

#include <cmath>
#include <regex>

#include "compute/compute.h"
#include "support.h"

namespace {

using Args = std::vector<std::string>;
template <class T> std::vector<unsigned char> B(std::initializer_list<T> v) {
  return {reinterpret_cast<const unsigned char *>(v.begin()), reinterpret_cast<const unsigned char *>(v.end())};
}

// Small inputs, written afresh before each command (in-place runs change them).
void Inputs(const TempDir &dir) {
  const float nan = NAN;
  struct In { const char *name; uint32_t type; std::vector<uint64_t> dims; std::vector<unsigned char> data; uint32_t attr = 0; };
  const In inputs[] = {
      {"a.img", TypeReal32, {2}, B<float>({1.5f, -2})},          {"b.img", TypeInt16, {2}, B<int16_t>({3, 4})},
      {"i.img", TypeInt32, {3}, B<int32_t>({-5, 70000, 16777217})}, {"m.img", TypeImag32, {2}, B<float>({1, 2})},
      {"n.img", TypeReal32, {6}, B<float>({300.5f, -0.7f, nan, -128.9f, 127.9f, 2.7f})},
      {"c.img", TypeInt8, {3}, B<int8_t>({127, 0, -128})},      {"f.img", TypeCmplx32, {2}, B<float>({1, 2, 3, 4}), 2},
      {"g.img", TypeCmplx64, {2}, B<double>({1, 2, 3, 4})},
      {"s.img", TypeInt16, {2}, B<int16_t>({1, 2})},            {"t.img", TypeInt32, {2}, B<int32_t>({1, 2})},
      {"10", TypeReal32, {2}, B<float>({100, 200})},            {"e.img", TypeReal32, {5, 0}, {}},
      {"a3.img", TypeReal32, {4, 4, 3}, std::vector<unsigned char>(192)}, {"b2.img", TypeReal32, {4, 4}, std::vector<unsigned char>(64)},
      {"c2.img", TypeReal32, {4, 2}, std::vector<unsigned char>(32)}, {"f2.img", TypeReal32, {4, 4}, std::vector<unsigned char>(64), 2},
      {"d4.img", TypeReal32, {4, 4, 2, 5}, std::vector<unsigned char>(640)},
      {"big.img", TypeReal32, {2, 1, 1, 3}, B<float>({0, 1, 2, 3, 4, 5})}, {"small.img", TypeReal32, {2}, B<float>({1000, 2000})},
      {"sub.img", TypeReal32, {2}, B<uint32_t>({0x80000001, 0x00400000})}, {"csub.img", TypeCmplx32, {1}, B<uint32_t>({0x807fffff, 0x80000001})}};
  for (const In &in : inputs) ASSERT_TRUE(WriteImage(dir / in.name, in.type, in.dims, in.data.data(), ImageioParamDefault, nullptr, in.attr));
}

// A command that succeeds: the file it writes, that file's type, data, attributes and (when given)
// axis lengths; nothing else appears in the directory and nothing is written to the terminal.
struct Success { Args args; const char *out; uint32_t type; std::vector<unsigned char> data; uint32_t attr = 0; std::vector<uint64_t> dims = {}; };

TEST(Driver, CommandsThatSucceed) {
  const float r5 = std::sqrt(5.0f);
  const Success cases[] = {
      {{"o", "=", "a.img", "+", "b.img"}, "o", TypeReal32, B<float>({4.5f, 2})},
      {{"o", "=", "+", "b.img"}, "o", TypeReal32, B<float>({3, 4})},
      {{"o", "=", "-", "a.img"}, "o", TypeReal32, B<float>({-1.5f, 2})},
      {{"a.img", "+", "2.5"}, "a.img", TypeReal32, B<float>({4, 0.5f})},
      {{"a.img", "=", "a.img", "+", "a.img"}, "a.img", TypeReal32, B<float>({3, -4})},
      {{"-capin", "read", "-cap", "read,sync", "a.img", "=", "a.img", "*", "a.img"}, "a.img", TypeReal32, B<float>({2.25f, 4})},
      {{"-cap", "read,sync", "a.img", "-", "b.img"}, "a.img", TypeReal32, B<float>({-1.5f, -6})},
      // A type name is a conversion, searched before the operation table; conversions saturate.
      {{"o", "=", "int16", "i.img"}, "o", TypeInt16, B<int16_t>({-5, 32767, 32767})},
      {{"o", "=", "short", "i.img"}, "o", TypeInt16, B<int16_t>({-5, 32767, 32767})},
      {{"o", "=", "cdouble", "b.img"}, "o", TypeCmplx64, B<double>({3, 0, 4, 0})},
      {{"o", "=", "byte", "n.img"}, "o", TypeUint8, B<uint8_t>({255, 0, 0, 0, 127, 2})},
      {{"o", "=", "complex", "c.img"}, "o", TypeCmplx32, B<float>({127, 0, 0, 0, -128, 0})},
      // The second operand is a number when it parses completely, even if a file has that name.
      {{"o", "=", "a.img", "+", "10"}, "o", TypeReal32, B<float>({11.5f, 8})},
      {{"o", "=", "f.img", "*", "2+1i"}, "o", TypeCmplx32, B<float>({0, 5, 2, 11}), 2},
      {{"o", "=", "m.img", "*", "2i"}, "o", TypeReal32, B<float>({-2, -4})},
      // Result types: single precision; i * i is real, a real and an imaginary value sum to complex.
      {{"o", "=", "m.img", "*", "m.img"}, "o", TypeReal32, B<float>({-1, -4})},
      {{"o", "=", "a.img", "*", "m.img"}, "o", TypeImag32, B<float>({1.5f, -4})},
      {{"o", "=", "m.img", "/", "a.img"}, "o", TypeImag32, B<float>({1 / 1.5f, -1})},
      {{"o", "=", "a.img", "+", "m.img"}, "o", TypeCmplx32, B<float>({1.5f, 1, -2, 2})},
      {{"o", "=", "m.img", "-", "m.img"}, "o", TypeImag32, B<float>({0, 0})},
      {{"o", "=", "b.img", "+", "g.img"}, "o", TypeCmplx32, B<float>({4, 2, 7, 4})},
      {{"o", "=", "m.img", "**", "g.img"}, "o", TypeCmplx32, B<float>({2, 1, 8, 6})},
      {{"o", "=", "a.img", "lt", "0"}, "o", TypeUint8, B<uint8_t>({0, 1})},
      {{"o", "=", "s.img", "xor", "3"}, "o", TypeInt16, B<int16_t>({2, 1})},
      // -h marks complex results of Fourier transforms as Hermitian halves.
      {{"-h", "o", "=", "f.img", "*", "2"}, "o", TypeCmplx32, B<float>({2, 4, 6, 8}), 10},
      {{"-h", "o", "=", "abs", "f.img"}, "o", TypeReal32, B<float>({r5, 5}), 2},
      {{"o", "=", "e.img", "+", "1"}, "o", TypeReal32, {}, 0, {5, 0}},
      // Subnormal operands are zeros of their sign: ln of -2^-149 and of 2^-127 is ln of a zero, the
      // phase of (-0, -0) is -pi; a number below the normal range is parsed as the zero of its sign.
      {{"o", "=", "ln", "sub.img"}, "o", TypeReal32, B<float>({-INFINITY, -INFINITY})},
      {{"o", "=", "sub.img", "*", "1"}, "o", TypeReal32, B<uint32_t>({0x80000000, 0})},
      {{"o", "=", "phase", "csub.img"}, "o", TypeReal32, B<uint32_t>({0xc0490fdb})},
      {{"o", "=", "a.img", "+i", "-1e-40"}, "o", TypeCmplx32, B<uint32_t>({0x3fc00000, 0x80000000, 0xc0000000, 0x80000000})},
      // A smaller operand that is a slice of a four-axis image is applied to every slice.
      {{"o", "=", "big.img", "-", "small.img"}, "o", TypeReal32, B<float>({-1000, -1999, -998, -1997, -996, -1995}), 0, {2, 1, 1, 3}},
      {{"o", "=", "small.img", "-", "big.img"}, "o", TypeReal32, B<float>({1000, 1999, 998, 1997, 996, 1995}), 0, {2, 1, 1, 3}},
      {{"big.img", "-", "small.img"}, "big.img", TypeReal32, B<float>({-1000, -1999, -998, -1997, -996, -1995}), 0, {2, 1, 1, 3}},
  };
  for (const Success &c : cases) {
    TempDir dir;
    Inputs(dir);
    const std::vector<std::string> before = ListDir(dir.path);
    RunResult r = RunTool(c.args, {dir.path});
    std::string what;
    for (const std::string &a : c.args) what += a + " ";
    ASSERT_EQ(r.status, 0) << what << ": " << r.err;
    EXPECT_EQ(r.out + r.err, "") << what;
    TestImage o = ReadImage(dir / c.out);
    EXPECT_TRUE(o.type == c.type && o.data == c.data && o.attr == c.attr) << what << " type " << std::hex << o.type;
    EXPECT_TRUE(c.dims.empty() || o.dims == c.dims) << what;
    std::vector<std::string> names = ListDir(dir.path);
    EXPECT_EQ(names.size(), before.size() + (c.out[0] == 'o')) << what;
  }
}

const std::string kUsage =
    "usage: zvcompute: <file> <op>\nusage: zvcompute: <file> <op> (<file>|<number>)\n"
    "usage: zvcompute: <file> = <op> <file>\nusage: zvcompute: <file> = <file> <op> (<file>|<number>)\n";

// A command that fails: exit status 1, exactly this text on standard error, the inputs as they were
// and nothing new in the directory.
TEST(Driver, CommandsThatFail) {
  const std::pair<Args, std::string> cases[] = {
      {{"a.img"}, kUsage},
      {{"o", "=", "a.img", "+", "1", "2"}, kUsage},
      {{"o", "=", "missing.img", "frobnicate", "1"}, "zvcompute: unknown operation\n"},
      {{"a.img", "re"}, "zvcompute: invalid call: 're' has no in-place form\n"},
      {{"o", "=", "a.img", "-mean", "2"}, "zvcompute: invalid call: '-mean' has no two-operand form\n"},
      {{"o", "=", "min", "a.img"}, "zvcompute: invalid call: 'min' has no one-operand form\n"},
      {{"o", "=", "a.img", "real32", "2"}, "zvcompute: invalid call: 'real32' has no two-operand form\n"},
      {{"o", "=", "nope.img", "+", "1"}, "zvcompute: cannot open file: nope.img: No such file or directory\n"},
      {{"no/o", "=", "+", "a.img"}, "zvcompute: cannot create file: no/o: No such file or directory\n"},
      {{".", "=", "+", "a.img"}, "zvcompute: cannot create file: .: Is a directory\n"},
      {{"o", "=", "a3.img", "+", "b2.img"}, "zvcompute: incompatible image: b2.img\n"},
      {{"o", "=", "b2.img", "+", "f2.img"}, "zvcompute: incompatible image: f2.img\n"},
      {{"o", "=", "d4.img", "+", "b2.img"}, "zvcompute: array size mismatch, file d4.img\n"},
      {{"o", "=", "b2.img", "+", "c2.img"}, "zvcompute: array size mismatch, file c2.img\n"},
      {{"b2.img", "+", "d4.img"}, "zvcompute: invalid number of dimensions (an image has 1 to 4 axes): d4.img\n"},
      {{"small.img", "-", "big.img"}, "zvcompute: invalid number of dimensions (an image has 1 to 4 axes): big.img\n"},
      {{"o", "=", "s.img", "and", "t.img"}, "zvcompute: invalid data type, file t.img\n"},
      // The int16 parser stops at the point, so 2.5 is taken as a file name.
      {{"s.img", "and", "2.5"}, "zvcompute: cannot open file: 2.5: No such file or directory\n"},
      {{"c.img", "and", "128"}, "zvcompute: cannot open file: 128: No such file or directory\n"},  // beyond int8
      {{"b2.img", "lt", "1"}, "zvcompute: invalid data type: b2.img\n"},
      {{"b.img", "+", "1"}, "zvcompute: invalid data type: b.img\n"},
      {{"m.img", "*", "2"}, "zvcompute: invalid inplace operation\n"},
      {{"o", "=", "f.img", "+uran", "1"}, "zvcompute: invalid data type for operation (cmplx32)\n"},
      {{"o", "=", "m.img", "%", "a.img"}, "zvcompute: invalid data type for operation (imag32)\n"},
      {{"-seed", "-h"}, "zvcompute: invalid number of option values -seed\nusage: zvcompute [-h] [-seed <i>]\n"},
      {{"-seed", "12x", "a.img", "+"}, "zvcompute: illegal option value -seed\nusage: zvcompute [-h] [-seed <i>]\n"},
      {{"-fmt", "tif", "o", "=", "+", "a.img"}, "zvcompute: unknown file format (known formats: zv, mrc, npy, tiff)\n"},
      {{"o.png", "=", "+", "a.img"}, "zvcompute: unknown file format (known formats: zv, mrc, npy, tiff); .png files are not written: name the file for one of these formats, or give -fmt: o.png\n"},
  };
  for (const auto &[args, err] : cases) {
    TempDir dir;
    std::string what;
    for (const std::string &a : args) what += a + " ";
    Inputs(dir);
    const std::string before = ReadFileBytes(dir / "a.img");
    const std::vector<std::string> names = ListDir(dir.path);
    RunResult r = RunTool(args, {dir.path});
    EXPECT_EQ(r.status, 1) << what;
    EXPECT_EQ(r.err, err) << what;
    EXPECT_EQ(ListDir(dir.path), names) << what;
    EXPECT_EQ(ReadFileBytes(dir / "a.img"), before) << what;
  }
}

TEST(Driver, SeedFromCommandLineAndEnvironment) {
  TempDir dir;
  ASSERT_TRUE(WriteImage(dir / "a.img", TypeReal32, {64}, std::vector<float>(64, 0)));
  auto noise = [&](Args args, std::vector<std::string> env) {
    for (const char *s : {"o.img", "=", "a.img", "+uran", "1"}) args.push_back(s);
    EXPECT_EQ(RunTool(args, {dir.path, env}).status, 0);
    return ReadImage(dir / "o.img").data;  // the data only: the header's history has the time
  };
  const auto def = noise({}, {}), s5 = noise({"-seed", "5"}, {});
  EXPECT_TRUE(noise({"-seed", "123"}, {}) == def && def != s5);
  EXPECT_EQ(noise({"-seed", "4294967301"}, {"zv_seed=7"}), s5);  // the low 32 bits; the option first
}

// A small operand over many sub-arrays: the files are taken in pieces of many sub-arrays (three
// elements do not divide a piece), and each sub-array meets the operand from its first element.
TEST(Driver, SmallOperandOverManySubArrays) {
  TempDir dir;
  const uint64_t subs = 100001, n = 3 * subs;
  std::vector<float> big(n);
  for (size_t i = 0; i < n; ++i) big[i] = float(i);
  const int16_t small[3] = {1, 10, 100};
  ASSERT_TRUE(WriteImage(dir / "s.img", TypeInt16, {3}, small));
  for (const Args &args : {Args{"o.img", "=", "big.img", "-", "s.img"}, Args{"o.img", "=", "s.img", "-", "big.img"}, Args{"big.img", "-", "s.img"}}) {
    ASSERT_TRUE(WriteImage(dir / "big.img", TypeReal32, {3, 1, 1, subs}, big));
    ASSERT_EQ(RunTool(args, {dir.path}).status, 0) << args[0] << args[2];
    const std::vector<float> o = ReadImage(dir / args[0]).as<float>();
    ASSERT_EQ(o.size(), n);
    size_t wrong = 0;
    const bool reversed = args.size() == 5 && args[2] == "s.img";
    for (size_t i = 0; i < n; ++i) wrong += o[i] != (reversed ? small[i % 3] - big[i] : big[i] - small[i % 3]);
    EXPECT_EQ(wrong, 0u) << args[0] << args[2];
  }
}

// Mean removal and RMS normalisation use the statistics of each block of 2^24 elements, summed so
// that no small term is lost (in binary32 the sums would drift far off).
TEST(Driver, StatisticsArePerBlockOfTwoToThe24Elements) {
  TempDir dir;
  const size_t n = 16777217;
  std::vector<float> v(n);
  for (size_t i = 0; i < n; ++i) v[i] = float(i % 7);
  ASSERT_TRUE(WriteImage(dir / "a.img", TypeReal32, {n}, v));
  ASSERT_EQ(RunTool({dir / "m.img", "=", "-mean", dir / "a.img"}).status, 0);
  std::vector<float> m = ReadImage(dir / "m.img").as<float>();
  ASSERT_EQ(m.size(), n);
  EXPECT_EQ(m[n - 1], 0.0f);  // the last element is a block of its own
  EXPECT_EQ(m[0], static_cast<float>(-50331645.0 / 16777216));  // 2396745 cycles of 0..6, then a 0
  ASSERT_EQ(RunTool({dir / "a.img", "/rms"}).status, 0);
  const std::vector<float> r = ReadImage(dir / "a.img").as<float>();
  EXPECT_TRUE(std::fabs(r[1] - 1 / std::sqrt(2396745 * 91 / 16777216.0)) < 1e-6 && r[n - 1] == 1.0f) << r[1];
}


RunResult Shell(const std::string &cmd) {
  Child c = Start({"/bin/sh", "-c", cmd + " 2>&1"});
  return Finish(c);
}

TEST(Manual, NamesEveryOperationWordAndTypeName) {
  std::string page = ReadFileBytes(ZV_SOURCE_DIR "/docs/zvcompute.1");
  page = std::regex_replace(std::regex_replace(page, std::regex(R"(\\f[BIRP])"), ""), std::regex(R"(\\-)"), "-");
  ASSERT_FALSE(page.empty());
  for (const OperationEntry *e = OperationTable; e->name; ++e) {
    const std::string name = std::regex_replace(std::string(e->name), std::regex(R"([+*/])"), "\\$&");
    EXPECT_TRUE(std::regex_search(page, std::regex("(^|[\\s,(])" + name + "($|[\\s,)])"))) << e->name;
  }
  for (int i = 0; TypeIdentTab[i]; ++i) EXPECT_NE(page.find(TypeIdentTab[i]), std::string::npos) << TypeIdentTab[i];
  for (const char *section : {"NAME", "SYNOPSIS", "DESCRIPTION", "OPERATIONS", "TYPES", "NUMBERS", "OPTIONS",
                              "ENVIRONMENT", "FORMATS", "EXIT STATUS", "EXAMPLES", "NOTES"})
    EXPECT_NE(page.find(section), std::string::npos) << section;
}

TEST(Manual, InstallGivesAWorkingBinaryAndARenderablePage) {
  TempDir prefix;
  RunResult r = Shell("cmake --install '" ZV_BINARY_DIR "' --prefix '" + prefix.path + "'");
  ASSERT_EQ(r.status, 0) << r.out;
  r = Shell("'" + prefix.path + "/bin/zvcompute' a");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.out.find("usage: zvcompute: <file> <op>"), std::string::npos) << r.out;
  const std::string page = prefix / "share/man/man1/zvcompute.1.gz";
  ASSERT_TRUE(FileExists(page));
  if (Shell("command -v man").status != 0) GTEST_SKIP() << "man is not installed";
  r = Shell("MANWIDTH=80 man --warnings -l '" + page + "' >/dev/null");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "");
}

TEST(Progress, ShownOnlyAtATerminalAndCleared) {
  if (Shell("command -v script").status != 0) GTEST_SKIP() << "script is not installed";
  TempDir dir;
  const uint64_t n = 5ull << 24;  // five blocks of Gaussian noise take well over a second
  ASSERT_TRUE(WriteImage(dir / "a.img", TypeReal32, {n}, std::vector<float>(n, 0.0f)));
  const std::string cmd = std::string("'") + ZVCOMPUTE_BIN + "' '" + (dir / "o.img") + "' = '" + (dir / "a.img") + "' +nran 1";
  // A cursor-moving terminal gets one self-updating line; a dumb one plain lines. Any line before
  // the end estimates the time left.
  for (std::string env : {"TERM=xterm", "TERM=dumb", "-u TERM"}) {
    const RunResult r = Shell("env " + env + " script -qec \"" + cmd + "\" /dev/null");
    const bool xterm = env == "TERM=xterm";
    EXPECT_TRUE(r.status == 0 && r.out.find("zvcompute: block ") != std::string::npos) << env << r.out;
    EXPECT_TRUE((r.out.find("\r\033[K") != std::string::npos) == xterm && (r.out.find('\033') == std::string::npos) != xterm) << env;
    std::smatch m;
    for (std::string rest = r.out; std::regex_search(rest, m, std::regex(R"(\d+%[^\r\n\x1b]*)")); rest = m.suffix())
      EXPECT_EQ(m.str().find(" left") != std::string::npos, m.str().find("100%") != 0) << m.str();
  }
  RunResult r = RunTool({dir / "p.img", "=", dir / "a.img", "+nran", "1"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, "");
}

}  // namespace
