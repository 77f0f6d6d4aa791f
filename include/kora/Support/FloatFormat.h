#pragma once
// Rounding an exact binary value into a small IEEE-style format described by
// (exponent bits, fraction bits). This is the reference path for every
// conversion that narrows: it works on integers only, so it neither
// double-rounds nor depends on the thread's rounding mode.
//
// By default it rounds as IEEE 754 does in its default mode: to nearest with
// ties to even, subnormals kept, overflow to infinity. A RoundingRule selects
// one of the four rounding directions and, for hardware formats that have no
// subnormals, flushing and overflow to infinity in every direction.
#include <algorithm>
#include <bit>
#include <cstdint>

#include "kora/Support/Half.h"

namespace kora {

/// A binary floating format: sign, `exponentBits` of biased exponent and
/// `fractionBits` of fraction, with an implicit leading bit for normal
/// numbers. The all-ones exponent holds infinities (zero fraction) and NaNs.
struct FloatFormat {
  int exponentBits;
  int fractionBits;

  constexpr int bias() const { return (1 << (exponentBits - 1)) - 1; }
  /// Exponent of the smallest normal number.
  constexpr int minExponent() const { return 1 - bias(); }
  constexpr int width() const { return 1 + exponentBits + fractionBits; }
  constexpr uint64_t signBit() const { return uint64_t(1) << (exponentBits + fractionBits); }
  constexpr uint64_t infinity() const { return ((uint64_t(1) << exponentBits) - 1) << fractionBits; }
  constexpr uint64_t fractionMask() const { return (uint64_t(1) << fractionBits) - 1; }
  constexpr uint64_t exponentField(uint64_t bits) const {
    return (bits >> fractionBits) & ((uint64_t(1) << exponentBits) - 1);
  }
  constexpr bool operator==(const FloatFormat&) const = default;
};

inline constexpr FloatFormat kFp16{5, 10};
inline constexpr FloatFormat kBf16{8, 7};
/// The upper 24 bits of a binary32: 16 significant bits.
inline constexpr FloatFormat kFp24{8, 15};
inline constexpr FloatFormat kFloat32{8, 23};
inline constexpr FloatFormat kFloat64{11, 52};

/// Rounding directions, numbered as the accelerator's mode registers number
/// them.
enum class FloatRounding : uint8_t {
  NearestEven = 0,  // to nearest, ties to the even last bit
  TowardZero = 1,   // truncation of the magnitude
  Upward = 2,       // toward +infinity: an inexact positive result grows by one unit
  Downward = 3,     // toward -infinity: an inexact negative result grows in magnitude by one unit
};

struct RoundingRule {
  FloatRounding mode = FloatRounding::NearestEven;
  /// A result whose magnitude, once rounded, lies below the smallest normal
  /// number becomes a zero of its sign (otherwise: a subnormal, rounded at
  /// the subnormal spacing).
  bool flushSubnormals = false;
  /// Overflow gives infinity in every direction (otherwise, as IEEE: toward
  /// zero, and away from the overflow's infinity, it stops at the largest
  /// finite value).
  bool overflowToInfinity = false;
};

namespace detail {

/// significand >> shift (shift >= 1, any size) rounded in direction `mode`
/// for a value of sign `negative`.
constexpr uint64_t roundShiftRight(uint64_t significand, int shift, FloatRounding mode, bool negative) {
  uint64_t kept;
  int versusHalf;  // the dropped bits compared with half a unit: -1 below, 0 equal, 1 above
  bool inexact;
  if (shift < 64) {
    kept = significand >> shift;
    const uint64_t rest = significand & ((uint64_t(1) << shift) - 1), half = uint64_t(1) << (shift - 1);
    versusHalf = rest < half ? -1 : rest == half ? 0 : 1;
    inexact = rest != 0;
  } else {
    kept = 0;
    const uint64_t half = uint64_t(1) << 63;
    versusHalf = shift > 64 || significand < half ? -1 : significand == half ? 0 : 1;
    inexact = significand != 0;
  }
  bool up = false;
  switch (mode) {
    case FloatRounding::NearestEven: up = versusHalf > 0 || (versusHalf == 0 && (kept & 1)); break;
    case FloatRounding::TowardZero: break;
    case FloatRounding::Upward: up = inexact && !negative; break;
    case FloatRounding::Downward: up = inexact && negative; break;
  }
  return kept + (up ? 1 : 0);
}

}  // namespace detail

/// Encoding of the value significand * 2^exponent2 (negated when `negative`)
/// in format f, rounded by `rule`. The sign of a zero significand is kept.
constexpr uint64_t roundToFormat(FloatFormat f, bool negative, uint64_t significand, int exponent2,
                                 RoundingRule rule = {}) {
  const int M = f.fractionBits, minExponent = f.minExponent();
  const uint64_t sign = negative ? f.signBit() : 0;
  if (significand == 0) return sign;
  const int msb = 63 - std::countl_zero(significand);
  const int leading = msb + exponent2;  // exponent of the leading bit
  // Exponent of the last kept bit: M bits below the leading one, or the
  // subnormal spacing when subnormals are kept.
  const int unitExponent = (rule.flushSubnormals ? leading : std::max(leading, minExponent)) - M;
  const int shift = unitExponent - exponent2;  // low bits to drop
  // At most M + 1 bits are kept.
  const uint64_t kept =
      shift <= 0 ? significand << -shift : detail::roundShiftRight(significand, shift, rule.mode, negative);
  // A carry out of the kept bits moves the leading bit up by one.
  const int resultLeading = unitExponent + M + (kept >> (M + 1) ? 1 : 0);
  if (rule.flushSubnormals && resultLeading < minExponent) return sign;
  const bool awayFromZero = rule.mode == FloatRounding::NearestEven ||
                            (rule.mode == FloatRounding::Upward && !negative) ||
                            (rule.mode == FloatRounding::Downward && negative);
  if (resultLeading > f.bias())
    return sign | (awayFromZero || rule.overflowToInfinity ? f.infinity() : f.infinity() - 1);
  // `kept` carries the implicit bit for normal numbers, so adding it to the
  // exponent field minus one gives the encoding (a carry out of the fraction
  // lands in the exponent, modulo 2^64 when a flushed format rounds up to its
  // smallest normal from one binade below); subnormals have field 0 and no
  // implicit bit.
  return sign | ((uint64_t(int64_t(unitExponent + M + f.bias() - 1)) << M) + kept);
}

/// The (E, M) format with the default rule: round to nearest, ties to even,
/// subnormals kept, overflow to infinity.
template <int E, int M>
constexpr uint64_t roundToFormat(bool negative, uint64_t significand, int exponent2) {
  static_assert(E >= 2 && E <= 11 && M >= 1 && M <= 52);
  return roundToFormat(FloatFormat{E, M}, negative, significand, exponent2);
}

/// A binary64 value in the (E, M) format; NaN becomes a quiet NaN with the
/// top payload bits.
template <int E, int M>
constexpr uint64_t roundDoubleToFormat(double value) {
  const uint64_t bits = std::bit_cast<uint64_t>(value);
  const bool negative = bits >> 63;
  const uint64_t exponentField = (bits >> 52) & 0x7ff;
  const uint64_t fraction = bits & ((uint64_t(1) << 52) - 1);
  if (exponentField == 0x7ff) {
    const uint64_t special = ((uint64_t(1) << E) - 1) << M;
    const uint64_t payload = fraction ? (uint64_t(1) << (M - 1)) | (fraction >> (52 - M)) : 0;
    return (uint64_t(negative) << (E + M)) | special | payload;
  }
  const uint64_t significand = fraction | (exponentField ? uint64_t(1) << 52 : 0);
  const int exponent2 = int(exponentField ? exponentField : 1) - 1075;
  return roundToFormat<E, M>(negative, significand, exponent2);
}

/// A two's complement integer in the (E, M) format.
template <int E, int M>
constexpr uint64_t roundIntegerToFormat(bool negative, uint64_t magnitude) {
  return roundToFormat<E, M>(negative, magnitude, 0);
}

constexpr uint16_t doubleToHalfBits(double value) { return uint16_t(roundDoubleToFormat<5, 10>(value)); }
constexpr uint16_t doubleToBf16Bits(double value) { return uint16_t(roundDoubleToFormat<8, 7>(value)); }
constexpr float doubleToFloat(double value) {
  return std::bit_cast<float>(uint32_t(roundDoubleToFormat<8, 23>(value)));
}

}  // namespace kora
