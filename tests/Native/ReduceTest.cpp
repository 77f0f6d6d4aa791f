// The reductions and CumSum: sums against the sequential sum built in the
// test from each group's element list (on data where another order gives
// other bits), every layout the kernels walk, integer members against int64
// references, hand-worked values for each member, trace lines, failure texts
// and the type traps.
#include <numeric>

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

// For every output (row-major), the row-major indices of the elements of its
// group: a row-major walk over fin meets each group's elements in the order
// they are folded.
std::vector<std::vector<long>> groupsOf(const std::vector<long>& shape, const Dims& dims) {
  std::vector<long> kept = dims.empty() ? std::vector<long>(shape.size(), 1) : shape;
  for (int64_t d : dims) kept[size_t(d < 0 ? d + int64_t(shape.size()) : d)] = 1;
  const auto strides = getStrides(shape, 1), keptStrides = getStrides(kept, 1);
  long outputs = 1, n = 1;
  for (size_t a = 0; a < shape.size(); ++a) outputs *= kept[a], n *= shape[a];
  std::vector<std::vector<long>> groups(static_cast<size_t>(outputs));
  for (long i = 0; i < n; ++i) {
    const auto c = getCoord(i, shape, strides);
    long o = 0;
    for (size_t a = 0; a < shape.size(); ++a) o += (kept[a] == 1 ? 0 : c[a]) * keptStrides[a];
    groups[size_t(o)].push_back(i);
  }
  return groups;
}

// The elements of an integer tensor, and int64 values wrapped into `type`
// the way Tensor::cast wraps, both read as int64.
std::vector<int64_t> asInt64(const Tensor& t) { return valuesOf<int64_t>(t.cast(si64)); }
std::vector<int64_t> wrapped(const std::vector<int64_t>& v, ElementType type, std::vector<long> shape) {
  return asInt64(tensorOf<int64_t>(si64, shape, v).cast(type));
}

}  // namespace

TEST(ReduceConfig, ShapesFollowTheAxesAndTheKeepFlag) {
  const std::tuple<std::vector<long>, Dims, bool, std::vector<long>> cases[] = {
      {{2, 3, 4}, {1}, false, {2, 4}},      {{2, 3, 4}, {1}, true, {2, 1, 4}}, {{2, 3, 4}, {-1}, false, {2, 3}},
      {{2, 3, 4}, {0, 2}, true, {1, 3, 1}}, {{2, 3, 4}, {}, false, {}},        {{2, 3, 4}, {}, true, {1, 1, 1}},
      {{2, 3, 4}, {2, -1}, false, {2, 3}},  {{}, {}, false, {}},               {{5}, {0}, true, {1}},
  };
  for (const auto& [shape, dims, keep, out] : cases) {
    Tensor result;
    ASSERT_TRUE(native::ReduceSumConfig(result, Tensor::create(f16, shape), dims, keep).ok());
    EXPECT_EQ(result.type(), TensorType(f16, out)) << "dims " << dims.size() << " keep " << keep;
  }
  // The Arg members default to si64 and keep a set integer type.
  Tensor fin = Tensor::create(f32, {2, 3}), arg, typed(ui8, {});
  ASSERT_TRUE(native::ReduceArgMaxConfig(arg, fin, {1}, false).ok() && native::ReduceArgMinConfig(typed, fin, {0}, true).ok());
  EXPECT_EQ(arg.type(), TensorType(si64, {2}));
  EXPECT_EQ(typed.type(), TensorType(ui8, {1, 3}));
}

