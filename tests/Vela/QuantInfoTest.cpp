// Quant info of both generations: packing against hand-assembled words
// (fields beyond their ranges included), round trips over every valid value,
// trace lines and checks; and the generators' searches against hand-worked
// scales.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>

#include "Vela/VelaTestUtil.h"

using namespace kora;
using namespace kora::test;

namespace {

int64_t word(uint64_t bits) { return int64_t(bits); }

}  // namespace

TEST(VelaQuantInfo, PacksEveryFieldInEachLayout) {
  // commonPart: bias [31:0], scale [46:32], preRShift [52:48], postRShift from bit 56.
  const Row row = {-2, 0x1234, -1, 17, 0x7fff, 31};
  const uint64_t common = 0xfffffffeull | 0x7fffull << 32 | 17ull << 48 | 31ull << 56;
  const uint64_t suminPart = 0x1234 | 63u << 16;  // -1 as a 6-bit field
  // The first generation puts an odd channel's suminPart in the high half.
  EXPECT_EQ(encodeRows(kVela, {row, row, row}, false),
            (std::vector<int64_t>{word(common), word(suminPart), word(common), word(suminPart << 32), word(common),
                                  word(suminPart)}));
  EXPECT_EQ(encodeRows(kLyra, {row, row}, false),
            (std::vector<int64_t>{word(common), word(suminPart), word(common), word(suminPart)}));
  // 32-bit sumin: the shift becomes a mode (first: commonPart[54:53] in the
  // only word; second: suminPart[17:16]); suminScale is dropped.
  const std::vector<Row> modes = {{5, 0x1234, 8, 0, 1, 0}, {5, 7, 0, 0, 1, 0}, {5, 0, -8, 0, 1, 0}};
  const uint64_t base = 5 | 1ull << 32;
  EXPECT_EQ(encodeRows(kVela, modes, true), (std::vector<int64_t>{word(base | 2ull << 53), word(base),
                                                                  word(base | 3ull << 53)}));
  EXPECT_EQ(encodeRows(kLyra, modes, true), (std::vector<int64_t>{word(base), word(2u << 16), word(base), 0, word(base),
                                                                  word(3u << 16)}));
  // The unused mode 1 decodes as no shift.
  EXPECT_EQ(decodeWords(kVela, {word(1ull << 53 | 0x7fffull << 32)}, true), (std::vector<int64_t>{0, 0, 0, 0, 32767, 0}));
  // Beyond their widths or ranges: bias and the scales keep their low bits,
  // suminRShift 23 and preRShift 26 are written 0; postRShift keeps 5 bits
  // in the first generation, and the second stores its 6 bits as given.
  const Row beyond = {(int64_t(1) << 32) + 7, 0x18005, 23, 26, 0x18003, 41};
  EXPECT_EQ(encodeRows(kVela, {beyond}, false), (std::vector<int64_t>{word(7 | 3ull << 32 | 9ull << 56), 5}));
  EXPECT_EQ(encodeRows(kLyra, {beyond}, false), (std::vector<int64_t>{word(7 | 3ull << 32 | 41ull << 56), 5}));
}

