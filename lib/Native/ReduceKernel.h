#pragma once
// The shared body of the reductions: the reduced axes, the output shape and
// its checks, the views that line an output up with its input, and the fold
// that runs every output's own sequence of steps.
//
// An operator supplies its step and its trace lines:
//
//   struct SumOp : FoldOp {
//     template <class A> A start() const { return A(0); }
//     template <class A, class X> A operator()(A acc, X x) const { return acc + x; }
//     template <class A, class X>
//     void traceStep(const Coord& out, const Coord& in, A before, X x, A after) const;
//   };
//   foldReduce<float, float, float>(fout, fin, axes, SumOp{});
//
// The step is called with the accumulator and the widened element (float
// for f16). The same step computes the traced element and every other one.
#include <cstdint>
#include <type_traits>
#include <vector>

#include "kora/Core/Trace.h"
#include "kora/Kernel/Status.h"
#include "kora/Support/Dispatch.h"
#include "kora/Support/ElementLoop.h"
#include "kora/Support/StridedWalk.h"

namespace kora::native::detail {

/// The reduced axes of fin, normalised (a repeated axis counts once).
struct ReducedAxes {
  unsigned long rank = 0;
  bool reduced[kMaxRank] = {};
  unsigned long count = 0;
};

/// Normalises `dims` against `rank`: an empty list reduces every axis.
/// Fails with "invalid reduce axis {}, finRank {}".
Status reduceAxesOf(const std::vector<int64_t>& dims, unsigned long rank, ReducedAxes& axes);

/// fin's shape with each reduced axis kept as 1 or dropped.
std::vector<long> reducedShape(const Tensor& fin, const ReducedAxes& axes, bool keepDims);

/// The compute checks of fout's shape: fout keeps the reduced axes (size 1)
/// or drops them.
Status checkReducedShape(const Tensor& fout, const Tensor& fin, const ReducedAxes& axes);

/// `out` (of fout's shape, kept or dropped, or any one-element shape when
/// every axis is reduced) seen with fin's rank, the reduced axes of size 1.
Tensor keptView(const Tensor& out, const Tensor& fin, const ReducedAxes& axes);

/// A kept view stretched to fin's shape: stride 0 along the reduced axes, so
/// that element c of the result is the output that fin's element c folds into.
Tensor overInput(const Tensor& kept, const Tensor& fin);

/// fin cut to index 0 along every reduced axis: each group's first element.
Tensor firstOfGroups(const Tensor& fin, const ReducedAxes& axes);

/// The fin coordinate of the first element of the group of output `point`
/// (fout's own coordinate, reduced axes kept or dropped).
Coord inputCoordOf(const Coord& point, const Tensor& fin, const ReducedAxes& axes);

/// The number of elements of one group.
long groupSize(const Tensor& fin, const ReducedAxes& axes);

/// Calls visit(c) for every coordinate of the group that starts at `first`,
/// in row-major order of the reduced axes.
template <class F>
void forEachInGroup(const Tensor& fin, const ReducedAxes& axes, Coord c, F&& visit) {
  for (unsigned long a = 0; a < axes.rank; ++a)
    if (axes.reduced[a] && fin.dim(long(a)) == 0) return;
  for (;;) {
    visit(static_cast<const Coord&>(c));
    long a = long(axes.rank) - 1;
    for (; a >= 0; --a) {
      if (!axes.reduced[a]) continue;
      if (++c[a] < fin.dim(a)) break;
      c[a] = 0;
    }
    if (a < 0) return;
  }
}

template <class T>
inline T loadAt(const char* p, long stride, long j) {
  return *reinterpret_cast<const T*>(p + j * stride);
}

/// An accumulator converted to an output element.
template <class Out, class A>
Out toOut(A a) {
  if constexpr (std::is_same_v<Out, Bool8>)
    return Bool8{uint8_t(a != A(0))};
  else if constexpr (std::is_same_v<Out, half>)
    return half(float(a));
  else
    return static_cast<Out>(a);
}

/// Writes `value` into every element of `t`.
template <class T>
void fillElements(const Tensor& t, T value) {
  StridedWalk<1>::over(t).forEachChunk([value](char* const* p, const long* s, long n) {
    for (long j = 0; j < n; ++j) *reinterpret_cast<T*>(p[0] + j * s[0]) = value;
  });
}

/// Defaults of a fold operator: starts at a constant, stores the accumulator
/// as it is, writes no start or finish line.
struct FoldOp {
  static constexpr bool kStartsAtFirst = false;
  static constexpr bool kPlainFinish = true;
  template <class Out, class A>
  Out finish(A acc) const {
    return toOut<Out>(acc);
  }
  template <class A>
  void traceStart(A) const {}
  template <class A, class O>
  void traceFinish(const Coord&, A, O) const {}
};

/// acc[c] = step(acc[c], widen(fin[c])) for every coordinate c of fin's
/// shape, where acc is an output stretched over fin (overInput). Fed the
/// walk's runs in row-major order, it keeps each output's sequence:
///  - a run along which acc has stride 0 folds into one accumulator; such
///    runs are queued and folded kRows at a time, side by side, so that
///    the independent additions overlap instead of each waiting for the
///    previous one (a run whose accumulator is already queued flushes the
///    queue first, so no accumulator ever sees its elements out of order);
///  - a run along which acc advances folds one element into each of its
///    accumulators: a plain loop the compiler vectorises when compact.
template <class Acc, class In, class Step>
class Fold {
 public:
  explicit Fold(const Step& step) : step_(step) {}
  ~Fold() { flush(); }

