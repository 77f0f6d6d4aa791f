// The second generation's quant-info packing against hand-assembled words,
// every range edge, round trips over every valid field value, trace lines
// and checks.
#include <gtest/gtest.h>

#include <random>

#include "Vela/VelaTestUtil.h"

using namespace kora;
using namespace kora::lyra::intrinsic;
using test::tensorOf;
using test::valuesOf;

namespace {

using Row = std::array<int64_t, 6>;  // bias, suminScale, suminRShift, preRShift, scale, postRShift

Tensor decodedOf(const std::vector<Row>& rows) {
  std::vector<int64_t> flat;
  for (const Row& r : rows) flat.insert(flat.end(), r.begin(), r.end());
  return tensorOf<int64_t>(ElementType::si64, {long(rows.size()), 6}, flat);
}

std::vector<int64_t> encode(const std::vector<Row>& rows, bool sumin32) {
  Tensor out = Tensor::create(ElementType::si64, {long(rows.size()), 2});
  const Status s = EncodeQuantInfo(out, decodedOf(rows), sumin32);
  EXPECT_TRUE(s.ok()) << s.message();
  return valuesOf<int64_t>(out);
}

std::vector<int64_t> decode(const std::vector<int64_t>& words, bool sumin32) {
  const long K = long(words.size()) / 2;
  Tensor out = Tensor::create(ElementType::si64, {K, 6});
  const Status s = DecodeQuantInfo(out, tensorOf<int64_t>(ElementType::si64, {K, 2}, words), sumin32);
  EXPECT_TRUE(s.ok()) << s.message();
  return valuesOf<int64_t>(out);
}

int64_t word(uint64_t bits) { return int64_t(bits); }

}  // namespace

TEST(LyraEncodeQuantInfo, PacksEveryFieldInTheWiderLayout) {
  // commonPart: bias [31:0], scale [46:32], preRShift [52:48], postRShift [61:56].
  const Row row = {-2, 0x1234, -17, 25, 0x7fff, 40};
  const uint64_t common = 0xfffffffeull | 0x7fffull << 32 | 25ull << 48 | 40ull << 56;
  EXPECT_EQ(encode({row, row}, false),
            (std::vector<int64_t>{word(common), word(0x1234 | 47u << 16), word(common), word(0x1234 | 47u << 16)}))
      << "suminPart sits in the low half of word 1 for every channel; -17 is field 47";
  // 32-bit form: the shift mode moves into suminPart[17:16], suminScale is dropped.
  const uint64_t base = 5 | 1ull << 32;
  EXPECT_EQ(encode({{5, 0x1234, 8, 0, 1, 0}, {5, 7, 0, 0, 1, 0}, {5, 0, -8, 0, 1, 0}}, true),
            (std::vector<int64_t>{word(base), word(2u << 16), word(base), 0, word(base), word(3u << 16)}));
}

TEST(LyraEncodeQuantInfo, FieldsAtTheEdgesOfTheirRanges) {
  struct Case {
    unsigned position;
    int64_t value;
    uint64_t commonBits, suminBits;  // what the encoder stores
    int64_t decoded;                 // what decoding gives back
  };
  const Case cases[] = {
      {3, 25, 25ull << 48, 0, 25},  // preRShift: largest valid
      {3, 26, 0, 0, 0},             // beyond: written 0
      {3, -1, 0, 0, 0},
      {3, 17, 17ull << 48, 0, 17},  // the first generation's limit is no limit here
      {5, 40, 40ull << 56, 0, 40},  // postRShift: largest valid
      {5, 41, 41ull << 56, 0, 0},   // stored as given, decodes as 0
      {5, 63, 63ull << 56, 0, 0},
      {5, 64, 0, 0, 0},             // 6 bits
      {5, 31, 31ull << 56, 0, 31},
      {2, -17, 0, 47u << 16, -17},  // suminRShift: valid [-17, 22]
      {2, -18, 0, 0, 0},
      {2, 22, 0, 22u << 16, 22},
      {2, 23, 0, 0, 0},
      {2, -13, 0, 51u << 16, -13},
      {2, -1, 0, 63u << 16, -1},
      {4, 0x18003, 3ull << 32, 0, 3},        // scale: low 15 bits
      {1, 0x8005, 0, 5, 5},                  // suminScale: low 15 bits
      {0, (int64_t(1) << 32) + 7, 7, 0, 7},  // bias: low 32 bits
      {0, INT32_MIN, 0x80000000ull, 0, INT32_MIN},
  };
  for (const Case& c : cases) {
    Row row{};
    row[c.position] = c.value;
    const auto words = encode({row}, false);
    EXPECT_EQ(words, (std::vector<int64_t>{word(c.commonBits), word(c.suminBits)})) << c.position << " = " << c.value;
    EXPECT_EQ(decode(words, false)[c.position], c.decoded) << c.position << " = " << c.value;
  }
}

