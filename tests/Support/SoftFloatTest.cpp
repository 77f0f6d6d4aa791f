// The soft-float formats: hand-worked conversion rows for the hardware's
// documented choices (flushing, NaNs, overflow, the float32 to fp16 ties) and
// fp24ToInt over every fp24 pattern against libm. The sweeps against a
// multiple-precision oracle (every fp16/bf16 pattern in every direction, fp24
// addition and multiplication over every pair of edge operands - zeros,
// subnormals, infinities, NaNs - and random ones, int32 to fp24) live in
// tests/oracle and own every other case.
#include <gtest/gtest.h>

#include <cmath>

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
      {0x3f801000, kFloat32, kFp16, 0x3c00, 0x3c00, 0x3c01, 0x3c00, "1 + 2^-11: a tie goes to the even 1.0"},
      {0x477ff000, kFloat32, kFp16, 0x7c00, 0x7bff, 0x7c00, 0x7bff, "65520 ties up to 65536: infinity"},
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
