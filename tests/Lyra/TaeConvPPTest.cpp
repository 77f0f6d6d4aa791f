// The second generation's integer post-process against hand-worked values
// at the new range edges, an int64 reference written with floor divisions,
// the encoded path, trace lines and checks; and the MAC in front of it.
#include <gtest/gtest.h>

#include <random>

#include "Vela/VelaTestUtil.h"

using namespace kora;
using namespace kora::lyra::intrinsic;
using test::tensorOf;
using test::valuesOf;

namespace {

using Row = std::array<int64_t, 6>;  // bias, suminScale, suminRShift, preRShift, scale, postRShift

Tensor rowsOf(const std::vector<Row>& rows) {
  std::vector<int64_t> flat;
  for (const Row& r : rows) flat.insert(flat.end(), r.begin(), r.end());
  return tensorOf<int64_t>(ElementType::si64, {long(rows.size()), 6}, flat);
}

int64_t floorDiv(int64_t a, int64_t b) { return a / b - ((a % b != 0) && ((a < 0) != (b < 0))); }

/// One element as the pipeline is described, with divisions and products
/// instead of shifts; the row holds register values.
int64_t reference(int64_t psum, int64_t sumin, bool sumin32, const Row& q, bool relu, bool round, int64_t lo,
                  int64_t hi) {
  int64_t v = psum + q[0];
  const int64_t s = sumin32 ? sumin : sumin * q[1];
  v += q[2] >= 0 ? floorDiv(s, int64_t(1) << q[2]) : s * (int64_t(1) << -q[2]);
  if (relu && v < 1) v = 0;
  v = floorDiv(v, int64_t(1) << q[3]);
  v = std::clamp<int64_t>(v, -32768, 32767) * q[4];
  const int64_t half = round && q[5] > 0 ? int64_t(1) << (q[5] - 1) : 0;
  return std::clamp<int64_t>(floorDiv(v + half, int64_t(1) << q[5]), lo, hi);
}

template <class T>
std::vector<T> pp(const std::vector<int32_t>& psum, const std::vector<Row>& rows, bool relu, bool round,
                  const Tensor& sumin = Tensor()) {
  const long K = long(rows.size()), n = long(psum.size()) / K;
  Tensor out = Tensor::create(elementTypeOf<T>, {n, K});
  const Status s =
      TaeConvPP(out, tensorOf<int32_t>(ElementType::si32, {n, K}, psum), rowsOf(rows), sumin, relu, round, false);
  EXPECT_TRUE(s.ok()) << s.message();
  return valuesOf<T>(out);
}

Tensor oneSumin(ElementType type, int32_t value) {
  Tensor t = Tensor::create(type, {1, 1});
  if (type == ElementType::si8) t.data<int8_t>()[0] = int8_t(value);
  if (type == ElementType::si16) t.data<int16_t>()[0] = int16_t(value);
  if (type == ElementType::si32) t.data<int32_t>()[0] = value;
  return t;
}

}  // namespace