TEST(VelaQuantInfo, RoundTripsEveryValidValueAndDecodesTheRestAsZero) {
  std::mt19937 rng(21);
  for (const Generation* g : kGenerations) {
    const int64_t lo[6] = {INT32_MIN, 0, g->suminMin, 0, 0, 0}, hi[6] = {INT32_MAX, 32767, g->suminMax, g->preMax,
                                                                           32767, g->postMax};
    auto randomRow = [&] {
      Row r;
      for (int j = 0; j < 6; ++j) r[j] = std::uniform_int_distribution<int64_t>(lo[j], hi[j])(rng);
      return r;
    };
    std::vector<Row> rows;
    for (int64_t bias : {int64_t(INT32_MIN), int64_t(-1), int64_t(0), int64_t(INT32_MAX)})
      rows.push_back(randomRow()), rows.back()[0] = bias;
    for (int j = 1; j < 6; ++j)
      for (int64_t v = lo[j]; v <= hi[j]; ++v) rows.push_back(randomRow()), rows.back()[j] = v;
    std::vector<int64_t> expected;
    for (const Row& r : rows) expected.insert(expected.end(), r.begin(), r.end());
    EXPECT_EQ(decodeWords(*g, encodeRows(*g, rows, false), false), expected) << g->name;

    // Every stored value of a shift field: outside the valid range it decodes as 0.
    for (uint64_t v = 0; v < 32; ++v)
      EXPECT_EQ(decodeWords(*g, {word(v << 48 | 9), 0}, false)[3], int64_t(v) <= g->preMax ? int64_t(v) : 0) << v;
    for (uint64_t v = 0; v <= g->postMask; ++v)
      EXPECT_EQ(decodeWords(*g, {word(v << 56), 0}, false)[5], int64_t(v) <= g->postMax ? int64_t(v) : 0) << v;
    for (uint64_t v = 0; v < 64; ++v) {
      const int64_t shift = v < 32 ? int64_t(v) : int64_t(v) - 64;
      const bool valid = shift >= g->suminMin && shift <= g->suminMax;
      // The high half of an even channel's second word is not read.
      EXPECT_EQ(decodeWords(*g, {0, word(0xffc00000ull << 32 | v << 16 | 3)}, false), (std::vector<int64_t>{
                    0, 3, valid ? shift : 0, 0, 0, 0})) << g->name << " " << v;
    }
  }
}

TEST(VelaQuantInfo, ChannelBaseLetsASliceOfTheFirstGenerationsTableDecode) {
  const auto words = encodeRows(kVela, {{1, 100, 2, 3, 4, 5}, {2, 200, -3, 4, 5, 6}, {3, 300, 4, 5, 6, 7}}, false);
  const Tensor tail = tensorOf<int64_t>(ElementType::si64, {3, 2}, words).slice(0, 1, 3);
  Tensor out = Tensor::create(ElementType::si64, {2, 6});
  ASSERT_TRUE(vela::intrinsic::DecodeQuantInfo(out, tail, 1).ok());
  EXPECT_EQ(valuesOf<int64_t>(out), (std::vector<int64_t>{2, 200, -3, 4, 5, 6, 3, 300, 4, 5, 6, 7}));
}

TEST(VelaQuantInfo, EncodeTraceLinesOfOneRow) {
  // Each with preRShift out of range.
  struct Case { const Generation* g; Row row; std::vector<std::string> lines; };
  const Case cases[] = {
      {&kVela, {-7, 0x8009, -1, 18, 300, 7},
       {"decode[1] // bias=-7 preRShift=18 scale=300 postRShift=7 suminScale=32777 suminRShift=-1",
        "commonPart[31:0] = bias // -7", "suminPart[14:0] = suminScale // 9", "suminPart[21:16] = suminRShift // -1",
        "commonPart[52:48] = 0 // 18 exceeds range of [0, 17]", "commonPart[46:32] = scale // 300",
        "commonPart[60:56] = postRShift // 7", "encode[1, 0] = commonPart // 504404451050651641",
        "encode[1, 1][63:32] = suminPart"}},
      {&kLyra, {-7, 0x8009, -17, 26, 300, 41},
       {"EncodeQuantInfo: decode[1] // bias=-7 preRShift=26 scale=300 postRShift=41 suminScale=32777 suminRShift=-17",
        "commonPart[31:0] = bias // -7 -> encode[1, 0][31:0]", "suminPart[14:0] = suminScale // 9 -> encode[1, 1][14:0]",
        "suminPart[21:16] = suminRShift // -17 -> encode[1, 1][21:16]", "suminPart = 3080201",
        "commonPart[52:48] = 0 // preRShift 26 exceeds range of [0, 25], 0 -> encode[1, 0][52:48]",
        "commonPart[46:32] = scale // 300 -> encode[1, 0][46:43]",
        "commonPart[61:56] = postRShift // 41 -> encode[1, 0][61:56]"}},
  };
  for (const Case& c : cases) {
    Tensor out = Tensor::create(ElementType::si64, {2, 2});
    TraceCapture capture;
    ScopedTracePoint point({1, 0});
    ASSERT_TRUE(c.g->encode(out, rowsOf({Row{}, c.row}), false).ok());
    EXPECT_EQ(capture.lines(), c.lines);
  }
}

