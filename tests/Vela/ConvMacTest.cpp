// The MAC variants against hand-worked values, a plain int64 reference and
// identities between the variants (grouped = dense with zero weights, zigzag
// and sparse = dense with reordered or pruned taps).
#include <gtest/gtest.h>

#include "Vela/VelaTestUtil.h"

using namespace kora;
using namespace kora::vela::intrinsic;
using test::compactCopy;
using test::ConvShape;
using test::randomTensor32;
using test::randomTensor8;
using test::tensorOf;
using test::valuesOf;

namespace {

Status mac(Tensor& psum, const Tensor& fin, const Tensor& weight, const ConvShape& c) {
  return ConvMac(psum, fin, weight, {c.pad[0], c.pad[1]}, c.padValue, {c.stride[0], c.stride[1]},
                 {c.dilation[0], c.dilation[1]}, c.group);
}

}  // namespace

TEST(ConvMac, PaddingTapsUseTheLowByteOfPadValue) {
  // A 1x1 input under a 3x3 kernel with pad 1: only the centre tap reads fin.
  const Tensor fin = tensorOf<int8_t>(ElementType::si8, {1, 1, 1, 1}, {5});
  const Tensor weight = tensorOf<int8_t>(ElementType::si8, {1, 3, 3, 1}, {1, 2, 3, 4, 5, 6, 7, 8, 9});
  struct Case {
    int64_t padValue;
    int32_t start, expected;
  };
  const Case cases[] = {
      {0, 0, 25},             // 5 * 5
      {-1, 0, 25 - 40},       // the other eight weights (sum 40) subtracted
      {255, 0, 25 - 40},      // low byte 0xff is -1
      {0x17f, 0, 25 + 5080},  // low byte 0x7f is 127: 127 * 40
      {0, 1000, 1025},        // accumulates onto what psum holds
  };
  for (const Case& c : cases) {
    Tensor psum = tensorOf<int32_t>(ElementType::si32, {1, 1, 1, 1}, {c.start});
    ASSERT_TRUE(ConvMac(psum, fin, weight, {1, 1}, c.padValue, {1, 1}, {1, 1}, 1).ok());
    EXPECT_EQ(valuesOf<int32_t>(psum)[0], c.expected) << "padValue " << c.padValue;
  }
}

TEST(ConvMac, SumsWrapPast2To31) {
  // 140000 products of 127 * 127 = 2258060000, which wraps to -2036907296.
  const long C = 140000;
  const Tensor fin = tensorOf<int8_t>(ElementType::si8, {1, 1, 1, C}, std::vector<int8_t>(C, 127));
  const Tensor weight = tensorOf<int8_t>(ElementType::si8, {1, 1, 1, C}, std::vector<int8_t>(C, 127));
  Tensor psum = tensorOf<int32_t>(ElementType::si32, {1, 1, 1, 1}, {0});
  ASSERT_TRUE(ConvMac(psum, fin, weight, {0, 0}, 0, {1, 1}, {1, 1}, 1).ok());
  EXPECT_EQ(valuesOf<int32_t>(psum)[0], -2036907296);
  // From INT32_MAX, one more product wraps to the bottom of the range.
  const Tensor one = tensorOf<int8_t>(ElementType::si8, {1, 1, 1, 1}, {1});
  psum = tensorOf<int32_t>(ElementType::si32, {1, 1, 1, 1}, {INT32_MAX});
  ASSERT_TRUE(ConvMac(psum, one, one, {0, 0}, 0, {1, 1}, {1, 1}, 1).ok());
  EXPECT_EQ(valuesOf<int32_t>(psum)[0], INT32_MIN);
}

