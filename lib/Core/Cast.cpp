// Tensor::cast and castElements: the element conversions of
// kora/Support/Convert.h (one rule per pair of element types) applied
// through the tensors' strides.
//
// cf8, vf32, tf32, si4x2 and the opaque types have no numeric reading:
// casting to or from them traps as an unknown element type, except to the
// same type, which returns the tensor itself (castElements copies it).
#include "kora/Core/Tensor.h"
#include "kora/Support/Convert.h"
#include "kora/Support/ElementLoop.h"

namespace kora {

void castElements(const Tensor& dst, const Tensor& src, bool saturate) {
  if (dst.elementType() == src.elementType()) return copyElements(dst, src);
  dispatch<NumericTypes>(dst.elementType(), [&]<class To>() {
    dispatch<NumericTypes>(src.elementType(), [&]<class From>() {
      mapElements<To, From>(dst, src, [saturate](From x) { return convertElement<To, From>(x, saturate); });
    });
  });
}

Tensor Tensor::cast(ElementType type, bool saturate) const {
  if (type == elementType()) return *this;
  if (!isValid()) return Tensor(type, shape());  // nothing to convert
  Tensor out = create(type, shape());
  castElements(out, *this, saturate);
  return out;
}

}  // namespace kora
