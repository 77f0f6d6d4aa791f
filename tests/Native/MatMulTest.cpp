// MatMul, Linear and LinearNoBias: every output against the sequential
// k-sum built in the test with a separate multiply and add, on data where
// another order or a fused step gives other bits; shapes that cross every
// tile and block edge; broadcast batches, vectors, strided operands and
// outputs; f16, f64 and integer accumulation; traces, failures and traps.
#include <gtest/gtest.h>

#include <algorithm>
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

std::vector<float> spreadValues(size_t n, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_int_distribution<int> exponent(-8, 8), mantissa(1 << 20, (1 << 21) - 1);
  std::vector<float> v(n);
  for (float& x : v) x = std::ldexp(float(mantissa(rng)) * ((rng() & 1) ? -1.0f : 1.0f), exponent(rng) - 20);
  return v;
}

long count(const std::vector<long>& shape) {
  long n = 1;
  for (long s : shape) n *= s;
  return n;
}

// The element of a right-aligned broadcast operand read at output batch
// coordinate `batch` (sizes of 1 repeat).
long batchOffset(const std::vector<long>& batch, const std::vector<long>& shape, long matrixSize) {
  const auto operandBatch = std::vector<long>(shape.begin(), shape.end() - long(std::min<size_t>(shape.size(), 2)));
  long offset = 0, stride = matrixSize;
  for (long a = long(operandBatch.size()) - 1; a >= 0; --a) {
    const long b = long(batch.size()) - long(operandBatch.size()) + a;
    offset += (operandBatch[size_t(a)] == 1 ? 0 : batch[size_t(b)]) * stride;
    stride *= operandBatch[size_t(a)];
  }
  return offset;
}

// out = lhs x rhs computed output by output: acc = 0, then acc = acc + a * b
// for k in increasing order (two roundings per step), on row-major values.
template <class A>
std::vector<A> referenceProduct(const std::vector<long>& ls, const std::vector<long>& rs,
                                const std::function<A(long)>& lhs, const std::function<A(long)>& rhs) {
  const bool lv = ls.size() == 1, rv = rs.size() == 1;
  const long k = ls.back(), m = lv ? 1 : ls[ls.size() - 2], n = rv ? 1 : rs.back();
  std::vector<long> outShape;
  Tensor l = Tensor(ElementType::f32, ls), r = Tensor(ElementType::f32, rs), o;
  EXPECT_TRUE(native::MatMulConfig(o, l, r).ok());
  outShape = o.shape().vec();
  const size_t batchRank = outShape.size() - (lv ? 0 : 1) - (rv ? 0 : 1);
  const std::vector<long> batchShape(outShape.begin(), outShape.begin() + long(batchRank));
  const auto batchStrides = getStrides(batchShape, 1);
  std::vector<A> out;
  for (long b = 0; b < count(batchShape); ++b) {
    const auto bc = batchShape.empty() ? std::vector<long>{} : getCoord(b, batchShape, batchStrides);
    const long lo = batchOffset(bc, ls, m * k), ro = batchOffset(bc, rs, k * n);
    for (long i = 0; i < m; ++i)
      for (long j = 0; j < n; ++j) {
        A acc = A(0);
        for (long q = 0; q < k; ++q) {
          const A product = lhs(lo + i * k + q) * rhs(ro + q * n + j);
          acc = acc + product;
        }
        out.push_back(acc);
      }
  }
  return out;
}

Tensor matmul(const Tensor& lhs, const Tensor& rhs) {
  Tensor out;
  Status s = native::MatMulConfig(out, lhs, rhs);
  EXPECT_TRUE(s.ok()) << s.message();
  out.allocate();
  s = native::MatMul(out, lhs, rhs);
  EXPECT_TRUE(s.ok()) << s.message();
  return out;
}

// A copy of `t` whose storage runs in the reverse order of its axes.
Tensor transposedCopy(const Tensor& t) {
  std::vector<long> shape = t.shape().vec(), reversed(shape.rbegin(), shape.rend()), order;
  for (long a = long(shape.size()) - 1; a >= 0; --a) order.push_back(a);
  Tensor view = Tensor::create(t.elementType(), reversed).permute(order);
  copyElements(view, t);
  return view;
}

}  // namespace

