// The post-process against hand-worked values, an int64 reference written
// with floor divisions, the encoded path, and its trace lines and checks.
#include <gtest/gtest.h>

#include "Vela/VelaTestUtil.h"

using namespace kora;
using namespace kora::vela::intrinsic;
using test::randomTensor32;
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

/// One element as the pipeline is described, with divisions instead of
/// shifts; the row already holds register values.
int64_t reference(int64_t psum, const Row& q, bool relu, bool round, int64_t lo, int64_t hi) {
  int64_t v = psum + q[0];
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
  const Status s = ConvPP(out, tensorOf<int32_t>(ElementType::si32, {n, K}, psum), rowsOf(rows), sumin, relu, round, false);
  EXPECT_TRUE(s.ok()) << s.message();
  return valuesOf<T>(out);
}

}  // namespace

TEST(ConvPP, HandWorkedSteps) {
  struct Case {
    const char* what;
    int32_t psum;
    Row row;
    bool relu, round;
    int32_t expected8, expected16, expected32;
  };
  const Case cases[] = {
      {"3 >> 1 rounds up to 2", 3, {0, 0, 0, 0, 1, 1}, false, true, 2, 2, 2},
      {"-3 >> 1 rounds to -1: bit 0 of ...11101 is added", -3, {0, 0, 0, 0, 1, 1}, false, true, -1, -1, -1},
      {"floor without rounding", -3, {0, 0, 0, 0, 1, 1}, false, false, -2, -2, -2},
      {"postRShift 0 has no bit to add", 7, {0, 0, 0, 0, 1, 0}, false, true, 7, 7, 7},
      {"-5 >> 2 with rounding: -1.25 -> -1", -5, {0, 0, 0, 0, 1, 2}, false, true, -1, -1, -1},
      {"-6 >> 2 with rounding: ties go up", -6, {0, 0, 0, 0, 1, 2}, false, true, -1, -1, -1},
      {"relu turns a negative sum into 0", -5, {0, 0, 0, 0, 9, 0}, true, false, 0, 0, 0},
      {"relu keeps 1", 1, {0, 0, 0, 0, 9, 0}, true, false, 9, 9, 9},
      {"relu acts on the sum with bias, before any shift", 100, {-101, 0, 0, 3, 1, 0}, true, false, 0, 0, 0},
      {"without relu the same sum floors to -1", 100, {-101, 0, 0, 3, 1, 0}, false, false, -1, -1, -1},
      {"the 16-bit clamp comes before the scale", 1 << 20, {0, 0, 0, 0, 2, 0}, false, false, 127, 32767, 65534},
      {"and after the pre-shift", 1 << 20, {0, 0, 0, 4, 3, 1}, false, false, 127, 32767, 49150},
      {"scale keeps its low 15 bits", 10, {0, 0, 0, 0, 0x18003, 0}, false, false, 30, 30, 30},
      {"postRShift keeps its low 5 bits", 64, {0, 0, 0, 0, 1, 33}, false, false, 32, 32, 32},
      {"preRShift above 17 counts as 0", 64, {0, 0, 0, 18, 1, 0}, false, false, 64, 64, 64},
      {"bias keeps its low 32 bits", 1, {(int64_t(1) << 32) - 3, 0, 0, 0, 1, 0}, false, false, -2, -2, -2},
      {"psum + bias leaves int32 without wrapping", INT32_MAX, {INT32_MAX, 0, 0, 17, 1, 0}, false, false, 127, 32767, 32767},
      {"the output clamps at its own type", -40000, {0, 0, 0, 0, 32767, 0}, false, false, -128, -32768, -1073709056},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(pp<int8_t>({c.psum}, {c.row}, c.relu, c.round)[0], c.expected8) << c.what;
    EXPECT_EQ(pp<int16_t>({c.psum}, {c.row}, c.relu, c.round)[0], c.expected16) << c.what;
    EXPECT_EQ(pp<int32_t>({c.psum}, {c.row}, c.relu, c.round)[0], c.expected32) << c.what;
  }
}

