// The two-input elementwise kernels, Where and the shape rules they share:
// broadcasting against explicitly expanded operands, the integer rules
// against int64 references on every 8-bit pair, IEEE special values, f16
// through f32, output types, trace lines and failures.
#include <cstring>

#include "NativeTest.h"

using namespace kora;
using namespace kora::test;
using enum ElementType;

namespace {

using BinaryFn = Status (*)(Tensor&, Tensor const&, Tensor const&);

struct Binary {
  BinaryFn config, impl;
  Tensor operator()(const Tensor& lhs, const Tensor& rhs, ElementType outType = invalid) const {
    return runKernel(config, impl, Tensor(outType, {}), lhs, rhs);
  }
};

#define OP(Name) Binary{native::Name##Config, native::Name}

// A compact copy of `t` expanded to `shape`, element by element by the
// broadcasting rule (right-aligned, size-1 axes repeated).
Tensor expand(const Tensor& t, std::vector<long> shape) {
  Tensor out = Tensor::create(t.elementType(), shape);
  const auto strides = getStrides(shape, 1);
  for (long i = 0; i < out.numElements(); ++i) {
    const auto c = getCoord(i, shape, strides);
    std::vector<long> source;
    for (size_t d = shape.size() - t.rank(); d < shape.size(); ++d)
      source.push_back(t.shape()[d - (shape.size() - t.rank())] == 1 ? 0 : c[d]);
    std::memcpy(out.elementPointer(c), t.elementPointer(source), byteWidth(t.elementType()));
  }
  return out;
}

// i * scale + offset for the i-th element, in `type`.
Tensor counting(ElementType type, std::vector<long> shape, double scale, double offset) {
  Tensor t = Tensor::create(f64, shape);
  auto d = t.data<double>();
  for (size_t i = 0; i < d.size(); ++i) d[i] = double(i) * scale + offset;
  return t.cast(type);
}

// Every (x, y) pair of 8-bit values, as two tensors of `type`.
std::pair<Tensor, Tensor> allPairs(ElementType type) {
  std::vector<int64_t> a, b;
  for (int x = -128; x < 128; ++x)
    for (int y = -128; y < 128; ++y) a.push_back(x), b.push_back(y);
  return {ints(type, a), ints(type, b)};
}

}  // namespace

TEST(BinaryBroadcast, EqualsTheKernelOnExpandedOperandsOnEveryLayout) {
  const std::vector<long> shapes[][3] = {
      {{3, 1}, {4}, {3, 4}}, {{2, 1, 5}, {3, 1}, {2, 3, 5}}, {{4, 6}, {1, 1}, {4, 6}},
      {{4, 6}, {}, {4, 6}},  {{1}, {2, 3}, {2, 3}},          {{5, 1, 1, 3}, {1, 4, 2, 1}, {5, 4, 2, 3}},
  };
  // Operators that are not symmetric, one per loop.
  const std::pair<const char*, Binary> ops[] = {{"Sub", OP(Sub)}, {"Greater", OP(Greater)}};
  for (const auto& [ls, rs, shape] : shapes) {
    for (ElementType type : {f32, si16, f16}) {
      const bool integer = type == si16;
      Tensor lhs = counting(type, ls, integer ? 3.0 : 0.75, integer ? -7.0 : -3.0);
      Tensor rhs = counting(type, rs, integer ? -2.0 : -0.5, integer ? 5.0 : 2.0);
      for (const auto& [name, op] : ops) {
        SCOPED_TRACE(std::string(name) + " " + elementTypeName(type) + " rhs rank " + std::to_string(rs.size()));
        Tensor broadcast = op(lhs, rhs);
        EXPECT_EQ(broadcast.shape().vec(), shape);
        EXPECT_EQ(resultBits(broadcast), resultBits(op(expand(lhs, shape), expand(rhs, shape))));
      }
    }
  }
}