TEST(MatMulConfig, ShapesAndFailures) {
  struct Case {
    std::vector<long> lhs, rhs, out;
    std::string message;
  };
  const Case cases[] = {
      {{2, 1, 3, 4}, {5, 4, 6}, {2, 5, 3, 6}, ""},
      {{3, 4}, {4}, {3}, ""},
      {{4}, {4, 6}, {6}, ""},
      {{2, 4}, {3, 4, 6}, {3, 2, 6}, ""},
      {{4}, {4}, {}, ""},
      {{7, 2, 3}, {3, 5}, {7, 2, 5}, ""},
      {{3, 4}, {5}, {}, "MatMul config error: lhs[-1]:4 is not equal to rhs[0]:5"},
      {{4}, {5}, {}, "MatMul config error: lhs and rhs axis -1 is not equal, lhs[-1]:4, rhs[-1]:5"},
      {{3, 4}, {5, 6}, {}, "MatMul config error: lhs[-1]:4 is not equal to rhs[-2]:5"},
      {{4}, {5, 6}, {}, "MatMul config error: lhs[-1]:4 is not equal to rhs[-2]:5"},
      {{2, 3, 4}, {3, 4, 5}, {}, "MatMul config error: lhs[0]:2 is not equal to rhs[0]:3"},
      {{6, 2, 3, 4}, {5, 4, 6}, {}, "MatMul config error: lhs[1]:2 is not equal to rhs[0]:5"},
      {{3, -1}, {4, 5}, {}, "MatMul config error: Matmul inputs should not have dynamic shape"},
      {{3, 4}, {-1, 4, 5}, {}, "MatMul config error: Matmul inputs should not have dynamic shape"},
      {{}, {4}, {}, "MatMul config error: operands must be at least 1d, but rank 0"},
  };
  for (const Case& c : cases) {
    Tensor out, lhs(ElementType::f16, c.lhs), rhs(ElementType::f16, c.rhs);
    Status s = native::MatMulConfig(out, lhs, rhs);
    EXPECT_EQ(s.message(), c.message);
    if (c.message.empty()) {
      EXPECT_EQ(out.type(), TensorType(ElementType::f16, c.out));
    }
  }
}

TEST(MatMul, EqualsTheSequentialKSumAcrossTilesBlocksAndBatches) {
  struct Case {
    std::vector<long> lhs, rhs;
  };
  const Case cases[] = {
      {{1, 1}, {1, 1}},         {{3, 5}, {5, 7}},           {{9, 17}, {17, 33}},       {{13, 300}, {300, 40}},
      {{100, 20}, {20, 65}},    {{2, 1, 3, 4}, {5, 4, 6}},  {{4, 9}, {3, 9, 2}},       {{33}, {33, 18}},
      {{18, 33}, {33}},         {{40}, {40}},               {{3, 2, 5, 7}, {1, 2, 7, 4}}, {{5, 0}, {0, 3}},
      {{2, 700, 3}, {3, 2100}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.lhs) + " x " + ::testing::PrintToString(c.rhs));
    const auto a = spreadValues(size_t(count(c.lhs)), unsigned(count(c.lhs))), b = spreadValues(size_t(count(c.rhs)), 77);
    const auto expected = referenceProduct<float>(c.lhs, c.rhs, [&](long i) { return a[size_t(i)]; },
                                                  [&](long i) { return b[size_t(i)]; });
    std::vector<uint32_t> expectedBits;
    for (float v : expected) expectedBits.push_back(std::bit_cast<uint32_t>(v));
    Tensor lhs = Tensor::create(ElementType::f32, c.lhs), rhs = Tensor::create(ElementType::f32, c.rhs);
    std::copy(a.begin(), a.end(), lhs.data<float>().begin());
    std::copy(b.begin(), b.end(), rhs.data<float>().begin());
    EXPECT_EQ(bitsOf<float>(matmul(lhs, rhs)), expectedBits) << "compact";
    EXPECT_EQ(bitsOf<float>(matmul(transposedCopy(lhs), transposedCopy(rhs))), expectedBits) << "transposed operands";
    // A transposed output takes the scratch path.
    Tensor out;
    ASSERT_TRUE(native::MatMulConfig(out, lhs, rhs).ok());
    out = transposedCopy(Tensor::create(ElementType::f32, out.shape()));
    ASSERT_TRUE(native::MatMul(out, lhs, rhs).ok());
    EXPECT_EQ(bitsOf<float>(out), expectedBits) << "transposed output";
    // f16: widened, summed in f32, narrowed once.
    const auto expectedHalf = referenceProduct<float>(
        c.lhs, c.rhs, [&](long i) { return half(a[size_t(i)]).toFloat(); }, [&](long i) { return half(b[size_t(i)]).toFloat(); });
    std::vector<uint16_t> halfBits;
    for (float v : expectedHalf) halfBits.push_back(half(v).bits);
    EXPECT_EQ(bitsOf<half>(matmul(lhs.cast(ElementType::f16), rhs.cast(ElementType::f16))), halfBits) << "f16";
  }
}

