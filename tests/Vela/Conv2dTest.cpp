// "vela::Conv2d": its table entry, Config, the whole convolution against its
// two steps and against a real-valued reference, its trace and its checks.
#include <gtest/gtest.h>

#include <cmath>

#include "Vela/VelaTestUtil.h"

using namespace kora;
using namespace kora::vela::intrinsic;
using test::compactCopy;
using test::randomTensor32;
using test::randomTensor8;
using test::tensorOf;
using test::valuesOf;

namespace {

Tensor unitRows(long K, int64_t postRShift) {
  Tensor rows = Tensor::create(ElementType::si64, {K, 6});
  for (long k = 0; k < K; ++k) {
    const int64_t row[6] = {k, 0, 0, 0, 1, postRShift};
    for (long j = 0; j < 6; ++j) rows.at<int64_t>({k, j}) = row[j];
  }
  return rows;
}

}  // namespace

TEST(Conv2d, RegisteredWithItsParameterKinds) {
  const KernelEntry* entry = findKernel("vela::Conv2d");
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(entry->numOutputs, 1u);
  EXPECT_EQ(entry->numInputs, 14u);
  const uint64_t tensor = 0x1000400, i64 = 0x80105, i64s = 0x3080105, boolean = 0x10205;
  const uint64_t expected[] = {tensor, tensor, tensor, tensor, tensor, i64, i64s, i64s, i64s, i64, i64, boolean, boolean, boolean};
  EXPECT_EQ(entry->outputKinds[0], tensor);
  for (unsigned i = 0; i < 14; ++i) EXPECT_EQ(entry->inputKinds[i], expected[i]) << "input " << i;
  EXPECT_NE(entry->config, nullptr);
  EXPECT_EQ(entry->impl, reinterpret_cast<KernelEntry::AnyFunction>(&vela::Conv2d));
}

TEST(Conv2d, ByNameEqualsTheMacThenThePostProcess) {
  std::mt19937 rng(51);
  const Tensor fin = randomTensor8({2, 6, 5, 8}, rng), weight = randomTensor8({6, 3, 3, 4}, rng);
  Tensor rows = Tensor::create(ElementType::si64, {6, 6});
  for (long k = 0; k < 6; ++k) {
    const int64_t row[6] = {int64_t(rng() % 2001) - 1000, 0, 0, int64_t(rng() % 4), int64_t(rng() % 32768), 15};
    for (long j = 0; j < 6; ++j) rows.at<int64_t>({k, j}) = row[j];
  }
  const Tensor sumin = randomTensor8({2, 3, 3, 6}, rng);
  for (long k = 0; k < 6; ++k) rows.at<int64_t>({k, 1}) = 300 + k, rows.at<int64_t>({k, 2}) = 2;

  // Two steps by hand: pad {1, 0, 1, 2}, stride 2, dilation 1, 2 groups.
  Tensor psum = Tensor::create(ElementType::si32, {2, 3, 3, 6});
  for (int32_t& v : psum.data<int32_t>()) v = 0;
  ASSERT_TRUE(ConvMac(psum, fin, weight, {1, 0, 1, 2}, -4, {2, 2}, {1, 1}, 2).ok());
  Tensor expected = Tensor::create(ElementType::si8, {2, 3, 3, 6});
  ASSERT_TRUE(ConvPP(expected, psum, rows, sumin, true, true, false).ok());

  std::vector<Tensor> outputs;
  const Status s = invoke("vela::Conv2d", outputs,
                          {fin, weight, rows, sumin, Tensor(), -4L, std::vector<int64_t>{1, 0, 1, 2},
                           std::vector<int64_t>{2, 2}, std::vector<int64_t>{1, 1}, 2L, 0L, true, true});
  ASSERT_TRUE(s.ok()) << s.message();
  EXPECT_EQ(outputs[0].type(), TensorType(ElementType::si8, {2, 3, 3, 6}));
  EXPECT_EQ(valuesOf<int8_t>(outputs[0]), valuesOf<int8_t>(expected));

  // The same quant info encoded.
  Tensor words = Tensor::create(ElementType::si64, {6, 2});
  ASSERT_TRUE(EncodeQuantInfo(words, rows).ok());
  Tensor out = Tensor::create(ElementType::si8, {2, 3, 3, 6});
  ASSERT_TRUE(ConvMacPP(out, fin, weight, words, sumin, Tensor(), -4, {1, 0, 1, 2}, {2, 2}, {1, 1}, 2, 1, true, true,
                        false)
                  .ok());
  EXPECT_EQ(valuesOf<int8_t>(out), valuesOf<int8_t>(expected));
  // psum given: the MAC adds onto it, the given tensor is left as it was.
  const Tensor start = randomTensor32({2, 3, 3, 6}, rng, -5000, 5000);
  const auto startValues = valuesOf<int32_t>(start);
  Tensor summed = compactCopy(psum);
  for (size_t i = 0; i < startValues.size(); ++i) summed.data<int32_t>()[i] += startValues[i];
  ASSERT_TRUE(ConvPP(expected, summed, rows, sumin, true, true, false).ok());
  ASSERT_TRUE(ConvMacPP(out, fin, weight, rows, sumin, start, -4, {1, 0, 1, 2}, {2, 2}, {1, 1}, 2, 0, true, true, false)
                  .ok());
  EXPECT_EQ(valuesOf<int8_t>(out), valuesOf<int8_t>(expected));
  EXPECT_EQ(valuesOf<int32_t>(start), startValues);
}

