#pragma once
// Argument kind codes: what each parameter of a registered kernel is. A
// scalar's code is the ElementType value of its C type, an array's is
// 0x3000000 plus its element's code, and tensors have codes of their own.
// Codes are derived from the C++ parameter types by `ParamKind`, so a
// registration never spells one out.
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "kora/Core/ArrayRef.h"
#include "kora/Core/ElementType.h"
#include "kora/Core/Export.h"
#include "kora/Core/Tensor.h"
#include "kora/Support/Dispatch.h"

namespace kora {

inline constexpr uint64_t kKindTensor = 0x1000400;
inline constexpr uint64_t kKindVector = 0x1000401;
/// Text parameters (std::string, std::string_view, const char*).
inline constexpr uint64_t kKindString = 0x1000404;
inline constexpr uint64_t kKindArray = 0x3000000;

/// The quoted name of a kind code: "Tensor", "int64_t", "float[]", "bool" ...
/// An unknown code prints as hexadecimal.
KORA_API std::string kindName(uint64_t code);

template <class T>
constexpr uint64_t scalarKind() {
  if constexpr (std::is_same_v<T, bool>)
    return uint64_t(ElementType::bool8);
  else if constexpr (std::is_same_v<T, ElementType>)
    return uint64_t(ElementType::ui64);  // an ElementType travels as a 64-bit word
  else if constexpr (std::is_same_v<T, RoundMode>)
    return uint64_t(ElementType::ui32);
  else {
    static_assert(elementTypeOf<T> != ElementType::invalid, "no kind code for this parameter type");
    return uint64_t(elementTypeOf<T>);
  }
}

template <class T>
struct IsVector : std::false_type {};
template <class T>
struct IsVector<std::vector<T>> : std::true_type {
  using Element = T;
};
template <class T>
struct IsArrayRef : std::false_type {};
template <class T>
struct IsArrayRef<ArrayRef<T>> : std::true_type {
  using Element = T;
};

/// The kind code of a parameter type.
template <class P>
constexpr uint64_t paramKind() {
  using D = std::remove_cvref_t<P>;
  if constexpr (std::is_same_v<D, Tensor>)
    return kKindTensor;
  else if constexpr (std::is_same_v<D, std::vector<Tensor>>)
    return kKindArray + kKindTensor - 0x1000000;  // "Tensor[]" 0x3000400
  else if constexpr (std::is_same_v<D, std::string> || std::is_same_v<D, std::string_view> ||
                     std::is_same_v<D, const char*>)
    return kKindString;
  else if constexpr (IsVector<D>::value)
    return kKindArray + scalarKind<typename IsVector<D>::Element>();
  else if constexpr (IsArrayRef<D>::value)
    return kKindArray + scalarKind<typename IsArrayRef<D>::Element>();
  else
    return scalarKind<D>();
}

/// Output parameters are the leading non-const tensor references.
template <class P>
inline constexpr bool isOutputParam = std::is_same_v<P, Tensor&>;

}  // namespace kora
