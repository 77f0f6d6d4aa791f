#include "kora/Native/Unary.h"

#include "Native/UnaryKernel.h"

namespace kora::native {

namespace {

struct ReluOp {
  const char* name = "relu";
  template <class T>
  T operator()(T x) const {
    return x > T(0) ? x : T(0);
  }
};

using ReluTypes = TypeList<half, float, int8_t, int16_t, int32_t, int64_t>;

}  // namespace

Status ReLUConfig(Tensor& fout, Tensor const& fin) { return detail::unaryConfig("ReLU", fout, fin); }
Status ReLU(Tensor& fout, Tensor const& fin) { return detail::unaryCompute<ReluTypes>(fout, fin, ReluOp{}); }

}  // namespace kora::native
