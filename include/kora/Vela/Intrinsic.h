#pragma once
// Bit-exact models of the first accelerator generation's convolution engine:
// the 8-bit multiply-accumulate (MAC) into 32-bit partial sums ("psum"), the
// look-up transform, the packed per-channel quant info and the integer
// post-process (PP) that narrows psum to the output.
//
// Tensors are channel-last: fin and psum are [n, h, w, c], a dense weight is
// [k, r, s, c / group]. Every function validates first and returns a failed
// Status with a fixed text when an operand is wrong (first failure wins);
// nothing is written then, psum included. Arithmetic never fails: MAC sums
// wrap modulo 2^32 like the hardware adder, and the PP saturates only at its
// named clamps.
//
// Tracing: when the Context's trace point is an output coordinate of the call,
// each step of that element is logged ("psum[0, 1, 1, 2] += fin[0, 0, 0, 5] *
// weight[2, 0, 0, 5] // 7 += 3 * -4 -> -5" for a MAC step, "psum64 >>=
// preRShift(2) // 11" for a PP step). Coordinates of padding taps lie outside
// fin (a negative row, say): the value shown is the pad value.
#include <cstdint>
#include <vector>

#include "kora/Core/ArrayRef.h"
#include "kora/Core/Export.h"
#include "kora/Core/Tensor.h"
#include "kora/Kernel/Status.h"