TEST(Conv2d, ConfigDerivesTheOutput) {
  struct Case {
    std::vector<long> fin, weight;
    std::vector<int64_t> pad, stride, dilation;
    ElementType preset;
    TensorType expected;
  };
  const Case cases[] = {
      {{1, 56, 56, 64}, {32, 3, 3, 64}, {1, 1}, {1, 1}, {1, 1}, ElementType::invalid, {ElementType::si8, {1, 56, 56, 32}}},
      {{2, 7, 9, 4}, {5, 3, 2, 4}, {0, 1, 2, 0}, {2, 3}, {1, 2}, ElementType::si16, {ElementType::si16, {2, 4, 3, 5}}},
      {{1, 5, 5, 2}, {3, 3, 3, 1}, {0, 0}, {1, 1}, {2, 2}, ElementType::si32, {ElementType::si32, {1, 1, 1, 3}}},
  };
  for (const Case& c : cases) {
    Tensor fout(c.preset, {});
    ASSERT_TRUE(vela::Conv2dConfig(fout, Tensor::create(ElementType::si8, c.fin), Tensor::create(ElementType::si8, c.weight),
                                   {}, {}, {}, 0, c.pad, c.stride, c.dilation, 1, 0, false, false, false)
                    .ok());
    EXPECT_EQ(fout.type(), c.expected);
  }
}

TEST(Conv2d, ConfigChecks) {
  struct Case {
    ElementType finType, foutType;
    std::vector<long> fin, weight;
    std::vector<int64_t> pad, stride, dilation;
    const char* reason;
  };
  const std::vector<long> fin = {1, 4, 4, 2}, weight = {2, 3, 3, 2};
  const Case cases[] = {
      {ElementType::ui8, ElementType::invalid, fin, weight, {0, 0}, {1, 1}, {1, 1}, "fin and weight must be si8"},
      {ElementType::si8, ElementType::invalid, {4, 4, 2}, weight, {0, 0}, {1, 1}, {1, 1}, "rank of conv input must be 4: [n, h, w, c]"},
      {ElementType::si8, ElementType::invalid, fin, {2, 9, 2}, {0, 0}, {1, 1}, {1, 1}, "rank of conv weight must be 4: [k, r, s, c]"},
      {ElementType::si8, ElementType::invalid, fin, weight, {0}, {1, 1}, {1, 1}, "wrong size of pad"},
      {ElementType::si8, ElementType::invalid, fin, weight, {0, 0}, {1, 1}, {1}, "wrong size of stride, dilation"},
      {ElementType::si8, ElementType::invalid, fin, weight, {0, 0}, {0, 1}, {1, 1}, "stride and dilation must be positive"},
      {ElementType::si8, ElementType::invalid, fin, weight, {int64_t(1) << 40, 0}, {1, 1}, {1, 1}, "conv window parameters must lie within [-2^30, 2^30]"},
      {ElementType::si8, ElementType::invalid, fin, weight, {0, 0}, {1, 1}, {2, 1}, "kernel window larger than padded input"},
      {ElementType::si8, ElementType::f32, fin, weight, {0, 0}, {1, 1}, {1, 1}, "fout must be si8, si16 or si32"},
  };
  for (const Case& c : cases) {
    Tensor fout(c.foutType, {});
    EXPECT_EQ(vela::Conv2dConfig(fout, Tensor::create(c.finType, c.fin), Tensor::create(ElementType::si8, c.weight), {},
                                 {}, {}, 0, c.pad, c.stride, c.dilation, 1, 0, false, false, false)
                  .message(),
              std::string("Conv2d config error: ") + c.reason);
  }
}

