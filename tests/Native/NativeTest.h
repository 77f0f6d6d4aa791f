#pragma once
// Helpers shared by the native kernel tests: running a kernel as a host
// does, data that tells summation orders apart, the layouts every loop must
// walk, and the checks of trace lines, failure texts and traps.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <functional>
#include <random>

#include "TestUtil.h"

namespace kora::test {

inline const float kInf = std::numeric_limits<float>::infinity();
inline const float kNaN = std::numeric_limits<float>::quiet_NaN();

/// Equal bits, or two NaNs (whose payloads are not compared).
inline bool sameFloat(float a, float b) {
  return (std::isnan(a) && std::isnan(b)) || std::bit_cast<uint32_t>(a) == std::bit_cast<uint32_t>(b);
}

/// Config on `out` (whose type the caller may set), allocate, compute: both
/// must succeed.
template <class Config, class Compute, class... Args>
Tensor runKernel(Config config, Compute compute, Tensor out, const Args&... args) {
  Status s = config(out, args...);
  EXPECT_TRUE(s.ok()) << s.message();
  out.allocate();
  s = compute(out, args...);
  EXPECT_TRUE(s.ok()) << s.message();
  return out;
}

/// Values spread over 2^(minExp) .. 2^(maxExp + 1) with both signs: their
/// sums round differently in almost any other order.
inline std::vector<float> spreadValues(size_t n, unsigned seed, int minExp = -10, int maxExp = 20) {
  std::mt19937 rng(seed);
  std::uniform_int_distribution<int> exponent(minExp, maxExp), mantissa(1 << 20, (1 << 21) - 1);
  std::vector<float> v(n);
  for (float& x : v) x = std::ldexp(float(mantissa(rng)) * ((rng() & 1) ? -1.0f : 1.0f), exponent(rng) - 20);
  return v;
}

/// A copy of `t` whose storage runs in the reverse order of its axes.
inline Tensor transposedCopy(const Tensor& t) {
  std::vector<long> shape = t.shape().vec(), reversed(shape.rbegin(), shape.rend()), order;
  for (long a = long(shape.size()) - 1; a >= 0; --a) order.push_back(a);
  Tensor view = Tensor::create(t.elementType(), reversed).permute(order);
  copyElements(view, t);
  return view;
}

/// The same logical tensor compact, transposed (rank 2 and more) and as
/// every other element of a wider last axis.
inline std::vector<std::pair<std::string, Tensor>> layoutsOf(const Tensor& compact) {
  std::vector<std::pair<std::string, Tensor>> result = {{"compact", compact}};
  const long rank = long(compact.rank());
  if (rank >= 2) result.emplace_back("transposed", transposedCopy(compact));
  if (rank >= 1) {
    std::vector<long> wide = compact.shape().vec();
    wide.back() *= 2;
    Tensor sliced = Tensor::create(compact.elementType(), wide).slice(rank - 1, 0, wide.back(), 2);
    copyElements(sliced, compact);
    result.emplace_back("sliced", sliced);
  }
  return result;
}

/// Values given as int64 (or f32) stored in `type` (Tensor::cast wraps).
inline Tensor ints(ElementType type, std::vector<int64_t> v) {
  return tensorOf<int64_t>(ElementType::si64, {long(v.size())}, v).cast(type);
}
inline Tensor f32s(std::vector<long> shape, std::vector<float> v) { return tensorOf<float>(ElementType::f32, shape, v); }

/// The elements of any tensor with a numeric reading, as bits of f64.
inline std::vector<uint64_t> resultBits(const Tensor& t) { return bitsOf<double>(t.cast(ElementType::f64)); }

/// `run` traced at `point` writes exactly `lines` and the same output as
/// untraced.
inline void expectTrace(const std::function<Tensor()>& run, std::vector<long> point,
                        const std::vector<std::string>& lines) {
  const auto untraced = resultBits(run());
  TraceCapture capture;
  ScopedTracePoint traced(std::move(point));
  EXPECT_EQ(resultBits(run()), untraced) << "tracing never changes the output";
  EXPECT_EQ(capture.lines(), lines);
}

/// Each call fails with exactly its message; CALL(Add(out, a, b)) is such a
/// call of native::Add.
#define CALL(...) [&] { return ::kora::native::__VA_ARGS__; }
using Failures = std::vector<std::pair<std::string, std::function<Status()>>>;
inline void expectFailures(const Failures& cases) {
  for (size_t i = 0; i < cases.size(); ++i) EXPECT_EQ(cases[i].second().message(), cases[i].first) << "case " << i;
}

/// `call` stops the process with the unknown element type trap for `type`.
inline void expectTypeTrap(const std::function<void()>& call, ElementType type) {
  const std::string trap = "2\\|trapped at include/kora/Core/ElementType, line [0-9]+\n2\\|unknown element type: ";
  EXPECT_DEATH({ logToStderr(); call(); }, trap + elementTypeName(type));
}

}  // namespace kora::test
