// The soft-float formats against hand-worked patterns (ties, directions,
// specials, flushing) and exhaustive sweeps against the library's separate
// f16 and bf16 conversions and against a decoding by ldexp. The exhaustive
// and random comparisons with a multiple-precision oracle (every direction,
// fp24 arithmetic, int32 to fp24) live in tests/oracle.
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

/// The value of a pattern of format f read by ldexp (independent of the
/// library's bit shuffling); subnormal patterns keep their IEEE value here.
double readPattern(uint32_t bits, FloatFormat f) {
  const int M = f.fractionBits;
  const uint32_t e = uint32_t(f.exponentField(bits)), frac = uint32_t(bits & f.fractionMask());
  const double sign = (bits & f.signBit()) ? -1.0 : 1.0;
  if (e == 0) return sign * std::ldexp(double(frac), f.minExponent() - M);
  if (e == uint32_t(f.exponentField(f.infinity()))) return frac ? NAN : sign * INFINITY;
  return sign * std::ldexp(double(frac | (1u << M)), int(e) - f.bias() - M);
}

}  // namespace

TEST(SoftFloat, ConversionsHandWorked) {
  struct Case {
    uint32_t in;
    FloatFormat from, to;
    uint32_t nearest, towardZero, upward, downward;
    const char* what;
  };
  const Case cases[] = {
      {0x3c00, kFp16, kFloat32, 0x3f800000, 0x3f800000, 0x3f800000, 0x3f800000, "1.0 widens exactly"},
      {0x0400, kFp16, kFloat32, 0x38800000, 0x38800000, 0x38800000, 0x38800000, "smallest fp16 normal"},
      {0x0001, kFp16, kFloat32, 0, 0, 0, 0, "a subnormal operand reads as zero"},
      {0x83ff, kFp16, kFloat32, 0x80000000, 0x80000000, 0x80000000, 0x80000000, "... of its sign"},
      {0xfe00, kFp16, kFloat32, 0xff800000, 0xff800000, 0xff800000, 0xff800000, "NaN keeps sign and exponent"},
      {0x7c01, kFp16, kBf16, 0x7f80, 0x7f80, 0x7f80, 0x7f80, "signalling NaN too"},
      {0x7c00, kFp16, kFp24, 0x7f8000, 0x7f8000, 0x7f8000, 0x7f8000, "infinity"},
      {0x3f801000, kFloat32, kFp16, 0x3c00, 0x3c00, 0x3c01, 0x3c00, "1 + 2^-11: a tie goes to the even 1.0"},
      {0xbf801000, kFloat32, kFp16, 0xbc00, 0xbc00, 0xbc00, 0xbc01, "-(1 + 2^-11)"},
      {0x3f803000, kFloat32, kFp16, 0x3c02, 0x3c01, 0x3c02, 0x3c01, "1 + 3 * 2^-11: tie to the even 1 + 2^-9"},
      {0x3f801001, kFloat32, kFp16, 0x3c01, 0x3c00, 0x3c01, 0x3c00, "just above the tie"},
      {0x3f800fff, kFloat32, kFp16, 0x3c00, 0x3c00, 0x3c01, 0x3c00, "just below the tie"},
      {0x477fe000, kFloat32, kFp16, 0x7bff, 0x7bff, 0x7bff, 0x7bff, "65504, the largest fp16"},
      {0x477fef00, kFloat32, kFp16, 0x7bff, 0x7bff, 0x7c00, 0x7bff, "65519: only upward overflows"},
      {0x477ff000, kFloat32, kFp16, 0x7c00, 0x7bff, 0x7c00, 0x7bff, "65520 ties up to 65536: infinity"},
      {0x4788b800, kFloat32, kFp16, 0x7c00, 0x7c00, 0x7c00, 0x7c00, "70000 is infinity in every direction"},
      {0xc788b800, kFloat32, kFp16, 0xfc00, 0xfc00, 0xfc00, 0xfc00, "-70000 too"},
      {0x38800000, kFloat32, kFp16, 0x0400, 0x0400, 0x0400, 0x0400, "2^-14 stays normal"},
      {0x38000000, kFloat32, kFp16, 0, 0, 0, 0, "2^-15 is flushed, even upward"},
      {0xb8000000, kFloat32, kFp16, 0x8000, 0x8000, 0x8000, 0x8000, "-2^-15 to -0"},
      {0x387ff000, kFloat32, kFp16, 0x0400, 0, 0x0400, 0, "rounding up to the smallest normal is not flushed"},
      {0xb87ff000, kFloat32, kFp16, 0x8400, 0x8000, 0x8000, 0x8400, "... nor is its negative"},
      {0x00000001, kFloat32, kFp16, 0, 0, 0, 0, "float32 subnormal"},
      {0x7fc00001, kFloat32, kFp16, 0x7c00, 0x7c00, 0x7c00, 0x7c00, "float32 NaN"},
      {0x4780, kBf16, kFp16, 0x7c00, 0x7c00, 0x7c00, 0x7c00, "bf16 65536 is beyond fp16"},
      {0x477f, kBf16, kFp16, 0x7bf8, 0x7bf8, 0x7bf8, 0x7bf8, "bf16 65280 fits"},
      {0x3c01, kFp16, kBf16, 0x3f80, 0x3f80, 0x3f81, 0x3f80, "fp16 1 + 2^-10 in bf16"},
      {0xbe01, kFp16, kBf16, 0xbfc0, 0xbfc0, 0xbfc0, 0xbfc1, "fp16 -(1.5 + 2^-10)"},
      {0x3c04, kFp16, kBf16, 0x3f80, 0x3f80, 0x3f81, 0x3f80, "1 + 2^-8: tie to even"},
      {0x3c0c, kFp16, kBf16, 0x3f82, 0x3f81, 0x3f82, 0x3f81, "1 + 3 * 2^-8: tie to even"},
      {0x3c08, kFp16, kBf16, 0x3f81, 0x3f81, 0x3f81, 0x3f81, "1 + 2^-7 is exact"},
      {0x3f8080, kFp24, kBf16, 0x3f80, 0x3f80, 0x3f81, 0x3f80, "fp24 1 + 2^-8"},
      {0x3f8001, kFp24, kFp16, 0x3c00, 0x3c00, 0x3c01, 0x3c00, "fp24 1 + 2^-15"},
      {0x000001, kFp24, kFp24, 0, 0, 0, 0, "an fp24 subnormal through a rounding conversion"},
      {0x3f800001, kFloat32, kFp24, 0x3f8000, 0x3f8000, 0x3f8000, 0x3f8000, "float32 to fp24 truncates always"},
      {0xbf8000ff, kFloat32, kFp24, 0xbf8000, 0xbf8000, 0xbf8000, 0xbf8000, "... negative ones too"},
      {0x000001, kFp24, kFloat32, 0x100, 0x100, 0x100, 0x100, "fp24 to float32 keeps a subnormal pattern"},
      {0xff8001, kFp24, kFloat32, 0xff800100, 0xff800100, 0xff800100, 0xff800100, "... and a NaN"},
  };
  for (const Case& c : cases) {
    const uint32_t expected[] = {c.nearest, c.towardZero, c.upward, c.downward};
    for (int m = 0; m < 4; ++m)
      EXPECT_EQ(convert(c.in, c.from, c.to, kModes[m]), expected[m]) << c.what << ", mode " << m;
  }
}

