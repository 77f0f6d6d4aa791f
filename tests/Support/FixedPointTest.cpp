// Fixed-point primitives against obvious wide computations on boundary and
// seeded random values.
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "kora/Support/FixedPoint.h"

using namespace kora::fixed;

namespace {
int64_t floorDiv(int64_t a, int64_t b) { return a / b - ((a % b != 0) && ((a < 0) != (b < 0))); }
}  // namespace

TEST(FixedPoint, WrappingMatchesModularArithmetic) {
  EXPECT_EQ(wrapAdd32(INT32_MAX, 1), INT32_MIN);
  EXPECT_EQ(wrapSub<int8_t>(-128, 1), 127);
  EXPECT_EQ(wrapMul<int16_t>(300, 300), int16_t(90000 - 65536 * 1));
  EXPECT_EQ(wrapMul<int8_t>(-128, -1), -128);
  std::mt19937_64 rng(3);
  for (int i = 0; i < 100000; ++i) {
    const int32_t a = int32_t(rng()), b = int32_t(rng());
    const int64_t sum = int64_t(a) + b, product = int64_t(a) * b;
    ASSERT_EQ(wrapAdd32(a, b), int32_t(uint32_t(uint64_t(sum))));
    ASSERT_EQ(wrapMul(a, b), int32_t(uint32_t(uint64_t(product))));
  }
}

TEST(FixedPoint, ShiftsFloorAndRoundHalfUp) {
  struct Case {
    int64_t value;
    unsigned n;
    int64_t floored, rounded;
  };
  const Case cases[] = {{3, 1, 1, 2},   {-3, 1, -2, -1}, {5, 2, 1, 1},  {6, 2, 1, 2}, {-6, 2, -2, -1},
                        {-7, 2, -2, -2}, {7, 0, 7, 7},   {-1, 63, -1, 0}, {INT64_MIN, 63, -1, -1}};
  for (const Case& c : cases) {
    EXPECT_EQ(shiftRightArithmetic(c.value, c.n), c.floored) << c.value << " >> " << c.n;
    EXPECT_EQ(roundingShiftRight(c.value, c.n), c.rounded) << c.value << " >>~ " << c.n;
  }
  std::mt19937_64 rng(5);
  for (int i = 0; i < 100000; ++i) {
    const int64_t v = int64_t(rng()) >> 20;
    const unsigned n = unsigned(rng() % 30) + 1;
    ASSERT_EQ(shiftRightArithmetic(v, n), floorDiv(v, int64_t(1) << n));
    ASSERT_EQ(roundingShiftRight(v, n), floorDiv(v + (int64_t(1) << (n - 1)), int64_t(1) << n));
  }
  EXPECT_EQ(shiftLeftWrap<int32_t>(-1, 31), INT32_MIN);
  EXPECT_EQ(shiftLeftWrap<int8_t>(0x41, 1), int8_t(0x82));
}

TEST(FixedPoint, SaturationAtEveryBound) {
  EXPECT_EQ(saturate<int8_t>(int64_t(200)), 127);
  EXPECT_EQ(saturate<int8_t>(int64_t(-200)), -128);
  EXPECT_EQ(saturate<int16_t>(int64_t(-32768)), -32768);
  EXPECT_EQ(saturate<uint8_t>(int32_t(-1)), 0);
  EXPECT_EQ(saturate<uint8_t>(int32_t(256)), 255);
  EXPECT_EQ(saturate<int32_t>(uint64_t(1) << 40), INT32_MAX);
  EXPECT_EQ(saturate<int64_t>(int32_t(-5)), -5);
  EXPECT_EQ(clamp64(40000, -32768, 32767), 32767);
}

TEST(FixedPoint, BitFields) {
  EXPECT_EQ(bitMask(46, 32), 0x7fffull << 32);
  EXPECT_EQ(bitMask(63, 0), ~uint64_t(0));
  uint64_t word = insertBits(0, 46, 32, 0x1ffff);  // masked to 15 bits
  EXPECT_EQ(word, 0x7fffull << 32);
  word = insertBits(word, 31, 0, uint64_t(int64_t(-2)));
  EXPECT_EQ(extractBits(word, 31, 0), 0xfffffffeull);
  EXPECT_EQ(extractBits(word, 46, 32), 0x7fffu);
  EXPECT_EQ(signExtend(63, 6), -1);
  EXPECT_EQ(signExtend(47, 6), -17);
  EXPECT_EQ(signExtend(22, 6), 22);
  EXPECT_EQ(signExtend(0x8000, 16), -32768);
  EXPECT_EQ(signExtend(0x10000, 17), -65536);
}

