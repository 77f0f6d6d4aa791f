// MatMul, Linear and LinearNoBias: every output against the sequential
// k-sum built in the test with a separate multiply and add, on data where
// another order or a fused step gives other bits; shapes that cross every
// tile and block edge, under every instruction set; broadcast batches,
// vectors, strided operands and outputs; f16 and integer accumulation;
// traces and failures.
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
std::vector<float> referenceProduct(const std::vector<long>& ls, const std::vector<long>& rs, const std::vector<float>& lhs,
                                    const std::vector<float>& rhs) {
  const bool lv = ls.size() == 1, rv = rs.size() == 1;
  const long k = ls.back(), m = lv ? 1 : ls[ls.size() - 2], n = rv ? 1 : rs.back();
  Tensor out;
  EXPECT_TRUE(native::MatMulConfig(out, Tensor(f32, ls), Tensor(f32, rs)).ok());
  const std::vector<long> batchShape(out.shape().begin(), out.shape().end() - (lv ? 0 : 1) - (rv ? 0 : 1));
  const auto batchStrides = getStrides(batchShape, 1);
  std::vector<float> result;
  for (long b = 0; b < count(batchShape); ++b) {
    const auto bc = batchShape.empty() ? std::vector<long>{} : getCoord(b, batchShape, batchStrides);
    const long lo = batchOffset(bc, ls, m * k), ro = batchOffset(bc, rs, k * n);
    for (long i = 0; i < m; ++i)
      for (long j = 0; j < n; ++j) {
        float acc = 0.0f;
        for (long q = 0; q < k; ++q) {
          const float product = lhs[size_t(lo + i * k + q)] * rhs[size_t(ro + q * n + j)];
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

// The values as f16 holds them.
std::vector<float> halfRounded(std::vector<float> v) {
  for (float& x : v) x = half(x).toFloat();
  return v;
}

}  // namespace

TEST(MatMulConfig, ShapesAndFailures) {
  const std::tuple<std::vector<long>, std::vector<long>, std::vector<long>, std::string> cases[] = {
      {{2, 1, 3, 4}, {5, 4, 6}, {2, 5, 3, 6}, ""}, {{3, 4}, {4}, {3}, ""}, {{4}, {4, 6}, {6}, ""}, {{4}, {4}, {}, ""},
      {{2, 4}, {3, 4, 6}, {3, 2, 6}, ""},          {{7, 2, 3}, {3, 5}, {7, 2, 5}, ""},
      {{3, 4}, {5}, {}, "lhs[-1]:4 is not equal to rhs[0]:5"},
      {{4}, {5}, {}, "lhs and rhs axis -1 is not equal, lhs[-1]:4, rhs[-1]:5"},
      {{3, 4}, {5, 6}, {}, "lhs[-1]:4 is not equal to rhs[-2]:5"},
      // Batch axes are named by their own index in each operand.
      {{6, 2, 3, 4}, {5, 4, 6}, {}, "lhs[1]:2 is not equal to rhs[0]:5"},
      {{3, -1}, {4, 5}, {}, "Matmul inputs should not have dynamic shape"},
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
  EXPECT_EQ(native::matMulKernel(), kernels.front()) << "the widest by default";
  EXPECT_FALSE(native::selectMatMulKernel("sse9"));
  const std::pair<std::vector<long>, std::vector<long>> cases[] = {
      {{1, 1}, {1, 1}},      {{3, 5}, {5, 7}},          {{9, 17}, {17, 33}},      {{13, 300}, {300, 40}},
      {{100, 20}, {20, 65}}, {{2, 1, 3, 4}, {5, 4, 6}}, {{4, 9}, {3, 9, 2}},      {{33}, {33, 18}},
      {{18, 33}, {33}},      {{40}, {40}},              {{3, 2, 5, 7}, {1, 2, 7, 4}}, {{5, 0}, {0, 3}},
      {{2, 700, 3}, {3, 2100}}, {{3, 37, 290}, {290, 45}},
  };
  for (const auto& [ls, rs] : cases) {
    const auto a = spreadValues(size_t(count(ls)), unsigned(count(ls)), -8, 8);
    const auto b = spreadValues(size_t(count(rs)), 77, -8, 8);
    const auto sums = referenceProduct(ls, rs, a, b), sumsHalf = referenceProduct(ls, rs, halfRounded(a), halfRounded(b));
    const auto expected = bitsOf<float>(f32s({long(sums.size())}, sums));
    const auto expectedHalf = bitsOf<half>(f32s({long(sumsHalf.size())}, sumsHalf).cast(f16));
    Tensor lhs = tensorOf<float>(f32, ls, a), rhs = tensorOf<float>(f32, rs, b);
    for (const std::string& kernel : kernels) {
      SCOPED_TRACE(::testing::PrintToString(ls) + " x " + ::testing::PrintToString(rs) + " " + kernel);
      ASSERT_TRUE(native::selectMatMulKernel(kernel));
      EXPECT_EQ(bitsOf<float>(matmul(lhs, rhs)), expected) << "compact";
      EXPECT_EQ(bitsOf<float>(matmul(transposedCopy(lhs), transposedCopy(rhs))), expected) << "transposed operands";
      // f16: widened, summed in f32, narrowed once.
      EXPECT_EQ(bitsOf<half>(matmul(lhs.cast(f16), rhs.cast(f16))), expectedHalf) << "f16";
      if (ls.size() < 2 || rs.size() != 2) continue;
      // LinearNoBias is the same product with the weight stored [n, k].
      for (ElementType type : {f32, f16}) {
        Tensor weight = rhs.permute({1, 0}).contiguous().cast(type);
        Tensor out = runKernel(native::LinearNoBiasConfig, native::LinearNoBias, Tensor(), lhs.cast(type), weight);
        EXPECT_EQ(resultBits(out), resultBits(f32s({long(sums.size())}, type == f32 ? sums : sumsHalf).cast(type))) << "Linear";
      }
    }
  }
  ASSERT_TRUE(native::selectMatMulKernel(kernels.front()));
}

TEST(MatMul, HandWorkedNoFusedStepAndThePositiveZeroStart) {
  // (1 + 2^-12)^2 = 1 + 2^-11 + 2^-24 rounds to 1 + 2^-11; added to
  // -(1 + 2^-11) it gives 0, where a fused multiply-add would keep 2^-24.
  // The same products in every lane of a wide row reach the vector loop.
  const float e = 1.0f + std::ldexp(1.0f, -12), f = -(1.0f + std::ldexp(1.0f, -11));
  std::vector<float> rows, wide(64, f);
  for (int i = 0; i < 20; ++i) rows.insert(rows.end(), {1.0f, e});
  wide.resize(128, e);
  EXPECT_EQ(bitsOf<float>(matmul(tensorOf<float>(f32, {20, 2}, rows), tensorOf<float>(f32, {2, 64}, wide))),
            std::vector<uint32_t>(20 * 64, 0)) << "+0, not 2^-24";
  // A zero product starts from +0: -0 * 1 summed from +0 is +0.
  Tensor minusZero = tensorOf<float>(f32, {1}, {-0.0f}), one = tensorOf<float>(f32, {1}, {1});
  EXPECT_EQ(bitsOf<float>(matmul(minusZero, one)), std::vector<uint32_t>{0});
}

TEST(MatMul, IntegerAccumulation) {
  // Integers: the int64 sum, then saturated to the element type; si64 wraps
  // at 64 bits: 2 * INT64_MAX + 1 is -1, 5 * INT64_MAX - 1 is INT64_MAX - 5.
  const std::tuple<ElementType, std::vector<int64_t>, std::vector<int64_t>, std::vector<int64_t>> cases[] = {
      {si8, {100, 100, -100, 100}, {100, 100, 1, -1}, {127, 127, -128, -128}},
      {si64, {INT64_MAX, 1, 0, 3}, {2, 5, 1, -1}, {-1, INT64_MAX - 5, 3, -3}},
  };
  for (const auto& [type, l, r, out] : cases) {
    Tensor lhs = tensorOf<int64_t>(si64, {2, 2}, l).cast(type), rhs = tensorOf<int64_t>(si64, {2, 2}, r).cast(type);
    EXPECT_EQ(valuesOf<int64_t>(matmul(lhs, rhs).cast(si64)), out) << elementTypeName(type);
  }
  // Linear: in f32 the bias is added to the finished sum; in integers it
  // joins the int64 sum before the saturation.
  Tensor sums = runKernel(native::LinearConfig, native::Linear, Tensor(), f32s({1, 2}, {1, 2}),
                          f32s({2, 2}, {3, 4, 5, 6}), f32s({2}, {0.5f, -0.5f}));
  EXPECT_EQ(valuesOf<float>(sums), (std::vector<float>{11.5f, 16.5f}));
  Tensor out = Tensor::create(si8, {1, 3});
  Tensor fin = tensorOf<int8_t>(si8, {1, 2}, {100, 100});
  Tensor weight = tensorOf<int8_t>(si8, {3, 2}, {1, 1, 100, 100, -100, 100});
  ASSERT_TRUE(native::Linear(out, fin, weight, tensorOf<int8_t>(si8, {3}, {-128, -128, 5})).ok());
  EXPECT_EQ(valuesOf<int8_t>(out), (std::vector<int8_t>{72, 127, 5}));
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
  };
  for (const auto& [run, point, lines] : cases) expectTrace(run, point, lines);
}

TEST(MatMulFailures, ExactTextsAndNothingWritten) {
  Tensor a = tensorOf<float>(f32, {2, 3}, {1, 2, 3, 4, 5, 6}), b = tensorOf<float>(f32, {3, 2}, {1, 2, 3, 4, 5, 6});
  Tensor out = tensorOf<float>(f32, {2, 2}, {9, 9, 9, 9}), weight = a, bias = tensorOf<float>(f32, {2}, {1, 2});
  Tensor weight3 = Tensor::create(f32, {1, 2, 3}), o;
  expectFailures({
      {"operands tensor element type miss", CALL(MatMul(out, a, b.cast(f16)))},
      {"two operands shape miss", CALL(MatMul(out, a, a))},
      {"LinearNoBias config error: input.c:[2] must be equal to weight.c:[3]", CALL(LinearNoBiasConfig(o, b, weight))},
      {"bias must be same with fin", CALL(Linear(out, a, weight, bias.cast(f16)))},
      {"rank of linear weight must be 2", CALL(LinearNoBias(out, a, weight3))},
      {"weight.n:[2] must be equal to bias:[3]", CALL(Linear(out, a, weight, Tensor::create(f32, {3})))},
  });
  EXPECT_EQ(valuesOf<float>(out), std::vector<float>(4, 9.0f));
}
