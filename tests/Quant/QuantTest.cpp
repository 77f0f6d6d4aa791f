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

/// Quantizes the f32 values `x` into `type` (full range) and returns the outputs as int64.
std::vector<int64_t> quantized(const std::vector<float>& x, ElementType type, std::vector<double> scale,
                               std::vector<int64_t> zero, bool halfEven) {
  Tensor out = Tensor::create(type, {long(x.size())});
  EXPECT_EQ(quant::Qcast(out, tensorOf<float>(f32, {long(x.size())}, x), scale, zero, false, 0, false, halfEven).message(), "");
  return valuesOf<int64_t>(out.cast(ElementType::si64));
}

/// The floats' bits, every NaN as one quiet NaN.
std::vector<uint32_t> floatKeys(const std::vector<float>& v) {
  std::vector<uint32_t> bits;
  for (float f : v) bits.push_back(std::isnan(f) ? 0x7fc00000u : std::bit_cast<uint32_t>(f));
  return bits;
}

}  // namespace

TEST(Quantize, HandWorkedTiesAndBounds) {
  // The ties of both rules, and the f32 steps the random sweep below is
  // unlikely to meet.
  struct Case { float x; double scale; int64_t zero; ElementType type; int64_t halfEven, halfUp; };
  const ElementType si32 = ElementType::si32;
  const Case cases[] = {
      {2.5f, 1, 0, si8, 2, 3}, {-2.5f, 1, 0, si8, -2, -2},
      {0.49999997f, 1, 0, si8, 0, 1},  // 0.49999997 + 0.5 rounds up to 1 in f32
      {0.5f, 1, 16777217, si32, 16777216, 16777216},  // the zero point is rounded to f32 first
      // 0.35f / f32(0.1) is the f32 tie 3.5 (exactly 3.49999994), and 3.5 + 2^23 the f32 tie 8388611.5: summed in
      // f32 it rounds to 8388612, where one binary64 sum rounded once would give 8388611.
      {0.35f, 0.1, 8388608, si32, 8388612, 8388612},
  };
  for (const Case& c : cases)
    for (bool even : {true, false})
      EXPECT_EQ(quantized({c.x}, c.type, {c.scale}, {c.zero}, even), std::vector<int64_t>{even ? c.halfEven : c.halfUp})
          << c.x << " / " << c.scale << " + " << c.zero << " -> " << c.type;
}

