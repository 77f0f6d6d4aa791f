// Quant-info packing against hand-assembled words, round trips over every
// valid field value, out-of-range fields, trace lines and checks; and the
// generator's search against hand-worked scales.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>

#include "Vela/VelaTestUtil.h"

using namespace kora;
using namespace kora::vela::intrinsic;
using test::tensorOf;
using test::valuesOf;

namespace {

using Row = std::array<int64_t, 6>;  // bias, suminScale, suminRShift, preRShift, scale, postRShift

Tensor decodedOf(const std::vector<Row>& rows) {
  std::vector<int64_t> flat;
  for (const Row& r : rows) flat.insert(flat.end(), r.begin(), r.end());
  return tensorOf<int64_t>(ElementType::si64, {long(rows.size()), 6}, flat);
}

std::vector<int64_t> encode(const std::vector<Row>& rows, long words) {
  Tensor out = Tensor::create(ElementType::si64, {long(rows.size()), words});
  const Status s = EncodeQuantInfo(out, decodedOf(rows));
  EXPECT_TRUE(s.ok()) << s.message();
  return valuesOf<int64_t>(out);
}

std::vector<int64_t> decode(const Tensor& encoded, int64_t channelBase = 0) {
  Tensor out = Tensor::create(ElementType::si64, {encoded.dim(0), 6});
  const Status s = DecodeQuantInfo(out, encoded, channelBase);
  EXPECT_TRUE(s.ok()) << s.message();
  return valuesOf<int64_t>(out);
}

int64_t word(uint64_t bits) { return int64_t(bits); }

}  // namespace

TEST(EncodeQuantInfo, PacksEveryFieldAndPicksTheHalfWordByChannelParity) {
  const Row row = {-2, 0x1234, -1, 17, 0x7fff, 31};
  // commonPart: bias [31:0], scale [46:32], preRShift [52:48], postRShift [60:56].
  const uint64_t common = 0xfffffffeull | 0x7fffull << 32 | 17ull << 48 | 31ull << 56;
  const uint64_t suminPart = 0x1234 | 63u << 16;  // -1 as a 6-bit field
  EXPECT_EQ(encode({row, row, row}, 2), (std::vector<int64_t>{word(common), word(suminPart), word(common),
                                                              word(suminPart << 32), word(common), word(suminPart)}));
  // 32-bit form: the sumin shift becomes the mode in [54:53], suminScale is dropped.
  const Row right8 = {5, 0x1234, 8, 0, 1, 0}, none = {5, 7, 0, 0, 1, 0}, left8 = {5, 0, -8, 0, 1, 0};
  const uint64_t base = 5 | 1ull << 32;
  EXPECT_EQ(encode({right8, none, left8}, 1), (std::vector<int64_t>{word(base | 2ull << 53), word(base),
                                                                   word(base | 3ull << 53)}));
}

TEST(EncodeQuantInfo, FieldsAtTheEdgesOfTheirRanges) {
  struct Case {
    unsigned position;
    int64_t value;
    uint64_t commonBits, suminBits;  // what the encoder stores
    int64_t decoded;                 // what decoding gives back
  };
  const Case cases[] = {
      {3, 17, 17ull << 48, 0, 17},  // preRShift: largest valid
      {3, 18, 0, 0, 0},             // beyond: written 0
      {3, -1, 0, 0, 0},
      {2, -13, 0, 51u << 16, -13},  // suminRShift: valid [-13, 22], 6-bit two's complement
      {2, 22, 0, 22u << 16, 22},
      {2, -14, 0, 0, 0},
      {2, 23, 0, 0, 0},
      {2, -1, 0, 63u << 16, -1},
      {4, 0x18003, 3ull << 32, 0, 3},  // scale: low 15 bits
      {1, 0x8005, 0, 5, 5},            // suminScale: low 15 bits
      {5, 33, 1ull << 56, 0, 1},       // postRShift: low 5 bits
      {0, (int64_t(1) << 32) + 7, 7, 0, 7},  // bias: low 32 bits
      {0, INT32_MIN, 0x80000000ull, 0, INT32_MIN},
  };
  for (const Case& c : cases) {
    Row row{};
    row[c.position] = c.value;
    const auto words = encode({row}, 2);
    EXPECT_EQ(words, (std::vector<int64_t>{word(c.commonBits), word(c.suminBits)})) << c.position << " = " << c.value;
    EXPECT_EQ(decode(tensorOf<int64_t>(ElementType::si64, {1, 2}, words))[c.position], c.decoded)
        << c.position << " = " << c.value;
  }
}

