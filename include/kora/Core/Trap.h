#pragma once
#include <string>

#include <fmt/format.h>

#include "kora/Core/Export.h"

namespace kora {

/// The library's assertion convention for broken invariants: logs at
/// critical level "trapped at <path>, line <line>", then `message`, and stops
/// the process with a trap instruction. `path` is printed relative to the
/// repository root and without its extension ("lib/Core/Tensor").
/// Bad input never comes here: it is reported through a failed Status.
[[noreturn]] KORA_API void trapAt(const char* path, long line, const std::string& message);

}  // namespace kora

/// Traps at the current source line with a message formatted by fmt.
#define KORA_TRAP(...) ::kora::trapAt(__FILE__, __LINE__, ::fmt::format(__VA_ARGS__))
