#pragma once
// Quantization kernels: float tensors to integer tensors with an affine
// scale and zero point and back, fake quantization, and the dynamic
// (run-time scale) quantization of activations.
//
// Affine quantization, one element (all in binary32 unless stated):
//
//   x = the input element widened to f32 (f16 and vbf16 exactly, f64 rounded
//       to nearest even);
//   s = the scale entry (a double) rounded to the nearest f32, z = the zero
//       point entry (an int64) rounded to the nearest f32;
//   v = x / s + z: one f32 division, then one f32 addition;
//   r = v rounded to an integral value, either half to even (2.5 -> 2,
//       -2.5 -> -2) or half up, floor(v + 0.5) with the 0.5 added in f32
//       (2.5 -> 3, -2.5 -> -2);
//   q = r converted to int64 with saturation (+inf to INT64_MAX, -inf to
//       INT64_MIN, NaN to 0), then clamped to the output range in int64.
//
// So a zero scale never fails: x / 0 is an infinity of x's sign (the bound
// of that sign) and 0 / 0 is NaN (0, then clamped). Dequantization is
// y = (f32(q) - z) * s: one subtraction, then one multiplication, stored to
// the output type (f16 and vbf16 rounded to nearest even).
//
// Output ranges for b bits: signed [-2^(b-1), 2^(b-1) - 1]; the narrow
// range drops the lowest code, [-2^(b-1) + 1, 2^(b-1) - 1], which makes it
// symmetric. Unsigned outputs follow the same rule: [0, 2^b - 1], narrow
// [1, 2^b - 1].
//
// Scale indexing: per tensor, one scale and one zero point serve every
// element; per axis, entry i serves the elements whose coordinate on `axis`
// is i (a negative axis counts from the end), for the innermost axis and for
// an outer one alike. A rank-0 tensor has extent 1 on any axis.
//
// Element types. The arithmetic above is defined for f16 and f32 floats and
// si8, si16, si32 integers; the other types with a numeric reading take the
// same steps through f32: vbf16 and f64 on the float side (an f64 input is
// first rounded to f32; an f64 output holds the f32 result exactly), si64,
// ui8, ui16 and ui32 on the integer side. The results are clamped in int64,
// so ui64, whose range int64 does not hold, is refused, as are the types
// without a numeric reading (cf8, vf32, tf32, si4x2, bool8, opaque):
// "fin type <name> is not supported" / "fout type <name> is not supported".
//
// Rounding mode: the division, the addition and the round-to-integral are
// only exact in round-to-nearest, so every computing kernel of this family
// (Qcast, Quantize, Dcast, Dequantize, FakeQuant and the dynamic kernels)
// sets the calling thread's rounding mode to round-to-nearest when it is
// entered, whatever the outcome, and leaves it so.
//
// Bad input returns a failed Status carrying the reason itself (Config
// functions included, there is no "config error" prefix) and writes
// nothing. The checks, in order, first failure wins:
//   1. "Invalid input."  (fin has no valid element type or no storage)
//   2. "Invalid tensor shape, input and output must have same shape"
//   3. the type checks of the kernel ("fin must be floating-point" ...)
//   4. "Scale and zero point size mismatch"
//   5. per axis: "Invalid axis <axis> for fout of rank <rank>" when the axis
//      lies outside [-rank, rank) of a ranked fout; then "Scale number must
//      be <extent> of fout axis <axis>" and "Zero point number must be
//      <extent> of fout axis <axis>" (the axis as given); per tensor: "Scale
//      number must be 1 in per tensor mode"
//   6. FakeQuant only: "Only supports signed fake quant", "Only accepts bit
//      width among 8,16,32"
//   7. the type support messages above; in the kernels (not the Config
//      functions) "fout must hold data" for an output without storage.
//
// Outputs are written in place: fout must already have its element type and
// fin's shape (the Config functions validate, they do not fill anything).
// A host calling by name therefore passes typed outputs, e.g.
//   std::vector<Tensor> out = {Tensor(ElementType::si8, fin.shape())};
//   invoke("quant::quantize", out, {fin, std::vector<double>{0.5},
//          std::vector<int64_t>{0}, false, 0, false});
// and the invocation layer allocates them. fout may be fin itself (FakeQuant
// in place) but must not partly overlap it.
//
// Tracing: the element at the trace point writes one line,
//   "fout[1, 2] 5 = quantize(fin[1, 2] 2.5,  scale 0.5, zero 0)"
//   "fout[1, 2] 2.5 = dequantize(fin[1, 2] 5,  scale 0.5, zero 0)"
//   "fout 2.5 = fake_quantize(fin 2.4,  scale 0.5, zero 0)"
// (the scale printed is the f32 in use). A rank-0 tensor has no coordinate
// to set: its element is traced whenever the trace point is non-empty and
// all zeros ([0], [0, 0] ...: the coordinate of the only element of a tensor
// of any rank with all extents 1), and writes
//   "fout(0-rank) 5 = quantize(fin(0-rank) 2.5,  scale 0.5, zero 0)"
// and likewise for dequantize and fake_quantize.
#include <cstdint>