  void operator()(char* const* p, const long* s, long n) {
    if (s[0] == 0) return queue(p[0], p[1], s[1], n);
    flush();
    if (s[0] == long(sizeof(Acc)) && s[1] == long(sizeof(In)))
      return lanes(reinterpret_cast<Acc*>(p[0]), reinterpret_cast<const In*>(p[1]), n);
    for (long j = 0; j < n; ++j) {
      Acc& a = *reinterpret_cast<Acc*>(p[0] + j * s[0]);
      a = step_(a, widen(loadAt<In>(p[1], s[1], j)));
    }
  }

  void flush() {
    if (pending_ == kRows) {
      rows();
    } else {
      for (int r = 0; r < pending_; ++r) run(acc_[r], in_[r]);
    }
    pending_ = 0;
  }

 private:
  static constexpr int kRows = 8;
  static constexpr long kBlock = 256;

  void queue(char* acc, const char* in, long stride, long n) {
    if (pending_ > 0 && (n != n_ || stride != stride_)) flush();
    for (int r = 0; r < pending_; ++r)
      if (acc_[r] == reinterpret_cast<Acc*>(acc)) {
        flush();
        break;
      }
    acc_[pending_] = reinterpret_cast<Acc*>(acc);
    in_[pending_] = in;
    n_ = n;
    stride_ = stride;
    if (++pending_ == kRows) flush();
  }

  void run(Acc* accp, const char* in) const {
    Acc a = *accp;
    if constexpr (std::is_same_v<In, half>) {
      if (stride_ == long(sizeof(half))) {
        float x[kBlock];
        for (long j0 = 0; j0 < n_; j0 += kBlock) {
          const long m = std::min(kBlock, n_ - j0);
          widenHalves(reinterpret_cast<const half*>(in) + j0, x, m);
          for (long j = 0; j < m; ++j) a = step_(a, x[j]);
        }
        *accp = a;
        return;
      }
    }
    for (long j = 0; j < n_; ++j) a = step_(a, widen(loadAt<In>(in, stride_, j)));
    *accp = a;
  }

