// The second generation's quant-info generators: hand-worked searches, the
// adjust-and-warn cases, bias folding, checks, and end to end against the
// real-valued arithmetic they stand for.
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "Vela/VelaTestUtil.h"

using namespace kora;
using namespace kora::lyra::intrinsic;
using test::tensorOf;
using test::valuesOf;

namespace {

using Row = std::array<int64_t, 6>;  // bias, suminScale, suminRShift, preRShift, scale, postRShift

struct Scales {
  std::vector<double> fin{1}, weight{1}, sumin{}, fout{1};
  int64_t finZeroPoint = 0, suminZeroPoint = 0, suminBits = 8, foutZeroPoint = 0, foutBits = 8;
};

Status generate(Tensor& out, const Scales& s, const Tensor& bias = Tensor(), const Tensor& weight = Tensor()) {
  return GenQuantInfo(out, weight, bias, s.fin, s.finZeroPoint, s.weight, s.sumin, s.suminZeroPoint, s.suminBits, s.fout,
                      s.foutZeroPoint, s.foutBits);
}

Row rowOf(const Scales& s, std::vector<std::string>* warnings = nullptr) {
  Tensor out = Tensor::create(ElementType::si64, {1, 6});
  test::LogCapture log;
  const Status status = generate(out, s);
  EXPECT_TRUE(status.ok()) << status.message();
  if (warnings)
    for (const auto& [level, text] : log.messages)
      if (level == LogLevel::warn) warnings->push_back(text);
  const auto v = valuesOf<int64_t>(out);
  return {v[0], v[1], v[2], v[3], v[4], v[5]};
}

}  // namespace

TEST(LyraGenQuantInfo, OutputShiftsAndScale) {
  struct Case {
    const char* what;
    double m;
    int64_t foutBits;
    int64_t pre, scale, post;
    const char* warning;
  };
  const Case cases[] = {
      {"2^-10, 8-bit: t = 24, pre-shift 2 keeps |acc| <= 2^17 in 16 bits", std::ldexp(1.0, -10), 8, 2, 16384, 22, nullptr},
      {"0.75, 16-bit: t = 15, |acc| <= 43691 needs one pre-shift", 0.75, 16, 1, 24576, 14, nullptr},
      {"3, 16-bit: t = 13, no pre-shift", 3, 16, 0, 24576, 13, nullptr},
      {"2^-30, 8-bit: t = 44 splits 22 + 22", std::ldexp(1.0, -30), 8, 22, 16384, 22, nullptr},
      {"2^-60: t = 74 stops at 65, pre-shift 25, post-shift 40", std::ldexp(1.0, -60), 8, 25, 32, 40, nullptr},
      {"40000 needs a left shift", 40000, 8, 0, 32767, 0,
       "conv post process does not support left shift: -1, adjust to 0"},
      {"2^-70: the total shift stops at 25 + 40", std::ldexp(1.0, -70), 8, 25, 0, 40, nullptr},
  };
  for (const Case& c : cases) {
    Scales s;
    s.weight = {c.m};
    s.foutBits = c.foutBits;
    std::vector<std::string> warnings;
    const Row row = rowOf(s, &warnings);
    EXPECT_EQ(row[3], c.pre) << c.what;
    EXPECT_EQ(row[4], c.scale) << c.what;
    EXPECT_EQ(row[5], c.post) << c.what;
    EXPECT_EQ(warnings, c.warning ? std::vector<std::string>{c.warning} : std::vector<std::string>{}) << c.what;
  }
}

TEST(LyraGenQuantInfo, SuminShiftIsAdjustedIntoItsRangeWithAWarning) {
  struct Case {
    const char* what;
    double ratio;
    int64_t bits;
    int64_t scale, shift;
    const char* warning;
  };
  const Case cases[] = {
      {"0.3: 19661 >> 16", 0.3, 8, 19661, 16, nullptr},
      {"0.3, 16-bit sumin alike", 0.3, 16, 19661, 16, nullptr},
      {"1.5 * 2^26 needs -12: adjusted to -9, the scale saturates", std::ldexp(1.5, 26), 8, 32767, -9,
       "suminRShift cannot less than -9: -12, adjust to -9"},
      {"2^-30 needs 44: adjusted to 22", std::ldexp(1.0, -30), 16, 0, 22,
       "suminRShift cannot greater than 22: 44, adjust to 22"},
      {"2^-8 for a 32-bit sumin", std::ldexp(1.0, -8), 32, 0, 8, nullptr},
      {"2^8 for a 32-bit sumin", 256, 32, 0, -8, nullptr},
  };
  for (const Case& c : cases) {
    Scales s;
    s.sumin = {c.ratio};
    s.suminBits = c.bits;
    std::vector<std::string> warnings;
    const Row row = rowOf(s, &warnings);
    EXPECT_EQ(row[1], c.scale) << c.what;
    EXPECT_EQ(row[2], c.shift) << c.what;
    EXPECT_EQ(warnings, c.warning ? std::vector<std::string>{c.warning} : std::vector<std::string>{}) << c.what;
  }
}