TEST(Conv2d, TraceShowsTheMacStepsThenThePostProcessSteps) {
  const Tensor fin = tensorOf<int8_t>(ElementType::si8, {1, 1, 2, 2}, {3, -4, 5, 6});
  const Tensor weight = tensorOf<int8_t>(ElementType::si8, {2, 1, 1, 2}, {7, 8, -9, 10});
  const long point[] = {0, 0, 1, 1};
  Context::get().setTracePoint(point);
  test::TraceCapture capture;
  std::vector<Tensor> outputs;
  const Status s = invoke("vela::Conv2d", outputs,
                          {fin, weight, unitRows(2, 1), Tensor(), Tensor(), 0L, std::vector<int64_t>{0, 0},
                           std::vector<int64_t>{1, 1}});
  Context::get().setTracePoint({});
  ASSERT_TRUE(s.ok()) << s.message();
  // Output (0, 1), channel 1: 5 * -9 + 6 * 10 = 15; bias 1 -> 16; >> 1 -> 8.
  EXPECT_EQ(capture.lines(), (std::vector<std::string>{
                                 "psum[0, 0, 1, 1] += fin[0, 0, 1, 0] * weight[1, 0, 0, 0] // 0 += 5 * -9 -> -45",
                                 "psum[0, 0, 1, 1] += fin[0, 0, 1, 1] * weight[1, 0, 0, 1] // -45 += 6 * 10 -> 15",
                                 "psum64 = psum[0, 0, 1, 1] // 15",
                                 "psum64 += bias(1) // 16",
                                 "psum64 >>= preRShift(0) // 16",
                                 "psum64 = clamp16(psum64) // 16",
                                 "psum64 *= scale(1) // 16",
                                 "psum64 >>= postRShift(1) // 8",
                                 "fout[0, 0, 1, 1] = clamp(psum64) // 8",
                             }));
  EXPECT_EQ(valuesOf<int8_t>(outputs[0]), (std::vector<int8_t>{(21 - 32) >> 1, (-27 - 40 + 1) >> 1, (35 + 48) >> 1, 8}));
}