  void rows() const {
    Acc a[kRows];
    for (int r = 0; r < kRows; ++r) a[r] = *acc_[r];
    if constexpr (std::is_same_v<In, half>) {
      if (stride_ == long(sizeof(half))) {
        // Widened a block at a time (8 at once where the processor can).
        constexpr long kRowBlock = 64;
        float x[kRows][kRowBlock];
        for (long j0 = 0; j0 < n_; j0 += kRowBlock) {
          const long m = std::min(kRowBlock, n_ - j0);
          for (int r = 0; r < kRows; ++r) widenHalves(reinterpret_cast<const half*>(in_[r]) + j0, x[r], m);
          for (long j = 0; j < m; ++j) {
#pragma GCC unroll 8
            for (int r = 0; r < kRows; ++r) a[r] = step_(a[r], x[r][j]);
          }
        }
        for (int r = 0; r < kRows; ++r) *acc_[r] = a[r];
        return;
      }
    }
    for (long j = 0; j < n_; ++j) {
#pragma GCC unroll 8
      for (int r = 0; r < kRows; ++r) a[r] = step_(a[r], widen(loadAt<In>(in_[r], stride_, j)));
    }
    for (int r = 0; r < kRows; ++r) *acc_[r] = a[r];
  }

  void lanes(Acc* acc, const In* in, long n) const {
    if constexpr (std::is_same_v<In, half>) {
      float x[kBlock];
      for (long j0 = 0; j0 < n; j0 += kBlock) {
        const long m = std::min(kBlock, n - j0);
        widenHalves(in + j0, x, m);
        for (long j = 0; j < m; ++j) acc[j0 + j] = step_(acc[j0 + j], x[j]);
      }
    } else {
      for (long j = 0; j < n; ++j) acc[j] = step_(acc[j], widen(in[j]));
    }
  }

  const Step& step_;
  int pending_ = 0;
  Acc* acc_[kRows] = {};
  const char* in_[kRows] = {};
  long n_ = 0, stride_ = 0;
};

/// Runs `op` over every group of fin in the group's row-major order.
template <class In, class Acc, class Op>
void foldGroups(const Tensor& acc, const Tensor& fin, const Op& op) {
  Fold<Acc, In, Op> fold(op);
  StridedWalk<2>::over(overInput(acc, fin), fin).forEachChunk([&fold](char* const* p, const long* s, long n) {
    fold(p, s, n);
  });
}

/// The traced output: the same steps, one line each, nothing stored.
template <class In, class Out, class Acc, class Op>
void traceGroup(const Tensor& fin, const ReducedAxes& axes, const Coord& point, const Op& op) {
  const Coord first = inputCoordOf(point, fin, axes);
  Acc acc;
  if constexpr (Op::kStartsAtFirst)
    acc = Acc(widen(fin.at<In>(first)));
  else
    acc = op.template start<Acc>();
  op.traceStart(acc);
  forEachInGroup(fin, axes, first, [&](const Coord& c) {
    const auto x = widen(fin.at<In>(c));
    const Acc next = op(acc, x);
    op.traceStep(point, c, acc, x, next);
    acc = next;
  });
  op.traceFinish(point, acc, op.template finish<Out>(acc));
}

/// One fold-shaped reduction of fin (elements In) into fout (elements Out)
/// through accumulators of type Acc: the traced element first (computed,
/// not stored), then every output. The accumulators are fout itself when
/// they have its type and fout does not share fin's storage.
template <class In, class Out, class Acc, class Op>
void foldReduce(const Tensor& fout, const Tensor& fin, const ReducedAxes& axes, const Op& op) {
  if (const TracePoint trace = TracePoint::forOutput(fout)) traceGroup<In, Out, Acc>(fin, axes, trace.coord(), op);
  const Tensor out = keptView(fout, fin, axes);
  const bool direct = std::is_same_v<Acc, Out> && Op::kPlainFinish && fout.storage() != fin.storage();
  const Tensor acc = direct ? out : Tensor::create(elementTypeOf<Acc>, out.shape());
  if constexpr (Op::kStartsAtFirst)
    mapElements<Acc, In>(acc, firstOfGroups(fin, axes), [](In x) { return Acc(widen(x)); });
  else
    fillElements<Acc>(acc, op.template start<Acc>());
  foldGroups<In, Acc>(acc, fin, op);
  if (!direct) mapElements<Out, Acc>(out, acc, [&op](Acc a) { return op.template finish<Out>(a); });
}

}  // namespace kora::native::detail
