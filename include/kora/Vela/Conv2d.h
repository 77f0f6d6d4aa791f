#pragma once
// "vela::Conv2d": the first accelerator generation's whole convolution as one
// registered kernel, the MAC followed by the post-process (ConvMacPP in
// Vela/Intrinsic.h, which documents the arithmetic, the quant-info forms and
// the flags).
#include <cstdint>
#include <vector>

#include "kora/Core/Export.h"
#include "kora/Core/Tensor.h"
#include "kora/Kernel/Status.h"

namespace kora::vela {

/// Parameters, in order: fout; fin si8 [n, hi, wi, C]; weight si8 [K, R, S,
/// C / group]; quantInfo (decoded [K', 6] or encoded [K', 1 or 2], with an
/// optional leading per-image axis); sumin (optional, si8 or si32 of fout's
/// shape); psum (optional si32 partial sums of fout's shape to accumulate
/// onto); padValue; pad {top, left[, bottom, right]}; stride {strH, strW};
/// dilation {dilH, dilW}; group; quantForm (0 decoded, 1 encoded); relu;
/// round; perTensor. Called by name, the trailing dilation, group, quantForm
/// and flags default to {1, 1}, 1, 0 and false.
///
/// Config sets fout to [n, ho, wo, K] with ho = (hi + padTop + padBottom -
/// dilH * (R - 1) - 1) / strH + 1 (likewise wo); a pad of two values pads
/// bottom and right like top and left. fout keeps an element type the caller
/// set (si8, si16 or si32) and is si8 otherwise. Its reasons, after
/// "Conv2d config error: ": "fin and weight must be si8", "rank of conv
/// input must be 4: [n, h, w, c]", "rank of conv weight must be 4: [k, r, s,
/// c]", "wrong size of pad", "wrong size of stride, dilation", "stride and
/// dilation must be positive", "conv window parameters must lie within
/// [-2^30, 2^30]", "kernel window larger than padded input", "fout must be
/// si8, si16 or si32". Conv2d itself runs every check of ConvMacPP.
KORA_API Status Conv2dConfig(Tensor& fout, Tensor const& fin, Tensor const& weight, Tensor const& quantInfo,
                             Tensor const& sumin, Tensor const& psum, int64_t padValue, std::vector<int64_t> const& pad,
                             std::vector<int64_t> const& stride, std::vector<int64_t> const& dilation, int64_t group,
                             int64_t quantForm, bool relu, bool round, bool perTensor);
KORA_API Status Conv2d(Tensor& fout, Tensor const& fin, Tensor const& weight, Tensor const& quantInfo,
                       Tensor const& sumin, Tensor const& psum, int64_t padValue, std::vector<int64_t> const& pad,
                       std::vector<int64_t> const& stride, std::vector<int64_t> const& dilation, int64_t group,
                       int64_t quantForm, bool relu, bool round, bool perTensor);

}  // namespace kora::vela