TEST(BinaryIntegers, DivRemModAndBitShiftAgainstInt64OnEvery8BitPair) {
  const auto [lhs, rhs] = allPairs(si8);
  const auto [uv, uc] = allPairs(ui8);
  const auto a = valuesOf<int8_t>(lhs), b = valuesOf<int8_t>(rhs);
  const auto div = valuesOf<int8_t>(OP(Div)(lhs, rhs)), rem = valuesOf<int8_t>(OP(Rem)(lhs, rhs));
  const auto mod = valuesOf<int8_t>(OP(Mod)(lhs, rhs)), shifted = valuesOf<int8_t>(OP(BitShift)(lhs, rhs));
  const auto shiftedUnsigned = valuesOf<uint8_t>(OP(BitShift)(uv, uc));
  for (size_t i = 0; i < a.size(); ++i) {
    const int64_t x = a[i], y = b[i];
    const int64_t q = y == 0 ? 0 : x / y;  // truncated; -128 / -1 = 128 wraps below
    ASSERT_EQ(div[i], int8_t(uint8_t(uint64_t(q)))) << x << " / " << y;
    ASSERT_EQ(rem[i], int8_t(uint8_t(uint64_t(x - q * y)))) << x << " rem " << y;
    ASSERT_EQ(mod[i], rem[i]) << x << " mod " << y;
    // A positive count is a floor division by 2^(count mod 64) (past 7 bits
    // only the sign is left), a negative one a left shift by -count mod 64.
    const int64_t m = (y >= 1 ? y : -y) % 64;
    const int64_t expected = y >= 1 ? (m >= 8 ? (x < 0 ? -1 : 0) : (x >= 0 ? x >> m : -((-x + (1l << m) - 1) >> m)))
                                    : (m >= 8 ? 0 : int64_t(int8_t(uint8_t(uint64_t(x) << m))));
    ASSERT_EQ(shifted[i], expected) << x << " shifted by " << y;
    const uint64_t ux = uint8_t(x), un = uint8_t(y);
    ASSERT_EQ(shiftedUnsigned[i], un == 0 ? ux : (un % 64 >= 8 ? 0 : ux >> (un % 64))) << ux << " shifted by " << un;
  }
}

TEST(BinaryIntegers, HandWorkedRulesOnEveryWidth) {
  const int64_t i32min = INT32_MIN, i64min = INT64_MIN, i64max = INT64_MAX;
  const std::tuple<const char*, Binary, Tensor, Tensor, std::vector<int64_t>> cases[] = {
      {"si64 div", OP(Div), ints(si64, {i64min, i64min, 9}), ints(si64, {-1, 1, 0}), {i64min, i64min, 0}},
      {"ui8 div", OP(Div), ints(ui8, {200, 255, 7}), ints(ui8, {0, 2, 255}), {0, 127, 0}},
      {"si64 mul wraps", OP(Mul), ints(si64, {i64max, i64min}), ints(si64, {2, -1}), {-2, i64min}},
      // Through double, saturated to the type.
      {"si32 pow", OP(Pow), ints(si32, {2, 2, -2, 3, 0, -8}), ints(si32, {10, 31, 31, -1, 0, 3}),
       {1024, INT32_MAX, i32min, 0, 1, -512}},
      {"si64 pow", OP(Pow), ints(si64, {-2, 10}), ints(si64, {63, 19}), {i64min, i64max}},
      {"and", OP(BitwiseAnd), ints(si16, {0x0ff0, -1}), ints(si16, {0x00ff, -32768}), {0x00f0, -32768}},
      {"or", OP(BitwiseOr), ints(ui8, {0xf0, 1}), ints(ui8, {0x0f, 2}), {0xff, 3}},
      {"xor", OP(BitwiseXor), ints(si64, {-1, 6}), ints(si64, {i64min, 3}), {i64max, 5}},
      // The shift count is taken modulo 64, in both directions.
      {"si64 shift", OP(BitShift), ints(si64, {-256, 1, 3, 5, -1}), ints(si64, {64, -65, i64min, 66, 63}),
       {-256, 2, 3, 1, -1}},
  };
  for (const auto& [what, op, lhs, rhs, out] : cases) EXPECT_EQ(valuesOf<int64_t>(op(lhs, rhs).cast(si64)), out) << what;
}

