#pragma once
// Printing a tensor's values the way numpy prints an array:
//
//   [[-1.5   0.    2.25]
//    [ 3.   -0.5  -7.  ]]
//
// Each value is written in the fewest digits that read back to the same value
// in the element's own type (0.1 in f16 prints as "0.1", not as its binary32
// expansion); floating values with no fraction keep a trailing "." ("3."),
// non-finite ones print as "nan", "inf" and "-inf". Integers print in
// decimal and bool8 as True or False. Types with no numeric reading (cf8,
// vf32, tf32, si4x2, opaque) print each element's bytes as one little-endian
// hexadecimal number ("0x3f80"). Every value is right-aligned to the widest
// one shown; rows longer than the line width continue on the next line.
//
// Tensors with more elements than the threshold are elided: along every axis
// longer than twice the edge count only the first and last `edgeItems`
// entries are shown, with "..." between them.
#include <string>

#include "kora/Core/ElementType.h"
#include "kora/Core/Export.h"
#include "kora/Core/Tensor.h"

namespace kora {

struct PrintOptions {
  /// Tensors with more elements than this are elided; negative: never.
  long threshold = 1000;
  /// Entries kept at each end of an elided axis.
  long edgeItems = 3;
  /// Characters per line before a row wraps.
  long lineWidth = 75;
};

/// The values of `tensor` (any strides) in numpy's layout; "[]" for an empty
/// tensor, the bare value for rank 0.
KORA_API std::string formatValues(const Tensor& tensor, const PrintOptions& options = {});

/// One value of element type `type` (given exactly as a double, as every
/// value of f16, f32, vbf16 and the integers up to 2^53 can be), as
/// formatValues writes it.
KORA_API std::string formatValue(double value, ElementType type);

}  // namespace kora