TEST(LyraGenQuantInfo, BiasFoldsZeroPointsInAccumulatorUnits) {
  // acc scale 0.5 * 0.25; real bias 1.0 is 8 units; fin zero point 2 times a
  // weight sum of 6 is 12 units; sumin zero point 3 times a rescale of
  // 0.5 (16384 >> 15) is 1.5; output zero point 4 at M = 0.125 (scale 16384,
  // t = 17) is 32 units: 8 - 12 - 1.5 + 32 = 26.5, rounded to 27.
  Scales s;
  s.fin = {0.5};
  s.weight = {0.25};
  s.sumin = {0.0625};
  s.suminZeroPoint = 3;
  s.finZeroPoint = 2;
  s.foutZeroPoint = 4;
  const Tensor weight = tensorOf<int8_t>(ElementType::si8, {1, 1, 2, 1}, {10, -4});
  const Tensor bias = tensorOf<float>(ElementType::f32, {1}, {1.0f});
  Tensor out = Tensor::create(ElementType::si64, {1, 6});
  ASSERT_TRUE(generate(out, s, bias, weight).ok());
  EXPECT_EQ(valuesOf<int64_t>(out), (std::vector<int64_t>{27, 16384, 15, 0, 16384, 17}));
}

TEST(LyraGenQuantInfo, ChecksInOrder) {
  struct Case {
    std::vector<long> quant;
    int64_t suminBits, foutBits;
    std::vector<double> foutScale;
    const char* expected;
  };
  const Case cases[] = {
      {{2, 6, 1}, 8, 8, {1}, "quantInfo must be rank of 2"},
      {{2, 5}, 8, 8, {1}, "quantInfo axis 1 size must be 6"},
      {{2, 6}, 4, 8, {1}, "sumin must be 8bit 16bit or 32bit"},
      {{2, 6}, 8, 12, {1}, "fout must be 8bit 16bit or 32bit"},
      {{2, 6}, 16, 16, {1, 2, 3}, "fout scale must hold 1 or 2 values"},
      {{2, 6}, 16, 32, {0.5}, "si32 conv does not support rescale, check fout scale"},
  };
  for (const Case& c : cases) {
    Tensor out = Tensor::create(ElementType::si64, c.quant);
    EXPECT_EQ(GenQuantInfo(out, Tensor(), Tensor(), std::vector<double>{1}, 0, std::vector<double>{1},
                           std::vector<double>{1}, 0, c.suminBits, c.foutScale, 0, c.foutBits)
                  .message(),
              c.expected);
  }
  Tensor out = Tensor::create(ElementType::si64, {2, 6});
  EXPECT_EQ(generate(out, Scales{}, tensorOf<float>(ElementType::f32, {1, 2}, {0, 0})).message(),
            "bias must be rank of 1");
  EXPECT_EQ(generate(out, Scales{}, tensorOf<float>(ElementType::f32, {3}, {0, 0, 0})).message(),
            "quantInfo and bias axis 0 size must be identical");
  Scales zeroPoint;
  zeroPoint.finZeroPoint = 1;
  EXPECT_EQ(generate(out, zeroPoint).message(), "when fin zero point not zero, weight must be valid");
  Scales sumin32;
  sumin32.sumin = {3};
  sumin32.suminBits = 32;
  EXPECT_EQ(generate(out, sumin32).message(), "si32 sumin does not support rescale, check sumin scale");
  EXPECT_EQ(generate(out, Scales{}, tensorOf<double>(ElementType::f64, {2}, {0, 1e12})).message(),
            "can not get bias in range of int32 on channel 1");
}

