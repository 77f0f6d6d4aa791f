// Dynamic quantization against hand-worked rows, the half-a-step error
// bound of a round trip, and an integer matrix product whose quantization is
// exact.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>

#include "TestUtil.h"

using namespace kora;
using test::bitsOf;
using test::tensorOf;
using test::valuesOf;

namespace {

constexpr float kInf = std::numeric_limits<float>::infinity();

struct Quantized {
  Tensor q, scale;
};

Quantized dynamicQuantize(const Tensor& fin, bool perRow, ElementType type = ElementType::invalid) {
  Quantized r;
  r.q = Tensor(type, {});
  Status config = quant::DynamicQuantizeConfig(r.q, r.scale, fin, perRow);
  EXPECT_TRUE(config.ok()) << config.message();
  r.q.allocate();
  r.scale.allocate();
  Status s = quant::DynamicQuantize(r.q, r.scale, fin, perRow);
  EXPECT_TRUE(s.ok()) << s.message();
  return r;
}

}  // namespace

TEST(DynamicQuantize, RowsAndWholeTensor) {
  // Row 0: absmax 127, scale 1, ties to even. Row 1: all zero, scale 1.
  // Row 2: absmax 254 (NaN skipped, quantized to 0). Row 3: absmax over the
  // finite values is 10, the infinities saturate; -4 / (10 / 127) = -50.8.
  const float nan = std::numeric_limits<float>::quiet_NaN();
  Tensor fin = tensorOf<float>(ElementType::f32, {4, 4},
                               {127, -63.5f, 0.5f, -1.5f, 0, 0, 0, 0, -254, 1, 3, nan, kInf, 10, -kInf, -4});
  Quantized rows = dynamicQuantize(fin, true);
  EXPECT_EQ(rows.q.type(), TensorType(ElementType::si8, {4, 4}));
  EXPECT_EQ(rows.scale.type(), TensorType(ElementType::f32, {4, 1}));
  EXPECT_EQ(valuesOf<int8_t>(rows.q),
            (std::vector<int8_t>{127, -64, 0, -2, 0, 0, 0, 0, -127, 0, 2, 0, 127, 127, -127, -51}));
  EXPECT_EQ(valuesOf<float>(rows.scale), (std::vector<float>{1, 1, 2, 10.0f / 127}));

  Quantized whole = dynamicQuantize(fin, false, ElementType::si16);
  EXPECT_EQ(whole.scale.type(), TensorType(ElementType::f32, {1, 1}));
  EXPECT_EQ(valuesOf<float>(whole.scale), std::vector<float>{254.0f / 32767});
  EXPECT_EQ(valuesOf<int16_t>(whole.q).front(), 16384) << "127 / f32(254 / 32767) is the f32 tie 16383.5";
  EXPECT_EQ(valuesOf<int16_t>(whole.q)[8], -32767);

  // A long row (runs of 16 and a tail): infinities and NaN anywhere are
  // skipped by the maximum, which is |-9| at index 20.
  std::vector<float> longRow(37, 1.0f);
  longRow[3] = kInf, longRow[17] = nan, longRow[20] = -9.0f, longRow[31] = 8.5f, longRow[36] = -kInf;
  Quantized l = dynamicQuantize(tensorOf<float>(ElementType::f32, {1, 37}, longRow), true);
  EXPECT_EQ(valuesOf<float>(l.scale), std::vector<float>{9.0f / 127});
  const auto lq = valuesOf<int8_t>(l.q);
  EXPECT_EQ((std::vector<int>{lq[0], lq[3], lq[17], lq[20], lq[31], lq[36]}), (std::vector<int>{14, 127, 0, -127, 120, -127}));

  // Values so small that absmax / 127 underflows get the scale 1 and quantize to 0.
  Tensor tiny = tensorOf<float>(ElementType::f32, {1, 2}, {1e-45f, -1e-45f});
  Quantized t = dynamicQuantize(tiny, true);
  EXPECT_EQ(valuesOf<float>(t.scale), std::vector<float>{1.0f});
  EXPECT_EQ(valuesOf<int8_t>(t.q), (std::vector<int8_t>{0, 0}));
}

