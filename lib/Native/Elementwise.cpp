#include "kora/Native/Elementwise.h"

#include <algorithm>

namespace kora::native {

Status inferElementwiseShape(std::initializer_list<const Tensor*> inputs, std::vector<long>& shape) {
  unsigned long rank = 0;
  for (const Tensor* t : inputs) {
    if (!t->isValid()) return Status::failure("lhs and rhs must both valid");
    rank = std::max(rank, t->rank());
  }
  std::vector<long> result(rank, 1);
  for (unsigned long axis = 0; axis < rank; ++axis) {
    for (const Tensor* t : inputs) {
      const long own = long(axis) - long(rank - t->rank());
      if (own < 0) continue;
      const long size = t->shape()[own];
      if (size == 1) continue;
      if (result[axis] != 1 && result[axis] != size) return failure("axis {} size not match for all fins", axis);
      result[axis] = size;
    }
  }
  shape = std::move(result);
  return Status::success();
}

}  // namespace kora::native