TEST(EncodeQuantInfo, A32BitSuminShiftOtherThanEightFailsAndWritesNothing) {
  Tensor out = tensorOf<int64_t>(ElementType::si64, {2, 1}, {11, 22});
  const Tensor rows = decodedOf({{1, 0, 8, 0, 1, 0}, {1, 0, 4, 0, 1, 0}});
  EXPECT_EQ(EncodeQuantInfo(out, rows).message(), "i32 suminRShift must be one of [8, 0, -8], but got 4");
  EXPECT_EQ(valuesOf<int64_t>(out), (std::vector<int64_t>{11, 22}));
  // The 2-word form has no such limit.
  Tensor wide = Tensor::create(ElementType::si64, {2, 2});
  EXPECT_TRUE(EncodeQuantInfo(wide, rows).ok());
}

TEST(DecodeQuantInfo, RoundTripsEveryValidFieldValue) {
  std::mt19937 rng(21);
  auto randomRow = [&] {
    return Row{int64_t(int32_t(rng())), int64_t(rng() % 32768), int64_t(rng() % 36) - 13, int64_t(rng() % 18),
               int64_t(rng() % 32768), int64_t(rng() % 32)};
  };
  struct Field {
    unsigned position;
    int64_t lo, hi;
  };
  const Field fields[] = {{1, 0, 32767}, {2, -13, 22}, {3, 0, 17}, {4, 0, 32767}, {5, 0, 31}};
  std::vector<Row> rows;
  for (const Field& f : fields)
    for (int64_t v = f.lo; v <= f.hi; ++v) {
      Row r = randomRow();
      r[f.position] = v;
      rows.push_back(r);
    }
  for (int64_t bias : {int64_t(INT32_MIN), int64_t(-1), int64_t(0), int64_t(INT32_MAX)}) rows.push_back({bias, 1, 1, 1, 1, 1});
  const long K = long(rows.size());
  const auto words = encode(rows, 2);
  std::vector<int64_t> expected;
  for (const Row& r : rows) expected.insert(expected.end(), r.begin(), r.end());
  EXPECT_EQ(decode(tensorOf<int64_t>(ElementType::si64, {K, 2}, words)), expected);

  // The 32-bit form keeps every field but suminScale, which decodes as 0.
  for (size_t i = 0; i < rows.size(); ++i) {
    rows[i][2] = int64_t(i % 3) * 8 - 8;
    rows[i][1] = 0;
  }
  expected.clear();
  for (const Row& r : rows) expected.insert(expected.end(), r.begin(), r.end());
  EXPECT_EQ(decode(tensorOf<int64_t>(ElementType::si64, {K, 1}, encode(rows, 1))), expected);
}

TEST(DecodeQuantInfo, StoredFieldsOutsideTheirRangeDecodeAsZero) {
  for (uint64_t pre = 18; pre < 32; ++pre)
    EXPECT_EQ(decode(tensorOf<int64_t>(ElementType::si64, {1, 1}, {word(pre << 48 | 9)}))[3], 0) << pre;
  for (uint64_t field = 23; field < 51; ++field)  // 23..31 and -32..-14
    EXPECT_EQ(decode(tensorOf<int64_t>(ElementType::si64, {1, 2}, {0, word(field << 16 | 3)}))[2], 0) << field;
  // Shift mode 1 is never produced; it decodes as no shift, like mode 0.
  EXPECT_EQ(decode(tensorOf<int64_t>(ElementType::si64, {1, 1}, {word(1ull << 53)}))[2], 0);
  EXPECT_EQ(decode(tensorOf<int64_t>(ElementType::si64, {1, 1}, {word(3ull << 53)}))[2], -8);
}

