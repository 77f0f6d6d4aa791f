#pragma once
// The shared body of every one-input elementwise kernel: the checks, the
// element-type dispatch, f16 widening and narrowing, the trace line and the
// loop. An operator supplies only its formula and its trace name:
//
//   struct ReluOp {
//     const char* name = "relu";
//     template <class T> T operator()(T x) const { return x > T(0) ? x : T(0); }
//   };
//   return unaryCompute<TypeList<half, float>>(fout, fin, ReluOp{});
//
// The operator is called with the compute type (float for f16 elements).
#include "kora/Core/Trace.h"
#include "kora/Kernel/Status.h"
#include "kora/Native/Elementwise.h"
#include "kora/Support/Dispatch.h"
#include "kora/Support/ElementLoop.h"

namespace kora::native::detail {

/// The common Config: fout takes fin's shape and, when unset, its type.
inline Status unaryConfig(const char* kernel, Tensor& fout, const Tensor& fin) {
  std::vector<long> shape;
  Status inferred = inferElementwiseShape({&fin}, shape);
  if (!inferred.ok()) return configError(kernel, inferred.message());
  fout.setShape(shape);
  if (fout.elementType() == ElementType::invalid) fout.setElementType(fin.elementType());
  return Status::success();
}

/// The checks every unary compute makes before touching data.
inline Status unaryChecks(const Tensor& fout, const Tensor& fin) {
  if (!fout.sameShape(fin)) return Status::failure("shape mismatch");
  if (fout.elementType() == ElementType::invalid) trapUnknownElementType(ElementType::invalid);
  if (fin.elementType() != ElementType::invalid && fin.elementType() != fout.elementType())
    return Status::failure("type mismatch");
  if (!fout.isValid() || !fin.isValid()) return Status::failure("fout and fin must hold data");
  return Status::success();
}

template <class Types, class Op>
Status unaryCompute(Tensor& fout, const Tensor& fin, const Op& op) {
  KORA_RETURN_IF_ERROR(unaryChecks(fout, fin));
  const TracePoint trace = TracePoint::forOutput(fout);
  dispatch<Types>(fout.elementType(), [&]<class T>() {
    auto element = [&op](T x) -> T { return narrow<T>(op(widen(x))); };
    // The traced element is computed (not stored) before the loop, so an
    // in-place call still sees its original input.
    if (trace) {
      const T x = fin.at<T>(trace.coord());
      Tracer{}("fout{} = {}(fin{}) // {}({}) -> {} ", trace.coord(), op.name, trace.coord(), op.name, x, element(x));
    }
    mapElements<T, T>(fout, fin, element);
  });
  return Status::success();
}

}  // namespace kora::native::detail