TEST(FixedPoint, DivisionByZeroGivesZero) {
  EXPECT_EQ(divideOrZero<uint32_t>(7, 0), 0u);
  EXPECT_EQ(divideOrZero<uint32_t>(0xffffffffu, 1), 0xffffffffu);
  EXPECT_EQ(divideOrZero<uint32_t>(48, 8), 6u);
  EXPECT_EQ(divideOrZero<uint32_t>(112, 12), 9u);
  EXPECT_EQ(divideOrZero<uint64_t>(uint64_t(1) << 40, 3), (uint64_t(1) << 40) / 3);
}

TEST(FixedPoint, RoundHalfAwayThenSaturate) {
  struct Case {
    double x;
    int32_t rounded;
  };
  const Case cases[] = {{2.5, 3},        {-2.5, -3},        {1.4999999999999998, 1}, {-0.5, -1},
                        {0.49999999999999994, 0}, {-0.0, 0}, {2147483647.4, INT32_MAX}, {1e300, INT32_MAX},
                        {-2147483648.6, INT32_MIN}, {-INFINITY, INT32_MIN}, {3.0, 3}};
  for (const Case& c : cases) EXPECT_EQ(roundHalfAwaySaturate<int32_t>(c.x), c.rounded) << c.x;
  EXPECT_EQ(roundHalfAwaySaturate<int8_t>(-127.5), -128);
  EXPECT_EQ(roundHalfAwaySaturate<int8_t>(127.4), 127);
  EXPECT_EQ(roundHalfAwaySaturate<int8_t>(127.5), 127);
  std::mt19937_64 rng(9);
  for (int i = 0; i < 100000; ++i) {  // halves and quarters against integer arithmetic
    const int64_t quarters = int64_t(rng() % 4000001) - 2000000;
    const int64_t magnitude = ((quarters < 0 ? -quarters : quarters) + 2) / 4;  // ties away from zero
    ASSERT_EQ(roundHalfAwaySaturate<int32_t>(double(quarters) / 4), quarters < 0 ? -magnitude : magnitude);
  }
}

TEST(FixedPoint, DirectionalShiftsAndRegisterWidths) {
  struct Case {
    int64_t value;
    int n;
    int64_t expected;
  };
  const Case cases[] = {{-3, 1, -2}, {1280, 8, 5}, {-1, 8, -1}, {5, -8, 1280}, {-5, -8, -1280}, {7, 0, 7},
                        {int64_t(1) << 62, -1, INT64_MIN}};  // bits leave the top as in a hardware shifter
  for (const Case& c : cases) EXPECT_EQ(shiftRightOrLeft(c.value, c.n), c.expected) << c.value << " by " << c.n;
  std::mt19937_64 rng(11);
  for (int i = 0; i < 100000; ++i) {
    const int64_t v = int64_t(rng()) >> 24;
    const int n = int(rng() % 41) - 20;
    const int64_t expected = n >= 0 ? floorDiv(v, int64_t(1) << n) : v * (int64_t(1) << -n);
    ASSERT_EQ(shiftRightOrLeft(v, n), expected) << v << " by " << n;
  }
  EXPECT_EQ(shiftRightLogical32(0x80000000u, 31), 1u);
  EXPECT_EQ(shiftRightLogical32(0x80000000u, 32), 0x80000000u) << "the amount is taken modulo 32";
  EXPECT_EQ(shiftRightLogical32(0xffffffffu, 36), 0x0fffffffu);
  EXPECT_EQ(truncateToInt32(int64_t(1) << 32), 0);
  EXPECT_EQ(truncateToInt32((int64_t(1) << 32) - 1), -1);
  EXPECT_EQ(truncateToInt32(int64_t(INT32_MAX) + 1), INT32_MIN);
  EXPECT_EQ(truncateToInt32(-5), -5);
}
