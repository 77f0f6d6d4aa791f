#pragma once
// Reductions of the native reference: a tensor folded along a set of axes,
// and the running sum CumSum.
//
// Every member is a Config / compute pair with one parameter list
// (fout, fin, dims, keepDims). `dims` lists the reduced axes of fin; a
// negative entry counts from the end, a repeated entry counts once, and an
// empty list reduces every axis (a rank-0 fin then reduces nothing and fout
// is its one element). Config gives fout fin's axes in order, a reduced axis
// becoming 1 when keepDims is true and disappearing when it is false, and,
// when fout's type is unset, fin's type (si64 for the Arg members). Its
// failures read "<Name> config error: <reason>" with the reasons
// "invalid reduce axis {}, finRank {}" (the axis after adding the rank) and,
// for the Arg members, "ReduceArg op can have only one reduced axis".
//
// Compute checks fout against fin whatever keepDims says: fout may keep the
// reduced axes (with size 1) or drop them, so a keep-dimensions output and a
// dropped one are both accepted ("input and output rank miss" for any other
// rank, "reduced axis should be 1", "non reduced axis should identical to
// fin"), then each member's type rule below. Nothing is written on failure.
//
// Order: each output element folds the input elements that map onto it in
// row-major order of the reduced axes, one after the other, starting from
// the member's starting value; the loops interleave independent outputs but
// never reorder one output's own sequence. So a float sum equals the plain
// left-to-right sum in its accumulation type, not a pairwise one.
//
// Accumulation: f32 in f32 and f64 in f64; f16 is widened to f32, folded in
// f32 and narrowed once at the end (round to nearest even). Integer sums and
// products wrap (two's complement) in the accumulating type.
//
// Tracing: the traced output coordinate (fout's own coordinate, so a rank-0
// fout cannot be traced) writes one line per step, in the order of the
// arithmetic; the fin coordinates are fin's own.
//
// Members:
//   ReduceMax, ReduceMin: f16, f32, f64, si8 ... si64, ui8 ... ui64, fin and
//     fout of one type ("reduce max fin and fout must be the same" / "reduce
//     min ..."). val starts at the group's first element ("val = {}"), then
//     "val = max(fin[c], val) // max(x, v) -> r" for every element, the first
//     included, and "fout[o] = val // r". A NaN element makes the result NaN;
//     -0 counts as smaller than +0 (as native::Max and native::Min).
//   ReduceArgMax, ReduceArgMin: exactly one reduced axis; fout any integer
//     type but bool8 ("reduce arg max fout must be integer" / "reduce arg min
//     ..."), able to hold the largest index ("reduce arg index {} does not fit
//     in fout {}"); fin f16, f32, f64, si8 ... si64, ui8 ... ui64. val starts
//     at the first element and arg at 0; an element replaces both only when
//     strictly greater (strictly less), so ties keep the first occurrence and
//     a NaN is chosen only at index 0. Lines "val = {}", then per element
//     "arg = (fin[c] > val) ? i : arg // (x > v) ? i : a -> r" (ArgMin writes
//     "<" on the left and keeps ">" on the right), then "fout[o] = arg // r".
//   ReduceSum: float fin (f16, f32, f64) needs fout of its type ("float
//     reduce sum fin and fout must be the same"); an integer fin must be si8,
//     si16, si32 or si64 ("quant reduce sum fin should be in [si8, si16, s32,
//     s64]") and is summed in fout's own integer type, signed or unsigned,
//     possibly wider ("input and output element type miss" for a fout that is
//     not an integer type). Starts at 0; "fout[o] += fin[c] // s += x -> r".
//   ReduceMean: f16, f32 ("fin must be f32 or f16"), fin and fout of one type
//     ("fin and fout must be the same type"). divisor = 1 / n in f32 (n the
//     group's size); every element is multiplied by the divisor before it is
//     added, so three ones give 1/3 + 1/3 + 1/3, which may differ in the last
//     bit from sum / n. An empty group gives NaN.
//     "fout[o] += fin[c] * divisor // s += x * d -> r".
//   ReduceProd: f16, f32, si32, si64 (the "high-precision numeric tensors"
//     text), one type ("reduce prod fin and fout must have the same type").
//     Starts at 1; "fout[o] *= fin[c] // p *= x -> r".
//   ReduceSumSquare: as ReduceProd's types with its own texts; starts at 0;
//     "fout[o] += fin[c] * fin[c] // s += x * x -> r".
//   ReduceLogSum: f16, f32, fin and fout of one type ("input and output
//     element type miss"); the sum as ReduceSum, then logf of it:
//     "fout[o] = log(fout[o]) // log(s) -> r".
//   ReduceAll: fin si8 ... si64, f16, f32 or bool8 ("tensor.all fin should
//     be in [si8, si16, s32, s64, float32, float16, bool]"); fout of fin's
//     type or bool8 ("input and output element type miss"). 1 when every
//     element of the group is non-zero (NaN is non-zero, -0 is zero), else 0;
//     an empty group gives 1. "fout[o] = fout[o] && fin[c] // a && x -> r".
//   Max, Min and the Arg members have no starting value for an empty group:
//   a reduced axis of size 0 fails with "reduced axis {} is empty".
//
// Exported but not registered:
//   ReduceLogSumExp(fout, fin, dims, keepDims): f16, f32 as ReduceLogSum.
//     With m the group's maximum (native::Max's rule) and shift = m when m is
//     finite, else 0: shift + logf(sum of expf(x - shift)), the sum in the
//     group's order. Subtracting the maximum keeps expf from overflowing for
//     large inputs; an all -inf or empty group gives -inf, a +inf element
//     +inf, a NaN element NaN. Config failures read "ReduceLogSumExp config
//     error: ...". Lines "max = -inf", "max = max(fin[c], max) // ...",
//     "shift = {}", "fout[o] += exp(fin[c] - shift) // s += exp(x - h) -> r",
//     "fout[o] = shift + log(fout[o]) // h + log(s) -> r".
//   ReduceLp(fout, fin, p): the p-norm of all of fin's elements, for an
//     integer order p >= 1 ("p should be at least 1, but got {}"); f16, f32,
//     fin and fout of one type. Config gives a rank-0 fout; compute accepts
//     any fout of one element ("shape mismatch" otherwise), so a [1] fout can
//     be traced. p = 1: the sum of fabsf(x); p = 2: sqrtf of the sum of x * x;
//     other p: powf(sum of powf(fabsf(x), p), 1 / p). Sums in row-major
//     order in f32.
//
// CumSum(fout, fin, axis, exclusive, reverse): the running sum along one
// axis (negative counts from the end; "invalid cumsum axis {}, finRank {}").
// fout has fin's shape ("shape mismatch"). Element i of a line is the sum of
// the elements before it (exclusive) or up to and including it (inclusive),
// taken from the start of the line, or from its end when reverse is set
// (then "before" means "after"); the sum runs in that order and each output
// is the running sum at its place, so it equals the sequential sum of its
// own prefix. Types as ReduceSum, with "float cumsum fin and fout must be the
// same" and "quant cumsum fin should be in [si8, si16, s32, s64]"; f16 runs
// in f32 and each output is narrowed from the running f32 sum. An exclusive
// first element is 0. Lines "fout[o] += fin[c] // s += x -> r" per element.
//
// An element type a member does not serve, once past these checks, stops
// the process with "unknown element type: <name>".
#include <cstdint>
#include <vector>