TEST(LyraGenQuantInfo, GeneratedInfoComputesTheRealValuedConvolutionOutput) {
  // fout = acc * M + zero point for every unsaturated output, within what
  // the pipeline loses: the final rounding, the integer bias, the floor of
  // the pre-shift and the 15-bit scale.
  std::mt19937 rng(91);
  for (int trial = 0; trial < 40; ++trial) {
    const long K = 4;
    Scales s;
    s.fin = {std::ldexp(std::uniform_real_distribution<double>(1, 2)(rng), -int(rng() % 8))};
    s.weight.clear();
    for (long k = 0; k < K; ++k) s.weight.push_back(std::ldexp(std::uniform_real_distribution<double>(1, 2)(rng), -int(rng() % 8)));
    s.fout = {std::ldexp(std::uniform_real_distribution<double>(1, 2)(rng), int(rng() % 10) + 2)};  // M <= 1
    s.foutBits = trial % 2 ? 16 : 8;
    s.foutZeroPoint = int64_t(rng() % 21) - 10;
    Tensor quant = Tensor::create(ElementType::si64, {K, 6});
    ASSERT_TRUE(generate(quant, s).ok());
    const long n = 200;
    const Tensor psum = test::randomTensor32({n, K}, rng, -400000, 400000);
    Tensor out = Tensor::create(s.foutBits == 8 ? ElementType::si8 : ElementType::si16, {n, K});
    ASSERT_TRUE(TaeConvPP(out, psum, quant, Tensor(), false, true, false).ok());
    const auto got = s.foutBits == 8 ? [&] {
      std::vector<int64_t> v;
      for (int8_t x : valuesOf<int8_t>(out)) v.push_back(x);
      return v;
    }()
                                     : [&] {
                                         std::vector<int64_t> v;
                                         for (int16_t x : valuesOf<int16_t>(out)) v.push_back(x);
                                         return v;
                                       }();
    const double hi = s.foutBits == 8 ? 127 : 32767;
    for (long i = 0; i < n * K; ++i) {
      const double m = s.fin[0] * s.weight[size_t(i % K)] / s.fout[0];
      const double real = psum.data<int32_t>()[i] * m + double(s.foutZeroPoint);
      if (std::fabs(real) > hi - 1) continue;
      // The final rounding, the integer bias, the pre-shift's floor, the
      // 15-bit scale.
      const double pre = std::ldexp(1.0, int(quant.data<int64_t>()[(i % K) * 6 + 3]));
      const double bound = 0.5 + 0.5 * m + pre * m + std::fabs(real) * std::ldexp(1.0, -14);
      ASSERT_NEAR(double(got[size_t(i)]), real, bound) << "trial " << trial << " element " << i;
    }
  }
}

TEST(LyraGenFloatQuantInfo, ValuesAreFoldedAndRoundedToTheNearestFp24) {
  const Tensor bias = tensorOf<float>(ElementType::f32, {2}, {1.0f, -2.0f});
  const Tensor weight = tensorOf<int8_t>(ElementType::si8, {2, 1, 1, 2}, {3, 4, -1, 0});
  Tensor out = Tensor::create(ElementType::f32, {2, 3});
  // scale = 0.5 * {0.1, 0.2} / 0.25 = {0.2, 0.4}; suminScale = 0.3 / 0.25 =
  // 1.2; bias = (real bias / acc scale - 2 * weight sum) * scale + 3 =
  // (20 - 14) * 0.2 + 3 = 4.2 and (-20 + 2) * 0.4 + 3 = -4.2.
  ASSERT_TRUE(GenFloatQuantInfo(out, weight, bias, std::vector<double>{0.5}, 2, std::vector<double>{0.1, 0.2},
                                std::vector<double>{0.3}, std::vector<double>{0.25}, 3)
                  .ok());
  // Nearest fp24 (16 bits): 4.2 -> 0x408666, 1.2 -> 0x3f999a, 0.2 -> 0x3e4ccd,
  // 0.4 -> 0x3ecccd (the float32 cut would give ...666, ...999, ...ccc, ...ccc).
  EXPECT_EQ(test::bitsOf<float>(out), (std::vector<uint32_t>{0x40866600, 0x3f999a00, 0x3e4ccd00, 0xc0866600,
                                                             0x3f999a00, 0x3ecccd00}));
  // Without sumin the suminScale is 0; an si32 bias is in accumulator units.
  ASSERT_TRUE(GenFloatQuantInfo(out, Tensor(), tensorOf<int32_t>(ElementType::si32, {2}, {10, -10}),
                                std::vector<double>{1}, 0, std::vector<double>{0.5}, {}, std::vector<double>{1}, 0)
                  .ok());
  EXPECT_EQ(valuesOf<float>(out), (std::vector<float>{5, 0, 0.5f, -5, 0, 0.5f}));
}

