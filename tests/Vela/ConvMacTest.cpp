// The MAC variants against hand-worked values, a plain int64 reference and
// identities between the variants (zigzag and sparse = dense with reordered
// or pruned taps); the trace lines and checks.
#include <gtest/gtest.h>

#include "Vela/VelaTestUtil.h"

using namespace kora;
using namespace kora::vela::intrinsic;
using namespace kora::test;

namespace {

Status mac(Tensor& psum, const Tensor& fin, const Tensor& weight, const ConvShape& c) {
  return ConvMac(psum, fin, weight, {c.pad[0], c.pad[1]}, c.padValue, {c.stride[0], c.stride[1]},
                 {c.dilation[0], c.dilation[1]}, c.group);
}

}  // namespace

TEST(VelaConvMac, PaddingTapsUseTheLowByteOfPadValueAndSumsWrap) {
  // A 1x1 input under a 3x3 kernel with pad 1: only the centre tap reads fin.
  const Tensor fin = tensorOf<int8_t>(ElementType::si8, {1, 1, 1, 1}, {5});
  const Tensor weight = tensorOf<int8_t>(ElementType::si8, {1, 3, 3, 1}, {1, 2, 3, 4, 5, 6, 7, 8, 9});
  struct Case { int64_t padValue; int32_t start, expected; };
  const Case cases[] = {
      {0, 0, 25},             // 5 * 5
      {255, 0, 25 - 40},      // low byte 0xff is -1: the other eight weights (sum 40) subtracted
      {-1, INT32_MIN + 5, INT32_MAX - 9},  // wraps below INT32_MIN: 25 - 40 + 5 - 2^31 + 2^32
  };
  for (const Case& c : cases) {
    Tensor psum = tensorOf<int32_t>(ElementType::si32, {1, 1, 1, 1}, {c.start});
    ASSERT_TRUE(ConvMac(psum, fin, weight, {1, 1}, c.padValue, {1, 1}, {1, 1}, 1).ok());
    EXPECT_EQ(valuesOf<int32_t>(psum)[0], c.expected) << "padValue " << c.padValue;
  }
  // Two taps of 70000 products of 127 * 127: 2258060000, which wraps to -2036907296.
  const long C = 70000;
  const Tensor ones = tensorOf<int8_t>(ElementType::si8, {1, 1, 2, C}, std::vector<int8_t>(2 * C, 127));
  Tensor psum = tensorOf<int32_t>(ElementType::si32, {1, 1, 1, 1}, {0});
  ASSERT_TRUE(ConvMac(psum, ones, ones, {0, 0}, 0, {1, 1}, {1, 1}, 1).ok());
  EXPECT_EQ(valuesOf<int32_t>(psum)[0], -2036907296);
}

TEST(VelaConvMac, MatchesThePlainReferenceOnEveryLoop) {
  struct Case { std::vector<long> fin, weight, psum; ConvShape conv; };
  const Case cases[] = {
      {{2, 7, 5, 21}, {5, 3, 2, 21}, {2, 4, 3, 5}, {{2, 0}, -3, {2, 2}, {2, 1}, 1}},      // a block of 16 and a tail of 5
      {{1, 6, 6, 12}, {6, 3, 3, 4}, {1, 6, 6, 6}, {{1, 1}, 7, {1, 1}, {1, 1}, 3}},        // 3 groups
      {{1, 6, 5, 10}, {10, 3, 3, 1}, {1, 4, 4, 10}, {{1, 2}, -128, {2, 1}, {1, 2}, 10}},  // depthwise
  };
  std::mt19937 rng(7);
  for (const Case& c : cases) {
    const Tensor fin = randomTensor8(c.fin, rng), weight = randomTensor8(c.weight, rng);
    Tensor psum = randomTensor32(c.psum, rng, INT32_MIN, INT32_MAX);
    const auto expected = valuesOf<int32_t>(referenceConv(psum, fin, weight, c.conv));
    ASSERT_TRUE(mac(psum, fin, weight, c.conv).ok());
    EXPECT_EQ(valuesOf<int32_t>(psum), expected) << "group " << c.conv.group << ", fin " << toString(fin);
  }
  // Strided operands: channel-first buffers read channel-last, and every
  // other channel of a wider psum (the channels between are not written).
  const ConvShape conv{{1, 0}, 3, {1, 1}, {1, 1}, 1};
  const Tensor fin = randomTensor8({1, 5, 4, 6}, rng).permute({0, 2, 3, 1});     // [1, 4, 6, 5]
  const Tensor weight = randomTensor8({3, 5, 2, 2}, rng).permute({0, 2, 3, 1});  // [3, 2, 2, 5]
  Tensor wide = randomTensor32({1, 4, 3, 6}, rng, -50, 50), psum = wide.slice(3, 0, 6, 2);
  const auto between = valuesOf<int32_t>(wide.slice(3, 1, 6, 2));
  const auto expected = valuesOf<int32_t>(referenceConv(psum, compactCopy(fin), weight, conv));
  ASSERT_TRUE(mac(psum, fin, weight, conv).ok());
  EXPECT_EQ(valuesOf<int32_t>(psum), expected);
  EXPECT_EQ(valuesOf<int32_t>(wide.slice(3, 1, 6, 2)), between);
}