TEST(SoftFloat, WideningAgreesWithTheLibraryHalfAndBf16OnEveryPattern) {
  for (uint32_t h = 0; h < 65536; ++h) {
    const bool special16 = (h & 0x7c00) == 0x7c00 || (h & 0x7c00) == 0;
    for (FloatRounding m : kModes) {
      if (special16) break;
      const uint32_t wide = convert(h, kFp16, kFloat32, m);
      ASSERT_EQ(std::bit_cast<float>(wide), halfBitsToFloat(uint16_t(h))) << h;
      // Widening then narrowing back is the identity on normal numbers.
      ASSERT_EQ(convert(wide, kFloat32, kFp16, m), h);
      ASSERT_EQ(convert(convert(h, kFp16, kFp24, m), kFp24, kFp16, m), h);
    }
    const bool special = (h & 0x7f80) == 0x7f80 || (h & 0x7f80) == 0;
    if (!special) {
      ASSERT_EQ(std::bit_cast<float>(convert(h, kBf16, kFloat32, N)), bf16BitsToFloat(uint16_t(h))) << h;
      ASSERT_EQ(convert(convert(h, kBf16, kFp24, Z), kFp24, kBf16, U), h);
    }
  }
}

TEST(SoftFloat, NearestNarrowingAgreesWithTheLibraryHalfWhereBothAreNormal) {
  std::mt19937 rng(5);
  for (int i = 0; i < 300000; ++i) {
    const float x = std::ldexp(std::uniform_real_distribution<float>(1.f, 2.f)(rng),
                               std::uniform_int_distribution<int>(-14, 15)(rng)) * (rng() % 2 ? 1.f : -1.f);
    ASSERT_EQ(convert(std::bit_cast<uint32_t>(x), kFloat32, kFp16, N), floatToHalfBits(x)) << x;
    ASSERT_EQ(convert(std::bit_cast<uint32_t>(x), kFloat32, kBf16, N), floatToBf16Bits(x)) << x;
  }
}

