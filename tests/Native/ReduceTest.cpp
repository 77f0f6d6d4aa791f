// The reductions and CumSum: sums against the sequential sum built in the
// test from each group's element list (on data where another order gives
// other bits), every layout the kernels walk, hand-worked values for each
// member and integer branch, trace lines and failure texts.
#include "NativeTest.h"

using namespace kora;
using namespace kora::test;
using enum ElementType;

namespace {

using Dims = std::vector<int64_t>;
using ReduceFn = Status (*)(Tensor&, Tensor const&, Dims const&, bool);

struct Reduce {
  ReduceFn config, impl;
  Tensor operator()(const Tensor& fin, Dims dims, bool keep = false, ElementType outType = invalid) const {
    return runKernel(config, impl, Tensor(outType, {}), fin, dims, keep);
  }
};

#define OP(Name) Reduce{native::Name##Config, native::Name}

// fin's elements with the reduced axes moved last: every output's group
// (outputs in row-major order) is one run of `groupSize` elements, in the
// order a row-major walk over fin folds them.
std::vector<float> inFoldOrder(const Tensor& fin, const Dims& dims, size_t& groupSize) {
  std::vector<bool> reduced(fin.rank(), dims.empty());
  for (int64_t d : dims) reduced[size_t(d < 0 ? d + int64_t(fin.rank()) : d)] = true;
  std::vector<long> order;
  groupSize = 1;
  for (bool last : {false, true})
    for (size_t a = 0; a < fin.rank(); ++a)
      if (reduced[a] == last) order.push_back(long(a)), groupSize *= last ? size_t(fin.dim(long(a))) : 1;
  return valuesOf<float>(fin.permute(order));
}

}  // namespace

TEST(ReduceConfig, ShapesFollowTheAxesAndTheKeepFlag) {
  const std::tuple<std::vector<long>, Dims, bool, std::vector<long>> cases[] = {
      {{2, 3, 4}, {1}, false, {2, 4}},      {{2, 3, 4}, {0, 2}, true, {1, 3, 1}}, {{2, 3, 4}, {}, false, {}},
      {{2, 3, 4}, {}, true, {1, 1, 1}},     {{2, 3, 4}, {2, -1}, false, {2, 3}},  {{}, {}, false, {}},
  };
  for (const auto& [shape, dims, keep, out] : cases) {
    Tensor result;
    ASSERT_TRUE(native::ReduceSumConfig(result, Tensor::create(f16, shape), dims, keep).ok());
    EXPECT_EQ(result.type(), TensorType(f16, out)) << "dims " << dims.size() << " keep " << keep;
  }
}

TEST(ReduceSum, EqualsTheSequentialSumOnEveryLayout) {
  // Groups that come as runs of one accumulator (last axes), as lanes (first
  // axes) and mixed, with fewer and more than eight runs in a row.
  const std::pair<std::vector<long>, Dims> cases[] = {
      {{7}, {0}},       {{17, 33}, {1}},       {{33, 17}, {0}},        {{3, 2, 5}, {0, 2}},
      {{4, 5, 6}, {}},  {{4, 5, 6}, {-1, -3}}, {{6, 4, 3, 2}, {1, 3}}, {{2, 3, 4}, {2, 2}},
  };
  for (const auto& [shape, dims] : cases) {
    const size_t n = size_t(Tensor::create(f32, shape).numElements());
    const auto values = spreadValues(n, unsigned(n));
    size_t size = 0;
    const auto ordered = inFoldOrder(f32s(shape, values), dims, size);
    std::vector<uint32_t> expected32;
    std::vector<uint16_t> expected16;
    bool orderMatters = false;
    for (size_t g = 0; g < n; g += size) {
      float acc = 0.0f, accHalf = 0.0f;
      double exact = 0.0;
      for (size_t i = g; i < g + size; ++i) {
        acc = acc + ordered[i];
        accHalf = accHalf + half(ordered[i]).toFloat();
        exact += ordered[i];
      }
      orderMatters |= double(acc) != exact;
      expected32.push_back(std::bit_cast<uint32_t>(acc));
      expected16.push_back(half(accHalf).bits);
    }
    EXPECT_TRUE(orderMatters || n <= 20) << "the data must tell orders apart";
    for (bool keep : {false, true}) {
      for (const auto& [layout, fin] : layoutsOf(f32s(shape, values))) {
        SCOPED_TRACE(layout + " keep " + std::to_string(keep) + " rank " + std::to_string(shape.size()));
        EXPECT_EQ(bitsOf<float>(OP(ReduceSum)(fin, dims, keep)), expected32);
        EXPECT_EQ(bitsOf<half>(OP(ReduceSum)(fin.cast(f16), dims, keep)), expected16) << "f16";
      }
    }
  }
  // A broadcast input (stride 0) repeats one element.
  Tensor one = f32s({1, 3}, {0.1f, 1e8f, -2.5f});
  ASSERT_TRUE(native::broadcastTo(std::vector<long>{4, 3}, one).ok());
  const float tenth = ((0.1f + 0.1f) + 0.1f) + 0.1f;
  EXPECT_EQ(valuesOf<float>(OP(ReduceSum)(one, {0})), (std::vector<float>{tenth, 4e8f, -10.0f}));
}

