#include "Demo.h"

namespace demo {

void showKernelTable() {
  const auto& table = kora::kernelTable();
  heading("kernel table");
  std::printf("%zu kernels (outputs -> inputs, by parameter kind)\n", table.entries.size());
  for (const auto& entry : table.entries) {
    std::string kinds;
    for (uint64_t i = 0; i < entry->numOutputs; ++i) kinds += (i ? ", " : "") + kora::kindName(entry->outputKinds[i]);
    kinds += " -> ";
    for (uint64_t i = 0; i < entry->numInputs; ++i) kinds += (i ? ", " : "") + kora::kindName(entry->inputKinds[i]);
    std::printf("  %-32s %s%s\n", entry->name, kinds.c_str(), entry->config ? "" : "   (no Config)");
  }
}

}  // namespace demo
