// The kernel table: every registration, in the published order, and nothing
// else. Kernels of a family keep their place in the published list; a kernel
// appears here only once it is implemented.
#include "Kernel/TableBuilder.h"
#include "kora/Kernel/Registration.h"
#include "kora/Native/Unary.h"
#include "kora/Vela/Conv2d.h"

namespace kora {

void buildKernelTable(KernelRegistry& t) {
  using namespace native;
  // native
  registerKernel(t, "native::ReLU", &ReLUConfig, &ReLU);
  // vela
  registerKernel(t, "vela::Conv2d", &vela::Conv2dConfig, &vela::Conv2d,
                 {std::vector<int64_t>{1, 1}, 1, 0, false, false, false});
}

}  // namespace kora