namespace kora::vela::intrinsic {

// ---------------------------------------------------------------------------
// MAC
// ---------------------------------------------------------------------------

/// Dense MAC. fin si8 [n, hi, wi, C]; weight si8 [K, R, S, C / group]; psum
/// si32 [n, ho, wo, K], read and accumulated (never cleared). pad is {top,
/// left} or {top, left, bottom, right} (bottom and right do not enter the
/// arithmetic: positions outside fin are found by bounds); the low 8 bits of
/// padValue, as si8, stand for every element outside fin. stride {strH,
/// strW}, dilation {dilH, dilW}: any values, zero and negative ones included,
/// are computed as written (taps are placed by the formula, then bounds
/// decide), as long as each lies within +-2^30.
///
/// psum[b, y, x, k] += fin[b, y*strH - padTop + r*dilH, x*strW - padLeft +
/// s*dilW, g*Cg + c] * weight[k, r, s, c] for r, s, c in that nesting order,
/// with g = k / (K / group) and Cg = C / group.
///
/// Checks, in order: "fin and weight must be si8", "psum must be si32 when
/// fin is si8", "rank of conv input and output must be same", "rank of conv
/// weight must be 4: [k, r, s, c]", "tensor group number invalid" (also for
/// group < 1 and for K not a multiple of group), "k of weight and psum must
/// be same", "wrong size of pad", "wrong size of stride, dilation"; then the
/// library's own: "conv operands must hold data" (fin, weight), "rank of conv
/// input and output must be 4: [n, h, w, c]", "batch of conv input and output
/// must be same", "conv window parameters must lie within [-2^30, 2^30]",
/// and "conv operands must hold data" for psum.
KORA_API Status ConvMac(Tensor& psum, Tensor const& fin, Tensor const& weight, ArrayRef<int64_t> pad, int64_t padValue,
                        ArrayRef<int64_t> stride, ArrayRef<int64_t> dilation, int64_t group);

/// Reorders the two axes before the last one into zigzag order: fin [..., H,
/// W, C] becomes fout [..., H * W, C], output row i = q * H + j copying
/// fin[..., h, q, :] with h = j for even q and H - 1 - j for odd q (columns
/// left to right, alternately top-down and bottom-up). Any element type;
/// fout must have fin's. Applied to a weight [K, R, S, C] it gives the
/// [K, R * S, C] layout ConvZigzagMac reads.
///
/// Checks, in order: "fout rank must be fin rank minus 1", "fout rank must
/// greater than 3" (for a fout rank below 3), "fin fout axis {} must be
/// identical" for each leading axis, "fout axis -2 must be fin axis -3 times
/// fin axis -2"; then the library's own: "fout axis -1 must be fin axis -1",
/// "fin and fout must have the same element type", "fin and fout must hold
/// data".
KORA_API Status ConvZigzagWeight(Tensor& fout, Tensor const& fin);

/// MAC over a weight in zigzag tap order (the layout ConvZigzagWeight makes):
/// weight si8 [K, T, C / group] holds T consecutive taps of an R x S window,
/// starting at zigzag position `firstTap`. Zigzag position i is window column
/// q = i / R and row r = i % R for even q, R - 1 - i % R for odd q, so the
/// window is read column by column, alternately down and up: consecutive taps
/// are neighbours, and a long window can be split into passes (tap ranges)
/// whose psums add up to the whole window's. With T = R * S and firstTap 0 the
/// result equals ConvMac with the original weight and dilation 1.
///
/// Arguments after weight: pad {top, left[, bottom, right]}, kernel {R, S},
/// padValue, stride {strH, strW}, group, firstTap. Trace lines are those of
/// ConvMac, in zigzag order, with weight coordinates [k, t, c].
///
/// Checks, in order: "operands type for conv must be si8", "psum type for
/// conv must be si32", "channel number for conv weight and output must be
/// same", "wrong size of pad, stride or kernel" (pad of 2 or 4, stride and
/// kernel of 2 entries), "rank of conv weight must be at lease 3", "invalid
/// group num" (group < 1, C not group * weight axis -1, K not a multiple of
/// group); then the library's own ones of ConvMac for fin and psum, "rank of
/// zigzag conv weight must be 3: [k, t, c]", and "wrong size of pad, stride
/// or kernel" again when R or S is below 1, firstTap is negative or firstTap
/// + T exceeds R * S, and "conv operands must hold data" for psum.
KORA_API Status ConvZigzagMac(Tensor& psum, Tensor const& fin, Tensor const& weight, ArrayRef<int64_t> pad,
                              ArrayRef<int64_t> kernel, int64_t padValue, ArrayRef<int64_t> stride, int64_t group,
                              int64_t firstTap);

/// MAC over a pruned weight: each output channel keeps only some taps of its
/// R x S window. weight si8 [K, T, C] holds T weight rows per channel;
/// `index` (si32 or si64, [K, T]) names the tap each row applies to, as r * S
/// + s; a negative index marks an unused slot (channels that keep fewer taps
/// than T), which contributes nothing. psum[b, y, x, k] += sum over t with
/// index[k, t] >= 0 and over c of fin[b, y*strH - padTop + r, x*strW -
/// padLeft + s, c] * weight[k, t, c], in t then c order (dilation 1, one
/// group). The int64 argument is the pad value. Trace lines are those of
/// ConvMac with weight coordinates [k, t, c].
///
/// Checks, in order: "rank of conv input and output must be same", "rank of
/// conv weight must be at lease 3", "invalid pad info. Should contain 2
/// elements: padTop and padLeft", "invalid kernel info. Should contain 2
/// elements: kerH and kerW", "invalid stride info. Should contain 2 elements:
/// strH and strW", "operands type for conv must be si8", "psum type for conv
/// must be si32"; then the library's own ones of ConvMac for fin and psum,
/// "rank of sparse conv weight must be 3: [k, t, c]", "channel number for
/// conv weight and output must be same", "channel number of sparse conv
/// weight and input must be same", "sparse index must be si32 or si64 of
/// shape [k, t]", "kernel size must be positive", "conv operands must hold
/// data" for psum, and "sparse index must be less than kerH * kerW" (every
/// index is checked before anything is written).
KORA_API Status ConvSparseMac(Tensor& psum, Tensor const& fin, Tensor const& weight, Tensor const& index,
                              ArrayRef<int64_t> kernel, ArrayRef<int64_t> pad, int64_t padValue,
                              ArrayRef<int64_t> stride);

// ---------------------------------------------------------------------------
// Look-up transform
// ---------------------------------------------------------------------------

/// Piecewise-linear function through a 65-entry int16 table. fin si8 or si16,
/// fout si8 or si16 of the same shape; `ranges` holds three records of four
/// values {max, k, b, s}, taken as the hardware registers hold them: max and
/// k int16, b int32, s unsigned 8-bit (the low bits of each value).
///
/// One value x:
/// 1. Range: record 0 when x <= max0, else record 1 when x <= max1, else
///    record 2 (max2 takes no part in the choice).
/// 2. Transform: t = (b + k * x) in unsigned 32-bit arithmetic, shifted right
///    logically by s mod 32; the low 17 bits of t read as a signed number,
///    clamped to [-32768, 32767], give the index.
/// 3. Interpolation: select = index >> 10 (floor, in [-32, 31]) and interp =
///    index & 1023. The two neighbours are table[select + 32] and
///    table[select + 33]. The table sits in two banks by position parity, so
///    the pair is named by bank: `even` is the entry at the even position,
///    `odd` the one at the odd position. When the left neighbour is even the
///    weight of odd is interp, otherwise it is 1024 - interp; either way
///    result = ((odd - even) * weight >> 10) + even (arithmetic shift), which
///    runs from the left neighbour at interp 0 toward the right one.
/// 4. fout = result >> 8 (arithmetic).
///
/// Checks, in order: "Incorrect lut range size" (ranges not of 12 values),
/// then the library's own "Incorrect lut table size" (table not of 65
/// entries), "lut input must be si8 or si16", "lut output must be si8 or
/// si16", "shape of lut input and output must be identical", "lut input and
/// output must hold data". The trace point names an element of fout.
KORA_API Status ConvLut(Tensor& fout, Tensor const& fin, ArrayRef<int16_t> table, ArrayRef<int64_t> ranges);

// ---------------------------------------------------------------------------
// Quant info
// ---------------------------------------------------------------------------
//
// Decoded quant info: si64 [..., K, 6], one row per output channel:
//   0 bias (32-bit), 1 suminScale, 2 suminRShift, 3 preRShift, 4 scale,
//   5 postRShift.
// Encoded quant info: si64 [..., K, 1] (32-bit sumin form: commonPart alone)
// or [..., K, 2] (8-bit sumin form: commonPart, then a word holding the
// 32-bit suminPart in one half: bits [31:0] for an even channel index along
// axis -2, bits [63:32] for an odd one, the other half zero, so the words of
// two neighbouring channels OR together into the packed word the hardware
// loads).
//
// commonPart: [31:0] bias, [46:32] scale (15 bits), [52:48] preRShift (valid
// [0, 17]), [54:53] sumin shift mode (0 none, 2 sumin >> 8, 3 sumin << 8),
// [60:56] postRShift (5 bits). suminPart: [14:0] suminScale, [21:16]
// suminRShift (6-bit two's complement, valid [-13, 22]).

/// Packs each decoded row; the form (1 or 2 words) is encode's last axis. A
/// preRShift outside [0, 17] or an 8-bit suminRShift outside [-13, 22] is
/// written as 0 (the trace says so); scale, suminScale and postRShift are
/// masked to their fields. With the 32-bit form suminRShift must be 8, 0 or
/// -8 (shift modes 2, 0, 3), and suminScale is not stored.
///
/// Leading axes of encode and decode (before the channel axis) must match.
/// Checks, in order: "encoded and decoded quantInfo must be si64", "encode
/// and decode tensors must be the same rank", the library's own "encode and
/// decode tensors must be at least rank 2", "encode and decode tensor axis -2
/// must be identical", the library's own "encode and decode tensor axis {}
/// must be identical" for a leading axis, "decode tensor axis -1 must be 6",
/// "encode tensor axis -1 must be either 1 or 2", the library's own "encode
/// and decode tensors must hold data", then per row "i32 suminRShift must be
/// one of [8, 0, -8], but got {}" (all rows are checked before any is
/// written). The trace point names an element of encode; its whole row is
/// traced, starting with the decoded row it reads.
KORA_API Status EncodeQuantInfo(Tensor& encode, Tensor const& decode);

/// Unpacks each channel's words into a decoded row. `channelBase` is the
/// channel index of row 0: the half word holding a row's suminPart follows
/// the parity of channelBase + row, so a slice of an encoded table starting
/// at channel c decodes with channelBase c. Stored fields outside their valid
/// range (preRShift above 17, suminRShift outside [-13, 22]) decode as 0. The
/// 32-bit form decodes suminScale as 0 and suminRShift from the shift mode
/// (2 -> 8, 3 -> -8, 0 and the unused 1 -> 0). Same checks as
/// EncodeQuantInfo (without the per-row one); the trace point names an
/// element of decode.
KORA_API Status DecodeQuantInfo(Tensor& decode, Tensor const& encode, int64_t channelBase);

/// Derives decoded quant info [K, 6] for a quantized convolution
///   real fin = finScale * (fin - finZeroPoint), real weight = weightScale[k]
///   * weight, real sumin = suminScale[k] * (sumin - suminZeroPoint), real
///   fout = foutScale[k] * (fout - foutZeroPoint),
/// so that the PP turns psum (+ sumin) into fout. Arguments: quantInfo (si64
/// [K, 6], written), weight (si8 [K, R, S, Cg]; needed only when
/// finZeroPoint is not 0, whose products with the weights are folded into the
/// bias), bias (optional [K]: f32 or f64 in real units, or si32 already in
/// accumulator units finScale * weightScale[k]), finScale (1 value),
/// finZeroPoint, weightScale (1 or K values), suminScale (empty: no sumin;
/// else 1 or K values), suminZeroPoint, suminBits (8 or 32), foutScale (1 or
/// K values), foutZeroPoint, foutBits (8 or 32).
///
/// The search, per channel, with M = finScale * weightScale / foutScale:
/// - 8-bit fout: preRShift is the smallest shift in [0, 17] that brings every
///   accumulator value whose output is not saturated anyway (|acc| <= 128 /
///   M) into the 16-bit clamp; then postRShift is the largest shift in [0, 31]
///   with scale = round(M * 2^(preRShift + postRShift)) <= 32767 (the most
///   precise 15-bit scale). No such shift means M needs a left shift.
/// - 32-bit fout: M must be 1 (within 1e-6): scale 1, both shifts 0. The PP
///   still clamps to 16 bits after the pre-shift.
/// - 8-bit sumin, R = suminScale / (finScale * weightScale): suminRShift is
///   the largest shift in [-9, 22] with suminScale field = round(R *
///   2^suminRShift) <= 32767 (-9 keeps sumin8 * scale << 9 within 32 bits).
///   32-bit sumin: R must be 1, 2^-8 or 2^8 (within 1e-6), giving suminRShift
///   0, 8 or -8 and a suminScale of 0.
/// - bias = round(bias in accumulator units - finZeroPoint * sum of the
///   channel's weights - suminZeroPoint * (effective sumin rescale) +
///   foutZeroPoint / (effective output multiplier scale /
///   2^(preRShift+postRShift))), which must fit in int32; a scale of 0 (M
///   below 2^-49) drops the output zero point.
///
/// Checks, in order: "quantInfo must be rank of 2", "bias must be rank of 1",
/// "quantInfo axis 1 size must be 6", "sumin must be 8bit or 32bit", "fout
/// must be 8bit or 32bit", "quantInfo and bias axis 0 size must be
/// identical", then the library's own "decoded quantInfo must be si64", "bias
/// must be f32, f64 or si32", "fin scale must hold 1 value", "{name} scale
/// must hold 1 or {K} values" and "{name} scale must be positive and finite"
/// (name: fin, weight, sumin, fout), then "when fin zero point not zero,
/// weight must be valid", "cannot generate input zero point conv2d" (weight
/// not si8 [K, R, S, Cg], or a zero point outside [-128, 127]), and per
/// channel "si32 conv does not support rescale, check fout scale", "conv post
/// process does not support left shift", "si32 sumin does not support
/// rescale, check sumin scale", "suminRShift cannot less than -9", "can not
/// get bias in range of int32 on channel {}".
KORA_API Status GenQuantInfo(Tensor& quantInfo, Tensor const& weight, Tensor const& bias, ArrayRef<double> finScale,
                             int64_t finZeroPoint, ArrayRef<double> weightScale, ArrayRef<double> suminScale,
                             int64_t suminZeroPoint, int64_t suminBits, ArrayRef<double> foutScale,
                             int64_t foutZeroPoint, int64_t foutBits);

// ---------------------------------------------------------------------------
// Post-process
// ---------------------------------------------------------------------------

/// Post-process of psum (si32) into fout (si8, si16 or si32, same shape),
/// channel = last axis, driven by decoded quant info [K', 6] (K' >= K) or
/// [X, K', 6] with X = 1 or X = psum axis 0 (one table per batch image).
/// sumin is optional (an invalid Tensor means none): si8 or si32 of psum's
/// shape, rescaled and added before relu and before any shift.
///
/// Per element, in 64-bit arithmetic: psum64 = psum + bias; += rescaled sumin
/// (8-bit: sumin8 * suminScale, then >> suminRShift or << -suminRShift;
/// 32-bit: sumin32 >> suminRShift or << -suminRShift); relu (values below 1
/// become 0); >>= preRShift (floor); clamp to 16 bits; *= scale; >>
/// postRShift (floor, or with `round` adding bit postRShift-1 of the value
/// before the shift, i.e. half up; with postRShift 0 there is no such bit and
/// nothing is added); clamp to fout's type.
///
/// Decoded rows are taken as the hardware registers hold them, exactly as
/// EncodeQuantInfo would store them: bias keeps its low 32 bits, scale and
/// suminScale their low 15 bits, postRShift its low 5 bits, and a preRShift
/// outside [0, 17] or an 8-bit suminRShift outside [-13, 22] counts as 0; so
/// ConvPP on decoded rows equals ConvPPEncoded on their encoding.
///
/// Flags: relu; round (rounding of the final right shift); perTensor: every
/// channel takes row 0 of its table (per-tensor quantization) instead of row
/// k (per-channel).
///
/// Checks, in order: "psum must be si32", "shape of psum and fout must be
/// identical", "decoded quantInfo must be si64", "quantInfo rank must be
/// either 2 or 3", "decoded quantInfo axis -1 be 6", "quantInfo axis -2 must
/// be greater or equal to psum axis -1" (at least 1 row with perTensor); then
/// the library's own "psum must have a channel axis", "quantInfo axis 0 must
/// be 1 or psum axis 0", "fout must be si8, si16 or si32", "sumin must be
/// 8bit or 32bit", "shape of psum and sumin must be identical",
/// "post-process operands must hold data", and for a 32-bit sumin "i32
/// suminRShift must be one of [8, 0, -8], but got {}" (rows in use only).
/// The trace point names an element of fout.
KORA_API Status ConvPP(Tensor& fout, Tensor const& psum, Tensor const& quantInfo, Tensor const& sumin, bool relu,
                       bool round, bool perTensor);

/// ConvPP on encoded quant info [K', 1 or 2] or [X, K', 1 or 2]: each
/// channel's words are decoded as DecodeQuantInfo does (channel base 0).
/// A sumin needs the matching form: si8 the 2-word form, si32 the 1-word form.
/// Checks as ConvPP, with "encoded and decoded quantInfo must be si64" for
/// the type, "encode tensor axis -1 must be either 1 or 2" for the last axis,
/// and the library's own "sumin type does not match the quantInfo form".
KORA_API Status ConvPPEncoded(Tensor& fout, Tensor const& psum, Tensor const& quantInfo, Tensor const& sumin,
                              bool relu, bool round, bool perTensor);

/// The whole convolution: ConvMac into a fresh psum (starting from `psum`
/// when that tensor is valid, from zeros otherwise), then the post-process.
/// fout is [n, ho, wo, K] (si8, si16 or si32); `quantForm` 0 takes decoded
/// quant info (ConvPP), 1 encoded (ConvPPEncoded). Every check of both steps
/// runs before anything is computed; beyond them, the library's own "quantForm
/// must be 0 (decoded) or 1 (encoded)" (first), and for an initial psum
/// "psum must be si32" and "shape of psum and fout must be identical". The
/// trace shows every MAC step of the traced element, then every PP step.
KORA_API Status ConvMacPP(Tensor& fout, Tensor const& fin, Tensor const& weight, Tensor const& quantInfo,
                          Tensor const& sumin, Tensor const& psum, int64_t padValue, std::vector<int64_t> const& pad,
                          std::vector<int64_t> const& stride, std::vector<int64_t> const& dilation, int64_t group,
                          int64_t quantForm, bool relu, bool round, bool perTensor);

}  // namespace kora::vela::intrinsic
