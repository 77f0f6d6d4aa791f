// Dynamic quantization against a plain reference on random rows and
// hand-worked ties.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>

#include "TestUtil.h"

using namespace kora;
using test::tensorOf;
using test::valuesOf;

namespace {

constexpr float kInf = std::numeric_limits<float>::infinity(), kNaN = std::numeric_limits<float>::quiet_NaN();

struct Quantized { Tensor q, scale; };

Quantized dynamicQuantize(const Tensor& fin, bool perRow, ElementType type = ElementType::invalid) {
  Quantized r{Tensor(type, {}), Tensor()};
  Status config = quant::DynamicQuantizeConfig(r.q, r.scale, fin, perRow);
  EXPECT_TRUE(config.ok()) << config.message();
  r.q.allocate();
  r.scale.allocate();
  Status s = quant::DynamicQuantize(r.q, r.scale, fin, perRow);
  EXPECT_TRUE(s.ok()) << s.message();
  return r;
}

Tensor f32(std::vector<long> shape, std::vector<float> values) { return tensorOf<float>(ElementType::f32, shape, values); }

std::vector<Tensor> run(const char* kernel, std::vector<Argument> inputs, std::vector<Tensor> outputs = {}) {
  Status s = invoke(kernel, outputs, inputs);
  EXPECT_TRUE(s.ok()) << s.message();
  return outputs;
}

}  // namespace

TEST(DynamicQuantize, MatchesAPlainReferenceOnRandomRows) {
  // Rows of 37 (runs of 16 and a tail) with infinities and NaN sprinkled in
  // and one row of zeros, per row and per tensor, for each output width: the
  // scale is the largest finite |x| over qmax in f32 (1 for the zeros), and q
  // rounds x / scale half to even into [-qmax, qmax], NaN to 0.
  std::mt19937 rng(7);
  std::normal_distribution<float> normal(0.0f, 3.0f);
  const float special[] = {kInf, -kInf, kNaN};
  for (ElementType type : {ElementType::si8, ElementType::si16, ElementType::si32})
    for (bool perRow : {true, false}) {
      Tensor fin = Tensor::create(ElementType::f32, {2, 5, 37});
      for (float& v : fin.data<float>()) v = rng() % 16 == 0 ? special[rng() % 3] : normal(rng) * (rng() % 4 == 0 ? 100.0f : 1.0f);
      std::fill_n(fin.data<float>().begin() + 37, 37, 0.0f);
      const int64_t qmax = type == ElementType::si8 ? 127 : type == ElementType::si16 ? 32767 : 2147483647;
      Quantized r = dynamicQuantize(fin, perRow, type);
      const auto x = valuesOf<float>(fin), s = valuesOf<float>(r.scale);
      const auto q = valuesOf<int64_t>(r.q.cast(ElementType::si64));
      const size_t group = perRow ? 37 : x.size();
      ASSERT_EQ(s.size(), x.size() / group);
      for (size_t g = 0; g < s.size(); ++g) {
        double m = 0;
        for (size_t i = g * group; i < (g + 1) * group; ++i) m = std::isfinite(x[i]) ? std::max(m, std::fabs(double(x[i]))) : m;
        const float scale = m == 0 ? 1.0f : float(m / double(float(qmax)));
        ASSERT_EQ(s[g], scale) << "group " << g;
        for (size_t i = g * group; i < (g + 1) * group; ++i) {
          const double v = double(float(double(x[i]) / double(scale)));
          ASSERT_EQ(q[i], std::isnan(v) ? 0 : int64_t(std::clamp(std::nearbyint(v), -double(qmax), double(qmax)))) << i;
        }
      }
    }
}

