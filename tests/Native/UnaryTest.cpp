// The one-input elementwise kernels (ReLU, Cast, FakeCast and Lut included):
// formulas bit for bit against the single precision libm expression (with
// evidence that the inputs tell it apart from a double precision, fused or
// reordered evaluation), hand-worked values of the documented choices (f16
// included), integer members, layouts, trace lines, failures.
#include "NativeTest.h"

using namespace kora;
using namespace kora::test;
using enum ElementType;

namespace {

using UnaryFn = std::function<Status(Tensor&, const Tensor&)>;

// A member with its attributes bound, run as a host does.
struct Member {
  UnaryFn config, impl;
  Tensor operator()(const Tensor& in) const { return runKernel(config, impl, Tensor(), in); }
};

#define PLAIN(Name) Member{native::Name##Config, native::Name}
#define BOUND(Name, ...)                                                                             \
  Member{[=](Tensor& o, const Tensor& i) { return native::Name##Config(o, i, __VA_ARGS__); }, \
         [=](Tensor& o, const Tensor& i) { return native::Name(o, i, __VA_ARGS__); }}

using Formula = std::function<float(float)>;

}  // namespace

TEST(UnaryFormulas, SinglePrecisionInTheWrittenOrder) {
  const float sa = 1.6732632f, sg = 1.0507010f;
  auto hardsigmoid = [](float v) { return v < 1.0f ? (v > 0.0f ? v : 0.0f) : 1.0f; };
  auto mish = [](float s, float x) { return x * (expf(s) - expf(-s)) / (expf(s) + expf(-s)); };
  // The inputs tell each formula apart from a double precision, fused or
  // reordered evaluation of it (x / (e + 1) for Swish, x * 0.70710677 for
  // GELU, no fmaf in Selu, one fmaf in Hardsigmoid ...).
  const std::tuple<const char*, Member, Formula> rows[] = {
      {"Sigmoid", PLAIN(Sigmoid), [](float x) { return 1.0f / (expf(-x) + 1.0f); }},
      {"Swish", PLAIN(Swish), [](float x) { return x * (1.0f / (expf(-x) + 1.0f)); }},
      {"Mish", PLAIN(Mish), [=](float x) { return mish(logf(expf(x) + 1.0f), x); }},
      {"GELU", PLAIN(GELU), [](float x) { return x * 0.5f * (erff(x / 1.4142135f) + 1.0f); }},
      {"GELUV2 tanh", BOUND(GELUV2, std::string("tanh")),
       [](float x) { return 0.5f * x * (1.0f + tanhf(0.7978845f * (x + 0.044715f * x * x * x))); }},
      {"Softplus(2, 15)", BOUND(Softplus, 2.0, 15.0),
       [](float x) { return 2.0f * x > 15.0f ? x : (1.0f / 2.0f) * logf(expf(2.0f * x) + 1.0f); }},
      {"Elu(1.5)", BOUND(Elu, 1.5f), [](float x) { return x < 0.0f ? (expf(x) - 1.0f) * 1.5f : x; }},
      {"Selu", BOUND(Selu, sa, sg), [=](float x) { return x > 0.0f ? sg * x : sg * fmaf(sa, expf(x), -sa); }},
      {"Hardsigmoid(0.2, 0.5)", BOUND(Hardsigmoid, 0.2f, 0.5f), [=](float x) { return hardsigmoid(0.2f * x + 0.5f); }},
      {"Softsign", PLAIN(Softsign), [](float x) { return x / (fabsf(x) + 1.0f); }},
      {"Rsqrt", PLAIN(Rsqrt), [](float x) { return 1.0f / sqrtf(x); }},
      {"Round(2)", BOUND(Round, int64_t(2)), [](float x) { return std::rint(x * 100.0f) / 100.0f; }},
      {"LeakyReLU(0.1)", BOUND(LeakyReLU, 0.1), [](float x) { return x > 0.0f ? x : 0.1f * x; }},
      {"Reciprocal", PLAIN(Reciprocal), [](float x) { return 1.0f / x; }},
      {"Tanh", PLAIN(Tanh), tanhf},    {"Exp", PLAIN(Exp), expf},       {"Log", PLAIN(Log), logf},
      {"Sqrt", PLAIN(Sqrt), sqrtf},    {"Sin", PLAIN(Sin), sinf},       {"Cos", PLAIN(Cos), cosf},
      {"Tan", PLAIN(Tan), tanf},       {"Asin", PLAIN(Asin), asinf},    {"Acos", PLAIN(Acos), acosf},
      {"Atan", PLAIN(Atan), atanf},    {"Sinh", PLAIN(Sinh), sinhf},    {"Cosh", PLAIN(Cosh), coshf},
      {"Asinh", PLAIN(Asinh), asinhf}, {"Acosh", PLAIN(Acosh), acoshf}, {"Atanh", PLAIN(Atanh), atanhf},
      {"Erf", PLAIN(Erf), erff},       {"Floor", PLAIN(Floor), floorf}, {"Ceil", PLAIN(Ceil), ceilf},
      {"Abs", PLAIN(Abs), fabsf},      {"Neg", PLAIN(Neg), [](float x) { return -x; }},
  };
  std::vector<float> inputs = {0.0f, -0.0f, 1.0f, -1.0f, 0.5f, -0.5f, 1e-8f, -1e-8f, 20.0f, -20.0f, 88.0f, -88.0f,
                               100.0f, -100.0f, kInf, -kInf, kNaN, 0.125f, 0.375f, -0.125f, 2.5f, 1e30f, -1e30f,
                               0.005f, 1.005f, 0.015f, -0.035f, 3.0f, -3.0f};
  std::mt19937 rng(20240611);
  std::uniform_real_distribution<float> wide(-10.0f, 10.0f), narrowRange(-0.02f, 0.02f);
  for (int i = 0; i < 3500; ++i) inputs.push_back(i < 3000 ? wide(rng) : narrowRange(rng));
  Tensor in = tensorOf<float>(f32, {long(inputs.size())}, inputs);
  for (const auto& [name, kernel, formula] : rows) {
    const std::vector<float> out = valuesOf<float>(kernel(in));
    for (size_t i = 0; i < inputs.size(); ++i) ASSERT_PRED2(sameFloat, out[i], formula(inputs[i])) << name << inputs[i];
  }
}

TEST(UnaryValues, HandWorkedResults) {
  const std::tuple<const char*, Member, std::vector<float>, std::vector<float>> cases[] = {
      {"ReLU: -0, NaN and -inf give +0", PLAIN(ReLU), {-0.0f, 1e-45f, -1e-45f, kNaN, -kInf, kInf},
       {0.0f, 1e-45f, 0.0f, 0.0f, 0.0f, kInf}},
      {"ClampF keeps NaN, lower bound first", BOUND(ClampF, 3.0, 1.0), {kNaN, 0.0f, 2.0f, 5.0f}, {kNaN, 1, 1, 1}},
      {"Softplus: the threshold itself is not above it", BOUND(Softplus, 1.0, 0.0), {0.0f, 1.0f}, {logf(2.0f), 1.0f}},
      {"Round to tens", BOUND(Round, int64_t(-1)), {15.0f, 25.0f, 26.0f}, {20.0f, 20.0f, 30.0f}},
      {"PRelu, one slope for all", BOUND(PRelu, f32s({1}, {0.25f})), {-1, 2, -0.0f, kNaN, -kInf}, {-0.25f, 2, -0.0f, kNaN, -kInf}},
      {"Sign", PLAIN(Sign), {-3.0f, 0.25f, 0.0f, -0.0f, kNaN, -kInf}, {-1.0f, 1.0f, 0.0f, -0.0f, kNaN, -1.0f}},
      {"NanToNum", BOUND(NanToNum, 0.0, 1e300, -5.0), {kNaN, kInf, -kInf, -7.0f}, {0.0f, kInf, -5.0f, -7.0f}},
      {"LogicalNot", PLAIN(LogicalNot), {0.0f, -0.0f, kNaN, 1e-45f, -3.0f}, {1.0f, 1.0f, 0.0f, 0.0f, 0.0f}},
  };
  for (const auto& [what, member, in, expected] : cases) {
    const auto out = valuesOf<float>(member(f32s({long(in.size())}, in)));
    for (size_t i = 0; i < in.size(); ++i) EXPECT_PRED2(sameFloat, out[i], expected[i]) << what << ": " << in[i];
  }
  // f16: LeakyReLU's slope rounds to f16 first: 0.1 becomes 1638 * 2^-14, and
  // -3 * that is the tie 1228.5 * 2^-12, which rounds to even. A slope kept
  // in f32 would give 0.3 and round up to 1229 * 2^-12.
  Tensor three = tensorOf<uint16_t>(f16, {1}, {floatToHalfBits(-3.0f)});
  EXPECT_EQ(valuesOf<half>(BOUND(LeakyReLU, 0.1)(three))[0].toFloat(), -1228.0f / 4096.0f);
}

TEST(UnaryIntegers, HandWorkedOnEveryWidth) {
  const std::vector<int64_t> bytes = {-128, -6, 0, 4, 5, 100, 127};
  std::vector<int64_t> all8, inverted8, table(256);
  for (int x = -128; x < 128; ++x) all8.push_back(x), inverted8.push_back(-x - 1);  // ~x == -x - 1
  for (int i = 0; i < 256; ++i) table[size_t(i)] = 3 * i + 1;  // wrapped to si8 by ints()
  const int64_t i64max = INT64_MAX;
  // Clamp's bounds are truncated to the element width, the lower applied first.
  const std::tuple<const char*, Member, Tensor, std::vector<int64_t>> cases[] = {
      // Truncated, 300 is 44 and 1000 is -24: min > max, everything is max.
      {"300 is 44, 1000 is -24", BOUND(Clamp, int64_t(300), int64_t(1000)), ints(si8, bytes), {-24, -24, -24, -24,
       -24, -24, -24}},
      {"si8 not", PLAIN(BitwiseNot), ints(si8, all8), inverted8},
      {"bool8 bytes", PLAIN(LogicalNot), tensorOf<uint8_t>(bool8, {4}, {0, 1, 2, 255}), {1, 0, 0, 0}},
      {"si64 relu", PLAIN(ReLU), ints(si64, {-1, i64max}), {0, i64max}},
      {"prelu products wrap", BOUND(PRelu, ints(si8, {2, 50, 9, -128})), ints(si8, {-128, -3, 5, -1}), {0, 106, 5, -128}},
      // Lut: entry 0 belongs to the lowest value; tables may be strided, inputs transposed.
      {"lut si8", BOUND(Lut, ints(si8, table)), ints(si8, {-128, -1, 0, 127}), {1, 126, -127, -2}},
      {"lut si16", BOUND(Lut, ints(si16, {40, 0, 41, 0, 42, 0, 43, 0}).slice(0, 0, 8, 2)),
       tensorOf<int16_t>(si16, {2, 2}, {-32768, -32767, -32766, -32765}).permute({1, 0}), {40, 42, 41, 43}},
  };
  for (const auto& [what, member, in, expected] : cases) {
    Tensor out = member(in);
    EXPECT_EQ(out.elementType(), in.elementType()) << what;
    EXPECT_EQ(valuesOf<int64_t>(out.cast(si64)), expected) << what;
    EXPECT_EQ(out.shape().vec(), in.shape().vec()) << what;
  }
}

TEST(UnaryTrace, InPlaceTheLineShowsTheOriginalInput) {
  auto run = [] {
    Tensor inPlace = f32s({2, 2}, {-1.5f, 0.25f, kNaN, 4.0f});
    EXPECT_TRUE(native::Sigmoid(inPlace, inPlace).ok());
    return inPlace;
  };
  expectTrace(run, {0, 1}, {"fout[0, 1] = sigmoid(fin[0, 1]) // sigmoid(0.25) -> 0.5621765 "});
}

TEST(UnaryFailures, ExactTextsAndNothingWritten) {
  Tensor f32In = f32s({2}, {-1, 1}), si32In = ints(si32, {-1, 1}), f32Out = f32s({2}, {7, 7});
  Tensor si32Out = ints(si32, {7, 7}), u8Out = ints(ui8, {7, 7, 7, 7, 7}), f32Wide = Tensor::create(f32, {3});
  Tensor untyped;
  Tensor table = ints(ui8, {1, 2, 3, 4}), lutIn = ints(ui8, {0, 3, 4, 9, 1});
  expectFailures({
      {"shape mismatch", CALL(Sigmoid(f32Wide, f32In))},
      {"only support none or tanh approximate.", CALL(GELUV2(f32Out, f32In, "exact"))},
      {"numToNum fin should be in [float32, float16]", CALL(NanToNum(si32Out, si32In, 0, 0, 0))},
      {"type mismatch", CALL(PRelu(f32Out, f32In, ints(si8, {1})))},
      {"CastOp config error: invalid fout ElementType", CALL(CastConfig(untyped, f32In, false))},
      {"only float16 is supported as dtype", CALL(FakeCast(f32Out, f32In, vbf16))},
      // The first index past the table, found before anything is written.
      {"lut index 4 out of range for a table of 4 entries", CALL(Lut(u8Out, lutIn, table))},
  });
  EXPECT_EQ(valuesOf<float>(f32Out), (std::vector<float>{7, 7}));
  EXPECT_EQ(valuesOf<uint8_t>(u8Out), std::vector<uint8_t>(5, 7));
}

TEST(Cast, SaturateFlagAndTheRoundTripThroughHalf) {
  auto cast = [](ElementType type, const Tensor& in, bool saturate) {
    return valuesOf<double>(runKernel(native::CastConfig, native::Cast, Tensor(type, {}), in, saturate).cast(f64));
  };
  // Integers wrap, or saturate with the flag.
  Tensor wide = ints(si32, {300, -129, 255, -1});
  EXPECT_EQ(cast(si8, wide, false), (std::vector<double>{44, 127, -1, -1}));
  EXPECT_EQ(cast(si8, wide, true), (std::vector<double>{127, -128, 127, -1}));
  // FakeCast rounds through f16 and back.
  Tensor in = f32s({6}, {1.0001f, 65520.0f, 65519.0f, -1e-8f, 0.1f, NAN});
  auto fakeCast = [&] { return runKernel(native::FakeCastConfig, native::FakeCast, Tensor(f32, {}), in, f16); };
  const std::vector<float> expected = {1.0f, kInf, 65504.0f, -0.0f, 0.0999755859375f, kNaN};
  const auto out = valuesOf<float>(fakeCast());
  for (size_t i = 0; i < expected.size(); ++i) EXPECT_PRED2(sameFloat, out[i], expected[i]) << i;
  expectTrace(fakeCast, {1}, {"fout[1] = fakecast(fin[1]) // fakecast(65520) -> inf"});
}