TEST(TaeConvPP, HandWorkedStepsAtTheWiderRanges) {
  struct Case {
    const char* what;
    int32_t psum;
    Row row;
    bool relu, round;
    int32_t expected8, expected16, expected32;
  };
  const Case cases[] = {
      {"preRShift 25: (2^32 - 2) >> 25 = 127", INT32_MAX, {INT32_MAX, 0, 0, 25, 1, 0}, false, false, 127, 127, 127},
      {"preRShift 26 counts as 0", 1000, {0, 0, 0, 26, 1, 0}, false, false, 127, 1000, 1000},
      {"preRShift 18 is valid here", 1 << 20, {0, 0, 0, 18, 3, 0}, false, false, 12, 12, 12},
      {"postRShift 40 leaves 0 of a positive value", 32767, {0, 0, 0, 0, 32767, 40}, false, false, 0, 0, 0},
      {"... and -1 of a negative one", -5, {0, 0, 0, 0, 1, 40}, false, false, -1, -1, -1},
      {"with rounding bit 39 of -5 is added", -5, {0, 0, 0, 0, 1, 40}, false, true, 0, 0, 0},
      {"postRShift 41 counts as 0", 7, {0, 0, 0, 0, 3, 41}, false, false, 21, 21, 21},
      {"postRShift 33 is not masked to 1", 8, {0, 0, 0, 0, 1, 33}, false, false, 0, 0, 0},
      {"3 >> 1 rounds up to 2", 3, {0, 0, 0, 0, 1, 1}, false, true, 2, 2, 2},
      {"-3 >> 1 rounds to -1", -3, {0, 0, 0, 0, 1, 1}, false, true, -1, -1, -1},
      {"floor without rounding", -3, {0, 0, 0, 0, 1, 1}, false, false, -2, -2, -2},
      {"relu turns a negative sum into 0", -5, {0, 0, 0, 0, 9, 0}, true, false, 0, 0, 0},
      {"relu acts before the pre-shift", 100, {-101, 0, 0, 3, 1, 0}, true, false, 0, 0, 0},
      {"the 16-bit clamp comes before the scale", 1 << 20, {0, 0, 0, 0, 2, 0}, false, false, 127, 32767, 65534},
      {"scale keeps its low 15 bits", 10, {0, 0, 0, 0, 0x18003, 0}, false, false, 30, 30, 30},
      {"bias keeps its low 32 bits", 1, {(int64_t(1) << 32) - 3, 0, 0, 0, 1, 0}, false, false, -2, -2, -2},
      {"the output clamps at its type", -40000, {0, 0, 0, 0, 32767, 0}, false, false, -128, -32768, -1073709056},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(pp<int8_t>({c.psum}, {c.row}, c.relu, c.round)[0], c.expected8) << c.what;
    EXPECT_EQ(pp<int16_t>({c.psum}, {c.row}, c.relu, c.round)[0], c.expected16) << c.what;
    EXPECT_EQ(pp<int32_t>({c.psum}, {c.row}, c.relu, c.round)[0], c.expected32) << c.what;
  }
}

TEST(TaeConvPP, SuminOfEachWidthIsRescaledBeforeReluAndShifts) {
  struct Case {
    const char* what;
    ElementType type;
    int32_t sumin;
    int64_t scale, rshift;
    int32_t expected;
  };
  // psum 1000, bias 24, preRShift 2, scale 1, postRShift 0, relu on, 16-bit
  // output: clamp16((1024 + rescaled) >> 2).
  const Case cases[] = {
      {"8-bit: 3 * 101 >> 2 = 75", ElementType::si8, 3, 101, 2, (1024 + 75) / 4},
      {"8-bit: -17 shifts left by 17", ElementType::si8, 1, 1, -17, 32767},
      {"8-bit: -9 shifts left by 9", ElementType::si8, -1, 1, -9, (1024 - 512) / 4},
      {"8-bit: -18 counts as 0", ElementType::si8, 1, 40, -18, (1024 + 40) / 4},
      {"8-bit: 22: -128 * 32767 >> 22 floors to -1", ElementType::si8, -128, 32767, 22, (1024 - 1) / 4},
      {"8-bit: 23 counts as 0", ElementType::si8, 1, 40, 23, (1024 + 40) / 4},
      {"16-bit: 30000 * 3 >> 2", ElementType::si16, 30000, 3, 2, (1024 + 22500) / 4},
      {"16-bit: 2 * 3 << 10", ElementType::si16, 2, 3, -10, (1024 + 6144) / 4},
      {"16-bit: -32768 * 32767 >> 7 is zeroed by relu", ElementType::si16, -32768, 32767, 7, 0},
      {"16-bit: scale keeps 15 bits", ElementType::si16, 1, 0x8000 + 40, 0, (1024 + 40) / 4},
      {"32-bit: >> 8", ElementType::si32, 2560, 0, 8, (1024 + 10) / 4},
      {"32-bit: >> 8 floors", ElementType::si32, -2561, 0, 8, (1024 - 11) / 4},
      {"32-bit: << 8", ElementType::si32, 3, 0, -8, (1024 + 768) / 4},
      {"32-bit: no shift, scale unused", ElementType::si32, -7, 999, 0, (1024 - 7) / 4},
      {"32-bit: INT32_MAX >> 8 then the clamp", ElementType::si32, INT32_MAX, 0, 8, 32767},
  };
  for (const Case& c : cases)
    EXPECT_EQ(pp<int16_t>({1000}, {{24, c.scale, c.rshift, 2, 1, 0}}, true, false, oneSumin(c.type, c.sumin))[0],
              c.expected)
        << c.what;
  Tensor out = Tensor::create(ElementType::si8, {1, 1});
  EXPECT_EQ(TaeConvPP(out, tensorOf<int32_t>(ElementType::si32, {1, 1}, {0}), rowsOf({{0, 0, 4, 0, 1, 0}}),
                      oneSumin(ElementType::si32, 1), false, false, false)
                .message(),
            "i32 suminRShift must be one of [8, 0, -8], but got 4");
}