TEST(DynamicQuantize, ShapesTiesAndUnderflow) {
  // Per tensor the scale is [1, 1]; 127 / f32(254 / 32767) is the f32 tie
  // 16383.5, which goes to the even 16384.
  Quantized whole = dynamicQuantize(f32({2, 2}, {127, -254, 0, 1}), false, ElementType::si16);
  EXPECT_EQ(whole.scale.type(), TensorType(ElementType::f32, {1, 1}));
  EXPECT_EQ(valuesOf<int16_t>(whole.q), (std::vector<int16_t>{16384, -32767, 0, 129}));
  // Values so small that absmax / 127 underflows get the scale 1 and
  // quantize to 0; an unset output becomes si8.
  Quantized t = dynamicQuantize(f32({1, 2}, {1e-45f, -1e-45f}), true);
  EXPECT_EQ(t.q.type(), TensorType(ElementType::si8, {1, 2}));
  EXPECT_EQ(valuesOf<float>(t.scale), std::vector<float>{1.0f});
  EXPECT_EQ(valuesOf<int8_t>(t.q), (std::vector<int8_t>{0, 0}));
}

TEST(DynamicDequantize, ScaleBroadcastAndOutputTypes) {
  Tensor q = tensorOf<int8_t>(ElementType::si8, {2, 3}, {1, -2, 3, 127, 0, -127});
  const std::pair<Tensor, std::vector<float>> cases[] = {
      {f32({2, 1}, {0.5f, 2.0f}), {0.5f, -1, 1.5f, 254, 0, -254}},
      {f32({3}, {1, 0.25f, -1}), {1, -0.5f, -3, 127, 0, 127}},
      {f32({}, {4.0f}), {4, -8, 12, 508, 0, -508}},
  };
  for (const auto& [scale, expected] : cases) {
    Tensor out = run("quant::dynamic_dequantize", {q, scale})[0];
    EXPECT_EQ(out.elementType(), ElementType::f32);
    EXPECT_EQ(valuesOf<float>(out), expected);
  }
  // An output typed f16 keeps its type: 1 * f32(1/3) narrows to 0x3555.
  Tensor h = run("quant::dynamic_dequantize", {q, f32({1}, {1.0f / 3})}, {Tensor(ElementType::f16, {})})[0];
  EXPECT_EQ(test::bitsOf<half>(h)[0], 0x3555);
}

TEST(FuseDynamicDequantize, RowScaleFirstThenColumnScale) {
  // (acc * row) * col: for 3 * (1/3) * (1/3) and 7 * (1/3) * 3 this order
  // gives 0.33333334 and 7.0000005, where acc * (row * col) would give
  // 0.33333337 and 7.
  Tensor acc = tensorOf<int32_t>(ElementType::si32, {2, 3}, {3, 7, 16777219, -3, 0, 1});
  test::TraceCapture capture;
  test::ScopedTracePoint point({0, 1});
  Tensor out = run("quant::FuseDynamicDequantize", {acc, f32({2, 1}, {1.0f / 3, 0.1f}), f32({3}, {1.0f / 3, 3.0f, 0.1f})})[0];
  EXPECT_EQ(valuesOf<float>(out),
            (std::vector<float>{0.33333334f, 7.0000005f, 559240.6875f, -0.100000009f, 0.0f, 0.0100000007f}));
  EXPECT_EQ(capture.lines(), std::vector<std::string>{
      "fout[0, 1] = fin[0, 1] * rowScale[0, 0] * colScale[1] // 7 * 0.33333334 * 3 -> 7.0000005"});
}