TEST(ReduceIntegers, HandWorkedOnTheBranchesThatDiffer) {
  // Unsigned types compare as such, and the Arg members give the first
  // extreme's index; sums wrap in fout's own type (here wider than fin's),
  // products and sums of squares at the type's width.
  const std::tuple<const char*, Reduce, Tensor, ElementType, int64_t> cases[] = {
      {"max ui8", OP(ReduceMax), ints(ui8, {1, 200, 7}), invalid, 200},
      {"min ui64", OP(ReduceMin), ints(ui64, {5, -1, 1}), invalid, 1},
      {"argmax ui16", OP(ReduceArgMax), ints(ui16, {65535, 3, 65535}), ui16, 0},
      {"argmin si8", OP(ReduceArgMin), ints(si8, {5, -128, -128}), si8, 1},
      {"sum si8 into si16", OP(ReduceSum), ints(si8, {100, 100, 100}), si16, 300},
      {"sum si32", OP(ReduceSum), ints(si32, {INT32_MAX, 1}), invalid, INT32_MIN},
      {"prod si32", OP(ReduceProd), ints(si32, {65536, 65535, 2}), invalid, -131072},
      {"sumsquare si32", OP(ReduceSumSquare), ints(si32, {46341, -1}), invalid, -2147479014},
  };
  for (const auto& [what, op, fin, outType, expected] : cases) {
    Tensor out = op(fin, {0}, false, outType);
    EXPECT_EQ(out.elementType(), outType == invalid ? fin.elementType() : outType) << what;
    EXPECT_EQ(valuesOf<int64_t>(out.cast(si64)), std::vector<int64_t>{expected}) << what;
  }
  Tensor running = Tensor::create(si16, {3});
  ASSERT_TRUE(native::CumSum(running, ints(si8, {100, 100, 100}), 0, false, false).ok());
  EXPECT_EQ(valuesOf<int16_t>(running), (std::vector<int16_t>{100, 200, 300}));
}

TEST(ReduceMean, EachElementIsScaledBeforeItIsAdded) {
  // 0.1f added ten times is 1.0000001 (0x3f800001), while 10 / 10 is 1.
  // With d = f32(1/3): 1 * d + 6 * d + 1 * d, each product rounded (6 * d to
  // 2), gives 0x402aaaaa, where 8 / 3 or fused steps give 0x402aaaab.
  const std::pair<std::vector<float>, uint32_t> cases[] = {{{1, 1, 1}, 0x3f800000u}, {{1, 6, 1}, 0x402aaaaau},
      {std::vector<float>(10, 1.0f), 0x3f800001u}, {{2, -4, 8, 6}, 0x40400000u}};
  for (const auto& [values, bits] : cases)
    EXPECT_EQ(bitsOf<float>(OP(ReduceMean)(f32s({1, long(values.size())}, values), {1})), std::vector<uint32_t>{bits});
  // f16 in f32: ten ones give 1.0000001, which narrows to 1.
  EXPECT_EQ(bitsOf<half>(OP(ReduceMean)(f32s({10}, std::vector<float>(10, 1.0f)).cast(f16), {0})),
            std::vector<uint16_t>{0x3c00});
  // An empty group has no mean.
  const auto mean = valuesOf<float>(OP(ReduceMean)(Tensor::create(f32, {2, 0}), {1}));
  EXPECT_TRUE(mean.size() == 2 && std::isnan(mean[0]) && std::isnan(mean[1]));
}

