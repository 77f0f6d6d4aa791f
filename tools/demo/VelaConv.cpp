#include "Demo.h"

namespace demo {

void runVelaConv() {
  heading("vela::Conv2d: int8 3x3 convolution, MAC then post-process, tracing fout[0, 0, 1, 1]");
  using kora::ElementType;
  std::vector<int8_t> input, kernel;
  for (int i = 0; i < 18; ++i) input.push_back(int8_t(i * 7 % 23 - 11));
  for (int i = 0; i < 36; ++i) kernel.push_back(int8_t(i * 5 % 17 - 8));
  const kora::Tensor fin = tensorOf<int8_t>(ElementType::si8, {1, 3, 3, 2}, input);
  const kora::Tensor weight = tensorOf<int8_t>(ElementType::si8, {2, 3, 3, 2}, kernel);
  // Per output channel: bias, suminScale, suminRShift, preRShift, scale, postRShift.
  const kora::Tensor quantInfo =
      tensorOf<int64_t>(ElementType::si64, {2, 6}, {40, 96, 3, 1, 181, 9, -25, 64, -1, 0, 77, 9});
  const kora::Tensor sumin = tensorOf<int8_t>(ElementType::si8, {1, 3, 3, 2},
                                              {3, -1, 4, 1, -5, 9, 2, -6, 5, 3, -5, 8, 9, -7, 9, 3, 2, -3});
  printValues<int>("fin   ", fin.cast(ElementType::si32));
  printValues<int>("weight", weight.cast(ElementType::si32));
  printValues<int64_t>("quantInfo", quantInfo);
  const long point[] = {0, 0, 1, 1};  // top edge: its first kernel row reads padding
  kora::Context::get().setTracePoint(point);
  std::vector<kora::Tensor> outputs;
  // padValue 0, pad 1 on every side, stride 1, dilation 1, one group,
  // decoded quant info, relu and rounding on, per-channel rows.
  const bool ok = run("vela::Conv2d", outputs,
                      {fin, weight, quantInfo, sumin, kora::Tensor(), 0L, std::vector<int64_t>{1, 1},
                       std::vector<int64_t>{1, 1}, std::vector<int64_t>{1, 1}, 1L, 0L, true, true, false});
  kora::Context::get().setTracePoint({});
  if (ok) printValues<int>("fout  ", outputs[0].cast(ElementType::si32));
}

}  // namespace demo
