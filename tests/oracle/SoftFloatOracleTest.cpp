// The soft-float module against MPFR, a multiple-precision library that
// rounds correctly in every direction: every fp16 and bf16 pattern through
// every conversion and direction, sampled float32 and fp24 sources, fp24
// addition and multiplication over millions of random and edge operands,
// and intToFp24 over a wide sweep of int32.
//
// The oracle here knows the hardware's rules (no subnormals, overflow to
// infinity, NaN propagation) but none of the library's bit manipulation: it
// reads patterns with ldexp, lets MPFR round, and encodes the result from
// its exponent and a double.
#include <gtest/gtest.h>
#include <mpfr.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "kora/Support/SoftFloat.h"

using namespace kora;
using namespace kora::softfloat;

namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr long kScale = 8;  // the instrumented build runs an eighth of each sweep
#else
constexpr long kScale = 1;
#endif

constexpr FloatRounding kModes[] = {FloatRounding::NearestEven, FloatRounding::TowardZero, FloatRounding::Upward,
                                    FloatRounding::Downward};
constexpr mpfr_rnd_t kMpfrModes[] = {MPFR_RNDN, MPFR_RNDZ, MPFR_RNDU, MPFR_RNDD};

/// An MPFR variable for the scope of a test.
struct Mp {
  mpfr_t v;
  explicit Mp(mpfr_prec_t precision) { mpfr_init2(v, precision); }
  ~Mp() { mpfr_clear(v); }
};

uint32_t exponentField(uint32_t bits, FloatFormat f) { return (bits >> f.fractionBits) & ((1u << f.exponentBits) - 1); }
uint32_t allOnes(FloatFormat f) { return (1u << f.exponentBits) - 1; }
uint32_t signOf(uint32_t bits, FloatFormat f) { return (bits >> (f.exponentBits + f.fractionBits)) & 1; }

/// The pattern's IEEE value (subnormals included), by ldexp.
double valueOf(uint32_t bits, FloatFormat f) {
  const int M = f.fractionBits, bias = (1 << (f.exponentBits - 1)) - 1;
  const uint32_t e = exponentField(bits, f), frac = bits & ((1u << M) - 1);
  const double sign = signOf(bits, f) ? -1.0 : 1.0;
  if (e == allOnes(f)) return frac ? NAN : sign * INFINITY;
  if (e == 0) return sign * std::ldexp(double(frac), 1 - bias - M);
  return sign * std::ldexp(double(frac + (1u << M)), int(e) - bias - M);
}

/// The hardware's reading of a value MPFR has rounded to the format's
/// precision: a zero of its sign below the smallest normal, infinity above
/// the largest binade, else the fields from MPFR's exponent and the exact
/// double (at most 24 significant bits).
uint32_t hardwareResult(const mpfr_t r, FloatFormat f) {
  const int M = f.fractionBits, bias = (1 << (f.exponentBits - 1)) - 1;
  const uint32_t sign = uint32_t(mpfr_signbit(r) ? 1u : 0u) << (f.exponentBits + M);
  const int e = int(mpfr_get_exp(r)) - 1;  // MPFR's significand lies in [1/2, 1)
  if (mpfr_inf_p(r) || (!mpfr_zero_p(r) && e > bias)) return sign | allOnes(f) << M;
  if (mpfr_zero_p(r) || e < 1 - bias) return sign;
  return sign | uint32_t(e + bias) << M | (uint32_t(std::ldexp(std::fabs(mpfr_get_d(r, MPFR_RNDN)), M - e)) - (1u << M));
}

uint32_t oracleConvert(uint32_t bits, FloatFormat from, FloatFormat to, int mode) {
  if (from == kFloat32 && to == kFp24) return bits >> 8;
  if (from == kFp24 && to == kFloat32) return bits << 8;
  const uint32_t sign = signOf(bits, from) << (to.exponentBits + to.fractionBits);
  if (exponentField(bits, from) == allOnes(from)) return sign | allOnes(to) << to.fractionBits;
  if (exponentField(bits, from) == 0) return sign;
  Mp r(to.fractionBits + 1);
  mpfr_set_d(r.v, valueOf(bits, from), kMpfrModes[mode]);
  return hardwareResult(r.v, to);
}

void expectConversions(uint32_t bits, FloatFormat from, FloatFormat to) {
  for (int m = 0; m < 4; ++m)
    ASSERT_EQ(convert(bits, from, to, kModes[m]), oracleConvert(bits, from, to, m))
        << std::hex << "0x" << bits << " from (" << from.exponentBits << ", " << from.fractionBits << ") to ("
        << to.exponentBits << ", " << to.fractionBits << "), mode " << m;
}

constexpr FloatFormat kFormats[] = {kFp16, kBf16, kFp24, kFloat32};

