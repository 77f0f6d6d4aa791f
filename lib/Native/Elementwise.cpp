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

Status broadcastTo(ArrayRef<long> shape, Tensor& operand) {
  const unsigned long rank = shape.size(), own = operand.rank();
  if (own > rank) return Status::failure("rank of fout is less than lhs and rhs");
  long strides[kMaxRank] = {};
  for (unsigned long axis = rank - own; axis < rank; ++axis) {
    const long size = operand.shape()[axis - (rank - own)];
    if (size == shape[axis])
      strides[axis] = operand.strides()[axis - (rank - own)];
    else if (size != 1)
      return failure("axis {} size not match for all fins", axis);
  }
  operand = Tensor(shape.data(), rank, strides, operand.elementType(), operand.offset(), operand.storage());
  return Status::success();
}

Status broadcastBinary(Tensor const& fout, Tensor& lhs, Tensor& rhs) {
  Tensor l = lhs, r = rhs;
  KORA_RETURN_IF_ERROR(broadcastTo(fout.shape(), l));
  KORA_RETURN_IF_ERROR(broadcastTo(fout.shape(), r));
  lhs = std::move(l);
  rhs = std::move(r);
  return Status::success();
}

Coord broadcastSourceCoord(ArrayRef<long> coord, ArrayRef<long> operandShape) {
  const unsigned long own = operandShape.size(), skip = coord.size() - own;
  Coord result;
  for (unsigned long i = 0; i < own; ++i) result.push(operandShape[i] == 1 ? 0 : coord[skip + i]);
  return result;
}

}  // namespace kora::native
