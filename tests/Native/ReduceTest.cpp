// The reductions and CumSum: sums against the sequential sum built in the
// test from each group's element list (on data where another order gives
// other bits), every layout the kernels walk (compact, transposed, sliced,
// broadcast), hand-worked values for each member, trace lines, failure
// texts and the type traps.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <functional>
#include <limits>
#include <random>

#include "TestUtil.h"

using namespace kora;
using test::bitsOf;
using test::tensorOf;
using test::valuesOf;

namespace {

using Dims = std::vector<int64_t>;
using ReduceFn = Status (*)(Tensor&, Tensor const&, Dims const&, bool);

const float kInf = std::numeric_limits<float>::infinity();
const float kNaN = std::numeric_limits<float>::quiet_NaN();

struct Reduce {
  ReduceFn config, impl;
  Tensor operator()(const Tensor& fin, Dims dims, bool keep = false, ElementType outType = ElementType::invalid) const {
    Tensor out(outType, {});
    Status s = config(out, fin, dims, keep);
    EXPECT_TRUE(s.ok()) << s.message();
    out.allocate();
    s = impl(out, fin, dims, keep);
    EXPECT_TRUE(s.ok()) << s.message();
    return out;
  }
};

#define OP(Name) Reduce{native::Name##Config, native::Name}

// For every output (row-major over fin's shape with the reduced axes at
// size 1), the row-major indices of its group's elements, walked by an
// odometer over the reduced axes alone.
std::vector<std::vector<long>> groupIndices(const std::vector<long>& shape, const std::vector<bool>& reduced) {
  std::vector<long> kept = shape, inner;
  for (size_t a = 0; a < shape.size(); ++a) {
    if (reduced[a]) kept[a] = 1, inner.push_back(shape[a]);
  }
  const auto strides = getStrides(shape, 1), keptStrides = getStrides(kept, 1), innerStrides = getStrides(inner, 1);
  long outputs = 1, members = 1;
  for (long s : kept) outputs *= s;
  for (long s : inner) members *= s;
  std::vector<std::vector<long>> groups(outputs);
  for (long o = 0; o < outputs; ++o) {
    const auto oc = getCoord(o, kept, keptStrides);
    for (long r = 0; r < members; ++r) {
      const auto rc = getCoord(r, inner, innerStrides);
      long index = 0;
      for (size_t a = 0, k = 0; a < shape.size(); ++a) index += (reduced[a] ? rc[k++] : oc[a]) * strides[a];
      groups[o].push_back(index);
    }
  }
  return groups;
}

std::vector<bool> reducedAxes(size_t rank, const Dims& dims) {
  std::vector<bool> r(rank, dims.empty());
  for (int64_t d : dims) r[size_t(d < 0 ? d + int64_t(rank) : d)] = true;
  return r;
}

// Values spread over 2^-10 .. 2^20 with both signs: sums of them round
// differently in almost any other order.
std::vector<float> spreadValues(size_t n, unsigned seed, int minExp = -10, int maxExp = 20) {
  std::mt19937 rng(seed);
  std::uniform_int_distribution<int> exponent(minExp, maxExp), mantissa(1 << 20, (1 << 21) - 1);
  std::vector<float> v(n);
  for (float& x : v) x = std::ldexp(float(mantissa(rng)) * ((rng() & 1) ? -1.0f : 1.0f), exponent(rng) - 20);
  return v;
}

// The same logical tensor in the layouts the kernels must walk.
std::vector<std::pair<std::string, Tensor>> layoutsOf(const Tensor& compact) {
  std::vector<std::pair<std::string, Tensor>> result = {{"compact", compact}};
  const long rank = long(compact.rank());
  if (rank >= 2) {
    std::vector<long> shape = compact.shape().vec(), reversedShape(shape.rbegin(), shape.rend()), order;
    for (long a = rank - 1; a >= 0; --a) order.push_back(a);
    Tensor transposed = Tensor::create(compact.elementType(), reversedShape).permute(order);
    copyElements(transposed, compact);
    result.emplace_back("transposed", transposed);
  }
  if (rank >= 1) {
    std::vector<long> wide = compact.shape().vec();
    wide.back() *= 2;
    Tensor sliced = Tensor::create(compact.elementType(), wide).slice(rank - 1, 0, wide.back(), 2);
    copyElements(sliced, compact);
    result.emplace_back("sliced", sliced);
  }
  return result;
}

struct SumCase {
  std::vector<long> shape;
  Dims dims;
};

// Shapes whose groups come as runs of one accumulator (last axes), as lanes
// (first axes) and mixed, with fewer and more than eight runs in a row.
const SumCase kSumCases[] = {
    {{7}, {0}},          {{17, 33}, {1}},        {{33, 17}, {0}},        {{3, 2, 5}, {0, 2}},
    {{2, 9, 3}, {1}},    {{6, 4, 3, 2}, {1, 3}}, {{6, 4, 3, 2}, {0, 2}}, {{5, 1, 7}, {0, 1}},
    {{4, 5, 6}, {}},     {{4, 5, 6}, {-1, -3}},  {{12, 10}, {0, 1}},     {{2, 3, 4}, {2, 2}},
};

std::vector<long> outputShape(const std::vector<long>& shape, const std::vector<bool>& reduced, bool keep) {
  std::vector<long> out;
  for (size_t a = 0; a < shape.size(); ++a)
    if (!reduced[a] || keep) out.push_back(reduced[a] ? 1 : shape[a]);
  return out;
}

}  // namespace

TEST(ReduceConfig, ShapesFollowTheAxesAndTheKeepFlag) {
  struct Case {
    std::vector<long> shape;
    Dims dims;
    bool keep;
    std::vector<long> out;
  };
  const Case cases[] = {
      {{2, 3, 4}, {1}, false, {2, 4}},   {{2, 3, 4}, {1}, true, {2, 1, 4}},   {{2, 3, 4}, {-1}, false, {2, 3}},
      {{2, 3, 4}, {0, 2}, true, {1, 3, 1}}, {{2, 3, 4}, {}, false, {}},     {{2, 3, 4}, {}, true, {1, 1, 1}},
      {{2, 3, 4}, {2, -1}, false, {2, 3}}, {{}, {}, false, {}},             {{5}, {0}, true, {1}},
  };
  for (const Case& c : cases) {
    Tensor fin = Tensor::create(ElementType::f16, c.shape), out;
    ASSERT_TRUE(native::ReduceSumConfig(out, fin, c.dims, c.keep).ok());
    EXPECT_EQ(out.type(), TensorType(ElementType::f16, c.out)) << "dims " << c.dims.size() << " keep " << c.keep;
  }
  // The Arg members default to si64 and keep a set integer type.
  Tensor fin = Tensor::create(ElementType::f32, {2, 3}), arg, typed(ElementType::ui8, {});
  ASSERT_TRUE(native::ReduceArgMaxConfig(arg, fin, {1}, false).ok());
  EXPECT_EQ(arg.type(), TensorType(ElementType::si64, {2}));
  ASSERT_TRUE(native::ReduceArgMinConfig(typed, fin, {0}, true).ok());
  EXPECT_EQ(typed.type(), TensorType(ElementType::ui8, {1, 3}));
  Tensor lp, cum;
  ASSERT_TRUE(native::ReduceLpConfig(lp, fin, 3).ok());
  EXPECT_EQ(lp.type(), TensorType(ElementType::f32, {}));
  ASSERT_TRUE(native::CumSumConfig(cum, fin, -1, true, false).ok());
  EXPECT_EQ(cum.type(), TensorType(ElementType::f32, {2, 3}));
}

