#pragma once
// Fixed-point primitives of the accelerator models, the quantizers and the
// integer detection kernels, each named after what it models. Wrapping
// arithmetic goes through unsigned types (signed overflow is undefined in
// C++); shifts of signed values are spelled out here so that no kernel holds
// a bare >> on a signed operand. Extend this header rather than writing a
// local variant in a kernel.
#include <cmath>
#include <bit>
#include <cstdint>
#include <limits>
#include <type_traits>

namespace kora::fixed {

/// a + b modulo 2^bits of T (two's complement wrap, as a hardware adder).
template <class T>
constexpr T wrapAdd(T a, T b) {
  using U = std::make_unsigned_t<T>;
  return T(U(U(a) + U(b)));
}

template <class T>
constexpr T wrapSub(T a, T b) {
  using U = std::make_unsigned_t<T>;
  return T(U(U(a) - U(b)));
}

/// a * b modulo 2^bits of T.
template <class T>
constexpr T wrapMul(T a, T b) {
  using U = std::make_unsigned_t<T>;
  using Wide = std::conditional_t<(sizeof(U) < sizeof(unsigned)), unsigned, U>;  // no promotion to int
  return T(U(Wide(U(a)) * Wide(U(b))));
}

constexpr int32_t wrapAdd32(int32_t a, int32_t b) { return wrapAdd<int32_t>(a, b); }

/// a / b truncated toward zero, as an integer divider that never traps: a
/// divisor of 0 gives 0, and a divisor of -1 gives the wrapping negation of
/// a (so the most negative value divided by -1 is itself).
template <class T>
constexpr T divideTowardZero(T a, T b) {
  static_assert(std::is_integral_v<T>);
  if (b == 0) return 0;
  if constexpr (std::is_signed_v<T>) {
    if (b == T(-1)) return wrapSub(T(0), a);
  }
  return T(a / b);
}

/// a - q * b with q = divideTowardZero(a, b), wrapping: the remainder of a
/// truncating division, with the dividend's sign; a divisor of 0 gives a.
template <class T>
constexpr T remainderTowardZero(T a, T b) {
  return wrapSub(a, wrapMul(divideTowardZero(a, b), b));
}

/// Arithmetic (sign-copying) shift right by n in [0, bits of T); models a
/// hardware shifter that floors toward minus infinity.
template <class T>
constexpr T shiftRightArithmetic(T value, unsigned n) {
  static_assert(std::is_signed_v<T>);
  return value >> n;  // arithmetic for signed operands since C++20
}

/// Shift left by n in [0, bits of T), wrapping bits out of the top as a
/// hardware shifter does (no undefined behaviour for negative values).
template <class T>
constexpr T shiftLeftWrap(T value, unsigned n) {
  using U = std::make_unsigned_t<T>;
  return T(U(U(value) << n));
}

/// Right shift by n that rounds half up (toward plus infinity on ties): adds
/// bit n-1 of the value to the floored result. n = 0 returns the value.
template <class T>
constexpr T roundingShiftRight(T value, unsigned n) {
  if (n == 0) return value;
  const T floored = shiftRightArithmetic(value, n);
  const T roundBit = T((std::make_unsigned_t<T>(value) >> (n - 1)) & 1u);
  return wrapAdd(floored, roundBit);
}

/// a / b in unsigned arithmetic, and 0 when b is 0: a hardware divider's
/// answer to a zero divisor rather than a fault.
template <class U>
constexpr U divideOrZero(U a, U b) {
  static_assert(std::is_unsigned_v<U>);
  return b == 0 ? U(0) : U(a / b);
}

/// `x` rounded to the nearest integer, ties away from zero, then clamped to
/// the range of T. `x` must not be NaN.
template <class T>
T roundHalfAwaySaturate(double x) {
  const double r = std::round(x);
  if (r <= double(std::numeric_limits<T>::min())) return std::numeric_limits<T>::min();
  if (r >= double(std::numeric_limits<T>::max())) return std::numeric_limits<T>::max();
  return T(r);
}

/// `value` clamped to the range of T.
template <class T, class V>
constexpr T saturate(V value) {
  if constexpr (std::numeric_limits<V>::is_signed && !std::numeric_limits<T>::is_signed) {
    if (value < 0) return 0;
  }
  if constexpr (std::numeric_limits<V>::digits > std::numeric_limits<T>::digits) {
    if (value > V(std::numeric_limits<T>::max())) return std::numeric_limits<T>::max();
  }
  if constexpr (std::numeric_limits<V>::is_signed && std::numeric_limits<T>::is_signed &&
                std::numeric_limits<V>::digits > std::numeric_limits<T>::digits) {
    if (value < V(std::numeric_limits<T>::min())) return std::numeric_limits<T>::min();
  }
  return T(value);
}

/// `value` clamped to [lo, hi] in int64.
constexpr int64_t clamp64(int64_t value, int64_t lo, int64_t hi) { return value < lo ? lo : value > hi ? hi : value; }

/// Mask of bits [hi:lo] of a 64-bit word.
constexpr uint64_t bitMask(unsigned hi, unsigned lo) {
  return (hi - lo >= 63 ? ~uint64_t(0) : ((uint64_t(1) << (hi - lo + 1)) - 1)) << lo;
}

/// Bits [hi:lo] of `word`, right-aligned.
constexpr uint64_t extractBits(uint64_t word, unsigned hi, unsigned lo) { return (word & bitMask(hi, lo)) >> lo; }

/// `word` with bits [hi:lo] replaced by the low bits of `value` (masked to
/// the field's width, as a register field write).
constexpr uint64_t insertBits(uint64_t word, unsigned hi, unsigned lo, uint64_t value) {
  return (word & ~bitMask(hi, lo)) | ((value << lo) & bitMask(hi, lo));
}

/// The low `bits` bits of `value` read as a two's complement number.
constexpr int64_t signExtend(uint64_t value, unsigned bits) {
  const uint64_t field = bits >= 64 ? value : value & ((uint64_t(1) << bits) - 1);
  const uint64_t sign = uint64_t(1) << (bits - 1);
  return int64_t(field ^ sign) - int64_t(sign);
}

/// A shifter whose signed amount chooses the direction: n >= 0 shifts right
/// arithmetically (floor), n < 0 shifts left by -n, wrapping bits out of the
/// top. |n| must be below the bits of T. Post-process units use it for
/// rescale shifts that may run either way.
template <class T>
constexpr T shiftRightOrLeft(T value, int n) {
  return n >= 0 ? shiftRightArithmetic(value, unsigned(n)) : shiftLeftWrap(value, unsigned(-n));
}

/// Logical (zero-filling) right shift of a 32-bit register by s modulo 32, as
/// a barrel shifter that only decodes the low five bits of its amount.
constexpr uint32_t shiftRightLogical32(uint32_t value, unsigned s) { return value >> (s & 31u); }

/// The low 32 bits of `value` read as two's complement: what a 32-bit
/// register keeps of a wider value.
constexpr int32_t truncateToInt32(int64_t value) { return int32_t(uint32_t(uint64_t(value))); }
/// `value` rounded to an integral value, ties to even (2.5 -> 2, -2.5 -> -2,
/// 3.5 -> 4); infinities and NaN come back unchanged and -0.3 gives -0.
/// Models the binary32 round-to-integral of a thread in round-to-nearest
/// mode, and needs that mode: the caller sets it (std::fesetround). It adds
/// and subtracts 2^23, which leaves exactly the integer part of a magnitude
/// below 2^23; larger magnitudes are integral already. The selects are bit
/// masks so that loops over it vectorise with the baseline instruction set.
inline float roundHalfToEven(float value) {
  const uint32_t bits = std::bit_cast<uint32_t>(value);
  const uint32_t magnitudeBits = bits & 0x7fffffffu;
  const float magnitude = std::bit_cast<float>(magnitudeBits);
  const float rounded = (magnitude + 0x1p23f) - 0x1p23f;
  const uint32_t roundedBits = std::bit_cast<uint32_t>(rounded) | (bits & 0x80000000u);
  const uint32_t small = 0u - uint32_t(int32_t(magnitudeBits) < 0x4b000000);  // |value| < 2^23
  return std::bit_cast<float>((roundedBits & small) | (bits & ~small));
}

/// The largest integral value not above `value` (binary32 floor); needs
/// round-to-nearest mode, as roundHalfToEven. One below the nearest integer
/// when that lies above `value`: then |value| < 2^23 and the subtraction is
/// exact.
inline float floorIntegral(float value) {
  const float nearest = roundHalfToEven(value);
  const float below = nearest - 1.0f;
  const uint32_t above = 0u - uint32_t(nearest > value);
  return std::bit_cast<float>((std::bit_cast<uint32_t>(below) & above) | (std::bit_cast<uint32_t>(nearest) & ~above));
}

/// The integral binary32 `value` as int64, saturating: NaN gives 0, values
/// from 2^63 (+infinity included) give INT64_MAX and values below -2^63
/// (-infinity included) INT64_MIN; anything else is truncated toward zero.
constexpr int64_t saturatingFloatToInt64(float value) {
  if (value != value) return 0;
  if (value >= 0x1p63f) return std::numeric_limits<int64_t>::max();
  if (value < -0x1p63f) return std::numeric_limits<int64_t>::min();
  return int64_t(value);
}

/// clamp64(saturatingFloatToInt64(roundHalfToEven(value)), lo, hi) for
/// integral bounds of magnitude at most 2^22, computed in binary32 lanes:
/// NaN becomes 0, the value is clamped (rounding commutes with a clamp to
/// integers), then rounded by adding and subtracting 1.5 * 2^23, which
/// leaves the nearest integer, ties to even, of any magnitude below 2^22.
/// Needs round-to-nearest mode, as roundHalfToEven. Lets loops over 8- and
/// 16-bit outputs vectorise.
inline int32_t roundHalfToEvenClamped(float value, float lo, float hi) {
  const uint32_t ordered = 0u - uint32_t(value == value);
  float clamped = std::bit_cast<float>(std::bit_cast<uint32_t>(value) & ordered);
  clamped = clamped < lo ? lo : clamped;
  clamped = clamped > hi ? hi : clamped;
  return int32_t((clamped + 0x1.8p23f) - 0x1.8p23f);
}

/// clamp64(saturatingFloatToInt64(floorIntegral(value)), lo, hi), computed
/// as roundHalfToEvenClamped, then one down where the nearest integer lies
/// above the clamped value.
inline int32_t floorClamped(float value, float lo, float hi) {
  const uint32_t ordered = 0u - uint32_t(value == value);
  float clamped = std::bit_cast<float>(std::bit_cast<uint32_t>(value) & ordered);
  clamped = clamped < lo ? lo : clamped;
  clamped = clamped > hi ? hi : clamped;
  const float nearest = (clamped + 0x1.8p23f) - 0x1.8p23f;
  const uint32_t above = 0u - uint32_t(nearest > clamped);
  return int32_t(nearest - std::bit_cast<float>(std::bit_cast<uint32_t>(1.0f) & above));
}

}  // namespace kora::fixed