TEST(DynamicQuantize, RoundTripErrorIsAtMostHalfAStep) {
  // An identity independent of the formula: each finite element comes back
  // within half a scale step, and each group's largest element maps to +-qmax.
  std::mt19937 rng(7);
  std::normal_distribution<float> normal(0.0f, 3.0f);
  for (ElementType type : {ElementType::si8, ElementType::si16}) {
    Tensor fin = Tensor::create(ElementType::f32, {5, 3, 64});
    for (float& v : fin.data<float>()) v = normal(rng) * (rng() % 4 == 0 ? 100.0f : 1.0f);
    const long qmax = type == ElementType::si8 ? 127 : 32767;
    Quantized r = dynamicQuantize(fin, true, type);
    std::vector<Tensor> back;
    ASSERT_TRUE(invoke("quant::dynamic_dequantize", back, {r.q, r.scale}).ok());
    const auto x = valuesOf<float>(fin), y = valuesOf<float>(back[0]), s = valuesOf<float>(r.scale);
    for (size_t row = 0; row < s.size(); ++row) {
      float largest = 0;
      size_t at = 0;
      for (size_t i = row * 64; i < row * 64 + 64; ++i) {
        ASSERT_LE(std::fabs(x[i] - y[i]), s[row] * 0.5001f) << "element " << i;
        if (std::fabs(x[i]) > largest) largest = std::fabs(x[i]), at = i;
      }
      EXPECT_EQ(std::lround(y[at] / s[row]), x[at] < 0 ? -qmax : qmax);
    }
  }
}

TEST(DynamicDequantize, ScaleBroadcastAndOutputTypes) {
  Tensor q = tensorOf<int8_t>(ElementType::si8, {2, 3}, {1, -2, 3, 127, 0, -127});
  struct Case {
    Tensor scale;
    std::vector<float> expected;
  };
  const Case cases[] = {
      {tensorOf<float>(ElementType::f32, {2, 1}, {0.5f, 2.0f}), {0.5f, -1, 1.5f, 254, 0, -254}},
      {tensorOf<float>(ElementType::f32, {3}, {1, 0.25f, -1}), {1, -0.5f, -3, 127, 0, 127}},
      {tensorOf<float>(ElementType::f32, {}, {4.0f}), {4, -8, 12, 508, 0, -508}},
  };
  for (const Case& c : cases) {
    std::vector<Tensor> out;
    ASSERT_TRUE(invoke("quant::dynamic_dequantize", out, {q, c.scale}).ok());
    EXPECT_EQ(out[0].elementType(), ElementType::f32);
    EXPECT_EQ(valuesOf<float>(out[0]), c.expected);
  }
  // An output typed f16 keeps its type: 1 * f32(1/3) narrows to 0x3555.
  std::vector<Tensor> halves = {Tensor(ElementType::f16, {})};
  ASSERT_TRUE(invoke("quant::dynamic_dequantize", halves, {q, tensorOf<float>(ElementType::f32, {1}, {1.0f / 3})}).ok());
  EXPECT_EQ(bitsOf<half>(halves[0])[0], 0x3555);
}

TEST(FuseDynamicDequantize, RowScaleFirstThenColumnScale) {
  // (acc * row) * col: for 3 * (1/3) * (1/3) and 7 * (1/3) * 3 this order
  // gives 0.33333334 and 7.0000005, where acc * (row * col) would give
  // 0.33333337 and 7.
  Tensor acc = tensorOf<int32_t>(ElementType::si32, {2, 3}, {3, 7, 16777219, -3, 0, 1});
  Tensor row = tensorOf<float>(ElementType::f32, {2, 1}, {1.0f / 3, 0.1f});
  Tensor col = tensorOf<float>(ElementType::f32, {3}, {1.0f / 3, 3.0f, 0.1f});
  test::TraceCapture capture;
  test::ScopedTracePoint point({0, 1});
  std::vector<Tensor> out;
  ASSERT_TRUE(invoke("quant::FuseDynamicDequantize", out, {acc, row, col}).ok());
  EXPECT_EQ(valuesOf<float>(out[0]),
            (std::vector<float>{0.33333334f, 7.0000005f, 559240.6875f, -0.100000009f, 0.0f, 0.0100000007f}));
  EXPECT_EQ(capture.lines(), std::vector<std::string>{
                                 "fout[0, 1] = fin[0, 1] * rowScale[0, 0] * colScale[1] // 7 * 0.33333334 * 3 -> 7.0000005"});
}