TEST(ConvMac, MatchesThePlainReferenceOnEveryLoop) {
  struct Case {
    std::vector<long> fin, weight, psum;
    ConvShape conv;
  };
  const Case cases[] = {
      {{1, 5, 6, 16}, {8, 3, 3, 16}, {1, 5, 6, 8}, {{1, 1}, 0, {1, 1}, {1, 1}, 1}},      // dense, one block
      {{2, 7, 5, 21}, {5, 3, 2, 21}, {2, 4, 3, 5}, {{2, 0}, -3, {2, 2}, {2, 1}, 1}},     // tail of 5 channels
      {{1, 6, 6, 12}, {6, 3, 3, 4}, {1, 6, 6, 6}, {{1, 1}, 7, {1, 1}, {1, 1}, 3}},       // 3 groups
      {{1, 6, 5, 10}, {10, 3, 3, 1}, {1, 4, 4, 10}, {{1, 2}, -128, {2, 1}, {1, 2}, 10}}, // depthwise
      {{1, 4, 4, 3}, {3, 2, 2, 1}, {1, 3, 3, 3}, {{-1, 0}, 1, {0, 1}, {-1, 1}, 3}},       // stride 0, dilation -1
      {{1, 2, 2, 4}, {2, 1, 1, 4}, {1, 6, 6, 2}, {{3, 3}, 9, {1, 1}, {1, 1}, 1}},         // mostly padding
  };
  std::mt19937 rng(7);
  for (const Case& c : cases) {
    const Tensor fin = randomTensor8(c.fin, rng), weight = randomTensor8(c.weight, rng);
    Tensor psum = randomTensor32(c.psum, rng, INT32_MIN, INT32_MAX);
    const auto expected = test::referenceConv(psum, fin, weight, c.conv);
    ASSERT_TRUE(mac(psum, fin, weight, c.conv).ok());
    EXPECT_EQ(valuesOf<int32_t>(psum), expected) << "group " << c.conv.group << ", fin " << toString(fin);
  }
}

TEST(ConvMac, GroupedAndDepthwiseAgreeWithTheDenseLoop) {
  struct Case {
    long C, K, group;
  };
  const Case cases[] = {{8, 8, 8}, {8, 4, 2}, {9, 6, 3}, {6, 12, 6}};  // depthwise, grouped, grouped, multiplier 2
  std::mt19937 rng(11);
  for (const Case& c : cases) {
    const ConvShape conv{{1, 1}, -5, {1, 2}, {2, 1}, c.group};
    const Tensor fin = randomTensor8({2, 7, 6, c.C}, rng), weight = randomTensor8({c.K, 3, 3, c.C / c.group}, rng);
    const Tensor start = randomTensor32({2, 5, 3, c.K}, rng, -1000, 1000);
    Tensor grouped = compactCopy(start), dense = compactCopy(start);
    ASSERT_TRUE(mac(grouped, fin, weight, conv).ok());
    ConvShape denseConv = conv;
    denseConv.group = 1;
    ASSERT_TRUE(mac(dense, fin, test::denseWeightOf(weight, c.group, c.C), denseConv).ok());
    EXPECT_EQ(valuesOf<int32_t>(grouped), valuesOf<int32_t>(dense)) << "C " << c.C << " K " << c.K;
  }
}

TEST(ConvMac, StridedOperandsGiveTheCompactResult) {
  std::mt19937 rng(5);
  const ConvShape conv{{1, 0}, 3, {1, 1}, {1, 1}, 1};
  // fin and weight are channel-first buffers read channel-last through permutations.
  const Tensor fin = randomTensor8({1, 5, 4, 6}, rng).permute({0, 2, 3, 1});     // [1, 4, 6, 5]
  const Tensor weight = randomTensor8({3, 5, 2, 2}, rng).permute({0, 2, 3, 1});  // [3, 2, 2, 5]
  Tensor wide = randomTensor32({1, 4, 3, 6}, rng, -50, 50);
  Tensor psum = wide.slice(3, 0, 6, 2);  // every other channel of a wider buffer
  const Tensor untouched = wide.slice(3, 1, 6, 2);
  const auto before = valuesOf<int32_t>(untouched);
  const auto expected = test::referenceConv(psum, compactCopy(fin), weight, conv);
  ASSERT_TRUE(mac(psum, fin, weight, conv).ok());
  EXPECT_EQ(valuesOf<int32_t>(psum), expected);
  EXPECT_EQ(valuesOf<int32_t>(untouched), before) << "the channels between are not written";
}

