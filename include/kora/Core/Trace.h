#pragma once
#include <string_view>
#include <utility>

#include <fmt/format.h>

#include "kora/Core/ArrayRef.h"
#include "kora/Core/Export.h"
#include "kora/Core/Tensor.h"

namespace kora {

/// A coordinate of up to kMaxRank entries held inline (no allocation), printed
/// in trace lines as "[1, 0, 3]".
struct Coord {
  long v[kMaxRank] = {};
  unsigned long rank = 0;

  Coord() = default;
  explicit Coord(ArrayRef<long> c) : rank(c.size()) {
    for (unsigned long i = 0; i < rank; ++i) v[i] = c[i];
  }
  ArrayRef<long> ref() const { return {v, rank}; }
  operator ArrayRef<long>() const { return ref(); }
  long& operator[](unsigned long i) { return v[i]; }
  long operator[](unsigned long i) const { return v[i]; }
  void push(long x) { v[rank++] = x; }
  bool operator==(const Coord& o) const { return ref().equals(o.ref()); }
};

/// The trace point as one kernel call sees it, fetched once per call.
///
/// It is active only when the Context holds a trace point of the output's
/// rank that lies inside the output's extent; any other trace point (another
/// rank, out of range, none) traces nothing and is no error.
class KORA_API TracePoint {
 public:
  static TracePoint forOutput(ArrayRef<long> outputShape);
  static TracePoint forOutput(const Tensor& output) { return forOutput(output.shape()); }

  explicit operator bool() const { return active_; }
  const Coord& coord() const { return coord_; }
  bool matches(ArrayRef<long> c) const { return active_ && coord_.ref().equals(c); }

 private:
  bool active_ = false;
  Coord coord_;
};

/// Writes one finished trace line at info level to the logging library's
/// default logger (not through Context::log: a host's sink does not see it).
KORA_API void writeTraceLine(std::string_view line);
/// Whether the default logger would print an info line (or keeps a
/// backtrace); when not, trace lines are not even formatted.
KORA_API bool traceLoggerActive();

/// Trace policies. Each kernel writes its arithmetic for one output element
/// once, templated on the policy: the loop instantiates it with NoTrace, where
/// every trace call compiles to nothing, and the traced element is computed
/// once more with Tracer, which formats and writes each step.
struct NoTrace {
  static constexpr bool enabled = false;
  template <class... A>
  void operator()(fmt::format_string<A...>, A&&...) const {}
};

struct Tracer {
  static constexpr bool enabled = true;
  bool active = traceLoggerActive();
  template <class... A>
  void operator()(fmt::format_string<A...> format, A&&... args) const {
    if (active) writeTraceLine(fmt::format(format, std::forward<A>(args)...));
  }
};

}  // namespace kora

/// Emits a trace step only in the traced instantiation, so the arguments are
/// not even evaluated in the untraced loop.
#define KORA_TRACE(policy, ...)                                       \
  do {                                                                \
    if constexpr (std::decay_t<decltype(policy)>::enabled) policy(__VA_ARGS__); \
  } while (0)

template <>
struct fmt::formatter<kora::Coord> {
  constexpr auto parse(fmt::format_parse_context& ctx) { return ctx.begin(); }
  template <class Ctx>
  auto format(const kora::Coord& c, Ctx& ctx) const {
    auto out = ctx.out();
    *out++ = '[';
    for (unsigned long i = 0; i < c.rank; ++i) {
      if (i) out = fmt::format_to(out, ", ");
      out = fmt::format_to(out, "{}", c.v[i]);
    }
    *out++ = ']';
    return out;
  }
};
