// The registered whole convolutions of both generations ("vela::Conv2d",
// "lyra::Conv2d", "lyra::Conv2dFpp"): Config, called by name
// against the plain MAC reference followed by the post-process alone, the
// whole traced element, failed checks, and a quantized convolution against
// the real-valued one it stands for.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>

#include "Vela/VelaTestUtil.h"

using namespace kora;
using namespace kora::test;

TEST(VelaConv2d, ConfigDerivesTheOutputAndChecks) {
  using V = std::vector<int64_t>;
  struct Case { int kernel; ElementType finType, preset; std::vector<long> fin, weight; V pad, stride, dilation;
                ElementType type; std::vector<long> shape; const char* reason; };
  const ElementType none = ElementType::invalid, si8 = ElementType::si8, f32 = ElementType::f32;
  const std::vector<long> fin = {1, 4, 4, 2}, weight = {2, 3, 3, 2}, big = {2, 7, 9, 4}, w = {5, 3, 2, 4};
  const Case cases[] = {
      // kernel 0: vela::Conv2d, 1: lyra::Conv2d, 2: lyra::Conv2dFpp
      {0, si8, ElementType::si16, big, w, {0, 1, 2, 0}, {2, 3}, {1, 2}, ElementType::si16, {2, 4, 3, 5}, nullptr},
      {1, si8, ElementType::si32, {1, 5, 5, 2}, {3, 3, 3, 1}, {0, 0}, {1, 1}, {2, 2}, ElementType::si32, {1, 1, 1, 3},
       nullptr},
      {2, si8, ElementType::vbf16, big, w, {0, 1, 2, 0}, {2, 3}, {1, 2}, ElementType::vbf16, {2, 4, 3, 5}, nullptr},
      {0, ElementType::ui8, none, fin, weight, {0, 0}, {1, 1}, {1, 1}, none, {}, "fin and weight must be si8"},
      {0, si8, none, {4, 4, 2}, weight, {0, 0}, {1, 1}, {1, 1}, none, {}, "rank of conv input must be 4: [n, h, w, c]"},
      {0, si8, none, fin, {2, 9, 2}, {0, 0}, {1, 1}, {1, 1}, none, {}, "rank of conv weight must be 4: [k, r, s, c]"},
      {1, si8, none, fin, weight, {0}, {1, 1}, {1, 1}, none, {}, "wrong size of pad"},
      {0, si8, none, fin, weight, {0, 0}, {1, 1}, {1}, none, {}, "wrong size of stride, dilation"},
      {0, si8, none, fin, weight, {0, 0}, {0, 1}, {1, 1}, none, {}, "stride and dilation must be positive"},
      {0, si8, none, fin, weight, {int64_t(1) << 40, 0}, {1, 1}, {1, 1}, none, {},
       "conv window parameters must lie within [-2^30, 2^30]"},
      {0, si8, none, fin, weight, {0, 0}, {1, 1}, {2, 1}, none, {}, "kernel window larger than padded input"},
      {0, si8, f32, fin, weight, {0, 0}, {1, 1}, {1, 1}, none, {}, "fout must be si8, si16 or si32"},
      {2, si8, ElementType::f64, fin, weight, {0, 0}, {1, 1}, {1, 1}, none, {},
       "fout must be f32, f16, bf16, si8, si16 or si32"},
  };
  for (const Case& c : cases) {
    Tensor fout(c.preset, {});
    const Tensor f = Tensor::create(c.finType, c.fin), wt = Tensor::create(ElementType::si8, c.weight);
    const Status s =
        c.kernel == 0   ? vela::Conv2dConfig(fout, f, wt, {}, {}, {}, 0, c.pad, c.stride, c.dilation, 1, 0, 0, 0, 0)
        : c.kernel == 1 ? lyra::Conv2dConfig(fout, f, wt, {}, {}, {}, 0, c.pad, c.stride, c.dilation, 1, 0, 0, 0, 0)
                        : lyra::Conv2dFppConfig(fout, f, wt, {}, {}, {}, 0, c.pad, c.stride, c.dilation, 1, 0, 0, 0);
    if (c.reason) {
      EXPECT_EQ(s.message(), std::string(c.kernel == 2 ? "Conv2dFpp" : "Conv2d") + " config error: " + c.reason);
      continue;
    }
    ASSERT_TRUE(s.ok()) << s.message();
    EXPECT_EQ(fout.type(), TensorType(c.type, c.shape));
  }
}