TEST(ConvMac, TraceListsEveryProductInRowColumnChannelOrder) {
  const Tensor fin = tensorOf<int8_t>(ElementType::si8, {1, 2, 2, 2}, {1, -2, 3, 4, 5, 6, -7, 8});
  const Tensor weight = tensorOf<int8_t>(ElementType::si8, {1, 2, 2, 2}, {2, 3, -1, 1, 4, 0, 5, -6});
  Tensor psum = tensorOf<int32_t>(ElementType::si32, {1, 2, 2, 1}, {10, 20, 30, 40});
  test::TraceCapture capture;
  test::ScopedTracePoint point({0, 1, 1, 0});
  ASSERT_TRUE(ConvMac(psum, fin, weight, {0, 0}, -2, {1, 1}, {1, 1}, 1).ok());
  // Output (1, 1) reads fin row 1, col 1 at tap (0, 0); the other taps fall
  // outside and read the pad value -2.
  EXPECT_EQ(capture.lines(), (std::vector<std::string>{
                                 "psum[0, 1, 1, 0] += fin[0, 1, 1, 0] * weight[0, 0, 0, 0] // 40 += -7 * 2 -> 26",
                                 "psum[0, 1, 1, 0] += fin[0, 1, 1, 1] * weight[0, 0, 0, 1] // 26 += 8 * 3 -> 50",
                                 "psum[0, 1, 1, 0] += fin[0, 1, 2, 0] * weight[0, 0, 1, 0] // 50 += -2 * -1 -> 52",
                                 "psum[0, 1, 1, 0] += fin[0, 1, 2, 1] * weight[0, 0, 1, 1] // 52 += -2 * 1 -> 50",
                                 "psum[0, 1, 1, 0] += fin[0, 2, 1, 0] * weight[0, 1, 0, 0] // 50 += -2 * 4 -> 42",
                                 "psum[0, 1, 1, 0] += fin[0, 2, 1, 1] * weight[0, 1, 0, 1] // 42 += -2 * 0 -> 42",
                                 "psum[0, 1, 1, 0] += fin[0, 2, 2, 0] * weight[0, 1, 1, 0] // 42 += -2 * 5 -> 32",
                                 "psum[0, 1, 1, 0] += fin[0, 2, 2, 1] * weight[0, 1, 1, 1] // 32 += -2 * -6 -> 44",
                             }));
  EXPECT_EQ(valuesOf<int32_t>(psum)[3], 44) << "the stored value is the traced one";
}

TEST(ConvMac, TraceOfAGroupedChannelNamesItsInputChannels) {
  std::mt19937 rng(3);
  const Tensor fin = randomTensor8({1, 1, 1, 4}, rng), weight = randomTensor8({4, 1, 1, 2}, rng);
  Tensor psum = tensorOf<int32_t>(ElementType::si32, {1, 1, 1, 4}, {0, 0, 0, 0});
  test::TraceCapture capture;
  test::ScopedTracePoint point({0, 0, 0, 3});
  ASSERT_TRUE(ConvMac(psum, fin, weight, {0, 0}, 0, {1, 1}, {1, 1}, 2).ok());
  const auto lines = capture.lines();
  ASSERT_EQ(lines.size(), 2u);
  const std::string first = "psum[0, 0, 0, 3] += fin[0, 0, 0, 2] * weight[3, 0, 0, 0] // ";
  const std::string second = "psum[0, 0, 0, 3] += fin[0, 0, 0, 3] * weight[3, 0, 0, 1] // ";
  EXPECT_EQ(lines[0].substr(0, first.size()), first);
  EXPECT_EQ(lines[1].substr(0, second.size()), second);
}

