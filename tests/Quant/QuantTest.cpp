// Affine quantization against hand-worked values, a binary64 emulation of
// the binary32 steps, and the exact failure texts.
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

constexpr float kInf = std::numeric_limits<float>::infinity();
constexpr int64_t kI64Max = std::numeric_limits<int64_t>::max(), kI64Min = std::numeric_limits<int64_t>::min();
constexpr ElementType f32 = ElementType::f32, si8 = ElementType::si8, si16 = ElementType::si16;

/// The floats' bits, every NaN as one quiet NaN.
std::vector<uint32_t> floatKeys(const std::vector<float>& v) {
  std::vector<uint32_t> bits;
  for (float f : v) bits.push_back(std::isnan(f) ? 0x7fc00000u : std::bit_cast<uint32_t>(f));
  return bits;
}

}  // namespace

TEST(Quantize, MatchesABinary64EmulationOfTheSteps) {
  // Each binary32 step computed in binary64 and rounded back to binary32 is
  // the binary32 result (binary64 holds every exact sum and quotient of two
  // binary32 values to more than twice their precision), so this reference
  // shares no code with the kernel's rounding. Random scales and inputs, near
  // ties, both ranges of every width, and the special values: zero, infinite
  // and NaN scales give infinities (saturated to the bound of their sign) and
  // NaN (0). Each result is dequantized again, (f32(q) - z) * s, and the
  // signed 8-, 16- and 32-bit cases are fake-quantized to the same values.
  // The first rounds pin steps random draws rarely meet. x / 1 + 0: the ties
  // 2.5 and -2.5 (among the near ties), and 0.49999997, whose + 0.5 rounds
  // up to 1 in f32. A zero point of 16777217, rounded to the f32 16777216
  // first. 0.35 / 0.1 + 2^23: the f32 quotient is the tie 3.5 (exactly
  // 3.49999994), and the sum the f32 tie 8388611.5 -> 8388612, where one
  // binary64 sum rounded once would give 8388611.
  const std::pair<double, int64_t> pinned[] = {{1, 0}, {1, 16777217}, {0.1, 8388608}};
  std::mt19937 rng(11);
  std::uniform_real_distribution<double> logMagnitude(-6, 12);
  std::uniform_int_distribution<int64_t> zeroDraw(-300, 300);
  const ElementType types[] = {si8, si16, ElementType::si32, ElementType::si64,
                               ElementType::ui8, ElementType::ui16, ElementType::ui32};
  const double specialScales[] = {0.0, -0.0, double(kInf), double(NAN)};
  for (int round = 0; round < 44; ++round) {
    double scale = std::pow(10.0, logMagnitude(rng) / 3) * (round % 7 == 0 ? -1 : 1);
    if (round >= 40) scale = specialScales[round - 40];
    int64_t zero = zeroDraw(rng);
    if (round < 3) scale = pinned[round].first, zero = pinned[round].second;
    std::vector<float> x(257);
    for (float& v : x) v = float(std::pow(10.0, logMagnitude(rng) / 2) * (rng() % 2 ? 1 : -1));
    for (int k = 0; k < 20; ++k) x[size_t(k)] = float(scale) * (float(k) - 10.0f + 0.5f);  // near ties
    for (float v : {0.0f, -0.0f, kInf, -kInf, float(NAN), 1e-45f, 3e38f, -3e9f, 1e19f, -1e19f, 0.49999997f, 0.35f}) x.push_back(v);
    const float s = float(scale), z = float(zero);
    const Tensor in = tensorOf<float>(f32, {long(x.size())}, x);
    for (ElementType type : types) {
      for (int mode = 0; mode < 4; ++mode) {
        const bool narrow = mode & 1, halfEven = mode & 2;
        dispatch<IntegerTypes>(type, [&]<class T>() {
          const int64_t lo = int64_t(std::numeric_limits<T>::min()) + (narrow ? 1 : 0);
          const int64_t hi = int64_t(std::numeric_limits<T>::max());
          std::vector<int64_t> expected;
          std::vector<float> back;
          for (float xi : x) {
            const float v = float(double(float(double(xi) / double(s))) + double(z));
            const double r = halfEven ? std::nearbyint(double(v)) : std::floor(double(float(double(v) + 0.5)));
            const int64_t q = std::isnan(r) ? 0 : r >= 0x1p63 ? kI64Max : r < -0x1p63 ? kI64Min : int64_t(r);
            expected.push_back(std::clamp(q, lo, hi));
            back.push_back(float(double(float(double(float(expected.back())) - double(z))) * double(s)));
          }
          Tensor q = Tensor::create(type, {long(x.size())}), y = Tensor::create(f32, {long(x.size())});
          ASSERT_TRUE(quant::Qcast(q, in, {scale}, {zero}, false, 0, narrow, halfEven).ok());
          ASSERT_EQ(valuesOf<int64_t>(q.cast(ElementType::si64)), expected)
              << "scale " << scale << " zero " << zero << " " << type << " mode " << mode;
          ASSERT_TRUE(quant::Dcast(y, q, {scale}, {zero}, false, 0).ok());
          ASSERT_EQ(floatKeys(valuesOf<float>(y)), floatKeys(back)) << "dequantized " << type;
          if (std::is_signed_v<T> && sizeof(T) <= 4) {
            ASSERT_TRUE(quant::FakeQuant(y, in, {scale}, {zero}, false, 0, narrow, long(8 * sizeof(T)), true, halfEven).ok());
            ASSERT_EQ(floatKeys(valuesOf<float>(y)), floatKeys(back)) << "fake " << type;
          }
        });
      }
    }
  }
}

