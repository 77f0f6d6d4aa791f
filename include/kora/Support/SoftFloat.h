#pragma once
// The accelerator's own floating arithmetic: the formats fp16 (5, 10), bf16
// (8, 7), fp24 (8, 15) and float32 (8, 23), described by (exponent bits,
// fraction bits) as FloatFormat; conversions among them in the four rounding
// directions; and fp24, the upper 24 bits of a binary32 held in the low 24
// bits of a 32-bit word, with its addition and multiplication. Rounding is
// done on integers (bit patterns), so results do not depend on the thread's
// rounding mode.
//
// How the hardware formats differ from IEEE 754, and what this module
// chose where the hardware leaves it open:
// - No subnormals. An operand whose exponent field is zero reads as a zero
//   of its sign; a result whose magnitude, once rounded, is below the
//   smallest normal number becomes a zero of its sign. The exceptions are
//   float32ToFp24 and f24ToF32, plain shifts that keep every pattern as it
//   falls (an fp24 subnormal read by the arithmetic is then a zero).
// - Conversions (`convert`): an operand whose exponent is all ones keeps
//   only its sign and exponent, so a NaN becomes an infinity; a result too
//   large for the target becomes the target's infinity in every direction.
//   float32 to fp24 is always the truncating shift, whatever the direction.
// - Arithmetic (fp24Add, fp24Mul): exact result rounded to nearest, ties to
//   even, into fp24 (16 significant bits); overflow gives infinity. A NaN
//   operand comes out quiet (fraction bit 14 set) with its sign and the
//   rest of its payload; of two NaNs the first operand's wins. Invalid
//   operations (infinity minus infinity, zero times infinity) give the
//   default NaN 0x7fc000. An exact zero sum is +0 unless both operands are
//   negative zeros.
// - fp24ToInt rounds in the direction it is given and saturates to the
//   caller's range; NaN gives 0.
#include <bit>
#include <cstdint>

#include <fmt/format.h>

#include "kora/Support/FloatFormat.h"