TEST(ConvMac, BadOperandsFailWithTheirOwnWordsAndWriteNothing) {
  const Tensor fin = Tensor::create(ElementType::si8, {1, 4, 4, 4});
  for (int8_t& v : fin.data<int8_t>()) v = 1;
  const Tensor weight = Tensor::create(ElementType::si8, {2, 3, 3, 4});
  for (int8_t& v : weight.data<int8_t>()) v = 1;
  const Tensor finF32 = Tensor::create(ElementType::f32, {1, 4, 4, 4});
  const Tensor finRank3 = Tensor::create(ElementType::si8, {4, 4, 4});
  const Tensor weightRank3 = Tensor::create(ElementType::si8, {2, 9, 4});
  const Tensor weightK3 = Tensor::create(ElementType::si8, {3, 3, 3, 2});
  const Tensor weightHalf = Tensor::create(ElementType::si8, {2, 3, 3, 2});
  struct Case {
    const char* expected;
    const Tensor* fin;
    const Tensor* weight;
    ElementType psumType;
    std::vector<long> psumShape;
    std::vector<int64_t> pad, stride, dilation;
    int64_t group;
  };
  const std::vector<long> ok = {1, 2, 2, 2};
  const Case cases[] = {
      {"fin and weight must be si8", &finF32, &weight, ElementType::si32, ok, {0, 0}, {1, 1}, {1, 1}, 1},
      {"psum must be si32 when fin is si8", &fin, &weight, ElementType::si16, ok, {0, 0}, {1, 1}, {1, 1}, 1},
      {"rank of conv input and output must be same", &fin, &weight, ElementType::si32, {2, 2, 2}, {0, 0}, {1, 1}, {1, 1}, 1},
      {"rank of conv weight must be 4: [k, r, s, c]", &fin, &weightRank3, ElementType::si32, ok, {0, 0}, {1, 1}, {1, 1}, 1},
      {"tensor group number invalid", &fin, &weight, ElementType::si32, ok, {0, 0}, {1, 1}, {1, 1}, 2},
      {"tensor group number invalid", &fin, &weightHalf, ElementType::si32, ok, {0, 0}, {1, 1}, {1, 1}, 0},
      {"tensor group number invalid", &fin, &weightK3, ElementType::si32, {1, 2, 2, 3}, {0, 0}, {1, 1}, {1, 1}, 2},
      {"k of weight and psum must be same", &fin, &weight, ElementType::si32, {1, 2, 2, 3}, {0, 0}, {1, 1}, {1, 1}, 1},
      {"wrong size of pad", &fin, &weight, ElementType::si32, ok, {0, 0, 0}, {1, 1}, {1, 1}, 1},
      {"wrong size of stride, dilation", &fin, &weight, ElementType::si32, ok, {0, 0}, {1}, {1, 1}, 1},
      {"wrong size of stride, dilation", &fin, &weight, ElementType::si32, ok, {0, 0}, {1, 1}, {1, 1, 1}, 1},
      {"rank of conv input and output must be 4: [n, h, w, c]", &finRank3, &weight, ElementType::si32, {2, 2, 2}, {0, 0}, {1, 1}, {1, 1}, 1},
      {"batch of conv input and output must be same", &fin, &weight, ElementType::si32, {2, 2, 2, 2}, {0, 0}, {1, 1}, {1, 1}, 1},
      {"conv window parameters must lie within [-2^30, 2^30]", &fin, &weight, ElementType::si32, ok, {0, 0}, {1, int64_t(1) << 31}, {1, 1}, 1},
  };
  for (const Case& c : cases) {
    Tensor psum = Tensor::create(c.psumType, c.psumShape);
    std::memset(psum.data<char>().data(), 0x5a, psum.byteSpan());
    EXPECT_EQ(ConvMac(psum, *c.fin, *c.weight, c.pad, 0, c.stride, c.dilation, c.group).message(), c.expected);
    EXPECT_EQ(test::bytesOf(psum), std::vector<uint8_t>(psum.byteSpan(), 0x5a)) << c.expected << ": psum must stay untouched";
  }
}

TEST(ConvZigzagWeight, ColumnsAlternateDownAndUp) {
  // fin [1, 2, 3, 4]: element (h, w, c) holds 100 * h + 10 * w + c.
  std::vector<int16_t> values;
  for (int h = 0; h < 2; ++h)
    for (int w = 0; w < 3; ++w)
      for (int c = 0; c < 4; ++c) values.push_back(int16_t(100 * h + 10 * w + c));
  const Tensor fin = tensorOf<int16_t>(ElementType::si16, {1, 2, 3, 4}, values);
  Tensor fout = Tensor::create(ElementType::si16, {1, 6, 4});
  ASSERT_TRUE(ConvZigzagWeight(fout, fin).ok());
  const auto out = valuesOf<int16_t>(fout);
  const int rows[6][2] = {{0, 0}, {1, 0}, {1, 1}, {0, 1}, {0, 2}, {1, 2}};
  for (int i = 0; i < 6; ++i)
    for (int c = 0; c < 4; ++c) EXPECT_EQ(out[i * 4 + c], 100 * rows[i][0] + 10 * rows[i][1] + c) << "row " << i;
}