TEST(MatMul, EveryInstructionSetGivesTheSameBits) {
  const std::vector<std::string> kernels = native::matMulKernels();
  ASSERT_FALSE(kernels.empty());
  EXPECT_EQ(kernels.back(), "baseline") << "every x86-64 processor runs the baseline";
  EXPECT_EQ(native::matMulKernel(), kernels.front()) << "the widest by default";
  EXPECT_FALSE(native::selectMatMulKernel("sse9"));
  EXPECT_EQ(native::matMulKernel(), kernels.front());
  const std::vector<long> ls = {3, 37, 290}, rs = {290, 45};
  const auto a = spreadValues(size_t(count(ls)), 21), b = spreadValues(size_t(count(rs)), 22);
  const auto expected = referenceProduct<float>(ls, rs, [&](long i) { return a[size_t(i)]; },
                                                [&](long i) { return b[size_t(i)]; });
  std::vector<uint32_t> expectedBits;
  for (float v : expected) expectedBits.push_back(std::bit_cast<uint32_t>(v));
  Tensor lhs = tensorOf<float>(ElementType::f32, ls, a), rhs = tensorOf<float>(ElementType::f32, rs, b);
  for (const std::string& kernel : kernels) {
    ASSERT_TRUE(native::selectMatMulKernel(kernel));
    EXPECT_EQ(native::matMulKernel(), kernel);
    EXPECT_EQ(bitsOf<float>(matmul(lhs, rhs)), expectedBits) << kernel;
    EXPECT_EQ(bitsOf<float>(matmul(transposedCopy(lhs), rhs)), expectedBits) << kernel << " transposed lhs";
  }
  ASSERT_TRUE(native::selectMatMulKernel(kernels.front()));
}

TEST(MatMul, HandWorkedOrderAndNoFusedStep) {
  // (1 + 2^-12)^2 = 1 + 2^-11 + 2^-24 rounds to 1 + 2^-11; added to
  // -(1 + 2^-11) it gives 0, where a fused multiply-add would keep 2^-24.
  const float e = 1.0f + std::ldexp(1.0f, -12), f = -(1.0f + std::ldexp(1.0f, -11));
  Tensor lhs = tensorOf<float>(ElementType::f32, {1, 2}, {1.0f, e});
  Tensor rhs = tensorOf<float>(ElementType::f32, {2, 1}, {f, e});
  EXPECT_EQ(bitsOf<float>(matmul(lhs, rhs)), std::vector<uint32_t>{0}) << "+0, not 2^-24";
  // The same products in every lane of a wide row, so the vector loop is hit.
  std::vector<float> wideRhs;
  for (int i = 0; i < 64; ++i) wideRhs.push_back(f);
  for (int i = 0; i < 64; ++i) wideRhs.push_back(e);
  Tensor wide = tensorOf<float>(ElementType::f32, {2, 64}, wideRhs);
  Tensor rows = tensorOf<float>(ElementType::f32, {20, 2}, std::vector<float>(40, 1.0f));
  for (int i = 0; i < 20; ++i) rows.data<float>().data()[2 * i + 1] = e;
  EXPECT_EQ(bitsOf<float>(matmul(rows, wide)), std::vector<uint32_t>(20 * 64, 0));
  // k in increasing order: 2^24 then four ones stays 2^24.
  Tensor big = tensorOf<float>(ElementType::f32, {5}, {16777216.0f, 1, 1, 1, 1});
  Tensor ones = tensorOf<float>(ElementType::f32, {5}, std::vector<float>(5, 1.0f));
  EXPECT_EQ(valuesOf<float>(matmul(big, ones)), std::vector<float>{16777216.0f});
  EXPECT_EQ(valuesOf<float>(matmul(ones, tensorOf<float>(ElementType::f32, {5}, {1, 1, 1, 1, 16777216.0f}))),
            std::vector<float>{16777220.0f});
  // A zero product starts from +0: -0 * 1 summed from +0 is +0.
  EXPECT_EQ(bitsOf<float>(matmul(tensorOf<float>(ElementType::f32, {1}, {-0.0f}), tensorOf<float>(ElementType::f32, {1}, {1}))),
            std::vector<uint32_t>{0});
  // k = 0: the empty sum.
  Tensor empty = Tensor::create(ElementType::f32, {3, 0}), none = Tensor::create(ElementType::f32, {0, 2});
  EXPECT_EQ(valuesOf<float>(matmul(empty, none)), std::vector<float>(6, 0.0f));
}

