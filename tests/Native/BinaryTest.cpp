// The two-input elementwise kernels and Where: broadcasting against
// explicitly expanded operands, the integer rules against int64 references,
// IEEE special values, output types, trace lines, failures and traps.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <functional>
#include <limits>
#include <cstring>
#include <random>

#include "TestUtil.h"

using namespace kora;
using test::bitsOf;
using test::tensorOf;
using test::valuesOf;

namespace {

const float kInf = std::numeric_limits<float>::infinity();
const float kNaN = std::numeric_limits<float>::quiet_NaN();

using BinaryFn = Status (*)(Tensor&, Tensor const&, Tensor const&);

struct Binary {
  BinaryFn config, impl;
  Tensor operator()(const Tensor& lhs, const Tensor& rhs, ElementType outType = ElementType::invalid) const {
    Tensor out(outType, {});
    Status s = config(out, lhs, rhs);
    EXPECT_TRUE(s.ok()) << s.message();
    out.allocate();
    s = impl(out, lhs, rhs);
    EXPECT_TRUE(s.ok()) << s.message();
    return out;
  }
};

#define OP(Name) Binary{native::Name##Config, native::Name}

bool sameFloat(float a, float b) {
  return (std::isnan(a) && std::isnan(b)) || std::bit_cast<uint32_t>(a) == std::bit_cast<uint32_t>(b);
}

// A compact copy of `t` expanded to `shape`, element by element by the
// broadcasting rule (right-aligned, size-1 axes repeated).
Tensor expand(const Tensor& t, std::vector<long> shape) {
  Tensor out = Tensor::create(t.elementType(), shape);
  const auto strides = getStrides(shape, 1);
  const long width = long(byteWidth(t.elementType()));
  for (long i = 0; i < out.numElements(); ++i) {
    const auto c = getCoord(i, shape, strides);
    std::vector<long> source;
    for (size_t d = shape.size() - t.rank(); d < shape.size(); ++d)
      source.push_back(t.shape()[d - (shape.size() - t.rank())] == 1 ? 0 : c[d]);
    std::memcpy(out.elementPointer(c), t.elementPointer(source), size_t(width));
  }
  return out;
}

// The bytes of the elements in row-major order.
std::vector<uint8_t> bytesOf(const Tensor& t) {
  Tensor compact = Tensor::create(t.elementType(), t.shape());
  copyElements(compact, t);
  const char* p = compact.storage()->data();
  return std::vector<uint8_t>(p, p + compact.byteSpan());
}

template <class T>
Tensor counting(ElementType type, std::vector<long> shape, double scale, double offset) {
  Tensor t = Tensor::create(type, shape);
  auto d = t.data<T>();
  for (size_t i = 0; i < d.size(); ++i) d[i] = T(float(double(i) * scale + offset));
  return t;
}

}  // namespace

TEST(BinaryBroadcast, EqualsTheKernelOnExpandedOperands) {
  struct Shapes {
    std::vector<long> lhs, rhs, out;
  };
  const Shapes shapes[] = {
      {{3, 1}, {4}, {3, 4}},          {{2, 1, 5}, {3, 1}, {2, 3, 5}}, {{4, 6}, {1, 1}, {4, 6}},
      {{4, 6}, {}, {4, 6}},           {{1}, {2, 3}, {2, 3}},          {{5, 1, 1, 3}, {1, 4, 2, 1}, {5, 4, 2, 3}},
  };
  const std::pair<const char*, Binary> ops[] = {
      {"Add", OP(Add)}, {"Sub", OP(Sub)}, {"Div", OP(Div)}, {"Max", OP(Max)}, {"Greater", OP(Greater)},
  };
  for (const Shapes& s : shapes) {
    for (ElementType type : {ElementType::f32, ElementType::si16, ElementType::f16}) {
      Tensor lhs = type == ElementType::f32  ? counting<float>(type, s.lhs, 0.75, -3.0)
                   : type == ElementType::f16 ? counting<half>(type, s.lhs, 0.75, -3.0)
                                              : counting<int16_t>(type, s.lhs, 3.0, -7.0);
      Tensor rhs = type == ElementType::f32  ? counting<float>(type, s.rhs, -0.5, 2.0)
                   : type == ElementType::f16 ? counting<half>(type, s.rhs, -0.5, 2.0)
                                              : counting<int16_t>(type, s.rhs, -2.0, 5.0);
      for (const auto& [name, op] : ops) {
        SCOPED_TRACE(std::string(name) + " " + elementTypeName(type) + " rhs rank " + std::to_string(s.rhs.size()));
        Tensor broadcast = op(lhs, rhs);
        EXPECT_EQ(broadcast.shape().vec(), s.out);
        Tensor expanded = op(expand(lhs, s.out), expand(rhs, s.out));
        EXPECT_EQ(bytesOf(broadcast), bytesOf(expanded));
      }
    }
  }
}