TEST(DynamicQuant, RankZeroAndTraceLines) {
  {
    test::TraceCapture capture;
    test::ScopedTracePoint point({0, 0});
    Quantized r = dynamicQuantize(tensorOf<uint16_t>(ElementType::f16, {}, {0x3c00}), true);  // 1.0
    EXPECT_EQ(r.scale.rank(), 0u);
    EXPECT_EQ(r.q.at<int8_t>({}), 127);
    EXPECT_EQ(capture.lines(), (std::vector<std::string>{
                                   "scale[] = absmax / 127 // 1 / 127 -> 0.007874016",
                                   "fout[] = quantize(fin[] / scale[]) // round(1 / 0.007874016) -> 127"}));
  }
  Tensor fin = f32({3, 2}, {1, -2, -254, 1, 0.5f, 0.25f});
  test::TraceCapture capture;
  test::ScopedTracePoint point({1, 1});
  Quantized traced = dynamicQuantize(fin, true);
  run("quant::dynamic_dequantize", {traced.q, traced.scale});
  EXPECT_EQ(capture.lines(), (std::vector<std::string>{"scale[1, 0] = absmax / 127 // 254 / 127 -> 2",
                                                       "fout[1, 1] = quantize(fin[1, 1] / scale[1, 0]) // round(1 / 2) -> 0",
                                                       "fout[1, 1] = fin[1, 1] * scale[1, 0] // 0 * 2 -> 0"}));
}

TEST(DynamicQuant, MisuseIsRefused) {
  Tensor x = f32({2, 4}, {1, 2, 3, 4, 5, 6, 7, 8});
  Tensor q = Tensor::create(ElementType::si8, {2, 4}), acc = Tensor::create(ElementType::si32, {2, 4});
  Tensor s21 = Tensor::create(ElementType::f32, {2, 1}), s31 = Tensor::create(ElementType::f32, {3, 1});
  const std::tuple<std::string, std::vector<Tensor>, std::vector<Argument>, std::string> cases[] = {
      {"quant::dynamic_quantize", {}, {Tensor(), true}, "DynamicQuantize config error: Invalid input."},
      {"quant::dynamic_quantize", {}, {q, true}, "DynamicQuantize config error: fin must be f16, vbf16 or f32"},
      {"quant::dynamic_quantize", {Tensor(ElementType::ui8, {}), Tensor()}, {x, true},
       "DynamicQuantize config error: fout must be si8, si16 or si32"},
      {"quant::dynamic_quantize", {Tensor(), Tensor(ElementType::f16, {})}, {x, true},
       "DynamicQuantize config error: scale must be f32"},
      {"quant::dynamic_dequantize", {}, {x, s21}, "DynamicDequantize config error: fin must be si8, si16 or si32"},
      {"quant::dynamic_dequantize", {}, {q, Tensor()}, "DynamicDequantize config error: scale must be a valid f32 tensor"},
      {"quant::dynamic_dequantize", {}, {q, s31},
       "DynamicDequantize config error: scale of shape [3, 1] does not broadcast to fin's shape [2, 4]"},
      {"quant::dynamic_dequantize", {Tensor(ElementType::si8, {})}, {q, s21},
       "DynamicDequantize config error: fout must be f32, f16 or vbf16"},
      {"quant::FuseDynamicDequantize", {}, {q, s21, s21}, "FuseDynamicDequantize config error: fin must be si32"},
      {"quant::FuseDynamicDequantize", {}, {acc, s21, s31},
       "FuseDynamicDequantize config error: colScale of shape [3, 1] does not broadcast to fin's shape [2, 4]"},
  };
  for (auto [kernel, outputs, inputs, expected] : cases) {
    const std::string message = invoke(kernel, outputs, inputs).message();
    EXPECT_EQ(message.substr(0, message.find('\n')), kernel + " config function call failure! " + expected);
  }
  // The kernels themselves check what their Config would have filled.
  Tensor wrongScale = Tensor::create(ElementType::f32, {1, 1}), wrongOut = Tensor::create(ElementType::f32, {4, 2});
  Tensor unallocated(ElementType::f32, {2, 4});
  EXPECT_EQ(quant::DynamicQuantize(q, wrongScale, x, true).message(), "scale must have shape [2, 1]");
  EXPECT_EQ(quant::DynamicDequantize(wrongOut, q, s21).message(), "fout must have fin's shape [2, 4]");
  EXPECT_EQ(quant::FuseDynamicDequantize(unallocated, acc, s21, s21).message(), "fout must hold data");
}
