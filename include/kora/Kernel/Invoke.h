#pragma once
// Calling a kernel by name, the way an extension host does:
//
//   std::vector<Tensor> outputs;                       // empty: made by the call
//   Status s = invoke("native::ReLU", outputs, {input});
//
// The call follows the kernel protocol: convert each argument to its
// parameter's kind, call Config (which sets each output's type and shape),
// allocate every output that has no storage yet with Storage::createUninit,
// call Impl. Outputs passed in may carry an element type the Config is to
// keep (Cast's target type), or storage to be written in place.
//
// Failures are returned with the layer's own words, naming parameters by
// their 0-based position in the entry's list (outputs first):
//   "native::ReLU: 1-th parameter fails to convert. Kernel expect type is
//    Tensor, but got a type double"
//   "native::ReLU config function call failure! <Config's message>"
// With KORA_DISPATCHER_VERBOSE set, the inputs and outputs of each call are
// also logged at info level.
#include <string_view>
#include <vector>

#include "kora/Core/Export.h"
#include "kora/Kernel/Argument.h"
#include "kora/Kernel/Registry.h"
#include "kora/Kernel/Status.h"

namespace kora {

/// `outputs` empty: one fresh tensor per output is made; otherwise it must
/// hold exactly the entry's output count. `inputs` may omit trailing inputs
/// that the entry has defaults for.
KORA_API Status invoke(const KernelEntry& entry, std::vector<Tensor>& outputs, std::vector<Argument> inputs);
/// As above, finding the entry by its registered name.
KORA_API Status invoke(std::string_view name, std::vector<Tensor>& outputs, std::vector<Argument> inputs);

}  // namespace kora