TEST(Quantize, ScaleIndexingInnermostMiddleAndOuterAxis) {
  // fin [2, 3, 2] = 1 .. 12; each case's scales make the arithmetic visible.
  std::vector<float> x(12);
  for (int i = 0; i < 12; ++i) x[size_t(i)] = float(i + 1);
  Tensor in = tensorOf<float>(f32, {2, 3, 2}, x);
  const std::tuple<int64_t, std::vector<double>, std::vector<int64_t>, std::vector<int16_t>> cases[] = {
      {-1, {1, 0.5}, {0, 100}, {1, 104, 3, 108, 5, 112, 7, 116, 9, 120, 11, 124}},
      {0, {1, 0.25}, {0, -1}, {1, 2, 3, 4, 5, 6, 27, 31, 35, 39, 43, 47}},
      {-2, {1, 0.5, 0.25}, {0, 1, 2}, {1, 2, 7, 9, 22, 26, 7, 8, 19, 21, 46, 50}},
  };
  // Each through a transposed input (entries follow the coordinate, not the
  // memory order), then back through Dequantize of a transposed copy.
  for (const auto& [axis, scale, zero, expected] : cases) {
    Tensor out = Tensor::create(si16, {2, 3, 2}), back = Tensor::create(f32, {2, 3, 2});
    ASSERT_TRUE(quant::Quantize(out, in.permute({2, 1, 0}).contiguous().permute({2, 1, 0}), scale, zero, true, axis, false).ok());
    EXPECT_EQ(valuesOf<int16_t>(out), expected) << axis;
    ASSERT_TRUE(quant::Dequantize(back, out.permute({1, 0, 2}).contiguous().permute({1, 0, 2}), scale, zero, true, axis).ok());
    EXPECT_EQ(valuesOf<float>(back), x) << axis;
  }
}

TEST(Quant, HalfAndDoubleOperands) {
  // Inputs: f16 1.5, 2.5 (tie), -0.33325195, 65504, -inf.
  Tensor h = tensorOf<uint16_t>(ElementType::f16, {5}, {0x3e00, 0x4100, 0xb555, 0x7bff, 0xfc00});
  Tensor out = Tensor::create(si16, {5});
  ASSERT_TRUE(quant::Qcast(out, h, {0.25}, {0}, false, 0, false, true).ok());
  EXPECT_EQ(valuesOf<int16_t>(out), (std::vector<int16_t>{6, 10, -1, 32767, -32768}));
  // 2.5000001 as f64 rounds to the f32 2.5, a tie: Quantize rounds ties to even.
  Tensor one = Tensor::create(ElementType::ui8, {1});
  ASSERT_TRUE(quant::Quantize(one, tensorOf<double>(ElementType::f64, {1}, {2.5000001}), {1}, {0}, false, 0, false).ok());
  EXPECT_EQ(valuesOf<uint8_t>(one), std::vector<uint8_t>{2});
  // f16 outputs round to nearest, here in place and per axis: 0.3 (f16
  // 0.30004883) over 0.1 is 3, and 3 * 0.1f narrows to the f16 0x34cd
  // again, not 0x34cc; 1.5 over 1 plus zero point 2 is the tie 3.5 -> 4,
  // which dequantizes to (4 - 2) * 1 = 2.
  Tensor inPlace = tensorOf<uint16_t>(ElementType::f16, {2}, {0x34cd, 0x3e00});
  ASSERT_TRUE(quant::FakeQuant(inPlace, inPlace, {0.1, 1.0}, {0, 2}, true, 0).ok());
  EXPECT_EQ(bitsOf<half>(inPlace), (std::vector<uint16_t>{0x34cd, 0x4000}));
}

