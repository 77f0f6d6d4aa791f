#include "kora/Kernel/Dispatcher.h"

namespace kora {

Dispatcher& Dispatcher::singleton() {
  static Dispatcher instance;
  return instance;
}

void Dispatcher::indexTable(const KernelRegistry& table) {
  for (const auto& entry : table.entries) emplace(entry->name, entry.get());
}

}  // namespace kora