TEST(VelaQuantInfo, DecodeTraceLinesOfOneRow) {
  const uint64_t common = uint64_t(uint32_t(-7)) | 300ull << 32 | 18ull << 48 | 7ull << 56;
  const uint64_t wide = uint64_t(uint32_t(-7)) | 300ull << 32 | 26ull << 48 | 41ull << 56;
  // Out-of-range fields included.
  struct Case { const Generation* g; std::vector<int64_t> words; bool sumin32; std::vector<std::string> lines; };
  const Case cases[] = {
      {&kVela, {0, 0, word(common), word(uint64_t(0x3f0009) << 32)}, false,
       {"commonPart = quantInfo[1, 0] // 509471000631443449", "bias = commonPart[31:0] // -7",
        "suminShiftMode = commonPart[54:53] // 0", "suminPart = quantInfo[1, 1][63:32] // 4128777",
        "suminScale = suminPart[14:0] // 9", "suminRShift = suminPart[21:16] // -1",
        "preRShift = 0 // exceeds [0, 17] range", "scale = commonPart[46:32] // 300",
        "postRShift = commonPart[60:56] // 7"}},
      {&kLyra, {0, 0, word(wide), word(0x2f0009)}, false,
       {"DecodeQuantInfo:  ", "commonPart = quantInfo[1, 0] // 2961680997734678521", "bias = commonPart[31:0] // -7",
        "suminPart = quantInfo[1, 1] // 3080201", "suminScale = suminPart[14:0] // 9",
        "suminRShift = suminPart[21:16] // -17", "preRShift = 0 // exceeds [0, 25] range",
        "scale = commonPart[46:32] // 300", "postRShift = 0 // exceeds [0,40] range"}},
      // The 32-bit form's mode comes from suminPart, though the line names commonPart.
      {&kLyra, {0, 0, word(3ull << 48), word(2u << 16)}, true,
       {"DecodeQuantInfo:  ", "commonPart = quantInfo[1, 0] // 844424930131968", "bias = commonPart[31:0] // 0",
        "suminPart = quantInfo[1, 1] // 131072", "suminShiftMode = commonPart[17:16] // 2", "suminRShift = 8",
        "preRShift = commonPart[52:48] // 3", "scale = commonPart[46:32] // 0", "postRShift = commonPart[61:56] // 0"}},
  };
  for (const Case& c : cases) {
    Tensor out = Tensor::create(ElementType::si64, {2, 6});
    TraceCapture capture;
    ScopedTracePoint point({1, 4});
    ASSERT_TRUE(c.g->decode(out, tensorOf<int64_t>(ElementType::si64, {2, 2}, c.words), c.sumin32).ok());
    EXPECT_EQ(capture.lines(), c.lines);
  }
}

