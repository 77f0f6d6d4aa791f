#pragma once
// Element-type dispatch: the one place that maps an ElementType to a C++
// type. Kernels name the set of types they serve and pass a generic lambda:
//
//   dispatch<FloatTypes>(fout.elementType(), [&]<class T>() { loop<T>(...); });
//
// A type outside the set ends in the fatal "unknown element type: " trap.
#include <cstdint>
#include <type_traits>

#include <fmt/format.h>

#include "kora/Core/ElementType.h"
#include "kora/Support/Half.h"

namespace kora {

/// bool8 element: one byte, 0 false and anything else true.
struct Bool8 {
  uint8_t value = 0;
};
/// si4x2 element: one byte holding two signed 4-bit values.
struct Int4x2 {
  uint8_t bits = 0;
};

template <class T>
inline constexpr ElementType elementTypeOf = ElementType::invalid;
template <> inline constexpr ElementType elementTypeOf<half> = ElementType::f16;
template <> inline constexpr ElementType elementTypeOf<float> = ElementType::f32;
template <> inline constexpr ElementType elementTypeOf<double> = ElementType::f64;
template <> inline constexpr ElementType elementTypeOf<bfloat16> = ElementType::vbf16;
template <> inline constexpr ElementType elementTypeOf<Int4x2> = ElementType::si4x2;
template <> inline constexpr ElementType elementTypeOf<int8_t> = ElementType::si8;
template <> inline constexpr ElementType elementTypeOf<int16_t> = ElementType::si16;
template <> inline constexpr ElementType elementTypeOf<int32_t> = ElementType::si32;
template <> inline constexpr ElementType elementTypeOf<int64_t> = ElementType::si64;
template <> inline constexpr ElementType elementTypeOf<uint8_t> = ElementType::ui8;
template <> inline constexpr ElementType elementTypeOf<uint16_t> = ElementType::ui16;
template <> inline constexpr ElementType elementTypeOf<uint32_t> = ElementType::ui32;
template <> inline constexpr ElementType elementTypeOf<uint64_t> = ElementType::ui64;
template <> inline constexpr ElementType elementTypeOf<Bool8> = ElementType::bool8;

template <class... T>
struct TypeList {};

template <class... A, class... B>
constexpr TypeList<A..., B...> operator+(TypeList<A...>, TypeList<B...>) { return {}; }

using HalfFloat = TypeList<half, float>;
using FloatTypes = TypeList<half, float, double>;
using SignedTypes = TypeList<int8_t, int16_t, int32_t, int64_t>;
using UnsignedTypes = TypeList<uint8_t, uint16_t, uint32_t, uint64_t>;
using IntegerTypes = decltype(SignedTypes{} + UnsignedTypes{});
/// Every type with a numeric reading: floats (with bfloat16), integers, bool8.
using NumericTypes = decltype(FloatTypes{} + TypeList<bfloat16>{} + IntegerTypes{} + TypeList<Bool8>{});

/// Calls `f.template operator()<T>()` for the T of `type` in `List`, or traps.
template <class List, class F>
decltype(auto) dispatch(ElementType type, F&& f);

template <class... T, class F>
decltype(auto) dispatchIn(TypeList<T...>, ElementType type, F&& f) {
  using R = decltype(f.template operator()<std::tuple_element_t<0, std::tuple<T...>>>());
  if constexpr (std::is_void_v<R>) {
    bool found = ((type == elementTypeOf<T> ? (f.template operator()<T>(), true) : false) || ...);
    if (!found) trapUnknownElementType(type);
  } else {
    R result{};
    bool found = ((type == elementTypeOf<T> ? (result = f.template operator()<T>(), true) : false) || ...);
    if (!found) trapUnknownElementType(type);
    return result;
  }
}

template <class List, class F>
decltype(auto) dispatch(ElementType type, F&& f) {
  return dispatchIn(List{}, type, std::forward<F>(f));
}

/// Whether `type` belongs to `List` (to refuse with a Status before dispatching).
template <class... T>
constexpr bool typeIn(TypeList<T...>, ElementType type) {
  return ((type == elementTypeOf<T>) || ...);
}
template <class List>
constexpr bool typeIn(ElementType type) {
  return typeIn(List{}, type);
}

/// The type an element is computed in: half and bfloat16 widen to float.
template <class T>
using ComputeType = std::conditional_t<std::is_same_v<T, half> || std::is_same_v<T, bfloat16>, float, T>;

template <class T>
constexpr ComputeType<T> widen(T x) {
  if constexpr (std::is_same_v<T, half> || std::is_same_v<T, bfloat16>)
    return x.toFloat();
  else
    return x;
}

template <class T>
constexpr T narrow(ComputeType<T> x) {
  if constexpr (std::is_same_v<T, half> || std::is_same_v<T, bfloat16>)
    return T(x);
  else
    return x;
}

}  // namespace kora

// A bool8 element prints as the number its byte holds (0 or 1 when
// normalised), as in trace lines of the logical operators.
template <>
struct fmt::formatter<kora::Bool8> : fmt::formatter<unsigned> {
  template <class Ctx>
  auto format(kora::Bool8 b, Ctx& ctx) const {
    return fmt::formatter<unsigned>::format(b.value, ctx);
  }
};
