#pragma once
// One-input elementwise operators of the native reference.
//
// Every operator is a Config / compute pair with one parameter list:
// Config gives fout fin's shape (and fin's element type when fout's is
// unset) and fails with "<Name> config error: <reason>"; compute checks
// "shape mismatch" and "type mismatch" (fout and fin must have one type),
// computes every element through both tensors' strides and, for the traced
// coordinate, writes "fout[c] = name(fin[c]) // name(x) -> y " (final blank
// included). An element type an operator does not serve, or an unset fout
// type, stops the process with "unknown element type: <name>".
//
// Floating point: f32 elements are computed in single precision with the
// single precision libm functions, each formula in the order written below
// (no fused multiply-add unless stated); f16 elements are widened to f32
// exactly, computed the same way and narrowed with round-to-nearest-even.
// "Float" below means exactly f16 and f32: f64 and vbf16 trap.
//
// Attributes given as double or int64 are converted once per call: to f32
// where the formula computes with them (Softplus), to the element type
// itself where the result may be the attribute (ClampF bounds, NanToNum
// replacements, LeakyReLU's slope; for f16 a bound rounds to the nearest
// f16, not to f32), always by rounding to nearest even.
#include <string>

#include "kora/Core/Export.h"
#include "kora/Core/Tensor.h"
#include "kora/Kernel/Status.h"

