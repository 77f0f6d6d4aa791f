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
  // Rows of 37 (runs of 16 and a tail) with infinities and NaN sprinkled in,
  // per row and per tensor, for each output width: the scale is the largest
  // finite |x| over qmax in f32, 1 where that quotient is 0, and q rounds
  // x / scale half to even into [-qmax, qmax], NaN to 0. Three rows are
  // hand-made: zeros; 127 and -254, where 127 / (254 / qmax) is a tie per
  // row (63.5 -> 64 for si8, 16383.5 -> 16384 for si16); 1e-45, whose
  // scale underflows to 0 and becomes 1.
  std::mt19937 rng(7);
  std::normal_distribution<float> normal(0.0f, 3.0f);
  const float special[] = {kInf, -kInf, kNaN};
  for (ElementType type : {ElementType::si8, ElementType::si16, ElementType::si32})
    for (bool perRow : {true, false}) {
      Tensor fin = Tensor::create(ElementType::f32, {2, 5, 37});
      auto data = fin.data<float>();
      for (float& v : data) v = rng() % 16 == 0 ? special[rng() % 3] : normal(rng) * (rng() % 4 == 0 ? 100.0f : 1.0f);
      std::fill_n(data.begin() + 37, 3 * 37, 0.0f);
      data[74] = 127, data[75] = -254, data[111] = 1e-45f;
      const int64_t qmax = type == ElementType::si8 ? 127 : type == ElementType::si16 ? 32767 : 2147483647;
      Quantized r = dynamicQuantize(fin, perRow, type);
      const auto x = valuesOf<float>(fin), s = valuesOf<float>(r.scale);
      const auto q = valuesOf<int64_t>(r.q.cast(ElementType::si64));
      const size_t group = perRow ? 37 : x.size();
      ASSERT_EQ(r.scale.type(), TensorType(ElementType::f32, perRow ? std::vector<long>{2, 5, 1} : std::vector<long>{1, 1, 1}));
      for (size_t g = 0; g < s.size(); ++g) {
        double m = 0;
        for (size_t i = g * group; i < (g + 1) * group; ++i) m = std::isfinite(x[i]) ? std::max(m, std::fabs(double(x[i]))) : m;
        const float quotient = float(m / double(float(qmax))), scale = quotient == 0 ? 1.0f : quotient;
        ASSERT_EQ(s[g], scale) << "group " << g;
        for (size_t i = g * group; i < (g + 1) * group; ++i) {
          const double v = double(float(double(x[i]) / double(scale)));
          ASSERT_EQ(q[i], std::isnan(v) ? 0 : int64_t(std::clamp(std::nearbyint(v), -double(qmax), double(qmax)))) << i;
        }
      }
    }
}

TEST(DynamicDequantize, ScalesBroadcastAndTheFusedFormMultipliesRowFirst) {
  // (acc * row) * col: for 3 * (1/3) * (1/3) and 7 * (1/3) * 3 this order
  // gives 0.33333334 and 7.0000005, where acc * (row * col) would give
  // 0.33333337 and 7.
  Tensor q = tensorOf<int8_t>(ElementType::si8, {2, 3}, {1, -2, 3, 127, 0, -127});
  Tensor acc = tensorOf<int32_t>(ElementType::si32, {2, 3}, {3, 7, 16777219, -3, 0, 1});
  const std::tuple<const char*, std::vector<Argument>, std::vector<float>> cases[] = {
      {"quant::dynamic_dequantize", {q, f32({2, 1}, {0.5f, 2.0f})}, {0.5f, -1, 1.5f, 254, 0, -254}},
      {"quant::dynamic_dequantize", {q, f32({3}, {1, 0.25f, -1})}, {1, -0.5f, -3, 127, 0, 127}},
      {"quant::FuseDynamicDequantize", {acc, f32({2, 1}, {1.0f / 3, 0.1f}), f32({3}, {1.0f / 3, 3.0f, 0.1f})},
       {0.33333334f, 7.0000005f, 559240.6875f, -0.100000009f, 0.0f, 0.0100000007f}},
  };
  for (const auto& [kernel, inputs, expected] : cases) {
    Tensor out = run(kernel, inputs)[0];
    EXPECT_EQ(out.elementType(), ElementType::f32);
    EXPECT_EQ(valuesOf<float>(out), expected) << kernel;
  }
  // An output typed f16 keeps its type: 1 * f32(1/3) narrows to 0x3555.
  Tensor h = run("quant::dynamic_dequantize", {q, f32({1}, {1.0f / 3})}, {Tensor(ElementType::f16, {})})[0];
  EXPECT_EQ(test::bitsOf<half>(h)[0], 0x3555);
}