TEST(ReduceSum, EqualsTheSequentialSumOnEveryLayout) {
  for (const SumCase& c : kSumCases) {
    long n = 1;
    for (long s : c.shape) n *= s;
    const auto values = spreadValues(size_t(n), unsigned(n));
    const auto reduced = reducedAxes(c.shape.size(), c.dims);
    const auto groups = groupIndices(c.shape, reduced);
    std::vector<uint32_t> expected32;
    std::vector<uint16_t> expected16;
    bool orderMatters = false;
    for (const auto& g : groups) {
      float acc = 0.0f, accHalf = 0.0f;
      double exact = 0.0;
      for (long i : g) {
        acc = acc + values[i];
        accHalf = accHalf + half(values[i]).toFloat();
        exact += values[i];
      }
      orderMatters |= double(acc) != exact;
      expected32.push_back(std::bit_cast<uint32_t>(acc));
      expected16.push_back(half(accHalf).bits);
    }
    if (n > 20) {
      EXPECT_TRUE(orderMatters) << "the data must tell orders apart";
    }
    Tensor compact = tensorOf<float>(ElementType::f32, c.shape, values);
    for (bool keep : {false, true}) {
      for (const auto& [layout, fin] : layoutsOf(compact)) {
        SCOPED_TRACE(layout + " keep " + std::to_string(keep) + " rank " + std::to_string(c.shape.size()));
        Tensor out = OP(ReduceSum)(fin, c.dims, keep);
        EXPECT_EQ(out.shape().vec(), outputShape(c.shape, reduced, keep));
        EXPECT_EQ(bitsOf<float>(out), expected32);
        EXPECT_EQ(bitsOf<half>(OP(ReduceSum)(fin.cast(ElementType::f16), c.dims, keep)), expected16) << "f16";
      }
    }
  }
}

TEST(ReduceSum, HandWorkedOrderAndBroadcastInputs) {
  // 2^24 + 1 rounds back to 2^24, so adding four ones one at a time leaves
  // 2^24; adding them in pairs first would give 2^24 + 4.
  const std::vector<float> column = {16777216.0f, 1, 1, 1, 1};
  Tensor fin = tensorOf<float>(ElementType::f32, {5}, column);
  EXPECT_EQ(valuesOf<float>(OP(ReduceSum)(fin, {0})), std::vector<float>{16777216.0f});
  // Reversed, the ones come first and survive.
  Tensor reversed = tensorOf<float>(ElementType::f32, {5}, {1, 1, 1, 1, 16777216.0f});
  EXPECT_EQ(valuesOf<float>(OP(ReduceSum)(reversed, {0})), std::vector<float>{16777220.0f});
  // As the columns of a [5, 3] matrix and as the rows of its transpose.
  std::vector<float> grid;
  for (float v : column) grid.insert(grid.end(), {v, -v, v / 2});
  Tensor matrix = tensorOf<float>(ElementType::f32, {5, 3}, grid);
  const std::vector<float> sums = {16777216.0f, -16777216.0f, 8388608.0f};  // 2^23 + 0.5 ties to 2^23
  EXPECT_EQ(valuesOf<float>(OP(ReduceSum)(matrix, {0})), sums);
  EXPECT_EQ(valuesOf<float>(OP(ReduceSum)(matrix.permute({1, 0}), {1})), sums);
  // A broadcast input (stride 0) repeats one element.
  Tensor one = tensorOf<float>(ElementType::f32, {1, 3}, {0.1f, 1e8f, -2.5f});
  ASSERT_TRUE(native::broadcastTo(std::vector<long>{4, 3}, one).ok());
  float tenth = 0.0f;
  for (int i = 0; i < 4; ++i) tenth = tenth + 0.1f;
  EXPECT_EQ(valuesOf<float>(OP(ReduceSum)(one, {0})), (std::vector<float>{tenth, 4e8f, -10.0f}));
  EXPECT_EQ(valuesOf<float>(OP(ReduceSum)(one, {1}, true)), std::vector<float>(4, 1e8f));
  // f64 sums in f64, f16 in f32: 2048 + 1 is not an f16, but the f32 sum of
  // 2048 and two ones is 2050, which is.
  Tensor halves = tensorOf<half>(ElementType::f16, {3}, {half(2048.0f), half(1.0f), half(1.0f)});
  EXPECT_EQ(valuesOf<half>(OP(ReduceSum)(halves, {0}))[0].toFloat(), 2050.0f);
  Tensor doubles = tensorOf<double>(ElementType::f64, {3}, {1e17, 1, 1});
  EXPECT_EQ(valuesOf<double>(OP(ReduceSum)(doubles, {0}))[0], 1e17);
}

