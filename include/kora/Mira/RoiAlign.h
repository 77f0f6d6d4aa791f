#pragma once
// RoiAlign: regions of interest cropped out of a pyramid of 8-bit feature
// maps and resampled to a fixed grid, in the accelerator's fixed-point
// arithmetic.
//
// Operands
//   rois      si16, [N, c] or [B, N, c] with c = 4 or 6. A row's first four
//             entries are x1, y1, x2, y2 in input-image pixels with two
//             fractional bits (4 is one pixel). The last two entries of a
//             6-wide row belong to the caller (a detector's score and class,
//             say): they are carried through and never read.
//   features  si8, channels last, finest level first: [H, W, C] each with
//             rank-2 rois, [B, H, W, C] each with rank-3 rois. Roi [b, n] of
//             a rank-3 roi tensor is pooled from batch image b of the
//             pyramid, so the roi tensor's B equals every feature's B.
//   fout      the features' type; [N, pooledH, pooledW, C] for rank-2 rois,
//             [B, N, pooledH, pooledW, C] for rank-3 rois.
//   shape             [pooledH, pooledW]
//   featureStrides    one per feature map; level i reads a roi coordinate
//                     as a fixed-point number with F = trunc(log2(stride)) + 2
//                     fractional bits
//   samplingRatio     must be 1: one sample per cell, at the cell's start
//   interpolateMode   must be "bilinear"
//   canonicalBoxSize, canonicalLevel    the level rule below
//   boxClipRatio      empty, or (a, b, c, d): each box first becomes
//                     round(x1 + a*w), round(y1 + b*h), round(x2 - c*w),
//                     round(y2 - d*h), each a fused multiply-add in double
//                     rounded half away from zero
//
// Per box: w = x2 - x1 and h = y2 - y1 (after the clip); a box with w <= 0 or
// h <= 0, before or after the clip, or with a non-integral roi type, fills
// its whole output block with 0. With more than one feature map the level is
// floor(canonicalLevel - k0 + log2(sqrt((w/4 + 1) * (h/4 + 1)) / canonicalBoxSize))
// in double, k0 = trunc(log2(featureStrides[0])), limited to
// [0, number of maps - 1]. Cell (i, j) samples the level's map at
// y = y1 + i * binH, x = x1 + j * binW (32-bit fixed point, clamped into
// the map), and blends its four neighbours with F-bit weights and one
// rounding shift by 2F; a neighbour outside the map (row or column -1 of a
// map one pixel high or wide) contributes 0. A result outside [-128, 127]
// stops the process ("roi align numeric overflow").
//
// Choices this library makes where the operator's definition is silent:
//   - A dimension of size -1 (any negative size) is dynamic: unknown until
//     run time. Only the box-number axis of the rois may be dynamic; the
//     output's box-number axis is then -1 as well.
//   - With no inputs at all the roi rank reads as 0; with no feature map the
//     first feature's rank reads as 0.
//   - fout's element type, when unset, becomes the first feature's; every
//     feature must have fout's type. A negative pooled size is refused last,
//     with "Attribute shape should not be negative, but got [h, w]".
//   - The six kernels are one operator: RoiAlign1 ... RoiAlign5 report
//     their Config failures as "RoiAlign config error: ...".
//   - Roi types: si16, and also si8, si32, ui8 and ui16, whose values all fit
//     the 32-bit box corners; a floating roi tensor makes every box invalid.
//   - Clipping: a corner whose fused multiply-add is NaN makes the box
//     invalid; a result beyond int32 saturates.
//   - Level: a NaN level (a negative canonicalBoxSize) reads as 0; a
//     canonicalBoxSize of 0 gives +infinity, the coarsest map.
//   - Feature types: si8, and si16 computed in the same 32-bit arithmetic
//     (its results must then fit [-128, 127] too, or the process stops).
//
// Run time (the Impl): a non-integral fout is zero-filled and fails with
// "Currently, only the fixed-point version of RoiAlign is supported. output
// was set 0". Every other problem the Impl finds fails with "Compute
// quantized roi align error", having logged the particular reason at warn
// level: a missing or empty operand, features of unequal rank, batch or
// channel count, of a type other than si8/si16 or other than fout's, a
// feature side of 2^31 or more, a stride below 1 or of 2^14 or more (its
// 2F-bit shifts must fit 32 bits), a roi type it cannot read, or arguments
// Config would have refused, or fout of another shape than Config gives.
// Two broken invariants stop the process before anything is written: a roi
// row that is not one-dimensional ("one roi should be 1 dimension": the roi
// tensor's rank does not fit the features' rank) and a clip vector neither
// empty nor of four values ("box clip ratio error"), checked once per call.
//
// Called by name (mira::RoiAlign, mira::RoiAlign1 ... mira::RoiAlign5), the
// trailing attributes may be left out: samplingRatio 1, interpolateMode
// "bilinear", canonicalBoxSize 224, canonicalLevel 4, no box clip.
//
// Tracing: with a trace point on an output element, the steps of that
// element are logged: the box (and its clip), its level, the bins, the
// sample row and column, the four neighbours, the blend and the result.
#include <cstdint>
#include <string>
#include <vector>

#include "kora/Core/Export.h"
#include "kora/Core/Tensor.h"
#include "kora/Kernel/Status.h"