TEST(LyraEncodeQuantInfo, ThirtyTwoBitSuminShiftModes) {
  struct Case {
    int64_t shift;
    uint64_t mode;
  };
  for (const Case& c : {Case{8, 2}, Case{0, 0}, Case{-8, 3}}) {
    const auto words = encode({{0, 0, c.shift, 0, 0, 0}}, true);
    EXPECT_EQ(uint64_t(words[1]), c.mode << 16) << c.shift;
    EXPECT_EQ(decode(words, true)[2], c.shift);
  }
  // The unused mode 1 decodes as no shift; the 32-bit form reads no suminScale.
  EXPECT_EQ(decode({0, word(1u << 16 | 0x7fff)}, true), (std::vector<int64_t>{0, 0, 0, 0, 0, 0}));
  // Any other shift fails, writing nothing; the 8-bit form has no such limit.
  Tensor out = tensorOf<int64_t>(ElementType::si64, {2, 2}, {11, 22, 33, 44});
  const Tensor rows = decodedOf({{1, 0, 8, 0, 1, 0}, {1, 0, 4, 0, 1, 0}});
  EXPECT_EQ(EncodeQuantInfo(out, rows, true).message(), "i32 suminRShift must be one of [8, 0, -8], but got 4");
  EXPECT_EQ(valuesOf<int64_t>(out), (std::vector<int64_t>{11, 22, 33, 44}));
  EXPECT_TRUE(EncodeQuantInfo(out, rows, false).ok());
}

TEST(LyraDecodeQuantInfo, RoundTripsEveryValidFieldValueAndZeroesTheRest) {
  std::mt19937 rng(71);
  auto randomRow = [&] {
    return Row{int64_t(int32_t(rng())), int64_t(rng() % 32768), int64_t(rng() % 40) - 17, int64_t(rng() % 26),
               int64_t(rng() % 32768), int64_t(rng() % 41)};
  };
  struct Field {
    unsigned position;
    int64_t lo, hi;
  };
  const Field fields[] = {{1, 0, 32767}, {2, -17, 22}, {3, 0, 25}, {4, 0, 32767}, {5, 0, 40}};
  std::vector<Row> rows;
  for (const Field& f : fields)
    for (int64_t v = f.lo; v <= f.hi; ++v) {
      Row r = randomRow();
      r[f.position] = v;
      rows.push_back(r);
    }
  std::vector<int64_t> expected;
  for (const Row& r : rows) expected.insert(expected.end(), r.begin(), r.end());
  EXPECT_EQ(decode(encode(rows, false), false), expected);

  // Every stored value outside a field's range decodes as 0.
  for (uint64_t pre = 26; pre < 32; ++pre) EXPECT_EQ(decode({word(pre << 48 | 9), 0}, false)[3], 0) << pre;
  for (uint64_t post = 41; post < 64; ++post) EXPECT_EQ(decode({word(post << 56), 0}, false)[5], 0) << post;
  for (uint64_t field = 23; field < 47; ++field)  // 23..31 and -32..-18
    EXPECT_EQ(decode({0, word(field << 16 | 3)}, false)[2], 0) << field;
  // The high half of word 1 is not read.
  EXPECT_EQ(decode({0, word(0xffffffffull << 32 | 5u << 16 | 3)}, false), (std::vector<int64_t>{0, 3, 5, 0, 0, 0}));
}