TEST(MatMul, WideAndIntegerAccumulation) {
  // f64 in f64.
  const auto a = spreadValues(6 * 5, 5), b = spreadValues(5 * 4, 6);
  std::vector<double> ad(a.begin(), a.end()), bd(b.begin(), b.end());
  for (size_t i = 0; i < ad.size(); ++i) ad[i] = ad[i] * (1.0 + 1e-12 * double(i));
  const auto expected = referenceProduct<double>({6, 5}, {5, 4}, [&](long i) { return ad[size_t(i)]; },
                                                 [&](long i) { return bd[size_t(i)]; });
  EXPECT_EQ(valuesOf<double>(matmul(tensorOf<double>(ElementType::f64, {6, 5}, ad),
                                    transposedCopy(tensorOf<double>(ElementType::f64, {5, 4}, bd)))),
            expected);
  // Integers: the int64 sum, then saturated to the element type.
  struct Case {
    ElementType type;
    std::vector<int64_t> lhs, rhs;
    std::vector<int64_t> expected;
  };
  const Case cases[] = {
      {ElementType::si8, {100, 100, -100, 100}, {100, 100, 1, -1}, {127, 127, -128, -128}},
      {ElementType::si16, {100, 100, -100, 100}, {100, 100, 1, -1}, {10100, 9900, -9900, -10100}},
      {ElementType::si32, {65536, 65536, -65536, 65536}, {65536, 65536, 1, -1}, {INT32_MAX, INT32_MAX, INT32_MIN, INT32_MIN}},
      // si64 wraps at 64 bits: 2 * INT64_MAX + 1 is -1, 5 * INT64_MAX - 1 is INT64_MAX - 5.
      {ElementType::si64, {INT64_MAX, 1, 0, 3}, {2, 5, 1, -1}, {-1, INT64_MAX - 5, 3, -3}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(elementTypeName(c.type));
    Tensor lhs = tensorOf<int64_t>(ElementType::si64, {2, 2}, c.lhs).cast(c.type);
    Tensor rhs = tensorOf<int64_t>(ElementType::si64, {2, 2}, c.rhs).cast(c.type);
    EXPECT_EQ(valuesOf<int64_t>(matmul(lhs, rhs).cast(ElementType::si64)), c.expected);
  }
}

TEST(Linear, SumOverChannelsThenTheBias) {
  struct Case {
    std::vector<long> fin;
    long n;
    std::vector<long> bias;  // empty: LinearNoBias
  };
  const Case cases[] = {
      {{4, 6}, 5, {5}}, {{2, 3, 70}, 33, {1, 33}}, {{3, 2, 1, 9}, 4, {}}, {{1, 300}, 17, {17}}, {{130, 8}, 2, {2}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.fin) + " to " + std::to_string(c.n));
    const long channels = c.fin.back(), rows = count(c.fin) / channels;
    const auto x = spreadValues(size_t(count(c.fin)), 3), w = spreadValues(size_t(c.n * channels), 4),
               bias = spreadValues(size_t(c.n), 5);
    // Reference: rows of fin against rows of weight, then the bias.
    std::vector<uint32_t> expected;
    std::vector<uint16_t> expectedHalf;
    for (long r = 0; r < rows; ++r)
      for (long j = 0; j < c.n; ++j) {
        float acc = 0.0f, accHalf = 0.0f;
        for (long q = 0; q < channels; ++q) {
          const float p = x[size_t(r * channels + q)] * w[size_t(j * channels + q)];
          acc = acc + p;
          const float ph = half(x[size_t(r * channels + q)]).toFloat() * half(w[size_t(j * channels + q)]).toFloat();
          accHalf = accHalf + ph;
        }
        if (!c.bias.empty()) {
          acc = acc + bias[size_t(j)];
          accHalf = accHalf + half(bias[size_t(j)]).toFloat();
        }
        expected.push_back(std::bit_cast<uint32_t>(acc));
        expectedHalf.push_back(half(accHalf).bits);
      }
    Tensor fin = tensorOf<float>(ElementType::f32, c.fin, x), weight = tensorOf<float>(ElementType::f32, {c.n, channels}, w);
    Tensor biasTensor = c.bias.empty() ? Tensor() : tensorOf<float>(ElementType::f32, c.bias, bias);
    std::vector<long> outShape = c.fin;
    outShape.back() = c.n;
    for (ElementType type : {ElementType::f32, ElementType::f16}) {
      for (bool strided : {false, true}) {
        SCOPED_TRACE(std::string(elementTypeName(type)) + (strided ? " strided" : " compact"));
        Tensor in = type == ElementType::f32 ? fin : fin.cast(type), wt = type == ElementType::f32 ? weight : weight.cast(type);
        if (strided) in = transposedCopy(in), wt = transposedCopy(wt);
        Tensor out;
        if (c.bias.empty()) {
          ASSERT_TRUE(native::LinearNoBiasConfig(out, in, wt).ok());
          out.allocate();
          ASSERT_TRUE(native::LinearNoBias(out, in, wt).ok());
        } else {
          Tensor b = type == ElementType::f32 ? biasTensor : biasTensor.cast(type);
          ASSERT_TRUE(native::LinearConfig(out, in, wt, b).ok());
          out.allocate();
          ASSERT_TRUE(native::Linear(out, in, wt, b).ok());
        }
        EXPECT_EQ(out.type(), TensorType(type, outShape));
        if (type == ElementType::f32) {
          EXPECT_EQ(bitsOf<float>(out), expected);
        } else {
          EXPECT_EQ(bitsOf<half>(out), expectedHalf);
        }
      }
    }
  }
  // Integers: the bias joins the int64 sum before the saturation.
  Tensor fin = tensorOf<int8_t>(ElementType::si8, {1, 2}, {100, 100});
  Tensor weight = tensorOf<int8_t>(ElementType::si8, {3, 2}, {1, 1, 100, 100, -100, 100});
  Tensor bias = tensorOf<int8_t>(ElementType::si8, {3}, {-128, -128, 5});
  Tensor out = Tensor::create(ElementType::si8, {1, 3});
  ASSERT_TRUE(native::Linear(out, fin, weight, bias).ok());
  EXPECT_EQ(valuesOf<int8_t>(out), (std::vector<int8_t>{72, 127, 5}));
}

