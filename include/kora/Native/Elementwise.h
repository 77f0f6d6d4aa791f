#pragma once
#include <initializer_list>
#include <vector>

#include "kora/Core/Export.h"
#include "kora/Core/Tensor.h"
#include "kora/Kernel/Status.h"

namespace kora::native {

/// The output shape shared by every elementwise operator. Inputs are
/// right-aligned; on each output axis the sizes of the inputs that have it
/// must agree, a size of 1 agreeing with anything, and the axis takes the
/// size that is not 1. Failures carry the bare reason ("lhs and rhs must
/// both valid", "axis {} size not match for all fins"); each Config wraps it
/// in its own "<Op> config error: " text.
KORA_API Status inferElementwiseShape(std::initializer_list<const Tensor*> inputs, std::vector<long>& shape);

}  // namespace kora::native
