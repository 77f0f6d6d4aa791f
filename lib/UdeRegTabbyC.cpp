// The kernel table: every registration, in the published order, and nothing
// else. Kernels of a family keep their place in the published list; a kernel
// appears here only once it is implemented.
#include "Kernel/TableBuilder.h"
#include "kora/Kernel/Registration.h"
#include "kora/Native/Unary.h"
#include "kora/Quant/Quant.h"

namespace kora {

void buildKernelTable(KernelRegistry& t) {
  using namespace native;
  // native
  registerKernel(t, "native::ReLU", &ReLUConfig, &ReLU);

  // quant: the kernels without a Config validate themselves and write into
  // outputs the caller passes with their element type and shape.
  registerKernel(t, "quant::quantize", nullptr, &quant::Quantize);
  registerKernel(t, "quant::dequantize", &quant::DequantizeConfig, &quant::Dequantize);
  registerKernel(t, "quant::qcast", nullptr, &quant::Qcast);
  registerKernel(t, "quant::dcast", &quant::DcastConfig, &quant::Dcast);
  // Callers may stop after the zero points: per tensor, axis -1, full range,
  // 8 bits, signed, half to even (FakeQuant's declared defaults).
  registerKernel(t, "quant::fakequant", nullptr, &quant::FakeQuant,
                 {Argument(false), Argument(-1), Argument(false), Argument(8), Argument(true), Argument(true)});
  registerKernel(t, "quant::dynamic_quantize", &quant::DynamicQuantizeConfig, &quant::DynamicQuantize);
  registerKernel(t, "quant::dynamic_dequantize", &quant::DynamicDequantizeConfig, &quant::DynamicDequantize);
  registerKernel(t, "quant::FuseDynamicDequantize", &quant::FuseDynamicDequantizeConfig, &quant::FuseDynamicDequantize);
}

}  // namespace kora
