#pragma once
// Rounding an exact binary value into a small IEEE-style format described by
// (exponent bits, fraction bits), to nearest with ties to even. This is the
// reference path for every conversion that narrows: it works on integers
// only, so it neither double-rounds nor depends on the thread's rounding mode.
#include <algorithm>
#include <bit>
#include <cstdint>

#include "kora/Support/Half.h"

namespace kora {

/// Encoding of the value significand * 2^exponent2 (negated when `negative`)
/// in the format with E exponent bits and M fraction bits: round to nearest,
/// ties to even, subnormals kept, overflow to infinity.
template <int E, int M>
constexpr uint64_t roundToFormat(bool negative, uint64_t significand, int exponent2) {
  static_assert(E >= 2 && E <= 11 && M >= 1 && M <= 52);
  constexpr int bias = (1 << (E - 1)) - 1;
  constexpr int minExponent = 1 - bias;
  constexpr uint64_t infinity = ((uint64_t(1) << E) - 1) << M;
  const uint64_t sign = uint64_t(negative) << (E + M);
  if (significand == 0) return sign;
  const int msb = 63 - std::countl_zero(significand);
  const int leading = msb + exponent2;                       // exponent of the leading bit
  const int unitExponent = std::max(leading, minExponent) - M;  // exponent of the last kept bit
  const int shift = unitExponent - exponent2;                // low bits to drop
  uint64_t kept;
  if (shift <= 0)
    kept = significand << -shift;
  else if (shift > msb + 1)
    kept = 0;  // below half a unit
  else if (shift == 64)
    kept = significand > (uint64_t(1) << 63) ? 1 : 0;  // at least half a unit; exactly half rounds to 0
  else
    kept = detail::roundShiftNearestEven(significand, unsigned(shift));
  // `kept` carries the implicit bit for normal numbers, so adding it to the
  // exponent field minus one gives the encoding; a carry out of the fraction
  // moves the exponent up, as far as infinity.
  if (leading > bias) return sign | infinity;
  const uint64_t encoding = (uint64_t(std::max(leading, minExponent) + bias - 1) << M) + kept;
  return sign | std::min(encoding, infinity);
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