TEST(ReduceMaxMin, NaNWinsAndZerosKeepTheirSign) {
  // A NaN wins wherever it stands; of two zeros, met in either order, Max
  // gives +0 and Min -0.
  const std::vector<float> values = {kNaN, 3, -1, -0.0f, 0.0f, -3, 0.0f, -0.0f, -3,
                                     0.0f, -0.0f, 2, -0.0f, 0.0f, 2, 1, -kInf, kNaN};
  const std::pair<Reduce, std::vector<float>> cases[] = {{OP(ReduceMax), {kNaN, 0.0f, 0.0f, 2, 2, kNaN}},
                                                         {OP(ReduceMin), {kNaN, -3, -3, -0.0f, -0.0f, kNaN}}};
  for (const auto& [op, expected] : cases) {
    const auto got = valuesOf<float>(op(f32s({6, 3}, values), {1}));
    for (size_t i = 0; i < expected.size(); ++i) EXPECT_PRED2(sameFloat, got[i], expected[i]) << i;
  }
}

TEST(ReduceArg, FirstExtremeWinsAlongTheOneAxis) {
  const std::tuple<Reduce, std::vector<long>, std::vector<float>, int64_t, std::vector<int64_t>> cases[] = {
      {OP(ReduceArgMax), {4}, {1, 5, 5, 2}, 0, {1}},
      {OP(ReduceArgMax), {3}, {1, kNaN, 0}, 0, {0}},   // a later NaN is never chosen
      {OP(ReduceArgMax), {3}, {kNaN, 9, 10}, 0, {0}},  // a first NaN stays
      {OP(ReduceArgMax), {2, 2, 2}, {0, 1, 2, 3, 7, 6, 5, 4}, -2, {1, 1, 0, 0}},
  };
  for (const auto& [op, shape, values, axis, expected] : cases) {
    for (const auto& [layout, view] : layoutsOf(f32s(shape, values))) {
      EXPECT_EQ(valuesOf<int64_t>(op(view, {axis})), expected) << layout;
    }
  }
  // Narrow integer outputs: an index of 200 does not fit in si8 (checked
  // before anything is written), 127 does.
  Tensor longRow = f32s({201}, std::vector<float>(201, 0.0f)), small = ints(si8, {9});
  EXPECT_EQ(native::ReduceArgMax(small, longRow, {0}, true).message(), "reduce arg index 200 does not fit in fout si8");
  EXPECT_EQ(valuesOf<int8_t>(small), std::vector<int8_t>{9});
  EXPECT_EQ(valuesOf<int8_t>(OP(ReduceArgMax)(longRow.slice(0, 0, 128), {0}, false, si8))[0], 0);
}