TEST(VelaQuantInfo, ChecksInOrder) {
  // Each generation's words: the shared pair check with its own texts, and
  // the words per channel it takes (1 or 2, or 2 only).
  struct Case { std::vector<long> encode; ElementType encodeType; const char *first, *second; };
  const Case cases[] = {
      {{4, 2}, ElementType::si32, "encoded and decoded quantInfo must be si64",
       "encode and decode tensors must be the same"},
      {{4, 3}, ElementType::si64, "encode tensor axis -1 must be either 1 or 2", "encode tensor axis -1 must be 2"},
  };
  for (const Generation* g : kGenerations) {
    for (const Case& c : cases) {
      Tensor encoded = Tensor::create(c.encodeType, c.encode), decoded = Tensor::create(ElementType::si64, {4, 6});
      const char* expected = g->second ? c.second : c.first;
      EXPECT_EQ(g->encode(encoded, decoded, false).message(), expected);
      EXPECT_EQ(g->decode(decoded, encoded, false).message(), expected);
    }
    // The 32-bit form takes suminRShift 8, 0 or -8 only; a refused table is not written.
    Tensor out = filled(ElementType::si64, {2, g->words(true)}, 0x5a);
    const std::string before = storageBytes(out);
    EXPECT_EQ(g->encode(out, rowsOf({{1, 0, 8, 0, 1, 0}, {1, 0, 4, 0, 1, 0}}), true).message(),
              "i32 suminRShift must be one of [8, 0, -8], but got 4");
    EXPECT_EQ(storageBytes(out), before);
  }
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

/// The generator's status, its rows (-99 where nothing was written) and its warnings.
Status generate(const Generation& g, const GenArgs& a, std::vector<int64_t>& rows,
                std::vector<std::string>* warnings = nullptr) {
  Tensor out = tensorOf<int64_t>(ElementType::si64, {a.K, 6}, std::vector<int64_t>(size_t(6 * a.K), -99));
  LogCapture log;
  const Status s = g.gen(out, a.weight, a.bias, a.finScale, a.finZeroPoint, a.weightScale, a.suminScale,
                         a.suminZeroPoint, a.suminBits, a.foutScale, a.foutZeroPoint, a.foutBits);
  rows = valuesOf<int64_t>(out);
  for (const auto& [level, text] : log.messages)
    if (warnings && level == LogLevel::warn) warnings->push_back(text);
  return s;
}

/// Runs the generator of the generations `gens` names and checks its row;
/// `message` is the second generation's warning and the first one's failure.
void expectGenerated(char gens, const GenArgs& a, const Row& expected, const char* message) {
  for (const Generation* g : kGenerations) {
    if (!runsOn(gens, *g)) continue;
    std::vector<int64_t> rows;
    std::vector<std::string> warnings;
    const Status s = generate(*g, a, rows, &warnings);
    if (!g->second && message) {
      EXPECT_EQ(s.message(), message);
      continue;
    }
    ASSERT_TRUE(s.ok()) << s.message();
    EXPECT_EQ(rows, std::vector<int64_t>(expected.begin(), expected.end())) << g->name;
    EXPECT_EQ(warnings, message ? std::vector<std::string>{message} : std::vector<std::string>{}) << g->name;
  }
}

}  // namespace

TEST(VelaGenQuantInfo, SearchesTheMostPreciseShiftsTheFieldsHold) {
  // m: the output multiplier (the weight scale); ratio: the sumin rescale
  // (suminScale / weightScale), 0 for no sumin; message: the second
  // generation's warning, the first one's failure.
  struct Case { char gens; double m; int64_t foutBits; double ratio; int64_t suminBits; Row expected; const char* message; };
  const Case cases[] = {
      // M = 1/8: no pre-shift needed; 2^17 / 8 = 16384 is the largest scale below 2^15.
      {'B', 0.125, 8, 0, 8, {0, 0, 0, 0, 16384, 17}, nullptr},
      // M = 1e-6: |acc| up to 1.28e8 must fit 16 bits after the pre-shift:
      // 2^12; then 1e-6 * 2^34 = 17179.87 rounds to 17180.
      {'B', 1e-6, 8, 0, 8, {0, 0, 0, 12, 17180, 22}, nullptr},
      {'V', std::ldexp(1.0, -40), 8, 0, 8, {0, 0, 0, 17, 256, 31}, nullptr},  // both shifts stop at their largest values
      {'V', 40000, 8, 0, 8, {}, "conv post process does not support left shift"},
      {'L', 40000, 8, 0, 8, {0, 0, 0, 0, 32767, 0}, "conv post process does not support left shift: -1, adjust to 0"},
      {'L', 0.75, 16, 0, 8, {0, 0, 0, 1, 24576, 14}, nullptr},  // t = 15, |acc| <= 43691 needs one pre-shift
      {'L', std::ldexp(1.0, -60), 8, 0, 8, {0, 0, 0, 25, 32, 40}, nullptr},  // t = 74 stops at 65
      // M = 1 (scale 2^14 >> 14) with a sumin: 1e6 / 32 = 31250.
      {'B', 1, 8, 1e6, 8, {0, 31250, -5, 0, 16384, 14}, nullptr},
      {'B', 1, 8, 1.0 / 256, 32, {0, 0, 8, 0, 16384, 14}, nullptr},
      {'V', 1, 8, 1e8, 8, {}, "suminRShift cannot less than -9"},
      {'L', 1, 8, std::ldexp(1.5, 26), 8, {0, 32767, -9, 0, 16384, 14}, "suminRShift cannot less than -9: -12, adjust to -9"},
      {'L', 1, 8, std::ldexp(1.0, -30), 16, {0, 0, 22, 0, 16384, 14},
       "suminRShift cannot greater than 22: 44, adjust to 22"},
  };
  for (const Case& c : cases) {
    GenArgs a;
    a.weightScale = {c.m}, a.foutBits = c.foutBits, a.suminBits = c.suminBits;
    if (c.ratio > 0) a.suminScale = {c.ratio * c.m};
    expectGenerated(c.gens, a, c.expected, c.message);
  }
}

