// "lyra::Conv2d" and "lyra::Conv2dFpp": table entries, Config, called by
// name against their intrinsics, the whole traced element, failed checks.
#include <gtest/gtest.h>

#include <random>

#include "Vela/VelaTestUtil.h"

using namespace kora;
using namespace kora::lyra::intrinsic;
using test::randomTensor8;
using test::tensorOf;
using test::valuesOf;

TEST(LyraConv2d, RegisteredWithTheirParameterKinds) {
  const uint64_t tensor = 0x1000400, i64 = 0x80105, i64s = 0x3080105, boolean = 0x10205;
  struct Case {
    const char* name;
    std::vector<uint64_t> inputs;
    KernelEntry::AnyFunction impl;
  };
  const Case cases[] = {
      {"lyra::Conv2d",
       {tensor, tensor, tensor, tensor, tensor, i64, i64s, i64s, i64s, i64, i64, boolean, boolean, boolean},
       reinterpret_cast<KernelEntry::AnyFunction>(&lyra::Conv2d)},
      {"lyra::Conv2dFpp",
       {tensor, tensor, tensor, tensor, tensor, i64, i64s, i64s, i64s, i64, boolean, boolean, boolean},
       reinterpret_cast<KernelEntry::AnyFunction>(&lyra::Conv2dFpp)},
  };
  for (const Case& c : cases) {
    const KernelEntry* entry = findKernel(c.name);
    ASSERT_NE(entry, nullptr) << c.name;
    EXPECT_EQ(entry->numOutputs, 1u);
    EXPECT_EQ(entry->outputKinds[0], tensor);
    ASSERT_EQ(entry->numInputs, c.inputs.size()) << c.name;
    for (unsigned i = 0; i < c.inputs.size(); ++i) EXPECT_EQ(entry->inputKinds[i], c.inputs[i]) << c.name << " " << i;
    EXPECT_NE(entry->config, nullptr);
    EXPECT_EQ(entry->impl, c.impl);
  }
}

TEST(LyraConv2d, ByNameEqualsTheIntrinsics) {
  std::mt19937 rng(101);
  const Tensor fin = randomTensor8({2, 6, 5, 8}, rng), weight = randomTensor8({6, 3, 3, 4}, rng);
  Tensor rows = Tensor::create(ElementType::si64, {6, 6});
  for (long k = 0; k < 6; ++k) {
    const int64_t row[6] = {int64_t(rng() % 2001) - 1000, 300 + k, -3, int64_t(rng() % 26), int64_t(rng() % 32768),
                            int64_t(rng() % 41)};
    for (long j = 0; j < 6; ++j) rows.at<int64_t>({k, j}) = row[j];
  }
  Tensor sumin16 = Tensor::create(ElementType::si16, {2, 3, 3, 6});
  for (int16_t& v : sumin16.data<int16_t>()) v = int16_t(rng());
  const std::vector<int64_t> pad = {1, 0, 1, 2}, stride = {2, 2}, dilation = {1, 1};

  Tensor expected = Tensor::create(ElementType::si16, {2, 3, 3, 6});
  ASSERT_TRUE(TaeConvMacPP(expected, fin, weight, rows, sumin16, Tensor(), -4, pad, stride, dilation, 2, 0, true, true,
                           false)
                  .ok());
  std::vector<Tensor> outputs = {Tensor(ElementType::si16, {})};
  Status s = invoke("lyra::Conv2d", outputs,
                    {fin, weight, rows, sumin16, Tensor(), -4L, pad, stride, dilation, 2L, 0L, true, true});
  ASSERT_TRUE(s.ok()) << s.message();
  EXPECT_EQ(outputs[0].type(), TensorType(ElementType::si16, {2, 3, 3, 6}));
  EXPECT_EQ(valuesOf<int16_t>(outputs[0]), valuesOf<int16_t>(expected));

  Tensor floatRows = Tensor::create(ElementType::f32, {6, 3});
  for (float& v : floatRows.data<float>()) v = std::uniform_real_distribution<float>(0.001f, 2)(rng);
  Tensor suminHalf = Tensor::create(ElementType::f16, {2, 3, 3, 6});
  for (half& v : suminHalf.data<half>()) v = half(std::uniform_real_distribution<float>(-4, 4)(rng));
  Tensor fexpected = Tensor::create(ElementType::f32, {2, 3, 3, 6});
  ASSERT_TRUE(TaeConvMacFPP(fexpected, fin, weight, floatRows, suminHalf, Tensor(), -4, pad, stride, dilation, 2,
                            false, false, false)
                  .ok());
  outputs.clear();
  s = invoke("lyra::Conv2dFpp", outputs, {fin, weight, floatRows, suminHalf, Tensor(), -4L, pad, stride, dilation, 2L});
  ASSERT_TRUE(s.ok()) << s.message();
  EXPECT_EQ(outputs[0].type(), TensorType(ElementType::f32, {2, 3, 3, 6})) << "f32 unless the caller sets a type";
  EXPECT_EQ(test::bitsOf<float>(outputs[0]), test::bitsOf<float>(fexpected));
}

