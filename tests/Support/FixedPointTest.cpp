// Fixed-point primitives against obvious wide computations on boundary and
// seeded random values, and the float roundings against libm.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <random>
#include <vector>

#include "kora/Support/FixedPoint.h"

using namespace kora::fixed;

namespace {
int64_t floorDiv(int64_t a, int64_t b) { return a / b - ((a % b != 0) && ((a < 0) != (b < 0))); }
}  // namespace

TEST(FixedPoint, WrappingShiftsAndRoundingAgainstWideArithmetic) {
  EXPECT_EQ(shiftLeftWrap<int8_t>(0x41, 1), int8_t(0x82));
  struct Case { int64_t value; int n; int64_t floored, rounded; };
  const Case cases[] = {{-6, 2, -2, -1}, {-7, 2, -2, -2}, {7, 0, 7, 7}, {-1, 63, -1, 0}, {INT64_MIN, 63, -1, -1},
                        {-5, -8, -1280, -1280}, {int64_t(1) << 62, -1, INT64_MIN, INT64_MIN}};  // bits leave the top
  for (const Case& c : cases) {
    EXPECT_EQ(shiftRightOrLeft(c.value, c.n), c.floored) << c.value << " by " << c.n;
    if (c.n < 0) continue;
    EXPECT_EQ(shiftRightArithmetic(c.value, unsigned(c.n)), c.floored) << c.value << " >> " << c.n;
    EXPECT_EQ(roundingShiftRight(c.value, unsigned(c.n)), c.rounded) << c.value << " >>~ " << c.n;
  }
  std::mt19937_64 rng(3);
  for (int i = 0; i < 100000; ++i) {
    const int32_t a = int32_t(rng()), b = int32_t(rng());
    ASSERT_EQ(wrapAdd32(a, b), int32_t(uint32_t(uint64_t(int64_t(a) + b))));
    ASSERT_EQ(wrapMul(a, b), int32_t(uint32_t(uint64_t(int64_t(a) * b))));
    const int64_t v = int64_t(rng()) >> 20;
    const unsigned n = unsigned(rng() % 30) + 1;
    ASSERT_EQ(shiftRightArithmetic(v, n), floorDiv(v, int64_t(1) << n));
    ASSERT_EQ(roundingShiftRight(v, n), floorDiv(v + (int64_t(1) << (n - 1)), int64_t(1) << n));
    const int64_t w = int64_t(rng()) >> 24;
    const int m = int(rng() % 41) - 20;
    ASSERT_EQ(shiftRightOrLeft(w, m), m >= 0 ? floorDiv(w, int64_t(1) << m) : w * (int64_t(1) << -m)) << w << " by " << m;
  }
  EXPECT_EQ(shiftRightLogical32(0x80000000u, 32), 0x80000000u) << "the amount is taken modulo 32";
  EXPECT_EQ(shiftRightLogical32(0xffffffffu, 36), 0x0fffffffu);
}

TEST(FixedPoint, SaturationBitFieldsAndRegisterWidths) {
  EXPECT_EQ(saturate<int8_t>(int64_t(-200)), -128);
  EXPECT_EQ(saturate<uint8_t>(int32_t(-1)), 0);
  EXPECT_EQ(saturate<int32_t>(uint64_t(1) << 40), INT32_MAX);
  EXPECT_EQ(bitMask(63, 0), ~uint64_t(0));
  uint64_t word = insertBits(0, 46, 32, 0x1ffff);  // masked to 15 bits
  EXPECT_EQ(word, 0x7fffull << 32);
  word = insertBits(word, 31, 0, uint64_t(int64_t(-2)));
  EXPECT_EQ(extractBits(word, 31, 0), 0xfffffffeull);
  EXPECT_EQ(extractBits(word, 46, 32), 0x7fffu);
  const std::pair<uint64_t, unsigned> fields[] = {{63, 6}, {47, 6}, {22, 6}, {0x8000, 16}, {0x10000, 17}};
  const int64_t extended[] = {-1, -17, 22, -32768, -65536};
  for (size_t i = 0; i < std::size(fields); ++i) EXPECT_EQ(signExtend(fields[i].first, fields[i].second), extended[i]);
  EXPECT_EQ(divideOrZero<uint32_t>(7, 0), 0u);
  EXPECT_EQ(truncateToInt32(int64_t(INT32_MAX) + 1), INT32_MIN);
  // Division by zero and the wrapping -min / -1 (every 8-bit pair goes
  // through the Div and Mod kernels' tests).
  EXPECT_EQ(divideTowardZero<int64_t>(INT64_MIN, -1), INT64_MIN);
  EXPECT_EQ(remainderTowardZero<int64_t>(INT64_MIN, -1), 0);
  EXPECT_EQ(remainderTowardZero<int32_t>(-7, 0), -7);
}

