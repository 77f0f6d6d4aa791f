#pragma once
#include "kora/Kernel/Registry.h"

namespace kora {
/// Registers every kernel of the library, in the published order.
void buildKernelTable(KernelRegistry& table);
}  // namespace kora