TEST(BinaryFloats, IeeeSpecialValuesAndHalfThroughFloat) {
  const std::tuple<const char*, Binary, std::vector<float>, std::vector<float>, std::vector<float>> cases[] = {
      {"Rem truncates", OP(Rem), {5.5f, -5.5f, 5.5f, 1, kInf, 3}, {2, 2, -2, kInf, 1, 0},
       {1.5f, -1.5f, 1.5f, 1, kNaN, kNaN}},
      {"Max", OP(Max), {kNaN, 1, -0.0f, 0.0f, -kInf}, {1, kNaN, 0.0f, -0.0f, -3}, {kNaN, kNaN, 0.0f, 0.0f, -3}},
      {"Min", OP(Min), {kNaN, 1, -0.0f, 0.0f, kInf}, {1, kNaN, 0.0f, -0.0f, -3}, {kNaN, kNaN, -0.0f, -0.0f, -3}},
      {"Div", OP(Div), {1, -2, 1}, {3, 3, -0.0f}, {1.0f / 3, -2.0f / 3, -kInf}},
      {"Pow", OP(Pow), {2, -8, 0, 10, 2, -1}, {10, 1.0f / 3, 0, 38.5f, -1075, kInf},
       {1024, kNaN, 1, float(std::pow(10.0, 38.5)), 0, 1}},
  };
  for (const auto& [what, op, lhs, rhs, expected] : cases) {
    const long n = long(lhs.size());
    const auto out = valuesOf<float>(op(f32s({n}, lhs), f32s({n}, rhs)));
    // f16 (the operands rounded to f16 give the same f32 results here): the
    // f32 result rounded once.
    const auto halves = valuesOf<float>(op(f32s({n}, lhs).cast(f16), f32s({n}, rhs).cast(f16)).cast(f32));
    for (long i = 0; i < n; ++i) {
      EXPECT_PRED2(sameFloat, out[i], expected[i]) << what << ": " << lhs[i] << ", " << rhs[i];
      EXPECT_PRED2(sameFloat, halves[i], half(expected[i]).toFloat()) << what << " f16: " << lhs[i] << ", " << rhs[i];
    }
  }
}

TEST(BinaryPredicates, ComparisonsAndLogicalOperators) {
  Tensor lhs = f32s({6}, {1, kNaN, -0.0f, 2, kNaN, -kInf}), rhs = f32s({6}, {2, 1, 0.0f, 2, kNaN, -kInf});
  const std::pair<Binary, std::vector<uint8_t>> cases[] = {
      {OP(Equal), {0, 0, 1, 1, 0, 1}},      {OP(NotEqual), {1, 1, 0, 0, 1, 0}},   {OP(Greater), {0, 0, 0, 0, 0, 0}},
      {OP(GreaterEqual), {0, 0, 1, 1, 0, 1}}, {OP(Less), {1, 0, 0, 0, 0, 0}},     {OP(LessEqual), {1, 0, 1, 1, 0, 1}},
      {OP(LogicalAnd), {1, 1, 0, 1, 1, 1}}, {OP(LogicalOr), {1, 1, 0, 1, 1, 1}},  {OP(LogicalXor), {0, 0, 0, 0, 0, 0}},
  };
  for (size_t i = 0; i < std::size(cases); ++i) {
    const auto& [op, expected] = cases[i];
    Tensor out = op(lhs, rhs);
    EXPECT_EQ(out.elementType(), bool8) << "bool8 when fout's type is unset";
    EXPECT_EQ(valuesOf<uint8_t>(out), expected) << i;
    // Any other output type set by the caller is kept and receives 1 or 0.
    Tensor typed = op(lhs, rhs, si32);
    ASSERT_EQ(typed.elementType(), si32);
    EXPECT_EQ(valuesOf<int32_t>(typed), std::vector<int32_t>(expected.begin(), expected.end()));
  }
  // Unsigned integers compare as such over their whole range.
  EXPECT_EQ(valuesOf<uint8_t>(OP(Greater)(ints(ui64, {INT64_MIN, 0}), ints(ui64, {1, 0}))), (std::vector<uint8_t>{1, 0}));
  // bool8 operands: any non-zero byte is true and compares as 1.
  Tensor p = tensorOf<uint8_t>(bool8, {4}, {2, 0, 1, 7}), q = tensorOf<uint8_t>(bool8, {4}, {1, 0, 0, 0});
  EXPECT_EQ(valuesOf<uint8_t>(OP(Equal)(p, q)), (std::vector<uint8_t>{1, 1, 0, 0}));
}

