#include "kora/Core/Context.h"

#include <cstdlib>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include <spdlog/sinks/stdout_color_sinks.h>
#include <spdlog/spdlog.h>

namespace kora {

struct Context::State {
  bool verbose = false;
  std::vector<long> tracePoint;
  bool enableVerify = true;
  unsigned long nextTypeId = 1000;
  std::map<std::string, unsigned long> typeIds;
  Sink logger;
  void* loggerData = nullptr;
};

namespace {

// Reads "1,0,3" like std::stoi on each comma-separated piece: leading blanks
// and a sign are allowed, trailing characters ignored, an empty piece or one
// without digits throws invalid_argument("stoi"), a value outside int32
// throws out_of_range("stoi").
std::vector<long> parseTracePoint(const std::string& text) {
  std::vector<long> point;
  std::string::size_type start = 0;
  for (;;) {
    const auto comma = text.find(',', start);
    point.push_back(std::stoi(text.substr(start, comma == std::string::npos ? std::string::npos : comma - start)));
    if (comma == std::string::npos) return point;
    start = comma + 1;
  }
}

spdlog::logger& consoleLogger() {
  static std::once_flag once;
  static std::shared_ptr<spdlog::logger> logger;
  std::call_once(once, [] {
    logger = spdlog::get("console");
    if (!logger) logger = spdlog::stdout_color_mt("console");
  });
  return *logger;
}

}  // namespace

Context& Context::get() {
  static Context instance;
  return instance;
}

Context::Context() : state_(std::make_unique<State>()) {
  state_->verbose = std::getenv("KORA_DISPATCHER_VERBOSE") != nullptr;
  if (const char* coord = std::getenv("KORA_TRACE_COORD")) state_->tracePoint = parseTracePoint(coord);
  // Read for compatibility with hosts that set it; the thread count stays 1.
  if (const char* threads = std::getenv("KORA_THREAD_NUM")) (void)std::strtol(threads, nullptr, 10);
}

Context::~Context() = default;

void Context::log(LogLevel level, char const* text) {
  if (state_->logger) {
    state_->logger(level, text, state_->loggerData);
    return;
  }
  switch (level) {
    case LogLevel::info: consoleLogger().info(text); break;
    case LogLevel::warn: consoleLogger().warn(text); break;
    case LogLevel::critical:
      consoleLogger().critical(text);
      consoleLogger().flush();
      break;
    default: break;  // no other level is logged
  }
}

void Context::regLogger(Sink sink, void* userData) {
  state_->logger = std::move(sink);
  state_->loggerData = userData;
}

void Context::setTracePoint(ArrayRef<long> coord) { state_->tracePoint.assign(coord.begin(), coord.end()); }
ArrayRef<long> Context::getTracePoint() const { return state_->tracePoint; }
void Context::setEnableVerify(bool enable) { state_->enableVerify = enable; }
bool Context::getEnableVerify() const { return state_->enableVerify; }
bool Context::getVerbose() const { return state_->verbose; }

unsigned long Context::getTypeId(char const* name) {
  auto [it, inserted] = state_->typeIds.try_emplace(name, state_->nextTypeId);
  if (inserted) ++state_->nextTypeId;
  return it->second;
}

char const* Context::getTypeStr(unsigned long id) const {
  for (const auto& [name, value] : state_->typeIds)
    if (value == id) return name.c_str();
  return nullptr;
}

}  // namespace kora
