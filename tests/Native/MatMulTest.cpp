// MatMul, Linear and LinearNoBias: every output against the sequential
// k-sum built in the test with a separate multiply and add, on data where
// another order or a fused step gives other bits; shapes that cross every
// tile and block edge, under every instruction set; broadcast batches,
// vectors, strided operands and outputs; f16, f64 and integer accumulation;
// traces, failures and traps.
#include <numeric>

#include "NativeTest.h"

using namespace kora;
using namespace kora::test;
using enum ElementType;

namespace {

long count(const std::vector<long>& shape) { return std::accumulate(shape.begin(), shape.end(), 1l, std::multiplies<long>()); }

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
  Tensor out;
  EXPECT_TRUE(native::MatMulConfig(out, Tensor(f32, ls), Tensor(f32, rs)).ok());
  const std::vector<long> batchShape(out.shape().begin(), out.shape().end() - (lv ? 0 : 1) - (rv ? 0 : 1));
  const auto batchStrides = getStrides(batchShape, 1);
  std::vector<A> result;
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
        result.push_back(acc);
      }
  }
  return result;
}

Tensor matmul(const Tensor& lhs, const Tensor& rhs) {
  return runKernel(native::MatMulConfig, native::MatMul, Tensor(), lhs, rhs);
}

float halfRounded(float x) { return half(x).toFloat(); }

}  // namespace

TEST(MatMulConfig, ShapesAndFailures) {
  const std::tuple<std::vector<long>, std::vector<long>, std::vector<long>, std::string> cases[] = {
      {{2, 1, 3, 4}, {5, 4, 6}, {2, 5, 3, 6}, ""}, {{3, 4}, {4}, {3}, ""}, {{4}, {4, 6}, {6}, ""}, {{4}, {4}, {}, ""},
      {{2, 4}, {3, 4, 6}, {3, 2, 6}, ""},          {{7, 2, 3}, {3, 5}, {7, 2, 5}, ""},
      {{3, 4}, {5}, {}, "lhs[-1]:4 is not equal to rhs[0]:5"},
      {{4}, {5}, {}, "lhs and rhs axis -1 is not equal, lhs[-1]:4, rhs[-1]:5"},
      {{3, 4}, {5, 6}, {}, "lhs[-1]:4 is not equal to rhs[-2]:5"},
      {{4}, {5, 6}, {}, "lhs[-1]:4 is not equal to rhs[-2]:5"},
      {{2, 3, 4}, {3, 4, 5}, {}, "lhs[0]:2 is not equal to rhs[0]:3"},
      {{6, 2, 3, 4}, {5, 4, 6}, {}, "lhs[1]:2 is not equal to rhs[0]:5"},
      {{3, -1}, {4, 5}, {}, "Matmul inputs should not have dynamic shape"},
      {{3, 4}, {-1, 4, 5}, {}, "Matmul inputs should not have dynamic shape"},
      {{}, {4}, {}, "operands must be at least 1d, but rank 0"},
  };
  for (const auto& [ls, rs, shape, message] : cases) {
    Tensor out;
    Status s = native::MatMulConfig(out, Tensor(f16, ls), Tensor(f16, rs));
    EXPECT_EQ(s.message(), message.empty() ? "" : "MatMul config error: " + message);
    if (message.empty()) { EXPECT_EQ(out.type(), TensorType(f16, shape)); }
  }
}

