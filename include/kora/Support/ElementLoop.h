#pragma once
// Element loops built on the strided walk: out[c] = f(in0[c], in1[c], ...)
// for every coordinate c of out's shape, with one input (mapElements), two
// (zipElements) or three (zip3Elements). Every input has out's shape; a
// broadcast input is a stride-0 view of it (see native::broadcastBinary), so
// one loop serves equal shapes and broadcasts alike.
//
// Each innermost run of the walk is handed to one of three loops:
//  - every stride equals its element's size: plain pointer loops the compiler
//    can vectorise;
//  - (two inputs) the output and one input are compact and the other input
//    has stride 0 along the run (a [n, m] + [n, 1] broadcast): that input is
//    read once per run, then a plain pointer loop;
//  - anything else (transposed, sliced): byte strides.
// The maps visit elements in any order (transposed operands are tiled), so
// `f` must not depend on the order of the calls. The output may be one of the
// inputs (in place) when both view the same elements the same way.
//
// mapComputed and zipComputed are the loops of operators written on the
// compute type (float for f16, see Dispatch.h): out = narrow(f(widen(in))).
// For f16 they convert runs of up to kComputeBlock elements at a time with
// the block conversions of Half.h (bit-identical to the scalar ones, and much
// faster where the processor converts 8 at a time), so f(widen(x)) is the
// same value whichever loop computes it.
#include <algorithm>
#include <type_traits>

#include "kora/Core/Tensor.h"
#include "kora/Support/Dispatch.h"
#include "kora/Support/StridedWalk.h"

