#include "Demo.h"

namespace demo {

void runQuantization() {
  using kora::ElementType;
  heading("quant::quantize then quant::dequantize, one scale per channel, tracing [1, 2]");
  kora::Tensor fin = tensorOf<float>(ElementType::f32, {2, 3}, {-1.0f, 0.26f, 0.74f, 2.5f, -0.05f, 70.0f});
  const std::vector<double> scales = {0.02, 0.01, 0.5};
  const std::vector<int64_t> zeros = {0, 0, 0};
  printValues<float>("fin ", fin);
  std::printf("scales 0.02 0.01 0.5, zero points 0, si8 full range, ties to even\n");
  const long point[] = {1, 2};
  kora::Context::get().setTracePoint(point);
  // Kernels without a Config write into outputs passed with their type and shape.
  std::vector<kora::Tensor> q = {kora::Tensor(ElementType::si8, fin.shape())};
  if (run("quant::quantize", q, {fin, scales, zeros, true, -1, false})) {
    printValues<int8_t>("q   ", q[0]);
    std::vector<kora::Tensor> back = {kora::Tensor(ElementType::f32, fin.shape())};
    if (run("quant::dequantize", back, {q[0], scales, zeros, true, -1})) printValues<float>("back", back[0]);
  }
  kora::Context::get().setTracePoint({});

  heading("quant::dynamic_quantize per row, then quant::dynamic_dequantize");
  std::vector<kora::Tensor> dq;
  if (run("quant::dynamic_quantize", dq, {fin, true})) {
    printValues<int8_t>("q    ", dq[0]);
    printValues<float>("scale", dq[1]);
    std::vector<kora::Tensor> back;
    if (run("quant::dynamic_dequantize", back, {dq[0], dq[1]})) printValues<float>("back ", back[0]);
  }
}

}  // namespace demo