TEST(TaeConvPP, MatchesTheFloorDivisionReference) {
  std::mt19937 rng(73);
  const long K = 16, n = 48;
  for (int trial = 0; trial < 60; ++trial) {
    const ElementType suminType = trial % 4 == 0 ? ElementType::si8 : trial % 4 == 1 ? ElementType::si16 : ElementType::si32;
    const bool sumin32 = suminType == ElementType::si32, withSumin = trial % 4 != 3;
    std::vector<Row> rows(K);
    for (Row& r : rows)
      r = {int64_t(int32_t(rng())) >> (rng() % 24), int64_t(rng() % 32768),
           sumin32 ? int64_t(rng() % 3) * 8 - 8 : int64_t(rng() % 40) - 17, int64_t(rng() % 26),
           int64_t(rng() % 32768), int64_t(rng() % 41)};
    const bool relu = rng() % 2, round = rng() % 2;
    std::vector<int32_t> psum(size_t(n * K)), suminValues(size_t(n * K));
    for (int32_t& v : psum) v = int32_t(rng()) >> (rng() % 31);
    Tensor sumin = Tensor::create(suminType, {n, K});
    for (long i = 0; i < n * K; ++i) {
      const int32_t raw = int32_t(rng()) >> (rng() % 31);
      suminValues[size_t(i)] = suminType == ElementType::si8 ? int8_t(raw) : suminType == ElementType::si16 ? int16_t(raw) : raw;
      if (suminType == ElementType::si8) sumin.data<int8_t>()[i] = int8_t(raw);
      if (suminType == ElementType::si16) sumin.data<int16_t>()[i] = int16_t(raw);
      if (suminType == ElementType::si32) sumin.data<int32_t>()[i] = raw;
    }
    const auto out = pp<int16_t>(psum, rows, relu, round, withSumin ? sumin : Tensor());
    for (long i = 0; i < n * K; ++i)
      ASSERT_EQ(out[i], reference(psum[i], withSumin ? suminValues[i] : 0, sumin32, rows[i % K], relu, round, -32768,
                                  32767))
          << "trial " << trial << " element " << i;
  }
}

TEST(TaeConvPPEncoded, EqualsTheDecodedPathOnTheEncodingOfAnyRow) {
  std::mt19937 rng(74);
  const long K = 12, n = 20;
  for (ElementType suminType : {ElementType::si8, ElementType::si16, ElementType::si32}) {
    const bool sumin32 = suminType == ElementType::si32;
    std::vector<Row> rows(K);
    for (Row& r : rows)  // fields beyond their ranges included
      r = {int64_t(rng()), int64_t(rng() % 70000), sumin32 ? int64_t(rng() % 3) * 8 - 8 : int64_t(rng() % 50) - 24,
           int64_t(rng() % 34) - 2, int64_t(rng() % 70000), int64_t(rng() % 70)};
    const Tensor decoded = rowsOf(rows);
    Tensor encoded = Tensor::create(ElementType::si64, {K, 2});
    ASSERT_TRUE(EncodeQuantInfo(encoded, decoded, sumin32).ok());
    const Tensor psum = test::randomTensor32({n, K}, rng, INT32_MIN, INT32_MAX);
    Tensor sumin = Tensor::create(suminType, {n, K});
    for (uint8_t& b : sumin.data<uint8_t>()) b = uint8_t(rng());
    for (bool relu : {false, true}) {
      Tensor a = Tensor::create(ElementType::si16, {n, K}), b = Tensor::create(ElementType::si16, {n, K});
      ASSERT_TRUE(TaeConvPP(a, psum, decoded, sumin, relu, true, false).ok());
      ASSERT_TRUE(TaeConvPPEncoded(b, psum, encoded, sumin, relu, true, false).ok());
      EXPECT_EQ(valuesOf<int16_t>(a), valuesOf<int16_t>(b));
    }
  }
}

