#include "Demo.h"

namespace demo {

void runElementwise() {
  heading("native::ReLU through the kernel table, tracing fout[1, 2]");
  kora::Tensor fin = tensorOf<float>(kora::ElementType::f32, {2, 3}, {-1.5f, 0.0f, 2.25f, 3.0f, -0.5f, -7.0f});
  printValues<float>("fin ", fin);
  const long point[] = {1, 2};
  kora::Context::get().setTracePoint(point);
  std::vector<kora::Tensor> outputs;
  if (run("native::ReLU", outputs, {fin})) printValues<float>("fout", outputs[0]);
  kora::Context::get().setTracePoint({});
}

}  // namespace demo
