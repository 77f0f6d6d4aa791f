// The floating post-process on hand-worked elements (the ties of intToFp24
// near 2^16, a subnormal scale, relu of -0 and NaN), against the soft-float
// steps on edge values for every output type, its trace lines and checks;
// and the float quant-info generator.
#include <gtest/gtest.h>

#include <cmath>

#include "Vela/VelaTestUtil.h"

using namespace kora;
using namespace kora::lyra::intrinsic;
using namespace kora::test;

namespace {

struct FloatRow {
  float bias, suminScale, scale;
};

Tensor floatRowsOf(const std::vector<FloatRow>& rows) {
  std::vector<float> flat;
  for (const FloatRow& r : rows) flat.insert(flat.end(), {r.bias, r.suminScale, r.scale});
  return tensorOf<float>(ElementType::f32, {long(rows.size()), 3}, flat);
}

/// One element through TaeConvFPP into an f32 output.
float fpp(int32_t psum, FloatRow row, bool relu) {
  Tensor out = Tensor::create(ElementType::f32, {1, 1});
  const Status s = TaeConvFPP(out, tensorOf<int32_t>(ElementType::si32, {1, 1}, {psum}), floatRowsOf({row}), Tensor(),
                              relu, false, false);
  EXPECT_TRUE(s.ok()) << s.message();
  return valuesOf<float>(out)[0];
}

float fromBits(uint32_t bits) { return std::bit_cast<float>(bits); }

}  // namespace

TEST(LyraFloatPostProcess, HandWorkedElementsInF32) {
  // The ties of the fp24 steps and a subnormal scale; the sweep below covers
  // the cuts and the specials.
  struct Case { const char* what; int32_t psum; FloatRow row; float expected; };
  const Case cases[] = {
      {"65537 is a tie in fp24: to even 65536", 65537, {0, 0, 1}, 65536},
      {"65539 ties to even 65540", 65539, {0, 0, 1}, 65540},
      {"a subnormal scale reads as zero", 1, {0, 0, fromBits(0x00400000)}, 0},
  };
  for (const Case& c : cases) EXPECT_EQ(fpp(c.psum, c.row, false), c.expected) << c.what;
  // relu: every value not above 0, NaN and -0 included, becomes +0.
  EXPECT_EQ(std::bit_cast<uint32_t>(fpp(0, {-0.0f, 0, 1}, true)), 0u) << "-0 becomes +0";
  EXPECT_EQ(std::bit_cast<uint32_t>(fpp(0, {NAN, 0, 1}, true)), 0u);
}