TEST(SoftFloat, EveryFp24PatternWidensExactlyAndCutsBack) {
  for (uint32_t p = 0; p < (1u << 24); ++p) {
    const float f = f24ToF32(p);
    ASSERT_EQ(float32ToFp24(f), p);
    const double expected = readPattern(p, kFp24);
    if (std::isnan(expected))
      ASSERT_TRUE(std::isnan(f));
    else
      ASSERT_EQ(double(f), expected) << std::hex << p;
  }
  // Cutting a float32 clears its low 8 bits.
  EXPECT_EQ(f24ToF32(float32ToFp24(std::bit_cast<float>(0x3f800001u))), 1.0f) << "1 + 2^-23";
  EXPECT_EQ(f24ToF32(float32ToFp24(std::bit_cast<float>(0xbf800001u))), -1.0f) << "-1 - 2^-23";
  std::mt19937 rng(2);
  for (int i = 0; i < 100000; ++i) {
    const uint32_t bits = uint32_t(rng());
    ASSERT_EQ(std::bit_cast<uint32_t>(f24ToF32(float32ToFp24(bits))), bits & 0xffffff00u);
  }
}

TEST(SoftFloat, IntToFp24HandWorked) {
  struct Case {
    int32_t value;
    float expected;
  };
  const Case cases[] = {
      {0, 0.f},           {1, 1.f},           {-1, -1.f},        {65535, 65535.f},       {65536, 65536.f},
      {65537, 65536.f},   // tie: 65536 has the even last bit
      {65539, 65540.f},   // tie: 65540 is even, 65538 odd
      {65541, 65540.f},   {-65537, -65536.f}, {-65539, -65540.f}, {131073, 131072.f}, {131074, 131072.f},
      {131075, 131076.f}, {131078, 131080.f}, // 131078 = 131076 + 2: tie, 131080 even
      {INT32_MAX, 2147483648.f},              {INT32_MIN, -2147483648.f},
      {16777217, 16777216.f},                 {-33554431, -33554432.f},
  };
  for (const Case& c : cases) EXPECT_EQ(f24ToF32(intToFp24(c.value)), c.expected) << c.value;
  EXPECT_EQ(intToFp24(0), 0u) << "zero is +0";
}