TEST(LyraGenFloatQuantInfo, ChecksInOrder) {
  auto gen = [](Tensor out, const Tensor& bias, std::vector<double> fout) {
    return GenFloatQuantInfo(out, Tensor(), bias, std::vector<double>{1}, 0, std::vector<double>{1}, {}, fout, 0)
        .message();
  };
  EXPECT_EQ(gen(Tensor::create(ElementType::f32, {1, 3, 1}), Tensor(), {1}), "quantInfo must be rank of 2");
  EXPECT_EQ(gen(Tensor::create(ElementType::f32, {1, 3}), tensorOf<float>(ElementType::f32, {1, 1}, {0}), {1}),
            "bias must be rank of 1");
  EXPECT_EQ(gen(Tensor::create(ElementType::f32, {1, 6}), Tensor(), {1}), "quantInfo axis 1 size must be 3");
  EXPECT_EQ(gen(Tensor::create(ElementType::f32, {1, 3}), tensorOf<float>(ElementType::f32, {2}, {0, 0}), {1}),
            "quantInfo and bias axis 0 size must be identical");
  EXPECT_EQ(gen(Tensor::create(ElementType::f64, {1, 3}), Tensor(), {1}), "float quantInfo must be f32");
  EXPECT_EQ(gen(Tensor::create(ElementType::f32, {1, 3}), tensorOf<int8_t>(ElementType::si8, {1}, {0}), {1}),
            "bias must be f32, f64 or si32");
  EXPECT_EQ(gen(Tensor::create(ElementType::f32, {1, 3}), Tensor(), {-1}), "fout scale must be positive and finite");
  EXPECT_EQ(gen(Tensor::create(ElementType::f32, {1, 3}), tensorOf<double>(ElementType::f64, {1}, {1e300}), {1}),
            "can not get bias in range of fp24 on channel 0");
  EXPECT_EQ(gen(Tensor::create(ElementType::f32, {1, 3}), Tensor(), {1e-300}),
            "can not get scale in range of fp24 on channel 0");
  EXPECT_EQ(gen(Tensor::create(ElementType::f32, {1, 3}), Tensor(), {1e300}),
            "can not get scale in range of fp24 on channel 0")
      << "a nonzero scale flushed to zero";
}

TEST(LyraGenFloatQuantInfo, TheFloatingPostProcessThenComputesTheRealValue) {
  std::mt19937 rng(92);
  const long K = 3, n = 300;
  const std::vector<double> weightScale = {0.013, 0.021, 0.0007};
  Tensor quant = Tensor::create(ElementType::f32, {K, 3});
  const Tensor bias = tensorOf<float>(ElementType::f32, {K}, {0.25f, -1.5f, 3.0f});
  ASSERT_TRUE(GenFloatQuantInfo(quant, Tensor(), bias, std::vector<double>{0.05}, 0, weightScale,
                                std::vector<double>{0.5}, std::vector<double>{0.1}, 0)
                  .ok());
  const Tensor psum = test::randomTensor32({n, K}, rng, -100000, 100000);
  Tensor sumin = Tensor::create(ElementType::f32, {n, K});
  for (float& v : sumin.data<float>()) v = std::uniform_real_distribution<float>(-8, 8)(rng);
  Tensor out = Tensor::create(ElementType::f32, {n, K});
  ASSERT_TRUE(TaeConvFPP(out, psum, quant, sumin, false, true, false).ok());
  for (long i = 0; i < n * K; ++i) {
    const long k = i % K;
    const double real = (psum.data<int32_t>()[i] * 0.05 * weightScale[size_t(k)] + bias.data<float>()[k] +
                         sumin.data<float>()[i] * 0.5) /
                        0.1;
    // Each of five fp24 steps errs by at most 2^-16 of its operands.
    const double bound = 8 * std::ldexp(std::fabs(psum.data<int32_t>()[i] * 0.05 * weightScale[size_t(k)] / 0.1) + 80, -16);
    ASSERT_NEAR(out.data<float>()[i], real, bound) << i;
  }
}