uint32_t oracleArithmetic(bool multiply, uint32_t a, uint32_t b) {
  auto isNaN = [](uint32_t x) { return exponentField(x, kFp24) == 255 && (x & 0x7fff); };
  if (isNaN(a) || isNaN(b)) return (isNaN(a) ? a : b) | 0x4000;
  auto operand = [](uint32_t x) {  // a zero exponent reads as a zero of its sign
    return exponentField(x, kFp24) == 0 ? (signOf(x, kFp24) ? -0.0 : 0.0) : valueOf(x, kFp24);
  };
  Mp x(24), y(24), r(16);
  mpfr_set_d(x.v, operand(a), MPFR_RNDN);
  mpfr_set_d(y.v, operand(b), MPFR_RNDN);
  (multiply ? mpfr_mul : mpfr_add)(r.v, x.v, y.v, MPFR_RNDN);
  return mpfr_nan_p(r.v) ? kFp24DefaultNaN : hardwareResult(r.v, kFp24);
}

}  // namespace

TEST(SoftFloatOracle, EveryFp16AndBf16PatternAndSampledFloat32AndFp24ThroughEveryDirection) {
  for (FloatFormat from : {kFp16, kBf16})
    for (uint32_t bits = 0; bits < 65536; ++bits)
      for (FloatFormat to : kFormats) {
        expectConversions(bits, from, to);
        if (HasFatalFailure()) return;
      }
  std::mt19937 rng(21);
  for (long i = 0; i < 400000 / kScale; ++i) {
    // Exponents concentrated where fp16's range ends, and uniform ones.
    uint32_t bits = uint32_t(rng());
    if (i % 2) bits = (bits & 0x807fffff) | (uint32_t(rng() % 50) + 95) << 23;
    for (FloatFormat to : kFormats) {
      expectConversions(bits, kFloat32, to);
      expectConversions(bits >> 8, kFp24, to);
      if (HasFatalFailure()) return;
    }
  }
}

TEST(SoftFloatOracle, Fp24AdditionAndMultiplication) {
  // Operands worth pairing with everything: zeros, subnormals, the ends of
  // the normal range, neighbours of 1, infinities and NaNs, with both signs.
  std::vector<uint32_t> edges;
  for (uint32_t m : {0x000000, 0x000001, 0x007fff, 0x008000, 0x008001, 0x00ffff, 0x3f7fff, 0x3f8000, 0x3f8001, 0x3fc000, 0x400000,
                     0x3f0000, 0x5f0000, 0x5effff, 0x7f0000, 0x7f7fff, 0x7f7ffe, 0x7f8000, 0x7fc000, 0x7f8001, 0x7fffff, 0x400001,
                     0x20c000, 0x1f8000})
    edges.insert(edges.end(), {uint32_t(m), uint32_t(m) | 0x800000});
  auto check = [&](uint32_t a, uint32_t b) {
    ASSERT_EQ(fp24Add(a, b), oracleArithmetic(false, a, b)) << std::hex << "0x" << a << " + 0x" << b;
    ASSERT_EQ(fp24Mul(a, b), oracleArithmetic(true, a, b)) << std::hex << "0x" << a << " * 0x" << b;
  };
  for (uint32_t a : edges)
    for (uint32_t b : edges) check(a, b);
  std::mt19937 rng(23);
  auto field = [&](uint32_t lo, uint32_t hi) { return uint32_t(rng() % (hi - lo + 1)) + lo; };
  for (long i = 0; i < 1200000 / kScale; ++i) {
    const uint32_t a = uint32_t(rng()) & 0xffffff, random = uint32_t(rng());
    const int target = rng() % 2 ? 381 : 128;  // sums of exponent fields at 2^127 and 2^-126
    const uint32_t b[] = {
        random & 0xffffff,  // anything
        // nearby exponents: cancellation and ties in sums
        (random & 0x807fff) | ((field(0, 40) + (a >> 15 & 0xff)) % 256) << 15,
        // products near either end of the range
        (random & 0x807fff) | uint32_t(std::clamp(target - int(a >> 15 & 0xff) + int(field(0, 6)) - 3, 0, 255)) << 15,
        (random & 0x807f00) | field(100, 150) << 15,  // short significands: exact results and exact ties
    };
    check(a, b[i % 4]);
    if (HasFatalFailure()) return;
  }
}

TEST(SoftFloatOracle, IntToFp24OverAWideSweepOfInt32) {
  // Against an independent rounding (scale into [2^15, 2^16), rint ties to
  // even, scale back): every value below 2^25 in magnitude (every dropped-bit
  // pattern of up to 9 bits), then the whole int32 range with an odd stride,
  // which runs through every residue of the low 15 bits in every binade
  // (carries into the next binade included, up to 2^31).
  auto expected = [](int64_t v) {
    const double d = double(v);
    if (std::fabs(d) < 65536) return d;
    int e;
    std::frexp(d, &e);
    return std::ldexp(std::rint(std::ldexp(d, 16 - e)), e - 16);
  };
  long mismatches = 0, compared = 0;
  auto sweep = [&](int64_t from, int64_t to, int64_t step) {
    for (int64_t v = from; v <= to; v += step, ++compared)
      mismatches += double(f24ToF32(intToFp24(int32_t(v)))) != expected(v);
  };
  const int64_t dense = int64_t(1) << 25;
  sweep(-dense, dense, kScale == 1 ? 1 : 7);
  sweep(INT32_MIN, INT32_MAX, kScale == 1 ? 61 : 487);  // odd strides
  EXPECT_EQ(mismatches, 0) << "of " << compared;
}
