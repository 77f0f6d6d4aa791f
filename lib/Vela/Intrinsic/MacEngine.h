#pragma once
// The one engine behind every MAC variant (dense, grouped, depthwise, zigzag,
// sparse). A variant only describes its window as a list of taps (where each
// tap sits in the window and which weight row multiplies it) in the order the
// hardware walks them; the engine does the rest.
//
// The traced element is computed tap by tap and channel by channel in that
// order, one trace line per product. The untraced loop may sum in any order:
// sums wrap modulo 2^32, which is associative and commutative, so blocking
// and vectorising it cannot change a bit of the result.
#include <cstdint>
#include <vector>

#include "kora/Core/Tensor.h"
#include "kora/Kernel/Status.h"

namespace kora::vela::intrinsic::detail {

/// One kernel tap.
struct Tap {
  long dy = 0, dx = 0;  // offset from the window's top-left input position
  long row = -1;        // weight row in the compact [K, rows, Cg] weight; < 0: unused slot
  // The weight coordinate between k and c, as trace lines print it
  // ([k, r, s, c] for a dense weight, [k, t, c] for the others).
  long weightCoord[2] = {};
  unsigned weightCoordRank = 0;
};

/// A MAC as the engine runs it. fin is [batch, inH, inW, inC] and psum
/// [batch, outH, outW, K]; output channel k reads input channels
/// (k / kPerGroup) * cPerGroup + [0, cPerGroup).
struct MacProblem {
  long batch = 0, inH = 0, inW = 0, inC = 0;
  long outH = 0, outW = 0, outK = 0;
  long padTop = 0, padLeft = 0, strH = 1, strW = 1;
  long kPerGroup = 1, cPerGroup = 0;
  int8_t padValue = 0;
  /// si8 weight, compact [K, weightRows, cPerGroup].
  Tensor weight;
  long weightRows = 0;
  /// Taps per channel, in walking order: taps[t] for every channel when
  /// sharedTaps, else taps[k * tapsPerChannel + t].
  std::vector<Tap> taps;
  long tapsPerChannel = 0;
  bool sharedTaps = true;

  const Tap& tap(long k, long t) const { return taps[sharedTaps ? t : k * tapsPerChannel + t]; }
};

/// ConvMac's checks, in their order, and its problem; psum need not hold
/// data yet (only its type and shape are read).
Status prepareConvMac(const Tensor& psum, const Tensor& fin, const Tensor& weight, ArrayRef<int64_t> pad,
                      int64_t padValue, ArrayRef<int64_t> stride, ArrayRef<int64_t> dilation, int64_t group,
                      MacProblem& problem);

/// Accumulates the MAC into psum (si32 [batch, outH, outW, K], any strides),
/// tracing the Context's trace point when it names a psum element. The caller
/// has validated everything.
void runMac(Tensor& psum, const Tensor& fin, const MacProblem& problem);

/// The optional partial sums a whole convolution starts from: none (an
/// invalid tensor), or si32 of fout's shape. Checks: "psum must be si32",
/// "shape of psum and fout must be identical".
Status checkInitialPsum(const Tensor& psum, const Tensor& fout);

/// A fresh si32 psum of `shape` holding `initial` (or zeros when it is
/// invalid), with the MAC accumulated into it.
Tensor accumulate(ArrayRef<long> shape, const Tensor& initial, const Tensor& fin, const MacProblem& problem);

}  // namespace kora::vela::intrinsic::detail