TEST(LyraConv2d, ConfigDerivesTheOutputAndChecks) {
  const Tensor fin = Tensor::create(ElementType::si8, {2, 7, 9, 4}), weight = Tensor::create(ElementType::si8, {5, 3, 2, 4});
  struct Case {
    bool fpp;
    ElementType preset;
    std::vector<int64_t> pad;
    ElementType type;   // the output's type,
    const char* error;  // or the config error
  };
  const ElementType none = ElementType::invalid;
  const Case cases[] = {
      {false, none, {0, 1, 2, 0}, ElementType::si8, nullptr},
      {false, ElementType::si16, {0, 1, 2, 0}, ElementType::si16, nullptr},
      {false, ElementType::f32, {0, 1, 2, 0}, none, "Conv2d config error: fout must be si8, si16 or si32"},
      {false, ElementType::si8, {0, 1, 2}, none, "Conv2d config error: wrong size of pad"},
      {true, none, {0, 1, 2, 0}, ElementType::f32, nullptr},
      {true, ElementType::vbf16, {0, 1, 2, 0}, ElementType::vbf16, nullptr},
      {true, ElementType::si32, {0, 1, 2, 0}, ElementType::si32, nullptr},
      {true, ElementType::f64, {0, 1, 2, 0}, none,
       "Conv2dFpp config error: fout must be f32, f16, bf16, si8, si16 or si32"},
      {true, ElementType::f32, {0}, none, "Conv2dFpp config error: wrong size of pad"},
  };
  for (const Case& c : cases) {
    Tensor fout(c.preset, {});
    const Status s = c.fpp ? lyra::Conv2dFppConfig(fout, fin, weight, {}, {}, {}, 0, c.pad, {2, 3}, {1, 2}, 1, false,
                                                   false, false)
                           : lyra::Conv2dConfig(fout, fin, weight, {}, {}, {}, 0, c.pad, {2, 3}, {1, 2}, 1, 0, false,
                                                false, false);
    if (c.error) {
      EXPECT_EQ(s.message(), c.error);
      continue;
    }
    ASSERT_TRUE(s.ok()) << s.message();
    EXPECT_EQ(fout.type(), TensorType(c.type, {2, 4, 3, 5}));
  }
}

