// The one-input elementwise kernels: formulas bit for bit against the
// single precision libm expression (with evidence that the inputs tell it
// apart from a double precision, fused or reordered evaluation), f16 through
// f32 on every pattern, hand-worked values, integer members, layouts, trace
// lines, failures and traps.
#include <gtest/gtest.h>

#include <bit>
#include <cfenv>
#include <cmath>
#include <functional>
#include <limits>
#include <random>

#include "TestUtil.h"

using namespace kora;
using test::bitsOf;
using test::tensorOf;
using test::valuesOf;

namespace {

const float kInf = std::numeric_limits<float>::infinity();
const float kNaN = std::numeric_limits<float>::quiet_NaN();

using UnaryFn = std::function<Status(Tensor&, const Tensor&)>;

// Runs a kernel the way a host does: Config on an empty output, allocate,
// compute.
Tensor runUnary(const UnaryFn& config, const UnaryFn& impl, const Tensor& in) {
  Tensor out;
  Status s = config(out, in);
  EXPECT_TRUE(s.ok()) << s.message();
  out.allocate();
  s = impl(out, in);
  EXPECT_TRUE(s.ok()) << s.message();
  return out;
}

// A member with its attributes bound.
struct Member {
  UnaryFn config, impl;
  Tensor operator()(const Tensor& in) const { return runUnary(config, impl, in); }
};

#define PLAIN(Name) Member{native::Name##Config, native::Name}
#define BOUND(Name, ...)                                                                             \
  Member{[=](Tensor& o, const Tensor& i) { return native::Name##Config(o, i, __VA_ARGS__); }, \
         [=](Tensor& o, const Tensor& i) { return native::Name(o, i, __VA_ARGS__); }}

bool sameFloat(float a, float b) {
  return (std::isnan(a) && std::isnan(b)) || std::bit_cast<uint32_t>(a) == std::bit_cast<uint32_t>(b);
}

std::vector<float> formulaInputs() {
  std::vector<float> v = {0.0f, -0.0f, 1.0f, -1.0f, 0.5f, -0.5f, 1e-8f, -1e-8f, 20.0f, -20.0f, 88.0f, -88.0f,
                          100.0f, -100.0f, kInf, -kInf, kNaN, 0.125f, 0.375f, -0.125f, 2.5f, 1e30f, -1e30f,
                          0.005f, 1.005f, 0.015f, -0.035f, 3.0f, -3.0f};
  std::mt19937 rng(20240611);
  std::uniform_real_distribution<float> wide(-10.0f, 10.0f), narrowRange(-0.02f, 0.02f);
  for (int i = 0; i < 3000; ++i) v.push_back(wide(rng));
  for (int i = 0; i < 500; ++i) v.push_back(narrowRange(rng));
  return v;
}

using Formula = std::function<float(float)>;

struct FormulaRow {
  const char* name;
  Member kernel;
  Formula formula;
  std::vector<std::pair<const char*, Formula>> wrong;  // evaluations the inputs must tell apart
};

double widenD(float x) { return double(x); }

}  // namespace

TEST(UnaryFormulas, SinglePrecisionInTheWrittenOrder) {
  const float selA = 1.6732632f, selG = 1.0507010f;
  const FormulaRow rows[] = {
      {"Sigmoid", PLAIN(Sigmoid), [](float x) { return 1.0f / (expf(-x) + 1.0f); },
       {{"double", [](float x) { return float(1.0 / (std::exp(-widenD(x)) + 1.0)); }},
        {"e^x / (e^x + 1)", [](float x) { return expf(x) / (expf(x) + 1.0f); }}}},
      {"Swish", PLAIN(Swish), [](float x) { return x * (1.0f / (expf(-x) + 1.0f)); },
       {{"double", [](float x) { return float(widenD(x) / (std::exp(-widenD(x)) + 1.0)); }},
        {"x / (e^-x + 1)", [](float x) { return x / (expf(-x) + 1.0f); }}}},
      {"Mish", PLAIN(Mish),
       [](float x) {
         const float s = logf(expf(x) + 1.0f);
         return x * (expf(s) - expf(-s)) / (expf(s) + expf(-s));
       },
       {{"tanhf", [](float x) { return x * tanhf(logf(expf(x) + 1.0f)); }},
        {"double", [](float x) { return float(widenD(x) * std::tanh(std::log(std::exp(widenD(x)) + 1.0))); }},
        {"log1pf", [](float x) {
           const float s = log1pf(expf(x));
           return x * (expf(s) - expf(-s)) / (expf(s) + expf(-s));
         }}}},
      {"GELU", PLAIN(GELU), [](float x) { return x * 0.5f * (erff(x / 1.4142135f) + 1.0f); },
       {{"double", [](float x) { return float(widenD(x) * 0.5 * (std::erf(widenD(x) / 1.4142135) + 1.0)); }},
        {"erfcf", [](float x) { return x * 0.5f * erfcf(-x / 1.4142135f); }},
        {"x * 0.70710677", [](float x) { return x * 0.5f * (erff(x * 0.70710677f) + 1.0f); }}}},
      {"GELUV2 none", BOUND(GELUV2, std::string("none")),
       [](float x) { return x * 0.5f * (erff(x / 1.4142135f) + 1.0f); }, {}},
      {"GELUV2 tanh", BOUND(GELUV2, std::string("tanh")),
       [](float x) { return 0.5f * x * (1.0f + tanhf(0.7978845f * (x + 0.044715f * x * x * x))); },
       {{"fused cube", [](float x) { return 0.5f * x * (1.0f + tanhf(0.7978845f * fmaf(0.044715f * x * x, x, x))); }},
        {"0.044715 * (x * x * x)",
         [](float x) { return 0.5f * x * (1.0f + tanhf(0.7978845f * (x + 0.044715f * (x * x * x)))); }},
        {"double", [](float x) {
           const double d = x;
           return float(0.5 * d * (1.0 + std::tanh(0.7978845 * (d + 0.044715 * d * d * d))));
         }}}},
      {"Softplus(2, 15)", BOUND(Softplus, 2.0, 15.0),
       [](float x) {
         const float t = 2.0f * x;
         return t > 15.0f ? x : (1.0f / 2.0f) * logf(expf(t) + 1.0f);
       },
       {{"double", [](float x) { return 2.0 * x > 15.0 ? x : float(std::log(std::exp(2.0 * x) + 1.0) / 2.0); }},
        {"log1pf", [](float x) { return 2.0f * x > 15.0f ? x : 0.5f * log1pf(expf(2.0f * x)); }}}},
      {"Elu(1.5)", BOUND(Elu, 1.5f), [](float x) { return x < 0.0f ? (expf(x) - 1.0f) * 1.5f : x; },
       {{"expm1f", [](float x) { return x < 0.0f ? expm1f(x) * 1.5f : x; }},
        {"double", [](float x) { return x < 0.0f ? float((std::exp(widenD(x)) - 1.0) * 1.5) : x; }}}},
      {"Selu", BOUND(Selu, selA, selG),
       [=](float x) { return x > 0.0f ? selG * x : selG * fmaf(selA, expf(x), -selA); },
       {{"unfused", [=](float x) { return x > 0.0f ? selG * x : selG * (selA * expf(x) - selA); }},
        {"gamma * alpha * (e^x - 1)", [=](float x) { return x > 0.0f ? selG * x : selG * selA * (expf(x) - 1.0f); }},
        {"double", [=](float x) {
           return x > 0.0f ? selG * x : float(double(selG) * std::fma(double(selA), std::exp(widenD(x)), -double(selA)));
         }}}},
      {"Hardsigmoid(0.2, 0.5)", BOUND(Hardsigmoid, 0.2f, 0.5f),
       [](float x) {
         const float v = 0.2f * x + 0.5f;
         return v < 1.0f ? (v > 0.0f ? v : 0.0f) : 1.0f;
       },
       {{"fused", [](float x) {
          const float v = fmaf(0.2f, x, 0.5f);
          return v < 1.0f ? (v > 0.0f ? v : 0.0f) : 1.0f;
        }}}},
      {"Softsign", PLAIN(Softsign), [](float x) { return x / (fabsf(x) + 1.0f); },
       {{"x * (1 / (|x| + 1))", [](float x) { return x * (1.0f / (fabsf(x) + 1.0f)); }}}},
      {"Rsqrt", PLAIN(Rsqrt), [](float x) { return 1.0f / sqrtf(x); },
       {{"double", [](float x) { return float(1.0 / std::sqrt(widenD(x))); }}}},
      {"Round(2)", BOUND(Round, int64_t(2)), [](float x) { return std::rint(x * 100.0f) / 100.0f; },
       {{"double product", [](float x) { return float(std::rint(widenD(x) * 100.0) / 100.0); }},
        {"half away from zero", [](float x) { return std::round(x * 100.0f) / 100.0f; }}}},
      {"LeakyReLU(0.1)", BOUND(LeakyReLU, 0.1), [](float x) { return x > 0.0f ? x : 0.1f * x; },
       {{"double slope", [](float x) { return x > 0.0f ? x : float(0.1 * x); }}}},
      {"Reciprocal", PLAIN(Reciprocal), [](float x) { return 1.0f / x; }, {}},
      {"Tanh", PLAIN(Tanh), tanhf, {}},
      {"Exp", PLAIN(Exp), expf, {}},
      {"Log", PLAIN(Log), logf, {}},
      {"Sqrt", PLAIN(Sqrt), sqrtf, {}},
      {"Sin", PLAIN(Sin), sinf, {}},
      {"Cos", PLAIN(Cos), cosf, {}},
      {"Tan", PLAIN(Tan), tanf, {}},
      {"Asin", PLAIN(Asin), asinf, {}},
      {"Acos", PLAIN(Acos), acosf, {}},
      {"Atan", PLAIN(Atan), atanf, {}},
      {"Sinh", PLAIN(Sinh), sinhf, {}},
      {"Cosh", PLAIN(Cosh), coshf, {}},
      {"Asinh", PLAIN(Asinh), asinhf, {}},
      {"Acosh", PLAIN(Acosh), acoshf, {}},
      {"Atanh", PLAIN(Atanh), atanhf, {}},
      {"Erf", PLAIN(Erf), erff, {}},
      {"Floor", PLAIN(Floor), floorf, {}},
      {"Ceil", PLAIN(Ceil), ceilf, {}},
      {"Abs", PLAIN(Abs), fabsf, {}},
  };
  const std::vector<float> inputs = formulaInputs();
  Tensor in = tensorOf<float>(ElementType::f32, {long(inputs.size())}, inputs);
  for (const FormulaRow& row : rows) {
    SCOPED_TRACE(row.name);
    const std::vector<float> out = valuesOf<float>(row.kernel(in));
    for (size_t i = 0; i < inputs.size(); ++i)
      ASSERT_PRED2(sameFloat, out[i], row.formula(inputs[i])) << "x = " << inputs[i];
    for (const auto& [what, variant] : row.wrong) {
      size_t differing = 0;
      for (float x : inputs) differing += !sameFloat(variant(x), row.formula(x));
      EXPECT_GT(differing, 0u) << "no input tells the formula apart from the " << what << " evaluation";
    }
  }
}

TEST(UnaryFormulas, HalfIsTheFloatResultRoundedToNearestEvenForEveryPattern) {
  std::vector<uint16_t> patterns(65536);
  for (uint32_t h = 0; h < 65536; ++h) patterns[h] = uint16_t(h);
  Tensor halves = tensorOf<uint16_t>(ElementType::f16, {65536}, patterns);
  std::vector<float> widened(65536);
  for (uint32_t h = 0; h < 65536; ++h) widened[h] = halfBitsToFloat(uint16_t(h));
  Tensor floats = tensorOf<float>(ElementType::f32, {65536}, widened);
  const std::pair<const char*, Member> members[] = {
      {"Sigmoid", PLAIN(Sigmoid)},       {"Mish", PLAIN(Mish)},
      {"GELUV2 tanh", BOUND(GELUV2, std::string("tanh"))},
      {"Selu", BOUND(Selu, 1.5f, 1.25f)}, {"Round(1)", BOUND(Round, int64_t(1))},
      {"Sign", PLAIN(Sign)},             {"Neg", PLAIN(Neg)},
      {"Exp", PLAIN(Exp)},               {"Rsqrt", PLAIN(Rsqrt)},
      {"ClampF", BOUND(ClampF, -2.0, 3.5)}, {"NanToNum", BOUND(NanToNum, 7.0, 100.0, -100.0)},
      {"LogicalNot", PLAIN(LogicalNot)},
  };
  for (const auto& [name, member] : members) {
    SCOPED_TRACE(name);
    const auto fromHalf = bitsOf<half>(member(halves));
    const auto fromFloat = valuesOf<float>(member(floats));
    for (uint32_t h = 0; h < 65536; ++h)
      ASSERT_EQ(fromHalf[h], floatToHalfBits(fromFloat[h])) << std::hex << "f16 pattern 0x" << h;
  }
}

TEST(UnaryValues, HandWorkedResults) {
  struct Case {
    const char* what;
    Member member;
    std::vector<float> in, out;
  };
  const float halfPoint1 = halfBitsToFloat(floatToHalfBits(0.1f));
  const Case cases[] = {
      {"Sigmoid saturates", PLAIN(Sigmoid), {-100.0f, 100.0f, 0.0f}, {0.0f, 1.0f, 0.5f}},
      {"Hardsigmoid of NaN is 1", BOUND(Hardsigmoid, 0.2f, 0.5f), {kNaN, 10.0f, -10.0f, 0.0f}, {1.0f, 1.0f, 0.0f, 0.5f}},
      {"ClampF keeps NaN", BOUND(ClampF, -1.0, 2.0), {kNaN, -5.0f, 5.0f, 0.5f, -kInf}, {kNaN, -1.0f, 2.0f, 0.5f, -1.0f}},
      {"ClampF lower bound first", BOUND(ClampF, 3.0, 1.0), {0.0f, 2.0f, 5.0f}, {1.0f, 1.0f, 1.0f}},
      {"Round halves to even", BOUND(Round, int64_t(0)), {0.5f, 1.5f, 2.5f, -0.5f, -2.5f}, {0.0f, 2.0f, 2.0f, -0.0f, -2.0f}},
      {"Round one decimal", BOUND(Round, int64_t(1)), {0.25f, 0.35f}, {0.2f, 0.4f}},
      {"Round to tens", BOUND(Round, int64_t(-1)), {15.0f, 25.0f, 26.0f}, {20.0f, 20.0f, 30.0f}},
      {"Softplus threshold", BOUND(Softplus, 1.0, 20.0), {21.0f, 20.0f}, {21.0f, logf(expf(20.0f) + 1.0f)}},
      {"Sign", PLAIN(Sign), {-3.0f, 0.25f, 0.0f, -0.0f, kNaN, -kInf}, {-1.0f, 1.0f, 0.0f, -0.0f, kNaN, -1.0f}},
      {"Abs and the sign bit", PLAIN(Abs), {-0.0f, -2.0f, -kInf}, {0.0f, 2.0f, kInf}},
      {"Neg of zero is -0", PLAIN(Neg), {0.0f, -0.0f, 1.5f}, {-0.0f, 0.0f, -1.5f}},
      {"IEEE results, no traps", PLAIN(Reciprocal), {0.0f, -0.0f, kInf}, {kInf, -kInf, 0.0f}},
      {"Log of 0 and -1", PLAIN(Log), {0.0f, -1.0f}, {-kInf, kNaN}},
      {"Sqrt of -1", PLAIN(Sqrt), {-1.0f, -0.0f}, {kNaN, -0.0f}},
      {"Rsqrt of -1 and 0", PLAIN(Rsqrt), {-1.0f, 0.0f}, {kNaN, kInf}},
      {"Elu keeps -0", BOUND(Elu, 2.0f), {-0.0f, -kInf, 3.0f}, {-0.0f, -2.0f, 3.0f}},
      {"Selu at 0 and -inf", BOUND(Selu, 2.0f, 3.0f), {0.0f, -kInf, 1.0f}, {0.0f, -6.0f, 3.0f}},
      {"NanToNum", BOUND(NanToNum, 0.0, 1e300, -5.0), {kNaN, kInf, -kInf, -7.0f}, {0.0f, kInf, -5.0f, -7.0f}},
      {"LogicalNot", PLAIN(LogicalNot), {0.0f, -0.0f, kNaN, 1e-45f, -3.0f}, {1.0f, 1.0f, 0.0f, 0.0f, 0.0f}},
      {"LeakyReLU", BOUND(LeakyReLU, 0.1), {-0.0f, -kInf, kNaN, 2.0f}, {-0.0f, -kInf, kNaN, 2.0f}},
      {"f32 slope used as given", BOUND(LeakyReLU, double(halfPoint1)), {-1.0f}, {-halfPoint1}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const auto out = valuesOf<float>(c.member(tensorOf<float>(ElementType::f32, {long(c.in.size())}, c.in)));
    for (size_t i = 0; i < c.in.size(); ++i) EXPECT_PRED2(sameFloat, out[i], c.out[i]) << "x = " << c.in[i];
  }
}

TEST(UnaryValues, HalfConstantsRoundToTheElementType) {
  // LeakyReLU's slope rounds to f16 first: 0.1 becomes 1638 * 2^-14, and
  // -3 * that is the tie 1228.5 * 2^-12, which rounds to even. A slope kept
  // in f32 would give 0.3 and round up to 1229 * 2^-12.
  Tensor in = tensorOf<uint16_t>(ElementType::f16, {1}, {floatToHalfBits(-3.0f)});
  Tensor out = BOUND(LeakyReLU, 0.1)(in);
  EXPECT_EQ(valuesOf<half>(out)[0].toFloat(), -1228.0f / 4096.0f);
  // NanToNum's replacements overflow in the element type.
  Tensor special = tensorOf<uint16_t>(ElementType::f16, {3}, {0x7e00, 0x7c00, 0xfc00});
  EXPECT_EQ(bitsOf<half>(BOUND(NanToNum, 1.0, 65504.0, -70000.0)(special)),
            (std::vector<uint16_t>{0x3c00, 0x7bff, 0xfc00}));
}

TEST(UnaryValues, RoundSetsRoundToNearest) {
  std::fesetround(FE_UPWARD);
  Tensor in = tensorOf<float>(ElementType::f32, {2}, {2.5f, 0.125f});
  const auto out = valuesOf<float>(BOUND(Round, int64_t(0))(in));
  EXPECT_EQ(std::fegetround(), FE_TONEAREST) << "the mode is left at round-to-nearest";
  std::fesetround(FE_TONEAREST);
  EXPECT_EQ(out, (std::vector<float>{2.0f, 0.0f}));
}

TEST(UnaryIntegers, ClampTruncatesItsBoundsAndAppliesTheLowerFirst) {
  const std::vector<int8_t> in = {-128, -6, 0, 4, 5, 100, 127};
  // Hand-checked rows (bounds after truncation to 8 bits in the comments).
  struct Row {
    int64_t min, max;
    std::vector<int8_t> out;
  };
  const Row rows[] = {
      {5, 3, {3, 3, 3, 3, 3, 3, 3}},                      // min > max: everything is max
      {-5, 50, {-5, -5, 0, 4, 5, 50, 50}},
      {300, 1000, {-24, -24, -24, -24, -24, -24, -24}},   // 44 and -24: max wins
      {-300, 127, {-44, -6, 0, 4, 5, 100, 127}},          // -300 is -44
      {INT64_MIN, INT64_MAX, {-1, -1, -1, -1, -1, -1, -1}},  // 0 and -1: max wins
  };
  Tensor t = tensorOf<int8_t>(ElementType::si8, {7}, in);
  for (const Row& r : rows) {
    EXPECT_EQ(valuesOf<int8_t>(BOUND(Clamp, r.min, r.max)(t)), r.out) << r.min << ", " << r.max;
  }
  Tensor wide = tensorOf<int64_t>(ElementType::si64, {3}, {INT64_MIN, 0, INT64_MAX});
  EXPECT_EQ(valuesOf<int64_t>(BOUND(Clamp, int64_t(-7), int64_t(1) << 40)(wide)),
            (std::vector<int64_t>{-7, 0, int64_t(1) << 40}));
  Tensor mid = tensorOf<int32_t>(ElementType::si32, {3}, {-70000, 5, 70000});
  EXPECT_EQ(valuesOf<int32_t>(BOUND(Clamp, int64_t(-65536), (int64_t(1) << 32) + 9)(mid)),
            (std::vector<int32_t>{-65536, 5, 9}));
  Tensor shorts = tensorOf<int16_t>(ElementType::si16, {2}, {-3, 3});
  EXPECT_EQ(valuesOf<int16_t>(BOUND(Clamp, int64_t(65536 - 2), int64_t(65536 + 2))(shorts)),
            (std::vector<int16_t>{-2, 2}));
}

TEST(UnaryIntegers, BitwiseNotAndLogicalNotOnEveryWidth) {
  std::vector<int8_t> all(256);
  for (int i = 0; i < 256; ++i) all[i] = int8_t(i - 128);
  const auto inverted = valuesOf<int8_t>(PLAIN(BitwiseNot)(tensorOf<int8_t>(ElementType::si8, {256}, all)));
  for (int i = 0; i < 256; ++i) ASSERT_EQ(int(inverted[i]), -(i - 128) - 1);  // ~x == -x - 1
  EXPECT_EQ(valuesOf<int64_t>(PLAIN(BitwiseNot)(tensorOf<int64_t>(ElementType::si64, {2}, {INT64_MIN, 0}))),
            (std::vector<int64_t>{INT64_MAX, -1}));
  EXPECT_EQ(valuesOf<int16_t>(PLAIN(BitwiseNot)(tensorOf<int16_t>(ElementType::si16, {1}, {0x00ff}))),
            (std::vector<int16_t>{int16_t(0xff00)}));

  EXPECT_EQ(valuesOf<uint8_t>(PLAIN(LogicalNot)(tensorOf<uint8_t>(ElementType::bool8, {4}, {0, 1, 2, 255}))),
            (std::vector<uint8_t>{1, 0, 0, 0}));
  EXPECT_EQ(valuesOf<uint64_t>(PLAIN(LogicalNot)(tensorOf<uint64_t>(ElementType::ui64, {3}, {0, 1, UINT64_MAX}))),
            (std::vector<uint64_t>{1, 0, 0}));
  EXPECT_EQ(valuesOf<int32_t>(PLAIN(LogicalNot)(tensorOf<int32_t>(ElementType::si32, {3}, {INT32_MIN, 0, -1}))),
            (std::vector<int32_t>{0, 1, 0}));
  EXPECT_EQ(valuesOf<double>(PLAIN(LogicalNot)(tensorOf<double>(ElementType::f64, {3}, {-0.0, 1e-300, NAN}))),
            (std::vector<double>{1, 0, 0}));
}

TEST(UnaryPRelu, SlopeAtTheElementsOwnCoordinate) {
  // Per-channel slope [2, 1] against [2, 3]; equal shapes; a single value.
  Tensor in = tensorOf<float>(ElementType::f32, {2, 3}, {-1.0f, 2.0f, -0.0f, -4.0f, kNaN, -kInf});
  struct Case {
    const char* what;
    Tensor slope;
    std::vector<float> out;
  };
  const Case cases[] = {
      {"per channel", tensorOf<float>(ElementType::f32, {2, 1}, {0.5f, -2.0f}), {-0.5f, 2.0f, -0.0f, 8.0f, kNaN, kInf}},
      {"same shape", tensorOf<float>(ElementType::f32, {2, 3}, {1, 2, 3, 4, 5, 6}), {-1.0f, 2.0f, -0.0f, -16.0f, kNaN, -kInf}},
      {"one value", tensorOf<float>(ElementType::f32, {1}, {0.25f}), {-0.25f, 2.0f, -0.0f, -1.0f, kNaN, -kInf}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const auto out = valuesOf<float>(BOUND(PRelu, c.slope)(in));
    for (size_t i = 0; i < out.size(); ++i) EXPECT_PRED2(sameFloat, out[i], c.out[i]) << i;
  }
  // Integer products wrap.
  Tensor bytes = tensorOf<int8_t>(ElementType::si8, {4}, {-128, -3, 5, -1});
  Tensor slope = tensorOf<int8_t>(ElementType::si8, {4}, {2, 50, 9, -128});
  EXPECT_EQ(valuesOf<int8_t>(BOUND(PRelu, slope)(bytes)), (std::vector<int8_t>{0, 106, 5, -128}));

  Tensor out;
  Tensor wide = Tensor::create(ElementType::f32, {2, 2, 3});
  EXPECT_EQ(native::PReluConfig(out, in, wide).message(), "PRelu config error: shape mismatch");
  Tensor odd = Tensor::create(ElementType::f32, {2, 2});
  EXPECT_EQ(native::PReluConfig(out, in, odd).message(), "PRelu config error: axis 1 size not match for all fins");
  Tensor target = tensorOf<float>(ElementType::f32, {2, 3}, {9, 9, 9, 9, 9, 9});
  EXPECT_EQ(native::PRelu(target, in, tensorOf<int8_t>(ElementType::si8, {1}, {1})).message(), "type mismatch");
  EXPECT_EQ(native::PRelu(target, in, odd).message(), "shape mismatch");
  EXPECT_EQ(valuesOf<float>(target), (std::vector<float>{9, 9, 9, 9, 9, 9}));
}

TEST(UnaryLayouts, StridedOperandsGiveTheCompactResults) {
  std::vector<float> values(7 * 33);
  for (size_t i = 0; i < values.size(); ++i) values[i] = float(int(i % 29) - 14) * 0.37f;
  Tensor compact = tensorOf<float>(ElementType::f32, {7, 33}, values);
  std::vector<uint16_t> halfValues(values.size());
  for (size_t i = 0; i < values.size(); ++i) halfValues[i] = floatToHalfBits(values[i]);
  Tensor compactHalf = tensorOf<uint16_t>(ElementType::f16, {7, 33}, halfValues);
  const std::pair<const char*, Member> members[] = {
      {"Sigmoid", PLAIN(Sigmoid)}, {"GELU", PLAIN(GELU)}, {"ClampF", BOUND(ClampF, -1.0, 1.0)},
      {"Round", BOUND(Round, int64_t(1))}, {"Abs", PLAIN(Abs)},
  };
  for (const auto& [name, member] : members) {
    for (const Tensor& base : {compact, compactHalf}) {
      SCOPED_TRACE(std::string(name) + " " + elementTypeName(base.elementType()));
      const auto expected = bitsOf<float>(member(base).cast(ElementType::f32));
      // Transposed input: copy the data transposed, then view it back.
      Tensor transposed = base.permute({1, 0}).contiguous().permute({1, 0});
      EXPECT_EQ(bitsOf<float>(member(transposed).cast(ElementType::f32)), expected) << "transposed input";
      // Sliced input: every other column of a wider tensor.
      Tensor wide = Tensor::create(base.elementType(), {7, 66});
      Tensor sliced = wide.slice(1, 1, 66, 2);
      copyElements(sliced, base);
      EXPECT_EQ(bitsOf<float>(member(sliced).cast(ElementType::f32)), expected) << "sliced input";
      // Transposed output.
      Tensor storage = Tensor::create(base.elementType(), {33, 7});
      Tensor out = storage.permute({1, 0});
      ASSERT_TRUE(member.impl(out, base).ok());
      EXPECT_EQ(bitsOf<float>(out.cast(ElementType::f32)), expected) << "transposed output";
    }
  }
}

TEST(UnaryTrace, LinesForTheTracedCoordinate) {
  struct Case {
    Member member;
    Tensor in;
    std::vector<long> point;
    std::string line;
  };
  Tensor f32s = tensorOf<float>(ElementType::f32, {2, 2}, {-1.5f, 0.25f, kNaN, 4.0f});
  const Case cases[] = {
      {PLAIN(Sigmoid), f32s, {0, 1}, "fout[0, 1] = sigmoid(fin[0, 1]) // sigmoid(0.25) -> 0.5621765 "},
      {BOUND(GELUV2, std::string("none")), f32s, {1, 1}, "fout[1, 1] = geluv2_none(fin[1, 1]) // geluv2_none(4) -> 3.9998732 "},
      {BOUND(GELUV2, std::string("tanh")), f32s, {1, 1}, "fout[1, 1] = geluv2_tanh(fin[1, 1]) // geluv2_tanh(4) -> 3.99993 "},
      {BOUND(Hardsigmoid, 0.2f, 0.5f), f32s, {1, 0}, "fout[1, 0] = hardsigmoid(fin[1, 0]) // hardsigmoid(nan) -> 1 "},
      {BOUND(ClampF, -1.0, 1.0), f32s, {0, 0}, "fout[0, 0] = clamp(fin[0, 0]) // clamp(-1.5) -> -1 "},
      {BOUND(NanToNum, 9.0, 1.0, 2.0), f32s, {1, 0}, "fout[1, 0] = nanToNum(fin[1, 0]) // nanToNum(nan) -> 9 "},
      {BOUND(Round, int64_t(0)), f32s, {0, 0}, "fout[0, 0] = round(fin[0, 0]) // round(-1.5) -> -2 "},
      {BOUND(LeakyReLU, 0.5), f32s, {0, 0}, "fout[0, 0] = leakyrelu(fin[0, 0]) // leakyrelu(-1.5) -> -0.75 "},
      {PLAIN(Erf), f32s, {0, 1}, "fout[0, 1] = erf(fin[0, 1]) // erf(0.25) -> 0.2763264 "},
      {BOUND(Clamp, int64_t(-2), int64_t(2)), tensorOf<int16_t>(ElementType::si16, {3}, {-7, 1, 9}), {2},
       "fout[2] = clamp(fin[2]) // clamp(9) -> 2 "},
      {PLAIN(BitwiseNot), tensorOf<int8_t>(ElementType::si8, {2}, {5, -128}), {1},
       "fout[1] = bitwise_not(fin[1]) // bitwise_not(-128) -> 127 "},
      {PLAIN(LogicalNot), tensorOf<uint8_t>(ElementType::bool8, {2}, {0, 3}), {0},
       "fout[0] = logical_not(fin[0]) // logical_not(0) -> 1 "},
      {BOUND(PRelu, tensorOf<float>(ElementType::f32, {2, 1}, {0.5f, 3.0f})), f32s, {0, 0},
       "fout[0, 0] = prelu(fin[0, 0]) // prelu(-1.5) -> -0.75 "},
      {PLAIN(Exp), tensorOf<uint16_t>(ElementType::f16, {1}, {0x3c00}), {0},
       "fout[0] = exp(fin[0]) // exp(1) -> 2.71875 "},
  };
  for (const Case& c : cases) {
    const auto untraced = bitsOf<float>(c.member(c.in).cast(ElementType::f32));
    test::TraceCapture capture;
    test::ScopedTracePoint point(c.point);
    EXPECT_EQ(bitsOf<float>(c.member(c.in).cast(ElementType::f32)), untraced) << "tracing never changes the output";
    EXPECT_EQ(capture.lines(), std::vector<std::string>{c.line});
  }
}

TEST(UnaryFailures, ExactTextsAndNothingWritten) {
  Tensor f32In = tensorOf<float>(ElementType::f32, {2}, {-1, 1});
  Tensor si32In = tensorOf<int32_t>(ElementType::si32, {2}, {-1, 1});
  Tensor f32Out = tensorOf<float>(ElementType::f32, {2}, {7, 7});
  Tensor si32Out = tensorOf<int32_t>(ElementType::si32, {2}, {7, 7});
  Tensor f32Wide = Tensor::create(ElementType::f32, {3});
  Tensor empty, alsoEmpty;
  struct Case {
    const char* what;
    std::function<Status()> call;
    std::string message;
  };
  const Case cases[] = {
      {"shape", [&] { return native::Sigmoid(f32Wide, f32In); }, "shape mismatch"},
      {"type", [&] { return native::Tanh(f32Out, si32In); }, "type mismatch"},
      {"GELUV2 compute", [&] { return native::GELUV2(f32Out, f32In, "exact"); }, "only support none or tanh approximate."},
      {"GELUV2 config", [&] { return native::GELUV2Config(empty, f32In, "erf"); },
       "GELUV2 config error: only support none or tanh approximate."},
      {"NanToNum on si32", [&] { return native::NanToNum(si32Out, si32In, 0, 0, 0); },
       "numToNum fin should be in [float32, float16]"},
      {"Round on si32", [&] { return native::Round(si32Out, si32In, 0); }, "round fin should be in [float32, float16]"},
      {"BitwiseNot on f32", [&] { return native::BitwiseNot(f32Out, f32In); }, "must be integral"},
      {"Config without input", [&] { return native::SigmoidConfig(alsoEmpty, Tensor()); },
       "Sigmoid config error: lhs and rhs must both valid"},
      {"Hardsigmoid config", [&] { return native::HardsigmoidConfig(alsoEmpty, Tensor(), 1, 1); },
       "Hardsigmoid config error: lhs and rhs must both valid"},
      {"Clamp config", [&] { return native::ClampConfig(alsoEmpty, Tensor(), 1, 1); },
       "Clamp config error: lhs and rhs must both valid"},
  };
  for (const Case& c : cases) EXPECT_EQ(c.call().message(), c.message) << c.what;
  EXPECT_EQ(valuesOf<float>(f32Out), (std::vector<float>{7, 7}));
  EXPECT_EQ(valuesOf<int32_t>(si32Out), (std::vector<int32_t>{7, 7}));
  // A successful Config reports nothing and leaves a set type alone.
  Tensor typed(ElementType::f16, {});
  Status ok = native::SeluConfig(typed, f32In, 1, 1);
  EXPECT_TRUE(ok.ok());
  EXPECT_EQ(ok.message(), "");
  EXPECT_EQ(typed.type(), TensorType(ElementType::f16, {2}));
}

using UnaryDeathTest = ::testing::Test;
TEST_F(UnaryDeathTest, TypesAMemberDoesNotServeTrap) {
  struct Case {
    const char* what;
    ElementType type;
    std::function<Status(Tensor&, const Tensor&)> call;
  };
  const Case cases[] = {
      {"float member on f64", ElementType::f64, native::Sigmoid},
      {"float member on bf16", ElementType::vbf16, native::Exp},
      {"Clamp on f32", ElementType::f32, [](Tensor& o, const Tensor& i) { return native::Clamp(o, i, 0, 1); }},
      {"ReLU on ui8", ElementType::ui8, native::ReLU},
      {"LogicalNot on opaque", ElementType::opaque32, native::LogicalNot},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Tensor in = Tensor::create(c.type, {2}), out = Tensor::create(c.type, {2});
    EXPECT_DEATH(
        {
          test::logToStderr();
          (void)c.call(out, in);
        },
        std::string("2\\|trapped at include/kora/Core/ElementType, line [0-9]+\n2\\|unknown element type: ") +
            elementTypeName(c.type));
  }
}
