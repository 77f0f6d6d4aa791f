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
// An operator whose constants depend on the element type (bounds converted
// to it) instead provides `template <class T> auto forElement() const`,
// returning the formula on the compute type with those constants bound; it
// is called once per kernel call, outside the loop.
#include "kora/Core/Trace.h"
#include "kora/Kernel/Status.h"
#include "kora/Native/Elementwise.h"
#include "kora/Support/Convert.h"
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

/// A constant given as double, in element type T (by the conversion rule of
/// Tensor::cast: round to nearest even), then widened to T's compute type.
template <class T>
ComputeType<T> constantAs(double value) {
  return widen(convertElement<T, double>(value, false));
}

/// The formula of `op` for one element of type T, on the compute type.
template <class T, class Op>
auto formulaFor(const Op& op) {
  if constexpr (requires { op.template forElement<T>(); })
    return op.template forElement<T>();
  else
    return [&op](ComputeType<T> x) { return op(x); };
}

template <class Types, class Op>
Status unaryCompute(Tensor& fout, const Tensor& fin, const Op& op) {
  KORA_RETURN_IF_ERROR(unaryChecks(fout, fin));
  const TracePoint trace = TracePoint::forOutput(fout);
  dispatch<Types>(fout.elementType(), [&]<class T>() {
    auto formula = formulaFor<T>(op);
    auto element = [&formula](T x) -> T { return narrow<T>(formula(widen(x))); };
    // The traced element is computed (not stored) before the loop, so an
    // in-place call still sees its original input.
    if (trace) {
      const T x = fin.at<T>(trace.coord());
      Tracer{}("fout{} = {}(fin{}) // {}({}) -> {} ", trace.coord(), op.name, trace.coord(), op.name, x, element(x));
    }
    mapComputed<T>(fout, fin, formula);
  });
  return Status::success();
}

}  // namespace kora::native::detail
