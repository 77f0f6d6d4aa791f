#include "kora/Core/ElementType.h"

#include <ostream>

#include "kora/Core/Context.h"
#include "kora/Core/Trap.h"

namespace kora {

const char* elementTypeName(ElementType type) {
  switch (type) {
    case ElementType::cf8: return "cf8";
    case ElementType::f16: return "f16";
    case ElementType::f32: return "f32";
    case ElementType::f64: return "f64";
    case ElementType::vbf16: return "vbf16";
    case ElementType::vf32: return "vf32";
    case ElementType::tf32: return "tf32";
    case ElementType::si4x2: return "si4x2";
    case ElementType::si8: return "si8";
    case ElementType::si16: return "si16";
    case ElementType::si32: return "si32";
    case ElementType::si64: return "si64";
    case ElementType::ui8: return "ui8";
    case ElementType::ui16: return "ui16";
    case ElementType::ui32: return "ui32";
    case ElementType::ui64: return "ui64";
    case ElementType::bool8: return "bool8";
    case ElementType::opaque8: return "opaque8";
    case ElementType::opaque16: return "opaque16";
    case ElementType::opaque32: return "opaque32";
    case ElementType::opaque64: return "opaque64";
    case ElementType::opaque128: return "opaque128";
    case ElementType::opaque256: return "opaque256";
    case ElementType::opaque512: return "opaque512";
    case ElementType::opaque1024: return "opaque1024";
    case ElementType::opaque2048: return "opaque2048";
    case ElementType::invalid: return "invalid";
  }
  return "unreachable";
}

ElementType elementTypeFromName(std::string_view name) {
  for (ElementType type : kAllElementTypes)
    if (name == elementTypeName(type)) return type;
  return ElementType::invalid;
}

ElementType opaqueTypeOfWidth(unsigned long bytes) {
  for (ElementType type : kAllElementTypes)
    if (isOpaque(type) && byteWidth(type) == bytes) return type;
  // The site of this trap is part of the library's published messages.
  trapAt("include/kora/Core/ElementType", 278, fmt::format("no opaque type for byte size {}", bytes));
}

std::ostream& operator<<(std::ostream& os, ElementType type) { return os << elementTypeName(type); }

RoundMode roundModeFromText(std::string_view text) {
  if (text == "FLOOR") return RoundMode::FLOOR;
  if (text == "ROUND") return RoundMode::ROUND;
  if (text == "CEIL") return RoundMode::CEIL;
  return static_cast<RoundMode>(3);
}

}  // namespace kora