TEST(TaeConvPP, PerTensorAndPerImageTables) {
  const Tensor psum = tensorOf<int32_t>(ElementType::si32, {2, 1, 2}, {10, 20, 30, 40});
  // Per tensor: one row serves both channels.
  Tensor out = Tensor::create(ElementType::si32, {2, 1, 2});
  ASSERT_TRUE(TaeConvPP(out, psum, rowsOf({{1, 0, 0, 0, 2, 0}}), Tensor(), false, false, true).ok());
  EXPECT_EQ(valuesOf<int32_t>(out), (std::vector<int32_t>{22, 42, 62, 82}));
  // One table per image: [2, K, 6].
  const Tensor tables = tensorOf<int64_t>(ElementType::si64, {2, 2, 6},
                                          {0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 2, 0, 0, 0, 0, 0, 3, 0, 0, 0, 0, 0, 4, 0});
  ASSERT_TRUE(TaeConvPP(out, psum, tables, Tensor(), false, false, false).ok());
  EXPECT_EQ(valuesOf<int32_t>(out), (std::vector<int32_t>{10, 40, 90, 160}));
}

TEST(TaeConvPP, TraceShowsEveryStepWithEachSuminWidth) {
  struct Case {
    Tensor sumin;
    Row row;
    std::vector<std::string> middle;  // the sumin lines
  };
  const Case cases[] = {
      {tensorOf<int8_t>(ElementType::si8, {1, 2}, {0, -3}), {-100, 5, -2, 1, 3, 2},
       {"rescaledSumin = sumin8[0, 1] * suminScale //  -3 * 5 -> -15", "suminRShift -2",
        "rescaledSumin = rescaledSumin << (-1 * suminRShift) //  -60", "psum64 += rescaledSumin //  -160"}},
      {tensorOf<int16_t>(ElementType::si16, {1, 2}, {0, 3000}), {-100, 5, 3, 1, 3, 2},
       {"rescaledSumin = sumin16[0, 1] * suminScale //  3000 * 5 -> 15000", "suminRShift 3",
        "rescaledSumin = rescaledSumin >> suminRShift //  1875", "psum64 += rescaledSumin //  1775"}},
      {tensorOf<int32_t>(ElementType::si32, {1, 2}, {0, 3}), {-100, 0, -8, 1, 3, 2},
       {"sumin32 = sumin[0, 1] // 3", "suminRShift -8", "rescaledSumin = sumin32 << (-1 * suminRShift) //  768",
        "psum64 += rescaledSumin //  668"}},
      {tensorOf<int32_t>(ElementType::si32, {1, 2}, {0, -513}), {-100, 0, 8, 1, 3, 2},
       {"sumin32 = sumin[0, 1] // -513", "suminRShift 8", "rescaledSumin = sumin32 >> suminRShift //  -3",
        "psum64 += rescaledSumin //  -103"}},
  };
  for (const Case& c : cases) {
    Tensor out = Tensor::create(ElementType::si8, {1, 2});
    test::TraceCapture capture;
    test::ScopedTracePoint point({0, 1});
    ASSERT_TRUE(TaeConvPP(out, tensorOf<int32_t>(ElementType::si32, {1, 2}, {0, 0}), rowsOf({{}, c.row}), c.sumin,
                          true, true, false)
                    .ok());
    const auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 12u);
    EXPECT_EQ(lines[0], "psum64 = psum[0, 1] // 0");
    EXPECT_EQ(lines[1], "psum64 += bias(-100) // -100");
    EXPECT_EQ(std::vector<std::string>(lines.begin() + 2, lines.begin() + 6), c.middle);
    const int64_t sum = std::stoll(c.middle.back().substr(c.middle.back().rfind(' ') + 1));
    const int64_t relu = sum < 1 ? 0 : sum, pre = relu / 2, scaled = pre * 3, post = (scaled + 2) / 4;
    const int64_t stored = std::min<int64_t>(post, 127);
    const std::vector<std::string> tail = {
        fmt::format("psum64 = relu(psum64) //  {}", relu), fmt::format("psum64 >>= preRShift(1) // {}", pre),
        fmt::format("psum64 = clamp16(psum64) // {}", pre), fmt::format("psum64 *= scale(3) // {}", scaled),
        fmt::format("psum64 >>~= postRShift(2) // {}", post), fmt::format("fout[0, 1] = clamp(psum64) // {}", stored)};
    EXPECT_EQ(std::vector<std::string>(lines.end() - 6, lines.end()), tail);
    EXPECT_EQ(valuesOf<int8_t>(out)[1], stored) << "the stored value is the traced one";
  }
}

