#pragma once
// The packed matrix product behind MatMul and Linear for f32 and f16 data:
// sums[i][j] = the sum over q of a[i][q] * b[q][j], starting from +0 and
// adding the products in increasing q, each product rounded before its
// addition (no fused multiply-add), all in f32.
//
// The operands are copied, a block at a time, into panels laid out for the
// innermost loop (f16 widened on the way), and a register tile of outputs is
// then computed by vectors that run across neighbouring outputs: every
// output still sees its own products in increasing q, so the result is the
// plain sequential sum whatever the vector width. The widest instruction set
// the processor offers is chosen at run time; since each lane is one output
// computed with the same single-precision multiply and add, every choice
// gives the same bits (matMulKernels and selectMatMulKernel in MatMul.h let
// a test or a user show it).
#include <cstdint>
#include <memory>

#include "kora/Core/ElementType.h"

namespace kora::native {

/// A matrix in memory: element (i, j) at data + i * row + j * col (bytes).
struct MatrixView {
  const char* data = nullptr;
  long row = 0, col = 0;
};

class PackedProduct {
 public:
  /// Operands of `type`, f32 or f16.
  explicit PackedProduct(ElementType type);
  ~PackedProduct();

  /// sums (row stride ldc floats) = a (m x k) times b (k x n).
  void run(MatrixView a, MatrixView b, long m, long n, long k, float* sums, long ldc);

 private:
  ElementType type_;
  std::unique_ptr<float[]> packedA_, packedB_;
  long capacityA_ = 0, capacityB_ = 0;
};

}  // namespace kora::native
