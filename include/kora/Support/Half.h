#pragma once
// The library's one pair of binary16 / bfloat16 conversions. Widening is exact;
// narrowing rounds to nearest with ties to even, overflows to infinity and
// keeps NaN a (quiet) NaN. Everything is integer bit arithmetic, so results do
// not depend on the thread's floating-point rounding mode.
#include <bit>
#include <cstdint>

#include <fmt/format.h>

#include "kora/Core/Export.h"

namespace kora {

namespace detail {
/// Rounds `m >> shift` to nearest, ties to even (0 < shift < 64).
constexpr uint64_t roundShiftNearestEven(uint64_t m, unsigned shift) {
  uint64_t q = m >> shift;
  uint64_t rem = m & ((uint64_t(1) << shift) - 1);
  uint64_t halfway = uint64_t(1) << (shift - 1);
  return q + ((rem > halfway || (rem == halfway && (q & 1))) ? 1 : 0);
}
}  // namespace detail

/// binary16 bits to binary32: exact for every pattern (NaN payloads move to
/// the top of the binary32 fraction).
constexpr float halfBitsToFloat(uint16_t h) {
  uint32_t sign = uint32_t(h & 0x8000u) << 16;
  uint32_t exponent = (h >> 10) & 0x1fu;
  uint32_t fraction = h & 0x3ffu;
  uint32_t bits;
  if (exponent == 0x1f) {
    bits = sign | 0x7f800000u | (fraction << 13);
  } else if (exponent != 0) {
    bits = sign | ((exponent + 112) << 23) | (fraction << 13);
  } else if (fraction == 0) {
    bits = sign;
  } else {
    // Subnormal: normalise the fraction into a binary32 normal number.
    int shift = std::countl_zero(fraction) - 21;  // leading zeros within the 10-bit field, plus one
    fraction = (fraction << shift) & 0x3ffu;
    bits = sign | (uint32_t(113 - shift) << 23) | (fraction << 13);
  }
  return std::bit_cast<float>(bits);
}

/// binary32 to binary16 bits, round to nearest even.
constexpr uint16_t floatToHalfBits(float f) {
  uint32_t x = std::bit_cast<uint32_t>(f);
  uint32_t sign = (x >> 16) & 0x8000u;
  uint32_t ax = x & 0x7fffffffu;
  if (ax >= 0x7f800000u) {  // infinity, or NaN made quiet with its top payload bits
    return uint16_t(sign | 0x7c00u | (ax > 0x7f800000u ? 0x200u | ((ax >> 13) & 0x3ffu) : 0u));
  }
  if (ax >= 0x47800000u) return uint16_t(sign | 0x7c00u);  // >= 65536
  uint32_t exponent = ax >> 23;
  uint64_t significand = (ax & 0x7fffffu) | (exponent ? 0x800000u : 0u);
  if (exponent < 113) {  // below 2^-14: binary16 subnormal (or zero), in units of 2^-24
    unsigned shift = 126 - exponent;  // value = significand * 2^(exponent - 150)
    if (exponent == 0) shift = 125;   // binary32 subnormals are far below 2^-25 anyway
    if (shift >= 25) return uint16_t(sign);
    return uint16_t(sign | detail::roundShiftNearestEven(significand, shift));
  }
  // Normal: rebias the exponent; a carry out of the fraction bumps the
  // exponent, up to infinity (0x7c00) for values from 65520.
  uint64_t combined = (uint64_t(exponent - 112) << 23) | (ax & 0x7fffffu);
  return uint16_t(sign | detail::roundShiftNearestEven(combined, 13));
}

/// bfloat16 bits to binary32: exact.
constexpr float bf16BitsToFloat(uint16_t b) { return std::bit_cast<float>(uint32_t(b) << 16); }

/// binary32 to bfloat16 bits, round to nearest even; NaN stays a quiet NaN.
constexpr uint16_t floatToBf16Bits(float f) {
  uint32_t x = std::bit_cast<uint32_t>(f);
  if ((x & 0x7fffffffu) > 0x7f800000u) return uint16_t((x >> 16) | 0x40u);
  return uint16_t(detail::roundShiftNearestEven(x, 16));
}

/// IEEE 754 binary16 element (f16). Arithmetic is never done in half
/// precision: widen to float, compute, narrow back.
struct half {
  uint16_t bits = 0;
  half() = default;
  explicit constexpr half(float f) : bits(floatToHalfBits(f)) {}
  static constexpr half fromBits(uint16_t b) {
    half h;
    h.bits = b;
    return h;
  }
  explicit constexpr operator float() const { return halfBitsToFloat(bits); }
  constexpr float toFloat() const { return halfBitsToFloat(bits); }
};

/// bfloat16 element (vbf16): the upper half of a binary32.
struct bfloat16 {
  uint16_t bits = 0;
  bfloat16() = default;
  explicit constexpr bfloat16(float f) : bits(floatToBf16Bits(f)) {}
  static constexpr bfloat16 fromBits(uint16_t b) {
    bfloat16 h;
    h.bits = b;
    return h;
  }
  explicit constexpr operator float() const { return bf16BitsToFloat(bits); }
  constexpr float toFloat() const { return bf16BitsToFloat(bits); }
};

/// Runs of f16 elements widened to f32 and f32 values narrowed to f16, with
/// exactly the results of halfBitsToFloat and floatToHalfBits for every
/// pattern. On processors with the F16C instructions, groups of 8 go through
/// them: their narrowing rounds to nearest even by its immediate operand (not
/// the thread's mode) and keeps NaNs as the software does; their widening
/// would quiet a signalling NaN, so groups holding an infinity or a NaN are
/// widened in software. The arrays must not overlap.
KORA_API void widenHalves(const half* in, float* out, long n);
KORA_API void narrowToHalves(const float* in, half* out, long n);
/// Whether the F16C path is in use (for tests and benchmarks).
KORA_API bool halfConversionsUseF16c();

}  // namespace kora

// Half-precision values print as their binary32 reading.
template <>
struct fmt::formatter<kora::half> : fmt::formatter<float> {
  template <class Ctx>
  auto format(kora::half h, Ctx& ctx) const {
    return fmt::formatter<float>::format(h.toFloat(), ctx);
  }
};
template <>
struct fmt::formatter<kora::bfloat16> : fmt::formatter<float> {
  template <class Ctx>
  auto format(kora::bfloat16 h, Ctx& ctx) const {
    return fmt::formatter<float>::format(h.toFloat(), ctx);
  }
};