TEST(BinaryBroadcast, StridedOperandsAndOutputs) {
  Tensor lhs = counting<float>(ElementType::f32, {6, 9}, 0.37, -5.0);
  Tensor rhs = counting<float>(ElementType::f32, {9, 6}, -0.11, 3.0);
  const auto expected = bitsOf<float>(OP(Mul)(lhs, rhs.permute({1, 0}).contiguous()));
  EXPECT_EQ(bitsOf<float>(OP(Mul)(lhs, rhs.permute({1, 0}))), expected) << "transposed rhs";
  Tensor wide = Tensor::create(ElementType::f32, {6, 18});
  Tensor sliced = wide.slice(1, 0, 18, 2);
  copyElements(sliced, lhs);
  EXPECT_EQ(bitsOf<float>(OP(Mul)(sliced, rhs.permute({1, 0}))), expected) << "sliced lhs";
  Tensor storage = Tensor::create(ElementType::f32, {9, 6});
  Tensor out = storage.permute({1, 0});
  ASSERT_TRUE(native::Mul(out, lhs, rhs.permute({1, 0})).ok());
  EXPECT_EQ(bitsOf<float>(out), expected) << "transposed output";
  // In place: fout is lhs.
  Tensor copy = Tensor::create(ElementType::f32, {6, 9});
  copyElements(copy, lhs);
  ASSERT_TRUE(native::Mul(copy, copy, rhs.permute({1, 0})).ok());
  EXPECT_EQ(bitsOf<float>(copy), expected) << "in place";
}

TEST(BinaryIntegers, DivRemModAgainstInt64OnEverySi8Pair) {
  std::vector<int8_t> a, b;
  for (int x = -128; x < 128; ++x)
    for (int y = -128; y < 128; ++y) a.push_back(int8_t(x)), b.push_back(int8_t(y));
  Tensor lhs = tensorOf<int8_t>(ElementType::si8, {long(a.size())}, a);
  Tensor rhs = tensorOf<int8_t>(ElementType::si8, {long(b.size())}, b);
  const auto div = valuesOf<int8_t>(OP(Div)(lhs, rhs));
  const auto rem = valuesOf<int8_t>(OP(Rem)(lhs, rhs));
  const auto mod = valuesOf<int8_t>(OP(Mod)(lhs, rhs));
  for (size_t i = 0; i < a.size(); ++i) {
    const int64_t x = a[i], y = b[i];
    const int64_t q = y == 0 ? 0 : x / y;  // truncated; -128 / -1 = 128 wraps below
    ASSERT_EQ(div[i], int8_t(uint8_t(uint64_t(q)))) << x << " / " << y;
    ASSERT_EQ(rem[i], int8_t(uint8_t(uint64_t(x - q * y)))) << x << " rem " << y;
    ASSERT_EQ(mod[i], rem[i]) << x << " mod " << y;
  }
}

