// The soft-float formats: hand-worked rows for the hardware's documented
// choices (flushing, NaNs, overflow, the float32 to fp16 ties), every fp24
// pattern against a decoding by ldexp, and fp24ToInt over every fp24 pattern
// against libm. The sweeps against a multiple-precision oracle (every
// fp16/bf16 pattern in every direction, fp24 arithmetic with constructed
// ties, int32 to fp24) live in tests/oracle and own the other ties.
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "kora/Support/SoftFloat.h"

using namespace kora;
using namespace kora::softfloat;

namespace {

constexpr FloatRounding N = FloatRounding::NearestEven, Z = FloatRounding::TowardZero, U = FloatRounding::Upward,
                        D = FloatRounding::Downward;
constexpr FloatRounding kModes[] = {N, Z, U, D};

#if defined(__SANITIZE_ADDRESS__)
constexpr uint32_t kStep = 61;  // instrumented builds sample the fp24 sweeps
#else
constexpr uint32_t kStep = 1;
#endif

}  // namespace

TEST(SoftFloat, ConversionsKeepTheHardwaresRules) {
  struct Case { uint32_t in; FloatFormat from, to; uint32_t nearest, towardZero, upward, downward; const char* what; };
  const Case cases[] = {
      {0x0001, kFp16, kFloat32, 0, 0, 0, 0, "a subnormal operand reads as zero"},
      {0x83ff, kFp16, kFloat32, 0x80000000, 0x80000000, 0x80000000, 0x80000000, "... of its sign"},
      {0xfe00, kFp16, kFloat32, 0xff800000, 0xff800000, 0xff800000, 0xff800000, "NaN keeps sign and exponent"},
      {0x3f801000, kFloat32, kFp16, 0x3c00, 0x3c00, 0x3c01, 0x3c00, "1 + 2^-11: a tie goes to the even 1.0"},
      {0xbf803000, kFloat32, kFp16, 0xbc02, 0xbc01, 0xbc01, 0xbc02, "-(1 + 3 * 2^-11): tie to the even -(1 + 2^-9)"},
      {0x477fef00, kFloat32, kFp16, 0x7bff, 0x7bff, 0x7c00, 0x7bff, "65519: only upward overflows"},
      {0x477ff000, kFloat32, kFp16, 0x7c00, 0x7bff, 0x7c00, 0x7bff, "65520 ties up to 65536: infinity"},
      {0xc788b800, kFloat32, kFp16, 0xfc00, 0xfc00, 0xfc00, 0xfc00, "-70000 is -infinity in every direction"},
      {0x38000000, kFloat32, kFp16, 0, 0, 0, 0, "2^-15 is flushed, even upward"},
      {0xb87ff000, kFloat32, kFp16, 0x8400, 0x8000, 0x8000, 0x8400, "rounding to the smallest normal is not flushed"},
      {0xbf8000ff, kFloat32, kFp24, 0xbf8000, 0xbf8000, 0xbf8000, 0xbf8000, "float32 to fp24 truncates always"},
      {0x000001, kFp24, kFloat32, 0x100, 0x100, 0x100, 0x100, "fp24 to float32 keeps a subnormal pattern"},
      {0x000001, kFp24, kFp24, 0, 0, 0, 0, "... which a rounding conversion flushes"},
  };
  for (const Case& c : cases) {
    const uint32_t expected[] = {c.nearest, c.towardZero, c.upward, c.downward};
    for (int m = 0; m < 4; ++m) EXPECT_EQ(convert(c.in, c.from, c.to, kModes[m]), expected[m]) << c.what << ", mode " << m;
  }
}