TEST(TaeConvPP, ChecksInOrderWriteNothing) {
  struct Case {
    ElementType psumType;
    std::vector<long> psum, fout, quant;
    ElementType quantType, foutType;
    Tensor sumin;
    bool encoded, perTensor;
    const char* expected;
  };
  const ElementType si8 = ElementType::si8, si16 = ElementType::si16, si32 = ElementType::si32,
                    si64 = ElementType::si64, f32 = ElementType::f32;
  const Case cases[] = {
      {si16, {2, 3}, {2, 3}, {3, 6}, si64, si8, {}, false, false, "psum must be si32"},
      {si32, {2, 3}, {3, 2}, {3, 6}, si64, si8, {}, false, false, "shape of psum and fout must be identical"},
      {si32, {2, 3}, {2, 3}, {3, 6}, si32, si8, {}, false, false, "decoded quantInfo must be si64"},
      {si32, {2, 3}, {2, 3}, {3, 2}, si32, si8, {}, true, false, "encoded quantInfo must be si64"},
      {si32, {2, 3}, {2, 3}, {6}, si64, si8, {}, false, false, "quantInfo rank must be either 2 or 3"},
      {si32, {2, 3}, {2, 3}, {3, 5}, si64, si8, {}, false, false, "decoded quantInfo axis -1 be 6"},
      {si32, {2, 3}, {2, 3}, {3, 6}, si64, si8, {}, true, false, "encode tensor axis -1 must be 2"},
      {si32, {}, {}, {3, 6}, si64, si8, {}, false, false, "psum must have a channel axis"},
      {si32, {2, 3}, {2, 3}, {4, 6}, si64, si8, {}, false, false, "quantInfo axis -2 must be identical to psum axis -1"},
      {si32, {2, 3}, {2, 3}, {1, 6}, si64, si8, {}, false, false, "quantInfo axis -2 must be identical to psum axis -1"},
      {si32, {2, 3}, {2, 3}, {2, 6}, si64, si8, {}, false, true, "quantInfo axis -2 must be identical to psum axis -1"},
      {si32, {2, 3}, {2, 3}, {3, 3, 6}, si64, si8, {}, false, false, "quantInfo axis 0 must be 1 or psum axis 0"},
      {si32, {2, 3}, {2, 3}, {3, 6}, si64, f32, {}, false, false, "fout must be si8, si16 or si32"},
      {si32, {2, 3}, {2, 3}, {3, 6}, si64, si8, Tensor::create(f32, {2, 3}), false, false,
       "sumin must be 8bit 16bit or 32bit"},
      {si32, {2, 3}, {2, 3}, {3, 6}, si64, si8, Tensor::create(si16, {3, 2}), false, false,
       "shape of psum and sumin must be identical"},
  };
  for (const Case& c : cases) {
    Tensor fout = Tensor::create(c.foutType, c.fout);
    for (uint8_t& b : fout.data<uint8_t>()) b = 0x5a;
    Tensor quant = Tensor::create(c.quantType, c.quant);
    for (uint8_t& b : quant.data<uint8_t>()) b = 0;
    const Tensor psum = Tensor::create(c.psumType, c.psum);
    const Status s = c.encoded ? TaeConvPPEncoded(fout, psum, quant, c.sumin, false, false, c.perTensor)
                               : TaeConvPP(fout, psum, quant, c.sumin, false, false, c.perTensor);
    EXPECT_EQ(s.message(), c.expected);
    for (uint8_t b : fout.data<uint8_t>()) ASSERT_EQ(b, 0x5a) << c.expected;
  }
}

