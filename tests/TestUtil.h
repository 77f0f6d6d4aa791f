#pragma once
// Helpers shared by the tests: building tensors from values, reading them
// back through their strides, and capturing trace lines and log messages.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <spdlog/sinks/ostream_sink.h>
#include <spdlog/spdlog.h>

#include "kora/Kora.h"

namespace kora::test {

/// A compact tensor holding `values` in row-major order.
template <class T>
Tensor tensorOf(ElementType type, std::vector<long> shape, const std::vector<T>& values) {
  Tensor t = Tensor::create(type, shape);
  auto data = t.data<T>();
  if (values.size() != data.size()) throw std::logic_error("tensorOf: value count does not match the shape");
  if (!values.empty()) std::memcpy(data.data(), values.data(), values.size() * sizeof(T));
  return t;
}

/// The elements of any (strided) tensor in row-major order.
template <class T>
std::vector<T> valuesOf(const Tensor& t) {
  Tensor compact = Tensor::create(t.elementType(), t.shape());
  copyElements(compact, t);
  return compact.data<T>().vec();
}

/// The bit pattern of each element, for bit-exact comparisons.
template <class T, class Bits = std::conditional_t<sizeof(T) == 2, uint16_t, std::conditional_t<sizeof(T) == 4, uint32_t, uint64_t>>>
std::vector<Bits> bitsOf(const Tensor& t) {
  std::vector<T> v = valuesOf<T>(t);
  std::vector<Bits> bits(v.size());
  std::memcpy(bits.data(), v.data(), v.size() * sizeof(T));
  return bits;
}

/// Sets the trace point for a scope.
class ScopedTracePoint {
 public:
  explicit ScopedTracePoint(std::vector<long> point) { Context::get().setTracePoint(point); }
  ~ScopedTracePoint() { Context::get().setTracePoint({}); }
};

/// Collects the trace lines written to the default logger during its life.
class TraceCapture {
 public:
  TraceCapture() : previous_(spdlog::default_logger()) {
    auto sink = std::make_shared<spdlog::sinks::ostream_sink_mt>(stream_);
    sink->set_pattern("%v");
    spdlog::set_default_logger(std::make_shared<spdlog::logger>("trace-capture", sink));
  }
  ~TraceCapture() { spdlog::set_default_logger(previous_); }

  std::vector<std::string> lines() const {
    std::vector<std::string> result;
    std::istringstream in(stream_.str());
    for (std::string line; std::getline(in, line);) result.push_back(line);
    return result;
  }

 private:
  std::ostringstream stream_;
  std::shared_ptr<spdlog::logger> previous_;
};

/// Collects Context messages (level, text) through a registered sink.
class LogCapture {
 public:
  LogCapture() {
    Context::get().regLogger(
        [](LogLevel level, const char* text, void* self) {
          static_cast<LogCapture*>(self)->messages.emplace_back(level, text);
        },
        this);
  }
  ~LogCapture() { Context::get().regLogger({}, nullptr); }
  std::vector<std::pair<LogLevel, std::string>> messages;
};

/// For death tests: Context messages go to stderr as "<level>|<text>", where
/// gtest can match them.
inline void logToStderr() {
  Context::get().regLogger([](LogLevel level, const char* text, void*) {
    std::fprintf(stderr, "%u|%s\n", unsigned(level), text);
  }, nullptr);
}

/// The bytes of a compact copy of `t` (empty without data), for exact
/// comparisons across element types and layouts.
inline std::string compactBytes(const Tensor& t) {
  if (!t.storage() || t.isEmpty()) return {};
  Tensor c = t.contiguous();
  return std::string(c.storage()->data() + c.offset(), c.byteSpan());
}

/// Every byte of the storage behind `t` (empty without one): compare before
/// and after a call to see that it wrote nothing.
inline std::string storageBytes(const Tensor& t) {
  return t.storage() ? std::string(t.storage()->data(), t.storage()->size()) : std::string();
}

/// A compact tensor whose every byte is `byte`, to see which elements a call writes.
inline Tensor filled(ElementType type, std::vector<long> shape, unsigned char byte) {
  Tensor t = Tensor::create(type, shape);
  if (t.storage()) std::memset(t.storage()->data(), byte, t.storage()->size());
  return t;
}

/// The bytes of values of type T, one after the other.
template <class T>
std::string raw(std::initializer_list<T> values) {
  std::string s;
  for (T v : values) s.append(reinterpret_cast<const char*>(&v), sizeof(T));
  return s;
}

/// The little-endian bytes of 64-bit words (the serialized tensor's header).
inline std::string words(std::initializer_list<uint64_t> list) { return raw<uint64_t>(list); }

inline std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

inline void writeFile(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

/// A fresh directory under the system's temporary one, removed with its content.
class TempDir {
 public:
  TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "kora-test-XXXXXX").string();
    path_ = ::mkdtemp(pattern.data());
  }
  ~TempDir() { std::filesystem::remove_all(path_); }
  std::string operator/(const std::string& name) const { return (path_ / name).string(); }
  /// The names in the directory, sorted.
  std::vector<std::string> names() const {
    std::vector<std::string> list;
    for (const auto& e : std::filesystem::directory_iterator(path_)) list.push_back(e.path().filename().string());
    std::sort(list.begin(), list.end());
    return list;
  }

 private:
  std::filesystem::path path_;
};

}  // namespace kora::test