TEST(VelaConv2d, ByNameEqualsTheReferenceMacThenThePostProcess) {
  std::mt19937 rng(51);
  const Tensor fin = randomTensor8({2, 6, 5, 8}, rng), weight = randomTensor8({6, 3, 3, 4}, rng);
  const std::vector<int64_t> pad = {1, 0, 1, 2}, stride = {2, 2}, dilation = {1, 1};
  const ConvShape shape{{1, 0}, -4, {2, 2}, {1, 1}, 2};
  const std::vector<long> out = {2, 3, 3, 6};
  std::vector<Row> rows[2];
  for (const Generation* g : kGenerations)
    for (long k = 0; k < 6; ++k)
      rows[g->second].push_back({int64_t(rng() % 2001) - 1000, 300 + k, g->second ? -3 : 2,
                                 int64_t(rng() % (g->preMax - 12)), int64_t(rng() % 32768), 12 + int64_t(rng() % 5)});
  Tensor floatRows = Tensor::create(ElementType::f32, {6, 3});
  for (float& v : floatRows.data<float>()) v = std::uniform_real_distribution<float>(0.001f, 2)(rng);
  Tensor suminHalf = Tensor::create(ElementType::f16, out);
  for (half& v : suminHalf.data<half>()) v = half(std::uniform_real_distribution<float>(-4, 4)(rng));
  const Tensor sumin8 = randomTensor8(out, rng), start = randomTensor32(out, rng, -5000, 5000);
  // The first generation's decoded rows, the second one's encoded words.
  const Tensor decoded = rowsOf(rows[0]);
  const Tensor encoded = tensorOf<int64_t>(ElementType::si64, {6, 2}, encodeRows(kLyra, rows[1], false));
  struct Case { const char* name; Tensor quant; int64_t quantForm; Tensor sumin; bool withPsum; ElementType preset;
                std::function<Status(Tensor&, const Tensor&)> pp; };
  const Case cases[] = {
      {"vela::Conv2d", decoded, 0, sumin8, false, ElementType::invalid,
       [&](Tensor& o, const Tensor& acc) { return kVela.pp(o, acc, decoded, sumin8, true, true, false); }},
      {"lyra::Conv2d", encoded, 1, sumin8, true, ElementType::invalid,
       [&](Tensor& o, const Tensor& acc) { return kLyra.ppEncoded(o, acc, encoded, sumin8, true, true, false); }},
      {"lyra::Conv2dFpp", floatRows, -1, suminHalf, false, ElementType::invalid,
       [&](Tensor& o, const Tensor& acc) { return lyra::intrinsic::TaeConvFPP(o, acc, floatRows, suminHalf, 1, 1, 0); }},
      {"lyra::Conv2dFpp", floatRows, -1, Tensor(), true, ElementType::vbf16,
       [&](Tensor& o, const Tensor& acc) { return lyra::intrinsic::TaeConvFPP(o, acc, floatRows, {}, 1, 1, 0); }},
  };
  const auto startValues = valuesOf<int32_t>(start);
  for (const Case& c : cases) {
    std::vector<Tensor> outputs = {Tensor(c.preset, {})};
    std::vector<Argument> args = {fin, weight, c.quant, c.sumin, c.withPsum ? start : Tensor(), -4L, pad, stride,
                                  dilation, 2L};
    if (c.quantForm >= 0) args.push_back(c.quantForm);
    args.insert(args.end(), {true, true});
    const Status s = invoke(c.name, outputs, args);
    ASSERT_TRUE(s.ok()) << c.name << ": " << s.message();
    const ElementType type = c.preset != ElementType::invalid ? c.preset
                             : c.quantForm < 0              ? ElementType::f32
                                                            : ElementType::si8;
    EXPECT_EQ(outputs[0].type(), TensorType(type, out)) << c.name;
    Tensor expected = Tensor::create(type, out);
    ASSERT_TRUE(c.pp(expected, referenceConv(c.withPsum ? start : filled(ElementType::si32, out, 0), fin, weight, shape))
                    .ok());
    EXPECT_EQ(compactBytes(outputs[0]), compactBytes(expected)) << c.name << " " << c.quantForm;
    EXPECT_EQ(valuesOf<int32_t>(start), startValues) << "the given psum is left as it was";
  }
}