TEST(DecodeQuantInfo, ChannelBaseLetsASliceOfTheTableDecode) {
  const std::vector<Row> rows = {{1, 100, 2, 3, 4, 5}, {2, 200, -3, 4, 5, 6}, {3, 300, 4, 5, 6, 7}};
  const Tensor encoded = tensorOf<int64_t>(ElementType::si64, {3, 2}, encode(rows, 2));
  const Tensor tail = encoded.slice(0, 1, 3);
  const auto all = decode(encoded);
  EXPECT_EQ(decode(tail, 1), std::vector<int64_t>(all.begin() + 6, all.end()));
  // With the wrong base each row reads the empty half of its second word.
  const auto misread = decode(tail, 0);
  EXPECT_EQ(misread[1], 0);
  EXPECT_EQ(misread[7], 0);
}

TEST(EncodeQuantInfo, TraceLinesOfOneRow) {
  struct Case {
    Row row;
    long words;
    std::vector<std::string> lines;
  };
  const Case cases[] = {
      {{-7, 0x8009, -1, 18, 300, 7}, 2,
       {"decode[1] // bias=-7 preRShift=18 scale=300 postRShift=7 suminScale=32777 suminRShift=-1",
        "commonPart[31:0] = bias // -7", "suminPart[14:0] = suminScale // 9",
        "suminPart[21:16] = suminRShift // -1", "commonPart[52:48] = 0 // 18 exceeds range of [0, 17]",
        "commonPart[46:32] = scale // 300", "commonPart[60:56] = postRShift // 7",
        "encode[1, 0] = commonPart // 504404451050651641", "encode[1, 1][63:32] = suminPart"}},
      {{5, 0, 30, 2, 1, 0}, 2,
       {"decode[1] // bias=5 preRShift=2 scale=1 postRShift=0 suminScale=0 suminRShift=30",
        "commonPart[31:0] = bias // 5", "suminPart[14:0] = suminScale // 0",
        "suminPart[21:16] = 0 // exceeds range of [-13, 22]", "commonPart[52:48] = preRShift // 2",
        "commonPart[46:32] = scale // 1", "commonPart[60:56] = postRShift // 0",
        "encode[1, 0] = commonPart // 562954248388613", "encode[1, 1][63:32] = suminPart"}},
      {{5, 0, -8, 2, 1, 0}, 1,
       {"decode[1] // bias=5 preRShift=2 scale=1 postRShift=0 suminScale=0 suminRShift=-8",
        "commonPart[31:0] = bias // 5", "commonPart[54:53] = shiftMode // 3", "commonPart[52:48] = preRShift // 2",
        "commonPart[46:32] = scale // 1", "commonPart[60:56] = postRShift // 0",
        "encode[1, 0] = commonPart // 27584552012611589"}},
  };
  for (const Case& c : cases) {
    Tensor out = Tensor::create(ElementType::si64, {2, c.words});
    test::TraceCapture capture;
    test::ScopedTracePoint point({1, 0});
    ASSERT_TRUE(EncodeQuantInfo(out, decodedOf({Row{}, c.row})).ok());
    EXPECT_EQ(capture.lines(), c.lines);
  }
}

