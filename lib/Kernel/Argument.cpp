#include "kora/Kernel/Argument.h"

#include <cmath>
#include <cstdint>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "kora/Kernel/KindCode.h"
#include "kora/Kernel/Registration.h"
#include "kora/Support/FloatFormat.h"

namespace kora {

const char* Argument::kindName() const {
  switch (value_.index()) {
    case 1: return "Tensor";
    case 2: return "Tensor[]";
    case 3: return "bool";
    case 4: return "int64_t";
    case 5: return "double";
    case 6: return "string";
    case 7: return "int64_t[]";
    case 8: return "double[]";
    default: return "none";
  }
}

std::string toString(const Argument& argument) {
  return std::visit(
      [](const auto& v) -> std::string {
        using V = std::decay_t<decltype(v)>;
        if constexpr (std::is_same_v<V, std::monostate>)
          return "none";
        else if constexpr (std::is_same_v<V, Tensor>)
          return toString(v);
        else if constexpr (std::is_same_v<V, std::vector<Tensor>>) {
          std::string s = "[";
          for (size_t i = 0; i < v.size(); ++i) s += (i ? ", " : "") + toString(v[i]);
          return s + "]";
        } else if constexpr (std::is_same_v<V, std::string>)
          return fmt::format("\"{}\"", v);
        else
          return fmt::format("{}", v);
      },
      argument.value());
}

std::string kindName(uint64_t code) {
  switch (code) {
    case kKindTensor: return "Tensor";
    case kKindVector: return "Vector";
    case kKindString: return "string";
    default: break;
  }
  if (code >= kKindArray && code < kKindArray + 0x1000000) {
    const uint64_t element = code - kKindArray;
    if (element == kKindTensor - 0x1000000) return "Tensor[]";
    return kindName(element) + "[]";
  }
  switch (static_cast<ElementType>(code)) {
    case ElementType::si8: return "int8_t";
    case ElementType::si16: return "int16_t";
    case ElementType::si32: return "int32_t";
    case ElementType::si64: return "int64_t";
    case ElementType::ui8: return "uint8_t";
    case ElementType::ui16: return "uint16_t";
    case ElementType::ui32: return "uint32_t";
    case ElementType::ui64: return "uint64_t";
    case ElementType::bool8: return "bool";
    case ElementType::f16: return "half";
    case ElementType::f32: return "float";
    case ElementType::f64: return "double";
    default: return fmt::format("0x{:x}", code);
  }
}

namespace detail {

bool convertArgument(const Argument& a, Tensor& out) {
  if (const auto* t = a.get<Tensor>()) return out = *t, true;
  return false;
}

bool convertArgument(const Argument& a, std::vector<Tensor>& out) {
  if (const auto* t = a.get<std::vector<Tensor>>()) return out = *t, true;
  return false;
}

bool convertArgument(const Argument& a, std::string& out) {
  if (const auto* s = a.get<std::string>()) return out = *s, true;
  return false;
}

bool convertArgument(const Argument& a, bool& out) {
  if (const auto* b = a.get<bool>()) return out = *b, true;
  if (const auto* i = a.get<int64_t>(); i && (*i == 0 || *i == 1)) return out = *i != 0, true;
  return false;
}

bool convertArgument(const Argument& a, double& out) {
  if (const auto* d = a.get<double>()) return out = *d, true;
  if (const auto* i = a.get<int64_t>()) return out = double(*i), true;
  return false;
}

bool convertArgument(const Argument& a, float& out) {
  double d;
  if (!convertArgument(a, d)) return false;
  out = doubleToFloat(d);
  return true;
}

bool convertArgument(const Argument& a, half& out) {
  double d;
  if (!convertArgument(a, d)) return false;
  out = half::fromBits(doubleToHalfBits(d));
  return true;
}

bool convertArgument(const Argument& a, ElementType& out) {
  if (const auto* s = a.get<std::string>()) {
    out = elementTypeFromName(*s);
    return out != ElementType::invalid || *s == "invalid";
  }
  if (const auto* i = a.get<int64_t>()) {
    const auto type = static_cast<ElementType>(uint32_t(*i));
    if (std::string_view(elementTypeName(type)) == "unreachable" || *i < 0 || *i > 0xFFFFFFFF) return false;
    out = type;
    return true;
  }
  return false;
}

bool convertArgument(const Argument& a, RoundMode& out) {
  if (const auto* s = a.get<std::string>()) return out = roundModeFromText(*s), true;
  if (const auto* i = a.get<int64_t>(); i && *i >= 0 && *i <= 3) return out = static_cast<RoundMode>(*i), true;
  return false;
}

}  // namespace detail
}  // namespace kora