TEST(MatMul, EqualsTheSequentialKSumAcrossTilesBlocksBatchesAndInstructionSets) {
  const std::vector<std::string> kernels = native::matMulKernels();
  ASSERT_FALSE(kernels.empty());
  EXPECT_EQ(kernels.back(), "baseline") << "every x86-64 processor runs the baseline";
  EXPECT_EQ(native::matMulKernel(), kernels.front()) << "the widest by default";
  EXPECT_FALSE(native::selectMatMulKernel("sse9"));
  EXPECT_EQ(native::matMulKernel(), kernels.front());
  const std::pair<std::vector<long>, std::vector<long>> cases[] = {
      {{1, 1}, {1, 1}},      {{3, 5}, {5, 7}},          {{9, 17}, {17, 33}},      {{13, 300}, {300, 40}},
      {{100, 20}, {20, 65}}, {{2, 1, 3, 4}, {5, 4, 6}}, {{4, 9}, {3, 9, 2}},      {{33}, {33, 18}},
      {{18, 33}, {33}},      {{40}, {40}},              {{3, 2, 5, 7}, {1, 2, 7, 4}}, {{5, 0}, {0, 3}},
      {{2, 700, 3}, {3, 2100}}, {{3, 37, 290}, {290, 45}},
  };
  for (const auto& [ls, rs] : cases) {
    const auto a = spreadValues(size_t(count(ls)), unsigned(count(ls)), -8, 8);
    const auto b = spreadValues(size_t(count(rs)), 77, -8, 8);
    auto at = [](const std::vector<float>& v, bool rounded) {
      return [&v, rounded](long i) { return rounded ? halfRounded(v[size_t(i)]) : v[size_t(i)]; };
    };
    const auto sums = referenceProduct<float>(ls, rs, at(a, false), at(b, false));
    const auto sumsHalf = referenceProduct<float>(ls, rs, at(a, true), at(b, true));
    const auto expected = bitsOf<float>(f32s({long(sums.size())}, sums));
    const auto expectedHalf = bitsOf<half>(f32s({long(sumsHalf.size())}, sumsHalf).cast(f16));
    Tensor lhs = tensorOf<float>(f32, ls, a), rhs = tensorOf<float>(f32, rs, b);
    for (const std::string& kernel : kernels) {
      SCOPED_TRACE(::testing::PrintToString(ls) + " x " + ::testing::PrintToString(rs) + " " + kernel);
      ASSERT_TRUE(native::selectMatMulKernel(kernel));
      EXPECT_EQ(native::matMulKernel(), kernel);
      EXPECT_EQ(bitsOf<float>(matmul(lhs, rhs)), expected) << "compact";
      EXPECT_EQ(bitsOf<float>(matmul(transposedCopy(lhs), transposedCopy(rhs))), expected) << "transposed operands";
      // A transposed output takes the scratch path.
      Tensor out = transposedCopy(Tensor::create(f32, matmul(lhs, rhs).shape()));
      ASSERT_TRUE(native::MatMul(out, lhs, rhs).ok());
      EXPECT_EQ(bitsOf<float>(out), expected) << "transposed output";
      // f16: widened, summed in f32, narrowed once.
      EXPECT_EQ(bitsOf<half>(matmul(lhs.cast(f16), rhs.cast(f16))), expectedHalf) << "f16";
    }
  }
  ASSERT_TRUE(native::selectMatMulKernel(kernels.front()));
}

TEST(MatMul, HandWorkedNoFusedStepAndEmptySums) {
  // (1 + 2^-12)^2 = 1 + 2^-11 + 2^-24 rounds to 1 + 2^-11; added to
  // -(1 + 2^-11) it gives 0, where a fused multiply-add would keep 2^-24.
  // The same products in every lane of a wide row reach the vector loop.
  const float e = 1.0f + std::ldexp(1.0f, -12), f = -(1.0f + std::ldexp(1.0f, -11));
  std::vector<float> rows, wide(64, f);
  for (int i = 0; i < 20; ++i) rows.insert(rows.end(), {1.0f, e});
  wide.resize(128, e);
  EXPECT_EQ(bitsOf<float>(matmul(tensorOf<float>(f32, {20, 2}, rows), tensorOf<float>(f32, {2, 64}, wide))),
            std::vector<uint32_t>(20 * 64, 0)) << "+0, not 2^-24";
  // A zero product starts from +0: -0 * 1 summed from +0 is +0; k = 0 is the empty sum.
  Tensor minusZero = tensorOf<float>(f32, {1}, {-0.0f}), one = tensorOf<float>(f32, {1}, {1});
  EXPECT_EQ(bitsOf<float>(matmul(minusZero, one)), std::vector<uint32_t>{0});
  Tensor noColumns = Tensor::create(f32, {3, 0}), noRows = Tensor::create(f32, {0, 2});
  EXPECT_EQ(bitsOf<float>(matmul(noColumns, noRows)), std::vector<uint32_t>(6, 0));
}

