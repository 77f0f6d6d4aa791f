// The non-template parts of the reductions' shared body: the axes, the
// output shape and its checks, and the views between outputs and inputs.
#include "Native/ReduceKernel.h"

namespace kora::native {

namespace detail {

Status reduceAxesOf(const std::vector<int64_t>& dims, unsigned long rank, ReducedAxes& axes) {
  axes = ReducedAxes{};
  axes.rank = rank;
  if (dims.empty()) {
    for (unsigned long a = 0; a < rank; ++a) axes.reduced[a] = true;
    axes.count = rank;
    return Status::success();
  }
  for (int64_t d : dims) {
    const int64_t axis = d < 0 ? d + int64_t(rank) : d;
    if (axis < 0 || axis >= int64_t(rank)) return failure("invalid reduce axis {}, finRank {}", axis, rank);
    if (!axes.reduced[axis]) {
      axes.reduced[axis] = true;
      ++axes.count;
    }
  }
  return Status::success();
}

std::vector<long> reducedShape(const Tensor& fin, const ReducedAxes& axes, bool keepDims) {
  std::vector<long> shape;
  for (unsigned long a = 0; a < fin.rank(); ++a) {
    if (!axes.reduced[a])
      shape.push_back(fin.dim(long(a)));
    else if (keepDims)
      shape.push_back(1);
  }
  return shape;
}

Status checkReducedShape(const Tensor& fout, const Tensor& fin, const ReducedAxes& axes) {
  const bool kept = fout.rank() == fin.rank();
  if (!kept && fout.rank() + axes.count != fin.rank()) return Status::failure("input and output rank miss");
  unsigned long j = 0;
  for (unsigned long a = 0; a < fin.rank(); ++a) {
    if (axes.reduced[a]) {
      if (kept && fout.dim(long(j++)) != 1) return Status::failure("reduced axis should be 1");
    } else if (fout.dim(long(j++)) != fin.dim(long(a))) {
      return Status::failure("non reduced axis should identical to fin");
    }
  }
  return Status::success();
}

Tensor keptView(const Tensor& out, const Tensor& fin, const ReducedAxes& axes) {
  if (out.rank() == fin.rank()) return out;
  long shape[kMaxRank] = {}, strides[kMaxRank] = {};
  unsigned long j = 0;
  for (unsigned long a = 0; a < fin.rank(); ++a) {
    if (axes.reduced[a]) {
      shape[a] = 1;
    } else {
      shape[a] = out.dim(long(j));
      strides[a] = out.stride(long(j++));
    }
  }
  return Tensor(shape, fin.rank(), strides, out.elementType(), out.offset(), out.storage());
}

Tensor overInput(const Tensor& kept, const Tensor& fin) {
  long strides[kMaxRank] = {};
  for (unsigned long a = 0; a < fin.rank(); ++a)
    strides[a] = kept.dim(long(a)) == fin.dim(long(a)) ? kept.stride(long(a)) : 0;
  return Tensor(fin.shape().data(), fin.rank(), strides, kept.elementType(), kept.offset(), kept.storage());
}

Tensor firstOfGroups(const Tensor& fin, const ReducedAxes& axes) {
  Tensor first = fin;
  for (unsigned long a = 0; a < fin.rank(); ++a)
    if (axes.reduced[a]) first = first.slice(long(a), 0, 1);
  return first;
}

Coord inputCoordOf(const Coord& point, const Tensor& fin, const ReducedAxes& axes) {
  const bool kept = point.rank == fin.rank();
  Coord c;
  unsigned long j = 0;
  for (unsigned long a = 0; a < fin.rank(); ++a) {
    if (axes.reduced[a]) {
      c.push(0);
      if (kept) ++j;
    } else {
      c.push(point[j++]);
    }
  }
  return c;
}

long groupSize(const Tensor& fin, const ReducedAxes& axes) {
  long n = 1;
  for (unsigned long a = 0; a < fin.rank(); ++a)
    if (axes.reduced[a]) n *= fin.dim(long(a));
  return n;
}

}  // namespace detail

}  // namespace kora::native
