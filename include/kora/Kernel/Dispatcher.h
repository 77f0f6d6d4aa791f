#pragma once
#include <map>
#include <string>

#include "kora/Core/Export.h"
#include "kora/Kernel/Registry.h"

namespace kora {

/// The process-wide name index for hosts: an ordered map from a name of the
/// host's choosing to a kernel entry. It is created empty on first use
/// (thread-safe) and destroyed at exit; nothing in the library fills it, the
/// library's own lookups use findKernel. `indexTable` is a convenience for
/// hosts that want every entry under its registered name.
class KORA_API Dispatcher : public std::map<std::string, const KernelEntry*> {
 public:
  static Dispatcher& singleton();
  /// Adds every entry of `table` under its registered name.
  void indexTable(const KernelRegistry& table);
};

}  // namespace kora
