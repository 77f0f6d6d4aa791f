#pragma once
#include <functional>
#include <memory>
#include <string>

#include <fmt/format.h>

#include "kora/Core/ArrayRef.h"
#include "kora/Core/ElementType.h"
#include "kora/Core/Export.h"

namespace kora {

/// The one process-wide object of the library: settings read from the
/// environment, the switches callers may change, the type-name registry and
/// the logging entry points through which every message leaves.
///
/// Environment (read once, when the instance is first used):
///  - KORA_DISPATCHER_VERBOSE: set to anything (even empty or "0") turns the
///    invocation layer's verbose reports on.
///  - KORA_TRACE_COORD: the trace point, e.g. "1,0,3,5". Each comma-separated
///    piece is read like std::stoi, so a piece without digits throws
///    std::invalid_argument("stoi") and a value outside int32 throws
///    std::out_of_range("stoi") from the first Context::get().
///  - KORA_THREAD_NUM: read and ignored; kernels always run on the calling
///    thread.
///
/// Messages go to the host's sink when one is registered, otherwise to a
/// console logger named "console" (created on first use). Trace lines are
/// not messages: they go to the logging library's default logger (Trace.h).
///
/// Only creation of the instance and of the console logger is guarded;
/// changing the sink, the trace point or the verify flag while kernels run on
/// other threads must be serialised by the caller.
class KORA_API Context {
 public:
  using Sink = std::function<void(LogLevel, char const*, void*)>;

  /// The process-wide instance, built on first use and destroyed at exit.
  static Context& get();

  /// Builds a fresh state from the environment. Kernels only ever use get();
  /// a separate instance is useful to read the environment again.
  Context();
  ~Context();
  Context(const Context&) = delete;
  Context& operator=(const Context&) = delete;

  /// Writes one message: to the sink when registered (any level, unchanged),
  /// else to the "console" logger (info, warn, critical; other levels are
  /// dropped).
  void log(LogLevel level, char const* text);
  void info(char const* text) { log(LogLevel::info, text); }
  void warn(char const* text) { log(LogLevel::warn, text); }
  void critical(char const* text) { log(LogLevel::critical, text); }

  template <class... A>
  void logf(LogLevel level, fmt::format_string<A...> format, A&&... args) {
    log(level, fmt::format(format, std::forward<A>(args)...).c_str());
  }

  /// Installs a sink (an empty function removes it) and its user data.
  void regLogger(Sink sink, void* userData);

  /// Replaces the trace point with a copy of `coord`; empty switches tracing off.
  void setTracePoint(ArrayRef<long> coord);
  /// The trace point, valid until the next setTracePoint.
  ArrayRef<long> getTracePoint() const;

  void setEnableVerify(bool enable);
  bool getEnableVerify() const;
  bool getVerbose() const;

  /// Always 1: kernels run on the calling thread by design.
  long getNumThreads() const { return 1; }
  /// Ignored, see getNumThreads.
  void setNumThreads(long) {}

  /// The number registered for `name`; an unknown name gets the next free
  /// number (1000, 1001, ...).
  unsigned long getTypeId(char const* name);
  /// The registered name whose number is `id`, or null.
  char const* getTypeStr(unsigned long id) const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace kora