TEST(DecodeQuantInfo, TraceLinesOfOneRow) {
  const uint64_t common = uint64_t(uint32_t(-7)) | 300ull << 32 | 18ull << 48 | 7ull << 56;
  struct Case {
    std::vector<int64_t> words;
    long width;
    std::vector<long> point;
    std::vector<std::string> lines;
  };
  const Case cases[] = {
      {{0, 0, word(common), word(uint64_t(0x3f0009) << 32)}, 2, {1, 4},
       {"commonPart = quantInfo[1, 0] // 509471000631443449", "bias = commonPart[31:0] // -7",
        "suminShiftMode = commonPart[54:53] // 0", "suminPart = quantInfo[1, 1][63:32] // 4128777",
        "suminScale = suminPart[14:0] // 9", "suminRShift = suminPart[21:16] // -1",
        "preRShift = 0 // exceeds [0, 17] range", "scale = commonPart[46:32] // 300",
        "postRShift = commonPart[60:56] // 7"}},
      {{word(0x1e0000ull), 0}, 2, {0, 0},
       {"commonPart = quantInfo[0, 0] // 1966080", "bias = commonPart[31:0] // 1966080",
        "suminShiftMode = commonPart[54:53] // 0", "suminPart = quantInfo[0, 1][31:0] // 0",
        "suminScale = suminPart[14:0] // 0", "suminRShift = suminPart[21:16] // 0",
        "preRShift = commonPart[52:48] // 0", "scale = commonPart[46:32] // 0",
        "postRShift = commonPart[60:56] // 0"}},
      {{word(2ull << 53 | 3ull << 48)}, 1, {0, 5},
       {"commonPart = quantInfo[0, 0] // 18858823439613952", "bias = commonPart[31:0] // 0",
        "suminShiftMode = commonPart[54:53] // 2", "suminRShift = 8", "preRShift = commonPart[52:48] // 3",
        "scale = commonPart[46:32] // 0", "postRShift = commonPart[60:56] // 0"}},
  };
  for (const Case& c : cases) {
    const long K = long(c.words.size()) / c.width;
    Tensor out = Tensor::create(ElementType::si64, {K, 6});
    test::TraceCapture capture;
    test::ScopedTracePoint point(c.point);
    ASSERT_TRUE(DecodeQuantInfo(out, tensorOf<int64_t>(ElementType::si64, {K, c.width}, c.words), 0).ok());
    EXPECT_EQ(capture.lines(), c.lines);
  }
  // A stored suminRShift outside [-13, 22] says so.
  Tensor out = Tensor::create(ElementType::si64, {1, 6});
  test::TraceCapture capture;
  test::ScopedTracePoint point({0, 2});
  ASSERT_TRUE(DecodeQuantInfo(out, tensorOf<int64_t>(ElementType::si64, {1, 2}, {0, word(40u << 16)}), 0).ok());
  EXPECT_EQ(capture.lines()[5], "suminRShift = 0 // exceeds [-13,22] range");
}

TEST(EncodeQuantInfo, ChecksInOrder) {
  struct Case {
    std::vector<long> encode, decode;
    ElementType encodeType;
    const char* expected;
  };
  const Case cases[] = {
      {{4, 2}, {4, 6}, ElementType::si32, "encoded and decoded quantInfo must be si64"},
      {{4, 2}, {1, 4, 6}, ElementType::si64, "encode and decode tensors must be the same rank"},
      {{2}, {6}, ElementType::si64, "encode and decode tensors must be at least rank 2"},
      {{3, 2}, {4, 6}, ElementType::si64, "encode and decode tensor axis -2 must be identical"},
      {{2, 4, 2}, {3, 4, 6}, ElementType::si64, "encode and decode tensor axis 0 must be identical"},
      {{4, 2}, {4, 5}, ElementType::si64, "decode tensor axis -1 must be 6"},
      {{4, 3}, {4, 6}, ElementType::si64, "encode tensor axis -1 must be either 1 or 2"},
  };
  for (const Case& c : cases) {
    Tensor encoded = Tensor::create(c.encodeType, c.encode), decoded = Tensor::create(ElementType::si64, c.decode);
    EXPECT_EQ(EncodeQuantInfo(encoded, decoded).message(), c.expected);
    EXPECT_EQ(DecodeQuantInfo(decoded, encoded, 0).message(), c.expected);
  }
  // Leading axes pass through: [2, K, width] tables encode row by row.
  Tensor batched = Tensor::create(ElementType::si64, {2, 1, 2});
  const Tensor rows = tensorOf<int64_t>(ElementType::si64, {2, 1, 6}, {1, 0, 0, 0, 0, 0, 2, 0, 0, 0, 0, 0});
  ASSERT_TRUE(EncodeQuantInfo(batched, rows).ok());
  EXPECT_EQ(valuesOf<int64_t>(batched), (std::vector<int64_t>{1, 0, 2, 0}));
}

// ---------------------------------------------------------------------------