namespace kora {

namespace detail {

template <class T>
inline T& elementAt(char* p, long stride, long j) {
  return *reinterpret_cast<T*>(p + j * stride);
}

inline constexpr long kComputeBlock = 256;

// The compact loop of a map, kept out of line so that its registers are
// allocated for it alone (constants stay memory operands across libm calls).
template <class TOut, class TIn, class F>
__attribute__((noinline)) void mapRun(TOut* o, const TIn* i, long n, F& f) {
  for (long j = 0; j < n; ++j) o[j] = f(i[j]);
}

template <class TOut, class TA, class TB, class F>
__attribute__((noinline)) void zipRun(TOut* o, const TA* a, const TB* b, long n, F& f) {
  for (long j = 0; j < n; ++j) o[j] = f(a[j], b[j]);
}

// Elements j0 .. j0+m-1 of a run of halves, widened into `block`.
inline void widenRun(char* p, long stride, long j0, long m, float* block) {
  if (stride == long(sizeof(half)))
    return widenHalves(reinterpret_cast<const half*>(p) + j0, block, m);
  for (long j = 0; j < m; ++j) block[j] = elementAt<const half>(p, stride, j0 + j).toFloat();
}

inline void narrowRun(const float* block, char* p, long stride, long j0, long m) {
  if (stride == long(sizeof(half)))
    return narrowToHalves(block, reinterpret_cast<half*>(p) + j0, m);
  for (long j = 0; j < m; ++j) elementAt<half>(p, stride, j0 + j) = half(block[j]);
}

}  // namespace detail

/// out[c] = f(in[c]) for every coordinate c of out's shape (in has it too).
template <class TOut, class TIn, class F>
void mapElements(const Tensor& out, const Tensor& in, F&& f) {
  StridedWalk<2>::over(out, in).forEachChunkAnyOrder([&f](char* const* p, const long* s, long n) {
    if (s[0] == long(sizeof(TOut)) && s[1] == long(sizeof(TIn))) {
      detail::mapRun(reinterpret_cast<TOut*>(p[0]), reinterpret_cast<const TIn*>(p[1]), n, f);
    } else {
      for (long j = 0; j < n; ++j)
        detail::elementAt<TOut>(p[0], s[0], j) = f(detail::elementAt<const TIn>(p[1], s[1], j));
    }
  });
}

/// out[c] = f(a[c], b[c]) for every coordinate c of out's shape.
template <class TOut, class TA, class TB, class F>
void zipElements(const Tensor& out, const Tensor& a, const Tensor& b, F&& f) {
  StridedWalk<3>::over(out, a, b).forEachChunkAnyOrder([&f](char* const* p, const long* s, long n) {
    const bool outCompact = s[0] == long(sizeof(TOut));
    const bool aCompact = s[1] == long(sizeof(TA)), bCompact = s[2] == long(sizeof(TB));
    TOut* o = reinterpret_cast<TOut*>(p[0]);
    const TA* x = reinterpret_cast<const TA*>(p[1]);
    const TB* y = reinterpret_cast<const TB*>(p[2]);
    if (outCompact && aCompact && bCompact) {
      detail::zipRun(o, x, y, n, f);
    } else if (outCompact && aCompact && s[2] == 0) {
      const TB v = *y;
      for (long j = 0; j < n; ++j) o[j] = f(x[j], v);
    } else if (outCompact && s[1] == 0 && bCompact) {
      const TA v = *x;
      for (long j = 0; j < n; ++j) o[j] = f(v, y[j]);
    } else {
      for (long j = 0; j < n; ++j)
        detail::elementAt<TOut>(p[0], s[0], j) =
            f(detail::elementAt<const TA>(p[1], s[1], j), detail::elementAt<const TB>(p[2], s[2], j));
    }
  });
}

/// out[c] = f(a[c], b[c], c3[c]) for every coordinate c of out's shape.
template <class TOut, class TA, class TB, class TC, class F>
void zip3Elements(const Tensor& out, const Tensor& a, const Tensor& b, const Tensor& c, F&& f) {
  StridedWalk<4>::over(out, a, b, c).forEachChunkAnyOrder([&f](char* const* p, const long* s, long n) {
    if (s[0] == long(sizeof(TOut)) && s[1] == long(sizeof(TA)) && s[2] == long(sizeof(TB)) &&
        s[3] == long(sizeof(TC))) {
      TOut* o = reinterpret_cast<TOut*>(p[0]);
      const TA* x = reinterpret_cast<const TA*>(p[1]);
      const TB* y = reinterpret_cast<const TB*>(p[2]);
      const TC* z = reinterpret_cast<const TC*>(p[3]);
      for (long j = 0; j < n; ++j) o[j] = f(x[j], y[j], z[j]);
    } else {
      for (long j = 0; j < n; ++j)
        detail::elementAt<TOut>(p[0], s[0], j) =
            f(detail::elementAt<const TA>(p[1], s[1], j), detail::elementAt<const TB>(p[2], s[2], j),
              detail::elementAt<const TC>(p[3], s[3], j));
    }
  });
}

/// out[c] = narrow(f(widen(in[c]))), f written on T's compute type.
template <class T, class F>
void mapComputed(const Tensor& out, const Tensor& in, F&& f) {
  if constexpr (std::is_same_v<T, half>) {
    StridedWalk<2>::over(out, in).forEachChunkAnyOrder([&f](char* const* p, const long* s, long n) {
      float x[detail::kComputeBlock];
      for (long j0 = 0; j0 < n; j0 += detail::kComputeBlock) {
        const long m = std::min(detail::kComputeBlock, n - j0);
        detail::widenRun(p[1], s[1], j0, m, x);
        for (long j = 0; j < m; ++j) x[j] = f(x[j]);
        detail::narrowRun(x, p[0], s[0], j0, m);
      }
    });
  } else {
    mapElements<T, T>(out, in, [&f](T x) { return narrow<T>(f(widen(x))); });
  }
}

/// out[c] = narrow(f(widen(a[c]), widen(b[c]))), f written on T's compute type.
template <class T, class F>
void zipComputed(const Tensor& out, const Tensor& a, const Tensor& b, F&& f) {
  if constexpr (std::is_same_v<T, half>) {
    StridedWalk<3>::over(out, a, b).forEachChunkAnyOrder([&f](char* const* p, const long* s, long n) {
      float x[detail::kComputeBlock], y[detail::kComputeBlock];
      for (long j0 = 0; j0 < n; j0 += detail::kComputeBlock) {
        const long m = std::min(detail::kComputeBlock, n - j0);
        detail::widenRun(p[1], s[1], j0, m, x);
        detail::widenRun(p[2], s[2], j0, m, y);
        for (long j = 0; j < m; ++j) x[j] = f(x[j], y[j]);
        detail::narrowRun(x, p[0], s[0], j0, m);
      }
    });
  } else {
    zipElements<T, T, T>(out, a, b, [&f](T x, T y) { return narrow<T>(f(widen(x), widen(y))); });
  }
}

}  // namespace kora
