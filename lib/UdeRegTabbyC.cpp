// The kernel table: every registration, in the published order, and nothing
// else. Kernels of a family keep their place in the published list; a kernel
// appears here only once it is implemented.
#include "Kernel/TableBuilder.h"
#include "kora/Kernel/Registration.h"
#include "kora/Lyra/Conv2d.h"
#include "kora/Mira/RoiAlign.h"
#include "kora/Native/Unary.h"
#include "kora/Vela/Conv2d.h"

namespace kora {

void buildKernelTable(KernelRegistry& t) {
  using namespace native;
  // native
  registerKernel(t, "native::ReLU", &ReLUConfig, &ReLU);
  // mira
  {
    // samplingRatio, interpolateMode, canonicalBoxSize, canonicalLevel, boxClipRatio
    const std::vector<Argument> roiAlignDefaults = {1, "bilinear", 224, 4, std::vector<double>{}};
    registerKernel(t, "mira::RoiAlign", &mira::RoiAlignConfig, &mira::RoiAlign, roiAlignDefaults);
    registerKernel(t, "mira::RoiAlign1", &mira::RoiAlign1Config, &mira::RoiAlign1, roiAlignDefaults);
    registerKernel(t, "mira::RoiAlign2", &mira::RoiAlign2Config, &mira::RoiAlign2, roiAlignDefaults);
    registerKernel(t, "mira::RoiAlign3", &mira::RoiAlign3Config, &mira::RoiAlign3, roiAlignDefaults);
    registerKernel(t, "mira::RoiAlign4", &mira::RoiAlign4Config, &mira::RoiAlign4, roiAlignDefaults);
    registerKernel(t, "mira::RoiAlign5", &mira::RoiAlign5Config, &mira::RoiAlign5, roiAlignDefaults);
  }
  // vela
  registerKernel(t, "vela::Conv2d", &vela::Conv2dConfig, &vela::Conv2d,
                 {std::vector<int64_t>{1, 1}, 1, 0, false, false, false});
  // lyra
  registerKernel(t, "lyra::Conv2d", &lyra::Conv2dConfig, &lyra::Conv2d,
                 {std::vector<int64_t>{1, 1}, 1, 0, false, false, false});
  registerKernel(t, "lyra::Conv2dFpp", &lyra::Conv2dFppConfig, &lyra::Conv2dFpp,
                 {std::vector<int64_t>{1, 1}, 1, false, false, false});
}

}  // namespace kora
