// The registered whole convolutions of both generations ("vela::Conv2d",
// "lyra::Conv2d", "lyra::Conv2dFpp"): Config, called by name
// against the plain MAC reference followed by the post-process alone, with
// the traced element's MAC and post-process steps, and failed checks.
#include <gtest/gtest.h>

#include <functional>

#include "Vela/VelaTestUtil.h"

using namespace kora;
using namespace kora::test;

TEST(VelaConv2d, ConfigChecks) {
  // The output's shape and default type are checked by name below. The MAC
  // accepts a stride of 0; a whole convolution does not. Dilation 2 makes
  // the window one row taller than the input.
  const Tensor fin = Tensor::create(ElementType::si8, {1, 4, 4, 2}), weight = Tensor::create(ElementType::si8, {2, 3, 3, 2});
  const std::vector<int64_t> pad = {0, 0}, one = {1, 1};
  Tensor fout(ElementType::invalid, {});
  EXPECT_EQ(lyra::Conv2dConfig(fout, fin, weight, {}, {}, {}, 0, pad, {0, 1}, one, 1, 0, 0, 0, 0).message(),
            "Conv2d config error: stride and dilation must be positive");
  EXPECT_EQ(vela::Conv2dConfig(fout, fin, weight, {}, {}, {}, 0, pad, one, {2, 1}, 1, 0, 0, 0, 0).message(),
            "Conv2d config error: kernel window larger than padded input");
  fout = Tensor(ElementType::f64, {});
  EXPECT_EQ(lyra::Conv2dFppConfig(fout, fin, weight, {}, {}, {}, 0, pad, one, one, 1, 0, 0, 0).message(),
            "Conv2dFpp config error: fout must be f32, f16, bf16, si8, si16 or si32");
}

TEST(VelaConv2d, ByNameEqualsTheReferenceMacThenThePostProcess) {
  std::mt19937 rng(51);
  const Tensor fin = randomTensor8({2, 6, 5, 8}, rng), weight = randomTensor8({6, 3, 3, 4}, rng);
  const std::vector<int64_t> pad = {1, 0, 1, 2}, stride = {2, 2}, dilation = {1, 1};
  const ConvShape shape{{1, 0}, -4, {2, 2}, {1, 1}, 2};
  const std::vector<long> out = {2, 3, 3, 6};
  std::vector<Row> rows;
  for (long k = 0; k < 6; ++k)
    rows.push_back({int64_t(rng() % 2001) - 1000, 300 + k, k - 3, int64_t(rng() % 5), int64_t(rng() % 32768), 12 + k});
  Tensor floatRows = Tensor::create(ElementType::f32, {6, 3});
  for (float& v : floatRows.data<float>()) v = std::uniform_real_distribution<float>(0.001f, 2)(rng);
  Tensor suminHalf = Tensor::create(ElementType::f16, out);
  for (half& v : suminHalf.data<half>()) v = half(std::uniform_real_distribution<float>(-4, 4)(rng));
  const Tensor sumin8 = randomTensor8(out, rng), start = randomTensor32(out, rng, -5000, 5000);
  // The first generation's decoded rows, the second one's encoded words.
  const Tensor decoded = rowsOf(rows);
  const Tensor encoded = tensorOf<int64_t>(ElementType::si64, {6, 2}, encodeRows(kLyra, rows, false));
  struct Case { const char* name; Tensor quant; int64_t quantForm; Tensor sumin; bool withPsum;
                std::function<Status(Tensor&, const Tensor&)> pp; };
  const Case cases[] = {
      {"vela::Conv2d", decoded, 0, sumin8, false,
       [&](Tensor& o, const Tensor& acc) { return kVela.pp(o, acc, decoded, sumin8, true, true, false); }},
      {"lyra::Conv2d", encoded, 1, sumin8, true,
       [&](Tensor& o, const Tensor& acc) { return kLyra.ppEncoded(o, acc, encoded, sumin8, true, true, false); }},
      {"lyra::Conv2dFpp", floatRows, -1, suminHalf, true,
       [&](Tensor& o, const Tensor& acc) { return lyra::intrinsic::TaeConvFPP(o, acc, floatRows, suminHalf, 1, 1, 0); }},
  };
  const auto startValues = valuesOf<int32_t>(start);
  for (const Case& c : cases) {
    std::vector<Tensor> outputs;
    std::vector<Argument> args = {fin, weight, c.quant, c.sumin, c.withPsum ? start : Tensor(), -4L, pad, stride,
                                  dilation, 2L};
    if (c.quantForm >= 0) args.push_back(c.quantForm);
    args.insert(args.end(), {true, true});
    TraceCapture capture;
    Status s;
    {
      ScopedTracePoint point({1, 2, 1, 5});
      s = invoke(c.name, outputs, args);
    }
    ASSERT_TRUE(s.ok()) << c.name << ": " << s.message();
    // The traced element's 3 * 3 * 4 products (their texts are pinned with
    // the MAC), then its post-process.
    const std::vector<std::string> lines = capture.lines();
    ASSERT_GT(lines.size(), 36u) << c.name;
    for (size_t i = 0; i < lines.size(); ++i)
      EXPECT_EQ(lines[i].rfind("psum[1, 2, 1, 5] += ", 0) == 0, i < 36) << c.name << ": " << lines[i];
    const ElementType type = c.quantForm < 0 ? ElementType::f32 : ElementType::si8;  // the defaults
    EXPECT_EQ(outputs[0].type(), TensorType(type, out)) << c.name;
    Tensor expected = Tensor::create(type, out);
    ASSERT_TRUE(c.pp(expected, referenceConv(c.withPsum ? start : filled(ElementType::si32, out, 0), fin, weight, shape))
                    .ok());
    EXPECT_EQ(compactBytes(outputs[0]), compactBytes(expected)) << c.name << " " << c.quantForm;
    EXPECT_EQ(valuesOf<int32_t>(start), startValues) << "the given psum is left as it was";
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