TEST(FixedPoint, RoundHalfAwayThenSaturate) {
  struct Case { double x; int32_t rounded; };
  const Case cases[] = {{1.4999999999999998, 1}, {0.49999999999999994, 0}, {-0.0, 0}, {2147483647.4, INT32_MAX},
                        {1e300, INT32_MAX}, {-2147483648.6, INT32_MIN}, {-INFINITY, INT32_MIN}};
  for (const Case& c : cases) EXPECT_EQ(roundHalfAwaySaturate<int32_t>(c.x), c.rounded) << c.x;
  std::mt19937_64 rng(9);
  for (int i = 0; i < 100000; ++i) {  // halves and quarters against integer arithmetic
    const int64_t quarters = int64_t(rng() % 4000001) - 2000000;
    const int64_t magnitude = ((quarters < 0 ? -quarters : quarters) + 2) / 4;  // ties away from zero
    ASSERT_EQ(roundHalfAwaySaturate<int32_t>(double(quarters) / 4), quarters < 0 ? -magnitude : magnitude);
  }
}

TEST(FixedPoint, FloatRoundingMatchesTheLibm) {
  // nearbyint in round-to-nearest mode and floor are the reference; the
  // clamped forms equal rounding, then NaN to 0 and saturation in int64,
  // then the clamp. Values: every 997th bit pattern, and the neighbourhoods
  // of the integers and ties around 0, 2^22, 2^23 and 2^24.
  std::vector<float> values;
  for (uint64_t bits = 0; bits <= 0xffffffffu; bits += 997) values.push_back(std::bit_cast<float>(uint32_t(bits)));
  for (float center : {0.0f, 0x1p22f, 0x1p23f, 0x1p24f, 127.5f, 32767.5f, -0x1p22f, -0x1p23f, -0x1p24f, -127.5f, -32767.5f}) {
    float v = center;
    for (int i = 0; i < 600; ++i) v = std::nextafter(v, -INFINITY);
    for (int i = 0; i < 1200; ++i, v = std::nextafter(v, INFINITY)) values.push_back(v);
  }
  for (int k = -300; k <= 300; ++k) values.push_back(float(k) + 0.5f);
  values.insert(values.end(), {INFINITY, -INFINITY, NAN});
  const std::pair<int64_t, int64_t> ranges[] = {{-128, 127}, {-127, 127}, {0, 255}, {1, 255}, {-32768, 32767}, {1, 65535}};
  auto reference = [](double rounded, int64_t lo, int64_t hi) {
    const int64_t q = std::isnan(rounded) ? 0 : rounded >= 0x1p63 ? INT64_MAX : rounded < -0x1p63 ? INT64_MIN : int64_t(rounded);
    return std::clamp(q, lo, hi);
  };
  for (size_t i = 0; i < values.size(); ++i) {
    const float v = values[i], even = roundHalfToEven(v), down = floorIntegral(v);
    if (std::isnan(v)) {
      ASSERT_TRUE(std::isnan(even) && std::isnan(down)) << v;
    } else {
      ASSERT_EQ(std::bit_cast<uint32_t>(even), std::bit_cast<uint32_t>(std::nearbyint(v))) << v;
      ASSERT_EQ(std::bit_cast<uint32_t>(down), std::bit_cast<uint32_t>(std::floor(v))) << v;
    }
    if (i % 3) continue;
    for (auto [lo, hi] : ranges) {
      ASSERT_EQ(roundHalfToEvenClamped(v, float(lo), float(hi)), reference(std::nearbyint(v), lo, hi)) << v;
      ASSERT_EQ(floorClamped(v, float(lo), float(hi)), reference(std::floor(v), lo, hi)) << v;
    }
  }
  const float belowTwo63 = std::bit_cast<float>(0x5effffffu);  // 2^63 - 2^39
  const std::pair<float, int64_t> int64Cases[] = {{-NAN, 0}, {INFINITY, INT64_MAX}, {0x1p63f, INT64_MAX}, {-0x1p64f, INT64_MIN},
                                                  {belowTwo63, int64_t(9223371487098961920)}, {-2.75f, -2}, {16777217.0f, 16777216}};
  for (auto [value, expected] : int64Cases) EXPECT_EQ(saturatingFloatToInt64(value), expected) << value;
}