#include "kora/Core/Export.h"
#include "kora/Core/Tensor.h"
#include "kora/Kernel/Status.h"

namespace kora::native {

#define KORA_NATIVE_REDUCE(Name)                                                                              \
  KORA_API Status Name##Config(Tensor& fout, Tensor const& fin, std::vector<int64_t> const& dims, bool keepDims); \
  KORA_API Status Name(Tensor& fout, Tensor const& fin, std::vector<int64_t> const& dims, bool keepDims)

KORA_NATIVE_REDUCE(ReduceMax);
KORA_NATIVE_REDUCE(ReduceMin);
KORA_NATIVE_REDUCE(ReduceArgMax);
KORA_NATIVE_REDUCE(ReduceArgMin);
KORA_NATIVE_REDUCE(ReduceSum);
KORA_NATIVE_REDUCE(ReduceMean);
KORA_NATIVE_REDUCE(ReduceProd);
KORA_NATIVE_REDUCE(ReduceSumSquare);
KORA_NATIVE_REDUCE(ReduceLogSum);
KORA_NATIVE_REDUCE(ReduceAll);
KORA_NATIVE_REDUCE(ReduceLogSumExp);

#undef KORA_NATIVE_REDUCE

KORA_API Status ReduceLpConfig(Tensor& fout, Tensor const& fin, int64_t p);
KORA_API Status ReduceLp(Tensor& fout, Tensor const& fin, int64_t p);

KORA_API Status CumSumConfig(Tensor& fout, Tensor const& fin, int64_t axis, bool exclusive, bool reverse);
KORA_API Status CumSum(Tensor& fout, Tensor const& fin, int64_t axis, bool exclusive, bool reverse);

}  // namespace kora::native