TEST(DynamicQuant, TraceLinesAndARankZeroHalfInput) {
  // f16 1.0 at rank 0 is its own absmax: 127, with a rank-0 scale.
  Quantized r = dynamicQuantize(tensorOf<uint16_t>(ElementType::f16, {}, {0x3c00}), true);
  EXPECT_EQ(r.scale.rank(), 0u);
  EXPECT_EQ(r.q.at<int8_t>({}), 127);
  Tensor fin = f32({3, 2}, {1, -2, -254, 1, 0.5f, 0.25f});
  Tensor acc = tensorOf<int32_t>(ElementType::si32, {3, 2}, {0, 0, 0, 7, 0, 0});
  test::TraceCapture capture;
  test::ScopedTracePoint point({1, 1});
  Quantized traced = dynamicQuantize(fin, true);
  run("quant::dynamic_dequantize", {traced.q, traced.scale});
  run("quant::FuseDynamicDequantize", {acc, f32({3, 1}, {0, 1.0f / 3, 0}), f32({2}, {0, 3.0f})});
  EXPECT_EQ(capture.lines(), (std::vector<std::string>{
      "scale[1, 0] = absmax / 127 // 254 / 127 -> 2", "fout[1, 1] = quantize(fin[1, 1] / scale[1, 0]) // round(1 / 2) -> 0",
      "fout[1, 1] = fin[1, 1] * scale[1, 0] // 0 * 2 -> 0",
      "fout[1, 1] = fin[1, 1] * rowScale[1, 0] * colScale[1] // 7 * 0.33333334 * 3 -> 7.0000005"}));
}

TEST(DynamicQuant, MisuseIsRefused) {
  Tensor x = f32({2, 4}, {1, 2, 3, 4, 5, 6, 7, 8});
  Tensor q = Tensor::create(ElementType::si8, {2, 4}), acc = Tensor::create(ElementType::si32, {2, 4});
  Tensor s21 = Tensor::create(ElementType::f32, {2, 1}), s31 = Tensor::create(ElementType::f32, {3, 1});
  // One text per check function, the scale operands named by their role.
  Tensor ui8(ElementType::ui8, {}), si8(ElementType::si8, {}), untyped, scale;
  EXPECT_EQ(quant::DynamicQuantizeConfig(ui8, scale, x, true).message(), "DynamicQuantize config error: fout must be si8, si16 or si32");
  EXPECT_EQ(quant::DynamicDequantizeConfig(untyped, q, s31).message(),
            "DynamicDequantize config error: scale of shape [3, 1] does not broadcast to fin's shape [2, 4]");
  EXPECT_EQ(quant::DynamicDequantizeConfig(si8, q, s21).message(), "DynamicDequantize config error: fout must be f32, f16 or vbf16");
  EXPECT_EQ(quant::FuseDynamicDequantizeConfig(untyped, acc, s21, s31).message(),
            "FuseDynamicDequantize config error: colScale of shape [3, 1] does not broadcast to fin's shape [2, 4]");
  // The kernels themselves check what their Config would have filled.
  EXPECT_EQ(quant::DynamicQuantize(q, s31, x, true).message(), "scale must have shape [2, 1]");
}
