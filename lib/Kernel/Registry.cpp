#include "kora/Kernel/Registry.h"

#include <string_view>
#include <unordered_map>

#include "Kernel/TableBuilder.h"
#include "kora/Core/Version.h"

namespace kora {

BoundCall::~BoundCall() = default;
KernelEntry::~KernelEntry() = default;

namespace {

constexpr const char* kLibraryName = "libkora";
constexpr const char* kRegisteringUnit = "lib/UdeRegTabbyC";

KernelRegistry& registryObject() {
  static KernelRegistry registry = [] {
    KernelRegistry r;
    r.libraryInfo[0] = reinterpret_cast<uint64_t>(kLibraryName);
    r.libraryInfo[1] = reinterpret_cast<uint64_t>(KORA_VERSION);
    r.libraryInfo[2] = reinterpret_cast<uint64_t>(kRegisteringUnit);
    buildKernelTable(r);
    return r;
  }();
  return registry;
}

// The table is complete before any host can ask for it.
[[maybe_unused]] const bool tableBuiltAtLoad = (registryObject(), true);

}  // namespace

const KernelRegistry& kernelTable() { return registryObject(); }

const KernelEntry* findKernel(std::string_view name) {
  static const std::unordered_map<std::string_view, const KernelEntry*> index = [] {
    std::unordered_map<std::string_view, const KernelEntry*> map;
    for (const auto& entry : kernelTable().entries) map.emplace(entry->name, entry.get());
    return map;
  }();
  auto it = index.find(name);
  return it == index.end() ? nullptr : it->second;
}

}  // namespace kora

extern "C" {

kora::KernelRegistry* UDE_LIBRARY_MAIN(uint64_t* p0, uint64_t* p1) {
  if (p0) *p0 = 1;
  if (p1) *p1 = 0;
  return &kora::registryObject();
}

uint64_t UDE_ABI_CHECK() { return kora::kEntryLayoutVersion; }

kora::KernelRegistry* getTabbyCHandle() { return &kora::registryObject(); }
}