TEST(VelaConv2d, TraceShowsTheMacStepsThenThePostProcessSteps) {
  const Tensor fin = tensorOf<int8_t>(ElementType::si8, {1, 1, 2, 2}, {3, -4, 5, 6});
  const Tensor weight = tensorOf<int8_t>(ElementType::si8, {2, 1, 1, 2}, {7, 8, -9, 10});
  const std::vector<std::string> macLines = {
      "psum[0, 0, 1, 1] += fin[0, 0, 1, 0] * weight[1, 0, 0, 0] // 0 += 5 * -9 -> -45",
      "psum[0, 0, 1, 1] += fin[0, 0, 1, 1] * weight[1, 0, 0, 1] // -45 += 6 * 10 -> 15"};
  // The post-process lines are checked in full with each post-process; here
  // the lines of the branches taken (no rounding, f32 output) end the trace.
  struct Case { const char* name; Tensor quant; std::vector<std::string> lines; };
  const Case cases[] = {
      // Output (0, 1), channel 1: 5 * -9 + 6 * 10 = 15; bias 1 -> 16; >> 1 -> 8.
      {"vela::Conv2d", rowsOf({{0, 0, 0, 0, 1, 1}, {1, 0, 0, 0, 1, 1}}),
       {"psum64 >>= postRShift(1) // 8", "fout[0, 0, 1, 1] = clamp(psum64) // 8"}},
      // 15 * 0.25 - 0.5 = 3.25.
      {"lyra::Conv2dFpp", tensorOf<float>(ElementType::f32, {2, 3}, {0, 0, 1, -0.5f, 0, 0.25f}),
       {"fp24Res += fp24SuminAddBias // 0x405000(3.25)", "fp32Res = f24ToF32(fp24Res) // 0x40500000(3.25)"}},
  };
  for (const Case& c : cases) {
    TraceCapture capture;
    std::vector<Tensor> outputs;
    Status s;
    {
      ScopedTracePoint point({0, 0, 1, 1});
      s = invoke(c.name, outputs, {fin, weight, c.quant, Tensor(), Tensor(), 0L, std::vector<int64_t>{0, 0},
                                   std::vector<int64_t>{1, 1}});
    }
    ASSERT_TRUE(s.ok()) << s.message();
    const std::vector<std::string> lines = capture.lines();
    ASSERT_EQ(lines.size(), 9u) << c.name;
    EXPECT_EQ(std::vector<std::string>(lines.begin(), lines.begin() + 2), macLines);
    EXPECT_EQ(std::vector<std::string>(lines.end() - 2, lines.end()), c.lines);
  }
}

TEST(VelaConv2d, AFailedCheckWritesAndTracesNothing) {
  const Tensor fin = filled(ElementType::si8, {1, 3, 3, 2}, 1), weight = filled(ElementType::si8, {2, 1, 1, 2}, 1);
  // Each kernel's message: vela::Conv2d, lyra::Conv2d, lyra::Conv2dFpp (nullptr: not run); a short
  // quant table fails only after the MAC would have run.
  struct Case { const char* expected[3]; long channels; Tensor sumin; int64_t quantForm; };
  const Case cases[] = {
      {{"quantForm must be 0 (decoded) or 1 (encoded)", "quantForm must be 0 (decoded) or 1 (encoded)", nullptr}, 2, {}, 2},
      {{"quantInfo axis -2 must be greater or equal to psum axis -1", "quantInfo axis -2 must be identical to psum axis -1",
        "quantInfo axis -2 must be identical to psum axis -1"}, 1, {}, 0},
      {{nullptr, nullptr, "sumin must be f32 or f16"}, 2, Tensor::create(ElementType::si8, {1, 3, 3, 2}), 0},
  };
  for (const Case& c : cases)
    for (int kernel = 0; kernel < 3; ++kernel) {
      if (!c.expected[kernel]) continue;
      Tensor fout = filled(kernel == 2 ? ElementType::f32 : ElementType::si8, {1, 3, 3, 2}, 77);
      const std::string before = storageBytes(fout);
      const Tensor quant = filled(kernel < 2 ? ElementType::si64 : ElementType::f32, {c.channels, kernel < 2 ? 6 : 3}, 0);
      TraceCapture capture;
      ScopedTracePoint point({0, 1, 1, 1});
      const std::vector<int64_t> pad = {0, 0}, one = {1, 1};
      const Status s =
          kernel == 0 ? vela::Conv2d(fout, fin, weight, quant, c.sumin, {}, 0, pad, one, one, 1, c.quantForm, 0, 0, 0)
          : kernel == 1 ? lyra::Conv2d(fout, fin, weight, quant, c.sumin, {}, 0, pad, one, one, 1, c.quantForm, 0, 0, 0)
                        : lyra::Conv2dFpp(fout, fin, weight, quant, c.sumin, {}, 0, pad, one, one, 1, 0, 0, 0);
      EXPECT_EQ(s.message(), c.expected[kernel]) << kernel;
      EXPECT_EQ(storageBytes(fout), before) << c.expected[kernel];
      EXPECT_TRUE(capture.lines().empty()) << c.expected[kernel] << ": nothing is traced either";
    }
}

