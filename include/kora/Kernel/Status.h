#pragma once
#include <string>
#include <utility>

#include <fmt/format.h>

#include "kora/Core/Export.h"

namespace kora {

/// The outcome of every Config and Impl function: ok, or failed with the full
/// message text. Bad input is always reported this way, never thrown.
class [[nodiscard]] Status {
 public:
  Status() = default;  // ok
  static Status success() { return Status(); }
  static Status failure(std::string message) { return Status(false, std::move(message)); }

  bool ok() const { return ok_; }
  const std::string& message() const { return message_; }
  explicit operator bool() const { return ok_; }

 private:
  Status(bool ok, std::string message) : ok_(ok), message_(std::move(message)) {}
  bool ok_ = true;
  std::string message_;
};

/// A failed Status with a message formatted by fmt.
template <class... A>
Status failure(fmt::format_string<A...> format, A&&... args) {
  return Status::failure(fmt::format(format, std::forward<A>(args)...));
}

/// "<kernel> config error: <reason>", the text of every Config failure.
inline Status configError(std::string_view kernel, std::string_view reason) {
  return Status::failure(fmt::format("{} config error: {}", kernel, reason));
}

}  // namespace kora

/// Returns the Status of `expr` from the enclosing function when it failed.
#define KORA_RETURN_IF_ERROR(expr)        \
  do {                                    \
    ::kora::Status koraStatus_ = (expr);  \
    if (!koraStatus_.ok()) return koraStatus_; \
  } while (0)