TEST(LyraFloatPostProcess, EveryOutputTypeEqualsTheSoftFloatStepsOnEdgeValues) {
  // The kernel against its definition composed from the library's soft-float
  // steps (each verified against MPFR): psums at the ties near 2^16 and 2^24,
  // around powers of two, the int32 ends, zero and random ones; channels
  // whose scale and bias make ties and cancellations; 21 channels, so that
  // vectorised blocks and the remainder are both taken; every output type and
  // flag; no sumin, an f32 and an f16 sumin, with rows holding sumins (tiny,
  // infinite, NaN, huge) that no fast arithmetic could take; every operand a
  // strided view (every other column of a wider tensor).
  using namespace softfloat;
  std::vector<int32_t> psums = {0, 1, -1, 65535, 65536, 65537, 65539, 65541, -65537, -65539, 16777217, -16777219,
                                INT32_MAX, INT32_MIN, INT32_MIN + 1, 131075, 131078};
  for (int e = 1; e < 31; ++e)
    for (int32_t d : {-3, -1, 0, 1, 3}) psums.push_back(int32_t((int64_t(1) << e) + d));
  std::mt19937 rng(83);
  const long K = 21;
  while (psums.size() % K != 0 || psums.size() < 21 * 12) psums.push_back(int32_t(rng()) >> (rng() % 31));
  const long n = long(psums.size()) / K;
  auto uniform = [&](float lo, float hi) { return std::uniform_real_distribution<float>(lo, hi)(rng); };
  std::vector<FloatRow> rows;
  for (long k = 0; k < K; ++k) {
    const float scale = k % 7 == 0 ? 1.0f : std::ldexp(uniform(1, 2), int(k % 9) - 6);
    const float bias = k % 5 == 0   ? -0.5f
                       : k % 5 == 1 ? 0.0f
                       : k % 5 == 2 ? -0.0f
                                    : float(int(rng() % 2001) - 1000) / float(1 << (k % 6));
    rows.push_back({bias, k % 4 == 0 ? 0.0f : std::ldexp(uniform(1, 2), -int(k % 6)), k % 3 == 1 ? -scale : scale});
  }
  std::vector<float> suminValues(psums.size());
  for (size_t i = 0; i < suminValues.size(); ++i)  // ties and cancellations with the bias, or bits to cut
    suminValues[i] = i % 37 == 0 ? (i % 2 ? 0.0f : -0.0f) : i % 3 ? float(int(rng() % 4001) - 2000) / 256 : uniform(-9, 9);
  const float odd[] = {2e-38f, -1.5e-38f, 1e-20f, INFINITY, NAN, 3e38f, -INFINITY, fromBits(0x00000123u)};
  for (long r = 1; r < n; r += 2) suminValues[size_t(r * K + (r % 4 == 1 ? 11 : 7))] = odd[size_t(r / 2) % 8];
  // With sumin, every other psum is made small so that the sumin's bits show.
  std::vector<int32_t> mixed = psums;
  for (size_t i = 0; i < mixed.size(); i += 2) mixed[i] = mixed[i] / (1 << 26);
  const Tensor f32Sumin = tensorOf<float>(ElementType::f32, {n, K}, suminValues);
  const Tensor f16Sumin = f32Sumin.cast(ElementType::f16);
  const Tensor quant = floatRowsOf(rows);
  auto strided = [&](ElementType type) { return Tensor::create(type, {n, 2 * K}).slice(1, 1, 2 * K, 2); };

  for (int withSumin = 0; withSumin < 3; ++withSumin) {
    Tensor sumin = withSumin == 0 ? Tensor() : strided(withSumin == 1 ? ElementType::f32 : ElementType::f16);
    if (withSumin) copyElements(sumin, withSumin == 1 ? f32Sumin : f16Sumin);
    const std::vector<int32_t>& psumValues = withSumin ? mixed : psums;
    Tensor psum = strided(ElementType::si32);
    copyElements(psum, tensorOf<int32_t>(ElementType::si32, {n, K}, psumValues));
    auto expectedOf = [&](long i, bool relu) {
      const FloatRow& q = rows[size_t(i % K)];
      uint32_t addBias = float32ToFp24(q.bias);
      if (withSumin) {
        const float s = withSumin == 1 ? suminValues[size_t(i)] : f16Sumin.data<half>()[i].toFloat();
        addBias = fp24Add(addBias, fp24Mul(float32ToFp24(s), float32ToFp24(q.suminScale)));
      }
      const uint32_t res = fp24Add(fp24Mul(intToFp24(psumValues[size_t(i)]), float32ToFp24(q.scale)), addBias);
      return relu && !(f24ToF32(res) > 0) ? 0u : res;
    };
    for (int flags = 0; flags < 4; ++flags) {
      const bool relu = flags & 1, round = flags & 2;
      const FloatRounding mode = round ? FloatRounding::NearestEven : FloatRounding::TowardZero;
      auto run = [&](ElementType type) {
        Tensor out = strided(type);
        EXPECT_TRUE(TaeConvFPP(out, psum, quant, sumin, relu, round, false).ok());
        return out;
      };
      const auto f32 = bitsOf<float>(run(ElementType::f32));
      const auto f16 = bitsOf<half>(run(ElementType::f16)), bf16 = bitsOf<bfloat16>(run(ElementType::vbf16));
      const auto i8 = integersOf(run(ElementType::si8)), i32 = integersOf(run(ElementType::si32));
      for (long i = 0; i < n * K; ++i) {
        const uint32_t v = expectedOf(i, relu);
        ASSERT_EQ(f32[size_t(i)], fp24ToFp32Bits(v)) << i << " sumin " << withSumin;
        ASSERT_EQ(f16[size_t(i)], convert(v, kFp24, kFp16, mode)) << i;
        ASSERT_EQ(bf16[size_t(i)], convert(v, kFp24, kBf16, mode)) << i;
        ASSERT_EQ(i8[size_t(i)], fp24ToInt(v, INT8_MIN, INT8_MAX, mode)) << i;
        ASSERT_EQ(i32[size_t(i)], fp24ToInt(v, INT32_MIN, INT32_MAX, mode)) << i;
      }
    }
  }
}

TEST(LyraFloatPostProcess, TraceShowsEveryFp24Step) {
  Tensor out = Tensor::create(ElementType::si8, {1, 2});
  test::TraceCapture capture;
  {
    test::ScopedTracePoint point({0, 1});
    ASSERT_TRUE(TaeConvFPP(out, tensorOf<int32_t>(ElementType::si32, {1, 2}, {0, 1000}),
                           floatRowsOf({{0, 0, 0}, {0.5f, 0.3f, 0.1f}}),
                           tensorOf<float>(ElementType::f32, {1, 2}, {0, 2.7f}), true, true, false)
                    .ok());
  }
  EXPECT_EQ(capture.lines(), (std::vector<std::string>{
                                 "f24Bias = float32ToFp24(0.5) // 0x3f0000(0.5)",
                                 "fp24SuminAddBias = f24Bias // 0x3f0000(0.5)",
                                 "f24SuminScale = float32ToFp24(0.3) // 0x3e9999(0.29999542)",
                                 "fp32Sumin = floatToF24(2.7) // 0x402ccccd(2.7)",
                                 "fp24Sumin = fp32ToFp24(fp32Sumin) // 0x402ccc(2.6999512)",
                                 "fp24Sumin *= f24SuminScale // 0x3f4f5a(0.80996704)",
                                 "fp24SuminAddBias += fp24Sumin // 0x3fa7ad(1.309967)",
                                 "fp24Res = intToFp24(1000) // 0x447a00(1000)",
                                 "f24OutputScale = float32ToFp24(0.1) // 0x3dcccc(0.099998474)",
                                 "fp24Res *= f24OutputScale // 0x42c7ff(99.99805)",
                                 "fp24Res += fp24SuminAddBias // 0x42ca9e(101.30859)",
                                 "fp32Res = f24ToF32(fp24Res) // 0x42ca9e00(101.30859)",
                                 "psumF32[0, 1] = relu(fp32Res) // 0x42ca9e00(101.30859)",
                                 "intRes = fp24ToInt(intRes) // 101",
                             }));
  EXPECT_EQ(valuesOf<int8_t>(out)[1], 101);
}