TEST(MatMul, WideAndIntegerAccumulation) {
  // f64 in f64.
  const auto a = spreadValues(6 * 5, 5, -8, 8), b = spreadValues(5 * 4, 6, -8, 8);
  std::vector<double> ad(a.begin(), a.end()), bd(b.begin(), b.end());
  for (size_t i = 0; i < ad.size(); ++i) ad[i] = ad[i] * (1.0 + 1e-12 * double(i));
  const auto expected = referenceProduct<double>({6, 5}, {5, 4}, [&](long i) { return ad[size_t(i)]; },
                                                 [&](long i) { return bd[size_t(i)]; });
  Tensor lhs = tensorOf<double>(f64, {6, 5}, ad), rhs = transposedCopy(tensorOf<double>(f64, {5, 4}, bd));
  EXPECT_EQ(valuesOf<double>(matmul(lhs, rhs)), expected);
  // Integers: the int64 sum, then saturated to the element type; si64 wraps
  // at 64 bits: 2 * INT64_MAX + 1 is -1, 5 * INT64_MAX - 1 is INT64_MAX - 5.
  const std::tuple<ElementType, std::vector<int64_t>, std::vector<int64_t>, std::vector<int64_t>> cases[] = {
      {si8, {100, 100, -100, 100}, {100, 100, 1, -1}, {127, 127, -128, -128}},
      {si32, {65536, 65536, -65536, 65536}, {65536, 65536, 1, -1}, {INT32_MAX, INT32_MAX, INT32_MIN, INT32_MIN}},
      {si64, {INT64_MAX, 1, 0, 3}, {2, 5, 1, -1}, {-1, INT64_MAX - 5, 3, -3}},
  };
  for (const auto& [type, l, r, out] : cases) {
    Tensor lhs = tensorOf<int64_t>(si64, {2, 2}, l).cast(type), rhs = tensorOf<int64_t>(si64, {2, 2}, r).cast(type);
    EXPECT_EQ(valuesOf<int64_t>(matmul(lhs, rhs).cast(si64)), out) << elementTypeName(type);
  }
  // Linear: the bias joins the int64 sum before the saturation.
  Tensor out = Tensor::create(si8, {1, 3});
  Tensor fin = tensorOf<int8_t>(si8, {1, 2}, {100, 100});
  Tensor weight = tensorOf<int8_t>(si8, {3, 2}, {1, 1, 100, 100, -100, 100});
  ASSERT_TRUE(native::Linear(out, fin, weight, tensorOf<int8_t>(si8, {3}, {-128, -128, 5})).ok());
  EXPECT_EQ(valuesOf<int8_t>(out), (std::vector<int8_t>{72, 127, 5}));
}

TEST(Linear, SumOverChannelsThenTheBias) {
  const std::tuple<std::vector<long>, long, std::vector<long>> cases[] = {  // an empty bias shape: LinearNoBias
      {{4, 6}, 5, {5}}, {{2, 3, 70}, 33, {1, 33}}, {{3, 2, 1, 9}, 4, {}}, {{1, 300}, 17, {17}}, {{130, 8}, 2, {2}},
  };
  for (const auto& [finShape, n, biasShape] : cases) {
    const long channels = finShape.back(), rows = count(finShape) / channels;
    const auto x = spreadValues(size_t(count(finShape)), 3, -8, 8), w = spreadValues(size_t(n * channels), 4, -8, 8),
               bias = spreadValues(size_t(n), 5, -8, 8);
    // Reference: fin as [rows, C] times the transposed weight, then the bias.
    std::vector<float> sums, sumsHalf;
    for (bool rounded : {false, true}) {
      auto value = [rounded](float v) { return rounded ? halfRounded(v) : v; };
      auto& target = rounded ? sumsHalf : sums;
      target = referenceProduct<float>({rows, channels}, {channels, n}, [&](long i) { return value(x[size_t(i)]); },
                                       [&](long i) { return value(w[size_t((i % n) * channels + i / n)]); });
      if (!biasShape.empty())
        for (size_t i = 0; i < target.size(); ++i) target[i] = target[i] + value(bias[i % size_t(n)]);
    }
    std::vector<long> outShape = finShape;
    outShape.back() = n;
    for (ElementType type : {f32, f16}) {
      for (bool strided : {false, true}) {
        SCOPED_TRACE(::testing::PrintToString(finShape) + " " + elementTypeName(type) + (strided ? " strided" : ""));
        Tensor in = f32s(finShape, x).cast(type), wt = f32s({n, channels}, w).cast(type);
        if (strided) in = transposedCopy(in), wt = transposedCopy(wt);
        Tensor b = biasShape.empty() ? Tensor() : tensorOf<float>(f32, biasShape, bias).cast(type);
        Tensor out = biasShape.empty() ? runKernel(native::LinearNoBiasConfig, native::LinearNoBias, Tensor(), in, wt)
                                       : runKernel(native::LinearConfig, native::Linear, Tensor(), in, wt, b);
        EXPECT_EQ(out.type(), TensorType(type, outShape));
        EXPECT_EQ(resultBits(out), resultBits(f32s(outShape, type == f32 ? sums : sumsHalf).cast(type)));
      }
    }
  }
}