TEST(Where, SelectorSenseTypesAndBroadcasting) {
  auto bits = [](float x) { return std::bit_cast<uint32_t>(x); };
  const uint32_t nan = 0x7fa00001u, m1 = bits(-1), m2 = bits(-2), m3 = bits(-3);
  const uint32_t v2 = bits(2), v3 = bits(3), v4 = bits(4), v5 = bits(5), v6 = bits(6);
  // lhs starts with a NaN whose payload must be copied unchanged.
  Tensor lhs = tensorOf<uint32_t>(f32, {2, 3}, {nan, v2, v3, v4, v5, v6}), rhs = f32s({3}, {-1, -2, -3});
  const std::pair<Tensor, std::vector<uint32_t>> cases[] = {
      {tensorOf<uint8_t>(bool8, {2, 3}, {1, 0, 9, 0, 1, 0}), {nan, m2, v3, m1, v5, m3}},
      {f32s({2, 3}, {kNaN, -0.0f, 0.5f, 0, 0, -7}), {nan, m2, v3, m1, m2, v6}},
      {tensorOf<int32_t>(si32, {2, 1}, {0, -5}), {m1, m2, m3, v4, v5, v6}},
      {tensorOf<uint8_t>(ui8, {}, {3}), {nan, v2, v3, v4, v5, v6}},
  };
  for (const auto& [sls, expected] : cases) {
    Tensor out = runKernel(native::WhereConfig, native::Where, Tensor(), lhs, rhs, sls);
    EXPECT_EQ(out.type(), TensorType(f32, {2, 3}));
    EXPECT_EQ(bitsOf<float>(out), expected) << elementTypeName(sls.elementType());
  }
}

TEST(BinaryTrace, LinesNameEachOperandsOwnCoordinate) {
  Tensor lhs = f32s({3, 1}, {1, 2, 3}), rhs = f32s({4}, {10, 20, 30, 40.5f}), sls = tensorOf<uint8_t>(bool8, {1, 4}, {1, 0, 1, 0});
  const std::tuple<std::function<Tensor()>, std::vector<long>, std::vector<std::string>> cases[] = {
      {[&] { return runKernel(native::WhereConfig, native::Where, Tensor(), lhs, rhs, sls); },
       {2, 1}, {"fout[2, 1] = ternary_select(lhs[2, 0], rhs[1], sls[0, 1]) // ternary_select(3, 20, 0) -> 20 "}},
      {[&] {  // in place: the line shows the original operand
         Tensor a = ints(si32, {5, 6, 7});
         EXPECT_TRUE(native::Sub(a, a, ints(si32, {10})).ok());
         return a;
       }, {1}, {"fout[1] = sub(lhs[1], rhs[0]) // sub(6, 10) -> -4 "}},
  };
  for (const auto& [run, point, lines] : cases) expectTrace(run, point, lines);
}

TEST(BinaryFailures, ExactTextsAndNothingWritten) {
  Tensor fs = f32s({2}, {1, 2}), is = ints(si32, {1, 2}), out = f32s({2}, {9, 9});
  Tensor bools = tensorOf<uint8_t>(bool8, {2}, {9, 9});
  Tensor three = Tensor::create(f32, {3});
  expectFailures({
      {"type mismatch", CALL(Add(out, fs, is))},
      {"input type miss", CALL(Less(bools, fs, is))},
      {"axis 0 size not match for all fins", CALL(Sub(out, fs, three))},
      {"type mismatch, fout: f32, lhs: f32, rhs: si32", CALL(Where(out, fs, is, bools))},
  });
  EXPECT_EQ(valuesOf<float>(out), (std::vector<float>{9, 9}));
  EXPECT_EQ(valuesOf<uint8_t>(bools), (std::vector<uint8_t>{9, 9}));
}

