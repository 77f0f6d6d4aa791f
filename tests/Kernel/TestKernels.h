#pragma once
// A test-local kernel table whose small kernels cover the parameter kinds
// (tensors, tensor lists, scalars, arrays, strings, element types, several
// outputs, kernels with and without a Config), for the invocation layer and
// the command line without the library's own kernels.
#include <algorithm>

#include "TestUtil.h"

namespace kora::test {

// test::Scale: out = in * k + offset over f32; its Config refuses offset 13.
inline Status scaleConfig(Tensor& out, Tensor const& in, double, const std::vector<long>&, int8_t offset) {
  if (offset == 13) return configError("Scale", "unlucky offset");
  out.setShape(in.shape());
  if (out.elementType() == ElementType::invalid) out.setElementType(in.elementType());
  return Status::success();
}

inline Status scale(Tensor& out, Tensor const& in, double k, const std::vector<long>& dims, int8_t offset) {
  if (in.elementType() != ElementType::f32 || out.elementType() != ElementType::f32) return Status::failure("only f32");
  if (!dims.empty()) return failure("dims {} not supported", dims.size());
  mapElements<float, float>(out, in, [&](float x) { return x * float(k) + float(offset); });
  return Status::success();
}

// test::Split: two outputs, min and max against a threshold.
inline Status splitConfig(Tensor& lo, Tensor& hi, Tensor const& in, float) {
  for (Tensor* t : {&lo, &hi}) t->setShape(in.shape()), t->setElementType(in.elementType());
  return Status::success();
}

inline Status split(Tensor& lo, Tensor& hi, Tensor const& in, float threshold) {
  mapElements<float, float>(lo, in, [&](float x) { return std::min(x, threshold); });
  mapElements<float, float>(hi, in, [&](float x) { return std::max(x, threshold); });
  return Status::success();
}

// test::Fill: no Config, so its output must come typed.
inline Status fill(Tensor& out, double value) {
  if (out.elementType() != ElementType::f32) return Status::failure("Fill serves f32 only");
  for (float& x : out.data<float>()) x = float(value);
  return Status::success();
}

// test::Concat: a list of f32 tensors, flattened one after the other.
inline Status concatConfig(Tensor& out, const std::vector<Tensor>& ins) {
  long n = 0;
  for (const Tensor& t : ins) n += t.numElements();
  out.setShape(std::vector<long>{n});
  out.setElementType(ElementType::f32);
  return Status::success();
}

inline Status concat(Tensor& out, const std::vector<Tensor>& ins) {
  float* next = out.data<float>().data();
  for (const Tensor& t : ins) next = std::ranges::copy(valuesOf<float>(t), next).out;
  return Status::success();
}

// test::Convert: a string, an element type and a flag.
inline Status convertConfig(Tensor& out, Tensor const& in, const std::string&, ElementType type, bool enabled) {
  if (!enabled) return configError("Convert", "switched off");
  out.setShape(in.shape());
  out.setElementType(type);
  return Status::success();
}

inline Status convert(Tensor& out, Tensor const& in, const std::string& mode, ElementType type, bool) {
  if (mode != "cast") return failure("unknown mode {}", mode);
  copyElements(out, in.cast(type));
  return Status::success();
}

inline const KernelRegistry& testKernels() {
  static const KernelRegistry table = [] {
    KernelRegistry t;
    registerKernel(t, "test::Scale", &scaleConfig, &scale, {Argument(std::vector<int64_t>{}), Argument(0)});
    registerKernel(t, "test::Split", &splitConfig, &split);
    registerKernel(t, "test::Fill", nullptr, &fill);
    registerKernel(t, "test::Concat", &concatConfig, &concat);
    registerKernel(t, "test::Convert", &convertConfig, &convert);
    return t;
  }();
  return table;
}

inline const KernelEntry& testKernel(std::string_view name) {
  for (const auto& e : testKernels().entries)
    if (name == e->name) return *e;
  throw std::logic_error("no test kernel of that name");
}

}  // namespace kora::test