TEST(Quant, ComputingKernelsLeaveRoundToNearest) {
  // (5 - 0) * 0.1f = 0.50000000745 is inexact: rounded upward it is one ulp
  // above the nearest 0.5, so a kernel that kept the caller's mode would differ.
  Tensor q = tensorOf<int8_t>(si8, {1}, {5});
  Tensor nearest = Tensor::create(f32, {1}), upward = Tensor::create(f32, {1});
  ASSERT_TRUE(quant::Dcast(nearest, q, {0.1}, {0}, false, 0).ok());
  std::fesetround(FE_UPWARD);
  volatile float five = 5.0f, tenth = 0.1f;
  ASSERT_NE(five * tenth, nearest.data<float>()[0]) << "the case must be sensitive to the mode";
  // Every kernel, one that fails included, leaves round-to-nearest behind.
  Tensor x = tensorOf<float>(f32, {1}, {1.0f});
  Tensor out = Tensor::create(si8, {1}), scale = Tensor::create(f32, {1}), y = Tensor::create(f32, {1});
  const std::function<Status()> calls[] = {
      [&] { return quant::Dcast(upward, q, {0.1}, {0}, false, 0); },
      [&] { return quant::Quantize(out, x, {}, {}, false, 0, false); },  // fails, still resets
      [&] { return quant::FakeQuant(y, x, {1}, {0}); }, [&] { return quant::DynamicQuantize(out, scale, x, true); },
      [&] { return quant::DynamicDequantize(y, out, x); },
      [&] { return quant::FuseDynamicDequantize(y, out, x, x); },  // fails (si8), still resets
  };
  for (const auto& call : calls) {
    std::fesetround(FE_UPWARD);
    (void)call();
    EXPECT_EQ(std::fegetround(), FE_TONEAREST);
  }
  EXPECT_EQ(valuesOf<float>(upward), valuesOf<float>(nearest));
}

TEST(Quant, TraceLinesOfTheTracedElementAndAtRankZero) {
  Tensor x = tensorOf<float>(f32, {2, 3}, {0.1f, -0.2f, 0.3f, 1.25f, -2.5f, 0.05f});
  Tensor q = Tensor::create(si8, {2, 3}), y = Tensor::create(f32, {2, 3}), f = Tensor::create(f32, {2, 3});
  test::TraceCapture capture;
  test::ScopedTracePoint traced({1, 1});
  ASSERT_TRUE(quant::Quantize(q, x, {0.1, 0.5, 1}, {0, 0, 3}, true, 1, false).ok());
  ASSERT_TRUE(quant::Dequantize(y, q, {0.1, 0.5, 1}, {0, 0, 3}, true, 1).ok());
  ASSERT_TRUE(quant::FakeQuant(f, x, {0.1}, {0}).ok());
  // Rank 0: per axis, a rank-0 tensor has extent 1 on any axis (axis 4
  // included); any trace point of zeros selects its one element.
  Tensor q0 = Tensor::create(si8, {});
  test::ScopedTracePoint zeros({0, 0, 0});
  ASSERT_TRUE(quant::Quantize(q0, tensorOf<float>(f32, {}, {2.5f}), {0.5}, {0}, true, 4, false).ok());
  EXPECT_EQ(capture.lines(), (std::vector<std::string>{"fout[1, 1] -5 = quantize(fin[1, 1] -2.5,  scale 0.5, zero 0)",
                                                       "fout[1, 1] -2.5 = dequantize(fin[1, 1] -5,  scale 0.5, zero 0)",
                                                       "fout -2.5 = fake_quantize(fin -2.5,  scale 0.1, zero 0)",
                                                       "fout(0-rank) 5 = quantize(fin(0-rank) 2.5,  scale 0.5, zero 0)"}));
}

