#include "kora/Vela/Conv2d.h"

#include "Vela/ConvWindow.h"
#include "kora/Vela/Intrinsic.h"

namespace kora::vela {

namespace detail {

namespace {

constexpr int64_t kWindowLimit = int64_t(1) << 30;

/// Output extent of one spatial axis; below 1 when the window does not fit.
long outputExtent(long input, int64_t padBefore, int64_t padAfter, long kernel, int64_t stride, int64_t dilation) {
  const int64_t span = input + padBefore + padAfter - dilation * (kernel - 1) - 1;
  return span < 0 ? 0 : long(span / stride + 1);
}

}  // namespace

Status convOutputShape(const char* kernel, const Tensor& fin, const Tensor& weight, std::vector<int64_t> const& pad,
                       std::vector<int64_t> const& stride, std::vector<int64_t> const& dilation, long (&shape)[4]) {
  if (fin.elementType() != ElementType::si8 || weight.elementType() != ElementType::si8)
    return configError(kernel, "fin and weight must be si8");
  if (fin.rank() != 4) return configError(kernel, "rank of conv input must be 4: [n, h, w, c]");
  if (weight.rank() != 4) return configError(kernel, "rank of conv weight must be 4: [k, r, s, c]");
  if (pad.size() != 4 && pad.size() != 2) return configError(kernel, "wrong size of pad");
  if (stride.size() != 2 || dilation.size() != 2) return configError(kernel, "wrong size of stride, dilation");
  if (stride[0] < 1 || stride[1] < 1 || dilation[0] < 1 || dilation[1] < 1)
    return configError(kernel, "stride and dilation must be positive");
  for (const auto* list : {&pad, &stride, &dilation})
    for (int64_t v : *list)
      if (v < -kWindowLimit || v > kWindowLimit)
        return configError(kernel, "conv window parameters must lie within [-2^30, 2^30]");
  const int64_t padBottom = pad.size() == 4 ? pad[2] : pad[0], padRight = pad.size() == 4 ? pad[3] : pad[1];
  const long ho = outputExtent(fin.dim(1), pad[0], padBottom, weight.dim(1), stride[0], dilation[0]);
  const long wo = outputExtent(fin.dim(2), pad[1], padRight, weight.dim(2), stride[1], dilation[1]);
  if (ho < 1 || wo < 1) return configError(kernel, "kernel window larger than padded input");
  shape[0] = fin.dim(0);
  shape[1] = ho;
  shape[2] = wo;
  shape[3] = weight.dim(0);
  return Status::success();
}

}  // namespace detail

Status Conv2dConfig(Tensor& fout, Tensor const& fin, Tensor const& weight, Tensor const&, Tensor const&, Tensor const&,
                    int64_t, std::vector<int64_t> const& pad, std::vector<int64_t> const& stride,
                    std::vector<int64_t> const& dilation, int64_t, int64_t, bool, bool, bool) {
  return detail::configureConvOutput<TypeList<int8_t, int16_t, int32_t>>(
      "Conv2d", fout, fin, weight, pad, stride, dilation, ElementType::si8, "fout must be si8, si16 or si32");
}

Status Conv2d(Tensor& fout, Tensor const& fin, Tensor const& weight, Tensor const& quantInfo, Tensor const& sumin,
              Tensor const& psum, int64_t padValue, std::vector<int64_t> const& pad, std::vector<int64_t> const& stride,
              std::vector<int64_t> const& dilation, int64_t group, int64_t quantForm, bool relu, bool round,
              bool perTensor) {
  return intrinsic::ConvMacPP(fout, fin, weight, quantInfo, sumin, psum, padValue, pad, stride, dilation, group,
                              quantForm, relu, round, perTensor);
}

}  // namespace kora::vela
