#pragma once
// Two-input elementwise operators of the native reference, and the ternary
// Where.
//
// Every operator is a Config / compute pair (fout, lhs, rhs). Config infers
// fout's shape from both inputs (right-aligned; a size of 1 agrees with
// anything, see inferElementwiseShape) and fails with "<Name> config error:
// <reason>"; when fout's type is unset it becomes the inputs' type for the
// arithmetic and bitwise operators and bool8 for the comparisons and logical
// operators. Compute checks the types ("type mismatch": lhs, rhs and fout of
// one type for arithmetic and bitwise operators; "input type miss": lhs and
// rhs of one type for comparisons and logical operators), then "rank of fout
// is less than lhs and rhs", reads both inputs through stride-0 broadcast
// views of fout's shape (broadcastBinary) and writes every element. The
// traced coordinate writes
//   "fout[c] = name(lhs[a], rhs[b]) // name(x, y) -> z "
// where a and b are the coordinates of the elements read in lhs's and rhs's
// own shapes (broadcast axes at 0, missing leading axes dropped).
//
// Floating point: f16 is computed through f32 and narrowed to nearest even;
// f32 in single precision; f64 in double. Integer arithmetic wraps (two's
// complement). When both operands are NaN, which one's payload the NaN
// result carries is not guaranteed. An element type an operator does not
// serve stops the process
// with "unknown element type: <name>".
//
// Element types:
//   Add Sub Mul Div Rem Mod Pow Max Min: f16, f32, f64, si8 ... si64,
//     ui8 ... ui64.
//   BitShift BitwiseAnd BitwiseOr BitwiseXor: si8 ... si64, ui8 ... ui64.
//   comparisons and logical operators: f16, f32, f64, si8 ... si64,
//     ui8 ... ui64 and bool8 (a non-zero byte is true and compares as 1).
//     The result is 1 or 0 in fout's type, which may be any numeric type;
//     bool8 is written directly, other types through one conversion pass.
#include "kora/Core/Export.h"
#include "kora/Core/Tensor.h"
#include "kora/Kernel/Status.h"
#include "kora/Native/Elementwise.h"

namespace kora::native {

#define KORA_NATIVE_BINARY(Name)                                                      \
  KORA_API Status Name##Config(Tensor& fout, Tensor const& lhs, Tensor const& rhs); \
  KORA_API Status Name(Tensor& fout, Tensor const& lhs, Tensor const& rhs)

/// lhs + rhs, lhs - rhs, lhs * rhs.
KORA_NATIVE_BINARY(Add);
KORA_NATIVE_BINARY(Sub);
KORA_NATIVE_BINARY(Mul);

/// Floats: IEEE division (x / 0 is an infinity or NaN). Integers: truncated
/// toward zero, a divisor of 0 gives 0 and the most negative value divided
/// by -1 gives itself (wraps); nothing traps.
KORA_NATIVE_BINARY(Div);

/// Integers: lhs - q * rhs with q the quotient of Div, so Rem(x, 0) = x and a
/// non-zero result has the dividend's sign (Rem(-7, 2) = -1, Rem(7, -2) = 1).
/// Floats: the truncated remainder fmodf (fmod for f64), which follows the
/// same sign rule; Rem(x, 0) is NaN.
KORA_NATIVE_BINARY(Rem);

/// Identical to Rem on every type: the quotient is truncated, not floored,
/// so Mod(-7, 2) = -1 and a float Mod follows the dividend's sign too, the
/// one rule for integers and floats alike.
KORA_NATIVE_BINARY(Mod);

/// pow(double(lhs), double(rhs)) with the double precision libm function,
/// converted back to the element type by the rule of Tensor::cast (one
/// rounding to nearest even for floats, f16 included; truncation toward zero
/// and saturation for integers, NaN giving 0).
KORA_NATIVE_BINARY(Pow);

/// The larger / smaller operand. For floats a NaN operand gives NaN (the
/// first NaN operand) and -0 counts as smaller than +0, so Max(-0, +0) = +0
/// and Min(-0, +0) = -0 in either order.
KORA_NATIVE_BINARY(Max);
KORA_NATIVE_BINARY(Min);

/// Shift by the count rhs[c]: a count n >= 1 shifts lhs right by n
/// (arithmetic for signed, logical for unsigned types), a count n <= 0 shifts
/// left by -n. The count is taken modulo 64 and the shift done in 64 bits
/// (lhs sign- or zero-extended) before truncation to the element width:
/// ui8 200 shifted by 2 is 50, by -1 is 144, by 8 is 0; si8 -128 shifted
/// right by 8 is -1.
KORA_NATIVE_BINARY(BitShift);

/// Bitwise and, or, exclusive or on integers.
KORA_NATIVE_BINARY(BitwiseAnd);
KORA_NATIVE_BINARY(BitwiseOr);
KORA_NATIVE_BINARY(BitwiseXor);

/// IEEE comparisons for floats (every comparison with NaN is false except
/// NotEqual; -0 == +0), ordinary ones for integers.
KORA_NATIVE_BINARY(Equal);
KORA_NATIVE_BINARY(NotEqual);
KORA_NATIVE_BINARY(Greater);
KORA_NATIVE_BINARY(GreaterEqual);
KORA_NATIVE_BINARY(Less);
KORA_NATIVE_BINARY(LessEqual);

/// A non-zero operand (NaN included, -0 excluded) is true.
KORA_NATIVE_BINARY(LogicalAnd);
KORA_NATIVE_BINARY(LogicalOr);
KORA_NATIVE_BINARY(LogicalXor);

#undef KORA_NATIVE_BINARY

/// fout[c] = sls[c] != 0 ? lhs[c] : rhs[c], all three inputs broadcast to
/// fout's shape. lhs, rhs and fout share one element type, any numeric one
/// (elements are copied bit for bit); the selector sls may have any numeric
/// type of its own: a non-zero element (NaN included, -0 excluded, any
/// non-zero bool8 byte) chooses lhs. Config infers fout's shape from all
/// three inputs ("Where config error: {}") and, when unset, gives fout lhs's
/// type. Compute fails with "type mismatch, fout: {}, lhs: {}, rhs: {}" and
/// "rank of fout is less than lhs, rhs or sls"; trace line
/// "fout[c] = ternary_select(lhs[a], rhs[b], sls[s]) // ternary_select(x, y, z) -> w ".
KORA_API Status WhereConfig(Tensor& fout, Tensor const& lhs, Tensor const& rhs, Tensor const& sls);
KORA_API Status Where(Tensor& fout, Tensor const& lhs, Tensor const& rhs, Tensor const& sls);

}  // namespace kora::native