TEST(BinaryIntegers, HandWorkedRulesOnEveryWidth) {
  struct Case {
    const char* what;
    Binary op;
    Tensor lhs, rhs;
    std::vector<int64_t> out;
  };
  auto si = [](ElementType t, std::vector<int64_t> v) {
    Tensor x = tensorOf<int64_t>(ElementType::si64, {long(v.size())}, v);
    return x.cast(t);
  };
  const int64_t i32min = INT32_MIN, i64min = INT64_MIN;
  const Case cases[] = {
      {"si8 div", OP(Div), si(ElementType::si8, {-128, 5, -7, 7}), si(ElementType::si8, {-1, 0, 2, -2}), {-128, 0, -3, -3}},
      {"si32 rem", OP(Rem), si(ElementType::si32, {5, -7, 7, i32min}), si(ElementType::si32, {0, 2, -2, -1}), {5, -1, 1, 0}},
      {"si64 div", OP(Div), si(ElementType::si64, {i64min, i64min, 9}), si(ElementType::si64, {-1, 1, 0}), {i64min, i64min, 0}},
      {"si16 mod", OP(Mod), si(ElementType::si16, {-7, 7, -32768}), si(ElementType::si16, {2, -2, 3}), {-1, 1, -2}},
      {"ui8 div", OP(Div), si(ElementType::ui8, {200, 255, 7}), si(ElementType::ui8, {0, 2, 255}), {0, 127, 0}},
      {"ui32 rem", OP(Rem), si(ElementType::ui32, {4294967295, 10}), si(ElementType::ui32, {0, 4}), {4294967295, 2}},
      {"si8 add wraps", OP(Add), si(ElementType::si8, {127, -128}), si(ElementType::si8, {1, -1}), {-128, 127}},
      {"ui8 sub wraps", OP(Sub), si(ElementType::ui8, {0, 5}), si(ElementType::ui8, {1, 7}), {255, 254}},
      {"si64 mul wraps", OP(Mul), si(ElementType::si64, {INT64_MAX, i64min}), si(ElementType::si64, {2, -1}), {-2, i64min}},
      {"si16 mul wraps", OP(Mul), si(ElementType::si16, {300, -32768}), si(ElementType::si16, {300, -1}), {24464, -32768}},
      {"si32 max/min", OP(Max), si(ElementType::si32, {i32min, 3}), si(ElementType::si32, {0, -3}), {0, 3}},
      {"ui64 min", OP(Min), si(ElementType::ui64, {-1, 5}), si(ElementType::ui64, {1, 6}), {1, 5}},
      {"si32 pow", OP(Pow), si(ElementType::si32, {2, 2, -2, 3, 0, -8}), si(ElementType::si32, {10, 31, 31, -1, 0, 3}),
       {1024, INT32_MAX, i32min, 0, 1, -512}},
      {"ui8 pow saturates", OP(Pow), si(ElementType::ui8, {2, 16}), si(ElementType::ui8, {8, 2}), {255, 255}},
      {"si64 pow", OP(Pow), si(ElementType::si64, {-2, 10}), si(ElementType::si64, {63, 19}), {i64min, INT64_MAX}},
      {"and", OP(BitwiseAnd), si(ElementType::si16, {0x0ff0, -1}), si(ElementType::si16, {0x00ff, -32768}), {0x00f0, -32768}},
      {"or", OP(BitwiseOr), si(ElementType::ui8, {0xf0, 1}), si(ElementType::ui8, {0x0f, 2}), {0xff, 3}},
      {"xor", OP(BitwiseXor), si(ElementType::si64, {-1, 6}), si(ElementType::si64, {i64min, 3}), {INT64_MAX, 5}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(valuesOf<int64_t>(c.op(c.lhs, c.rhs).cast(ElementType::si64)), c.out);
  }
}

TEST(BinaryIntegers, BitShiftInSixtyFourBitsWithTheCountModulo64) {
  // The published examples, on ui8.
  Tensor value = tensorOf<uint8_t>(ElementType::ui8, {3}, {200, 200, 200});
  Tensor counts = tensorOf<uint8_t>(ElementType::ui8, {3}, {2, 8, 0});
  EXPECT_EQ(valuesOf<uint8_t>(OP(BitShift)(value, counts)), (std::vector<uint8_t>{50, 0, 200}));
  Tensor signedValue = tensorOf<int8_t>(ElementType::si8, {1}, {100});
  EXPECT_EQ(valuesOf<int8_t>(OP(BitShift)(signedValue, tensorOf<int8_t>(ElementType::si8, {1}, {-1}))),
            (std::vector<int8_t>{-56})) << "200 truncated to 8 bits";
  // Every si8 and ui8 (value, count) pair against shifts of int64 values.
  std::vector<int8_t> v, c;
  for (int x = -128; x < 128; ++x)
    for (int y = -128; y < 128; ++y) v.push_back(int8_t(x)), c.push_back(int8_t(y));
  const auto shiftedSigned = valuesOf<int8_t>(
      OP(BitShift)(tensorOf<int8_t>(ElementType::si8, {65536}, v), tensorOf<int8_t>(ElementType::si8, {65536}, c)));
  std::vector<uint8_t> uv(v.begin(), v.end()), uc(c.begin(), c.end());
  const auto shiftedUnsigned = valuesOf<uint8_t>(
      OP(BitShift)(tensorOf<uint8_t>(ElementType::ui8, {65536}, uv), tensorOf<uint8_t>(ElementType::ui8, {65536}, uc)));
  for (size_t i = 0; i < v.size(); ++i) {
    const int64_t x = v[i], n = c[i];
    int64_t expected;
    if (n >= 1) {  // floor division by 2^m; past 7 bits only the sign is left
      const int64_t m = n % 64;
      expected = m >= 8 ? (x < 0 ? -1 : 0) : (x >= 0 ? x >> m : -((-x + (int64_t(1) << m) - 1) >> m));
    } else {
      const int64_t m = -n % 64;
      expected = m >= 8 ? 0 : int64_t(int8_t(uint8_t(uint64_t(x) << m)));
    }
    ASSERT_EQ(shiftedSigned[i], expected) << x << " shifted by " << n;
    const uint64_t ux = uv[i], un = uc[i];
    const uint64_t uexpected = un == 0 ? ux : (un % 64 >= 8 ? 0 : ux >> (un % 64));
    ASSERT_EQ(shiftedUnsigned[i], uexpected) << ux << " shifted by " << un;
  }
  // Counts beyond 63 wrap modulo 64, in both directions.
  Tensor wide = tensorOf<int64_t>(ElementType::si64, {5}, {-256, 1, 3, 5, -1});
  Tensor wideCounts = tensorOf<int64_t>(ElementType::si64, {5}, {64, -65, INT64_MIN, 66, 63});
  EXPECT_EQ(valuesOf<int64_t>(OP(BitShift)(wide, wideCounts)), (std::vector<int64_t>{-256, 2, 3, 1, -1}));
  Tensor u64 = tensorOf<uint64_t>(ElementType::ui64, {2}, {UINT64_MAX, 8});
  Tensor u64Counts = tensorOf<uint64_t>(ElementType::ui64, {2}, {(uint64_t(1) << 63) + 1, 64});
  EXPECT_EQ(valuesOf<uint64_t>(OP(BitShift)(u64, u64Counts)), (std::vector<uint64_t>{UINT64_MAX >> 1, 8}));
}

TEST(BinaryFloats, IeeeSpecialValues) {
  struct Case {
    const char* what;
    Binary op;
    std::vector<float> lhs, rhs, out;
  };
  const Case cases[] = {
      {"Div", OP(Div), {1, -1, 0, kInf, 7}, {0, 0, 0, kInf, -2}, {kInf, -kInf, kNaN, kNaN, -3.5f}},
      {"Rem truncates", OP(Rem), {5.5f, -5.5f, 5.5f, 1, kInf, 3}, {2, 2, -2, kInf, 1, 0}, {1.5f, -1.5f, 1.5f, 1, kNaN, kNaN}},
      {"Mod is Rem", OP(Mod), {5.5f, -5.5f, 5.5f, -7}, {2, 2, -2, 2}, {1.5f, -1.5f, 1.5f, -1}},
      {"Max", OP(Max), {kNaN, 1, -0.0f, 0.0f, -kInf}, {1, kNaN, 0.0f, -0.0f, -3}, {kNaN, kNaN, 0.0f, 0.0f, -3}},
      {"Min", OP(Min), {kNaN, 1, -0.0f, 0.0f, kInf}, {1, kNaN, 0.0f, -0.0f, -3}, {kNaN, kNaN, -0.0f, -0.0f, -3}},
      {"Pow", OP(Pow), {2, -8, 0, 10, 2, -1}, {10, 1.0f / 3, 0, 38.5f, -1075, kInf}, {1024, kNaN, 1, float(std::pow(10.0, 38.5)), 0, 1}},
      {"Add", OP(Add), {kInf, 1e38f, -0.0f}, {-kInf, 1e38f, 0.0f}, {kNaN, 2e38f, 0.0f}},
      {"Sub", OP(Sub), {-0.0f, 3e38f}, {0.0f, -3e38f}, {-0.0f, kInf}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const long n = long(c.lhs.size());
    const auto out = valuesOf<float>(c.op(tensorOf<float>(ElementType::f32, {n}, c.lhs), tensorOf<float>(ElementType::f32, {n}, c.rhs)));
    for (long i = 0; i < n; ++i) EXPECT_PRED2(sameFloat, out[i], c.out[i]) << c.lhs[i] << ", " << c.rhs[i];
  }
  // f64 runs in double.
  Tensor d = tensorOf<double>(ElementType::f64, {1}, {1.0});
  EXPECT_EQ(valuesOf<double>(OP(Div)(d, tensorOf<double>(ElementType::f64, {1}, {3.0})))[0], 1.0 / 3.0);
}

TEST(BinaryFloats, HalfIsTheFloatResultRoundedToNearestEven) {
  std::mt19937 rng(7);
  std::vector<uint16_t> a(20000), b(20000);
  for (size_t i = 0; i < a.size(); ++i) a[i] = uint16_t(rng()), b[i] = uint16_t(rng());
  a[0] = 0x7c00, b[0] = 0xfc00;  // inf + -inf
  a[1] = 0x7bff, b[1] = 0x7bff;  // overflow
  a[2] = 0x0001, b[2] = 0x3800;  // subnormal times a half
  Tensor lhs = tensorOf<uint16_t>(ElementType::f16, {long(a.size())}, a);
  Tensor rhs = tensorOf<uint16_t>(ElementType::f16, {long(b.size())}, b);
  const std::pair<const char*, Binary> ops[] = {{"Add", OP(Add)}, {"Sub", OP(Sub)}, {"Mul", OP(Mul)},
                                                {"Div", OP(Div)}, {"Rem", OP(Rem)}, {"Max", OP(Max)}};
  for (const auto& [name, op] : ops) {
    SCOPED_TRACE(name);
    const auto fromHalf = bitsOf<half>(op(lhs, rhs));
    const auto fromFloat = valuesOf<float>(op(lhs.cast(ElementType::f32), rhs.cast(ElementType::f32)));
    for (size_t i = 0; i < a.size(); ++i) {
      // With two NaN operands, which payload survives is not guaranteed.
      const uint16_t expected = floatToHalfBits(fromFloat[i]);
      if ((expected & 0x7fff) > 0x7c00 && (fromHalf[i] & 0x7fff) > 0x7c00) continue;
      ASSERT_EQ(fromHalf[i], expected) << i;
    }
  }
  // Pow goes from double to f16 in one rounding.
  Tensor two = tensorOf<uint16_t>(ElementType::f16, {2}, {0x4000, 0x4000});
  Tensor exps = tensorOf<uint16_t>(ElementType::f16, {2}, {0x4200, 0x4c00});  // 3 and 16
  EXPECT_EQ(bitsOf<half>(OP(Pow)(two, exps)), (std::vector<uint16_t>{0x4800, 0x7c00}));
}

TEST(BinaryPredicates, ComparisonsAndLogicalOperators) {
  const std::vector<float> x = {1, kNaN, -0.0f, 2, kNaN, -kInf};
  const std::vector<float> y = {2, 1, 0.0f, 2, kNaN, -kInf};
  struct Case {
    const char* what;
    Binary op;
    std::vector<uint8_t> out;
  };
  const Case cases[] = {
      {"Equal", OP(Equal), {0, 0, 1, 1, 0, 1}},       {"NotEqual", OP(NotEqual), {1, 1, 0, 0, 1, 0}},
      {"Greater", OP(Greater), {0, 0, 0, 0, 0, 0}},   {"GreaterEqual", OP(GreaterEqual), {0, 0, 1, 1, 0, 1}},
      {"Less", OP(Less), {1, 0, 0, 0, 0, 0}},         {"LessEqual", OP(LessEqual), {1, 0, 1, 1, 0, 1}},
      {"LogicalAnd", OP(LogicalAnd), {1, 1, 0, 1, 1, 1}}, {"LogicalOr", OP(LogicalOr), {1, 1, 0, 1, 1, 1}},
      {"LogicalXor", OP(LogicalXor), {0, 0, 0, 0, 0, 0}},
  };
  Tensor lhs = tensorOf<float>(ElementType::f32, {6}, x), rhs = tensorOf<float>(ElementType::f32, {6}, y);
  Tensor lhs16 = lhs.cast(ElementType::f16), rhs16 = rhs.cast(ElementType::f16);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Tensor out = c.op(lhs, rhs);
    EXPECT_EQ(out.elementType(), ElementType::bool8) << "bool8 when fout's type is unset";
    EXPECT_EQ(valuesOf<uint8_t>(out), c.out);
    EXPECT_EQ(valuesOf<uint8_t>(c.op(lhs16, rhs16)), c.out) << "f16";
    // Any other output type receives 1 or 0.
    std::vector<int32_t> asInt(c.out.begin(), c.out.end());
    EXPECT_EQ(valuesOf<int32_t>(c.op(lhs, rhs, ElementType::si32)), asInt);
    std::vector<float> asFloat(c.out.begin(), c.out.end());
    EXPECT_EQ(valuesOf<float>(c.op(lhs, rhs, ElementType::f32)), asFloat);
  }
  // Integers compare by value over their whole range, unsigned included.
  Tensor big = tensorOf<uint64_t>(ElementType::ui64, {2}, {uint64_t(1) << 63, 0});
  Tensor small = tensorOf<uint64_t>(ElementType::ui64, {2}, {1, 0});
  EXPECT_EQ(valuesOf<uint8_t>(OP(Greater)(big, small)), (std::vector<uint8_t>{1, 0}));
  Tensor neg = tensorOf<int64_t>(ElementType::si64, {2}, {INT64_MIN, -1});
  Tensor pos = tensorOf<int64_t>(ElementType::si64, {2}, {INT64_MAX, 0});
  EXPECT_EQ(valuesOf<uint8_t>(OP(Less)(neg, pos)), (std::vector<uint8_t>{1, 1}));
  // bool8 operands: any non-zero byte is true and compares as 1.
  Tensor p = tensorOf<uint8_t>(ElementType::bool8, {4}, {2, 0, 1, 7});
  Tensor q = tensorOf<uint8_t>(ElementType::bool8, {4}, {1, 0, 0, 0});
  EXPECT_EQ(valuesOf<uint8_t>(OP(Equal)(p, q)), (std::vector<uint8_t>{1, 1, 0, 0}));
  EXPECT_EQ(valuesOf<uint8_t>(OP(LogicalXor)(p, q)), (std::vector<uint8_t>{0, 0, 1, 1}));
  EXPECT_EQ(valuesOf<uint8_t>(OP(LogicalAnd)(p, q)), (std::vector<uint8_t>{1, 0, 0, 0}));
}

TEST(Where, SelectorSenseTypesAndBroadcasting) {
  const uint32_t m1 = std::bit_cast<uint32_t>(-1.0f), m2 = std::bit_cast<uint32_t>(-2.0f),
                 m3 = std::bit_cast<uint32_t>(-3.0f);
  const uint32_t v2 = std::bit_cast<uint32_t>(2.0f), v3 = std::bit_cast<uint32_t>(3.0f),
                 v4 = std::bit_cast<uint32_t>(4.0f), v5 = std::bit_cast<uint32_t>(5.0f),
                 v6 = std::bit_cast<uint32_t>(6.0f);
  // lhs starts with a NaN whose payload must be copied unchanged.
  Tensor lhs = tensorOf<uint32_t>(ElementType::f32, {2, 3}, {0x7fa00001u, v2, v3, v4, v5, v6});
  Tensor rhs = tensorOf<float>(ElementType::f32, {3}, {-1, -2, -3});
  struct Case {
    const char* what;
    Tensor sls;
    std::vector<uint32_t> out;
  };
  const Case cases[] = {
      {"bool8 bytes", tensorOf<uint8_t>(ElementType::bool8, {2, 3}, {1, 0, 9, 0, 1, 0}), {0x7fa00001u, m2, v3, m1, v5, m3}},
      {"f32 with NaN and -0", tensorOf<float>(ElementType::f32, {2, 3}, {kNaN, -0.0f, 0.5f, 0, 0, -7}),
       {0x7fa00001u, m2, v3, m1, m2, v6}},
      {"si32 column", tensorOf<int32_t>(ElementType::si32, {2, 1}, {0, -5}), {m1, m2, m3, v4, v5, v6}},
      {"one ui8 value", tensorOf<uint8_t>(ElementType::ui8, {}, {3}), {0x7fa00001u, v2, v3, v4, v5, v6}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Tensor out;
    ASSERT_TRUE(native::WhereConfig(out, lhs, rhs, c.sls).ok());
    EXPECT_EQ(out.type(), TensorType(ElementType::f32, {2, 3}));
    out.allocate();
    ASSERT_TRUE(native::Where(out, lhs, rhs, c.sls).ok());
    EXPECT_EQ(bitsOf<float>(out), c.out);
  }
  // Other value widths are copied bit for bit too.
  Tensor a = tensorOf<int64_t>(ElementType::si64, {2}, {INT64_MIN, 1}), b = tensorOf<int64_t>(ElementType::si64, {1}, {7});
  Tensor s = tensorOf<uint8_t>(ElementType::bool8, {2}, {1, 0});
  Tensor out64 = Tensor::create(ElementType::si64, {2});
  ASSERT_TRUE(native::Where(out64, a, b, s).ok());
  EXPECT_EQ(valuesOf<int64_t>(out64), (std::vector<int64_t>{INT64_MIN, 7}));
  Tensor h = tensorOf<uint16_t>(ElementType::f16, {2}, {0x7d01, 0x3c00}), g = tensorOf<uint16_t>(ElementType::f16, {2}, {0, 0});
  Tensor out16 = Tensor::create(ElementType::f16, {2});
  ASSERT_TRUE(native::Where(out16, h, g, s).ok());
  EXPECT_EQ(bitsOf<half>(out16), (std::vector<uint16_t>{0x7d01, 0})) << "a signalling NaN is copied unchanged";
}

TEST(BinaryTrace, LinesNameEachOperandsOwnCoordinate) {
  Tensor lhs = tensorOf<float>(ElementType::f32, {3, 1}, {1, 2, 3});
  Tensor rhs = tensorOf<float>(ElementType::f32, {4}, {10, 20, 30, 40.5f});
  struct Case {
    std::function<Tensor()> run;
    std::vector<long> point;
    std::vector<std::string> lines;
  };
  const Case cases[] = {
      {[&] { return OP(Add)(lhs, rhs); }, {2, 3}, {"fout[2, 3] = add(lhs[2, 0], rhs[3]) // add(3, 40.5) -> 43.5 "}},
      {[&] { return OP(GreaterEqual)(lhs, rhs, ElementType::si32); }, {1, 0},
       {"fout[1, 0] = greater_equal(lhs[1, 0], rhs[0]) // greater_equal(2, 10) -> 0 "}},
      {[&] { return OP(Equal)(rhs, rhs); }, {2}, {"fout[2] = equal(lhs[2], rhs[2]) // equal(30, 30) -> 1 "}},
      {[&] {
         return OP(BitShift)(tensorOf<uint8_t>(ElementType::ui8, {2}, {200, 200}),
                             tensorOf<uint8_t>(ElementType::ui8, {1}, {2}));
       },
       {1}, {"fout[1] = bit_shift(lhs[1], rhs[0]) // bit_shift(200, 2) -> 50 "}},
      {[&] {
         return OP(LogicalOr)(tensorOf<uint8_t>(ElementType::bool8, {2}, {0, 0}),
                              tensorOf<uint8_t>(ElementType::bool8, {2}, {0, 5}));
       },
       {1}, {"fout[1] = logical_or(lhs[1], rhs[1]) // logical_or(0, 5) -> 1 "}},
      {[&] {
         Tensor out = Tensor::create(ElementType::f32, {3, 4});
         Tensor sls = tensorOf<uint8_t>(ElementType::bool8, {1, 4}, {1, 0, 1, 0});
         EXPECT_TRUE(native::Where(out, lhs, rhs, sls).ok());
         return out;
       },
       {2, 1}, {"fout[2, 1] = ternary_select(lhs[2, 0], rhs[1], sls[0, 1]) // ternary_select(3, 20, 0) -> 20 "}},
      {[&] { return OP(Mod)(lhs, rhs); }, {3, 0}, {}},  // outside the output
      {[&] { return OP(Mod)(lhs, rhs); }, {3}, {}},     // another rank
  };
  for (const Case& c : cases) {
    const auto untraced = bitsOf<float>(c.run().cast(ElementType::f32));
    test::TraceCapture capture;
    test::ScopedTracePoint point(c.point);
    EXPECT_EQ(bitsOf<float>(c.run().cast(ElementType::f32)), untraced) << "tracing never changes the output";
    EXPECT_EQ(capture.lines(), c.lines);
  }
  // In place and traced: the line shows the original operand.
  Tensor a = tensorOf<int32_t>(ElementType::si32, {3}, {5, 6, 7});
  Tensor b = tensorOf<int32_t>(ElementType::si32, {1}, {10});
  test::TraceCapture capture;
  test::ScopedTracePoint point({1});
  ASSERT_TRUE(native::Sub(a, a, b).ok());
  EXPECT_EQ(valuesOf<int32_t>(a), (std::vector<int32_t>{-5, -4, -3}));
  EXPECT_EQ(capture.lines(), std::vector<std::string>{"fout[1] = sub(lhs[1], rhs[0]) // sub(6, 10) -> -4 "});
}

TEST(BinaryFailures, ExactTextsAndNothingWritten) {
  Tensor f32 = tensorOf<float>(ElementType::f32, {2}, {1, 2});
  Tensor si32 = tensorOf<int32_t>(ElementType::si32, {2}, {1, 2});
  Tensor out = tensorOf<float>(ElementType::f32, {2}, {9, 9});
  Tensor bools = tensorOf<uint8_t>(ElementType::bool8, {2}, {9, 9});
  Tensor rank3 = Tensor::create(ElementType::f32, {1, 1, 2});
  Tensor wrongSize = Tensor::create(ElementType::f32, {3});
  Tensor untyped;
  struct Case {
    const char* what;
    std::function<Status()> call;
    std::string message;
  };
  const Case cases[] = {
      {"arithmetic types", [&] { return native::Add(out, f32, si32); }, "type mismatch"},
      {"arithmetic output type", [&] { return native::Div(bools, f32, f32); }, "type mismatch"},
      {"predicate input types", [&] { return native::Less(bools, f32, si32); }, "input type miss"},
      {"rank", [&] { return native::Mul(out, rank3, f32); }, "rank of fout is less than lhs and rhs"},
      {"predicate rank", [&] { return native::Equal(bools, f32, rank3); }, "rank of fout is less than lhs and rhs"},
      {"not broadcastable to fout", [&] { return native::Sub(out, f32, wrongSize); }, "axis 0 size not match for all fins"},
      {"config shapes", [&] {
         Tensor l = Tensor::create(ElementType::f32, {2, 3}), r = Tensor::create(ElementType::f32, {4, 3});
         return native::AddConfig(untyped, l, r);
       }, "Add config error: axis 0 size not match for all fins"},
      {"config validity", [&] { return native::EqualConfig(untyped, f32, Tensor()); },
       "Equal config error: lhs and rhs must both valid"},
      {"config shift", [&] { return native::BitShiftConfig(untyped, Tensor(), si32); },
       "BitShift config error: lhs and rhs must both valid"},
      {"Where types", [&] { return native::Where(out, f32, si32, bools); }, "type mismatch, fout: f32, lhs: f32, rhs: si32"},
      {"Where rank", [&] { return native::Where(out, f32, f32, rank3); }, "rank of fout is less than lhs, rhs or sls"},
      {"Where config", [&] { return native::WhereConfig(untyped, f32, f32, wrongSize); },
       "Where config error: axis 0 size not match for all fins"},
  };
  for (const Case& c : cases) EXPECT_EQ(c.call().message(), c.message) << c.what;
  EXPECT_EQ(valuesOf<float>(out), (std::vector<float>{9, 9}));
  EXPECT_EQ(valuesOf<uint8_t>(bools), (std::vector<uint8_t>{9, 9}));
  Tensor typed(ElementType::f16, {});
  ASSERT_TRUE(native::MaxConfig(typed, f32, Tensor::create(ElementType::f32, {3, 1})).ok());
  EXPECT_EQ(typed.type(), TensorType(ElementType::f16, {3, 2})) << "a type set by the caller is kept";
}

using BinaryDeathTest = ::testing::Test;
TEST_F(BinaryDeathTest, TypesAnOperatorDoesNotServeTrap) {
  struct Case {
    const char* what;
    ElementType in, out;
    BinaryFn call;
  };
  const Case cases[] = {
      {"Add on bf16", ElementType::vbf16, ElementType::vbf16, native::Add},
      {"BitwiseAnd on f32", ElementType::f32, ElementType::f32, native::BitwiseAnd},
      {"BitShift on bool8", ElementType::bool8, ElementType::bool8, native::BitShift},
      {"Less on opaque", ElementType::opaque16, ElementType::bool8, native::Less},
      {"Equal into opaque", ElementType::f32, ElementType::opaque8, native::Equal},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Tensor a = Tensor::create(c.in, {2}), b = Tensor::create(c.in, {2}), out = Tensor::create(c.out, {2});
    const char* name = elementTypeName(c.out == ElementType::opaque8 ? c.out : c.in);
    EXPECT_DEATH(
        {
          test::logToStderr();
          (void)c.call(out, a, b);
        },
        std::string("unknown element type: ") + name);
  }
}
