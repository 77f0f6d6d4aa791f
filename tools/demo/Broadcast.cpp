#include "Demo.h"

namespace demo {

void runBroadcast() {
  heading("native::Add with broadcasting ([3, 1] + [4] -> [3, 4]), tracing fout[2, 3]");
  kora::Tensor lhs = tensorOf<float>(kora::ElementType::f32, {3, 1}, {1.0f, 2.0f, 3.0f});
  kora::Tensor rhs = tensorOf<float>(kora::ElementType::f32, {4}, {10.0f, 20.0f, 30.0f, 40.5f});
  printValues<float>("lhs ", lhs);
  printValues<float>("rhs ", rhs);
  const long point[] = {2, 3};
  kora::Context::get().setTracePoint(point);
  std::vector<kora::Tensor> outputs;
  if (run("native::Add", outputs, {lhs, rhs})) printValues<float>("fout", outputs[0]);
  kora::Context::get().setTracePoint({});
}

}  // namespace demo