#include "kora/Core/ArrayRef.h"
#include "kora/Core/Export.h"
#include "kora/Core/Tensor.h"
#include "kora/Kernel/Status.h"

namespace kora::quant {

/// Quantizes fin (f16, vbf16, f32, f64) into fout (si8, si16, si32, si64,
/// ui8, ui16, ui32). `narrowRange` selects the narrow range, and
/// `roundHalfToEven` half-to-even rounding (false: half up). Validates
/// itself (registered without a Config).
KORA_API Status Qcast(Tensor& fout, Tensor const& fin, ArrayRef<double> scale, ArrayRef<int64_t> zero, bool perAxis,
                      int64_t axis, bool narrowRange, bool roundHalfToEven);

/// Qcast rounding half to even.
KORA_API Status Quantize(Tensor& fout, Tensor const& fin, ArrayRef<double> scale, ArrayRef<int64_t> zero, bool perAxis,
                         int64_t axis, bool narrowRange);

/// Validates a dequantization of fin (si8, si16, si32, si64, ui8, ui16, ui32)
/// into fout (f16, vbf16, f32, f64). Checks "fin must be integral" and "fout
/// must be floating-point" as its type checks; fills nothing in fout.
KORA_API Status DcastConfig(Tensor& fout, Tensor const& fin, ArrayRef<double> scale, ArrayRef<int64_t> zero,
                            bool perAxis, int64_t axis);
/// y = (f32(q) - z) * s for every element; repeats DcastConfig's checks.
KORA_API Status Dcast(Tensor& fout, Tensor const& fin, ArrayRef<double> scale, ArrayRef<int64_t> zero, bool perAxis,
                      int64_t axis);

/// The same as DcastConfig and Dcast.
KORA_API Status DequantizeConfig(Tensor& fout, Tensor const& fin, ArrayRef<double> scale, ArrayRef<int64_t> zero,
                                 bool perAxis, int64_t axis);
KORA_API Status Dequantize(Tensor& fout, Tensor const& fin, ArrayRef<double> scale, ArrayRef<int64_t> zero,
                           bool perAxis, int64_t axis);

/// Quantizes each element of fin to a signed integer of `bitWidth` bits (8,
/// 16 or 32) and dequantizes it back into fout, which has fin's floating
/// type (f16, vbf16, f32, f64). The two flags after `axis` and after
/// `isSigned` mean what they mean for Qcast: `narrowRange` and
/// `roundHalfToEven`. Checks "fin must be floating-point", "fout must be
/// floating-point" and "fin and fout must have same type" as its type checks.
///
/// Registered as "quant::fakequant" without a Config; a caller by name may
/// stop after `zero`: the defaults are the ones declared here (per tensor,
/// axis -1, full range, 8 bits, signed, half to even), the common int8
/// fake quantization of training graphs.
KORA_API Status FakeQuant(Tensor& fout, Tensor const& fin, ArrayRef<double> scale, ArrayRef<int64_t> zero,
                          bool perAxis = false, int64_t axis = -1, bool narrowRange = false, int64_t bitWidth = 8,
                          bool isSigned = true, bool roundHalfToEven = true);

// Dynamic quantization: symmetric quantization whose scale is computed from
// the data at run time, as used for the activations of transformer matrix
// products (quantize A per row and B per column, multiply in integers,
// dequantize the int32 product with both scales).
//
// DynamicQuantize, per group (the whole tensor, or with `perRow` each row
// along the innermost axis; a rank-0 tensor is one group):
//   m     = the largest |x| over the group's finite elements (0 if none);
//   qmax  = 2^(b-1) - 1 for the output's b bits (127 for si8);
//   scale = m / qmax in f32; when that quotient is 0 (an all-zero group, or
//           one so small the division underflows) the scale is 1, so every
//           q of the group is 0 and dequantizes to 0;
//   q     = x quantized as above with that scale, zero point 0, the narrow
//           range [-qmax, qmax] and ties to even: |q| <= qmax, the largest
//           element maps to +-qmax, +-inf saturate to +-qmax and NaN gives 0.
// Outputs: fout (si8 by default when unset, or si16, si32) with fin's shape,
// and scale (f32) with fin's shape except that the grouped axes have extent
// 1 (the last one per row, all of them per tensor), so it broadcasts
// against fin. fin: f16, vbf16 or f32.
//
// DynamicDequantize: y = f32(q) * scale, one multiplication; scale (f32) is
// broadcast to fin's shape (right-aligned, each of its extents 1 or equal to
// fin's), which serves DynamicQuantize's scale of either grouping.
// fin: si8, si16 or si32; fout: f32 by default, or f16, vbf16.
//
// FuseDynamicDequantize: y = (f32(acc) * rowScale) * colScale, two
// multiplications in that order, for an si32 product acc [..., M, N] with
// rowScale and colScale (f32) broadcast to its shape like DynamicDequantize's
// scale, typically [..., M, 1] and [N]. fout: f32 by default, or f16, vbf16.
//
// These three have Config functions that fill unset outputs and report
// "<Kernel> config error: <reason>"; the kernels return the reason alone.
// Trace lines of the traced element (the scale's coordinate is the one its
// broadcast reads):
//   "scale[1, 0] = absmax / 127 // 254 / 127 -> 2"
//   "fout[1, 1] = quantize(fin[1, 1] / scale[1, 0]) // round(1 / 2) -> 0"
//   "fout[1, 1] = fin[1, 1] * scale[1, 0] // 0 * 2 -> 0"
//   "fout[0, 1] = fin[0, 1] * rowScale[0, 0] * colScale[1] // 7 * 0.33333334 * 3 -> 7.0000005"
// with rank-0 tensors traced under the all-zeros rule above ("scale[]").

KORA_API Status DynamicQuantizeConfig(Tensor& fout, Tensor& scale, Tensor const& fin, bool perRow);
KORA_API Status DynamicQuantize(Tensor& fout, Tensor& scale, Tensor const& fin, bool perRow);

KORA_API Status DynamicDequantizeConfig(Tensor& fout, Tensor const& fin, Tensor const& scale);
KORA_API Status DynamicDequantize(Tensor& fout, Tensor const& fin, Tensor const& scale);

KORA_API Status FuseDynamicDequantizeConfig(Tensor& fout, Tensor const& fin, Tensor const& rowScale,
                                            Tensor const& colScale);
KORA_API Status FuseDynamicDequantize(Tensor& fout, Tensor const& fin, Tensor const& rowScale,
                                      Tensor const& colScale);

}  // namespace kora::quant