TEST(VelaConvMac, ZigzagWeightColumnsAlternateDownAndUpAndItsMacSplitsIntoPasses) {
  // fin [1, 2, 3, 4]: element (h, w, c) holds 100 * h + 10 * w + c.
  std::vector<int16_t> values;
  for (int i = 0; i < 24; ++i) values.push_back(int16_t(100 * (i / 12) + 10 * (i / 4 % 3) + i % 4));
  Tensor fout = Tensor::create(ElementType::si16, {1, 6, 4});
  ASSERT_TRUE(ConvZigzagWeight(fout, tensorOf<int16_t>(ElementType::si16, {1, 2, 3, 4}, values)).ok());
  const int rows[6][2] = {{0, 0}, {1, 0}, {1, 1}, {0, 1}, {0, 2}, {1, 2}};
  for (int i = 0; i < 24; ++i) EXPECT_EQ(valuesOf<int16_t>(fout)[i], 100 * rows[i / 4][0] + 10 * rows[i / 4][1] + i % 4);

  std::mt19937 rng(13);
  const long R = 3, S = 2, C = 6, K = 4, group = 2;
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

TEST(VelaConvMac, SparseRowsApplyToTheirIndexedTaps) {
  std::mt19937 rng(17);
  const long K = 3, C = 5, R = 3, S = 2;  // not square: taps are row-major in S
  const Tensor fin = randomTensor8({1, 6, 5, C}, rng), dense = randomTensor8({K, R, S, C}, rng);
  // Each channel keeps some of the six taps in a scrambled row order, and
  // channel 2 leaves its last slot unused. The pruned dense weight is zero elsewhere.
  const int32_t keep[K][4] = {{5, 0, 3, 1}, {3, 1, 4, 2}, {3, 2, 0, -1}};
  Tensor weight = Tensor::create(ElementType::si8, {K, 4, C}), pruned = filled(ElementType::si8, {K, R, S, C}, 0);
  std::vector<int64_t> index;
  for (long k = 0; k < K; ++k)
    for (long t = 0; t < 4; ++t) {
      const int32_t tap = keep[k][t];
      index.push_back(tap);
      for (long c = 0; c < C; ++c) {
        weight.at<int8_t>({k, t, c}) = tap < 0 ? int8_t(99) : dense.at<int8_t>({k, tap / S, tap % S, c});
        if (tap >= 0) pruned.at<int8_t>({k, tap / S, tap % S, c}) = weight.at<int8_t>({k, t, c});
      }
    }
  const Tensor start = randomTensor32({1, 3, 5, K}, rng, -9999, 9999);
  for (ElementType indexType : {ElementType::si32, ElementType::si64}) {
    Tensor sparse = compactCopy(start), reference = compactCopy(start);
    const Tensor indexTensor = tensorOf<int64_t>(ElementType::si64, {K, 4}, index).cast(indexType);
    ASSERT_TRUE(ConvSparseMac(sparse, fin, weight, indexTensor, {R, S}, {1, 1}, -7, {2, 1}).ok());
    ASSERT_TRUE(ConvMac(reference, fin, pruned, {1, 1}, -7, {2, 1}, {1, 1}, 1).ok());
    EXPECT_EQ(valuesOf<int32_t>(sparse), valuesOf<int32_t>(reference));
  }
}

TEST(VelaConvMac, TraceListsEveryProductInOrder) {
  // Output (1, 1) reads fin row 1, col 1 at tap (0, 0); tap (0, 1) falls
  // outside and reads the pad value -2.
  const Tensor fin = tensorOf<int8_t>(ElementType::si8, {1, 2, 2, 2}, {1, -2, 3, 4, 5, 6, -7, 8});
  const Tensor weight = tensorOf<int8_t>(ElementType::si8, {1, 1, 2, 2}, {2, 3, -1, 1});
  Tensor psum = tensorOf<int32_t>(ElementType::si32, {1, 2, 2, 1}, {10, 20, 30, 40});
  TraceCapture capture;
  ScopedTracePoint point({0, 1, 1, 0});
  ASSERT_TRUE(ConvMac(psum, fin, weight, {0, 0}, -2, {1, 1}, {1, 1}, 1).ok());
  EXPECT_EQ(capture.lines(), (std::vector<std::string>{
                                 "psum[0, 1, 1, 0] += fin[0, 1, 1, 0] * weight[0, 0, 0, 0] // 40 += -7 * 2 -> 26",
                                 "psum[0, 1, 1, 0] += fin[0, 1, 1, 1] * weight[0, 0, 0, 1] // 26 += 8 * 3 -> 50",
                                 "psum[0, 1, 1, 0] += fin[0, 1, 2, 0] * weight[0, 0, 1, 0] // 50 += -2 * -1 -> 52",
                                 "psum[0, 1, 1, 0] += fin[0, 1, 2, 1] * weight[0, 0, 1, 1] // 52 += -2 * 1 -> 50"}));
  EXPECT_EQ(psum.at<int32_t>({0, 1, 1, 0}), 50) << "the stored value is the traced one";
}

TEST(VelaConvMac, ChecksInOrderWriteNothing) {
  // The grouping conditions, the window limit, a check after the shared
  // feature-map ones and the sparse index range, checked while taps are built.
  const ElementType si8 = ElementType::si8;
  Tensor psum = filled(ElementType::si32, {1, 2, 2, 2}, 0x5a), index = filled(ElementType::si32, {2, 3}, 0);
  index.data<int32_t>()[5] = 4;
  const Tensor fin = filled(si8, {1, 3, 3, 4}, 1);
  const std::string before = storageBytes(psum);
  EXPECT_EQ(ConvMac(psum, fin, filled(si8, {3, 3, 3, 2}, 1), {0, 0}, 0, {1, 1}, {1, 1}, 2).message(),
            "tensor group number invalid");
  EXPECT_EQ(ConvMac(psum, fin, filled(si8, {2, 1, 1, 4}, 1), {0, 0}, 0, {1, int64_t(1) << 31}, {1, 1}, 1).message(),
            "conv window parameters must lie within [-2^30, 2^30]");
  EXPECT_EQ(ConvZigzagMac(psum, fin, filled(si8, {2, 3, 3, 4}, 1), {0, 0}, {3, 3}, 0, {1, 1}, 1, 0).message(),
            "rank of zigzag conv weight must be 3: [k, t, c]");
  EXPECT_EQ(ConvSparseMac(psum, fin, filled(si8, {2, 3, 4}, 1), index, {2, 2}, {0, 0}, 0, {1, 1}).message(),
            "sparse index must be less than kerH * kerW");
  EXPECT_EQ(storageBytes(psum), before);
  Tensor fout = Tensor::create(si8, {2, 8, 4});
  EXPECT_EQ(ConvZigzagWeight(fout, Tensor::create(si8, {2, 3, 3, 4})).message(),
            "fout axis -2 must be fin axis -3 times fin axis -2");
}
