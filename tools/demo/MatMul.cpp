#include "Demo.h"

namespace demo {

// A batched product whose lhs batch of 1 is read for both rhs matrices.
void runMatMul() {
  heading("native::MatMul [1, 2, 3] x [2, 3, 2] -> [2, 2, 2], tracing fout[1, 0, 1]");
  kora::Tensor lhs = tensorOf<float>(kora::ElementType::f32, {1, 2, 3}, {1.0f, 2.0f, 3.0f, 4.0f, 5.0f, 6.0f});
  kora::Tensor rhs = tensorOf<float>(kora::ElementType::f32, {2, 3, 2},
                                     {1.0f, 0.0f, 0.0f, 1.0f, 1.0f, 1.0f, 0.5f, -1.0f, 0.25f, 2.0f, -0.5f, 0.125f});
  printValues<float>("lhs ", lhs);
  printValues<float>("rhs ", rhs);
  const long point[] = {1, 0, 1};
  kora::Context::get().setTracePoint(point);
  std::vector<kora::Tensor> outputs;
  if (run("native::MatMul", outputs, {lhs, rhs})) printValues<float>("fout", outputs[0]);
  kora::Context::get().setTracePoint({});
}

}  // namespace demo
