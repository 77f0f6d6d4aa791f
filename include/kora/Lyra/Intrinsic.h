#pragma once
// Bit-exact models of the second accelerator generation's convolution unit:
// its packed per-channel quant info, the integer post-process (PP) that
// narrows 32-bit partial sums ("psum") like the first generation's with
// wider shifts and 16-bit operands, and the floating post-process (FPP) that
// computes in fp24 (the upper 24 bits of a binary32, Support/SoftFloat.h).
// The MAC in front of them is the first generation's 8-bit MAC
// (Vela/Intrinsic.h, ConvMac), which the second generation keeps.
//
// Tensors are channel-last: psum, sumin and fout are [..., K]. Every
// function validates first and returns a failed Status with a fixed text
// when an operand is wrong (first failure wins); nothing is written then.
// Arithmetic never fails.
//
// Tracing: when the Context's trace point is an output coordinate of the
// call, each step of that element is logged ("psum64 >>= preRShift(2) //
// 11" for a PP step, "fp24Res *= f24OutputScale // 0x3fc000(1.5)" for an
// FPP step: fp24 values print as their pattern and their float reading).
#include <cstdint>
#include <vector>

#include "kora/Core/ArrayRef.h"
#include "kora/Core/Export.h"
#include "kora/Core/Tensor.h"
#include "kora/Kernel/Status.h"

