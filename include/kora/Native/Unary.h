#pragma once
// One-input elementwise operators of the native reference.
//
// Every operator is a Config / compute pair with one parameter list:
// Config gives fout fin's shape (and fin's element type when fout's is
// unset); compute checks "shape mismatch" and "type mismatch", computes every
// element through both tensors' strides and, for the traced coordinate,
// writes "fout[c] = name(fin[c]) // name(x) -> y ". f16 is computed by
// widening to f32 and narrowing with round-to-nearest-even.
#include "kora/Core/Export.h"
#include "kora/Core/Tensor.h"
#include "kora/Kernel/Status.h"

namespace kora::native {

/// max(x, 0), written x > 0 ? x : 0, so NaN and -0.0 give +0.
/// Element types: f16, f32, si8, si16, si32, si64 (others trap).
KORA_API Status ReLUConfig(Tensor& fout, Tensor const& fin);
KORA_API Status ReLU(Tensor& fout, Tensor const& fin);

}  // namespace kora::native