TEST(ReduceSum, EqualsTheSequentialSumOnEveryLayout) {
  // Groups that come as runs of one accumulator (last axes), as lanes (first
  // axes) and mixed, with fewer and more than eight runs in a row.
  const std::pair<std::vector<long>, Dims> cases[] = {
      {{7}, {0}},          {{17, 33}, {1}},        {{33, 17}, {0}},        {{3, 2, 5}, {0, 2}},
      {{2, 9, 3}, {1}},    {{6, 4, 3, 2}, {1, 3}}, {{6, 4, 3, 2}, {0, 2}}, {{5, 1, 7}, {0, 1}},
      {{4, 5, 6}, {}},     {{4, 5, 6}, {-1, -3}},  {{12, 10}, {0, 1}},     {{2, 3, 4}, {2, 2}},
  };
  for (const auto& [shape, dims] : cases) {
    const auto groups = groupsOf(shape, dims);
    const size_t n = groups.size() * groups[0].size();
    const auto values = spreadValues(n, unsigned(n));
    std::vector<uint32_t> expected32;
    std::vector<uint16_t> expected16;
    bool orderMatters = false;
    for (const auto& g : groups) {
      float acc = 0.0f, accHalf = 0.0f;
      double exact = 0.0;
      for (long i : g) {
        acc = acc + values[size_t(i)];
        accHalf = accHalf + half(values[size_t(i)]).toFloat();
        exact += values[size_t(i)];
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
  // A broadcast input (stride 0) repeats one element; f64 sums in f64.
  Tensor one = f32s({1, 3}, {0.1f, 1e8f, -2.5f});
  ASSERT_TRUE(native::broadcastTo(std::vector<long>{4, 3}, one).ok());
  const float tenth = ((0.1f + 0.1f) + 0.1f) + 0.1f;
  EXPECT_EQ(valuesOf<float>(OP(ReduceSum)(one, {0})), (std::vector<float>{tenth, 4e8f, -10.0f}));
  EXPECT_EQ(valuesOf<double>(OP(ReduceSum)(tensorOf<double>(f64, {3}, {1e17, 1, 1}), {0}))[0], 1e17);
}

TEST(ReduceIntegers, EveryAcceptedTypeAgainstAnInt64Reference) {
  // Each member on each integer type it accepts, as runs (last axis) and as
  // lanes (middle axis), against the exact result wrapped to the type. The
  // Arg members give the index of a group's first extreme element, unsigned
  // types compared as such.
  auto extreme = [](const std::vector<int64_t>& g, bool u, bool greatest) {
    auto less = [u](int64_t a, int64_t b) { return u ? uint64_t(a) < uint64_t(b) : a < b; };
    return (greatest ? std::max_element(g.begin(), g.end(), less) : std::min_element(g.begin(), g.end(), less)) -
           g.begin();
  };
  auto fold = [](uint64_t start, auto step) {
    return [=](const std::vector<int64_t>& g, bool) { return int64_t(std::accumulate(g.begin(), g.end(), start, step)); };
  };
  using Group = const std::vector<int64_t>&;
  const std::vector<ElementType> signedTypes = {si8, si16, si32, si64}, wide = {si32, si64};
  const std::vector<ElementType> integerTypes = {si8, si16, si32, si64, ui8, ui16, ui32, ui64};
  const std::tuple<std::string, Reduce, std::vector<ElementType>, std::function<int64_t(Group, bool)>> members[] = {
      {"max", OP(ReduceMax), integerTypes, [&](Group g, bool u) { return g[size_t(extreme(g, u, true))]; }},
      {"min", OP(ReduceMin), integerTypes, [&](Group g, bool u) { return g[size_t(extreme(g, u, false))]; }},
      {"argmax", OP(ReduceArgMax), integerTypes, [&](Group g, bool u) { return int64_t(extreme(g, u, true)); }},
      {"argmin", OP(ReduceArgMin), integerTypes, [&](Group g, bool u) { return int64_t(extreme(g, u, false)); }},
      {"sum", OP(ReduceSum), signedTypes, fold(0, std::plus<uint64_t>())},
      {"sumsquare", OP(ReduceSumSquare), wide, fold(0, [](uint64_t a, uint64_t x) { return a + x * x; })},
      {"prod", OP(ReduceProd), wide, fold(1, std::multiplies<uint64_t>())},
      {"all", OP(ReduceAll), signedTypes,
       [](Group g, bool) { return int64_t(std::all_of(g.begin(), g.end(), [](int64_t x) { return x != 0; })); }},
  };
  const std::vector<long> shape = {3, 37, 9};
  std::mt19937_64 rng(17);
  for (const auto& [name, op, types, reference] : members) {
    for (ElementType type : types) {
      // Small values where products must wrap after a few dozen steps rather
      // than at once, and some zeros for All.
      std::vector<int64_t> values(3 * 37 * 9);
      for (int64_t& v : values) {
        const uint64_t r = rng();
        v = name == "prod" ? int64_t(r % 7) - 3 : name != "all" ? int64_t(r) : r % 5 ? int64_t(r % 200) - 100 : 0;
      }
      Tensor fin = tensorOf<int64_t>(si64, shape, values).cast(type);
      const auto stored = asInt64(fin);  // the values as the type holds them
      for (int64_t axis : {1, 2}) {
        SCOPED_TRACE(name + " " + elementTypeName(type) + " axis " + std::to_string(axis));
        std::vector<int64_t> expected;
        for (const auto& g : groupsOf(shape, {axis})) {
          std::vector<int64_t> group;
          for (long i : g) group.push_back(stored[size_t(i)]);
          expected.push_back(reference(group, isUnsignedInt(type)));
        }
        Tensor out = op(fin, {axis}, false, name.starts_with("arg") ? type : invalid);
        EXPECT_EQ(out.elementType(), type);
        EXPECT_EQ(asInt64(out), wrapped(expected, type, out.shape().vec()));
      }
    }
  }
  // Sums and running sums wrap in fout's own integer type, which may be wider
  // than fin's or unsigned.
  std::vector<int64_t> small(6 * 40);
  for (int64_t& v : small) v = int64_t(rng() % 256) - 128;
  Tensor fin = tensorOf<int64_t>(si64, {6, 40}, small).cast(si8);
  for (ElementType type : {si8, si16, si32, si64, ui8, ui64}) {
    std::vector<int64_t> sums(6), running(small.size());
    for (size_t i = 0; i < small.size(); ++i) running[i] = sums[i / 40] += small[i];
    EXPECT_EQ(asInt64(OP(ReduceSum)(fin, {1}, false, type)), wrapped(sums, type, {6})) << elementTypeName(type);
    Tensor cum = Tensor::create(type, {6, 40});
    ASSERT_TRUE(native::CumSum(cum, fin, 1, false, false).ok());
    EXPECT_EQ(asInt64(cum), wrapped(running, type, {6, 40})) << elementTypeName(type);
  }
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

TEST(ReduceMaxMin, EqualTheElementwiseFoldOnSpecialValues) {
  // ReduceMax folds as native::Max, slice after slice (and ReduceMin as
  // Min): a NaN wins wherever it stands, of two zeros +0 (-0 for Min). Rows
  // and columns hold zeros of both signs, in both orders, among values of
  // one sign.
  const std::vector<float> values = {kNaN, 3, -0.0f, 0.0f, -kInf, 2, 1, 0.0f, -0.0f, 5, kInf, 2,
                                     -1, -0.0f, 0.0f, -3, -2, -5, -4, 0.0f, -0.0f, kNaN, -1, -2};
  using BinaryFn = Status (*)(Tensor&, Tensor const&, Tensor const&);
  const std::tuple<Reduce, BinaryFn> folds[] = {{OP(ReduceMax), native::Max}, {OP(ReduceMin), native::Min}};
  for (ElementType type : {f32, f16}) {
    Tensor fin = f32s({4, 6}, values).cast(type);
    for (const auto& [reduce, binary] : folds) {
      for (long axis : {0, 1}) {
        SCOPED_TRACE(std::string(elementTypeName(type)) + " axis " + std::to_string(axis));
        Tensor acc = fin.slice(axis, 0, 1).contiguous();
        for (long i = 1; i < fin.dim(axis); ++i) ASSERT_TRUE(binary(acc, fin.slice(axis, i, i + 1), acc).ok());
        const auto expected = valuesOf<float>(acc.cast(f32)), got = valuesOf<float>(reduce(fin, {axis}, true).cast(f32));
        for (size_t j = 0; j < expected.size(); ++j) EXPECT_PRED2(sameFloat, got[j], expected[j]) << j;
      }
    }
  }
}

TEST(ReduceArg, FirstExtremeWinsAlongTheOneAxis) {
  const std::tuple<Reduce, std::vector<long>, std::vector<float>, int64_t, std::vector<int64_t>> cases[] = {
      {OP(ReduceArgMax), {4}, {1, 5, 5, 2}, 0, {1}},
      {OP(ReduceArgMax), {3}, {1, kNaN, 0}, 0, {0}},   // a later NaN is never chosen
      {OP(ReduceArgMax), {3}, {kNaN, 9, 10}, 0, {0}},  // a first NaN stays
      {OP(ReduceArgMin), {2}, {0.0f, -0.0f}, 0, {0}},
      {OP(ReduceArgMin), {2, 3}, {1, 9, 9, -1, 9, 10}, 0, {1, 0, 0}},
      {OP(ReduceArgMax), {2, 2, 2}, {0, 1, 2, 3, 7, 6, 5, 4}, -2, {1, 1, 0, 0}},
  };
  for (const auto& [op, shape, values, axis, expected] : cases) {
    for (const auto& [layout, view] : layoutsOf(f32s(shape, values))) {
      EXPECT_EQ(valuesOf<int64_t>(op(view, {axis})), expected) << layout;
      EXPECT_EQ(valuesOf<int64_t>(op(view.cast(f16), {axis})), expected) << layout << " f16";
    }
  }
  // Narrow integer outputs: an index of 200 does not fit in si8, 127 does.
  std::vector<float> row(201, 0.0f);
  row[150] = 1.0f;
  Tensor longRow = f32s({201}, row), small = Tensor::create(si8, {});
  EXPECT_EQ(native::ReduceArgMax(small, longRow, {0}, false).message(), "reduce arg index 200 does not fit in fout si8");
  EXPECT_EQ(valuesOf<int8_t>(OP(ReduceArgMax)(longRow.slice(0, 0, 128), {0}, false, si8))[0], 0);
  EXPECT_EQ(valuesOf<uint8_t>(OP(ReduceArgMax)(longRow, {0}, false, ui8))[0], 150);
}

TEST(ReduceMembers, HandWorkedValuesPerMember) {
  const std::tuple<const char*, Reduce, Tensor, Dims, std::vector<double>> cases[] = {
      {"prod starts at 1", OP(ReduceProd), Tensor::create(f32, {2, 0}), {1}, {1, 1}},
      {"prod f16 in f32", OP(ReduceProd), f32s({3}, {300, 300, 0.001f}).cast(f16), {0}, {90.0625}},
      {"sumsquare", OP(ReduceSumSquare), f32s({2, 2}, {3, 4, -1, 0.5f}), {1}, {25, 1.25}},
      {"logsum", OP(ReduceLogSum), f32s({2}, {1.5f, 1.0f}), {0}, {double(logf(2.5f))}},
      {"all f32", OP(ReduceAll), f32s({3, 2}, {1, kNaN, -0.0f, 2, 5, -5}), {1}, {1, 0, 1}},
      {"all of nothing", OP(ReduceAll), Tensor::create(f32, {0, 2}), {0}, {1, 1}},
      {"all bool8 bytes", OP(ReduceAll), tensorOf<uint8_t>(bool8, {2, 2}, {7, 0, 2, 255}), {1}, {0, 1}},
      {"logsumexp of nothing", OP(ReduceLogSumExp), Tensor::create(f16, {3, 0}), {1}, {-kInf, -kInf, -kInf}},
  };
  for (const auto& [what, op, fin, dims, expected] : cases) {
    Tensor out = op(fin, dims);
    EXPECT_EQ(out.elementType(), fin.elementType()) << what;
    EXPECT_EQ(valuesOf<double>(out.cast(f64)), expected) << what;
  }
  EXPECT_EQ(valuesOf<uint8_t>(OP(ReduceAll)(ints(si64, {4, -9}), {0}, false, bool8)), std::vector<uint8_t>{1});
  // LogSumExp shifts by the maximum: exact, or an infinity or NaN.
  const std::pair<std::vector<float>, double> shifted[] = {
      {{1000, 1000}, 1000.0 + std::log(2.0)}, {{-1, 0, 2.5f}, std::log(std::exp(-1.0) + 1.0 + std::exp(2.5))},
      {{-kInf, 3}, 3}, {{-kInf, -kInf}, -kInf}, {{2, kInf}, kInf}, {{2, kNaN}, kNaN},
  };
  for (const auto& [values, expected] : shifted) {
    const float got = valuesOf<float>(OP(ReduceLogSumExp)(f32s({1, long(values.size())}, values), {1}))[0];
    if (!std::isfinite(expected)) {
      EXPECT_PRED2(sameFloat, got, float(expected));
    } else {  // a few roundings of single precision functions away from exact
      EXPECT_NEAR(got, expected, 4 * std::ldexp(1.0, std::ilogb(expected) - 23));
    }
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

TEST(CumSum, FlagsAxesAndLayouts) {
  // Each output is the running sum in the line's own order: with 2^24 first,
  // later ones are lost; reversed they are kept until 2^24 is reached.
  const float big = 16777216.0f;
  const std::tuple<bool, bool, std::vector<float>> cases[] = {
      {false, false, {big, big, big, big}}, {true, false, {0, big, big, big}},
      {false, true, {16777220.0f, 3, 2, 1}}, {true, true, {3, 2, 1, 0}},
  };
  for (const auto& [exclusive, reverse, expectedLine] : cases) {
    SCOPED_TRACE(std::string("exclusive ") + std::to_string(exclusive) + " reverse " + std::to_string(reverse));
    // Along the last axis of [3, 4] rows (scaled by powers of two, which
    // round alike), and along the first axis of the transpose.
    std::vector<float> rows, expected;
    for (int r = 0; r < 3; ++r)
      for (size_t i = 0; i < 4; ++i)
        rows.push_back((i == 0 ? big : 1.0f) * float(1 << r)), expected.push_back(expectedLine[i] * float(1 << r));
    for (const auto& [layout, view] : layoutsOf(f32s({3, 4}, rows))) {
      Tensor out = Tensor::create(f32, {3, 4}), columns = Tensor::create(f32, {4, 3});
      ASSERT_TRUE(native::CumSum(out, view, 1, exclusive, reverse).ok());
      EXPECT_EQ(valuesOf<float>(out), expected) << layout;
      ASSERT_TRUE(native::CumSum(columns, view.permute({1, 0}), 0, exclusive, reverse).ok());
      EXPECT_EQ(valuesOf<float>(columns.permute({1, 0})), expected) << layout << " axis 0";
    }
    Tensor inPlace = f32s({4}, {big, 1, 1, 1});
    ASSERT_TRUE(native::CumSum(inPlace, inPlace, -1, exclusive, reverse).ok());
    EXPECT_EQ(valuesOf<float>(inPlace), expectedLine) << "in place";
  }
  // Many lanes side by side (axis 0 of a wide matrix), f16 through f32 with
  // one narrowing per output.
  const auto values = spreadValues(300 * 5, 11, -6, 6);
  Tensor lanes = Tensor::create(f16, {5, 300});
  ASSERT_TRUE(native::CumSum(lanes, f32s({5, 300}, values).cast(f16), 0, false, true).ok());
  const auto got = bitsOf<half>(lanes);
  for (long j = 0; j < 300; ++j) {
    float acc = 0.0f;
    for (long i = 4; i >= 0; --i) {
      acc = acc + half(values[size_t(i * 300 + j)]).toFloat();
      ASSERT_EQ(got[size_t(i * 300 + j)], half(acc).bits) << i << ", " << j;
    }
  }
}

TEST(ReduceTrace, OneLinePerStep) {
  Tensor fin = f32s({2, 3}, {1, 5, 5, 2, 0.5f, -1}), bytes = tensorOf<int8_t>(si8, {2, 2}, {100, 100, -3, 4});
  const std::tuple<std::function<Tensor()>, std::vector<long>, std::vector<std::string>> cases[] = {
      {[&] { return OP(ReduceArgMax)(fin, {1}); }, {0},
       {"val = 1", "arg = (fin[0, 0] > val) ? 0 : arg // (1 > 1) ? 0 : 0 -> 0",
        "arg = (fin[0, 1] > val) ? 1 : arg // (5 > 1) ? 1 : 0 -> 1",
        "arg = (fin[0, 2] > val) ? 2 : arg // (5 > 5) ? 2 : 1 -> 1", "fout[0] = arg // 1"}},
      {[&] { return OP(ReduceArgMin)(fin, {0}); }, {1},
       {"val = 5", "arg = (fin[0, 1] < val) ? 0 : arg // (5 > 5) ? 0 : 0 -> 0",
        "arg = (fin[1, 1] < val) ? 1 : arg // (0.5 > 5) ? 1 : 0 -> 1", "fout[1] = arg // 1"}},
      {[&] { return OP(ReduceSum)(bytes, {1}, false, si16); }, {0},
       {"fout[0] += fin[0, 0] // 0 += 100 -> 100", "fout[0] += fin[0, 1] // 100 += 100 -> 200"}},
      {[&] {
         Tensor out = Tensor::create(f32, {2, 3});
         EXPECT_TRUE(native::CumSum(out, fin, 1, true, true).ok());
         return out;
       }, {1, 0},
       {"fout[1, 0] += fin[1, 2] // 0 += -1 -> -1", "fout[1, 0] += fin[1, 1] // -1 += 0.5 -> -0.5"}},
      {[&] { return OP(ReduceSum)(fin, {1}); }, {2}, {}},     // outside the output
  };
  for (const auto& [run, point, lines] : cases) expectTrace(run, point, lines);
}

TEST(ReduceFailures, ExactTextsAndNothingWritten) {
  Tensor fin = f32s({2, 3}, {1, 2, 3, 4, 5, 6}), h16 = fin.cast(f16), u8 = Tensor::create(ui8, {2, 3});
  Tensor s16 = fin.cast(si16), s32 = fin.cast(si32), bf = Tensor::create(vbf16, {2, 3}), noData(f32, {2, 3});
  Tensor out = f32s({2}, {9, 9}), out16 = f32s({2}, {9, 9}).cast(f16), outS32 = ints(si32, {9, 9});
  Tensor outBool = tensorOf<uint8_t>(bool8, {2}, {9, 9}), kept = Tensor::create(f32, {2, 3});
  Tensor none = Tensor::create(f32, {2, 0}), o16 = Tensor::create(f16, {2, 3}), untyped, typed(f32, {});
  expectFailures({
      {"ReduceMax config error: invalid reduce axis 2, finRank 2", CALL(ReduceMaxConfig(untyped, fin, {2}, false))},
      {"ReduceArgMax config error: ReduceArg op can have only one reduced axis",
       CALL(ReduceArgMaxConfig(untyped, fin, {0, 1}, false))},
      {"ReduceArgMin config error: reduce arg min fout must be integer", CALL(ReduceArgMinConfig(typed, fin, {1}, false))},
      {"ReduceLp config error: p should be at least 1, but got 0", CALL(ReduceLpConfig(untyped, fin, 0))},
      {"CumSum config error: invalid cumsum axis 2, finRank 2", CALL(CumSumConfig(untyped, fin, 2, false, false))},
      {"invalid reduce axis -1, finRank 2", CALL(ReduceSum(out, fin, {-3}, false))},
      {"input and output rank miss", CALL(ReduceSum(out, fin, {}, false))},
      {"reduced axis should be 1", CALL(ReduceSum(kept, fin, {1}, true))},
      {"non reduced axis should identical to fin", CALL(ReduceMax(out, fin, {0}, false))},
      {"reduce max fin and fout must be the same", CALL(ReduceMax(out16, fin, {1}, false))},
      {"reduce arg max fout must be integer", CALL(ReduceArgMax(out, fin, {1}, false))},
      {"ReduceArg op can have only one reduced axis", CALL(ReduceArgMin(outS32, fin, {0, 1}, false))},
      {"float reduce sum fin and fout must be the same", CALL(ReduceSum(out16, fin, {1}, false))},
      {"quant reduce sum fin should be in [si8, si16, s32, s64]", CALL(ReduceSum(outS32, u8, {1}, false))},
      {"input and output element type miss", CALL(ReduceSum(out, s16, {1}, false))},
      {"fin must be f32 or f16", CALL(ReduceMean(outS32, s32, {1}, false))},
      {"fin and fout must be the same type", CALL(ReduceMean(out16, fin, {1}, false))},
      {"reduce prod fin and fout must be high-precision numeric tensors (i.e. float, half, int32, int64)",
       CALL(ReduceProd(outS32, u8, {1}, false))},
      {"reduce prod fin and fout must have the same type", CALL(ReduceProd(out, s32, {1}, false))},
      {"reduce sumsquare fin and fout must be high-precision numeric tensors (i.e. float, half, int32 and int64)",
       CALL(ReduceSumSquare(out, bf, {1}, false))},
      {"tensor.all fin should be in [si8, si16, s32, s64, float32, float16, bool]",
       CALL(ReduceAll(outBool, u8, {1}, false))},
      {"reduced axis 1 is empty", CALL(ReduceMax(out, none, {1}, false))},
      {"fout and fin must hold data", CALL(ReduceSum(out, noData, {1}, false))},
      {"shape mismatch", CALL(ReduceLp(out, fin, 2))},
      {"float cumsum fin and fout must be the same", CALL(CumSum(o16, fin, 0, false, false))},
      {"quant cumsum fin should be in [si8, si16, s32, s64]", CALL(CumSum(u8, u8, 0, false, false))},
  });
  EXPECT_EQ(valuesOf<float>(out), (std::vector<float>{9, 9}));
  EXPECT_EQ(valuesOf<float>(out16.cast(f32)), (std::vector<float>{9, 9}));
  EXPECT_EQ(valuesOf<int32_t>(outS32), (std::vector<int32_t>{9, 9}));
  EXPECT_EQ(valuesOf<uint8_t>(outBool), (std::vector<uint8_t>{9, 9}));
}