TEST(ConvPP, MatchesTheFloorDivisionReference) {
  std::mt19937 rng(31);
  const long K = 16, n = 64;
  for (int trial = 0; trial < 40; ++trial) {
    std::vector<Row> rows(K);
    for (Row& r : rows)
      r = {int64_t(int32_t(rng())) >> (rng() % 24), 0, 0, int64_t(rng() % 18), int64_t(rng() % 32768),
           int64_t(rng() % 32)};
    const bool relu = rng() % 2, round = rng() % 2;
    std::vector<int32_t> psum(size_t(n * K));
    for (int32_t& v : psum) v = int32_t(rng()) >> (rng() % 31);
    const auto out = pp<int16_t>(psum, rows, relu, round);
    for (long i = 0; i < n * K; ++i)
      ASSERT_EQ(out[i], reference(psum[i], rows[i % K], relu, round, -32768, 32767)) << "psum " << psum[i];
  }
}

TEST(ConvPP, SuminIsRescaledAndAddedBeforeReluAndShifts) {
  struct Case {
    const char* what;
    ElementType type;
    int32_t sumin;
    int64_t scale, rshift;
    int32_t expected;
  };
  // psum 1000, bias 24, preRShift 2, scale 1, postRShift 0, relu on: (1024 + s) >> 2.
  const Case cases[] = {
      {"8-bit: 3 * 101 >> 2 = 75", ElementType::si8, 3, 101, 2, (1024 + 75) / 4},
      {"8-bit: -3 * 101 >> 2 floors to -76", ElementType::si8, -3, 101, 2, (1024 - 76) / 4},
      {"8-bit: a negative shift shifts left", ElementType::si8, -2, 3, -5, (1024 - 192) / 4},
      {"8-bit: scale keeps 15 bits", ElementType::si8, 1, 0x8000 + 40, 0, (1024 + 40) / 4},
      {"8-bit: a shift beyond 22 counts as 0", ElementType::si8, 1, 40, 23, (1024 + 40) / 4},
      {"8-bit: a sum made negative is zeroed by relu", ElementType::si8, -128, 32767, 0, 0},
      {"32-bit: >> 8", ElementType::si32, 2560, 0, 8, (1024 + 10) / 4},
      {"32-bit: >> 8 floors", ElementType::si32, -2561, 0, 8, (1024 - 11) / 4},
      {"32-bit: << 8", ElementType::si32, 3, 0, -8, (1024 + 768) / 4},
      {"32-bit: no shift, scale unused", ElementType::si32, -7, 999, 0, (1024 - 7) / 4},
  };
  for (const Case& c : cases) {
    Tensor sumin = Tensor::create(c.type, {1, 1});
    if (c.type == ElementType::si8)
      sumin.data<int8_t>()[0] = int8_t(c.sumin);
    else
      sumin.data<int32_t>()[0] = c.sumin;
    EXPECT_EQ(pp<int16_t>({1000}, {{24, c.scale, c.rshift, 2, 1, 0}}, true, false, sumin)[0], c.expected) << c.what;
  }
}