TEST(LyraConv2d, TheFppTraceShowsTheMacThenEveryFp24Step) {
  const Tensor fin = tensorOf<int8_t>(ElementType::si8, {1, 1, 2, 2}, {3, -4, 5, 6});
  const Tensor weight = tensorOf<int8_t>(ElementType::si8, {2, 1, 1, 2}, {7, 8, -9, 10});
  const Tensor rows = tensorOf<float>(ElementType::f32, {2, 3}, {0, 0, 1, -0.5f, 0, 0.25f});
  test::TraceCapture capture;
  std::vector<Tensor> outputs;
  Status s;
  {
    test::ScopedTracePoint point({0, 0, 1, 1});
    s = invoke("lyra::Conv2dFpp", outputs,
               {fin, weight, rows, Tensor(), Tensor(), 0L, std::vector<int64_t>{0, 0}, std::vector<int64_t>{1, 1}});
  }
  ASSERT_TRUE(s.ok()) << s.message();
  // Output (0, 1), channel 1: 5 * -9 + 6 * 10 = 15; 15 * 0.25 - 0.5 = 3.25.
  EXPECT_EQ(capture.lines(), (std::vector<std::string>{
                                 "psum[0, 0, 1, 1] += fin[0, 0, 1, 0] * weight[1, 0, 0, 0] // 0 += 5 * -9 -> -45",
                                 "psum[0, 0, 1, 1] += fin[0, 0, 1, 1] * weight[1, 0, 0, 1] // -45 += 6 * 10 -> 15",
                                 "f24Bias = float32ToFp24(-0.5) // 0xbf0000(-0.5)",
                                 "fp24SuminAddBias = f24Bias // 0xbf0000(-0.5)",
                                 "fp24Res = intToFp24(15) // 0x417000(15)",
                                 "f24OutputScale = float32ToFp24(0.25) // 0x3e8000(0.25)",
                                 "fp24Res *= f24OutputScale // 0x407000(3.75)",
                                 "fp24Res += fp24SuminAddBias // 0x405000(3.25)",
                                 "fp32Res = f24ToF32(fp24Res) // 0x40500000(3.25)",
                             }));
  EXPECT_EQ(valuesOf<float>(outputs[0]), (std::vector<float>{-11, (-27 - 40) * 0.25f - 0.5f, 83, 3.25f}));
}

TEST(LyraConv2d, AFailedCheckWritesAndTracesNothing) {
  const Tensor fin = Tensor::create(ElementType::si8, {1, 3, 3, 2});
  for (int8_t& v : fin.data<int8_t>()) v = 1;
  const Tensor weight = Tensor::create(ElementType::si8, {2, 1, 1, 2});
  for (int8_t& v : weight.data<int8_t>()) v = 1;
  Tensor rows = Tensor::create(ElementType::si64, {2, 6});
  for (int64_t& v : rows.data<int64_t>()) v = 0;
  struct Case {
    const char* expected;
    Tensor quantInfo, sumin, psum;
    int64_t quantForm;
  };
  const Case cases[] = {
      {"quantForm must be 0 (decoded) or 1 (encoded)", rows, {}, {}, 3},
      {"encode tensor axis -1 must be 2", rows, {}, {}, 1},
      {"quantInfo axis -2 must be identical to psum axis -1", Tensor::create(ElementType::si64, {3, 6}), {}, {}, 0},
      {"sumin must be 8bit 16bit or 32bit", rows, Tensor::create(ElementType::f32, {1, 3, 3, 2}), {}, 0},
      {"shape of psum and fout must be identical", rows, {}, Tensor::create(ElementType::si32, {1, 3, 3, 1}), 0},
  };
  for (const Case& c : cases) {
    Tensor fout = Tensor::create(ElementType::si8, {1, 3, 3, 2});
    for (int8_t& v : fout.data<int8_t>()) v = 77;
    test::TraceCapture capture;
    test::ScopedTracePoint point({0, 1, 1, 1});
    EXPECT_EQ(lyra::Conv2d(fout, fin, weight, c.quantInfo, c.sumin, c.psum, 0, {0, 0}, {1, 1}, {1, 1}, 1, c.quantForm,
                           false, false, false)
                  .message(),
              c.expected);
    EXPECT_EQ(valuesOf<int8_t>(fout), std::vector<int8_t>(18, 77)) << c.expected;
    EXPECT_TRUE(capture.lines().empty()) << c.expected;
  }
}
