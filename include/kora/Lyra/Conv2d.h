#pragma once
// "lyra::Conv2d" and "lyra::Conv2dFpp": the second accelerator generation's
// whole convolution as registered kernels, the 8-bit MAC followed by the
// integer post-process (TaeConvMacPP) or by the floating one (TaeConvMacFPP).
// Lyra/Intrinsic.h documents the arithmetic, the quant-info forms and the
// flags.
#include <cstdint>
#include <vector>

#include "kora/Core/Export.h"
#include "kora/Core/Tensor.h"
#include "kora/Kernel/Status.h"

namespace kora::lyra {

/// Parameters, in order: fout; fin si8 [n, hi, wi, C]; weight si8 [K, R, S,
/// C / group]; quantInfo (decoded [K, 6] or encoded [K, 2], with an optional
/// leading per-image axis); sumin (optional, si8, si16 or si32 of fout's
/// shape); psum (optional si32 partial sums of fout's shape to accumulate
/// onto); padValue; pad {top, left[, bottom, right]}; stride {strH, strW};
/// dilation {dilH, dilW}; group; quantForm (0 decoded, 1 encoded); relu;
/// round; perTensor. Called by name, the trailing dilation, group, quantForm
/// and flags default to {1, 1}, 1, 0 and false.
///
/// Config sets fout to [n, ho, wo, K] as vela::Conv2dConfig does (same
/// reasons, after "Conv2d config error: "); fout keeps an element type the
/// caller set (si8, si16 or si32, else "fout must be si8, si16 or si32") and
/// is si8 otherwise. Conv2d itself runs every check of TaeConvMacPP.
KORA_API Status Conv2dConfig(Tensor& fout, Tensor const& fin, Tensor const& weight, Tensor const& quantInfo,
                             Tensor const& sumin, Tensor const& psum, int64_t padValue, std::vector<int64_t> const& pad,
                             std::vector<int64_t> const& stride, std::vector<int64_t> const& dilation, int64_t group,
                             int64_t quantForm, bool relu, bool round, bool perTensor);
KORA_API Status Conv2d(Tensor& fout, Tensor const& fin, Tensor const& weight, Tensor const& quantInfo,
                       Tensor const& sumin, Tensor const& psum, int64_t padValue, std::vector<int64_t> const& pad,
                       std::vector<int64_t> const& stride, std::vector<int64_t> const& dilation, int64_t group,
                       int64_t quantForm, bool relu, bool round, bool perTensor);

/// Parameters as Conv2d without quantForm: quantInfo is float quant info f32
/// [K, 3] (bias, suminScale, scale; optional leading per-image axis) and
/// sumin, when given, f32 or f16. Called by name, dilation, group and the
/// flags default to {1, 1}, 1 and false.
///
/// Config sets fout's shape as Conv2dConfig does (reasons after "Conv2dFpp
/// config error: "); fout keeps an element type the caller set (f32, f16,
/// bf16, si8, si16 or si32, else "fout must be f32, f16, bf16, si8, si16 or
/// si32") and is f32 otherwise. Conv2dFpp itself runs every check of
/// TaeConvMacFPP.
KORA_API Status Conv2dFppConfig(Tensor& fout, Tensor const& fin, Tensor const& weight, Tensor const& quantInfo,
                                Tensor const& sumin, Tensor const& psum, int64_t padValue,
                                std::vector<int64_t> const& pad, std::vector<int64_t> const& stride,
                                std::vector<int64_t> const& dilation, int64_t group, bool relu, bool round,
                                bool perTensor);
KORA_API Status Conv2dFpp(Tensor& fout, Tensor const& fin, Tensor const& weight, Tensor const& quantInfo,
                          Tensor const& sumin, Tensor const& psum, int64_t padValue, std::vector<int64_t> const& pad,
                          std::vector<int64_t> const& stride, std::vector<int64_t> const& dilation, int64_t group,
                          bool relu, bool round, bool perTensor);

}  // namespace kora::lyra