TEST(Quantize, MatchesABinary64EmulationOfTheSteps) {
  // Each binary32 step computed in binary64 and rounded back to binary32 is
  // the binary32 result (binary64 holds every exact sum and quotient of two
  // binary32 values to more than twice their precision), so this reference
  // shares no code with the kernel's rounding. Random scales and inputs, near
  // ties, both ranges of every width, and the special values: zero, infinite
  // and NaN scales give infinities (saturated to the bound of their sign) and
  // NaN (0). Each result is dequantized again, (f32(q) - z) * s, and the
  // signed 8-, 16- and 32-bit cases are fake-quantized to the same values.
  std::mt19937 rng(11);
  std::uniform_real_distribution<double> logMagnitude(-6, 12);
  std::uniform_int_distribution<int64_t> zeroDraw(-300, 300);
  const ElementType types[] = {si8, si16, ElementType::si32, ElementType::si64,
                               ElementType::ui8, ElementType::ui16, ElementType::ui32};
  const double specialScales[] = {0.0, -0.0, double(kInf), double(NAN)};
  for (int round = 0; round < 44; ++round) {
    double scale = std::pow(10.0, logMagnitude(rng) / 3) * (round % 7 == 0 ? -1 : 1);
    if (round >= 40) scale = specialScales[round - 40];
    const int64_t zero = zeroDraw(rng);
    std::vector<float> x(257);
    for (float& v : x) v = float(std::pow(10.0, logMagnitude(rng) / 2) * (rng() % 2 ? 1 : -1));
    for (int k = 0; k < 20; ++k) x[size_t(k)] = float(scale) * (float(k) - 10.0f + 0.5f);  // near ties
    for (float v : {0.0f, -0.0f, kInf, -kInf, float(NAN), 1e-45f, 3e38f, -3e9f, 1e19f, -1e19f}) x.push_back(v);
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

TEST(Quantize, ScaleIndexingPerTensorInnermostAndOuterAxis) {
  // fin [2, 3, 2] = 1 .. 12; each case's scales make the arithmetic visible.
  std::vector<float> x(12);
  for (int i = 0; i < 12; ++i) x[size_t(i)] = float(i + 1);
  Tensor in = tensorOf<float>(f32, {2, 3, 2}, x);
  const std::tuple<bool, int64_t, std::vector<double>, std::vector<int64_t>, std::vector<int16_t>> cases[] = {
      {false, 7, {0.5}, {1}, {3, 5, 7, 9, 11, 13, 15, 17, 19, 21, 23, 25}},
      {true, -1, {1, 0.5}, {0, 100}, {1, 104, 3, 108, 5, 112, 7, 116, 9, 120, 11, 124}},
      {true, 0, {1, 0.25}, {0, -1}, {1, 2, 3, 4, 5, 6, 27, 31, 35, 39, 43, 47}},
      {true, -2, {1, 0.5, 0.25}, {0, 1, 2}, {1, 2, 7, 9, 22, 26, 7, 8, 19, 21, 46, 50}},
  };
  // Each through a transposed input (entries follow the coordinate, not the
  // memory order), then back through Dequantize of a transposed copy.
  for (const auto& [perAxis, axis, scale, zero, expected] : cases) {
    Tensor out = Tensor::create(si16, {2, 3, 2}), back = Tensor::create(f32, {2, 3, 2});
    ASSERT_TRUE(quant::Quantize(out, in.permute({2, 1, 0}).contiguous().permute({2, 1, 0}), scale, zero, perAxis, axis, false).ok());
    EXPECT_EQ(valuesOf<int16_t>(out), expected) << axis;
    ASSERT_TRUE(quant::Dequantize(back, out.permute({1, 0, 2}).contiguous().permute({1, 0, 2}), scale, zero, perAxis, axis).ok());
    EXPECT_EQ(valuesOf<float>(back), x) << axis;
  }
}

TEST(Quant, OtherFloatTypes) {
  // Inputs: f16 1.5, 2.5 (tie), -0.33325195, 65504, -inf; vbf16 and f64 go through f32.
  Tensor h = tensorOf<uint16_t>(ElementType::f16, {5}, {0x3e00, 0x4100, 0xb555, 0x7bff, 0xfc00});
  Tensor out = Tensor::create(si16, {5});
  ASSERT_TRUE(quant::Qcast(out, h, {0.25}, {0}, false, 0, false, true).ok());
  EXPECT_EQ(valuesOf<int16_t>(out), (std::vector<int16_t>{6, 10, -1, 32767, -32768}));
  Tensor b = tensorOf<uint16_t>(ElementType::vbf16, {2}, {0x4020, 0xc020});  // 2.5, -2.5
  Tensor firstTwo = out.slice(0, 0, 2);
  ASSERT_TRUE(quant::Qcast(firstTwo, b, {1}, {0}, false, 0, false, false).ok());
  EXPECT_EQ(valuesOf<int16_t>(firstTwo), (std::vector<int16_t>{3, -2}));
  // 2.5000001 as f64 rounds to the f32 2.5, a tie: Quantize rounds ties to even.
  Tensor one = Tensor::create(ElementType::ui8, {1});
  ASSERT_TRUE(quant::Quantize(one, tensorOf<double>(ElementType::f64, {1}, {2.5000001}), {1}, {0}, false, 0, false).ok());
  EXPECT_EQ(valuesOf<uint8_t>(one), std::vector<uint8_t>{2});
  // Outputs: f16 rounds to nearest even, f64 holds the f32 result.
  Tensor q = tensorOf<int8_t>(si8, {3}, {1, 100, -1});
  Tensor h16 = Tensor::create(ElementType::f16, {3}), d = Tensor::create(ElementType::f64, {3});
  ASSERT_TRUE(quant::Dequantize(h16, q, {1.0 / 3}, {0}, false, 0).ok());
  EXPECT_EQ(bitsOf<half>(h16), (std::vector<uint16_t>{0x3555, 0x502b, 0xb555}));
  ASSERT_TRUE(quant::Dequantize(d, q, {0.1}, {0}, false, 0).ok());
  EXPECT_EQ(valuesOf<double>(d), (std::vector<double>{double(0.1f), double(10.0f), double(-0.1f)}));
}

TEST(FakeQuant, HalfInPlacePerAxis) {
  // 0.3 (f16 0.30004883) over 0.1 is 3, and 3 * 0.1f narrows to the f16
  // 0x34cd again; 1.5 over 1 plus zero point 2 is the tie 3.5 -> 4, which
  // dequantizes to (4 - 2) * 1 = 2.
  Tensor h = tensorOf<uint16_t>(ElementType::f16, {2}, {0x34cd, 0x3e00});
  ASSERT_TRUE(quant::FakeQuant(h, h, {0.1, 1.0}, {0, 2}, true, 0).ok());
  EXPECT_EQ(bitsOf<half>(h), (std::vector<uint16_t>{0x34cd, 0x4000}));
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
  ASSERT_TRUE(quant::Dcast(upward, q, {0.1}, {0}, false, 0).ok());
  EXPECT_EQ(std::fegetround(), FE_TONEAREST);
  EXPECT_EQ(valuesOf<float>(upward), valuesOf<float>(nearest));

  Tensor x = tensorOf<float>(f32, {1}, {1.0f});
  Tensor out = Tensor::create(si8, {1}), scale = Tensor::create(f32, {1});
  const std::function<Status()> calls[] = {
      [&] { return quant::Quantize(out, x, {}, {}, false, 0, false); },  // fails, still resets
      [&] { return quant::FakeQuant(nearest, x, {1}, {0}); }, [&] { return quant::DynamicQuantize(out, scale, x, true); },
      [&] { return quant::DynamicDequantize(nearest, out, x); },
      [&] { return quant::FuseDynamicDequantize(nearest, out, x, x); },  // fails (si8), still resets
  };
  for (const auto& call : calls) {
    std::fesetround(FE_DOWNWARD);
    (void)call();
    EXPECT_EQ(std::fegetround(), FE_TONEAREST);
  }
}

TEST(Quant, TraceLinesAtRankZeroAndOfTheTracedElement) {
  // Rank 0: per axis, a rank-0 tensor has extent 1 on any axis (axis 4
  // included); any trace point of zeros selects its one element.
  Tensor x0 = tensorOf<float>(f32, {}, {2.5f});
  Tensor q0 = Tensor::create(si8, {});
  const std::vector<std::string> rankZeroLines = {
      "fout(0-rank) 5 = quantize(fin(0-rank) 2.5,  scale 0.5, zero 0)",
      "fout(0-rank) 2.5 = dequantize(fin(0-rank) 5,  scale 0.5, zero 0)",
      "fout(0-rank) 5 = fake_quantize(fin(0-rank) 2.5,  scale 5, zero 0)",
  };
  Tensor x = tensorOf<float>(f32, {2, 3}, {0.1f, -0.2f, 0.3f, 1.25f, -2.5f, 0.05f});
  Tensor q = Tensor::create(si8, {2, 3}), y = Tensor::create(f32, {2, 3}), f = Tensor::create(f32, {2, 3});
  auto runAll = [&] {
    ASSERT_TRUE(quant::Quantize(q, x, {0.1, 0.5, 1}, {0, 0, 3}, true, 1, false).ok());
    ASSERT_TRUE(quant::Dequantize(y, q, {0.1, 0.5, 1}, {0, 0, 3}, true, 1).ok());
    ASSERT_TRUE(quant::FakeQuant(f, x, {0.1}, {0}).ok());
    Tensor y0 = Tensor::create(ElementType::f16, {});
    ASSERT_TRUE(quant::Quantize(q0, x0, {0.5}, {0}, true, 4, false).ok());
    ASSERT_TRUE(quant::Dcast(y0, q0, {0.5}, {0}, false, 0).ok());
    // 2.5 / 5 = 0.5 rounds half up to 1, which dequantizes to 5.
    ASSERT_TRUE(quant::FakeQuant(y0, y0, {5}, {0}, true, -1, true, 16, true, false).ok());
  };
  runAll();
  const auto quantUntraced = valuesOf<int8_t>(q);
  const std::pair<std::vector<long>, std::vector<std::string>> cases[] = {
      {{1, 1},
       {"fout[1, 1] -5 = quantize(fin[1, 1] -2.5,  scale 0.5, zero 0)",
        "fout[1, 1] -2.5 = dequantize(fin[1, 1] -5,  scale 0.5, zero 0)",
        "fout -2.5 = fake_quantize(fin -2.5,  scale 0.1, zero 0)"}},
      {{0, 0, 0}, rankZeroLines}, {{2, 0}, {}}, {{0, 3}, {}},
  };
  for (const auto& [point, lines] : cases) {
    test::TraceCapture capture;
    test::ScopedTracePoint traced(point);
    runAll();
    EXPECT_EQ(capture.lines(), lines);
    EXPECT_EQ(valuesOf<int8_t>(q), quantUntraced);
  }
}

TEST(Quant, FailuresInOrderWriteNothing) {
  Tensor x23 = tensorOf<float>(f32, {2, 3}, {1, 2, 3, 4, 5, 6});
  Tensor q23 = tensorOf<int8_t>(si8, {2, 3}, {1, 2, 3, 4, 5, 6});
  Tensor noType = x23.view(ElementType::invalid);
  struct Args { std::vector<double> scale = {1}; std::vector<int64_t> zero = {0}; bool perAxis = false; int64_t axis = 0; };
  // kernel: 0 Qcast, 1 DcastConfig, 2 Dcast, 3 FakeQuant
  struct Case { int kernel; Tensor out, in; Args a; std::string message; int64_t bits = 8; bool isSigned = true; };
  auto fresh = [](ElementType t, std::vector<long> shape) { return test::filled(t, shape, 0x5a); };
  // Each text once, in the order the checks run (each row fails an earlier
  // check than the next would); every kernel runs the shared checks.
  const Case cases[] = {
      {0, fresh(si8, {3, 2}), noType, {{1, 2}}, "Invalid input."},
      {0, fresh(si8, {3, 2}), q23, {{1, 2}}, "Invalid tensor shape, input and output must have same shape"},
      {0, fresh(si8, {2, 3}), q23, {{1, 2}}, "fin must be floating-point"},
      {0, fresh(f32, {2, 3}), x23, {{1, 2}}, "fout must be integral"},
      {0, fresh(si8, {2, 3}), x23, {{1, 2}, {0}, true, 5}, "Scale and zero point size mismatch"},
      {0, fresh(si8, {2, 3}), x23, {{1, 2}, {0, 0}, true, -1}, "Scale number must be 3 of fout axis -1"},
      {0, fresh(si8, {2, 3}), x23, {{1, 2, 3}, {0, 0, 0}, true, 0}, "Scale number must be 2 of fout axis 0"},
      {0, fresh(si8, {}), tensorOf<float>(f32, {}, {1}), {{1, 2}, {0, 0}, true, 0}, "Scale number must be 1 of fout axis 0"},
      {0, fresh(si8, {2, 3}), x23, {{1}, {0}, true, 2}, "Invalid axis 2 for fout of rank 2"},
      {0, fresh(ElementType::ui64, {2, 3}), x23, {{1, 2}, {0, 0}}, "Scale number must be 1 in per tensor mode"},
      {0, fresh(ElementType::ui64, {2, 3}), x23.view(ElementType::tf32), {}, "fin type tf32 is not supported"},
      {0, fresh(ElementType::ui64, {2, 3}), x23, {}, "fout type ui64 is not supported"},
      {0, Tensor(si8, {2, 3}), x23, {}, "fout must hold data"},
      {1, Tensor(si8, {2, 3}), q23, {{1, 2}}, "fout must be floating-point"},
      {1, Tensor(ElementType::vf32, {2, 3}), q23.view(ElementType::si4x2), {}, "fin type si4x2 is not supported"},
      {1, Tensor(ElementType::vf32, {2, 3}), q23, {}, "fout type vf32 is not supported"},
      {2, fresh(f32, {2, 3}), x23, {}, "fin must be integral"},
      {2, Tensor(f32, {2, 3}), q23, {}, "fout must hold data"},
      {3, fresh(ElementType::f16, {2, 3}), x23, {{1, 2}}, "fin and fout must have same type"},
      {3, fresh(f32, {2, 3}), x23, {}, "Only supports signed fake quant", 7, false},
      {3, fresh(f32, {2, 3}), x23, {}, "Only accepts bit width among 8,16,32", 64},
      {3, fresh(ElementType::cf8, {2, 3}), x23.view(ElementType::cf8), {}, "fin type cf8 is not supported", 16},
  };
  for (const Case& c : cases) {
    Tensor out = c.out;
    const std::string before = test::storageBytes(out);
    Status s;
    switch (c.kernel) {
      case 0: s = quant::Qcast(out, c.in, c.a.scale, c.a.zero, c.a.perAxis, c.a.axis, true, true); break;
      case 1: s = quant::DcastConfig(out, c.in, c.a.scale, c.a.zero, c.a.perAxis, c.a.axis); break;
      case 2: s = quant::Dcast(out, c.in, c.a.scale, c.a.zero, c.a.perAxis, c.a.axis); break;
      default: s = quant::FakeQuant(out, c.in, c.a.scale, c.a.zero, c.a.perAxis, c.a.axis, false, c.bits, c.isSigned);
    }
    EXPECT_EQ(s.message(), c.message);
    EXPECT_EQ(test::storageBytes(out), before) << "nothing is written: " << c.message;
  }
}

TEST(Quant, FakeQuantByNameWithRegisteredDefaults) {
  // fakequant's registered defaults are FakeQuant's declared ones: 1.5 and
  // 2.5 are ties to even, -399 clamps to -128 (full 8-bit range), and per
  // axis the default axis is -1.
  Tensor x = tensorOf<float>(f32, {4}, {0.25f, -200.0f, 0.75f, 3.0f});
  std::vector<Tensor> byName = {Tensor(f32, {4})};
  ASSERT_TRUE(invoke("quant::fakequant", byName, {x, std::vector<double>{0.5}, std::vector<int64_t>{1}}).ok());
  EXPECT_EQ(valuesOf<float>(byName[0]), (std::vector<float>{0.5f, -64.5f, 0.5f, 3.0f}));
  const std::string perAxis =
      invoke("quant::fakequant", byName, {x, std::vector<double>{0.5}, std::vector<int64_t>{1}, true}).message();
  EXPECT_EQ(perAxis.rfind("quant::fakequant impl function call failure! Scale number must be 4 of fout axis -1\n", 0), 0u);
}