TEST(Conv2d, AFailedCheckWritesNothing) {
  const Tensor fin = Tensor::create(ElementType::si8, {1, 3, 3, 2});
  for (int8_t& v : fin.data<int8_t>()) v = 1;
  const Tensor weight = Tensor::create(ElementType::si8, {2, 1, 1, 2});
  for (int8_t& v : weight.data<int8_t>()) v = 1;
  const Tensor rows = unitRows(2, 0);
  struct Case {
    const char* expected;
    Tensor weight, quantInfo, sumin, psum;
    int64_t quantForm;
  };
  const Case cases[] = {
      {"quantForm must be 0 (decoded) or 1 (encoded)", weight, rows, {}, {}, 2},
      {"k of weight and psum must be same", Tensor::create(ElementType::si8, {3, 1, 1, 2}), rows, {}, {}, 0},
      {"quantInfo axis -2 must be greater or equal to psum axis -1", weight, unitRows(1, 0), {}, {}, 0},
      {"encode tensor axis -1 must be either 1 or 2", weight, rows, {}, {}, 1},
      {"sumin must be 8bit or 32bit", weight, rows, Tensor::create(ElementType::si16, {1, 3, 3, 2}), {}, 0},
      {"psum must be si32", weight, rows, {}, Tensor::create(ElementType::si8, {1, 3, 3, 2}), 0},
      {"shape of psum and fout must be identical", weight, rows, {}, Tensor::create(ElementType::si32, {1, 3, 3, 1}), 0},
  };
  for (const Case& c : cases) {
    Tensor fout = Tensor::create(ElementType::si8, {1, 3, 3, 2});
    for (int8_t& v : fout.data<int8_t>()) v = 77;
    test::TraceCapture capture;
    test::ScopedTracePoint point({0, 1, 1, 1});
    EXPECT_EQ(ConvMacPP(fout, fin, c.weight, c.quantInfo, c.sumin, c.psum, 0, {0, 0}, {1, 1}, {1, 1}, 1, c.quantForm,
                        false, false, false)
                  .message(),
              c.expected);
    EXPECT_EQ(valuesOf<int8_t>(fout), std::vector<int8_t>(18, 77)) << c.expected;
    EXPECT_TRUE(capture.lines().empty()) << c.expected << ": nothing is traced either";
  }
}

TEST(Conv2d, QuantizedConvolutionMatchesTheRealOneWithinOneStep) {
  // Real-valued convolution, quantized: fin (scale 0.05, zero point -3),
  // per-channel weights, float bias, output (scale 0.2, zero point 4).
  std::mt19937 rng(61);
  const long K = 5, C = 6;
  const double finScale = 0.05, foutScale = 0.2;
  const int64_t finZero = -3, foutZero = 4;
  const std::vector<double> weightScale = {0.01, 0.02, 0.005, 0.03, 0.015};
  const Tensor fin = randomTensor8({1, 6, 6, C}, rng), weight = randomTensor8({K, 3, 3, C}, rng);
  Tensor bias = Tensor::create(ElementType::f32, {K});
  for (float& b : bias.data<float>()) b = float(int(rng() % 2001) - 1000) / 100.0f;
  Tensor rows = Tensor::create(ElementType::si64, {K, 6});
  ASSERT_TRUE(
      GenQuantInfo(rows, weight, bias, {finScale}, finZero, weightScale, {}, 0, 8, {foutScale}, foutZero, 8).ok());
  std::vector<Tensor> outputs;
  ASSERT_TRUE(invoke("vela::Conv2d", outputs,
                     {fin, weight, rows, Tensor(), Tensor(), finZero, std::vector<int64_t>{1, 1},
                      std::vector<int64_t>{1, 1}, std::vector<int64_t>{1, 1}, 1L, 0L, false, true})
                  .ok());
  const auto got = valuesOf<int8_t>(outputs[0]);
  long exact = 0;
  for (long y = 0; y < 6; ++y)
    for (long x = 0; x < 6; ++x)
      for (long k = 0; k < K; ++k) {
        double real = bias.data<float>()[k];
        for (long r = 0; r < 3; ++r)
          for (long s = 0; s < 3; ++s)
            for (long c = 0; c < C; ++c) {
              const long h = y - 1 + r, w = x - 1 + s;
              if (h < 0 || h >= 6 || w < 0 || w >= 6) continue;  // padding is real zero
              real += finScale * double(fin.at<int8_t>({0, h, w, c}) - finZero) * weightScale[k] *
                      weight.at<int8_t>({k, r, s, c});
            }
        const double expected = std::clamp(std::round(real / foutScale) + double(foutZero), -128.0, 127.0);
        const int8_t value = got[size_t((y * 6 + x) * K + k)];
        ASSERT_LE(std::fabs(value - expected), 1.0) << "at " << y << ", " << x << ", " << k << ": real " << real;
        exact += value == expected;
      }
  EXPECT_GT(exact, 6 * 6 * K * 9 / 10) << "most outputs round exactly";
}