TEST(ReduceMembers, HandWorkedValuesPerMember) {
  const std::tuple<const char*, Reduce, Tensor, Dims, std::vector<double>> cases[] = {
      {"prod f16 in f32", OP(ReduceProd), f32s({3}, {300, 300, 0.001f}).cast(f16), {0}, {90.0625}},
      {"sumsquare", OP(ReduceSumSquare), f32s({2, 2}, {3, 4, -1, 0.5f}), {1}, {25, 1.25}},
      {"logsum", OP(ReduceLogSum), f32s({2}, {1.5f, 1.0f}), {0}, {double(logf(2.5f))}},
      {"all f32", OP(ReduceAll), f32s({3, 2}, {1, kNaN, -0.0f, 2, 5, -5}), {1}, {1, 0, 1}},
      {"all bool8 bytes", OP(ReduceAll), tensorOf<uint8_t>(bool8, {2, 2}, {7, 0, 2, 255}), {1}, {0, 1}},
      {"logsumexp of nothing", OP(ReduceLogSumExp), Tensor::create(f16, {3, 0}), {1}, {-kInf, -kInf, -kInf}},
      {"logsumexp of -inf", OP(ReduceLogSumExp), f32s({2}, {-kInf, -kInf}), {0}, {-kInf}},
      {"logsumexp of inf", OP(ReduceLogSumExp), f32s({2}, {2, kInf}), {0}, {kInf}},
  };
  for (const auto& [what, op, fin, dims, expected] : cases) {
    Tensor out = op(fin, dims);
    EXPECT_EQ(out.elementType(), fin.elementType()) << what;
    EXPECT_EQ(valuesOf<double>(out.cast(f64)), expected) << what;
  }
  EXPECT_EQ(valuesOf<uint8_t>(OP(ReduceAll)(ints(si64, {4, -9}), {0}, false, bool8)), std::vector<uint8_t>{1});
  // LogSumExp shifts by the maximum: a few roundings of single precision
  // functions away from exact, where an unshifted sum would overflow.
  const std::pair<std::vector<float>, double> shifted[] = {
      {{1000, 1000}, 1000.0 + std::log(2.0)}, {{-1, 0, 2.5f}, std::log(std::exp(-1.0) + 1.0 + std::exp(2.5))}};
  for (const auto& [values, expected] : shifted) {
    const float got = valuesOf<float>(OP(ReduceLogSumExp)(f32s({1, long(values.size())}, values), {1}))[0];
    EXPECT_NEAR(got, expected, 4 * std::ldexp(1.0, std::ilogb(expected) - 23));
  }
  // Lp over all elements, into any one-element fout: the order 2 is sqrtf of
  // the sequential sum of squares, p = 3 the cube root of the sum of cubes.
  Tensor out = Tensor::create(f32, {}), one = Tensor::create(f16, {1, 1});
  ASSERT_TRUE(native::ReduceLp(out, f32s({2, 2}, {1e-3f, 7, 0.5f, -2}).permute({1, 0}), 2).ok());
  EXPECT_EQ(valuesOf<float>(out)[0], sqrtf(((1e-3f * 1e-3f + 0.5f * 0.5f) + 7.0f * 7.0f) + 4.0f));
  ASSERT_TRUE(native::ReduceLp(one, f32s({2}, {2, -2}).cast(f16), 3).ok());
  EXPECT_NEAR(valuesOf<half>(one)[0].toFloat(), std::cbrt(16.0), 1e-3);
  EXPECT_NEAR(valuesOf<float>(runKernel(native::ReduceLpConfig, native::ReduceLp, Tensor(), f32s({3}, {-1, 2, -3}), 1))[0], 6, 1e-6);
}

TEST(CumSum, RunningSumsInEachLinesOwnOrder) {
  // Every flag pair along both axes of a wide matrix (along axis 0, 300
  // lines side by side: more than one block of lanes), on every layout, f32
  // and f16 (summed in f32, one narrowing per output), against the running
  // sums built in the test on data where another order gives other bits.
  const std::vector<long> shape = {5, 300};
  const auto values = spreadValues(5 * 300, 11, -6, 6);
  for (ElementType type : {f32, f16}) {
    const auto stored = valuesOf<float>(f32s(shape, values).cast(type).cast(f32));
    for (int flags = 0; flags < 4; ++flags) {
      const bool exclusive = flags & 1, reverse = flags & 2;
      for (long axis : {0, 1}) {
        const long n = shape[size_t(axis)], along = axis == 0 ? 300 : 1, across = axis == 0 ? 1 : 300;
        std::vector<float> expected(stored.size());
        for (long line = 0; line < 5 * 300 / n; ++line) {
          float acc = 0.0f;
          for (long i = 0; i < n; ++i) {
            const size_t at = size_t(line * across + (reverse ? n - 1 - i : i) * along);
            if (exclusive) expected[at] = acc;
            acc = acc + stored[at];
            if (!exclusive) expected[at] = acc;
          }
        }
        for (const auto& [layout, fin] : layoutsOf(f32s(shape, values).cast(type))) {
          SCOPED_TRACE(layout + " " + elementTypeName(type) + " flags " + std::to_string(flags) + " axis " + std::to_string(axis));
          Tensor out = Tensor::create(type, shape);
          ASSERT_TRUE(native::CumSum(out, fin, axis, exclusive, reverse).ok());
          EXPECT_EQ(resultBits(out), resultBits(f32s(shape, expected).cast(type)));
        }
      }
    }
  }
  // In place, each element is read before its output is stored.
  Tensor inPlace = f32s({4}, {1, 2, 4, 8});
  ASSERT_TRUE(native::CumSum(inPlace, inPlace, -1, true, true).ok());
  EXPECT_EQ(valuesOf<float>(inPlace), (std::vector<float>{14, 12, 8, 0}));
}