namespace {

struct GenArgs {
  std::vector<double> finScale{1.0};
  int64_t finZeroPoint = 0;
  std::vector<double> weightScale{1.0}, suminScale;
  int64_t suminZeroPoint = 0, suminBits = 8;
  std::vector<double> foutScale{1.0};
  int64_t foutZeroPoint = 0, foutBits = 8;
  Tensor weight, bias;
  long K = 1;
};

Status gen(const GenArgs& a, std::vector<int64_t>& rows) {
  Tensor out = Tensor::create(ElementType::si64, {a.K, 6});
  for (int64_t& v : out.data<int64_t>()) v = -99;
  const Status s = GenQuantInfo(out, a.weight, a.bias, a.finScale, a.finZeroPoint, a.weightScale, a.suminScale,
                                a.suminZeroPoint, a.suminBits, a.foutScale, a.foutZeroPoint, a.foutBits);
  rows = valuesOf<int64_t>(out);
  return s;
}

}  // namespace

TEST(GenQuantInfo, SearchesTheMostPreciseShiftsTheFieldsHold) {
  struct Case {
    double fin, weight, fout;
    Row expected;
  };
  const Case cases[] = {
      // M = 1/8: no pre-shift needed; 2^17 / 8 = 16384 is the largest scale below 2^15.
      {0.5, 0.25, 1.0, {0, 0, 0, 0, 16384, 17}},
      // M = 1e-6: |acc| up to 1.28e8 must fit 16 bits after the pre-shift: 2^12;
      // then 1e-6 * 2^34 = 17179.87 rounds to 17180.
      {0.001, 0.001, 1.0, {0, 0, 0, 12, 17180, 22}},
      // M = 30000 still fits the scale with no shift at all.
      {300.0, 100.0, 1.0, {0, 0, 0, 0, 30000, 0}},
  };
  for (const Case& c : cases) {
    GenArgs a;
    a.finScale = {c.fin};
    a.weightScale = {c.weight};
    a.foutScale = {c.fout};
    std::vector<int64_t> rows;
    ASSERT_TRUE(gen(a, rows).ok());
    EXPECT_EQ(rows, std::vector<int64_t>(c.expected.begin(), c.expected.end())) << c.fin * c.weight / c.fout;
  }
}

TEST(GenQuantInfo, FoldsZeroPointsAndBiasIntoTheBias) {
  GenArgs a;
  a.K = 2;
  a.finScale = {0.5};
  a.weightScale = {0.25, 0.5};  // M = 1/8 and 1/4
  a.finZeroPoint = 3;
  a.weight = tensorOf<int8_t>(ElementType::si8, {2, 1, 1, 2}, {10, -4, 7, 7});  // sums 6 and 14
  a.bias = tensorOf<float>(ElementType::f32, {2}, {1.0f, -2.5f});               // 8 and -10 accumulator units
  a.suminScale = {0.25};  // R = 2 and 1: scale 16384 << 13 and 16384 << 14
  a.suminZeroPoint = 10;
  a.foutZeroPoint = 5;  // 5 / M = 40 and 20
  std::vector<int64_t> rows;
  ASSERT_TRUE(gen(a, rows).ok());
  // channel 0: 8 - 3 * 6 - 10 * 2 + 40 = 10; channel 1: -10 - 3 * 14 - 10 * 1 + 20 = -42.
  EXPECT_EQ(rows, (std::vector<int64_t>{10, 16384, 13, 0, 16384, 17, -42, 16384, 14, 0, 16384, 16}));
  // An si32 bias is already in accumulator units.
  a.bias = tensorOf<int32_t>(ElementType::si32, {2}, {8, -10});
  std::vector<int64_t> again;
  ASSERT_TRUE(gen(a, again).ok());
  EXPECT_EQ(again, rows);
}