TEST(TaeConvMacPP, TheMacOfTheFirstGenerationThenThisPostProcess) {
  std::mt19937 rng(75);
  const Tensor fin = test::randomTensor8({2, 6, 5, 8}, rng), weight = test::randomTensor8({6, 3, 3, 4}, rng);
  const test::ConvShape shape{{1, 1}, -3, {1, 2}, {2, 1}, 2};
  std::vector<Row> rows;
  for (long k = 0; k < 6; ++k) rows.push_back({k * 100 - 250, 3, -2, 20 - k, 20000 + k, 5 + k});
  const Tensor quant = rowsOf(rows);
  const Tensor psum0 = test::randomTensor32({2, 4, 3, 6}, rng, -1000000, 1000000);
  const Tensor sumin = test::randomTensor8({2, 4, 3, 6}, rng);
  Tensor fout = Tensor::create(ElementType::si16, {2, 4, 3, 6});
  ASSERT_TRUE(TaeConvMacPP(fout, fin, weight, quant, sumin, psum0, -3, {1, 1}, {1, 2}, {2, 1}, 2, 0, true, true, false)
                  .ok());
  // The reference: the plain convolution, then the post-process alone.
  const Tensor acc = tensorOf<int32_t>(ElementType::si32, {2, 4, 3, 6}, test::referenceConv(psum0, fin, weight, shape));
  Tensor expected = Tensor::create(ElementType::si16, {2, 4, 3, 6});
  ASSERT_TRUE(TaeConvPP(expected, acc, quant, sumin, true, true, false).ok());
  EXPECT_EQ(valuesOf<int16_t>(fout), valuesOf<int16_t>(expected));

  // Encoded quant info gives the same; the trace shows the MAC, then the PP.
  Tensor encoded = Tensor::create(ElementType::si64, {6, 2});
  ASSERT_TRUE(EncodeQuantInfo(encoded, quant, false).ok());
  Tensor again = Tensor::create(ElementType::si16, {2, 4, 3, 6});
  test::TraceCapture capture;
  {
    test::ScopedTracePoint point({1, 2, 0, 4});
    ASSERT_TRUE(
        TaeConvMacPP(again, fin, weight, encoded, sumin, psum0, -3, {1, 1}, {1, 2}, {2, 1}, 2, 1, true, true, false)
            .ok());
  }
  EXPECT_EQ(valuesOf<int16_t>(again), valuesOf<int16_t>(expected));
  const auto lines = capture.lines();
  ASSERT_EQ(lines.size(), 36u + 12u) << "3 x 3 taps of 4 channels, then the PP";
  EXPECT_EQ(lines[0].rfind("psum[1, 2, 0, 4] += fin[1, ", 0), 0u) << lines[0];
  EXPECT_EQ(lines[36].rfind("psum64 = psum[1, 2, 0, 4] // ", 0), 0u) << lines[36];
  EXPECT_EQ(lines.back(), fmt::format("fout[1, 2, 0, 4] = clamp(psum64) // {}", valuesOf<int16_t>(expected)[
                                                                                    ((1 * 4 + 2) * 3 + 0) * 6 + 4]));

  // Checks come before the MAC runs: quantForm, then the MAC's, then the PP's.
  EXPECT_EQ(TaeConvMacPP(again, fin, weight, quant, sumin, psum0, 0, {1, 1}, {1, 2}, {2, 1}, 2, 2, false, false, false)
                .message(),
            "quantForm must be 0 (decoded) or 1 (encoded)");
  EXPECT_EQ(TaeConvMacPP(again, fin, weight, quant, sumin, psum0, 0, {1, 1, 1}, {1, 2}, {2, 1}, 2, 0, false, false,
                         false)
                .message(),
            "wrong size of pad");
  EXPECT_EQ(TaeConvMacPP(again, fin, weight, encoded, sumin, psum0, 0, {1, 1}, {1, 2}, {2, 1}, 2, 0, false, false,
                         false)
                .message(),
            "decoded quantInfo axis -1 be 6");
}
