#pragma once
// Shape rules shared by every elementwise operator: the inferred output
// shape of a Config, and the broadcast views its compute reads through.
#include <initializer_list>
#include <vector>

#include "kora/Core/Export.h"
#include "kora/Core/Tensor.h"
#include "kora/Core/Trace.h"
#include "kora/Kernel/Status.h"

namespace kora::native {

/// The output shape shared by every elementwise operator. Inputs are
/// right-aligned; on each output axis the sizes of the inputs that have it
/// must agree, a size of 1 agreeing with anything, and the axis takes the
/// size that is not 1. Failures carry the bare reason ("lhs and rhs must
/// both valid", "axis {} size not match for all fins"); each Config wraps it
/// in its own "<Op> config error: " text.
KORA_API Status inferElementwiseShape(std::initializer_list<const Tensor*> inputs, std::vector<long>& shape);

/// Replaces `operand` by a view of the same storage (shared, never copied)
/// with exactly `shape`: its axes are right-aligned against `shape`, missing
/// leading axes are added with stride 0, and every axis of size 1 where
/// `shape` is larger gets stride 0. So element c of the view is element c of
/// `shape`'s coordinates read at the operand's own coordinate (broadcast axes
/// at 0). Fails, leaving `operand` unchanged, with "rank of fout is less than
/// lhs and rhs" when the operand has more axes than `shape`, and with
/// "axis {} size not match for all fins" (an axis of `shape`) when a size is
/// neither `shape`'s nor 1.
KORA_API Status broadcastTo(ArrayRef<long> shape, Tensor& operand);

/// Rewrites `lhs` and `rhs` in place as broadcast views of `fout`'s shape
/// (see broadcastTo); on failure neither is changed. The binary kernels call
/// it on copies of their inputs before their loops; reductions and products
/// that combine two operands can do the same with any target shape through
/// broadcastTo.
KORA_API Status broadcastBinary(Tensor const& fout, Tensor& lhs, Tensor& rhs);

/// The coordinate at which a broadcast view reads its original operand of
/// shape `operandShape`: the last operandShape.size() entries of `coord`,
/// with 0 on the operand's axes of size 1 (`coord` has at least as many
/// entries as the operand has axes). Trace lines print it as the operand's
/// own coordinate.
KORA_API Coord broadcastSourceCoord(ArrayRef<long> coord, ArrayRef<long> operandShape);

}  // namespace kora::native