TEST(GenQuantInfo, SuminShifts) {
  struct Case {
    double suminScale;
    int64_t bits;
    int64_t scale, rshift;
  };
  const Case cases[] = {
      {1000.0, 8, 31250, -5},  // R = 1e6: 1e6 / 32 = 31250
      {0.001 / 4, 8, 16384, 16},  // R = 1/4
      {1.0 / 256, 32, 0, 8},
      {1.0, 32, 0, 0},
      {256.0, 32, 0, -8},
  };
  for (const Case& c : cases) {
    GenArgs a;
    a.finScale = {0.001};
    a.weightScale = {1.0};
    a.foutScale = {0.001};
    if (c.bits == 32) a.finScale = {1.0}, a.foutScale = {1.0};
    a.suminScale = {c.suminScale};
    a.suminBits = c.bits;
    std::vector<int64_t> rows;
    ASSERT_TRUE(gen(a, rows).ok()) << c.suminScale;
    EXPECT_EQ(rows[1], c.scale) << c.suminScale;
    EXPECT_EQ(rows[2], c.rshift) << c.suminScale;
  }
}

TEST(GenQuantInfo, RefusesWhatTheHardwareCannotExpress) {
  const Tensor rank1 = Tensor::create(ElementType::si64, {6});
  struct Case {
    const char* expected;
    std::function<void(GenArgs&)> change;
  };
  const Case cases[] = {
      {"bias must be rank of 1", [](GenArgs& a) { a.bias = Tensor::create(ElementType::f32, {1, 1}); }},
      {"sumin must be 8bit or 32bit", [](GenArgs& a) { a.suminScale = {1.0}, a.suminBits = 16; }},
      {"fout must be 8bit or 32bit", [](GenArgs& a) { a.foutBits = 16; }},
      {"quantInfo and bias axis 0 size must be identical", [](GenArgs& a) { a.bias = Tensor::create(ElementType::f32, {2}); }},
      {"bias must be f32, f64 or si32", [](GenArgs& a) { a.bias = Tensor::create(ElementType::si16, {1}); }},
      {"fin scale must hold 1 value", [](GenArgs& a) { a.finScale = {1.0, 1.0}; }},
      {"weight scale must be positive and finite", [](GenArgs& a) { a.weightScale = {0.0}; }},
      {"fout scale must be positive and finite", [](GenArgs& a) { a.foutScale = {NAN}; }},
      {"when fin zero point not zero, weight must be valid", [](GenArgs& a) { a.finZeroPoint = 1; }},
      {"cannot generate input zero point conv2d",
       [](GenArgs& a) { a.finZeroPoint = 1, a.weight = Tensor::create(ElementType::si8, {2, 1, 1, 1}); }},
      {"cannot generate input zero point conv2d",
       [](GenArgs& a) { a.finZeroPoint = 200, a.weight = Tensor::create(ElementType::si8, {1, 1, 1, 1}); }},
      {"si32 conv does not support rescale, check fout scale", [](GenArgs& a) { a.foutBits = 32, a.foutScale = {2.0}; }},
      {"conv post process does not support left shift", [](GenArgs& a) { a.finScale = {40000.0}; }},
      {"si32 sumin does not support rescale, check sumin scale",
       [](GenArgs& a) { a.suminScale = {3.0}, a.suminBits = 32; }},
      {"suminRShift cannot less than -9", [](GenArgs& a) { a.suminScale = {1e8}; }},
      {"can not get bias in range of int32 on channel 0", [](GenArgs& a) { a.bias = test::tensorOf<float>(ElementType::f32, {1}, {3e9f}); }},
  };
  for (const Case& c : cases) {
    GenArgs a;
    c.change(a);
    std::vector<int64_t> rows;
    EXPECT_EQ(gen(a, rows).message(), c.expected);
    EXPECT_EQ(rows, std::vector<int64_t>(6, -99)) << c.expected << ": nothing is written";
  }
  Tensor out = rank1;
  EXPECT_EQ(GenQuantInfo(out, {}, {}, {1.0}, 0, {1.0}, {}, 0, 8, {1.0}, 0, 8).message(), "quantInfo must be rank of 2");
  out = Tensor::create(ElementType::si64, {1, 5});
  EXPECT_EQ(GenQuantInfo(out, {}, {}, {1.0}, 0, {1.0}, {}, 0, 8, {1.0}, 0, 8).message(), "quantInfo axis 1 size must be 6");
}
