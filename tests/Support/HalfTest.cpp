// The binary16 / bfloat16 conversions against independent computations:
// decoding by ldexp, rounding by searching the nearest representable value
// in double precision, and the FPU's own double -> float rounding.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstring>
#include <random>

#include "kora/Kora.h"

using namespace kora;

namespace {

// Value of a binary16 pattern, from its fields by ldexp.
double decodeHalf(uint16_t h) {
  const int exponent = (h >> 10) & 31, fraction = h & 1023;
  const double sign = (h & 0x8000) ? -1.0 : 1.0;
  if (exponent == 0) return sign * std::ldexp(fraction, -24);
  if (exponent == 31) return fraction ? NAN : sign * INFINITY;
  return sign * std::ldexp(1024 + fraction, exponent - 25);
}

// Nearest binary16 by search over the finite positive patterns (ties to the
// even pattern), with overflow to infinity past 65520.
uint16_t nearestHalf(double x) {
  const uint16_t sign = std::signbit(x) ? 0x8000 : 0;
  const double a = std::fabs(x);
  if (a >= 65520.0) return sign | 0x7c00;
  uint16_t lo = 0, hi = 0x7bff;
  while (lo < hi) {  // largest pattern whose value is <= a
    const uint16_t mid = uint16_t((lo + hi + 1) / 2);
    if (decodeHalf(mid) <= a) lo = mid; else hi = uint16_t(mid - 1);
  }
  if (lo == 0x7bff) return sign | lo;
  const double below = decodeHalf(lo), above = decodeHalf(uint16_t(lo + 1));
  if (a - below != above - a) return sign | (a - below < above - a ? lo : uint16_t(lo + 1));
  return sign | ((lo & 1) ? uint16_t(lo + 1) : lo);
}

}  // namespace

TEST(Half, EveryPatternWidensExactlyAndNarrowsBackAndEveryTieRoundsToEven) {
  for (uint32_t h = 0; h < 65536; ++h) {
    const float f = halfBitsToFloat(uint16_t(h)), b = bf16BitsToFloat(uint16_t(h));
    const double expected = decodeHalf(uint16_t(h));
    ASSERT_EQ(std::bit_cast<uint32_t>(b), h << 16);
    ASSERT_TRUE(std::isnan(b) || floatToBf16Bits(b) == h) << h;
    if (std::isnan(expected)) {
      ASSERT_TRUE(std::isnan(f)) << h;
      ASSERT_EQ(std::bit_cast<uint32_t>(f) & 0x3ff, 0u) << "payload moves to the top bits";
      ASSERT_EQ(floatToHalfBits(f), h | 0x200) << "NaN stays NaN, made quiet";
      continue;
    }
    ASSERT_EQ(double(f), expected) << h;
    ASSERT_EQ(std::signbit(f), bool(h & 0x8000)) << h;
    ASSERT_EQ(floatToHalfBits(f), h);
    if (h >= 0x7c00) continue;
    // The midpoint to the next finite half (a tie) and the floats either side.
    const double hi = h == 0x7bff ? 65536.0 : decodeHalf(uint16_t(h + 1));
    const float mid = float((expected + hi) / 2);  // exact in binary32
    for (float x : {mid, std::nextafter(mid, 0.f), std::nextafter(mid, INFINITY)}) {
      ASSERT_EQ(floatToHalfBits(x), nearestHalf(x)) << x;
      ASSERT_EQ(floatToHalfBits(-x), nearestHalf(-x)) << -x;
      ASSERT_EQ(doubleToHalfBits(double(x)), nearestHalf(x)) << x;
    }
  }
  for (float x : {INFINITY, -INFINITY, 65519.996f, 65520.f, -0.f, 1e-30f}) EXPECT_EQ(floatToHalfBits(x), nearestHalf(x)) << x;
  // bfloat16 (its ties and NaNs are cast rows in TensorTest): a carry into
  // the exponent, overflow to infinity.
  EXPECT_EQ(floatToBf16Bits(std::bit_cast<float>(0x3fffffffu)), 0x4000);
  EXPECT_EQ(floatToBf16Bits(std::bit_cast<float>(0x7f7fffffu)), 0x7f80);
}

TEST(FloatFormat, BinaryThirtyTwoRoundingMatchesTheHardware) {
  // The integer rounding path against the FPU's double -> float conversion.
  std::mt19937_64 rng(7);
  for (int i = 0; i < 300000; ++i) {
    const double d = std::bit_cast<double>(uint64_t(rng()));
    const double near = std::ldexp(double(int64_t(rng() >> 11)), int(rng() % 300) - 200);
    ASSERT_TRUE(std::isnan(d) || std::bit_cast<uint32_t>(doubleToFloat(d)) == std::bit_cast<uint32_t>(static_cast<float>(d))) << d;
    ASSERT_EQ(std::bit_cast<uint32_t>(doubleToFloat(near)), std::bit_cast<uint32_t>(static_cast<float>(near)));
  }
}

#if defined(__SANITIZE_ADDRESS__)
constexpr uint64_t kNarrowingStep = 4099;  // instrumented builds sample every 4099th pattern
#else
constexpr uint64_t kNarrowingStep = 1;  // every binary32 pattern
#endif

// The block conversions (F16C where the processor has it) against the
// scalar ones: widening puts every f16 pattern at every position of a group
// of 8, next to NaNs and infinities; narrowing takes every binary32 pattern
// in runs that are not a multiple of 8 (the tail takes the scalar path).
TEST(HalfBlocks, MatchTheScalarConversionsForEveryPattern) {
  std::vector<half> in(65536 + 5);
  for (uint32_t h = 0; h < in.size(); ++h) in[h] = half::fromBits(uint16_t(h * 7919u));
  for (long shift = 0; shift < 8; ++shift) {
    std::vector<float> out(in.size() - shift);
    widenHalves(in.data() + shift, out.data(), long(out.size()));
    for (size_t i = 0; i < out.size(); ++i)
      ASSERT_EQ(std::bit_cast<uint32_t>(out[i]), std::bit_cast<uint32_t>(halfBitsToFloat(in[i + shift].bits)))
          << std::hex << in[i + shift].bits << " (F16C: " << halfConversionsUseF16c() << ")";
  }
  constexpr long kRun = 4096 + 3;
  std::vector<float> wide(kRun);
  std::vector<half> narrow(kRun);
  for (uint64_t next = 0; next < (uint64_t(1) << 32);) {
    long n = 0;
    for (; n < kRun && next < (uint64_t(1) << 32); ++n, next += kNarrowingStep) wide[n] = std::bit_cast<float>(uint32_t(next));
    narrowToHalves(wide.data(), narrow.data(), n);
    for (long i = 0; i < n; ++i)
      if (narrow[i].bits != floatToHalfBits(wide[i]))
        FAIL() << std::hex << std::bit_cast<uint32_t>(wide[i]) << " gives " << narrow[i].bits << " instead of "
               << floatToHalfBits(wide[i]);
  }
}
