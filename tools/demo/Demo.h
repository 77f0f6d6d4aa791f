#pragma once
// Shared helpers of the demo's sections.
#include <cstdio>
#include <string>
#include <vector>

#include "kora/Kora.h"

namespace demo {

inline void heading(const char* title) { std::printf("\n== %s ==\n", title); std::fflush(stdout); }

/// A compact tensor filled from `values`.
template <class T>
kora::Tensor tensorOf(kora::ElementType type, std::vector<long> shape, const std::vector<T>& values) {
  kora::Tensor t = kora::Tensor::create(type, shape);
  auto data = t.data<T>();
  for (size_t i = 0; i < values.size() && i < data.size(); ++i) data[i] = values[i];
  return t;
}

/// Prints a tensor's elements in row-major order (compact tensors only).
template <class T>
void printValues(const char* label, const kora::Tensor& t) {
  std::string text;
  for (T v : t.contiguous().data<T>()) text += fmt::format("{} ", v);
  std::printf("%s %s: %s\n", label, kora::toString(t).c_str(), text.c_str());
}

/// Runs `name` through the kernel table, as an extension host would.
inline bool run(const char* name, std::vector<kora::Tensor>& outputs, std::vector<kora::Argument> inputs) {
  kora::Status status = kora::invoke(name, outputs, std::move(inputs));
  std::fflush(stdout);
  if (!status.ok()) std::printf("%s failed: %s\n", name, status.message().c_str());
  return status.ok();
}

// One function per section, in the order the demo runs them.
void showKernelTable();
void runElementwise();
void runRoiAlign();
void runVelaConv();
void runBroadcast();
void runQuantization();
void runReduce();
void runMatMul();
void runLyraConv();

}  // namespace demo