TEST(Quant, FailuresInOrderWriteNothing) {
  Tensor x23 = tensorOf<float>(f32, {2, 3}, {1, 2, 3, 4, 5, 6});
  Tensor q23 = tensorOf<int8_t>(si8, {2, 3}, {1, 2, 3, 4, 5, 6});
  struct Args { std::vector<double> scale = {1}; std::vector<int64_t> zero = {0}; bool perAxis = false; int64_t axis = 0; };
  struct Case { bool fake; Tensor out, in; Args a; std::string message; int64_t bits = 8; };
  auto fresh = [](ElementType t, std::vector<long> shape) { return test::filled(t, shape, 0x5a); };
  // One text per check function, in the order the checks run (each row
  // fails an earlier check than the next would), and the boundaries of the
  // axis and of the scale count at rank 0.
  const Case cases[] = {
      {false, fresh(si8, {3, 2}), q23, {{1, 2}}, "Invalid tensor shape, input and output must have same shape"},
      {false, fresh(si8, {2, 3}), q23, {{1, 2}}, "fin must be floating-point"},
      {false, fresh(si8, {2, 3}), x23, {{1, 2}, {0, 0}, true, -1}, "Scale number must be 3 of fout axis -1"},
      {false, fresh(si8, {}), tensorOf<float>(f32, {}, {1}), {{1, 2}, {0, 0}, true, 0}, "Scale number must be 1 of fout axis 0"},
      {false, fresh(si8, {2, 3}), x23, {{1}, {0}, true, 2}, "Invalid axis 2 for fout of rank 2"},
      {false, fresh(ElementType::ui64, {2, 3}), x23.view(ElementType::tf32), {}, "fin type tf32 is not supported"},
      {false, Tensor(si8, {2, 3}), x23, {}, "fout must hold data"},
      {true, fresh(f32, {2, 3}), x23, {}, "Only accepts bit width among 8,16,32", 64},
  };
  for (const Case& c : cases) {
    Tensor out = c.out;
    const std::string before = test::storageBytes(out);
    const Status s = c.fake ? quant::FakeQuant(out, c.in, c.a.scale, c.a.zero, c.a.perAxis, c.a.axis, false, c.bits)
                            : quant::Qcast(out, c.in, c.a.scale, c.a.zero, c.a.perAxis, c.a.axis, true, true);
    EXPECT_EQ(s.message(), c.message);
    EXPECT_EQ(test::storageBytes(out), before) << "nothing is written: " << c.message;
  }
}

TEST(Quant, FakeQuantByNameWithRegisteredDefaults) {
  // fakequant's registered defaults are FakeQuant's declared ones: 1.5 and
  // 2.5 are ties to even, -399 clamps to -128 (full 8-bit range).
  Tensor x = tensorOf<float>(f32, {4}, {0.25f, -200.0f, 0.75f, 3.0f});
  std::vector<Tensor> byName = {Tensor(f32, {4})};
  ASSERT_TRUE(invoke("quant::fakequant", byName, {x, std::vector<double>{0.5}, std::vector<int64_t>{1}}).ok());
  EXPECT_EQ(valuesOf<float>(byName[0]), (std::vector<float>{0.5f, -64.5f, 0.5f, 3.0f}));
  // Per axis with the default axis: the scales run along the last axis.
  std::vector<Tensor> perAxis = {Tensor(f32, {2, 2})};
  ASSERT_TRUE(invoke("quant::fakequant", perAxis, {tensorOf<float>(f32, {2, 2}, std::vector<float>(4, 0.75f)),
                                                    std::vector<double>{0.5, 4.0}, std::vector<int64_t>{0, 0}, true}).ok());
  EXPECT_EQ(valuesOf<float>(perAxis[0]), (std::vector<float>{1.0f, 0.0f, 1.0f, 0.0f}));
}