TEST(ConvZigzagWeight, ChecksShapesInOrder) {
  const Tensor fin = Tensor::create(ElementType::si8, {2, 3, 3, 4});
  struct Case {
    std::vector<long> fin, fout;
    ElementType foutType;
    const char* expected;
  };
  const Case cases[] = {
      {{2, 3, 3, 4}, {2, 9, 4, 1}, ElementType::si8, "fout rank must be fin rank minus 1"},
      {{3, 3, 4}, {9, 4}, ElementType::si8, "fout rank must greater than 3"},
      {{2, 3, 3, 4}, {3, 9, 4}, ElementType::si8, "fin fout axis 0 must be identical"},
      {{2, 5, 3, 3, 4}, {2, 4, 9, 4}, ElementType::si8, "fin fout axis 1 must be identical"},
      {{2, 3, 3, 4}, {2, 8, 4}, ElementType::si8, "fout axis -2 must be fin axis -3 times fin axis -2"},
      {{2, 3, 3, 4}, {2, 9, 3}, ElementType::si8, "fout axis -1 must be fin axis -1"},
      {{2, 3, 3, 4}, {2, 9, 4}, ElementType::si16, "fin and fout must have the same element type"},
  };
  for (const Case& c : cases) {
    Tensor fout = Tensor::create(c.foutType, c.fout);
    EXPECT_EQ(ConvZigzagWeight(fout, Tensor::create(ElementType::si8, c.fin)).message(), c.expected);
  }
}

TEST(ConvZigzagMac, EqualsTheDenseMacAndSplitsIntoPasses) {
  std::mt19937 rng(13);
  for (long group : {1L, 2L}) {
    const long R = 3, S = 2, C = 6, K = 4;
    const Tensor fin = randomTensor8({2, 5, 5, C}, rng), weight = randomTensor8({K, R, S, C / group}, rng);
    Tensor zigzag = Tensor::create(ElementType::si8, {K, R * S, C / group});
    ASSERT_TRUE(ConvZigzagWeight(zigzag, weight).ok());
    const Tensor start = randomTensor32({2, 3, 4, K}, rng, INT32_MIN / 2, INT32_MAX / 2);
    Tensor dense = compactCopy(start), whole = compactCopy(start), passes = compactCopy(start);
    ASSERT_TRUE(ConvMac(dense, fin, weight, {1, 0}, 4, {2, 1}, {1, 1}, group).ok());
    ASSERT_TRUE(ConvZigzagMac(whole, fin, zigzag, {1, 0}, {R, S}, 4, {2, 1}, group, 0).ok());
    EXPECT_EQ(valuesOf<int32_t>(whole), valuesOf<int32_t>(dense));
    // Taps 0..1 then 2..5, each pass reading its slice of the zigzag weight.
    ASSERT_TRUE(ConvZigzagMac(passes, fin, zigzag.slice(1, 0, 2), {1, 0}, {R, S}, 4, {2, 1}, group, 0).ok());
    ASSERT_TRUE(ConvZigzagMac(passes, fin, zigzag.slice(1, 2, 6), {1, 0}, {R, S}, 4, {2, 1}, group, 2).ok());
    EXPECT_EQ(valuesOf<int32_t>(passes), valuesOf<int32_t>(dense));
  }
}

TEST(ConvZigzagMac, TraceWalksTheWindowInZigzagOrder) {
  // A 2x2 window over a 2x2 input of one channel: zigzag order visits
  // (0,0), (1,0), (1,1), (0,1).
  const Tensor fin = tensorOf<int8_t>(ElementType::si8, {1, 2, 2, 1}, {1, 2, 3, 4});
  const Tensor weight = tensorOf<int8_t>(ElementType::si8, {1, 2, 2, 1}, {10, 20, 30, 40});
  Tensor zigzag = Tensor::create(ElementType::si8, {1, 4, 1});
  ASSERT_TRUE(ConvZigzagWeight(zigzag, weight).ok());
  Tensor psum = tensorOf<int32_t>(ElementType::si32, {1, 1, 1, 1}, {0});
  test::TraceCapture capture;
  test::ScopedTracePoint point({0, 0, 0, 0});
  ASSERT_TRUE(ConvZigzagMac(psum, fin, zigzag, {0, 0}, {2, 2}, 0, {1, 1}, 1, 0).ok());
  EXPECT_EQ(capture.lines(), (std::vector<std::string>{
                                 "psum[0, 0, 0, 0] += fin[0, 0, 0, 0] * weight[0, 0, 0] // 0 += 1 * 10 -> 10",
                                 "psum[0, 0, 0, 0] += fin[0, 1, 0, 0] * weight[0, 1, 0] // 10 += 3 * 30 -> 100",
                                 "psum[0, 0, 0, 0] += fin[0, 1, 1, 0] * weight[0, 2, 0] // 100 += 4 * 40 -> 260",
                                 "psum[0, 0, 0, 0] += fin[0, 0, 1, 0] * weight[0, 3, 0] // 260 += 2 * 20 -> 300",
                             }));
}