TEST(MatMulTrace, OneLinePerProduct) {
  Tensor lhs = tensorOf<float>(f32, {2, 1, 1, 2}, {1, 2, 3, 4});
  Tensor rhs = tensorOf<float>(f32, {3, 2, 1}, {0.5f, 1, 2, 3, -1, 10});
  Tensor weight = tensorOf<float>(f32, {2, 2}, {1, -1, 0.5f, 2});
  Tensor bias = tensorOf<float>(f32, {1, 2}, {100, 200}), out = Tensor::create(f32, {2, 1, 1, 2});
  const std::tuple<std::function<Tensor()>, std::vector<long>, std::vector<std::string>> cases[] = {
      {[&] { return matmul(lhs, rhs); }, {1, 2, 0, 0},
       {"fout[1, 2, 0, 0] += lhs[1, 0, 0, 0] * rhs[2, 0, 0] // 0 += 3 * -1 -> -3",
        "fout[1, 2, 0, 0] += lhs[1, 0, 0, 1] * rhs[2, 1, 0] // -3 += 4 * 10 -> 37"}},
      {[&] { EXPECT_TRUE(native::Linear(out, lhs, weight, bias).ok()); return out; }, {1, 0, 0, 1},
       {"psum[1, 0, 0, 1] *= fin[1, 0, 0, 0] * weight[1, 0] // 0 += 3 * 0.5 -> 1.5",
        "psum[1, 0, 0, 1] *= fin[1, 0, 0, 1] * weight[1, 1] // 1.5 += 4 * 2 -> 9.5",
        "psum[1, 0, 0, 1] += bias[0, 1] // 9.5 += 200 -> 209.5"}},
      {[&] { return matmul(lhs, rhs); }, {2, 0, 0, 0}, {}},  // outside the output
  };
  for (const auto& [run, point, lines] : cases) expectTrace(run, point, lines);
}

TEST(MatMulFailures, ExactTextsAndNothingWritten) {
  Tensor a = tensorOf<float>(f32, {2, 3}, {1, 2, 3, 4, 5, 6}), b = tensorOf<float>(f32, {3, 2}, {1, 2, 3, 4, 5, 6});
  Tensor out = tensorOf<float>(f32, {2, 2}, {9, 9, 9, 9}), weight = a, bias = tensorOf<float>(f32, {2}, {1, 2});
  Tensor b16 = b.cast(f16), w16 = a.cast(f16), bias16 = bias.cast(f16), bias3 = Tensor::create(f32, {3});
  Tensor out16 = Tensor::create(f16, {2, 2});
  Tensor rank3 = Tensor::create(f32, {1, 2, 2}), tall = Tensor::create(f32, {3, 2});
  Tensor weight3 = Tensor::create(f32, {1, 2, 3}), unsized(f32, {2, -1}), short3(f32, {3}), o;
  expectFailures({
      {"operands tensor element type miss", CALL(MatMul(out, a, b16))},
      {"two operands shape miss", CALL(MatMul(out, a, a))},
      {"Linear config error: Linear inputs should not have dynamic shape",
       CALL(LinearConfig(o, unsized, weight, bias))},
      {"LinearNoBias config error: operands must be at least 2d, but rank 1", CALL(LinearNoBiasConfig(o, a, short3))},
      {"LinearNoBias config error: input.c:[2] must be equal to weight.c:[3]", CALL(LinearNoBiasConfig(o, b, weight))},
      {"bias must be same with fin", CALL(Linear(out, a, weight, bias16))},
      {"fout must be same with fin", CALL(Linear(out16, a, weight, bias))},
      {"weight must be same with fin", CALL(LinearNoBias(out, a, w16))},
      {"rank of linear input and output must be same", CALL(LinearNoBias(rank3, a, weight))},
      {"channel number for linear weight and output must be same", CALL(LinearNoBias(out, a, weight.slice(0, 0, 1)))},
      {"rank of linear weight must be 2", CALL(LinearNoBias(out, a, weight3))},
      {"channel number for linear weight and input must be same", CALL(LinearNoBias(out, a, b))},
      {"shape mismatch", CALL(Linear(tall, a, weight, bias))},
      {"weight.n:[2] must be equal to bias:[3]", CALL(Linear(out, a, weight, bias3))},
  });
  EXPECT_EQ(valuesOf<float>(out), std::vector<float>(4, 9.0f));
}