TEST(ConvPP, TraceShowsEveryStep) {
  struct Case {
    Tensor sumin;
    Row row;
    std::vector<std::string> middle;  // the sumin lines
  };
  const Case cases[] = {
      {tensorOf<int8_t>(ElementType::si8, {1, 2}, {0, -3}), {-100, 5, -2, 1, 3, 2},
       {"rescaledSumin = sumin8[0, 1] * suminScale //  -3 * 5 -> -15",
        "rescaledSumin = rescaledSumin << (-1 * suminRShift(-2)) // -60", "psum64 += rescaledSumin //  -160"}},
      {tensorOf<int8_t>(ElementType::si8, {1, 2}, {0, 7}), {-100, 5, 1, 1, 3, 2},
       {"rescaledSumin = sumin8[0, 1] * suminScale //  7 * 5 -> 35",
        "rescaledSumin = rescaledSumin >> suminRShift(1)) // 17", "psum64 += rescaledSumin //  -83"}},
      {tensorOf<int32_t>(ElementType::si32, {1, 2}, {0, 3}), {-100, 0, -8, 1, 3, 2},
       {"sumin32 = sumin[0, 1] // 3", "rescaledSumin = sumin32 << (-1 * suminRShift) // 3 << (-1 * -8) -> 768",
        "psum64 += rescaledSumin //  668"}},
      {tensorOf<int32_t>(ElementType::si32, {1, 2}, {0, -513}), {-100, 0, 8, 1, 3, 2},
       {"sumin32 = sumin[0, 1] // -513", "rescaledSumin = sumin32 >> suminRShift // -513 >> 8 -> -3",
        "psum64 += rescaledSumin //  -103"}},
  };
  for (const Case& c : cases) {
    Tensor out = Tensor::create(ElementType::si8, {1, 2});
    test::TraceCapture capture;
    test::ScopedTracePoint point({0, 1});
    ASSERT_TRUE(ConvPP(out, tensorOf<int32_t>(ElementType::si32, {1, 2}, {0, 0}), rowsOf({{}, c.row}), c.sumin, true,
                       true, false)
                    .ok());
    const auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 11u);
    EXPECT_EQ(lines[0], "psum64 = psum[0, 1] // 0");
    EXPECT_EQ(lines[1], "psum64 += bias(-100) // -100");
    EXPECT_EQ(std::vector<std::string>(lines.begin() + 2, lines.begin() + 5), c.middle);
    // The common tail, recomputed by hand from the sum after sumin.
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

TEST(ConvPP, WithoutReluOrRoundingTheirLinesChange) {
  Tensor out = Tensor::create(ElementType::si8, {1, 1});
  test::TraceCapture capture;
  test::ScopedTracePoint point({0, 0});
  ASSERT_TRUE(ConvPP(out, tensorOf<int32_t>(ElementType::si32, {1, 1}, {-9}), rowsOf({{2, 0, 0, 0, 1, 1}}), Tensor(),
                     false, false, false)
                  .ok());
  EXPECT_EQ(capture.lines(), (std::vector<std::string>{"psum64 = psum[0, 0] // -9", "psum64 += bias(2) // -7",
                                                       "psum64 >>= preRShift(0) // -7", "psum64 = clamp16(psum64) // -7",
                                                       "psum64 *= scale(1) // -7", "psum64 >>= postRShift(1) // -4",
                                                       "fout[0, 0] = clamp(psum64) // -4"}));
}

TEST(ConvPPEncoded, EqualsTheDecodedPathOnTheEncodingOfAnyRow) {
  std::mt19937 rng(41);
  const long K = 12;
  for (ElementType suminType : {ElementType::si8, ElementType::si32}) {
    const bool sumin32 = suminType == ElementType::si32;
    std::vector<Row> rows(K);
    for (Row& r : rows)  // fields beyond their ranges included
      r = {int64_t(rng()), int64_t(rng() % 70000), sumin32 ? int64_t(rng() % 3) * 8 - 8 : int64_t(rng() % 50) - 20,
           int64_t(rng() % 25) - 2, int64_t(rng() % 70000), int64_t(rng() % 40)};
    const Tensor decoded = rowsOf(rows);
    Tensor encoded = Tensor::create(ElementType::si64, {K, sumin32 ? 1L : 2L});
    ASSERT_TRUE(EncodeQuantInfo(encoded, decoded).ok());
    const Tensor psum = randomTensor32({3, 5, K}, rng, INT32_MIN, INT32_MAX);
    const Tensor sumin = sumin32 ? randomTensor32({3, 5, K}, rng, -(1 << 20), 1 << 20) : test::randomTensor8({3, 5, K}, rng);
    for (int flags = 0; flags < 4; ++flags) {
      Tensor a = Tensor::create(ElementType::si8, {3, 5, K}), b = Tensor::create(ElementType::si8, {3, 5, K});
      ASSERT_TRUE(ConvPP(a, psum, decoded, sumin, flags & 1, flags & 2, false).ok());
      ASSERT_TRUE(ConvPPEncoded(b, psum, encoded, sumin, flags & 1, flags & 2, false).ok());
      EXPECT_EQ(valuesOf<int8_t>(a), valuesOf<int8_t>(b));
    }
  }
}

TEST(ConvPP, TablesPerTensorPerImageAndLongerThanNeeded) {
  const Tensor psum = tensorOf<int32_t>(ElementType::si32, {2, 1, 2}, {10, 20, 30, 40});
  struct Case {
    Tensor quantInfo;
    bool perTensor;
    std::vector<int16_t> expected;
  };
  const Case cases[] = {
      {rowsOf({{0, 0, 0, 0, 2, 0}, {0, 0, 0, 0, 3, 0}, {0, 0, 0, 0, 5, 0}}), false, {20, 60, 60, 120}},  // 3 rows, K 2
      {rowsOf({{0, 0, 0, 0, 2, 0}, {0, 0, 0, 0, 3, 0}}), true, {20, 40, 60, 80}},
      {rowsOf({{1, 0, 0, 0, 1, 0}}), true, {11, 21, 31, 41}},
      {tensorOf<int64_t>(ElementType::si64, {2, 2, 6}, {0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 2, 0, 0, 0, 0, 0, 3, 0, 0, 0, 0, 0, 4, 0}),
       false, {10, 40, 90, 160}},  // one table per image
      {tensorOf<int64_t>(ElementType::si64, {1, 2, 6}, {0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 2, 0}), false, {10, 40, 30, 80}},
  };
  for (const Case& c : cases) {
    Tensor out = Tensor::create(ElementType::si16, {2, 1, 2});
    ASSERT_TRUE(ConvPP(out, psum, c.quantInfo, Tensor(), false, false, c.perTensor).ok());
    EXPECT_EQ(valuesOf<int16_t>(out), c.expected);
  }
}

TEST(ConvPP, ChecksInOrderAndWritesNothing) {
  const Tensor psum = Tensor::create(ElementType::si32, {1, 3});
  const Tensor rows = Tensor::create(ElementType::si64, {3, 6});
  for (int64_t& v : rows.data<int64_t>()) v = 0;
  const Tensor words = Tensor::create(ElementType::si64, {3, 2});
  for (int64_t& v : words.data<int64_t>()) v = 0;
  Tensor badShift = rowsOf({{0, 0, 4, 0, 1, 0}, {}, {}});
  struct Case {
    const char* expected;
    bool encoded;
    Tensor psum, quantInfo, sumin;
    ElementType foutType;
    bool perTensor;
  };
  const Case cases[] = {
      {"psum must be si32", false, Tensor::create(ElementType::si16, {1, 3}), rows, {}, ElementType::si8, false},
      {"shape of psum and fout must be identical", false, Tensor::create(ElementType::si32, {1, 4}), rows, {}, ElementType::si8, false},
      {"decoded quantInfo must be si64", false, psum, Tensor::create(ElementType::si32, {3, 6}), {}, ElementType::si8, false},
      {"encoded and decoded quantInfo must be si64", true, psum, Tensor::create(ElementType::si32, {3, 2}), {}, ElementType::si8, false},
      {"quantInfo rank must be either 2 or 3", false, psum, Tensor::create(ElementType::si64, {18}), {}, ElementType::si8, false},
      {"decoded quantInfo axis -1 be 6", false, psum, Tensor::create(ElementType::si64, {3, 5}), {}, ElementType::si8, false},
      {"encode tensor axis -1 must be either 1 or 2", true, psum, rows, {}, ElementType::si8, false},
      {"quantInfo axis -2 must be greater or equal to psum axis -1", false, psum, rows.slice(0, 0, 2), {}, ElementType::si8, false},
      {"quantInfo axis -2 must be greater or equal to psum axis -1", false, psum, rows.slice(0, 0, 0), {}, ElementType::si8, true},
      {"quantInfo axis 0 must be 1 or psum axis 0", false, psum, Tensor::create(ElementType::si64, {2, 3, 6}), {}, ElementType::si8, false},
      {"fout must be si8, si16 or si32", false, psum, rows, {}, ElementType::ui8, false},
      {"sumin must be 8bit or 32bit", false, psum, rows, Tensor::create(ElementType::si16, {1, 3}), ElementType::si8, false},
      {"shape of psum and sumin must be identical", false, psum, rows, Tensor::create(ElementType::si8, {3, 1}), ElementType::si8, false},
      {"sumin type does not match the quantInfo form", true, psum, words, Tensor::create(ElementType::si32, {1, 3}), ElementType::si8, false},
      {"i32 suminRShift must be one of [8, 0, -8], but got 4", false, psum, badShift, Tensor::create(ElementType::si32, {1, 3}), ElementType::si8, false},
  };
  for (const Case& c : cases) {
    Tensor out = tensorOf<int8_t>(ElementType::si8, {1, 3}, {5, 5, 5}).view(c.foutType);
    const Status s = c.encoded ? ConvPPEncoded(out, c.psum, c.quantInfo, c.sumin, true, true, c.perTensor)
                               : ConvPP(out, c.psum, c.quantInfo, c.sumin, true, true, c.perTensor);
    EXPECT_EQ(s.message(), c.expected);
    EXPECT_EQ(test::bytesOf(out), (std::vector<uint8_t>{5, 5, 5})) << c.expected;
  }
}