TEST(LyraFloatPostProcess, ChecksInOrderWriteNothing) {
  // The float check's own conditions: the quant-info type and rows, the output and sumin types.
  struct Case { std::vector<long> quant; ElementType quantType, foutType; Tensor sumin; const char* expected; };
  const ElementType si8 = ElementType::si8, si64 = ElementType::si64, f32 = ElementType::f32;
  const Case cases[] = {
      {{3, 3}, si64, f32, {}, "float quantInfo must be f32"},
      {{4, 3}, f32, f32, {}, "quantInfo axis -2 must be identical to psum axis -1"},
      {{3, 3}, f32, ElementType::f64, {}, "fout must be f32, f16, bf16, si8, si16 or si32"},
      {{3, 3}, f32, f32, Tensor::create(si8, {2, 3}), "sumin must be f32 or f16"},
  };
  for (const Case& c : cases) {
    Tensor fout = filled(c.foutType, {2, 3}, 0x5a);
    const std::string before = storageBytes(fout);
    EXPECT_EQ(TaeConvFPP(fout, Tensor::create(ElementType::si32, {2, 3}), filled(c.quantType, c.quant, 0), c.sumin,
                         false, false, false).message(), c.expected);
    EXPECT_EQ(storageBytes(fout), before) << c.expected;
  }
  // Per tensor, one row serves every channel.
  Tensor out = Tensor::create(ElementType::f32, {1, 3});
  ASSERT_TRUE(TaeConvFPP(out, tensorOf<int32_t>(ElementType::si32, {1, 3}, {1, 2, 3}), floatRowsOf({{1, 0, 2}}),
                         Tensor(), false, false, true)
                  .ok());
  EXPECT_EQ(valuesOf<float>(out), (std::vector<float>{3, 5, 7}));
}

// ---------------------------------------------------------------------------

TEST(LyraGenFloatQuantInfo, ValuesAreFoldedAndRoundedToTheNearestFp24) {
  const Tensor bias = tensorOf<float>(ElementType::f32, {2}, {1.0f, -2.0f});
  const Tensor weight = tensorOf<int8_t>(ElementType::si8, {2, 1, 1, 2}, {3, 4, -1, 0});
  Tensor out = Tensor::create(ElementType::f32, {2, 3});
  // scale = 0.5 * {0.1, 0.2} / 0.25 = {0.2, 0.4}; suminScale = 0.3 / 0.25 =
  // 1.2; bias = (real bias / acc scale - 2 * weight sum) * scale + 3 =
  // (20 - 14) * 0.2 + 3 = 4.2 and (-20 + 2) * 0.4 + 3 = -4.2.
  ASSERT_TRUE(GenFloatQuantInfo(out, weight, bias, {0.5}, 2, {0.1, 0.2}, {0.3}, {0.25}, 3).ok());
  // Nearest fp24 (16 bits): 4.2 -> 0x408666, 1.2 -> 0x3f999a, 0.2 -> 0x3e4ccd,
  // 0.4 -> 0x3ecccd (the float32 cut would give ...666, ...999, ...ccc, ...ccc).
  EXPECT_EQ(bitsOf<float>(out), (std::vector<uint32_t>{0x40866600, 0x3f999a00, 0x3e4ccd00, 0xc0866600, 0x3f999a00,
                                                       0x3ecccd00}));
  // Without sumin the suminScale is 0; an si32 bias is in accumulator units.
  ASSERT_TRUE(GenFloatQuantInfo(out, Tensor(), tensorOf<int32_t>(ElementType::si32, {2}, {10, -10}), {1}, 0, {0.5}, {},
                                {1}, 0).ok());
  EXPECT_EQ(valuesOf<float>(out), (std::vector<float>{5, 0, 0.5f, -5, 0, 0.5f}));
}

TEST(LyraGenFloatQuantInfo, ChecksItsOwnWidthAndTheFp24Range) {
  // The operand checks it shares with the integer generator are tested there.
  Tensor out = Tensor::create(ElementType::f32, {1, 3});
  EXPECT_EQ(GenFloatQuantInfo(out, Tensor(), Tensor(), {1}, 0, {1}, {}, {1e-300}, 0).message(),
            "can not get scale in range of fp24 on channel 0");
}
