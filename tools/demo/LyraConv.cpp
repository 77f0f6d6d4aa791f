#include "Demo.h"

namespace demo {

void runLyraConv() {
  heading("lyra::Conv2dFpp: int8 3x3 convolution, MAC then the fp24 post-process, tracing fout[0, 1, 1, 0]");
  using kora::ElementType;
  std::vector<int8_t> input, kernel;
  for (int i = 0; i < 18; ++i) input.push_back(int8_t(i * 11 % 29 - 14));
  for (int i = 0; i < 36; ++i) kernel.push_back(int8_t(i * 7 % 19 - 9));
  const kora::Tensor fin = tensorOf<int8_t>(ElementType::si8, {1, 3, 3, 2}, input);
  const kora::Tensor weight = tensorOf<int8_t>(ElementType::si8, {2, 3, 3, 2}, kernel);
  // Float quant info for fin scale 0.05, weight scales {0.01, 0.02}, a float
  // sumin of scale 0.3 and an int8 output of scale 0.1 and zero point 3:
  // per channel bias, suminScale and output scale, each the nearest fp24.
  kora::Tensor quantInfo = kora::Tensor::create(ElementType::f32, {2, 3});
  const kora::Tensor bias = tensorOf<float>(ElementType::f32, {2}, {0.25f, -0.75f});
  const kora::Status generated = kora::lyra::intrinsic::GenFloatQuantInfo(
      quantInfo, kora::Tensor(), bias, std::vector<double>{0.05}, 0, std::vector<double>{0.01, 0.02},
      std::vector<double>{0.3}, std::vector<double>{0.1}, 3);
  if (!generated.ok()) {
    std::printf("GenFloatQuantInfo failed: %s\n", generated.message().c_str());
    return;
  }
  const kora::Tensor sumin = tensorOf<float>(ElementType::f32, {1, 3, 3, 2},
                                             {0.5f, -1.25f, 2.7f, 0.1f, -3.3f, 1.9f, 0.0f, 4.2f, -0.6f, 2.05f, 1.1f,
                                              -2.2f, 3.3f, 0.7f, -1.7f, 0.9f, 2.4f, -0.35f});
  printValues<int>("fin      ", fin.cast(ElementType::si32));
  printValues<int>("weight   ", weight.cast(ElementType::si32));
  printValues<float>("quantInfo", quantInfo);
  printValues<float>("sumin    ", sumin);
  const long point[] = {0, 1, 1, 0};  // the centre: all nine taps read fin
  kora::Context::get().setTracePoint(point);
  std::vector<kora::Tensor> outputs = {kora::Tensor(ElementType::si8, {})};
  // padValue 0, pad 1 on every side, stride 1, dilation 1, one group, relu
  // and rounding on, per-channel rows.
  const bool ok = run("lyra::Conv2dFpp", outputs,
                      {fin, weight, quantInfo, sumin, kora::Tensor(), 0L, std::vector<int64_t>{1, 1},
                       std::vector<int64_t>{1, 1}, std::vector<int64_t>{1, 1}, 1L, true, true, false});
  kora::Context::get().setTracePoint({});
  if (ok) printValues<int>("fout     ", outputs[0].cast(ElementType::si32));
}

}  // namespace demo