TEST(ConvZigzagMac, ChecksInOrder) {
  const Tensor fin = Tensor::create(ElementType::si8, {1, 3, 3, 4});
  const Tensor weight = Tensor::create(ElementType::si8, {2, 9, 4});
  struct Case {
    const char* expected;
    ElementType finType, psumType;
    std::vector<long> weightShape, psumShape;
    std::vector<int64_t> pad, kernel, stride;
    int64_t group, firstTap;
  };
  const Case cases[] = {
      {"operands type for conv must be si8", ElementType::ui8, ElementType::si32, {2, 9, 4}, {1, 1, 1, 2}, {0, 0}, {3, 3}, {1, 1}, 1, 0},
      {"psum type for conv must be si32", ElementType::si8, ElementType::si64, {2, 9, 4}, {1, 1, 1, 2}, {0, 0}, {3, 3}, {1, 1}, 1, 0},
      {"channel number for conv weight and output must be same", ElementType::si8, ElementType::si32, {2, 9, 4}, {1, 1, 1, 3}, {0, 0}, {3, 3}, {1, 1}, 1, 0},
      {"wrong size of pad, stride or kernel", ElementType::si8, ElementType::si32, {2, 9, 4}, {1, 1, 1, 2}, {0}, {3, 3}, {1, 1}, 1, 0},
      {"wrong size of pad, stride or kernel", ElementType::si8, ElementType::si32, {2, 9, 4}, {1, 1, 1, 2}, {0, 0}, {3}, {1, 1}, 1, 0},
      {"rank of conv weight must be at lease 3", ElementType::si8, ElementType::si32, {2, 36}, {1, 1, 1, 2}, {0, 0}, {3, 3}, {1, 1}, 1, 0},
      {"invalid group num", ElementType::si8, ElementType::si32, {2, 9, 4}, {1, 1, 1, 2}, {0, 0}, {3, 3}, {1, 1}, 2, 0},
      {"rank of zigzag conv weight must be 3: [k, t, c]", ElementType::si8, ElementType::si32, {2, 3, 3, 4}, {1, 1, 1, 2}, {0, 0}, {3, 3}, {1, 1}, 1, 0},
      {"wrong size of pad, stride or kernel", ElementType::si8, ElementType::si32, {2, 9, 4}, {1, 1, 1, 2}, {0, 0}, {3, 3}, {1, 1}, 1, 1},
      {"wrong size of pad, stride or kernel", ElementType::si8, ElementType::si32, {2, 9, 4}, {1, 1, 1, 2}, {0, 0}, {2, 4}, {1, 1}, 1, 0},
  };
  for (const Case& c : cases) {
    Tensor psum = Tensor::create(c.psumType, c.psumShape);
    EXPECT_EQ(ConvZigzagMac(psum, Tensor::create(c.finType, {1, 3, 3, 4}), Tensor::create(ElementType::si8, c.weightShape),
                            c.pad, c.kernel, 0, c.stride, c.group, c.firstTap)
                  .message(),
              c.expected);
  }
}

TEST(ConvSparseMac, EachRowAppliesToItsIndexedTap) {
  std::mt19937 rng(17);
  const long K = 3, C = 5, R = 3, S = 3;
  const Tensor fin = randomTensor8({1, 6, 5, C}, rng), dense = randomTensor8({K, R, S, C}, rng);
  // Channel k keeps taps {k, 4, 8 - k} in a scrambled row order, and channel 2
  // leaves its last slot unused. The pruned dense weight is zero elsewhere.
  const int32_t keep[K][4] = {{8, 0, 4, 2}, {4, 1, 7, 6}, {6, 4, 2, -1}};
  Tensor weight = Tensor::create(ElementType::si8, {K, 4, C});
  Tensor pruned = Tensor::create(ElementType::si8, {K, R, S, C});
  for (int8_t& v : pruned.data<int8_t>()) v = 0;
  std::vector<int32_t> index;
  for (long k = 0; k < K; ++k)
    for (long t = 0; t < 4; ++t) {
      index.push_back(keep[k][t]);
      for (long c = 0; c < C; ++c) {
        weight.at<int8_t>({k, t, c}) = keep[k][t] < 0 ? int8_t(99) : dense.at<int8_t>({k, keep[k][t] / S, keep[k][t] % S, c});
        if (keep[k][t] >= 0) pruned.at<int8_t>({k, keep[k][t] / S, keep[k][t] % S, c}) = weight.at<int8_t>({k, t, c});
      }
    }
  const Tensor start = randomTensor32({1, 3, 5, K}, rng, -9999, 9999);
  Tensor sparse = compactCopy(start), reference = compactCopy(start);
  ASSERT_TRUE(ConvSparseMac(sparse, fin, weight, tensorOf<int32_t>(ElementType::si32, {K, 4}, index), {R, S}, {1, 1}, -7,
                            {2, 1})
                  .ok());
  ASSERT_TRUE(ConvMac(reference, fin, pruned, {1, 1}, -7, {2, 1}, {1, 1}, 1).ok());
  EXPECT_EQ(valuesOf<int32_t>(sparse), valuesOf<int32_t>(reference));
}

