#include "kora/Core/Trace.h"

#include <spdlog/spdlog.h>

#include "kora/Core/Context.h"

namespace kora {

TracePoint TracePoint::forOutput(ArrayRef<long> outputShape) {
  TracePoint tp;
  ArrayRef<long> point = Context::get().getTracePoint();
  if (point.empty() || point.size() != outputShape.size()) return tp;
  for (unsigned long i = 0; i < point.size(); ++i)
    if (point[i] < 0 || point[i] >= outputShape[i]) return tp;
  tp.active_ = true;
  tp.coord_ = Coord(point);
  return tp;
}

bool traceLoggerActive() {
  spdlog::logger* logger = spdlog::default_logger_raw();
  return logger && (logger->should_log(spdlog::level::info) || logger->should_backtrace());
}

void writeTraceLine(std::string_view line) {
  if (spdlog::logger* logger = spdlog::default_logger_raw()) logger->info(line);
}

}  // namespace kora