TEST(ReduceTrace, OneLinePerStep) {
  Tensor fin = f32s({2, 3}, {1, 5, 5, 2, 0.5f, -1}), bytes = tensorOf<int8_t>(si8, {2, 2}, {100, 100, -3, 4});
  const std::tuple<std::function<Tensor()>, std::vector<long>, std::vector<std::string>> cases[] = {
      {[&] { return OP(ReduceArgMax)(fin, {1}); }, {0},
       {"val = 1", "arg = (fin[0, 0] > val) ? 0 : arg // (1 > 1) ? 0 : 0 -> 0",
        "arg = (fin[0, 1] > val) ? 1 : arg // (5 > 1) ? 1 : 0 -> 1",
        "arg = (fin[0, 2] > val) ? 2 : arg // (5 > 5) ? 2 : 1 -> 1", "fout[0] = arg // 1"}},
      {[&] { return OP(ReduceSum)(bytes, {1}, false, si16); }, {0},
       {"fout[0] += fin[0, 0] // 0 += 100 -> 100", "fout[0] += fin[0, 1] // 100 += 100 -> 200"}},
      {[&] {
         Tensor out = Tensor::create(f32, {2, 3});
         EXPECT_TRUE(native::CumSum(out, fin, 1, true, true).ok());
         return out;
       }, {1, 0},
       {"fout[1, 0] += fin[1, 2] // 0 += -1 -> -1", "fout[1, 0] += fin[1, 1] // -1 += 0.5 -> -0.5"}},
  };
  for (const auto& [run, point, lines] : cases) expectTrace(run, point, lines);
}

TEST(ReduceFailures, ExactTextsAndNothingWritten) {
  Tensor fin = f32s({2, 3}, {1, 2, 3, 4, 5, 6}), u8 = Tensor::create(ui8, {2, 3}), s32 = fin.cast(si32);
  Tensor out = f32s({2}, {9, 9}), out16 = f32s({2}, {9, 9}).cast(f16), outS32 = ints(si32, {9, 9});
  Tensor none = Tensor::create(f32, {2, 0}), untyped, typed(f32, {});
  expectFailures({
      // Axes: the last valid one, and a negative one named normalised.
      {"ReduceMax config error: invalid reduce axis 2, finRank 2", CALL(ReduceMaxConfig(untyped, fin, {2}, false))},
      {"invalid reduce axis -1, finRank 2", CALL(ReduceSum(out, fin, {-3}, false))},
      {"ReduceArgMin config error: reduce arg min fout must be integer", CALL(ReduceArgMinConfig(typed, fin, {1}, false))},
      {"ReduceLp config error: p should be at least 1, but got 0", CALL(ReduceLpConfig(untyped, fin, 0))},
      {"reduce max fin and fout must be the same", CALL(ReduceMax(out16, fin, {1}, false))},
      {"quant reduce sum fin should be in [si8, si16, s32, s64]", CALL(ReduceSum(outS32, u8, {1}, false))},
      {"tensor.all fin should be in [si8, si16, s32, s64, float32, float16, bool]", CALL(ReduceAll(out, u8, {1}, false))},
      {"reduced axis 1 is empty", CALL(ReduceMax(out, none, {1}, false))},
  });
  EXPECT_EQ(valuesOf<float>(out), (std::vector<float>{9, 9}));
  EXPECT_EQ(valuesOf<int32_t>(outS32), (std::vector<int32_t>{9, 9}));
}