TEST(LyraEncodeQuantInfo, TraceLinesOfOneChannel) {
  struct Case {
    Row row;
    bool sumin32;
    std::vector<std::string> lines;
  };
  const Case cases[] = {
      {{-7, 0x8009, -17, 26, 300, 41}, false,
       {"EncodeQuantInfo: decode[1] // bias=-7 preRShift=26 scale=300 postRShift=41 suminScale=32777 suminRShift=-17",
        "commonPart[31:0] = bias // -7 -> encode[1, 0][31:0]", "suminPart[14:0] = suminScale // 9 -> encode[1, 1][14:0]",
        "suminPart[21:16] = suminRShift // -17 -> encode[1, 1][21:16]", "suminPart = 3080201",
        "commonPart[52:48] = 0 // preRShift 26 exceeds range of [0, 25], 0 -> encode[1, 0][52:48]",
        "commonPart[46:32] = scale // 300 -> encode[1, 0][46:43]", "commonPart[61:56] = postRShift // 41 -> encode[1, 0][61:56]"}},
      {{5, 0, -18, 25, 1, 0}, false,
       {"EncodeQuantInfo: decode[1] // bias=5 preRShift=25 scale=1 postRShift=0 suminScale=0 suminRShift=-18",
        "commonPart[31:0] = bias // 5 -> encode[1, 0][31:0]", "suminPart[14:0] = suminScale // 0 -> encode[1, 1][14:0]",
        "suminPart[21:16] = 0 // exceeds range of [-17, 22], 0 -> encode[1, 1][21:16]", "suminPart = 0",
        "commonPart[52:48] = preRShift // 25 -> encode[1, 0][52:48]", "commonPart[46:32] = scale // 1 -> encode[1, 0][46:43]",
        "commonPart[61:56] = postRShift // 0 -> encode[1, 0][61:56]"}},
      {{5, 0, -8, 2, 1, 0}, true,
       {"EncodeQuantInfo: decode[1] // bias=5 preRShift=2 scale=1 postRShift=0 suminScale=0 suminRShift=-8",
        "commonPart[31:0] = bias // 5 -> encode[1, 0][31:0]", "suminPart[17:16] = shiftMode // 3 -> encode[1, 1][17:16]",
        "suminPart = 196608", "commonPart[52:48] = preRShift // 2 -> encode[1, 0][52:48]",
        "commonPart[46:32] = scale // 1 -> encode[1, 0][46:43]", "commonPart[61:56] = postRShift // 0 -> encode[1, 0][61:56]"}},
  };
  for (const Case& c : cases) {
    Tensor out = Tensor::create(ElementType::si64, {2, 2});
    test::TraceCapture capture;
    test::ScopedTracePoint point({1, 1});
    ASSERT_TRUE(EncodeQuantInfo(out, decodedOf({Row{}, c.row}), c.sumin32).ok());
    EXPECT_EQ(capture.lines(), c.lines);
  }
}

