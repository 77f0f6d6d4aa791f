#pragma once
// Element loops built on the strided walk. A chunk whose strides equal the
// element sizes runs as a plain pointer loop the compiler can vectorise;
// anything else (transposed, sliced, broadcast) runs through byte strides.
#include "kora/Core/Tensor.h"
#include "kora/Support/StridedWalk.h"

namespace kora {

/// out[c] = f(in[c]) for every coordinate c of out's shape (in has it too).
template <class TOut, class TIn, class F>
void mapElements(const Tensor& out, const Tensor& in, F&& f) {
  StridedWalk<2>::over(out, in).forEachChunkAnyOrder([&f](char* const* p, const long* s, long n) {
    if (s[0] == long(sizeof(TOut)) && s[1] == long(sizeof(TIn))) {
      TOut* o = reinterpret_cast<TOut*>(p[0]);
      const TIn* i = reinterpret_cast<const TIn*>(p[1]);
      for (long j = 0; j < n; ++j) o[j] = f(i[j]);
    } else {
      for (long j = 0; j < n; ++j)
        *reinterpret_cast<TOut*>(p[0] + j * s[0]) = f(*reinterpret_cast<const TIn*>(p[1] + j * s[1]));
    }
  });
}

}  // namespace kora
