#pragma once
// The Config of a whole convolution kernel (output shape and element type),
// shared by the accelerator generations' registered convolutions.
#include <cstdint>
#include <vector>

#include "kora/Core/Tensor.h"
#include "kora/Kernel/Status.h"
#include "kora/Support/Dispatch.h"

namespace kora::vela::detail {

/// fout's shape [n, ho, wo, K] for fin si8 [n, hi, wi, C] and weight si8
/// [K, R, S, Cg], with ho = (hi + padTop + padBottom - dilH * (R - 1) - 1) /
/// strH + 1 (likewise wo); a pad of two values pads bottom and right like top
/// and left. Reasons, after "<kernel> config error: ": "fin and weight must
/// be si8", "rank of conv input must be 4: [n, h, w, c]", "rank of conv
/// weight must be 4: [k, r, s, c]", "wrong size of pad", "wrong size of
/// stride, dilation", "stride and dilation must be positive", "conv window
/// parameters must lie within [-2^30, 2^30]", "kernel window larger than
/// padded input".
Status convOutputShape(const char* kernel, const Tensor& fin, const Tensor& weight, std::vector<int64_t> const& pad,
                       std::vector<int64_t> const& stride, std::vector<int64_t> const& dilation, long (&shape)[4]);

/// Sets fout's shape as convOutputShape derives it and its element type: the
/// caller's when set and among `Allowed` (else `typeReason`), `fallback`
/// when unset.
template <class Allowed>
Status configureConvOutput(const char* kernel, Tensor& fout, const Tensor& fin, const Tensor& weight,
                           std::vector<int64_t> const& pad, std::vector<int64_t> const& stride,
                           std::vector<int64_t> const& dilation, ElementType fallback, const char* typeReason) {
  long shape[4];
  KORA_RETURN_IF_ERROR(convOutputShape(kernel, fin, weight, pad, stride, dilation, shape));
  if (fout.elementType() == ElementType::invalid) fout.setElementType(fallback);
  if (!typeIn<Allowed>(fout.elementType())) return configError(kernel, typeReason);
  fout.setShape(shape);
  return Status::success();
}

}  // namespace kora::vela::detail