TEST(VelaGenQuantInfo, FoldsZeroPointsAndBiasIntoTheBias) {
  GenArgs a;
  a.K = 2;
  a.finScale = {0.5};
  a.weightScale = {0.25, 0.5};  // M = 1/8 and 1/4
  a.finZeroPoint = -3;
  a.weight = tensorOf<int8_t>(ElementType::si8, {2, 1, 1, 2}, {10, -4, 7, 7});  // sums 6 and 14
  a.bias = tensorOf<float>(ElementType::f32, {2}, {1.0f, 2.5f});                // 8 and 10 accumulator units
  a.suminScale = {0.375};  // R = 3 and 1.5: 24576 >> 13 and 24576 >> 14
  a.suminZeroPoint = 11;
  a.foutZeroPoint = 5;  // 5 / M = 40 and 20
  // channel 0: 8 + 3 * 6 - 11 * 3 + 40 = 33; channel 1: 10 + 3 * 14 - 11 * 1.5 + 20 = 55.5, rounded to 56.
  const std::vector<int64_t> expected = {33, 24576, 13, 0, 16384, 17, 56, 24576, 14, 0, 16384, 16};
  for (const Generation* g : kGenerations) {
    std::vector<int64_t> rows;
    ASSERT_TRUE(generate(*g, a, rows).ok());
    EXPECT_EQ(rows, expected) << g->name;
  }
}

TEST(VelaGenQuantInfo, RefusesWhatTheHardwareCannotExpressAndWritesNothing) {
  // Each generation's message (nullptr: the generation takes it).
  struct Case { const char *first, *second; std::function<void(GenArgs&)> change; };
  const char* same = "";
  const Case cases[] = {
      {"bias must be rank of 1", same, [](GenArgs& a) { a.bias = Tensor::create(ElementType::f32, {1, 1}); }},
      {"sumin must be 8bit or 32bit", "sumin must be 8bit 16bit or 32bit",
       [](GenArgs& a) { a.suminScale = {1.0}, a.suminBits = 4; }},
      {"weight scale must be positive and finite", same, [](GenArgs& a) { a.weightScale = {0.0}; }},
      {"when fin zero point not zero, weight must be valid", same, [](GenArgs& a) { a.finZeroPoint = 1; }},
      {"si32 conv does not support rescale, check fout scale", same,
       [](GenArgs& a) { a.foutBits = 32, a.foutScale = {2.0}; }},
  };
  for (const Generation* g : kGenerations) {
    for (const Case& c : cases) {
      GenArgs a;
      c.change(a);
      std::vector<int64_t> rows;
      const char* expected = g->second && c.second != same ? c.second : c.first;
      EXPECT_EQ(generate(*g, a, rows).message(), expected ? expected : "") << g->name;
      if (expected) {
        EXPECT_EQ(rows, std::vector<int64_t>(size_t(6 * a.K), -99)) << expected << ": nothing is written";
      }
    }
    GenArgs two;
    two.K = 2;
    two.bias = tensorOf<double>(ElementType::f64, {2}, {0, 1e12});
    std::vector<int64_t> rows;
    EXPECT_EQ(generate(*g, two, rows).message(), "can not get bias in range of int32 on channel 1");
    EXPECT_EQ(rows, std::vector<int64_t>(12, -99)) << "every row is derived before any is written";
  }
}