TEST(VelaConv2d, QuantizedConvolutionMatchesTheRealOne) {
  // Real-valued convolution, quantized: fin (scale, zero point), per-channel
  // weight scales, float bias, output (scale, zero point). Every unsaturated
  // output is the real one within what the pipeline loses: the final
  // rounding, the integer bias, the floor of the pre-shift and the 15-bit scale.
  std::mt19937 rng(61);
  const long K = 5, C = 6, H = 6;
  auto uniform = [&](double lo, double hi) { return std::uniform_real_distribution<double>(lo, hi)(rng); };
  for (const Generation* g : kGenerations)
    for (int64_t foutBits : {8, 16}) {
      if (foutBits == 16 && !g->second) continue;
      for (int trial = 0; trial < 4; ++trial) {
        const double finScale = std::ldexp(uniform(1, 2), -int(rng() % 8)), foutScale = std::ldexp(uniform(1, 2), 3);
        const int64_t finZero = int64_t(rng() % 21) - 10, foutZero = int64_t(rng() % 21) - 10;
        std::vector<double> weightScale;
        for (long k = 0; k < K; ++k) weightScale.push_back(std::ldexp(uniform(1, 2), -int(rng() % 8)));
        const Tensor fin = randomTensor8({1, H, H, C}, rng), weight = randomTensor8({K, 3, 3, C}, rng);
        Tensor bias = Tensor::create(ElementType::f32, {K});
        for (float& b : bias.data<float>()) b = float(uniform(-10, 10));
        Tensor rows = Tensor::create(ElementType::si64, {K, 6});
        ASSERT_TRUE(g->gen(rows, weight, bias, {finScale}, finZero, weightScale, {}, 0, 8, {foutScale}, foutZero,
                           foutBits).ok());
        std::vector<Tensor> outputs = {Tensor(foutBits == 8 ? ElementType::si8 : ElementType::si16, {})};
        ASSERT_TRUE(invoke(g->kernel, outputs, {fin, weight, rows, Tensor(), Tensor(), finZero,
                                                std::vector<int64_t>{1, 1}, std::vector<int64_t>{1, 1},
                                                std::vector<int64_t>{1, 1}, 1L, 0L, false, true}).ok());
        const auto got = integersOf(outputs[0]);
        const double hi = foutBits == 8 ? 127 : 32767;
        for (long i = 0; i < H * H * K; ++i) {
          const long y = i / K / H, x = i / K % H, k = i % K;
          double real = bias.data<float>()[k];
          for (long t = 0; t < 9 * C; ++t) {
            const long h = y - 1 + t / C / 3, w = x - 1 + t / C % 3;
            if (h >= 0 && h < H && w >= 0 && w < H)  // padding is real zero
              real += finScale * double(fin.at<int8_t>({0, h, w, t % C}) - finZero) * weightScale[k] *
                      weight.at<int8_t>({k, t / C / 3, t / C % 3, t % C});
          }
          const double m = finScale * weightScale[k] / foutScale, expected = real / foutScale + double(foutZero);
          if (std::fabs(expected) > hi - 1) continue;
          const double pre = std::ldexp(1.0, int(rows.at<int64_t>({k, 3})));
          ASSERT_NEAR(double(got[size_t(i)]), expected, 0.5 + 0.5 * m + pre * m + std::fabs(expected) * std::ldexp(1.0, -14))
              << g->name << " trial " << trial << " element " << i;
        }
      }
    }
}
