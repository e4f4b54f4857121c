// The command line end to end: forms, lookup, operand checks, broadcasting, options, and what is
// left on disk after success and failure.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>

#include "support.h"
#include "platform/core/types.h"

namespace {

const char *kUsage =
    "usage: zvcompute: <file> <op>\n"
    "usage: zvcompute: <file> <op> (<file>|<number>)\n"
    "usage: zvcompute: <file> = <op> <file>\n"
    "usage: zvcompute: <file> = <file> <op> (<file>|<number>)\n";

class Driver : public testing::Test {
 protected:
  TempDir dir;
  std::string P(const std::string &n) { return dir / n; }
  void Real32(const std::string &name, std::vector<uint64_t> dims, std::vector<float> v, uint32_t attr = 0) {
    WriteImage(P(name), TypeReal32, dims, v, attr);
  }
  std::vector<float> ReadReal32(const std::string &name) {
    TestImage img = ReadImage(P(name));
    EXPECT_EQ(img.type, TypeReal32);
    return img.as<float>();
  }
  // Runs and expects failure with one error line containing text, and no destination left.
  void ExpectError(const std::vector<std::string> &args, const std::string &text) {
    RunResult r = RunTool(args);
    EXPECT_EQ(r.status, 1) << r.err;
    EXPECT_NE(r.err.find(text), std::string::npos) << "stderr: " << r.err;
    EXPECT_EQ(r.err.rfind("zvcompute: ", 0), 0u) << r.err;
  }
};

TEST_F(Driver, FourFormsComputeAndExitZero) {
  Real32("a.img", {2}, {1.5f, -2.0f});
  WriteImage(P("b.img"), TypeInt16, {2}, std::vector<int16_t>{3, 4});
  RunResult r = RunTool({P("sum.img"), "=", P("a.img"), "+", P("b.img")});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(ReadReal32("sum.img"), (std::vector<float>{4.5f, 2.0f}));

  r = RunTool({P("copy.img"), "=", "+", P("b.img")});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(ReadReal32("copy.img"), (std::vector<float>{3.0f, 4.0f}));

  r = RunTool({P("a.img"), "+", "2.5"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(ReadReal32("a.img"), (std::vector<float>{4.0f, 0.5f}));

  r = RunTool({P("a.img"), "+"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(ReadReal32("a.img"), (std::vector<float>{4.0f, 0.5f}));
}

TEST_F(Driver, MalformedCommandsPrintTheFourUsageLines) {
  Real32("a.img", {1}, {1});
  for (auto args : std::vector<std::vector<std::string>>{
           {P("a.img")}, {P("o.img"), "=", P("a.img"), "+", "1", "2"}, {P("o.img"), "==", "+", P("a.img")},
           {P("o.img"), "x", P("a.img"), "+", "1"}}) {
    RunResult r = RunTool(args);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, kUsage);
  }
  EXPECT_EQ(ListDir(dir.path), std::vector<std::string>{"a.img"});
}

TEST_F(Driver, LookupAndMissingForms) {
  Real32("a.img", {1}, {1});
  ExpectError({P("o.img"), "=", P("missing.img"), "frobnicate", "1"}, "unknown operation");
  ExpectError({P("a.img"), "re"}, "invalid call: 're' has no in-place form");
  ExpectError({P("o.img"), "=", P("a.img"), "-mean", "2"}, "invalid call");
  ExpectError({P("o.img"), "=", "min", P("a.img")}, "invalid call: 'min' has no one-operand form");
  ExpectError({P("o.img"), "=", P("a.img"), "real32", "2"}, "invalid call: 'real32' has no two-operand form");
  // A type name is a conversion, searched before the table.
  WriteImage(P("i.img"), TypeInt32, {3}, std::vector<int32_t>{-5, 70000, 16777217});
  RunResult r = RunTool({P("o.img"), "=", "int16", P("i.img")});
  ASSERT_EQ(r.status, 0) << r.err;
  TestImage o = ReadImage(P("o.img"));
  EXPECT_EQ(o.type, TypeInt16);
  EXPECT_EQ(o.as<int16_t>(), (std::vector<int16_t>{-5, 32767, 32767}));
  EXPECT_FALSE(FileExists(P("o2.img")));
}

TEST_F(Driver, ErrorsNameTheFileAndTheReason) {
  RunResult r = RunTool({P("o.img"), "=", P("nope.img"), "+", "1"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find(P("nope.img")), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("No such file or directory"), std::string::npos) << r.err;
  EXPECT_FALSE(FileExists(P("o.img")));
}

TEST_F(Driver, OperandChecks) {
  Real32("a3.img", {4, 4, 3}, std::vector<float>(48, 1));
  Real32("b2.img", {4, 4}, std::vector<float>(16, 2));
  Real32("c2.img", {4, 2}, std::vector<float>(8, 2));
  Real32("f2.img", {4, 4}, std::vector<float>(16, 2), 2);
  Real32("d4.img", {4, 4, 2, 5}, std::vector<float>(160, 3));
  ExpectError({P("o.img"), "=", P("a3.img"), "+", P("b2.img")}, "incompatible image: " + P("b2.img"));
  ExpectError({P("o.img"), "=", P("b2.img"), "+", P("f2.img")}, "incompatible image");
  ExpectError({P("o.img"), "=", P("d4.img"), "+", P("b2.img")}, "array size mismatch, file " + P("d4.img"));
  ExpectError({P("o.img"), "=", P("b2.img"), "+", P("c2.img")}, "array size mismatch, file " + P("c2.img"));
  ExpectError({P("b2.img"), "+", P("d4.img")}, "invalid number of dimensions");
  ExpectError({P("b2.img"), "+", P("d4.img")}, P("d4.img"));
  WriteImage(P("s.img"), TypeInt16, {2}, std::vector<int16_t>{1, 2});
  WriteImage(P("t.img"), TypeInt32, {2}, std::vector<int32_t>{1, 2});
  ExpectError({P("o.img"), "=", P("s.img"), "and", P("t.img")}, "invalid data type, file " + P("t.img"));
  // The int16 parser stops at the point, so 2.5 is taken as a file name.
  ExpectError({P("s.img"), "and", "2.5"}, ": 2.5: No such file or directory");
  ExpectError({P("b2.img"), "lt", "1"}, "invalid data type: " + P("b2.img"));
  WriteImage(P("im.img"), TypeImag32, {2}, std::vector<float>{1, 2});
  ExpectError({P("im.img"), "*", "2"}, "invalid inplace operation");
  ExpectError({P("o.img"), "=", P("a3.img"), "abs2", P("a3.img")}, "invalid call");
  EXPECT_FALSE(FileExists(P("o.img")));
}

TEST_F(Driver, SecondOperandIsANumberWhenItParsesCompletely) {
  Real32("a.img", {2}, {1, 2});
  Real32("10", {2}, {100, 200});
  RunResult r = RunTool({"o.img", "=", "a.img", "+", "10"}, {}, dir.path);
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(ReadReal32("o.img"), (std::vector<float>{11, 12}));
  r = RunTool({"o.img", "=", "a.img", "+", "-3"}, {}, dir.path);
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(ReadReal32("o.img"), (std::vector<float>{-2, -1}));
}

TEST_F(Driver, BroadcastsASmallerOperandOverAFourAxisImage) {
  std::vector<float> big(4 * 3 * 1 * 5), small(12);
  for (size_t i = 0; i < big.size(); ++i) big[i] = float(i);
  for (size_t i = 0; i < small.size(); ++i) small[i] = float(1000 * (i + 1));
  Real32("big.img", {4, 3, 1, 5}, big);
  Real32("small.img", {4, 3}, small);
  std::vector<float> want(big.size()), want_rev(big.size());
  for (size_t i = 0; i < big.size(); ++i) {
    want[i] = big[i] - small[i % 12];
    want_rev[i] = small[i % 12] - big[i];
  }
  RunResult r = RunTool({P("o1.img"), "=", P("big.img"), "-", P("small.img")});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(ReadReal32("o1.img"), want);
  r = RunTool({P("o2.img"), "=", P("small.img"), "-", P("big.img")});
  ASSERT_EQ(r.status, 0) << r.err;
  TestImage o2 = ReadImage(P("o2.img"));
  EXPECT_EQ(o2.dims, (std::vector<uint64_t>{4, 3, 1, 5}));
  EXPECT_EQ(o2.as<float>(), want_rev);
  r = RunTool({P("big.img"), "-", P("small.img")});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(ReadReal32("big.img"), want);
  ExpectError({P("small.img"), "-", P("big.img")}, "invalid number of dimensions");
  ExpectError({P("small.img"), "-", P("big.img")}, P("big.img"));
}

TEST_F(Driver, SeedFromCommandLineAndEnvironment) {
  Real32("a.img", {64}, std::vector<float>(64, 0));
  auto noise = [&](std::vector<std::string> opts, std::vector<std::string> env) {
    std::vector<std::string> args = opts;
    for (auto s : {P("o.img"), std::string("="), P("a.img"), std::string("+uran"), std::string("1")}) args.push_back(s);
    RunResult r = RunTool(args, env);
    EXPECT_EQ(r.status, 0) << r.err;
    // The data only: the header's history line carries the time of the run.
    return ReadImage(P("o.img")).data;
  };
  auto def = noise({}, {}), d123 = noise({"-seed", "123"}, {}), s5 = noise({"-seed", "5"}, {});
  EXPECT_EQ(def, d123);
  EXPECT_NE(def, s5);
  EXPECT_EQ(noise({"-seed", "4294967301"}, {}), s5);
  EXPECT_EQ(noise({}, {"zvcompute_seed=5"}), s5);
  EXPECT_EQ(noise({}, {"zv_seed=5"}), s5);
  EXPECT_EQ(noise({}, {"zvcompute_seed=5", "zv_seed=7"}), s5);
  EXPECT_EQ(noise({"-seed", "123"}, {"zvcompute_seed=5"}), def);
}

TEST_F(Driver, OptionErrorsPrintTheOptionUsage) {
  Real32("a.img", {1}, {1});
  RunResult r = RunTool({"-seed", "-h"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("zvcompute: invalid number of option values -seed\n"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("usage: zvcompute [-h] [-seed <i>]\n"), std::string::npos) << r.err;
  EXPECT_EQ(r.err.find("<file> <op>"), std::string::npos);
  r = RunTool({"-seed", "12x", P("a.img"), "+"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("illegal option value -seed"), std::string::npos) << r.err;
  r = RunTool({"-fmt", "tif", P("o.img"), "=", "+", P("a.img")});
  EXPECT_EQ(r.status, 1);
  EXPECT_FALSE(FileExists(P("o.img")));
}

TEST_F(Driver, ConversionsSaturateThroughFiles) {
  float nan = std::numeric_limits<float>::quiet_NaN();
  Real32("a.img", {6}, {300.5f, -0.7f, nan, -128.9f, 127.9f, 2.7f});
  RunResult r = RunTool({P("b.img"), "=", "byte", P("a.img")});
  ASSERT_EQ(r.status, 0) << r.err;
  TestImage b = ReadImage(P("b.img"));
  EXPECT_EQ(b.type, TypeUint8);
  EXPECT_EQ(b.as<uint8_t>(), (std::vector<uint8_t>{255, 0, 0, 0, 127, 2}));
  r = RunTool({P("c.img"), "=", "int8", P("a.img")});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(ReadImage(P("c.img")).as<int8_t>(), (std::vector<int8_t>{127, 0, -128, -128, 127, 2}));
  r = RunTool({P("d.img"), "=", "complex", P("c.img")});
  ASSERT_EQ(r.status, 0) << r.err;
  TestImage d = ReadImage(P("d.img"));
  EXPECT_EQ(d.type, TypeCmplx32);
  EXPECT_EQ(d.as<float>(), (std::vector<float>{127, 0, 0, 0, -128, 0, -128, 0, 127, 0, 2, 0}));
}

TEST_F(Driver, HermitianAttributeOnlyOnComplexResults) {
  WriteImage(P("f.img"), TypeCmplx32, {2}, std::vector<float>{1, 2, 3, 4}, 2);
  ASSERT_EQ(RunTool({"-h", P("c.img"), "=", P("f.img"), "*", "2"}).status, 0);
  EXPECT_EQ(ReadImage(P("c.img")).attr, 2u | 8u);
  ASSERT_EQ(RunTool({"-h", P("r.img"), "=", "abs", P("f.img")}).status, 0);
  EXPECT_EQ(ReadImage(P("r.img")).attr, 2u);
  ASSERT_EQ(RunTool({P("n.img"), "=", P("f.img"), "*", "2"}).status, 0);
  EXPECT_EQ(ReadImage(P("n.img")).attr, 2u);
}

TEST_F(Driver, FailedRunLeavesNothingAndKeepsAnExistingFile) {
  WriteImage(P("c.img"), TypeCmplx32, {2}, std::vector<float>{1, 2, 3, 4});
  ExpectError({P("o.img"), "=", P("c.img"), "+uran", "1"}, "invalid data type for operation (cmplx32)");
  EXPECT_EQ(ListDir(dir.path), std::vector<std::string>{"c.img"});
  Real32("keep.img", {1}, {42});
  std::string before = ReadFileBytes(P("keep.img"));
  ExpectError({P("keep.img"), "=", P("c.img"), "+uran", "1"}, "cmplx32");
  EXPECT_EQ(ReadFileBytes(P("keep.img")), before);
  EXPECT_EQ(ListDir(dir.path), (std::vector<std::string>{"c.img", "keep.img"}));
}

TEST_F(Driver, DestinationMayBeAnOperand) {
  Real32("a.img", {3}, {1, 2, 3});
  ASSERT_EQ(RunTool({P("a.img"), "=", P("a.img"), "+", P("a.img")}).status, 0);
  EXPECT_EQ(ReadReal32("a.img"), (std::vector<float>{2, 4, 6}));
  ASSERT_EQ(RunTool({P("a.img"), "=", P("a.img"), "*", "2"}).status, 0);
  EXPECT_EQ(ReadReal32("a.img"), (std::vector<float>{4, 8, 12}));
  EXPECT_EQ(ListDir(dir.path), std::vector<std::string>{"a.img"});
}

TEST_F(Driver, EmptyImageCreatesAnEmptyDestination) {
  Real32("e.img", {5, 0}, {});
  RunResult r = RunTool({P("o.img"), "=", P("e.img"), "+", "1"});
  ASSERT_EQ(r.status, 0) << r.err;
  TestImage o = ReadImage(P("o.img"));
  EXPECT_EQ(o.dims, (std::vector<uint64_t>{5, 0}));
}

TEST_F(Driver, StatisticsArePerBlockOfTwoToThe24Elements) {
  const size_t n = 16777217;
  std::vector<float> v(n);
  for (size_t i = 0; i < n; ++i) v[i] = float(i % 7);
  Real32("a.img", {n}, v);
  RunResult r = RunTool({P("m.img"), "=", "-mean", P("a.img")});
  ASSERT_EQ(r.status, 0) << r.err;
  std::vector<float> m = ReadReal32("m.img");
  ASSERT_EQ(m.size(), n);
  EXPECT_EQ(m[n - 1], 0.0f);  // the last element is a block of its own
  double mean = 0;
  for (size_t i = 0; i + 1 < n; ++i) mean += v[i];
  mean /= double(n - 1);
  EXPECT_NEAR(m[0], -mean, 1e-5);
  r = RunTool({P("a.img"), "/rms"});
  ASSERT_EQ(r.status, 0) << r.err;
  std::vector<float> s = ReadReal32("a.img");
  EXPECT_EQ(s[n - 1], v[n - 1] == 0 ? 0.0f : 1.0f);
}

}  // namespace
