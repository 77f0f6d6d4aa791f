#include "kora/Lyra/Conv2d.h"

#include "Vela/ConvWindow.h"
#include "kora/Lyra/Intrinsic.h"

namespace kora::lyra {

using vela::detail::configureConvOutput;

Status Conv2dConfig(Tensor& fout, Tensor const& fin, Tensor const& weight, Tensor const&, Tensor const&, Tensor const&,
                    int64_t, std::vector<int64_t> const& pad, std::vector<int64_t> const& stride,
                    std::vector<int64_t> const& dilation, int64_t, int64_t, bool, bool, bool) {
  return configureConvOutput<TypeList<int8_t, int16_t, int32_t>>("Conv2d", fout, fin, weight, pad, stride, dilation,
                                                                 ElementType::si8, "fout must be si8, si16 or si32");
}

Status Conv2d(Tensor& fout, Tensor const& fin, Tensor const& weight, Tensor const& quantInfo, Tensor const& sumin,
              Tensor const& psum, int64_t padValue, std::vector<int64_t> const& pad, std::vector<int64_t> const& stride,
              std::vector<int64_t> const& dilation, int64_t group, int64_t quantForm, bool relu, bool round,
              bool perTensor) {
  return intrinsic::TaeConvMacPP(fout, fin, weight, quantInfo, sumin, psum, padValue, pad, stride, dilation, group,
                                 quantForm, relu, round, perTensor);
}

Status Conv2dFppConfig(Tensor& fout, Tensor const& fin, Tensor const& weight, Tensor const&, Tensor const&,
                       Tensor const&, int64_t, std::vector<int64_t> const& pad, std::vector<int64_t> const& stride,
                       std::vector<int64_t> const& dilation, int64_t, bool, bool, bool) {
  return configureConvOutput<TypeList<float, half, bfloat16, int8_t, int16_t, int32_t>>(
      "Conv2dFpp", fout, fin, weight, pad, stride, dilation, ElementType::f32,
      "fout must be f32, f16, bf16, si8, si16 or si32");
}

Status Conv2dFpp(Tensor& fout, Tensor const& fin, Tensor const& weight, Tensor const& quantInfo, Tensor const& sumin,
                 Tensor const& psum, int64_t padValue, std::vector<int64_t> const& pad,
                 std::vector<int64_t> const& stride, std::vector<int64_t> const& dilation, int64_t group, bool relu,
                 bool round, bool perTensor) {
  return intrinsic::TaeConvMacFPP(fout, fin, weight, quantInfo, sumin, psum, padValue, pad, stride, dilation, group,
                                  relu, round, perTensor);
}

}  // namespace kora::lyra