namespace kora::lyra::intrinsic {

// ---------------------------------------------------------------------------
// Quant info
// ---------------------------------------------------------------------------
//
// Decoded quant info: si64 [..., K, 6], one row per output channel, as in
// the first generation: 0 bias (32-bit), 1 suminScale, 2 suminRShift,
// 3 preRShift, 4 scale, 5 postRShift.
// Encoded quant info: si64 [..., K, 2]: word 0 commonPart, word 1 the 32-bit
// suminPart in its low half (the high half zero).
//
// commonPart: [31:0] bias, [46:32] scale (15 bits), [52:48] preRShift (valid
// [0, 25]), [61:56] postRShift (6 bits, valid [0, 40]); other bits zero.
// suminPart, 8-bit and 16-bit sumin: [14:0] suminScale, [21:16] suminRShift
// (6-bit two's complement, valid [-17, 22]). 32-bit sumin: [17:16] shift
// mode (0 none, 2 sumin >> 8, 3 sumin << 8), no suminScale.

/// Packs each decoded row into its two words; `sumin32` selects the 32-bit
/// sumin form. A preRShift outside [0, 25] or a suminRShift outside [-17,
/// 22] is written as 0 (the trace says so); bias keeps its low 32 bits,
/// scale and suminScale their low 15 bits, postRShift its low 6 bits (so a
/// postRShift of 41 to 63 is stored, and decodes as 0). With the 32-bit form
/// suminRShift must be 8, 0 or -8 (shift modes 2, 0, 3).
///
/// Checks, in order: "encode and decode tensors must be the same" (both
/// si64), "encode and decode tensors must be same rank", the library's own
/// "encode and decode tensors must be at least rank 2", "encode and decode
/// tensor axis -2 must be identical", the library's own "encode and decode
/// tensor axis {} must be identical" for a leading axis, "decode tensor axis
/// -1 must be 6", "encode tensor axis -1 must be 2", the library's own
/// "encode and decode tensors must hold data", then per row (all rows before
/// any is written) "i32 suminRShift must be one of [8, 0, -8], but got {}".
/// The trace point names an element of encode; its channel is traced.
KORA_API Status EncodeQuantInfo(Tensor& encode, Tensor const& decode, bool sumin32);

/// Unpacks each channel's two words into a decoded row. Stored fields
/// outside their valid ranges (preRShift above 25, postRShift above 40,
/// suminRShift outside [-17, 22]) decode as 0. The 32-bit form decodes
/// suminScale as 0 and suminRShift from the shift mode (2 -> 8, 3 -> -8, 0
/// and the unused 1 -> 0). Checks as EncodeQuantInfo, without the per-row
/// one; the trace point names an element of decode.
KORA_API Status DecodeQuantInfo(Tensor& decode, Tensor const& encode, bool sumin32);

/// Derives decoded quant info [K, 6] for a quantized convolution, as the
/// first generation's GenQuantInfo does (same arguments and meaning of the
/// scales and zero points), with 16-bit sumin and fout allowed and the
/// second generation's ranges. Where the hardware cannot express a shift it
/// adjusts it, warns through the Context and goes on:
/// - output multiplier M = finScale * weightScale / foutScale, 8-bit and
///   16-bit fout: the total shift t = preRShift + postRShift is the largest
///   with round(M * 2^t) <= 32767 (the most precise 15-bit scale). t below 0
///   (M above 32767) warns "conv post process does not support left shift:
///   {t}, adjust to 0"; t is capped at 65 (25 + 40). preRShift is the
///   smallest that keeps every accumulator whose output is not saturated
///   anyway inside the 16-bit clamp, within [max(0, t - 40), min(t, 25)];
///   postRShift the rest.
/// - 32-bit fout: M must be 1 (within 1e-6): scale 1, both shifts 0.
/// - 8-bit and 16-bit sumin, ratio R = suminScale / (finScale *
///   weightScale): suminRShift is the largest with round(R * 2^suminRShift)
///   <= 32767; above 22 it warns "suminRShift cannot greater than 22: {},
///   adjust to 22", below -9 "suminRShift cannot less than -9: {}, adjust
///   to -9", and the scale then saturates at 32767. 32-bit sumin: R must be
///   1, 2^-8 or 2^8 (suminRShift 0, 8, -8).
/// - bias as the first generation folds it, and it must fit in int32.
///
/// Checks, in order: "quantInfo must be rank of 2", "bias must be rank of
/// 1", "quantInfo axis 1 size must be 6", "sumin must be 8bit 16bit or
/// 32bit", "fout must be 8bit 16bit or 32bit", "quantInfo and bias axis 0
/// size must be identical", then the first generation's own checks of the
/// tensors, scales and zero points, and per channel "si32 conv does not
/// support rescale, check fout scale", "si32 sumin does not support rescale,
/// check sumin scale", "can not get bias in range of int32 on channel {}".
/// Nothing is written unless every channel succeeds.
KORA_API Status GenQuantInfo(Tensor& quantInfo, Tensor const& weight, Tensor const& bias, ArrayRef<double> finScale,
                             int64_t finZeroPoint, ArrayRef<double> weightScale, ArrayRef<double> suminScale,
                             int64_t suminZeroPoint, int64_t suminBits, ArrayRef<double> foutScale,
                             int64_t foutZeroPoint, int64_t foutBits);

/// Float quant info for the FPP: f32 [K, 3] (or [X, K, 3] with one table
/// per batch image), per channel 0 bias, 1 suminScale, 2 scale (the output
/// scale), all in output units:
///   fout = psum * scale + sumin * suminScale + bias.
/// GenFloatQuantInfo derives it for real fin = finScale * (fin -
/// finZeroPoint), real weight = weightScale[k] * weight, real sumin =
/// suminScale[k] * sumin (a float sumin carries no zero point), real fout =
/// foutScale[k] * (fout - foutZeroPoint): scale = finScale * weightScale /
/// foutScale, suminScale = suminScale / foutScale (0 without sumin), bias =
/// (bias in accumulator units - finZeroPoint * the channel's weight sum) *
/// scale + foutZeroPoint. Each value is rounded to the nearest fp24 (ties to
/// even), so that the unit's truncating float32ToFp24 reads it exactly.
///
/// Checks, in order: "quantInfo must be rank of 2", "bias must be rank of
/// 1", "quantInfo axis 1 size must be 3", "quantInfo and bias axis 0 size
/// must be identical", "float quantInfo must be f32", "bias must be f32, f64
/// or si32", the scale and zero-point checks of GenQuantInfo, and per
/// channel "can not get {bias, suminScale or scale} in range of fp24 on
/// channel {}" (a result that overflows fp24, or a nonzero one below its
/// normal range).
KORA_API Status GenFloatQuantInfo(Tensor& quantInfo, Tensor const& weight, Tensor const& bias,
                                  ArrayRef<double> finScale, int64_t finZeroPoint, ArrayRef<double> weightScale,
                                  ArrayRef<double> suminScale, ArrayRef<double> foutScale, int64_t foutZeroPoint);

// ---------------------------------------------------------------------------
// Integer post-process
// ---------------------------------------------------------------------------

/// Post-process of psum (si32) into fout (si8, si16 or si32, same shape),
/// channel = last axis, driven by decoded quant info [K, 6] or [X, K, 6]
/// with X = 1 or psum axis 0 (one table per batch image). sumin is optional
/// (an invalid Tensor means none): si8, si16 or si32 of psum's shape.
///
/// Per element, in 64-bit arithmetic: psum64 = psum + bias; += rescaled
/// sumin (8 and 16-bit: sumin * suminScale, then >> suminRShift or <<
/// -suminRShift; 32-bit: sumin >> suminRShift or << -suminRShift); relu
/// (values below 1 become 0); >>= preRShift (floor); clamp to 16 bits; *=
/// scale; >> postRShift (floor, or with `round` adding bit postRShift-1 of
/// the value before the shift, i.e. half up; with postRShift 0 nothing is
/// added); clamp to fout's type.
///
/// Decoded rows are taken as the registers hold them, exactly as
/// EncodeQuantInfo stores them: bias keeps its low 32 bits, scale and
/// suminScale their low 15 bits, a preRShift outside [0, 25], a postRShift
/// whose low 6 bits exceed 40 and a suminRShift outside [-17, 22] count as
/// 0; so TaeConvPP on decoded rows equals TaeConvPPEncoded on their
/// encoding.
///
/// Flags: relu; round (rounding of the final right shift); perTensor: every
/// channel takes row 0 of its table (per-tensor quantization; the table may
/// then hold 1 row) instead of row k.
///
/// Checks, in order: "psum must be si32", "shape of psum and fout must be
/// identical", "decoded quantInfo must be si64", "quantInfo rank must be
/// either 2 or 3", "decoded quantInfo axis -1 be 6", the library's own "psum
/// must have a channel axis", "quantInfo axis -2 must be identical to psum
/// axis -1", then the library's own "quantInfo axis 0 must be 1 or psum axis
/// 0", "fout must be si8, si16 or si32", "sumin must be 8bit 16bit or
/// 32bit", "shape of psum and sumin must be identical", "post-process
/// operands must hold data", and for a 32-bit sumin "i32 suminRShift must be
/// one of [8, 0, -8], but got {}" (rows in use only). The trace point names
/// an element of fout.
KORA_API Status TaeConvPP(Tensor& fout, Tensor const& psum, Tensor const& quantInfo, Tensor const& sumin, bool relu,
                          bool round, bool perTensor);

/// TaeConvPP on encoded quant info [K, 2] or [X, K, 2]: each channel's words
/// are decoded as DecodeQuantInfo does, in the 32-bit sumin form when sumin
/// is si32. Checks as TaeConvPP, with the library's own "encoded quantInfo
/// must be si64" for the type and "encode tensor axis -1 must be 2" for the
/// last axis.
KORA_API Status TaeConvPPEncoded(Tensor& fout, Tensor const& psum, Tensor const& quantInfo, Tensor const& sumin,
                                 bool relu, bool round, bool perTensor);

/// The whole convolution: the 8-bit MAC (as the first generation's ConvMac:
/// fin si8 [n, hi, wi, C], weight si8 [K, R, S, C / group], pad, padValue,
/// stride, dilation, group) into a fresh psum (starting from `psum` when
/// that tensor is valid, from zeros otherwise), then TaeConvPP (`quantForm`
/// 0, decoded quant info) or TaeConvPPEncoded (1). Every check of both steps
/// runs before anything is computed: first the library's own "quantForm must
/// be 0 (decoded) or 1 (encoded)", then ConvMac's, then the PP's, then for an
/// initial psum "psum must be si32" and "shape of psum and fout must be
/// identical". The trace shows every MAC step of the traced element, then
/// every PP step.
KORA_API Status TaeConvMacPP(Tensor& fout, Tensor const& fin, Tensor const& weight, Tensor const& quantInfo,
                             Tensor const& sumin, Tensor const& psum, int64_t padValue,
                             std::vector<int64_t> const& pad, std::vector<int64_t> const& stride,
                             std::vector<int64_t> const& dilation, int64_t group, int64_t quantForm, bool relu,
                             bool round, bool perTensor);

// ---------------------------------------------------------------------------
// Floating post-process
// ---------------------------------------------------------------------------

/// Floating post-process of psum (si32) into fout (f32, f16, bf16, si8, si16
/// or si32, same shape), channel = last axis, driven by float quant info f32
/// [K, 3] or [X, K, 3] (bias, suminScale, scale; see GenFloatQuantInfo).
/// sumin is optional: f32 or f16 of psum's shape.
///
/// Per element, every value in fp24 and every product and sum rounded to
/// nearest, ties to even, in fp24 (nothing carried at float32 precision):
///   fp24SuminAddBias = float32ToFp24(bias)
///                      [+ float32ToFp24(sumin) * float32ToFp24(suminScale)]
///   fp24Res = intToFp24(psum) * float32ToFp24(scale) + fp24SuminAddBias
///   fp32Res = f24ToF32(fp24Res)
/// then relu (when on: every value not above 0, NaN included, becomes +0),
/// and the output: f32 takes fp32Res; f16 and bf16 convert it (Support/
/// SoftFloat.h: no subnormals, overflow to infinity); integer outputs take
/// fp24ToInt, saturated to their range (NaN gives 0).
///
/// Flags: relu; round: the narrowing to an f16, bf16 or integer output
/// rounds to nearest, ties to even (off: toward zero); perTensor as in
/// TaeConvPP.
///
/// Speed: where no step can overflow, underflow or meet an infinity or NaN,
/// channels are computed in vectorised blocks, else element by element; the
/// results are the same. Without sumin that takes every channel's scale 0 or
/// within [2^-90, 2^95] and bias 0 or within [2^-90, 2^125]; with sumin,
/// scale and suminScale 0 or within [2^-50, 2^40], bias 0 or within [2^-50,
/// 2^100], and (row by row) every sumin 0 or within [2^-40, 2^41).
///
/// Checks, in order: "psum must be si32", "shape of psum and fout must be
/// identical", the library's own "float quantInfo must be f32", "quantInfo
/// rank must be either 2 or 3", the library's own "float quantInfo axis -1
/// must be 3", then as TaeConvPP "psum must have a channel axis", "quantInfo
/// axis -2 must be identical to psum axis -1", "quantInfo axis 0 must be 1
/// or psum axis 0", then the library's own "fout must be f32, f16, bf16,
/// si8, si16 or si32", "sumin must be f32 or f16", "shape of psum and sumin
/// must be identical", "post-process operands must hold data". The trace
/// point names an element of fout.
KORA_API Status TaeConvFPP(Tensor& fout, Tensor const& psum, Tensor const& quantInfo, Tensor const& sumin, bool relu,
                           bool round, bool perTensor);

/// The MAC of TaeConvMacPP followed by TaeConvFPP (no quantForm: the float
/// quant info has one form). Checks as TaeConvMacPP, with the FPP's.
KORA_API Status TaeConvMacFPP(Tensor& fout, Tensor const& fin, Tensor const& weight, Tensor const& quantInfo,
                              Tensor const& sumin, Tensor const& psum, int64_t padValue,
                              std::vector<int64_t> const& pad, std::vector<int64_t> const& stride,
                              std::vector<int64_t> const& dilation, int64_t group, bool relu, bool round,
                              bool perTensor);

}  // namespace kora::lyra::intrinsic