namespace kora::mira {

/// `inputs` holds the roi tensor, then the feature maps, finest first.
KORA_API Status RoiAlignConfig(Tensor& fout, std::vector<Tensor> const& inputs, std::vector<int64_t> const& shape,
                               std::vector<int64_t> const& featureStrides, int64_t samplingRatio,
                               std::string const& interpolateMode, int64_t canonicalBoxSize, int64_t canonicalLevel,
                               std::vector<double> const& boxClipRatio);
KORA_API Status RoiAlign(Tensor& fout, std::vector<Tensor> const& inputs, std::vector<int64_t> const& shape,
                         std::vector<int64_t> const& featureStrides, int64_t samplingRatio,
                         std::string const& interpolateMode, int64_t canonicalBoxSize, int64_t canonicalLevel,
                         std::vector<double> const& boxClipRatio);

// The same operator with one to five feature maps as separate arguments.

KORA_API Status RoiAlign1Config(Tensor& fout, Tensor const& rois, Tensor const& feature0,
                                std::vector<int64_t> const& shape, std::vector<int64_t> const& featureStrides,
                                int64_t samplingRatio, std::string const& interpolateMode, int64_t canonicalBoxSize,
                                int64_t canonicalLevel, std::vector<double> const& boxClipRatio);
KORA_API Status RoiAlign1(Tensor& fout, Tensor const& rois, Tensor const& feature0, std::vector<int64_t> const& shape,
                          std::vector<int64_t> const& featureStrides, int64_t samplingRatio,
                          std::string const& interpolateMode, int64_t canonicalBoxSize, int64_t canonicalLevel,
                          std::vector<double> const& boxClipRatio);

KORA_API Status RoiAlign2Config(Tensor& fout, Tensor const& rois, Tensor const& feature0, Tensor const& feature1,
                                std::vector<int64_t> const& shape, std::vector<int64_t> const& featureStrides,
                                int64_t samplingRatio, std::string const& interpolateMode, int64_t canonicalBoxSize,
                                int64_t canonicalLevel, std::vector<double> const& boxClipRatio);
KORA_API Status RoiAlign2(Tensor& fout, Tensor const& rois, Tensor const& feature0, Tensor const& feature1,
                          std::vector<int64_t> const& shape, std::vector<int64_t> const& featureStrides,
                          int64_t samplingRatio, std::string const& interpolateMode, int64_t canonicalBoxSize,
                          int64_t canonicalLevel, std::vector<double> const& boxClipRatio);

KORA_API Status RoiAlign3Config(Tensor& fout, Tensor const& rois, Tensor const& feature0, Tensor const& feature1,
                                Tensor const& feature2, std::vector<int64_t> const& shape,
                                std::vector<int64_t> const& featureStrides, int64_t samplingRatio,
                                std::string const& interpolateMode, int64_t canonicalBoxSize, int64_t canonicalLevel,
                                std::vector<double> const& boxClipRatio);
KORA_API Status RoiAlign3(Tensor& fout, Tensor const& rois, Tensor const& feature0, Tensor const& feature1,
                          Tensor const& feature2, std::vector<int64_t> const& shape,
                          std::vector<int64_t> const& featureStrides, int64_t samplingRatio,
                          std::string const& interpolateMode, int64_t canonicalBoxSize, int64_t canonicalLevel,
                          std::vector<double> const& boxClipRatio);

KORA_API Status RoiAlign4Config(Tensor& fout, Tensor const& rois, Tensor const& feature0, Tensor const& feature1,
                                Tensor const& feature2, Tensor const& feature3, std::vector<int64_t> const& shape,
                                std::vector<int64_t> const& featureStrides, int64_t samplingRatio,
                                std::string const& interpolateMode, int64_t canonicalBoxSize, int64_t canonicalLevel,
                                std::vector<double> const& boxClipRatio);
KORA_API Status RoiAlign4(Tensor& fout, Tensor const& rois, Tensor const& feature0, Tensor const& feature1,
                          Tensor const& feature2, Tensor const& feature3, std::vector<int64_t> const& shape,
                          std::vector<int64_t> const& featureStrides, int64_t samplingRatio,
                          std::string const& interpolateMode, int64_t canonicalBoxSize, int64_t canonicalLevel,
                          std::vector<double> const& boxClipRatio);

KORA_API Status RoiAlign5Config(Tensor& fout, Tensor const& rois, Tensor const& feature0, Tensor const& feature1,
                                Tensor const& feature2, Tensor const& feature3, Tensor const& feature4,
                                std::vector<int64_t> const& shape, std::vector<int64_t> const& featureStrides,
                                int64_t samplingRatio, std::string const& interpolateMode, int64_t canonicalBoxSize,
                                int64_t canonicalLevel, std::vector<double> const& boxClipRatio);
KORA_API Status RoiAlign5(Tensor& fout, Tensor const& rois, Tensor const& feature0, Tensor const& feature1,
                          Tensor const& feature2, Tensor const& feature3, Tensor const& feature4,
                          std::vector<int64_t> const& shape, std::vector<int64_t> const& featureStrides,
                          int64_t samplingRatio, std::string const& interpolateMode, int64_t canonicalBoxSize,
                          int64_t canonicalLevel, std::vector<double> const& boxClipRatio);

}  // namespace kora::mira