namespace kora::native {

#define KORA_NATIVE_UNARY(Name)                                 \
  KORA_API Status Name##Config(Tensor& fout, Tensor const& fin); \
  KORA_API Status Name(Tensor& fout, Tensor const& fin)

/// max(x, 0), written x > 0 ? x : 0, so NaN and -0.0 give +0.
/// Element types: f16, f32, si8, si16, si32, si64 (others trap).
KORA_NATIVE_UNARY(ReLU);

/// x where x > 0, alpha * x elsewhere (so NaN stays NaN and -0.0 becomes
/// alpha * -0.0). alpha is first rounded to the element type. Float only:
/// an integer slope would round every alpha below 1 to 0, and quantized
/// activations belong to the quantization kernels.
KORA_API Status LeakyReLUConfig(Tensor& fout, Tensor const& fin, double alpha);
KORA_API Status LeakyReLU(Tensor& fout, Tensor const& fin, double alpha);

/// x < 0 ? x * slope[c] : x, where slope[c] is the slope element at the
/// element's own coordinate (so -0.0 and NaN are copied). The slope is any
/// tensor that broadcasts to fin's shape without enlarging it (equal shape,
/// one slope per channel as [C, 1, 1] against [N, C, H, W], or a single
/// value); it is read through a stride-0 view, never expanded. PReluConfig
/// fails with "shape mismatch" for a slope that would enlarge the output.
/// Integer products wrap (two's complement). Element types: f16, f32, si8,
/// si16, si32, si64; slope of fin's type ("type mismatch" otherwise).
/// Trace name "prelu", with the unary line.
KORA_API Status PReluConfig(Tensor& fout, Tensor const& fin, Tensor const& slope);
KORA_API Status PRelu(Tensor& fout, Tensor const& fin, Tensor const& slope);

/// Float activations, formulas as computed:
///   Sigmoid   1 / (expf(-x) + 1)
///   Tanh      tanhf(x)
///   Swish     x * (1 / (expf(-x) + 1))
///   Mish      s = logf(expf(x) + 1); x * (expf(s) - expf(-s)) / (expf(s) + expf(-s))
///   GELU      x * 0.5 * (erff(x / 1.4142135) + 1)
///   Softsign  x / (fabsf(x) + 1)
///   Rsqrt     1 / sqrtf(x)
///   Reciprocal 1 / x
KORA_NATIVE_UNARY(Sigmoid);
KORA_NATIVE_UNARY(Tanh);
KORA_NATIVE_UNARY(Swish);
KORA_NATIVE_UNARY(Mish);
KORA_NATIVE_UNARY(GELU);
KORA_NATIVE_UNARY(Softsign);
KORA_NATIVE_UNARY(Rsqrt);
KORA_NATIVE_UNARY(Reciprocal);

/// approximate "none": GELU (trace name "geluv2_none"); "tanh":
/// 0.5 * x * (1 + tanhf(0.7978845 * (x + 0.044715 * x * x * x))) (trace name
/// "geluv2_tanh"). Any other text fails, in Config ("GELUV2 config error: ")
/// and compute alike, with "only support none or tanh approximate."
KORA_API Status GELUV2Config(Tensor& fout, Tensor const& fin, std::string const& approximate);
KORA_API Status GELUV2(Tensor& fout, Tensor const& fin, std::string const& approximate);

/// t = beta * x; t > threshold ? x : (1 / beta) * logf(expf(t) + 1), with
/// beta and threshold rounded to f32 first.
KORA_API Status SoftplusConfig(Tensor& fout, Tensor const& fin, double beta, double threshold);
KORA_API Status Softplus(Tensor& fout, Tensor const& fin, double beta, double threshold);

/// x < 0 ? (expf(x) - 1) * alpha : x.
KORA_API Status EluConfig(Tensor& fout, Tensor const& fin, float alpha);
KORA_API Status Elu(Tensor& fout, Tensor const& fin, float alpha);

/// x > 0 ? gamma * x : gamma * fmaf(alpha, expf(x), -alpha) (the one fused
/// step of the family).
KORA_API Status SeluConfig(Tensor& fout, Tensor const& fin, float alpha, float gamma);
KORA_API Status Selu(Tensor& fout, Tensor const& fin, float alpha, float gamma);

/// v = alpha * x + beta (two roundings); v < 1 ? (v > 0 ? v : 0) : 1, so a
/// NaN gives 1.
KORA_API Status HardsigmoidConfig(Tensor& fout, Tensor const& fin, float alpha, float beta);
KORA_API Status Hardsigmoid(Tensor& fout, Tensor const& fin, float alpha, float beta);

/// The single precision libm function of the same name, on floats.
KORA_NATIVE_UNARY(Exp);
KORA_NATIVE_UNARY(Log);
KORA_NATIVE_UNARY(Sqrt);
KORA_NATIVE_UNARY(Sin);
KORA_NATIVE_UNARY(Cos);
KORA_NATIVE_UNARY(Tan);
KORA_NATIVE_UNARY(Asin);
KORA_NATIVE_UNARY(Acos);
KORA_NATIVE_UNARY(Atan);
KORA_NATIVE_UNARY(Sinh);
KORA_NATIVE_UNARY(Cosh);
KORA_NATIVE_UNARY(Asinh);
KORA_NATIVE_UNARY(Acosh);
KORA_NATIVE_UNARY(Atanh);
KORA_NATIVE_UNARY(Erf);
KORA_NATIVE_UNARY(Floor);
KORA_NATIVE_UNARY(Ceil);

/// Sign-bit operators on floats: Abs clears the sign (fabsf), Neg flips it
/// (Neg of 0 is -0, NaNs keep their payload). Sign gives 1 for x > 0, -1 for
/// x < 0 and x itself otherwise: +0 and -0 keep their sign, NaN stays NaN.
KORA_NATIVE_UNARY(Abs);
KORA_NATIVE_UNARY(Neg);
KORA_NATIVE_UNARY(Sign);

/// y = x; if x < min then y = min; then if max < y then y = max, with the
/// bounds rounded to the element type. A NaN x passes through. Floats; trace
/// name "clamp".
KORA_API Status ClampFConfig(Tensor& fout, Tensor const& fin, double min, double max);
KORA_API Status ClampF(Tensor& fout, Tensor const& fin, double min, double max);

/// min(max(x, min), max) on si8, si16, si32, si64, with both bounds first
/// truncated to the element width (two's complement, so 300 is 44 for si8).
/// The lower bound is applied first: with min > max every element is max.
KORA_API Status ClampConfig(Tensor& fout, Tensor const& fin, int64_t min, int64_t max);
KORA_API Status Clamp(Tensor& fout, Tensor const& fin, int64_t min, int64_t max);

/// s = f32(10.0 ^ decimals) (computed in double); y = rint(x * s) / s in
/// f32, ties to even. Sets the calling thread's rounding mode to
/// round-to-nearest and leaves it so. fin must be f16 or f32, else "round
/// fin should be in [float32, float16]".
KORA_API Status RoundConfig(Tensor& fout, Tensor const& fin, int64_t decimals);
KORA_API Status Round(Tensor& fout, Tensor const& fin, int64_t decimals);

/// NaN -> nan, +inf -> posinf, -inf -> neginf (each rounded to the element
/// type), finite values copied. fin must be f16 or f32, else "numToNum fin
/// should be in [float32, float16]". Trace name "nanToNum".
KORA_API Status NanToNumConfig(Tensor& fout, Tensor const& fin, double nan, double posinf, double neginf);
KORA_API Status NanToNum(Tensor& fout, Tensor const& fin, double nan, double posinf, double neginf);

/// ~x on si8, si16, si32, si64; any other (valid) type fails with "must be
/// integral". Trace name "bitwise_not".
KORA_NATIVE_UNARY(BitwiseNot);

/// 1 where x == 0 (-0.0 included), 0 elsewhere (NaN included), in fin's
/// type. Element types: si8 ... si64, ui8 ... ui64, bool8 (any non-zero byte
/// is true), f16, f32, f64. Trace name "logical_not".
KORA_NATIVE_UNARY(LogicalNot);

/// fout's element type must be set before CastConfig ("CastOp config error:
/// invalid fout ElementType"). Cast converts every element from fin's type
/// to fout's by the rule of Tensor::cast for that pair (see
/// kora/Support/Convert.h), `saturate` choosing saturation where the rule has
/// a choice; equal types copy. No trace line.
KORA_API Status CastConfig(Tensor& fout, Tensor const& fin, bool saturate);
KORA_API Status Cast(Tensor& fout, Tensor const& fin, bool saturate);

/// f32 in and out ("input and output type must be float32"), dtype f16
/// ("only float16 is supported as dtype"): each element rounded to f16
/// (nearest even, overflow to infinity) and widened back. Trace line
/// "fout[c] = fakecast(fin[c]) // fakecast(x) -> y" (no final blank).
KORA_API Status FakeCastConfig(Tensor& fout, Tensor const& fin, ElementType const& dtype);
KORA_API Status FakeCast(Tensor& fout, Tensor const& fin, ElementType const& dtype);

/// fout[c] = table[index(fin[c])] for 8- and 16-bit integer elements (si8,
/// ui8, si16, ui16), whose whole range a table can cover. The index is the
/// element's distance from its type's lowest value: x for unsigned types,
/// x + 128 for si8 and x + 32768 for si16, so a table of 256 (8-bit) or 65536
/// (16-bit) entries is complete and entry 0 belongs to -128 (or -32768). The
/// table is a rank-1 tensor of fin's type ("type mismatch", "table must have
/// rank 1"); a shorter table is allowed, but an element that selects past
/// its end fails the call with "lut index {} out of range for a table of {}
/// entries" (the first such index in row-major order) before anything is
/// written. No trace line.
KORA_API Status LutConfig(Tensor& fout, Tensor const& fin, Tensor const& table);
KORA_API Status Lut(Tensor& fout, Tensor const& fin, Tensor const& table);

#undef KORA_NATIVE_UNARY

}  // namespace kora::native
