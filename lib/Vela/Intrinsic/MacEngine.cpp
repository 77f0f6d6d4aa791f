#include "Vela/Intrinsic/MacEngine.h"

#include <algorithm>
#include <cstring>

#include "kora/Core/Context.h"
#include "kora/Core/Trace.h"
#include "kora/Support/FixedPoint.h"

namespace kora::vela::intrinsic::detail {

namespace {

using fixed::wrapAdd;
using fixed::wrapMul;

/// The input element a tap reads, or the pad value outside fin.
struct TapInput {
  bool inside;
  long hi, wi;
};

inline TapInput tapInput(const MacProblem& p, const Tap& tap, long y, long x) {
  const long hi = y * p.strH - p.padTop + tap.dy, wi = x * p.strW - p.padLeft + tap.dx;
  return {hi >= 0 && hi < p.inH && wi >= 0 && wi < p.inW, hi, wi};
}

/// Walks output pixels (b, y, x) from a linear start without dividing per pixel.
struct PixelCursor {
  long b, y, x;
  PixelCursor(const MacProblem& p, long pixel)
      : b(pixel / (p.outW * p.outH)), y((pixel / p.outW) % p.outH), x(pixel % p.outW) {}
  void next(const MacProblem& p) {
    if (++x < p.outW) return;
    x = 0;
    if (++y < p.outH) return;
    y = 0;
    ++b;
  }
};

/// The weight coordinate of product (k, tap, c) as trace lines print it.
Coord weightCoordOf(long k, const Tap& tap, long c) {
  Coord wc;
  wc.push(k);
  for (unsigned i = 0; i < tap.weightCoordRank; ++i) wc.push(tap.weightCoord[i]);
  wc.push(c);
  return wc;
}

/// One psum element, product by product in the hardware's order, from the
/// original operands. Used for the traced element.
template <class Trace>
int32_t macElement(const MacProblem& p, const Tensor& fin, const Coord& at, int32_t acc, Trace& trace) {
  const long b = at[0], y = at[1], x = at[2], k = at[3];
  const long channel0 = (k / p.kPerGroup) * p.cPerGroup;
  const int8_t* weight = p.weight.data<int8_t>().data();
  for (long t = 0; t < p.tapsPerChannel; ++t) {
    const Tap& tap = p.tap(k, t);
    if (tap.row < 0) continue;
    const TapInput in = tapInput(p, tap, y, x);
    const int8_t* wrow = weight + (k * p.weightRows + tap.row) * p.cPerGroup;
    for (long c = 0; c < p.cPerGroup; ++c) {
      const long coord[] = {b, in.hi, in.wi, channel0 + c};
      const int32_t a = in.inside ? fin.at<int8_t>(coord) : p.padValue;
      const int32_t w = wrow[c];
      const int32_t next = wrapAdd(acc, a * w);  // |a * w| <= 2^14: the product cannot overflow
      KORA_TRACE(trace, "psum{} += fin{} * weight{} // {} += {} * {} -> {}", at, Coord(coord),
                 weightCoordOf(k, tap, c), acc, a, w, next);
      acc = next;
    }
  }
  return acc;
}

/// Dot product of n widened int8 pairs modulo 2^32. Blocks of 16 have a
/// trip count the compiler vectorises at any optimisation level; within a
/// block each product lies in [-16256, 16384], so the block sum stays below
/// 2^18 in magnitude, and blocks are added modulo 2^32.
inline uint32_t dot(const int16_t* a, const int16_t* w, long n) {
  uint32_t sum = 0;
  long i = 0;
  for (; i + 16 <= n; i += 16) {
    int32_t block = 0;
    for (int j = 0; j < 16; ++j) block += int32_t(a[i + j]) * int32_t(w[i + j]);
    sum += uint32_t(block);
  }
  for (; i < n; ++i) sum += uint32_t(int32_t(a[i]) * int32_t(w[i]));
  return sum;
}

/// acc[i] += a[i] * w[i] modulo 2^32 over n channels (depthwise taps).
inline void multiplyAccumulate(uint32_t* acc, const int16_t* a, const int16_t* w, long n) {
  long i = 0;
  for (; i + 16 <= n; i += 16)
    for (int j = 0; j < 16; ++j) acc[i + j] += uint32_t(int32_t(a[i + j]) * int32_t(w[i + j]));
  for (; i < n; ++i) acc[i] += uint32_t(int32_t(a[i]) * int32_t(w[i]));
}

/// The operands widened to 16 bits (products of 16-bit lanes vectorise well
/// on the baseline instruction set), compact.
struct WideOperands {
  std::vector<int16_t> fin;     // [batch, inH, inW, inC]
  std::vector<int16_t> weight;  // [K, rows, Cg]
  std::vector<uint32_t> padTerm;  // [K, rows]: padValue * sum of the row, modulo 2^32
};

WideOperands widen(const Tensor& fin, const MacProblem& p) {
  WideOperands w;
  const Tensor compactFin = fin.contiguous();
  const auto finData = compactFin.data<int8_t>();
  w.fin.assign(finData.begin(), finData.end());
  const auto weightData = p.weight.data<int8_t>();
  w.weight.assign(weightData.begin(), weightData.end());
  w.padTerm.resize(size_t(p.outK * p.weightRows));
  for (long r = 0; r < p.outK * p.weightRows; ++r) {
    uint32_t sum = 0;
    for (long c = 0; c < p.cPerGroup; ++c) sum += uint32_t(int32_t(w.weight[r * p.cPerGroup + c]));
    w.padTerm[r] = uint32_t(wrapMul(int32_t(p.padValue), int32_t(sum)));
  }
  return w;
}

/// Output pixels [begin, end) (pixel = (b * outH + y) * outW + x), any
/// grouping: per channel, per tap, one dot product over the group's channels.
void macPixels(const MacProblem& p, const WideOperands& w, int32_t* psum, long begin, long end) {
  std::vector<const int16_t*> tapRows(size_t(p.sharedTaps ? p.tapsPerChannel : 0));
  std::vector<long> channel0(size_t(p.outK));  // first input channel of k's group
  for (long k = 0; k < p.outK; ++k) channel0[k] = (k / p.kPerGroup) * p.cPerGroup;
  PixelCursor at(p, begin);
  for (long pixel = begin; pixel < end; ++pixel, at.next(p)) {
    const long b = at.b, y = at.y, x = at.x;
    const int16_t* image = w.fin.data() + b * p.inH * p.inW * p.inC;
    auto rowOf = [&](const Tap& tap) -> const int16_t* {
      const TapInput in = tapInput(p, tap, y, x);
      return in.inside ? image + (in.hi * p.inW + in.wi) * p.inC : nullptr;
    };
    if (p.sharedTaps)
      for (long t = 0; t < p.tapsPerChannel; ++t) tapRows[t] = rowOf(p.taps[t]);
    int32_t* out = psum + pixel * p.outK;
    for (long k = 0; k < p.outK; ++k) {
      const int16_t* weightK = w.weight.data() + k * p.weightRows * p.cPerGroup;
      uint32_t acc = uint32_t(out[k]);
      for (long t = 0; t < p.tapsPerChannel; ++t) {
        const Tap& tap = p.tap(k, t);
        if (tap.row < 0) continue;
        const int16_t* input = p.sharedTaps ? tapRows[t] : rowOf(tap);
        acc += input ? dot(input + channel0[k], weightK + tap.row * p.cPerGroup, p.cPerGroup)
                     : w.padTerm[k * p.weightRows + tap.row];
      }
      out[k] = int32_t(acc);
    }
  }
}

/// Depthwise (one input and one output channel per group): per tap, all
/// channels at once, with the weight viewed without its last axis and
/// transposed to [tap, K] so the channel loop is contiguous.
void macPixelsDepthwise(const MacProblem& p, const WideOperands& w, int32_t* psum, long begin, long end) {
  const long K = p.outK;
  std::vector<int16_t> byTap(size_t(p.tapsPerChannel * K));
  for (long t = 0; t < p.tapsPerChannel; ++t)
    for (long k = 0; k < K; ++k) byTap[t * K + k] = w.weight[k * p.weightRows + p.taps[t].row];
  std::vector<uint32_t> acc(static_cast<size_t>(K));
  PixelCursor at(p, begin);
  for (long pixel = begin; pixel < end; ++pixel, at.next(p)) {
    const long b = at.b, y = at.y, x = at.x;
    int32_t* out = psum + pixel * K;
    for (long k = 0; k < K; ++k) acc[k] = uint32_t(out[k]);
    for (long t = 0; t < p.tapsPerChannel; ++t) {
      const TapInput in = tapInput(p, p.taps[t], y, x);
      const int16_t* weightT = byTap.data() + t * K;
      if (in.inside) {
        multiplyAccumulate(acc.data(), w.fin.data() + ((b * p.inH + in.hi) * p.inW + in.wi) * p.inC, weightT, K);
      } else {
        for (long k = 0; k < K; ++k) acc[k] += w.padTerm[k * p.weightRows + p.taps[t].row];
      }
    }
    for (long k = 0; k < K; ++k) out[k] = int32_t(acc[k]);
  }
}

}  // namespace

void runMac(Tensor& psum, const Tensor& fin, const MacProblem& p) {
  if (psum.isEmpty()) return;
  if (const TracePoint trace = TracePoint::forOutput(psum)) {
    // Computed (not stored) before the loop, from the untouched psum.
    Tracer tracer;
    (void)macElement(p, fin, trace.coord(), psum.at<int32_t>(trace.coord()), tracer);
  }
  // A strided psum is accumulated in a compact copy and written back.
  Tensor work = psum.contiguous();
  int32_t* data = work.data<int32_t>().data();
  const WideOperands wide = widen(fin, p);
  const bool depthwise = p.kPerGroup == 1 && p.cPerGroup == 1 && p.sharedTaps;
  const long pixels = p.batch * p.outH * p.outW;
  // Output pixels are split among the Context's workers; that count is 1, so
  // the parts run one after the other on the calling thread.
  const long workers = std::max(1L, Context::get().getNumThreads());
  for (long part = 0; part < workers; ++part) {
    const long begin = pixels * part / workers, end = pixels * (part + 1) / workers;
    if (depthwise)
      macPixelsDepthwise(p, wide, data, begin, end);
    else
      macPixels(p, wide, data, begin, end);
  }
  if (work.storage() != psum.storage()) copyElements(psum, work);
}

Status checkInitialPsum(const Tensor& psum, const Tensor& fout) {
  if (!psum.isValid()) return Status::success();
  if (psum.elementType() != ElementType::si32) return Status::failure("psum must be si32");
  if (!psum.sameShape(fout)) return Status::failure("shape of psum and fout must be identical");
  return Status::success();
}

Tensor accumulate(ArrayRef<long> shape, const Tensor& initial, const Tensor& fin, const MacProblem& problem) {
  Tensor acc = Tensor::create(ElementType::si32, shape);
  if (initial.isValid())
    copyElements(acc, initial);
  else if (!acc.isEmpty())
    std::memset(acc.data<int32_t>().data(), 0, acc.byteSpan());
  runMac(acc, fin, problem);
  return acc;
}

}  // namespace kora::vela::intrinsic::detail