TEST(ReduceSum, IntegersAreSummedInFoutsOwnType) {
  std::vector<int64_t> wide;
  std::mt19937 rng(3);
  for (int i = 0; i < 6 * 40; ++i) wide.push_back(int64_t(rng() % 256) - 128);
  Tensor fin = tensorOf<int64_t>(ElementType::si64, {6, 40}, wide).cast(ElementType::si8);
  struct Case {
    ElementType out;
    unsigned bits;
    bool isSigned;
  };
  const Case cases[] = {{ElementType::si8, 8, true},   {ElementType::si16, 16, true}, {ElementType::si32, 32, true},
                        {ElementType::si64, 64, true}, {ElementType::ui8, 8, false},  {ElementType::ui64, 64, false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(elementTypeName(c.out));
    const auto got = valuesOf<int64_t>(OP(ReduceSum)(fin, {1}, false, c.out).cast(ElementType::si64));
    for (long r = 0; r < 6; ++r) {
      int64_t sum = 0;
      for (long j = 0; j < 40; ++j) sum += wide[size_t(r * 40 + j)];
      // The exact sum modulo 2^bits, read in the output type.
      const uint64_t mask = c.bits == 64 ? ~uint64_t(0) : (uint64_t(1) << c.bits) - 1;
      uint64_t bitsValue = uint64_t(sum) & mask;
      int64_t expected = int64_t(bitsValue);
      if (c.isSigned && c.bits < 64 && (bitsValue >> (c.bits - 1)) != 0) expected = int64_t(bitsValue) - (int64_t(1) << c.bits);
      if (!c.isSigned && c.bits == 64) expected = int64_t(bitsValue);
      EXPECT_EQ(got[size_t(r)], expected) << "row " << r;
    }
  }
  // si32 wraps at 32 bits; si64 at 64.
  Tensor big = tensorOf<int32_t>(ElementType::si32, {2}, {INT32_MAX, 1});
  EXPECT_EQ(valuesOf<int32_t>(OP(ReduceSum)(big, {0}))[0], INT32_MIN);
  EXPECT_EQ(valuesOf<int64_t>(OP(ReduceSum)(big, {0}, false, ElementType::si64))[0], int64_t(INT32_MAX) + 1);
  Tensor huge = tensorOf<int64_t>(ElementType::si64, {2}, {INT64_MAX, 2});
  EXPECT_EQ(valuesOf<int64_t>(OP(ReduceSum)(huge, {0}))[0], INT64_MIN + 1);
}

TEST(ReduceIntegers, EveryAcceptedTypeAgainstAnInt64Reference) {
  // Each member on each integer type it accepts, as runs (last axis) and as
  // lanes (middle axis): the exact result modulo 2^64, wrapped to the type
  // by Tensor::cast, must match (both read back through the same cast).
  enum class Kind { Max, Min, Sum, Prod, SumSquare, All, ArgMax, ArgMin };
  struct Member {
    const char* name;
    Kind kind;
    Reduce op;
    std::vector<ElementType> types;
  };
  const std::vector<ElementType> signedTypes = {ElementType::si8, ElementType::si16, ElementType::si32,
                                                ElementType::si64};
  std::vector<ElementType> integerTypes = signedTypes;
  integerTypes.insert(integerTypes.end(), {ElementType::ui8, ElementType::ui16, ElementType::ui32, ElementType::ui64});
  const Member members[] = {
      {"max", Kind::Max, OP(ReduceMax), integerTypes},
      {"min", Kind::Min, OP(ReduceMin), integerTypes},
      {"sum", Kind::Sum, OP(ReduceSum), signedTypes},
      {"prod", Kind::Prod, OP(ReduceProd), {ElementType::si32, ElementType::si64}},
      {"sumsquare", Kind::SumSquare, OP(ReduceSumSquare), {ElementType::si32, ElementType::si64}},
      {"all", Kind::All, OP(ReduceAll), signedTypes},
      {"argmax", Kind::ArgMax, OP(ReduceArgMax), integerTypes},
      {"argmin", Kind::ArgMin, OP(ReduceArgMin), integerTypes},
  };
  const std::vector<long> shape = {3, 37, 9};
  std::mt19937_64 rng(17);
  for (const Member& member : members) {
    for (ElementType type : member.types) {
      // Values that fit the type; small ones where products must wrap after
      // a few dozen steps rather than at once, and some zeros for All.
      std::vector<int64_t> values(size_t(3 * 37 * 9));
      for (int64_t& v : values) {
        const uint64_t r = rng();
        if (member.kind == Kind::Prod) v = int64_t(r % 7) - 3;
        else if (member.kind == Kind::All) v = (r % 5 == 0) ? 0 : int64_t(r % 200) - 100;
        else v = int64_t(r);
      }
      Tensor fin = tensorOf<int64_t>(ElementType::si64, shape, values).cast(type);
      const auto stored = valuesOf<int64_t>(fin.cast(ElementType::si64));  // the values as the type holds them
      const bool isUnsigned = isUnsignedInt(type);
      for (int64_t axis : {1, 2}) {
        SCOPED_TRACE(std::string(member.name) + " " + elementTypeName(type) + " axis " + std::to_string(axis));
        const auto groups = groupIndices(shape, reducedAxes(3, {axis}));
        std::vector<int64_t> expected;
        for (const auto& g : groups) {
          uint64_t acc = member.kind == Kind::Prod || member.kind == Kind::All ? 1 : 0;
          int64_t best = 0;
          for (size_t i = 0; i < g.size(); ++i) {
            const int64_t x = stored[size_t(g[i])];
            const uint64_t ux = uint64_t(x);
            const bool less = isUnsigned ? ux < uint64_t(stored[size_t(g[best])]) : x < stored[size_t(g[best])];
            const bool more = isUnsigned ? ux > uint64_t(stored[size_t(g[best])]) : x > stored[size_t(g[best])];
            switch (member.kind) {
              case Kind::Max: case Kind::ArgMax: if (more) best = int64_t(i); break;
              case Kind::Min: case Kind::ArgMin: if (less) best = int64_t(i); break;
              case Kind::Sum: acc += ux; break;
              case Kind::Prod: acc *= ux; break;
              case Kind::SumSquare: acc += ux * ux; break;
              case Kind::All: acc = acc && x != 0; break;
            }
          }
          if (member.kind == Kind::Max || member.kind == Kind::Min) acc = uint64_t(stored[size_t(g[best])]);
          if (member.kind == Kind::ArgMax || member.kind == Kind::ArgMin) acc = uint64_t(best);
          expected.push_back(int64_t(acc));
        }
        const bool arg = member.kind == Kind::ArgMax || member.kind == Kind::ArgMin;
        Tensor out = member.op(fin, {axis}, false, arg ? type : ElementType::invalid);
        EXPECT_EQ(out.elementType(), type);
        Tensor reference = tensorOf<int64_t>(ElementType::si64, out.shape().vec(), expected).cast(type);
        EXPECT_EQ(valuesOf<int64_t>(out.cast(ElementType::si64)), valuesOf<int64_t>(reference.cast(ElementType::si64)));
      }
    }
  }
  // CumSum on every signed type, along runs and lanes.
  for (ElementType type : signedTypes) {
    std::vector<int64_t> values(3 * 37 * 9);
    for (int64_t& v : values) v = int64_t(rng());
    Tensor fin = tensorOf<int64_t>(ElementType::si64, shape, values).cast(type);
    const auto stored = valuesOf<int64_t>(fin.cast(ElementType::si64));
    for (long axis : {0, 2}) {
      SCOPED_TRACE(std::string("cumsum ") + elementTypeName(type) + " axis " + std::to_string(axis));
      std::vector<int64_t> expected(stored.size());
      const auto strides = getStrides(shape, 1);
      for (size_t i = 0; i < stored.size(); ++i) {
        const auto c = getCoord(long(i), shape, strides);
        uint64_t acc = 0;
        for (long j = 0; j <= c[size_t(axis)]; ++j) acc += uint64_t(stored[size_t(long(i) + (j - c[size_t(axis)]) * strides[size_t(axis)])]);
        expected[i] = int64_t(acc);
      }
      Tensor out = Tensor::create(type, shape);
      ASSERT_TRUE(native::CumSum(out, fin, axis, false, false).ok());
      Tensor reference = tensorOf<int64_t>(ElementType::si64, shape, expected).cast(type);
      EXPECT_EQ(valuesOf<int64_t>(out.cast(ElementType::si64)), valuesOf<int64_t>(reference.cast(ElementType::si64)));
    }
  }
}

TEST(ReduceMean, EachElementIsScaledBeforeItIsAdded) {
  struct Case {
    const char* what;
    std::vector<float> values;
    uint32_t bits;
  };
  const Case cases[] = {
      {"three ones", {1, 1, 1}, std::bit_cast<uint32_t>(1.0f)},
      // 0.1f added ten times is 1.0000001 (0x3f800001), while 10 / 10 is 1.
      {"ten ones", std::vector<float>(10, 1.0f), 0x3f800001u},
      {"mixed", {2, -4, 8, 6}, std::bit_cast<uint32_t>(3.0f)},
  };
  for (const Case& c : cases) {
    Tensor fin = tensorOf<float>(ElementType::f32, {1, long(c.values.size())}, c.values);
    EXPECT_EQ(bitsOf<float>(OP(ReduceMean)(fin, {1})), std::vector<uint32_t>{c.bits}) << c.what;
  }
  // f16 in f32: ten ones give 1.0000001, which narrows to 1.
  Tensor halves = tensorOf<half>(ElementType::f16, {10}, std::vector<half>(10, half(1.0f)));
  EXPECT_EQ(bitsOf<half>(OP(ReduceMean)(halves, {0})), std::vector<uint16_t>{0x3c00});
  // An empty group has no mean.
  Tensor empty = Tensor::create(ElementType::f32, {2, 0});
  const auto mean = valuesOf<float>(OP(ReduceMean)(empty, {1}));
  ASSERT_EQ(mean.size(), 2u);
  EXPECT_TRUE(std::isnan(mean[0]) && std::isnan(mean[1]));
}

TEST(ReduceMaxMin, SpecialValuesAndTheElementwiseFold) {
  struct Case {
    const char* what;
    Reduce op;
    std::vector<float> values;
    float expected;
  };
  const Case cases[] = {
      {"max", OP(ReduceMax), {-3, 7, 2, 7}, 7},          {"min", OP(ReduceMin), {-3, 7, -8, 2}, -8},
      {"max NaN", OP(ReduceMax), {1, kNaN, 5}, kNaN},    {"min NaN last", OP(ReduceMin), {1, 0, kNaN}, kNaN},
      {"max zeros", OP(ReduceMax), {-0.0f, 0.0f}, 0.0f}, {"min zeros", OP(ReduceMin), {0.0f, -0.0f}, -0.0f},
      {"max -inf", OP(ReduceMax), {-kInf, -kInf}, -kInf}, {"min inf", OP(ReduceMin), {kInf, 3}, 3},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Tensor fin = tensorOf<float>(ElementType::f32, {long(c.values.size())}, c.values);
    const float got = valuesOf<float>(c.op(fin, {0}))[0];
    if (std::isnan(c.expected)) {
      EXPECT_TRUE(std::isnan(got));
    } else {
      EXPECT_EQ(std::bit_cast<uint32_t>(got), std::bit_cast<uint32_t>(c.expected));
    }
    const half h = valuesOf<half>(c.op(fin.cast(ElementType::f16), {0}))[0];
    if (std::isnan(c.expected)) {
      EXPECT_TRUE(std::isnan(h.toFloat())) << "f16";
    } else {
      EXPECT_EQ(h.bits, half(c.expected).bits) << "f16";
    }
  }
  // Integers over their whole range.
  Tensor u = tensorOf<uint64_t>(ElementType::ui64, {3}, {5, UINT64_MAX, 0});
  EXPECT_EQ(valuesOf<uint64_t>(OP(ReduceMax)(u, {0}))[0], UINT64_MAX);
  EXPECT_EQ(valuesOf<uint64_t>(OP(ReduceMin)(u, {0}))[0], 0u);
  Tensor s = tensorOf<int8_t>(ElementType::si8, {2, 2}, {-128, 127, 0, -1});
  EXPECT_EQ(valuesOf<int8_t>(OP(ReduceMax)(s, {0})), (std::vector<int8_t>{0, 127}));
  EXPECT_EQ(valuesOf<int8_t>(OP(ReduceMin)(s, {1})), (std::vector<int8_t>{-128, -1}));
  // Over the first axis, ReduceMax equals native::Max applied slice after slice.
  const auto values = spreadValues(5 * 12, 9);
  std::vector<float> withSpecials = values;
  withSpecials[7] = kNaN, withSpecials[13] = -0.0f, withSpecials[1] = 0.0f, withSpecials[20] = kInf;
  Tensor fin = tensorOf<float>(ElementType::f32, {5, 12}, withSpecials);
  using BinaryFn = Status (*)(Tensor&, Tensor const&, Tensor const&);
  const std::tuple<const char*, Reduce, BinaryFn> folds[] = {{"max", OP(ReduceMax), native::Max},
                                                             {"min", OP(ReduceMin), native::Min}};
  for (const auto& [name, reduce, binary] : folds) {
    Tensor acc = Tensor::create(ElementType::f32, {12});
    copyElements(acc, Tensor(std::vector<long>{12}, std::vector<long>{4}, ElementType::f32, 0, fin.storage()));
    for (long r = 0; r < 5; ++r) {
      Tensor row(std::vector<long>{12}, std::vector<long>{4}, ElementType::f32, r * 48, fin.storage());
      ASSERT_TRUE(binary(acc, row, acc).ok());
    }
    const auto expected = valuesOf<float>(acc), got = valuesOf<float>(reduce(fin, {0}));
    for (size_t j = 0; j < 12; ++j)
      EXPECT_TRUE(std::bit_cast<uint32_t>(got[j]) == std::bit_cast<uint32_t>(expected[j]) ||
                  (std::isnan(got[j]) && std::isnan(expected[j])))
          << name << " column " << j;
  }
}

TEST(ReduceArg, FirstExtremeWinsAlongTheOneAxis) {
  struct Case {
    const char* what;
    Reduce op;
    std::vector<long> shape;
    std::vector<float> values;
    int64_t axis;
    std::vector<int64_t> expected;
  };
  const Case cases[] = {
      {"argmax", OP(ReduceArgMax), {4}, {1, 5, 5, 2}, 0, {1}},
      {"argmin", OP(ReduceArgMin), {3}, {3, 1, 1}, 0, {1}},
      {"argmax NaN later is never chosen", OP(ReduceArgMax), {3}, {1, kNaN, 0}, 0, {0}},
      {"argmax NaN first stays", OP(ReduceArgMax), {3}, {kNaN, 9, 10}, 0, {0}},
      {"argmin zeros tie", OP(ReduceArgMin), {2}, {0.0f, -0.0f}, 0, {0}},
      {"argmax rows", OP(ReduceArgMax), {2, 3}, {1, 9, 9, -1, -2, -0.5f}, 1, {1, 2}},
      {"argmin columns", OP(ReduceArgMin), {2, 3}, {1, 9, 9, -1, 9, 10}, 0, {1, 0, 0}},
      {"argmax negative axis", OP(ReduceArgMax), {2, 2, 2}, {0, 1, 2, 3, 7, 6, 5, 4}, -2, {1, 1, 0, 0}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Tensor fin = tensorOf<float>(ElementType::f32, c.shape, c.values);
    for (const auto& [layout, view] : layoutsOf(fin)) {
      EXPECT_EQ(valuesOf<int64_t>(c.op(view, {c.axis})), c.expected) << layout;
      EXPECT_EQ(valuesOf<int64_t>(c.op(view.cast(ElementType::f16), {c.axis})), c.expected) << layout << " f16";
    }
  }
  // Integer inputs and narrow integer outputs; the kept axis has size 1.
  Tensor ints = tensorOf<int32_t>(ElementType::si32, {2, 3}, {INT32_MIN, 4, 4, 7, INT32_MAX, 0});
  Tensor out = OP(ReduceArgMax)(ints, {1}, true, ElementType::ui8);
  EXPECT_EQ(out.type(), TensorType(ElementType::ui8, {2, 1}));
  EXPECT_EQ(valuesOf<uint8_t>(out), (std::vector<uint8_t>{1, 1}));
  EXPECT_EQ(valuesOf<int16_t>(OP(ReduceArgMin)(ints, {0}, false, ElementType::si16)), (std::vector<int16_t>{0, 0, 1}));
  // An index of 200 does not fit in si8, 127 does.
  Tensor longRow = Tensor::create(ElementType::f32, {201});
  for (long i = 0; i < 201; ++i) longRow.data<float>().data()[i] = float(i == 150);
  Tensor small = Tensor::create(ElementType::si8, {});
  EXPECT_EQ(native::ReduceArgMax(small, longRow, {0}, false).message(), "reduce arg index 200 does not fit in fout si8");
  EXPECT_EQ(valuesOf<int8_t>(OP(ReduceArgMax)(longRow.slice(0, 0, 128), {0}, false, ElementType::si8))[0], 0);
  EXPECT_EQ(valuesOf<uint8_t>(OP(ReduceArgMax)(longRow, {0}, false, ElementType::ui8))[0], 150);
}

TEST(ReduceMembers, HandWorkedValuesPerMember) {
  struct Case {
    const char* what;
    Reduce op;
    Tensor fin;
    Dims dims;
    std::vector<double> expected;  // in fout's type, read as double
  };
  auto f32 = [](std::vector<long> shape, std::vector<float> v) {
    return v.empty() ? Tensor::create(ElementType::f32, shape) : tensorOf<float>(ElementType::f32, shape, v);
  };
  auto si = [](ElementType t, std::vector<long> shape, std::vector<int64_t> v) {
    return tensorOf<int64_t>(ElementType::si64, shape, v).cast(t);
  };
  const Case cases[] = {
      {"prod", OP(ReduceProd), f32({2, 3}, {1, 2, 3, -1, 0.5f, 4}), {1}, {6, -2}},
      {"prod starts at 1", OP(ReduceProd), f32({2, 0}, {}), {1}, {1, 1}},
      {"prod si32 wraps", OP(ReduceProd), si(ElementType::si32, {3}, {65536, 65536, 3}), {0}, {0}},
      {"prod si64", OP(ReduceProd), si(ElementType::si64, {3}, {-3, 1 << 30, 1 << 30}), {0}, {-3.0 * 1073741824.0 * 1073741824.0}},
      {"prod f16 in f32", OP(ReduceProd), f32({3}, {300, 300, 0.001f}).cast(ElementType::f16), {0}, {90.0625}},
      {"sumsquare", OP(ReduceSumSquare), f32({2, 2}, {3, 4, -1, 0.5f}), {1}, {25, 1.25}},
      {"sumsquare si32 wraps", OP(ReduceSumSquare), si(ElementType::si32, {2}, {46341, 0}), {0}, {-2147479015.0}},
      {"logsum", OP(ReduceLogSum), f32({2}, {1.5f, 1.0f}), {0}, {double(logf(2.5f))}},
      {"logsum of zeros", OP(ReduceLogSum), f32({2}, {0, -0.0f}), {0}, {-kInf}},
      {"all f32", OP(ReduceAll), f32({3, 2}, {1, kNaN, -0.0f, 2, 5, -5}), {1}, {1, 0, 1}},
      {"all si16", OP(ReduceAll), si(ElementType::si16, {2, 2}, {-1, 2, 0, 3}), {0}, {0, 1}},
      {"all of nothing", OP(ReduceAll), f32({0, 2}, {}), {0}, {1, 1}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Tensor out = c.op(c.fin, c.dims);
    EXPECT_EQ(out.elementType(), c.fin.elementType());
    const auto got = valuesOf<double>(out.cast(ElementType::f64));
    ASSERT_EQ(got.size(), c.expected.size());
    for (size_t i = 0; i < got.size(); ++i) EXPECT_EQ(got[i], c.expected[i]) << i;
  }
  // ReduceAll into bool8, from bool8 bytes that are neither 0 nor 1.
  Tensor bytes = tensorOf<uint8_t>(ElementType::bool8, {2, 2}, {7, 0, 2, 255});
  EXPECT_EQ(valuesOf<uint8_t>(OP(ReduceAll)(bytes, {1})), (std::vector<uint8_t>{0, 1}));
  EXPECT_EQ(valuesOf<uint8_t>(OP(ReduceAll)(tensorOf<int64_t>(ElementType::si64, {2}, {4, -9}), {0}, false,
                                            ElementType::bool8)),
            std::vector<uint8_t>{1});
}

TEST(ReduceLogSumExp, ShiftsByTheMaximum) {
  struct Case {
    const char* what;
    std::vector<float> values;
    double expected;  // exact, or an infinity / NaN
  };
  const Case cases[] = {
      {"large", {1000, 1000}, 1000.0 + std::log(2.0)},
      {"mixed", {-1, 0, 2.5f}, std::log(std::exp(-1.0) + 1.0 + std::exp(2.5))},
      {"one -inf", {-kInf, 3}, 3},
      {"all -inf", {-kInf, -kInf}, -kInf},
      {"+inf", {2, kInf}, kInf},
      {"NaN", {2, kNaN}, kNaN},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Tensor fin = tensorOf<float>(ElementType::f32, {1, long(c.values.size())}, c.values);
    const float got = valuesOf<float>(OP(ReduceLogSumExp)(fin, {1}))[0];
    if (std::isnan(c.expected)) {
      EXPECT_TRUE(std::isnan(got));
    } else if (std::isinf(c.expected)) {
      EXPECT_EQ(got, float(c.expected));
    } else {
      // A few roundings of single precision functions away from exact.
      EXPECT_NEAR(got, c.expected, 4 * std::ldexp(1.0, std::ilogb(c.expected) - 23));
    }
  }
  Tensor empty = Tensor::create(ElementType::f16, {3, 0});
  EXPECT_EQ(valuesOf<half>(OP(ReduceLogSumExp)(empty, {1}))[0].toFloat(), -kInf);
}

TEST(ReduceLp, NormsOfAllElements) {
  struct Case {
    std::vector<float> values;
    int64_t p;
    double expected;
  };
  const Case cases[] = {
      {{3, -4}, 2, 5}, {{-1, 2, -3}, 1, 6}, {{0, 0}, 2, 0}, {{2, -2}, 3, std::cbrt(16.0)}, {{1, 2, 3, 4}, 4, std::pow(354.0, 0.25)},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.p);
    Tensor fin = tensorOf<float>(ElementType::f32, {long(c.values.size())}, c.values);
    Tensor out;
    ASSERT_TRUE(native::ReduceLpConfig(out, fin, c.p).ok());
    out.allocate();
    ASSERT_TRUE(native::ReduceLp(out, fin, c.p).ok());
    EXPECT_NEAR(valuesOf<float>(out)[0], c.expected, 2e-6 * c.expected);
    // Any one-element fout, and f16 through f32.
    Tensor one = Tensor::create(ElementType::f16, {1, 1});
    ASSERT_TRUE(native::ReduceLp(one, fin.cast(ElementType::f16), c.p).ok());
    EXPECT_NEAR(valuesOf<half>(one)[0].toFloat(), c.expected, 1e-3 * c.expected);
  }
  // The order 2 is exact: sqrtf of the sum of squares.
  Tensor fin = tensorOf<float>(ElementType::f32, {2, 2}, {1e-3f, 7, 0.5f, -2});
  Tensor out = Tensor::create(ElementType::f32, {});
  ASSERT_TRUE(native::ReduceLp(out, fin.permute({1, 0}), 2).ok());
  EXPECT_EQ(valuesOf<float>(out)[0], sqrtf(((1e-3f * 1e-3f + 0.5f * 0.5f) + 7.0f * 7.0f) + 4.0f));
}

TEST(CumSum, FlagsAxesAndLayouts) {
  // Each output is the running sum in the line's own order: with 2^24 first,
  // later ones are lost; reversed they are kept until 2^24 is reached.
  const std::vector<float> line = {16777216.0f, 1, 1, 1};
  struct Case {
    bool exclusive, reverse;
    std::vector<float> expected;
  };
  const Case cases[] = {
      {false, false, {16777216.0f, 16777216.0f, 16777216.0f, 16777216.0f}},
      {true, false, {0, 16777216.0f, 16777216.0f, 16777216.0f}},
      {false, true, {16777220.0f, 3, 2, 1}},
      {true, true, {3, 2, 1, 0}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string("exclusive ") + std::to_string(c.exclusive) + " reverse " + std::to_string(c.reverse));
    // Along the last axis of [3, 4] rows (scaled by powers of two, which
    // round alike), and along the first axis of the transpose.
    std::vector<float> rows;
    for (int r = 0; r < 3; ++r)
      for (float v : line) rows.push_back(v * float(1 << r));
    Tensor fin = tensorOf<float>(ElementType::f32, {3, 4}, rows);
    std::vector<float> expected;
    for (int r = 0; r < 3; ++r)
      for (float v : c.expected) expected.push_back(v * float(1 << r));
    for (const auto& [layout, view] : layoutsOf(fin)) {
      Tensor out = Tensor::create(ElementType::f32, {3, 4});
      ASSERT_TRUE(native::CumSum(out, view, 1, c.exclusive, c.reverse).ok());
      EXPECT_EQ(valuesOf<float>(out), expected) << layout;
      Tensor columns = Tensor::create(ElementType::f32, {4, 3});
      ASSERT_TRUE(native::CumSum(columns, view.permute({1, 0}), 0, c.exclusive, c.reverse).ok());
      EXPECT_EQ(valuesOf<float>(columns.permute({1, 0})), expected) << layout << " axis 0";
    }
    // In place.
    Tensor inPlace = tensorOf<float>(ElementType::f32, {4}, line);
    ASSERT_TRUE(native::CumSum(inPlace, inPlace, -1, c.exclusive, c.reverse).ok());
    EXPECT_EQ(valuesOf<float>(inPlace), c.expected) << "in place";
  }
  // Many lanes side by side (axis 0 of a wide matrix) against the line loop
  // on its transpose, f16 through f32 with one narrowing per output.
  const auto values = spreadValues(300 * 5, 11, -6, 6);
  Tensor wide = tensorOf<float>(ElementType::f32, {5, 300}, values).cast(ElementType::f16);
  Tensor lanes = Tensor::create(ElementType::f16, {5, 300});
  ASSERT_TRUE(native::CumSum(lanes, wide, 0, false, true).ok());
  const auto got = bitsOf<half>(lanes);
  for (long j = 0; j < 300; ++j) {
    float acc = 0.0f;
    for (long i = 4; i >= 0; --i) {
      acc = acc + half(values[size_t(i * 300 + j)]).toFloat();
      ASSERT_EQ(got[size_t(i * 300 + j)], half(acc).bits) << i << ", " << j;
    }
  }
  // Integers wrap in fout's type, which may be wider than fin's.
  Tensor ints = tensorOf<int8_t>(ElementType::si8, {3}, {100, 100, -56});
  Tensor narrow = Tensor::create(ElementType::si8, {3}), widened = Tensor::create(ElementType::si32, {3});
  ASSERT_TRUE(native::CumSum(narrow, ints, 0, false, false).ok());
  ASSERT_TRUE(native::CumSum(widened, ints, 0, false, false).ok());
  EXPECT_EQ(valuesOf<int8_t>(narrow), (std::vector<int8_t>{100, -56, -112}));
  EXPECT_EQ(valuesOf<int32_t>(widened), (std::vector<int32_t>{100, 200, 144}));
}

TEST(ReduceTrace, OneLinePerStep) {
  Tensor fin = tensorOf<float>(ElementType::f32, {2, 3}, {1, 5, 5, 2, 0.5f, -1});
  Tensor ints = tensorOf<int8_t>(ElementType::si8, {2, 2}, {100, 100, -3, 4});
  struct Case {
    const char* what;
    std::function<Tensor()> run;
    std::vector<long> point;
    std::vector<std::string> lines;
  };
  const Case cases[] = {
      {"max", [&] { return OP(ReduceMax)(fin, {1}); }, {0},
       {"val = 1", "val = max(fin[0, 0], val) // max(1, 1) -> 1", "val = max(fin[0, 1], val) // max(5, 1) -> 5",
        "val = max(fin[0, 2], val) // max(5, 5) -> 5", "fout[0] = val // 5"}},
      {"min keep", [&] { return OP(ReduceMin)(fin, {0}, true); }, {0, 2},
       {"val = 5", "val = min(fin[0, 2], val) // min(5, 5) -> 5", "val = min(fin[1, 2], val) // min(-1, 5) -> -1",
        "fout[0, 2] = val // -1"}},
      {"argmax", [&] { return OP(ReduceArgMax)(fin, {1}); }, {0},
       {"val = 1", "arg = (fin[0, 0] > val) ? 0 : arg // (1 > 1) ? 0 : 0 -> 0",
        "arg = (fin[0, 1] > val) ? 1 : arg // (5 > 1) ? 1 : 0 -> 1",
        "arg = (fin[0, 2] > val) ? 2 : arg // (5 > 5) ? 2 : 1 -> 1", "fout[0] = arg // 1"}},
      {"argmin", [&] { return OP(ReduceArgMin)(fin, {0}); }, {1},
       {"val = 5", "arg = (fin[0, 1] < val) ? 0 : arg // (5 > 5) ? 0 : 0 -> 0",
        "arg = (fin[1, 1] < val) ? 1 : arg // (0.5 > 5) ? 1 : 0 -> 1", "fout[1] = arg // 1"}},
      {"sum widened", [&] { return OP(ReduceSum)(ints, {1}, false, ElementType::si16); }, {0},
       {"fout[0] += fin[0, 0] // 0 += 100 -> 100", "fout[0] += fin[0, 1] // 100 += 100 -> 200"}},
      {"sum over two axes", [&] { return OP(ReduceSum)(fin, {}, true); }, {0, 0},
       {"fout[0, 0] += fin[0, 0] // 0 += 1 -> 1", "fout[0, 0] += fin[0, 1] // 1 += 5 -> 6",
        "fout[0, 0] += fin[0, 2] // 6 += 5 -> 11", "fout[0, 0] += fin[1, 0] // 11 += 2 -> 13",
        "fout[0, 0] += fin[1, 1] // 13 += 0.5 -> 13.5", "fout[0, 0] += fin[1, 2] // 13.5 += -1 -> 12.5"}},
      {"mean", [&] { return OP(ReduceMean)(fin, {0}); }, {0},
       {"fout[0] += fin[0, 0] * divisor // 0 += 1 * 0.5 -> 0.5", "fout[0] += fin[1, 0] * divisor // 0.5 += 2 * 0.5 -> 1.5"}},
      {"prod", [&] { return OP(ReduceProd)(fin, {0}); }, {2},
       {"fout[2] *= fin[0, 2] // 1 *= 5 -> 5", "fout[2] *= fin[1, 2] // 5 *= -1 -> -5"}},
      {"sumsquare", [&] { return OP(ReduceSumSquare)(fin, {0}); }, {1},
       {"fout[1] += fin[0, 1] * fin[0, 1] // 0 += 5 * 5 -> 25", "fout[1] += fin[1, 1] * fin[1, 1] // 25 += 0.5 * 0.5 -> 25.25"}},
      {"logsum", [&] { return OP(ReduceLogSum)(fin, {0}); }, {1},
       {"fout[1] += fin[0, 1] // 0 += 5 -> 5", "fout[1] += fin[1, 1] // 5 += 0.5 -> 5.5",
        fmt::format("fout[1] = log(fout[1]) // log(5.5) -> {}", logf(5.5f))}},
      {"all", [&] { return OP(ReduceAll)(fin, {0}); }, {2},
       {"fout[2] = fout[2] && fin[0, 2] // 1 && 5 -> 1", "fout[2] = fout[2] && fin[1, 2] // 1 && -1 -> 1"}},
      {"logsumexp", [&] { return OP(ReduceLogSumExp)(fin, {0}); }, {0},
       {"max = -inf", "max = max(fin[0, 0], max) // max(1, -inf) -> 1", "max = max(fin[1, 0], max) // max(2, 1) -> 2",
        "shift = 2", fmt::format("fout[0] += exp(fin[0, 0] - shift) // 0 += exp(1 - 2) -> {}", expf(-1.0f)),
        fmt::format("fout[0] += exp(fin[1, 0] - shift) // {} += exp(2 - 2) -> {}", expf(-1.0f), expf(-1.0f) + 1.0f),
        fmt::format("fout[0] = shift + log(fout[0]) // 2 + log({}) -> {}", expf(-1.0f) + 1.0f,
                    2.0f + logf(expf(-1.0f) + 1.0f))}},
      {"lp", [&] {
         Tensor out = Tensor::create(ElementType::f32, {1});
         EXPECT_TRUE(native::ReduceLp(out, fin.slice(1, 1, 3), 3).ok());
         return out;
       }, {0},
       {"fout[0] += pow(abs(fin[0, 0]), p) // 0 += pow(abs(5), 3) -> 125", "fout[0] += pow(abs(fin[0, 1]), p) // 125 += pow(abs(5), 3) -> 250",
        "fout[0] += pow(abs(fin[1, 0]), p) // 250 += pow(abs(0.5), 3) -> 250.125",
        "fout[0] += pow(abs(fin[1, 1]), p) // 250.125 += pow(abs(-1), 3) -> 251.125",
        fmt::format("fout[0] = pow(fout[0], 1 / p) // pow(251.125, {}) -> {}", 1.0f / 3.0f, powf(251.125f, 1.0f / 3.0f))}},
      {"cumsum reverse exclusive", [&] {
         Tensor out = Tensor::create(ElementType::f32, {2, 3});
         EXPECT_TRUE(native::CumSum(out, fin, 1, true, true).ok());
         return out;
       }, {1, 0},
       {"fout[1, 0] += fin[1, 2] // 0 += -1 -> -1", "fout[1, 0] += fin[1, 1] // -1 += 0.5 -> -0.5"}},
      {"outside", [&] { return OP(ReduceSum)(fin, {1}); }, {2}, {}},
      {"other rank", [&] { return OP(ReduceSum)(fin, {1}); }, {0, 0}, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const auto untraced = bitsOf<float>(c.run().cast(ElementType::f32));
    test::TraceCapture capture;
    test::ScopedTracePoint point(c.point);
    EXPECT_EQ(bitsOf<float>(c.run().cast(ElementType::f32)), untraced) << "tracing never changes the output";
    EXPECT_EQ(capture.lines(), c.lines);
  }
}

TEST(ReduceFailures, ExactTextsAndNothingWritten) {
  Tensor f32 = tensorOf<float>(ElementType::f32, {2, 3}, {1, 2, 3, 4, 5, 6});
  Tensor f16 = f32.cast(ElementType::f16);
  Tensor ui8 = Tensor::create(ElementType::ui8, {2, 3});
  Tensor bf16 = Tensor::create(ElementType::vbf16, {2, 3});
  Tensor out = tensorOf<float>(ElementType::f32, {2}, {9, 9});
  Tensor out16 = tensorOf<half>(ElementType::f16, {2}, {half(9.0f), half(9.0f)});
  Tensor outSi32 = tensorOf<int32_t>(ElementType::si32, {2}, {9, 9});
  Tensor outBool = tensorOf<uint8_t>(ElementType::bool8, {2}, {9, 9});
  Tensor untyped;
  struct Case {
    const char* what;
    std::function<Status()> call;
    std::string message;
  };
  const Case cases[] = {
      {"config axis", [&] { return native::ReduceMaxConfig(untyped, f32, {2}, false); },
       "ReduceMax config error: invalid reduce axis 2, finRank 2"},
      {"config negative axis", [&] { return native::ReduceAllConfig(untyped, f32, {-3}, true); },
       "ReduceAll config error: invalid reduce axis -1, finRank 2"},
      {"config arg axes", [&] { return native::ReduceArgMaxConfig(untyped, f32, {0, 1}, false); },
       "ReduceArgMax config error: ReduceArg op can have only one reduced axis"},
      {"config arg no axis", [&] { return native::ReduceArgMinConfig(untyped, f32, {}, false); },
       "ReduceArgMin config error: ReduceArg op can have only one reduced axis"},
      {"config arg type", [&] {
         Tensor typed(ElementType::f32, {});
         return native::ReduceArgMinConfig(typed, f32, {1}, false);
       }, "ReduceArgMin config error: reduce arg min fout must be integer"},
      {"config lse", [&] { return native::ReduceLogSumExpConfig(untyped, f32, {5}, false); },
       "ReduceLogSumExp config error: invalid reduce axis 5, finRank 2"},
      {"config lp", [&] { return native::ReduceLpConfig(untyped, f32, 0); },
       "ReduceLp config error: p should be at least 1, but got 0"},
      {"config cumsum", [&] { return native::CumSumConfig(untyped, f32, 2, false, false); },
       "CumSum config error: invalid cumsum axis 2, finRank 2"},
      {"compute axis", [&] { return native::ReduceSum(out, f32, {-3}, false); }, "invalid reduce axis -1, finRank 2"},
      {"rank", [&] { return native::ReduceSum(out, f32, {}, false); }, "input and output rank miss"},
      {"kept axis", [&] {
         Tensor kept = Tensor::create(ElementType::f32, {2, 3});
         return native::ReduceSum(kept, f32, {1}, true);
       }, "reduced axis should be 1"},
      {"other axis", [&] { return native::ReduceMax(out, f32, {0}, false); }, "non reduced axis should identical to fin"},
      {"max types", [&] { return native::ReduceMax(out16, f32, {1}, false); }, "reduce max fin and fout must be the same"},
      {"min types", [&] { return native::ReduceMin(out, f16, {1}, false); }, "reduce min fin and fout must be the same"},
      {"argmax type", [&] { return native::ReduceArgMax(out, f32, {1}, false); }, "reduce arg max fout must be integer"},
      {"argmin bool8", [&] { return native::ReduceArgMin(outBool, f32, {1}, false); }, "reduce arg min fout must be integer"},
      {"arg axes", [&] { return native::ReduceArgMin(outSi32, f32, {0, 1}, false); }, "ReduceArg op can have only one reduced axis"},
      {"sum float", [&] { return native::ReduceSum(out16, f32, {1}, false); }, "float reduce sum fin and fout must be the same"},
      {"sum unsigned", [&] { return native::ReduceSum(outSi32, ui8, {1}, false); },
       "quant reduce sum fin should be in [si8, si16, s32, s64]"},
      {"sum integer into float", [&] { return native::ReduceSum(out, f32.cast(ElementType::si16), {1}, false); },
       "input and output element type miss"},
      {"mean type", [&] { return native::ReduceMean(outSi32, f32.cast(ElementType::si32), {1}, false); }, "fin must be f32 or f16"},
      {"mean same", [&] { return native::ReduceMean(out16, f32, {1}, false); }, "fin and fout must be the same type"},
      {"prod types", [&] { return native::ReduceProd(outSi32, ui8, {1}, false); },
       "reduce prod fin and fout must be high-precision numeric tensors (i.e. float, half, int32, int64)"},
      {"prod same", [&] { return native::ReduceProd(out, f32.cast(ElementType::si32), {1}, false); },
       "reduce prod fin and fout must have the same type"},
      {"sumsquare types", [&] { return native::ReduceSumSquare(out, bf16, {1}, false); },
       "reduce sumsquare fin and fout must be high-precision numeric tensors (i.e. float, half, int32 and int64)"},
      {"sumsquare same", [&] { return native::ReduceSumSquare(out16, f32, {1}, false); },
       "reduce sumsquare fin and fout must have the same type"},
      {"logsum same", [&] { return native::ReduceLogSum(out16, f32, {1}, false); }, "input and output element type miss"},
      {"all types", [&] { return native::ReduceAll(outBool, ui8, {1}, false); },
       "tensor.all fin should be in [si8, si16, s32, s64, float32, float16, bool]"},
      {"all out", [&] { return native::ReduceAll(outSi32, f32, {1}, false); }, "input and output element type miss"},
      {"max empty", [&] {
         Tensor none = Tensor::create(ElementType::f32, {2, 0});
         return native::ReduceMax(out, none, {1}, false);
       }, "reduced axis 1 is empty"},
      {"no data", [&] { return native::ReduceSum(out, Tensor(ElementType::f32, {2, 3}), {1}, false); },
       "fout and fin must hold data"},
      {"lp order", [&] { return native::ReduceLp(out, f32, -2); }, "p should be at least 1, but got -2"},
      {"lp shape", [&] { return native::ReduceLp(out, f32, 2); }, "shape mismatch"},
      {"cumsum axis", [&] { return native::CumSum(out, f32, -3, false, false); }, "invalid cumsum axis -1, finRank 2"},
      {"cumsum shape", [&] { return native::CumSum(out, f32, 0, false, false); }, "shape mismatch"},
      {"cumsum float", [&] {
         Tensor o = Tensor::create(ElementType::f16, {2, 3});
         return native::CumSum(o, f32, 0, false, false);
       }, "float cumsum fin and fout must be the same"},
      {"cumsum unsigned", [&] { return native::CumSum(ui8, ui8, 0, false, false); },
       "quant cumsum fin should be in [si8, si16, s32, s64]"},
  };
  for (const Case& c : cases) EXPECT_EQ(c.call().message(), c.message) << c.what;
  EXPECT_EQ(valuesOf<float>(out), (std::vector<float>{9, 9}));
  EXPECT_EQ(valuesOf<half>(out16)[0].toFloat(), 9.0f);
  EXPECT_EQ(valuesOf<int32_t>(outSi32), (std::vector<int32_t>{9, 9}));
  EXPECT_EQ(valuesOf<uint8_t>(outBool), (std::vector<uint8_t>{9, 9}));
}

TEST(ReduceTable, RegisteredMembersRunByName) {
  Tensor fin = tensorOf<float>(ElementType::f32, {2, 3}, {1, 2, 3, 4, 5, 6});
  struct Case {
    const char* name;
    std::vector<Argument> args;
    std::vector<long> shape;
    std::vector<double> values;
  };
  const Case cases[] = {
      {"native::ReduceSum", {fin, std::vector<int64_t>{1}, false}, {2}, {6, 15}},
      {"native::ReduceMax", {fin, std::vector<int64_t>{0}, true}, {1, 3}, {4, 5, 6}},
      {"native::ReduceArgMin", {fin, std::vector<int64_t>{-1}, false}, {2}, {0, 0}},
      {"native::ReduceMean", {fin, std::vector<int64_t>{}, false}, {}, {3.5}},
      {"native::CumSum", {fin, 0, true, false}, {2, 3}, {0, 0, 0, 1, 2, 3}},
  };
  for (const Case& c : cases) {
    std::vector<Tensor> outputs;
    ASSERT_TRUE(invoke(c.name, outputs, c.args).ok()) << c.name;
    ASSERT_EQ(outputs.size(), 1u);
    EXPECT_EQ(outputs[0].shape().vec(), c.shape) << c.name;
    EXPECT_EQ(valuesOf<double>(outputs[0].cast(ElementType::f64)), c.values) << c.name;
  }
}

using ReduceDeathTest = ::testing::Test;
TEST_F(ReduceDeathTest, TypesAMemberDoesNotServeTrap) {
  struct Case {
    const char* what;
    ElementType in, out;
    std::function<Status(Tensor&, const Tensor&)> call;
  };
  const Case cases[] = {
      {"ReduceMax bf16", ElementType::vbf16, ElementType::vbf16,
       [](Tensor& o, const Tensor& i) { return native::ReduceMax(o, i, {0}, false); }},
      {"ReduceSum bf16", ElementType::vbf16, ElementType::vbf16,
       [](Tensor& o, const Tensor& i) { return native::ReduceSum(o, i, {0}, false); }},
      {"ReduceLogSum f64", ElementType::f64, ElementType::f64,
       [](Tensor& o, const Tensor& i) { return native::ReduceLogSum(o, i, {0}, false); }},
      {"ReduceArgMax bool8", ElementType::bool8, ElementType::si32,
       [](Tensor& o, const Tensor& i) { return native::ReduceArgMax(o, i, {0}, false); }},
      {"CumSum tf32", ElementType::tf32, ElementType::tf32,
       [](Tensor& o, const Tensor& i) { return native::CumSum(o, i, 0, false, false); }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const bool cumulative = std::string(c.what).starts_with("CumSum");
    Tensor in = Tensor::create(c.in, {2}), out = Tensor::create(c.out, cumulative ? std::vector<long>{2} : std::vector<long>{});
    EXPECT_DEATH(
        {
          test::logToStderr();
          (void)c.call(out, in);
        },
        std::string("unknown element type: ") + elementTypeName(c.in));
  }
}
