#include "Demo.h"

namespace demo {

// A sum whose order shows: 2^24 + 1 rounds back to 2^24, so the row that
// starts with 2^24 loses its ones while the row that ends with it keeps them.
void runReduce() {
  heading("native::ReduceSum over the last axis, tracing fout[0]");
  kora::Tensor fin = tensorOf<float>(kora::ElementType::f32, {2, 4},
                                     {16777216.0f, 1.0f, 1.0f, 1.0f, 1.0f, 1.0f, 1.0f, 16777216.0f});
  printValues<float>("fin ", fin);
  const long point[] = {0};
  kora::Context::get().setTracePoint(point);
  std::vector<kora::Tensor> outputs;
  if (run("native::ReduceSum", outputs, {fin, std::vector<int64_t>{-1}, false}))
    printValues<float>("fout", outputs[0]);
  kora::Context::get().setTracePoint({});
}

}  // namespace demo
