#pragma once
// The per-element conversion behind Tensor::cast and the Cast kernel: one
// rule per pair of element types, with a saturate flag.
//
//  - float -> float (f16, vbf16 as bfloat16, f32, f64): round to nearest,
//    ties to even, in one step. A finite value beyond the target's range
//    becomes infinity, or with `saturate` the largest finite value of its
//    sign. NaN stays NaN, infinities stay infinite.
//  - float -> integer: truncate toward zero, then clamp to the target's range
//    (NaN gives 0). This conversion always saturates: wrapping a float
//    modulo 2^n has no meaning worth reproducing.
//  - integer -> integer: two's complement wrap to the target width, or with
//    `saturate` a clamp to the target's range.
//  - integer -> float: round to nearest, ties to even; overflow as for
//    float -> float (only f16 and vbf16 can overflow).
//  - anything -> bool8: 1 when the value is non-zero (NaN included), else 0;
//    bool8 -> anything: 0 or 1 (any non-zero byte reads as 1).
//
// Everything rounds through integer bit arithmetic, so results do not depend
// on the thread's floating-point rounding mode.
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <type_traits>

#include "kora/Support/Dispatch.h"
#include "kora/Support/FloatFormat.h"

namespace kora {

namespace convert_detail {

__extension__ typedef __int128 Int128;
__extension__ typedef unsigned __int128 UInt128;

template <class T>
inline constexpr bool isFloatLike =
    std::is_floating_point_v<T> || std::is_same_v<T, half> || std::is_same_v<T, bfloat16>;

template <class T>
double toDouble(T x) {
  if constexpr (std::is_same_v<T, half> || std::is_same_v<T, bfloat16>)
    return double(x.toFloat());
  else
    return double(x);
}

template <class To>
To largestFinite() {
  if constexpr (std::is_same_v<To, half>)
    return half::fromBits(0x7bff);
  else if constexpr (std::is_same_v<To, bfloat16>)
    return bfloat16::fromBits(0x7f7f);
  else
    return std::numeric_limits<To>::max();
}

template <class To>
To withSign(To x, bool negative) {
  if constexpr (std::is_same_v<To, half> || std::is_same_v<To, bfloat16>)
    return To::fromBits(uint16_t(x.bits | (negative ? 0x8000 : 0)));
  else
    return negative ? -x : x;
}

template <class To>
bool isInfinite(To x) {
  if constexpr (std::is_same_v<To, half>)
    return (x.bits & 0x7fff) == 0x7c00;
  else if constexpr (std::is_same_v<To, bfloat16>)
    return (x.bits & 0x7fff) == 0x7f80;
  else
    return std::isinf(x);
}

// Float targets from an exact sign/significand/exponent triple.
template <class To>
To packFloat(bool negative, uint64_t significand, int exponent2) {
  if constexpr (std::is_same_v<To, half>)
    return half::fromBits(uint16_t(roundToFormat<5, 10>(negative, significand, exponent2)));
  else if constexpr (std::is_same_v<To, bfloat16>)
    return bfloat16::fromBits(uint16_t(roundToFormat<8, 7>(negative, significand, exponent2)));
  else if constexpr (std::is_same_v<To, float>)
    return std::bit_cast<float>(uint32_t(roundToFormat<8, 23>(negative, significand, exponent2)));
  else
    return std::bit_cast<double>(roundToFormat<11, 52>(negative, significand, exponent2));
}

template <class To>
To floatFromDouble(double d) {
  if constexpr (std::is_same_v<To, double>)
    return d;
  else if constexpr (std::is_same_v<To, half>)
    return half::fromBits(doubleToHalfBits(d));
  else if constexpr (std::is_same_v<To, bfloat16>)
    return bfloat16::fromBits(doubleToBf16Bits(d));
  else
    return doubleToFloat(d);
}

template <class To>
To saturateFloat(To result, bool sourceFinite, bool negative, bool saturate) {
  if (saturate && sourceFinite && isInfinite(result)) return withSign(largestFinite<To>(), negative);
  return result;
}

template <class To>
To truncateToInteger(double d) {
  if (std::isnan(d)) return 0;
  d = std::trunc(d);
  constexpr double low = double(std::numeric_limits<To>::min());
  constexpr double highExclusive = std::is_signed_v<To> ? -low : 2.0 * (double(std::numeric_limits<To>::max() / 2) + 1);
  if (d < low) return std::numeric_limits<To>::min();
  if (d >= highExclusive) return std::numeric_limits<To>::max();
  return To(d);
}

template <class To>
To integerFromWide(Int128 v, bool saturate) {
  if (saturate) {
    if (v < Int128(std::numeric_limits<To>::min())) return std::numeric_limits<To>::min();
    if (v > Int128(std::numeric_limits<To>::max())) return std::numeric_limits<To>::max();
  }
  return To(static_cast<std::make_unsigned_t<To>>(static_cast<UInt128>(v)));
}

template <class To, class From>
To convert(From x, bool saturate) {
  if constexpr (std::is_same_v<To, Bool8>) {
    if constexpr (std::is_same_v<From, Bool8>)
      return Bool8{uint8_t(x.value != 0)};
    else if constexpr (isFloatLike<From>)
      return Bool8{uint8_t(toDouble(x) != 0.0)};
    else
      return Bool8{uint8_t(x != 0)};
  } else if constexpr (isFloatLike<From>) {
    const double d = toDouble(x);
    if constexpr (isFloatLike<To>)
      return saturateFloat(floatFromDouble<To>(d), std::isfinite(d), std::signbit(d), saturate);
    else
      return truncateToInteger<To>(d);
  } else {
    Int128 v;
    if constexpr (std::is_same_v<From, Bool8>)
      v = x.value != 0;
    else
      v = x;
    if constexpr (isFloatLike<To>) {
      const bool negative = v < 0;
      const auto magnitude = uint64_t(negative ? -v : v);
      return saturateFloat(packFloat<To>(negative, magnitude, 0), true, negative, saturate);
    } else {
      return integerFromWide<To>(v, saturate);
    }
  }
}

}  // namespace convert_detail

/// `x` converted to `To` by the rule of its pair of types (see above).
template <class To, class From>
To convertElement(From x, bool saturate) {
  return convert_detail::convert<To, From>(x, saturate);
}

}  // namespace kora