namespace kora::softfloat {

inline constexpr uint32_t kFp24Mask = 0xffffff;
inline constexpr uint32_t kFp24Infinity = 0x7f8000;
inline constexpr uint32_t kFp24DefaultNaN = 0x7fc000;
inline constexpr uint32_t kFp24QuietBit = 0x4000;

/// How the hardware rounds: no subnormals, overflow to infinity.
constexpr RoundingRule hardwareRule(FloatRounding mode) { return {mode, true, true}; }

constexpr bool fp24IsNaN(uint32_t a) { return (a & 0x7fffff) > kFp24Infinity; }

/// A float32 pattern cut to fp24: the low 8 fraction bits are dropped
/// (truncation of the magnitude); NaN and subnormal patterns fall as they are.
[[gnu::always_inline]] constexpr uint32_t float32ToFp24(uint32_t float32Bits) { return float32Bits >> 8; }
constexpr uint32_t float32ToFp24(float x) { return float32ToFp24(std::bit_cast<uint32_t>(x)); }

/// The float32 pattern of an fp24 value (exact).
[[gnu::always_inline]] constexpr uint32_t fp24ToFp32Bits(uint32_t fp24) { return (fp24 & kFp24Mask) << 8; }
[[gnu::always_inline]] constexpr float f24ToF32(uint32_t fp24) { return std::bit_cast<float>(fp24ToFp32Bits(fp24)); }

/// `bits` of format `from` converted to format `to`, rounded in `mode`.
/// Formats up to 32 bits wide; bits above from's width are ignored.
constexpr uint32_t convert(uint32_t bits, FloatFormat from, FloatFormat to, FloatRounding mode) {
  if (from == kFloat32 && to == kFp24) return float32ToFp24(bits);
  if (from == kFp24 && to == kFloat32) return fp24ToFp32Bits(bits);
  const bool negative = (bits & from.signBit()) != 0;
  const uint64_t sign = negative ? to.signBit() : 0;
  const uint64_t exponent = from.exponentField(bits);
  if (exponent == from.exponentField(from.infinity())) return uint32_t(sign | to.infinity());
  if (exponent == 0) return uint32_t(sign);
  const uint64_t significand = (bits & from.fractionMask()) | (uint64_t(1) << from.fractionBits);
  return uint32_t(roundToFormat(to, negative, significand, int(exponent) - from.bias() - from.fractionBits,
                                hardwareRule(mode)));
}

namespace detail {

constexpr uint32_t exponentOf(uint32_t a) { return (a >> 15) & 0xff; }
/// The NaN an operation with a NaN operand returns.
constexpr uint32_t propagateNaN(uint32_t a, uint32_t b) { return (fp24IsNaN(a) ? a : b) | kFp24QuietBit; }

/// A finite fp24 as a double (exact).
[[gnu::always_inline]] constexpr double normalToDouble(uint32_t a) { return double(f24ToF32(a)); }

/// x, a double computed exactly or within one unit of its last place,
/// rounded to 16 significant bits to nearest, ties to even, by integer
/// arithmetic on its pattern (the 37 low fraction bits decide; a carry runs
/// into the exponent), then fitted to fp24: infinity from 2^128, a zero of
/// its sign below 2^-126.
///
/// Why a double is enough: a product of two 16-bit significands has 32 bits,
/// and a sum of two of them at most 37 binades apart has at most 53, so both
/// are exact doubles. A sum of operands further apart lies within 2^-52 of
/// its value from the exact sum, while every point halfway between fp24
/// neighbours is at least 2^-18 of it away: however the double was rounded,
/// it rounds to the same fp24 as the exact sum. So the result depends
/// neither on the thread's rounding mode nor on the double's own rounding.
[[gnu::always_inline]] constexpr uint32_t roundDoubleToFp24(double x) {
  uint64_t bits = std::bit_cast<uint64_t>(x);
  bits += ((uint64_t(1) << 36) - 1) + ((bits >> 37) & 1);
  const uint32_t sign = uint32_t(bits >> 63) << 23;
  const int exponent = int((bits >> 52) & 0x7ff) - 1023 + 127;  // fp24's biased exponent
  if (exponent >= 0xff) return sign | kFp24Infinity;
  if (exponent <= 0) return sign;  // below 2^-126, zero included
  return sign | uint32_t(exponent) << 15 | uint32_t((bits >> 37) & 0x7fff);
}

}  // namespace detail

/// An int32 in fp24, rounded to nearest, ties to even: exact up to 2^16 in
/// magnitude, spaced by 2 up to 2^17 and so on.
[[gnu::always_inline]] constexpr uint32_t intToFp24(int32_t value) { return detail::roundDoubleToFp24(double(value)); }

/// a * b in fp24, rounded to nearest, ties to even.
[[gnu::always_inline]] constexpr uint32_t fp24Mul(uint32_t a, uint32_t b) {
  using namespace detail;
  a &= kFp24Mask;
  b &= kFp24Mask;
  const uint32_t ea = exponentOf(a), eb = exponentOf(b);
  if (ea - 1 < 0xfe && eb - 1 < 0xfe)  // both normal: the usual case
    return roundDoubleToFp24(normalToDouble(a) * normalToDouble(b));
  const uint32_t sign = (a ^ b) & 0x800000;
  if (ea == 0xff || eb == 0xff) {
    if (fp24IsNaN(a) || fp24IsNaN(b)) return propagateNaN(a, b);
    return (ea == 0 || eb == 0) ? kFp24DefaultNaN : sign | kFp24Infinity;  // 0 * inf is invalid
  }
  return sign;  // a zero exponent reads as zero
}

/// a + b in fp24, rounded to nearest, ties to even.
[[gnu::always_inline]] constexpr uint32_t fp24Add(uint32_t a, uint32_t b) {
  using namespace detail;
  a &= kFp24Mask;
  b &= kFp24Mask;
  const uint32_t ea = exponentOf(a), eb = exponentOf(b);
  if (ea - 1 < 0xfe && eb - 1 < 0xfe) {  // both normal: the usual case
    const double sum = normalToDouble(a) + normalToDouble(b);
    return sum == 0 ? 0 : roundDoubleToFp24(sum);  // exact cancellation is +0 in every rounding mode
  }
  if (ea == 0xff || eb == 0xff) {
    if (fp24IsNaN(a) || fp24IsNaN(b)) return propagateNaN(a, b);
    if (ea == 0xff && eb == 0xff && a != b) return kFp24DefaultNaN;  // inf - inf
    return ea == 0xff ? a : b;
  }
  if (ea == 0) return eb == 0 ? (a & b & 0x800000) : b;  // zeros: -0 only from -0 + -0
  return a;
}

/// An fp24 value as an integer, rounded in `mode` and saturated to [lo, hi]
/// (lo <= 0 <= hi); NaN gives 0, infinities saturate, a zero exponent reads
/// as zero.
[[gnu::always_inline]] constexpr int64_t fp24ToInt(uint32_t a, int64_t lo, int64_t hi, FloatRounding mode) {
  using namespace detail;
  a &= kFp24Mask;
  const uint32_t e = exponentOf(a);
  const bool negative = (a & 0x800000) != 0;
  if (e == 0xff) return fp24IsNaN(a) ? 0 : negative ? lo : hi;
  if (e >= 127 + 63) return negative ? lo : hi;  // 2^63 and beyond: past every int64 range
  // Below 2^63 the double is exact, its truncation (which does not depend on
  // the rounding mode) is the integer part, and the rest is exact too.
  const double x = normalToDouble(e == 0 ? a & 0x800000 : a);
  const int64_t whole = int64_t(x);
  const double rest = x - double(whole);
  int64_t step = 0;
  switch (mode) {
    case FloatRounding::NearestEven: {
      const double away = rest < 0 ? -rest : rest;
      if (away > 0.5 || (away == 0.5 && (whole & 1))) step = rest < 0 ? -1 : 1;
      break;
    }
    case FloatRounding::TowardZero: break;
    case FloatRounding::Upward: step = rest > 0 ? 1 : 0; break;
    case FloatRounding::Downward: step = rest < 0 ? -1 : 0; break;
  }
  const int64_t r = whole + step;
  return r < lo ? lo : r > hi ? hi : r;
}

/// An fp24 value as trace lines print it: the pattern, then its float32
/// reading in parentheses ("0x3fc000(1.5)").
struct Fp24Reading {
  uint32_t bits;
};

/// A float32 as trace lines print it: the pattern, then its reading
/// ("0x3fc00000(1.5)").
struct Float32Reading {
  float value;
};

}  // namespace kora::softfloat

template <>
struct fmt::formatter<kora::softfloat::Fp24Reading> {
  constexpr auto parse(fmt::format_parse_context& ctx) { return ctx.begin(); }
  template <class Ctx>
  auto format(const kora::softfloat::Fp24Reading& r, Ctx& ctx) const {
    return fmt::format_to(ctx.out(), "0x{:06x}({})", r.bits, kora::softfloat::f24ToF32(r.bits));
  }
};

template <>
struct fmt::formatter<kora::softfloat::Float32Reading> {
  constexpr auto parse(fmt::format_parse_context& ctx) { return ctx.begin(); }
  template <class Ctx>
  auto format(const kora::softfloat::Float32Reading& r, Ctx& ctx) const {
    return fmt::format_to(ctx.out(), "0x{:08x}({})", std::bit_cast<uint32_t>(r.value), r.value);
  }
};