TEST(ConvSparseMac, ChecksInOrder) {
  struct Case {
    const char* expected;
    std::vector<long> psumShape, weightShape, indexShape;
    ElementType indexType;
    std::vector<int64_t> kernel, pad, stride;
    int32_t indexValue;
  };
  const std::vector<long> psum = {1, 2, 2, 2};
  const Case cases[] = {
      {"rank of conv input and output must be same", {2, 2, 2}, {2, 3, 4}, {2, 3}, ElementType::si32, {2, 2}, {0, 0}, {1, 1}, 0},
      {"rank of conv weight must be at lease 3", psum, {2, 12}, {2, 3}, ElementType::si32, {2, 2}, {0, 0}, {1, 1}, 0},
      {"invalid pad info. Should contain 2 elements: padTop and padLeft", psum, {2, 3, 4}, {2, 3}, ElementType::si32, {2, 2}, {0, 0, 0, 0}, {1, 1}, 0},
      {"invalid kernel info. Should contain 2 elements: kerH and kerW", psum, {2, 3, 4}, {2, 3}, ElementType::si32, {2}, {0, 0}, {1, 1}, 0},
      {"invalid stride info. Should contain 2 elements: strH and strW", psum, {2, 3, 4}, {2, 3}, ElementType::si32, {2, 2}, {0, 0}, {1}, 0},
      {"rank of sparse conv weight must be 3: [k, t, c]", psum, {2, 3, 1, 4}, {2, 3}, ElementType::si32, {2, 2}, {0, 0}, {1, 1}, 0},
      {"channel number for conv weight and output must be same", psum, {3, 3, 4}, {3, 3}, ElementType::si32, {2, 2}, {0, 0}, {1, 1}, 0},
      {"channel number of sparse conv weight and input must be same", psum, {2, 3, 5}, {2, 3}, ElementType::si32, {2, 2}, {0, 0}, {1, 1}, 0},
      {"sparse index must be si32 or si64 of shape [k, t]", psum, {2, 3, 4}, {2, 3}, ElementType::si16, {2, 2}, {0, 0}, {1, 1}, 0},
      {"sparse index must be si32 or si64 of shape [k, t]", psum, {2, 3, 4}, {2, 4}, ElementType::si32, {2, 2}, {0, 0}, {1, 1}, 0},
      {"kernel size must be positive", psum, {2, 3, 4}, {2, 3}, ElementType::si32, {0, 2}, {0, 0}, {1, 1}, 0},
      {"sparse index must be less than kerH * kerW", psum, {2, 3, 4}, {2, 3}, ElementType::si32, {2, 2}, {0, 0}, {1, 1}, 4},
  };
  for (const Case& c : cases) {
    Tensor out = Tensor::create(ElementType::si32, c.psumShape);
    for (int32_t& v : out.data<int32_t>()) v = 3;
    Tensor index = Tensor::create(c.indexType, c.indexShape);
    std::memset(index.data<char>().data(), 0, index.byteSpan());
    if (c.indexType == ElementType::si32) index.data<int32_t>()[index.numElements() - 1] = c.indexValue;
    const Tensor weight = Tensor::create(ElementType::si8, c.weightShape);
    std::memset(weight.data<char>().data(), 1, weight.byteSpan());
    const Tensor fin = Tensor::create(ElementType::si8, {1, 3, 3, 4});
    std::memset(fin.data<char>().data(), 1, fin.byteSpan());
    EXPECT_EQ(ConvSparseMac(out, fin, weight, index, c.kernel, c.pad, 0, c.stride).message(), c.expected);
    for (int32_t v : out.data<int32_t>()) EXPECT_EQ(v, 3) << c.expected;
  }
}