TEST(MatMulTrace, OneLinePerProduct) {
  Tensor lhs = tensorOf<float>(ElementType::f32, {2, 1, 1, 2}, {1, 2, 3, 4});
  Tensor rhs = tensorOf<float>(ElementType::f32, {3, 2, 1}, {0.5f, 1, 2, 3, -1, 10});
  Tensor vec = tensorOf<float>(ElementType::f32, {2}, {5, 6});
  Tensor weight = tensorOf<float>(ElementType::f32, {2, 2}, {1, -1, 0.5f, 2});
  Tensor bias = tensorOf<float>(ElementType::f32, {1, 2}, {100, 200});
  struct Case {
    const char* what;
    std::function<Tensor()> run;
    std::vector<long> point;
    std::vector<std::string> lines;
  };
  const Case cases[] = {
      {"broadcast batch", [&] { return matmul(lhs, rhs); }, {1, 2, 0, 0},
       {"fout[1, 2, 0, 0] += lhs[1, 0, 0, 0] * rhs[2, 0, 0] // 0 += 3 * -1 -> -3",
        "fout[1, 2, 0, 0] += lhs[1, 0, 0, 1] * rhs[2, 1, 0] // -3 += 4 * 10 -> 37"}},
      {"vector lhs", [&] { return matmul(vec, rhs.slice(0, 1, 2)); }, {0, 0},
       {"fout[0, 0] += lhs[0] * rhs[0, 0, 0] // 0 += 5 * 2 -> 10", "fout[0, 0] += lhs[1] * rhs[0, 1, 0] // 10 += 6 * 3 -> 28"}},
      {"vector rhs", [&] { return matmul(lhs, vec); }, {1, 0, 0},
       {"fout[1, 0, 0] += lhs[1, 0, 0, 0] * rhs[0] // 0 += 3 * 5 -> 15",
        "fout[1, 0, 0] += lhs[1, 0, 0, 1] * rhs[1] // 15 += 4 * 6 -> 39"}},
      {"linear", [&] {
         Tensor out = Tensor::create(ElementType::f32, {2, 1, 1, 2});
         EXPECT_TRUE(native::Linear(out, lhs, weight, bias).ok());
         return out;
       }, {1, 0, 0, 1},
       {"psum[1, 0, 0, 1] *= fin[1, 0, 0, 0] * weight[1, 0] // 0 += 3 * 0.5 -> 1.5",
        "psum[1, 0, 0, 1] *= fin[1, 0, 0, 1] * weight[1, 1] // 1.5 += 4 * 2 -> 9.5",
        "psum[1, 0, 0, 1] += bias[0, 1] // 9.5 += 200 -> 209.5"}},
      {"linear without bias", [&] {
         Tensor out = Tensor::create(ElementType::f32, {2, 1, 1, 2});
         EXPECT_TRUE(native::LinearNoBias(out, lhs, weight).ok());
         return out;
       }, {0, 0, 0, 0},
       {"psum[0, 0, 0, 0] *= fin[0, 0, 0, 0] * weight[0, 0] // 0 += 1 * 1 -> 1",
        "psum[0, 0, 0, 0] *= fin[0, 0, 0, 1] * weight[0, 1] // 1 += 2 * -1 -> -1"}},
      {"integers", [&] { return matmul(lhs.cast(ElementType::si8), rhs.cast(ElementType::si8)); }, {0, 1, 0, 0},
       {"fout[0, 1, 0, 0] += lhs[0, 0, 0, 0] * rhs[1, 0, 0] // 0 += 1 * 2 -> 2",
        "fout[0, 1, 0, 0] += lhs[0, 0, 0, 1] * rhs[1, 1, 0] // 2 += 2 * 3 -> 8"}},
      {"outside", [&] { return matmul(lhs, rhs); }, {2, 0, 0, 0}, {}},
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

TEST(MatMulFailures, ExactTextsAndNothingWritten) {
  Tensor a = tensorOf<float>(ElementType::f32, {2, 3}, {1, 2, 3, 4, 5, 6});
  Tensor b = tensorOf<float>(ElementType::f32, {3, 2}, {1, 2, 3, 4, 5, 6});
  Tensor out = tensorOf<float>(ElementType::f32, {2, 2}, {9, 9, 9, 9});
  Tensor weight = tensorOf<float>(ElementType::f32, {2, 3}, {1, 2, 3, 4, 5, 6});
  Tensor bias = tensorOf<float>(ElementType::f32, {2}, {1, 2});
  Tensor untyped;
  struct Case {
    const char* what;
    std::function<Status()> call;
    std::string message;
  };
  const Case cases[] = {
      {"types", [&] { return native::MatMul(out, a, b.cast(ElementType::f16)); }, "operands tensor element type miss"},
      {"fout type", [&] {
         Tensor o = Tensor::create(ElementType::f64, {2, 2});
         return native::MatMul(o, a, b);
       }, "operands tensor element type miss"},
      {"operands", [&] { return native::MatMul(out, a, a); }, "two operands shape miss"},
      {"fout shape", [&] {
         Tensor o = Tensor::create(ElementType::f32, {2, 3});
         return native::MatMul(o, a, b);
       }, "two operands shape miss"},
      {"linear dynamic", [&] { return native::LinearConfig(untyped, Tensor(ElementType::f32, {2, -1}), weight, bias); },
       "Linear config error: Linear inputs should not have dynamic shape"},
      {"linear rank", [&] { return native::LinearConfig(untyped, Tensor(ElementType::f32, {8}), weight, bias); },
       "Linear config error: operands must be at least 2d, but rank 1"},
      {"linear weight rank", [&] { return native::LinearNoBiasConfig(untyped, a, Tensor(ElementType::f32, {3})); },
       "LinearNoBias config error: operands must be at least 2d, but rank 1"},
      {"linear channels", [&] { return native::LinearNoBiasConfig(untyped, b, weight); },
       "LinearNoBias config error: input.c:[2] must be equal to weight.c:[3]"},
      {"linear bias", [&] { return native::LinearConfig(untyped, a, weight, Tensor(ElementType::f32, {3})); },
       "Linear config error: weight.n:[2] must be equal to bias:[3]"},
      {"bias type", [&] { return native::Linear(out, a, weight, bias.cast(ElementType::f16)); }, "bias must be same with fin"},
      {"fout type", [&] {
         Tensor o = Tensor::create(ElementType::f16, {2, 2});
         return native::Linear(o, a, weight, bias);
       }, "fout must be same with fin"},
      {"weight type", [&] { return native::LinearNoBias(out, a, weight.cast(ElementType::f16)); }, "weight must be same with fin"},
      {"ranks", [&] {
         Tensor o = Tensor::create(ElementType::f32, {1, 2, 2});
         return native::LinearNoBias(o, a, weight);
       }, "rank of linear input and output must be same"},
      {"output channels", [&] { return native::LinearNoBias(out, a, weight.slice(0, 0, 1)); },
       "channel number for linear weight and output must be same"},
      {"weight rank 3", [&] {
         Tensor w = Tensor::create(ElementType::f32, {1, 2, 3});
         return native::LinearNoBias(out, a, w);
       }, "rank of linear weight must be 2"},
      {"input channels", [&] { return native::LinearNoBias(out, a, b); }, "channel number for linear weight and input must be same"},
      {"leading axes", [&] {
         Tensor o = Tensor::create(ElementType::f32, {3, 2});
         return native::Linear(o, a, weight, bias);
       }, "shape mismatch"},
      {"bias count", [&] { return native::Linear(out, a, weight, Tensor::create(ElementType::f32, {3})); },
       "weight.n:[2] must be equal to bias:[3]"},
  };
  for (const Case& c : cases) EXPECT_EQ(c.call().message(), c.message) << c.what;
  EXPECT_EQ(valuesOf<float>(out), std::vector<float>(4, 9.0f));
}

TEST(MatMulTable, RegisteredKernelsRunByName) {
  Tensor a = tensorOf<float>(ElementType::f32, {1, 2}, {1, 2});
  Tensor w = tensorOf<float>(ElementType::f32, {2, 2}, {3, 4, 5, 6});
  Tensor bias = tensorOf<float>(ElementType::f32, {2}, {0.5f, -0.5f});
  struct Case {
    const char* name;
    std::vector<Argument> args;
    std::vector<float> values;
  };
  const Case cases[] = {
      {"native::MatMul", {a, w}, {13, 16}},
      {"native::Linear", {a, w, bias}, {11.5f, 16.5f}},
      {"native::LinearNoBias", {a, w}, {11, 17}},
  };
  for (const Case& c : cases) {
    std::vector<Tensor> outputs;
    ASSERT_TRUE(invoke(c.name, outputs, c.args).ok()) << c.name;
    EXPECT_EQ(valuesOf<float>(outputs.at(0)), c.values) << c.name;
  }
}

using MatMulDeathTest = ::testing::Test;
TEST_F(MatMulDeathTest, TypesWithoutALoopTrap) {
  for (ElementType type : {ElementType::vbf16, ElementType::ui8, ElementType::bool8}) {
    SCOPED_TRACE(elementTypeName(type));
    Tensor a = Tensor::create(type, {2, 2}), out = Tensor::create(type, {2, 2});
    EXPECT_DEATH(
        {
          test::logToStderr();
          (void)native::MatMul(out, a, a);
        },
        std::string("unknown element type: ") + elementTypeName(type));
    EXPECT_DEATH(
        {
          test::logToStderr();
          (void)native::LinearNoBias(out, a, a);
        },
        std::string("unknown element type: ") + elementTypeName(type));
  }
}
