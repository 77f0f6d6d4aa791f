#pragma once
// The kernel table: one entry per registered kernel, built once when the
// library loads, in the published order, and read-only afterwards.
//
// An extension host that knows only the entry layout reads the table through
// the C entry points: UDE_ABI_CHECK() identifies the layout, and
// UDE_LIBRARY_MAIN() returns the registry object, which begins with the
// entries' vector (begin, end, capacity pointers) followed by three
// libraryInfo words. Each entry is an object with a vtable pointer followed by
// the fields of KernelEntry in declaration order.
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "kora/Core/Export.h"
#include "kora/Kernel/Argument.h"
#include "kora/Kernel/Status.h"

namespace kora {

/// Arguments converted to one kernel's parameter types, ready to call.
class KORA_API BoundCall {
 public:
  virtual ~BoundCall();
  virtual Status config() = 0;
  virtual Status impl() = 0;
  virtual Tensor& output(unsigned index) = 0;
};

/// One registered kernel. The data members, after the vtable pointer, are
/// the published layout and must not be reordered.
class KORA_API KernelEntry {
 public:
  using AnyFunction = void (*)();

  KernelEntry() = default;
  KernelEntry(const KernelEntry&) = delete;
  KernelEntry& operator=(const KernelEntry&) = delete;
  virtual ~KernelEntry();

  /// Converts `args` (outputs first, then inputs) to the parameter types.
  /// On failure returns null and sets `failedIndex` to the parameter that
  /// did not convert.
  virtual std::unique_ptr<BoundCall> bind(const std::vector<Argument>& args, long& failedIndex) const = 0;

  std::string_view kernelName() const { return name; }
  bool hasConfig() const { return config != nullptr; }

  const char* name = nullptr;
  uint64_t reserved = 0;
  uint64_t outputKinds[5] = {};
  uint64_t inputKinds[40] = {};
  uint64_t libraryInfo[3] = {};
  AnyFunction impl = nullptr;
  AnyFunction config = nullptr;
  uint64_t numOutputs = 0;
  uint64_t numInputs = 0;
  // Beyond the published layout: values for trailing inputs a caller may omit.
  std::vector<Argument> defaults;
};

/// The registry object: the owned entries in registration order, then the
/// three words every entry copies as its libraryInfo (pointers to the texts
/// "libkora", the version, and the registering unit's name).
struct KORA_API KernelRegistry {
  std::vector<std::unique_ptr<KernelEntry>> entries;
  uint64_t libraryInfo[3] = {};
};

/// The library's kernel table (the object UDE_LIBRARY_MAIN returns).
KORA_API const KernelRegistry& kernelTable();
/// The entry registered as `name`, or null.
KORA_API const KernelEntry* findKernel(std::string_view name);

/// The layout identifier UDE_ABI_CHECK returns.
inline constexpr uint64_t kEntryLayoutVersion = 0x2982CC4E8DA73;

}  // namespace kora

extern "C" {
/// Writes 1 to *p0 and 0 to *p1 and returns the registry object.
KORA_API kora::KernelRegistry* UDE_LIBRARY_MAIN(uint64_t* p0, uint64_t* p1);
/// 0x2982CC4E8DA73: the version of the entry layout.
KORA_API uint64_t UDE_ABI_CHECK();
/// The registry object under the registering unit's own handle.
KORA_API kora::KernelRegistry* getTabbyCHandle();
}