TEST(SoftFloat, EveryFp24PatternWidensExactlyAndCutsBack) {
  for (uint32_t p = 0; p < (1u << 24); ++p) {
    const float f = f24ToF32(p);
    ASSERT_EQ(float32ToFp24(f), p);
    const int e = int(p >> 15 & 0xff), fraction = int(p & 0x7fff);
    const double sign = (p >> 23) ? -1.0 : 1.0;
    if (e == 255 && fraction) {
      ASSERT_TRUE(std::isnan(f));
      continue;
    }
    const double expected = e == 255 ? sign * INFINITY
                            : e == 0 ? sign * std::ldexp(fraction, -141)
                                     : sign * std::ldexp(fraction + 32768, e - 142);
    ASSERT_EQ(double(f), expected) << std::hex << p;
  }
  std::mt19937 rng(2);
  for (int i = 0; i < 100000; ++i) {  // cutting a float32 clears its low 8 bits
    const uint32_t bits = uint32_t(rng());
    ASSERT_EQ(std::bit_cast<uint32_t>(f24ToF32(float32ToFp24(bits))), bits & 0xffffff00u);
  }
}

TEST(SoftFloat, Fp24ArithmeticKeepsTheHardwaresRules) {
  enum Op { Add, Mul };
  struct Case { Op op; uint32_t a, b, expected; const char* what; };
  const Case cases[] = {
      {Mul, 0xff0000, 0x400000, 0xff8000, "-2^127 * 2 overflows to -infinity"},
      {Mul, 0x808000, 0x3f0000, 0x800000, "-2^-126 * 0.5 is flushed to -0"},
      {Mul, 0x3f8000, 0x004000, 0x000000, "a subnormal operand reads as zero"},
      {Mul, 0x000001, 0xff8000, 0x7fc000, "0 * infinity is the default NaN"},
      {Mul, 0x7fa000, 0x3f8000, 0x7fe000, "a signalling NaN comes out quiet, payload kept"},
      {Mul, 0x3f8000, 0xffc123, 0xffc123, "a NaN keeps its sign"},
      {Mul, 0x7f8001, 0xff8002, 0x7fc001, "of two NaNs the first wins"},
      {Add, 0x3fc000, 0xbfc000, 0x000000, "x - x = +0"},
      {Add, 0x800000, 0x800000, 0x800000, "-0 + -0 = -0"},
      {Add, 0x800001, 0x000000, 0x000000, "a negative subnormal reads as -0, and -0 + 0 = +0"},
      {Add, 0x808001, 0x008000, 0x800000, "a difference below 2^-126 is flushed to a zero of its sign"},
      {Add, 0x7f8000, 0xff8000, 0x7fc000, "infinity - infinity is the default NaN"},
      {Add, 0x3f8000, 0x7f8123, 0x7fc123, "NaN + 1"},
  };
  for (const Case& c : cases) EXPECT_EQ(c.op == Add ? fp24Add(c.a, c.b) : fp24Mul(c.a, c.b), c.expected) << std::hex << c.what;
}

TEST(SoftFloat, Fp24ToIntAgainstLibmForEveryPattern) {
  // libm rounds the exact double in each direction (nearbyint in the default
  // mode ties to even); NaN gives 0, a zero exponent reads as zero, and the
  // result saturates to the range.
  const std::pair<int64_t, int64_t> ranges[] = {{-128, 127}, {0, 255}, {INT32_MIN, INT32_MAX}, {INT64_MIN, INT64_MAX}};
  double (*const libm[])(double) = {::nearbyint, ::trunc, ::ceil, ::floor};
  for (int m = 0; m < 4; ++m) {
    for (uint32_t p = 0; p < (1u << 24); p += kStep) {
      const double r = libm[m]((p >> 15 & 0xff) == 0 ? 0.0 : double(f24ToF32(p)));
      for (auto [lo, hi] : ranges) {
        const int64_t expected = std::isnan(r) ? 0 : r <= double(lo) ? lo : r >= 0x1p63 || r >= double(hi) ? hi : int64_t(r);
        ASSERT_EQ(fp24ToInt(p, lo, hi, kModes[m]), expected) << std::hex << p << " mode " << m << " range " << lo;
      }
    }
  }
}

TEST(SoftFloat, TracePrintsThePatternAndItsReading) {
  const std::pair<uint32_t, const char*> cases[] = {
      {0x3fc000, "0x3fc000(1.5)"}, {0x800000, "0x800000(-0)"}, {0x478000, "0x478000(65536)"}, {0x000001, "0x000001(3.59e-43)"}};
  for (auto [bits, text] : cases) EXPECT_EQ(fmt::format("{}", Fp24Reading{bits}), text);
}
