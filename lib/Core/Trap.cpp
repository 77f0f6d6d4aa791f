#include "kora/Core/Trap.h"

#include <string_view>

#include "kora/Core/Context.h"

namespace kora {

void trapAt(const char* path, long line, const std::string& message) {
  // Paths print as the repository knows them, without their extension.
  std::string_view where(path);
  const auto slash = where.rfind('/');
  const auto dot = where.rfind('.');
  if (dot != std::string_view::npos && (slash == std::string_view::npos || dot > slash)) where = where.substr(0, dot);
  Context& context = Context::get();
  context.critical(fmt::format("trapped at {0}, line {1}", where, line).c_str());
  context.critical(message.c_str());
  __builtin_trap();
}

}  // namespace kora