TEST(LyraDecodeQuantInfo, TraceLinesOfOneChannel) {
  const uint64_t common = uint64_t(uint32_t(-7)) | 300ull << 32 | 26ull << 48 | 41ull << 56;
  struct Case {
    std::vector<int64_t> words;
    bool sumin32;
    std::vector<std::string> lines;
  };
  const Case cases[] = {
      {{0, 0, word(common), word(0x2f0009)}, false,
       {"DecodeQuantInfo:  ", "commonPart = quantInfo[1, 0] // 2961680997734678521", "bias = commonPart[31:0] // -7",
        "suminPart = quantInfo[1, 1] // 3080201", "suminScale = suminPart[14:0] // 9",
        "suminRShift = suminPart[21:16] // -17", "preRShift = 0 // exceeds [0, 25] range",
        "scale = commonPart[46:32] // 300", "postRShift = 0 // exceeds [0,40] range"}},
      {{0, 0, word(25ull << 48 | 40ull << 56), word(0x2e0000)}, false,
       {"DecodeQuantInfo:  ", "commonPart = quantInfo[1, 0] // 2889340635934883840", "bias = commonPart[31:0] // 0",
        "suminPart = quantInfo[1, 1] // 3014656", "suminScale = suminPart[14:0] // 0",
        "suminRShift = 0 // exceeds [-17,22] range", "preRShift = commonPart[52:48] // 25",
        "scale = commonPart[46:32] // 0", "postRShift = commonPart[61:56] // 40"}},
      {{0, 0, word(3ull << 48), word(2u << 16)}, true,
       {"DecodeQuantInfo:  ", "commonPart = quantInfo[1, 0] // 844424930131968", "bias = commonPart[31:0] // 0",
        "suminPart = quantInfo[1, 1] // 131072", "suminShiftMode = commonPart[17:16] // 2", "suminRShift = 8",
        "preRShift = commonPart[52:48] // 3", "scale = commonPart[46:32] // 0",
        "postRShift = commonPart[61:56] // 0"}},
  };
  for (const Case& c : cases) {
    Tensor out = Tensor::create(ElementType::si64, {2, 6});
    test::TraceCapture capture;
    test::ScopedTracePoint point({1, 4});
    ASSERT_TRUE(DecodeQuantInfo(out, tensorOf<int64_t>(ElementType::si64, {2, 2}, c.words), c.sumin32).ok());
    EXPECT_EQ(capture.lines(), c.lines);
  }
}

TEST(LyraEncodeQuantInfo, ChecksInOrderWriteNothing) {
  struct Case {
    std::vector<long> encode, decode;
    ElementType encodeType;
    const char* expected;
  };
  const Case cases[] = {
      {{4, 2}, {4, 6}, ElementType::si32, "encode and decode tensors must be the same"},
      {{4, 2}, {1, 4, 6}, ElementType::si64, "encode and decode tensors must be same rank"},
      {{2}, {6}, ElementType::si64, "encode and decode tensors must be at least rank 2"},
      {{3, 2}, {4, 6}, ElementType::si64, "encode and decode tensor axis -2 must be identical"},
      {{2, 4, 2}, {3, 4, 6}, ElementType::si64, "encode and decode tensor axis 0 must be identical"},
      {{4, 2}, {4, 5}, ElementType::si64, "decode tensor axis -1 must be 6"},
      {{4, 1}, {4, 6}, ElementType::si64, "encode tensor axis -1 must be 2"},
  };
  for (const Case& c : cases) {
    Tensor encoded = Tensor::create(c.encodeType, c.encode), decoded = Tensor::create(ElementType::si64, c.decode);
    EXPECT_EQ(EncodeQuantInfo(encoded, decoded, false).message(), c.expected);
    EXPECT_EQ(DecodeQuantInfo(decoded, encoded, false).message(), c.expected);
  }
  Tensor decoded = tensorOf<int64_t>(ElementType::si64, {1, 6}, {1, 2, 3, 4, 5, 6});
  Tensor encoded = Tensor(ElementType::si64, std::vector<long>{1, 2});
  EXPECT_EQ(DecodeQuantInfo(decoded, encoded, false).message(), "encode and decode tensors must hold data");
  EXPECT_EQ(valuesOf<int64_t>(decoded), (std::vector<int64_t>{1, 2, 3, 4, 5, 6}));
}