TEST(FuseDynamicDequantize, ExactlyQuantizedMatrixProduct) {
  // A (rows scaled 0.5 and 0.25) and B (columns scaled 1 and 0.125) hold
  // multiples of their scales up to 127 steps, so quantization is exact and
  // the fused dequantization of the int32 product is the float product.
  const std::vector<float> a = {63.5f, -1.0f, 0.5f, 2.0f, -31.75f, 0.25f};  // [2, 3]
  const std::vector<float> bT = {1, -127, 3, 0.125f, 15.875f, -2};         // B transposed, [2, 3]
  Quantized qa = dynamicQuantize(tensorOf<float>(ElementType::f32, {2, 3}, a), true);
  Quantized qb = dynamicQuantize(tensorOf<float>(ElementType::f32, {2, 3}, bT), true);
  EXPECT_EQ(valuesOf<float>(qa.scale), (std::vector<float>{0.5f, 0.25f}));
  EXPECT_EQ(valuesOf<float>(qb.scale), (std::vector<float>{1.0f, 0.125f}));
  const auto ia = valuesOf<int8_t>(qa.q), ib = valuesOf<int8_t>(qb.q);
  Tensor product = Tensor::create(ElementType::si32, {2, 2});
  std::vector<float> exact(4);
  for (int m = 0; m < 2; ++m)
    for (int n = 0; n < 2; ++n) {
      int32_t sum = 0;
      double reference = 0;
      for (int k = 0; k < 3; ++k) {
        sum += int32_t(ia[size_t(m * 3 + k)]) * ib[size_t(n * 3 + k)];
        reference += double(a[size_t(m * 3 + k)]) * bT[size_t(n * 3 + k)];
      }
      product.data<int32_t>()[size_t(m * 2 + n)] = sum;
      exact[size_t(m * 2 + n)] = float(reference);
    }
  // The column scales come as [2, 1]; seen as [2] they broadcast along rows.
  Tensor colScale({2}, {4}, ElementType::f32, qb.scale.offset(), qb.scale.storage());
  std::vector<Tensor> out;
  ASSERT_TRUE(invoke("quant::FuseDynamicDequantize", out, {product, qa.scale, colScale}).ok());
  EXPECT_EQ(valuesOf<float>(out[0]), exact);
}

TEST(DynamicQuant, RankZeroAndTraceLines) {
  Tensor one = tensorOf<uint16_t>(ElementType::f16, {}, {0x3c00});  // 1.0
  {
    test::TraceCapture capture;
    test::ScopedTracePoint point({0, 0});
    Quantized r = dynamicQuantize(one, true);
    EXPECT_EQ(r.scale.rank(), 0u);
    EXPECT_EQ(r.q.at<int8_t>({}), 127);
    EXPECT_EQ(capture.lines(), (std::vector<std::string>{
                                   "scale[] = absmax / 127 // 1 / 127 -> 0.007874016",
                                   "fout[] = quantize(fin[] / scale[]) // round(1 / 0.007874016) -> 127"}));
  }
  Tensor fin = tensorOf<float>(ElementType::f32, {3, 2}, {1, -2, -254, 1, 0.5f, 0.25f});
  Quantized untraced = dynamicQuantize(fin, true);
  test::TraceCapture capture;
  test::ScopedTracePoint point({1, 1});
  Quantized traced = dynamicQuantize(fin, true);
  EXPECT_EQ(valuesOf<int8_t>(traced.q), valuesOf<int8_t>(untraced.q));
  std::vector<Tensor> back;
  ASSERT_TRUE(invoke("quant::dynamic_dequantize", back, {traced.q, traced.scale}).ok());
  EXPECT_EQ(capture.lines(), (std::vector<std::string>{"scale[1, 0] = absmax / 127 // 254 / 127 -> 2",
                                                       "fout[1, 1] = quantize(fin[1, 1] / scale[1, 0]) // round(1 / 2) -> 0",
                                                       "fout[1, 1] = fin[1, 1] * scale[1, 0] // 0 * 2 -> 0"}));
}

TEST(DynamicQuant, MisuseIsRefused) {
  Tensor x = tensorOf<float>(ElementType::f32, {2, 4}, {1, 2, 3, 4, 5, 6, 7, 8});
  Tensor q = Tensor::create(ElementType::si8, {2, 4});
  Tensor acc = Tensor::create(ElementType::si32, {2, 4});
  Tensor s21 = Tensor::create(ElementType::f32, {2, 1}), s31 = Tensor::create(ElementType::f32, {3, 1});
  struct Case {
    const char* kernel;
    std::vector<Tensor> outputs;
    std::vector<Argument> inputs;
    std::string message;
  };
  const Case cases[] = {
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
  for (const Case& c : cases) {
    std::vector<Tensor> outputs = c.outputs;
    const std::string message = invoke(c.kernel, outputs, c.inputs).message();
    EXPECT_EQ(message.substr(0, message.find('\n')), std::string(c.kernel) + " config function call failure! " + c.message);
  }
  // The kernels themselves check what their Config would have filled.
  Tensor wrongScale = Tensor::create(ElementType::f32, {1, 1});
  EXPECT_EQ(quant::DynamicQuantize(q, wrongScale, x, true).message(), "scale must have shape [2, 1]");
  Tensor wrongOut = Tensor::create(ElementType::f32, {4, 2});
  EXPECT_EQ(quant::DynamicDequantize(wrongOut, q, s21).message(), "fout must have fin's shape [2, 4]");
  Tensor unallocated(ElementType::f32, {2, 4});
  EXPECT_EQ(quant::FuseDynamicDequantize(unallocated, acc, s21, s21).message(),
            "fout must hold data");
}
