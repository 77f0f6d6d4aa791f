#pragma once
#include <array>
#include <cstdint>
#include <iosfwd>
#include <string_view>

#include <fmt/format.h>

#include "kora/Core/Export.h"
#include "kora/Core/Trap.h"

namespace kora {

/// How one element of a tensor is stored. The value packs three fields:
/// byte width << 16 | family << 8 | index. Every byte-size computation in the
/// library takes the width from the value itself, never from a table.
enum class ElementType : uint32_t {
  cf8 = 0x10001,
  f16 = 0x20002,
  f32 = 0x40003,
  f64 = 0x80004,
  vbf16 = 0x20005,
  vf32 = 0x40006,
  tf32 = 0x40007,
  si4x2 = 0x10101,
  si8 = 0x10102,
  si16 = 0x20103,
  si32 = 0x40104,
  si64 = 0x80105,
  ui8 = 0x10201,
  ui16 = 0x20202,
  ui32 = 0x40203,
  ui64 = 0x80204,
  bool8 = 0x10205,
  opaque8 = 0x103c8,
  opaque16 = 0x203c8,
  opaque32 = 0x403c8,
  opaque64 = 0x803c8,
  opaque128 = 0x1003c8,
  opaque256 = 0x2003c8,
  opaque512 = 0x4003c8,
  opaque1024 = 0x8003c8,
  opaque2048 = 0x10003c8,
  invalid = 0xFFFFFFFF,
};

/// Every valid element type, in the order of their values' listing.
inline constexpr std::array<ElementType, 26> kAllElementTypes = {
    ElementType::cf8,       ElementType::f16,        ElementType::f32,        ElementType::f64,
    ElementType::vbf16,     ElementType::vf32,       ElementType::tf32,       ElementType::si4x2,
    ElementType::si8,       ElementType::si16,       ElementType::si32,       ElementType::si64,
    ElementType::ui8,       ElementType::ui16,       ElementType::ui32,       ElementType::ui64,
    ElementType::bool8,     ElementType::opaque8,    ElementType::opaque16,   ElementType::opaque32,
    ElementType::opaque64,  ElementType::opaque128,  ElementType::opaque256,  ElementType::opaque512,
    ElementType::opaque1024, ElementType::opaque2048};

enum class TypeFamily : uint32_t { Float = 0, Signed = 1, Unsigned = 2, Opaque = 3 };

/// The printed name ("si8", "f16", "opaque128" ...); "invalid" for
/// ElementType::invalid and "unreachable" for any value not in the table.
KORA_API const char* elementTypeName(ElementType type);
/// The type whose name is `name`, or ElementType::invalid.
KORA_API ElementType elementTypeFromName(std::string_view name);

constexpr unsigned long byteWidth(ElementType type) { return static_cast<uint32_t>(type) >> 16; }
constexpr uint32_t familyBits(ElementType type) { return (static_cast<uint32_t>(type) >> 8) & 0xff; }
constexpr bool isFloat(ElementType type) { return familyBits(type) == uint32_t(TypeFamily::Float); }
constexpr bool isSignedInt(ElementType type) { return familyBits(type) == uint32_t(TypeFamily::Signed); }
/// True for ui8 ... ui64 and for bool8, which is an unsigned one-byte type.
constexpr bool isUnsignedInt(ElementType type) { return familyBits(type) == uint32_t(TypeFamily::Unsigned); }
constexpr bool isInteger(ElementType type) { return isSignedInt(type) || isUnsignedInt(type); }
constexpr bool isOpaque(ElementType type) { return familyBits(type) == uint32_t(TypeFamily::Opaque); }

/// The opaque type of `bytes` bytes (1, 2, 4, ..., 256). Any other width is a
/// programming error and traps.
KORA_API ElementType opaqueTypeOfWidth(unsigned long bytes);

/// The one fatal exit of every loop that meets an element type it does not
/// serve: logs "unknown element type: <name>" and traps.
[[noreturn]] inline void trapUnknownElementType(ElementType type) {
  trapAt("include/kora/Core/ElementType", __LINE__, fmt::format("unknown element type: {}", elementTypeName(type)));
}

KORA_API std::ostream& operator<<(std::ostream& os, ElementType type);

/// Severity of a message sent through the Context.
enum class LogLevel : uint32_t { info = 0, warn = 1, critical = 2 };

/// Rounding of the accelerator intrinsics' final shifts.
enum class RoundMode : uint32_t { FLOOR = 0, ROUND = 1, CEIL = 2 };
/// "FLOOR", "ROUND" and "CEIL" map to their modes; any other text to 3.
KORA_API RoundMode roundModeFromText(std::string_view text);

}  // namespace kora

template <>
struct fmt::formatter<kora::ElementType> : fmt::formatter<std::string_view> {
  template <class Ctx>
  auto format(kora::ElementType type, Ctx& ctx) const {
    return fmt::formatter<std::string_view>::format(kora::elementTypeName(type), ctx);
  }
};