TEST(SoftFloat, Fp24ArithmeticHandWorked) {
  enum Op { Add, Mul };
  struct Case {
    Op op;
    uint32_t a, b, expected;
    const char* what;
  };
  const Case cases[] = {
      {Mul, 0x3fc000, 0x3fc000, 0x401000, "1.5 * 1.5 = 2.25"},
      {Mul, 0x3f8001, 0x3f8001, 0x3f8002, "(1 + 2^-15)^2: 2^-30 is dropped"},
      {Mul, 0x3f8080, 0x3f8080, 0x3f8100, "(1 + 2^-8)^2: the tie 2^-16 goes to even"},
      {Mul, 0x3f8180, 0x3f8180, 0x3f8304, "(1 + 3 * 2^-8)^2: 4.5 units ties to 4"},
      {Mul, 0x3f8280, 0x3f8280, 0x3f850c, "(1 + 5 * 2^-8)^2: 1280 + 12.5 units ties to 1292"},
      {Mul, 0x7f0000, 0x400000, 0x7f8000, "2^127 * 2 overflows to infinity"},
      {Mul, 0xff0000, 0x400000, 0xff8000, "... negative infinity"},
      {Mul, 0x008000, 0x3f0000, 0x000000, "2^-126 * 0.5 is flushed"},
      {Mul, 0x808000, 0x3f0000, 0x800000, "... to a zero of its sign"},
      {Mul, 0x3f7fff, 0x008000, 0x000000, "an exact result below 2^-126 is flushed"},
      {Mul, 0x3f8000, 0x004000, 0x000000, "a subnormal operand reads as zero"},
      {Mul, 0xbf8000, 0x000000, 0x800000, "-1 * 0 = -0"},
      {Mul, 0x7f8000, 0x000000, 0x7fc000, "infinity * 0 is the default NaN"},
      {Mul, 0x000001, 0xff8000, 0x7fc000, "0 * infinity, with a subnormal zero"},
      {Mul, 0xff8000, 0x400000, 0xff8000, "-infinity * 2"},
      {Mul, 0x7fa000, 0x3f8000, 0x7fe000, "a signalling NaN comes out quiet, payload kept"},
      {Mul, 0x3f8000, 0xffc123, 0xffc123, "a NaN keeps its sign"},
      {Mul, 0x7f8001, 0xff8002, 0x7fc001, "of two NaNs the first wins"},
      {Add, 0x3f8000, 0x378000, 0x3f8000, "1 + 2^-16: the tie goes to even 1"},
      {Add, 0x3f8001, 0x378000, 0x3f8002, "(1 + 2^-15) + 2^-16: the tie goes to even"},
      {Add, 0x3f8000, 0x384000, 0x3f8002, "1 + 3 * 2^-16: 1.5 units rounds to 2"},
      {Add, 0x3f8001, 0xbf8000, 0x380000, "(1 + 2^-15) - 1 = 2^-15 exactly"},
      {Add, 0x3f8000, 0xb78000, 0x3f7fff, "1 - 2^-16 is exact just below 1"},
      {Add, 0x3f8000, 0xb70000, 0x3f8000, "1 - 2^-17: the tie goes to the even 1"},
      {Add, 0x3f8000, 0xb74000, 0x3f7fff, "1 - 3 * 2^-18 rounds down into the binade below"},
      {Add, 0x3f8000, 0xb38000, 0x3f8000, "1 - 2^-24 rounds back to 1"},
      {Add, 0x3f8000, 0x218000, 0x3f8000, "1 + 2^-60"},
      {Add, 0x3fc000, 0xbfc000, 0x000000, "x - x = +0"},
      {Add, 0x800000, 0x800000, 0x800000, "-0 + -0 = -0"},
      {Add, 0x800000, 0x000000, 0x000000, "-0 + 0 = +0"},
      {Add, 0x800001, 0x800000, 0x800000, "a negative subnormal reads as -0"},
      {Add, 0x000001, 0x3f8000, 0x3f8000, "a subnormal adds nothing"},
      {Add, 0x008001, 0x808000, 0x000000, "a difference below 2^-126 is flushed"},
      {Add, 0x808001, 0x008000, 0x800000, "... to a zero of its sign"},
      {Add, 0x7f7fff, 0x7f7fff, 0x7f8000, "max + max overflows"},
      {Add, 0x7f8000, 0xff8000, 0x7fc000, "infinity - infinity is the default NaN"},
      {Add, 0x7f8000, 0x7f8000, 0x7f8000, "infinity + infinity"},
      {Add, 0xff8000, 0x7f7fff, 0xff8000, "-infinity + max"},
      {Add, 0x3f8000, 0x7f8123, 0x7fc123, "NaN + 1"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(c.op == Add ? fp24Add(c.a, c.b) : fp24Mul(c.a, c.b), c.expected) << std::hex << c.what;
  }
}

TEST(SoftFloat, Fp24ToIntHandWorked) {
  struct Case {
    uint32_t value;
    int64_t lo, hi;
    int64_t nearest, towardZero, upward, downward;
    const char* what;
  };
  const Case cases[] = {
      {0x402000, -128, 127, 2, 2, 3, 2, "2.5"},
      {0xc02000, -128, 127, -2, -2, -2, -3, "-2.5"},
      {0x406000, -128, 127, 4, 3, 4, 3, "3.5"},
      {0x3fc000, -128, 127, 2, 1, 2, 1, "1.5"},
      {0xbf0000, -128, 127, 0, 0, 0, -1, "-0.5"},
      {0x3e8000, -128, 127, 0, 0, 1, 0, "0.25"},
      {0x439600, -128, 127, 127, 127, 127, 127, "300 saturates in si8"},
      {0xc39600, -128, 127, -128, -128, -128, -128, "-300 too"},
      {0x42fe00, -128, 127, 127, 127, 127, 127, "127"},
      {0xc30080, -128, 127, -128, -128, -128, -128, "-128.5 is below every si8"},
      {0x7f8000, -32768, 32767, 32767, 32767, 32767, 32767, "infinity"},
      {0xff8000, -32768, 32767, -32768, -32768, -32768, -32768, "-infinity"},
      {0x7fc000, -32768, 32767, 0, 0, 0, 0, "NaN"},
      {0x000001, -32768, 32767, 0, 0, 0, 0, "subnormal"},
      {0x4f8000, INT32_MIN, INT32_MAX, INT32_MAX, INT32_MAX, INT32_MAX, INT32_MAX, "2^32"},
      {0x4f8000, INT64_MIN, INT64_MAX, 4294967296, 4294967296, 4294967296, 4294967296, "2^32 in int64"},
      {0x5e8000, INT64_MIN, INT64_MAX, int64_t(1) << 62, int64_t(1) << 62, int64_t(1) << 62, int64_t(1) << 62, "2^62"},
      {0x5effff, INT64_MIN, INT64_MAX, INT64_MAX - (int64_t(1) << 47) + 1, INT64_MAX - (int64_t(1) << 47) + 1,
       INT64_MAX - (int64_t(1) << 47) + 1, INT64_MAX - (int64_t(1) << 47) + 1, "the largest below 2^63"},
      {0xdf0000, INT64_MIN, INT64_MAX, INT64_MIN, INT64_MIN, INT64_MIN, INT64_MIN, "-2^63"},
      {0x5f0000, INT64_MIN, INT64_MAX, INT64_MAX, INT64_MAX, INT64_MAX, INT64_MAX, "2^63"},
      {0xbf8000, 0, 255, 0, 0, 0, 0, "-1 in an unsigned range"},
  };
  for (const Case& c : cases) {
    const int64_t expected[] = {c.nearest, c.towardZero, c.upward, c.downward};
    for (int m = 0; m < 4; ++m) EXPECT_EQ(fp24ToInt(c.value, c.lo, c.hi, kModes[m]), expected[m]) << c.what << ", mode " << m;
  }
}

TEST(SoftFloat, TracePrintsThePatternAndItsReading) {
  EXPECT_EQ(fmt::format("{}", Fp24Reading{0x3fc000}), "0x3fc000(1.5)");
  EXPECT_EQ(fmt::format("{}", Fp24Reading{0x800000}), "0x800000(-0)");
  EXPECT_EQ(fmt::format("{}", Fp24Reading{0x478000}), "0x478000(65536)");
  EXPECT_EQ(fmt::format("{}", Fp24Reading{0x000001}), "0x000001(3.59e-43)");
}
