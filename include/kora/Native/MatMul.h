#pragma once
// Matrix products of the native reference: MatMul with broadcast batch axes,
// and the fully connected layer Linear / LinearNoBias.
//
// MatMul(fout, lhs, rhs): lhs [..., M, K] times rhs [..., K, N] gives
// [batch..., M, N], the batch axes (all but the last two, right-aligned)
// broadcast like an elementwise operator's (a size of 1 is read with stride
// 0, never copied). A rank-1 lhs [K] is a single row and a rank-1 rhs [K] a
// single column; neither contributes an axis of its own to the output, so
// two vectors give their dot product as a rank-0 tensor. MatMulConfig checks,
// in order, and fails with "MatMul config error: <reason>":
//   "Matmul inputs should not have dynamic shape" (a size below 0),
//   "operands must be at least 1d, but rank 0" (a rank-0 operand),
//   "lhs and rhs axis -1 is not equal, lhs[-1]:{}, rhs[-1]:{}" (two vectors),
//   "lhs[-1]:{} is not equal to rhs[0]:{}" (rank-1 rhs),
//   "lhs[-1]:{} is not equal to rhs[-2]:{}",
//   "lhs[{}]:{} is not equal to rhs[{}]:{}" (a batch axis, each operand's own
//   axis index and size),
// then sets fout's shape and, when unset, lhs's element type. MatMul checks
// "fout, lhs and rhs must hold data", "operands tensor element type miss"
// (lhs, rhs and fout of one type) and "two operands shape miss" (the shapes
// no longer agree, fout's included).
//
// Linear(fout, fin, weight, bias): fout[..., n] = sum over c of
// fin[..., c] * weight[n, c], plus bias[n]; LinearNoBias without the bias.
// weight is [N, C] (weight.n and weight.c are its last two axes, and the
// compute requires exactly two); bias holds N elements in any shape, read
// in row-major order. LinearConfig checks, in order, and fails with
// "Linear config error: " / "LinearNoBias config error: " and
//   "Linear inputs should not have dynamic shape",
//   "operands must be at least 2d, but rank {}" (fin, then weight; the bias
//   may have any rank),
//   "input.c:[{}] must be equal to weight.c:[{}]",
//   "weight.n:[{}] must be equal to bias:[{}]" (the bias's element count),
// then gives fout fin's shape with the last axis N and, when unset, fin's
// type. Linear checks, in order: "fout, fin, weight and bias must hold
// data", then the element types ("bias must be same with fin", "fout must
// be same with fin", "weight must be same with fin"), "rank of linear input
// and output must be same", "rank of linear weight must be 2", "operands
// must be at least 2d, but rank {}", "channel number for linear weight and
// input must be same", "channel number for linear weight and output must be
// same", "shape mismatch" (fout's other axes differ from fin's) and the
// bias count as in Config. Nothing is written on failure.
//
// Arithmetic: every output element starts from +0 and adds the products
// lhs[m, k] * rhs[k, n] in increasing k, each product rounded, then added
// and rounded (never fused); Linear adds the bias once the sum is complete.
// The fast loops work on many outputs at once, each in that same order, so
// the result does not depend on the processor, the tiling or the vector
// width. Element types and accumulators:
//   f32: in f32; f16: widened to f32, accumulated in f32 and narrowed once
//   (round to nearest even), the bias added in f32 before narrowing;
//   f64: in f64;
//   si8, si16, si32, si64: products and sum in int64, wrapping at 64 bits,
//   then saturated to the element type (so an si8 result that overflows
//   reads 127 or -128; si64 simply wraps).
// Any other type stops the process with "unknown element type: <name>".
//
// Tracing: the traced output element writes one line per k, for MatMul
//   "fout[o] += lhs[a] * rhs[b] // s += x * y -> r"
// (a and b in each operand's own shape: broadcast batch axes at 0, a rank-1
// operand by its one index), for Linear
//   "psum[o] *= fin[a] * weight[n, c] // s += x * y -> r"
// (the "*=" is the established wording; the step is an addition), and with
// a bias "psum[o] += bias[n] // s += b -> r". The values are the
// accumulator's (f32 for f16 data, int64 for integers).
#include <string>
#include <string_view>
#include <vector>

#include "kora/Core/Export.h"
#include "kora/Core/Tensor.h"
#include "kora/Kernel/Status.h"

namespace kora::native {

KORA_API Status MatMulConfig(Tensor& fout, Tensor const& lhs, Tensor const& rhs);
KORA_API Status MatMul(Tensor& fout, Tensor const& lhs, Tensor const& rhs);

KORA_API Status LinearConfig(Tensor& fout, Tensor const& fin, Tensor const& weight, Tensor const& bias);
KORA_API Status Linear(Tensor& fout, Tensor const& fin, Tensor const& weight, Tensor const& bias);

KORA_API Status LinearNoBiasConfig(Tensor& fout, Tensor const& fin, Tensor const& weight);
KORA_API Status LinearNoBias(Tensor& fout, Tensor const& fin, Tensor const& weight);

/// The f32 and f16 products run on vectors as wide as the processor offers,
/// chosen when first needed. Each lane is one output computed with the same
/// single-precision multiply and add, so every choice gives the same bits;
/// these functions exist to show that. matMulKernels lists the choices this
/// processor can run, widest first ("avx512f", "avx2", "baseline");
/// matMulKernel names the one in use; selectMatMulKernel switches to a listed
/// one (false, and no change, for any other name). Not to be called while
/// products run on other threads.
KORA_API std::vector<std::string> matMulKernels();
KORA_API std::string matMulKernel();
KORA_API bool selectMatMulKernel(std::string_view name);

}  // namespace kora::native
