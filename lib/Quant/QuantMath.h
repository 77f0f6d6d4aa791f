#pragma once
// The arithmetic shared by the quantization kernels: one element's
// quantization and dequantization, the integer ranges, the element types
// served, the rank-0 trace rule and the loop over (fout, fin, scale, zero).
#include <bit>
#include <cfenv>
#include <cstdint>
#include <type_traits>
#include <vector>

#include "kora/Core/Context.h"
#include "kora/Core/Tensor.h"
#include "kora/Support/Dispatch.h"
#include "kora/Support/FixedPoint.h"
#include "kora/Support/FloatFormat.h"
#include "kora/Support/StridedWalk.h"

namespace kora::quant::detail {

/// The float and integer sides every kernel of the family serves.
using QuantFloatTypes = TypeList<half, bfloat16, float, double>;
using QuantIntTypes = TypeList<int8_t, int16_t, int32_t, int64_t, uint8_t, uint16_t, uint32_t>;

/// The division, addition and rounding are exact only in round-to-nearest;
/// each kernel sets it once, before its loop, and leaves it so.
inline void useRoundToNearest() { std::fesetround(FE_TONEAREST); }

enum class Rounding { HalfToEven, HalfUp };

/// [lo, hi] of the integer output, with its bounds also as f32 for the
/// 8- and 16-bit types, whose bounds f32 holds exactly.
struct IntRange {
  int64_t lo = 0, hi = 0;
  float loF = 0, hiF = 0;
};

/// b bits, signed or not; the narrow range drops the lowest code.
inline IntRange integerRange(unsigned bits, bool isSigned, bool narrow) {
  IntRange r;
  if (isSigned) {
    r.hi = int64_t((uint64_t(1) << (bits - 1)) - 1);
    r.lo = -r.hi - (narrow ? 0 : 1);
  } else {
    r.hi = int64_t((uint64_t(1) << bits) - 1);
    r.lo = narrow ? 1 : 0;
  }
  r.loF = float(r.lo);  // exact where used (|bound| <= 2^24)
  r.hiF = float(r.hi);
  return r;
}

template <class T>
IntRange integerRangeOf(bool narrow) {
  return integerRange(unsigned(sizeof(T) * 8), std::is_signed_v<T>, narrow);
}

/// The input element as f32: f16 and vbf16 exactly, f64 rounded to nearest
/// (the thread is in round-to-nearest by then).
template <class T>
inline float toF32(T x) {
  if constexpr (std::is_same_v<T, half> || std::is_same_v<T, bfloat16>)
    return x.toFloat();
  else
    return float(x);
}

/// The f32 result stored as T: f16 and vbf16 rounded to nearest even, f64
/// exactly.
template <class T>
inline T fromF32(float y) {
  return T(y);
}

/// A scale entry rounded to the nearest f32 (independent of the rounding mode).
inline float scaleToF32(double scale) { return doubleToFloat(scale); }
/// A zero point rounded to the nearest f32 (independent of the rounding mode).
inline float zeroToF32(int64_t zero) {
  const bool negative = zero < 0;
  const uint64_t magnitude = negative ? 0 - uint64_t(zero) : uint64_t(zero);
  return std::bit_cast<float>(uint32_t(roundIntegerToFormat<8, 23>(negative, magnitude)));
}

/// x / s + z rounded to an integer by rule R, converted with saturation and
/// clamped to `range`, stored as TOut.
template <class TOut, Rounding R>
inline TOut quantizeValue(float x, float s, float z, const IntRange& range) {
  const float v = x / s + z;  // one f32 division, then one f32 addition
  if constexpr (sizeof(TOut) <= 2) {
    // The bounds of 8- and 16-bit outputs are exact f32 integers: clamping
    // before rounding gives the same integer and keeps the loop in 32-bit
    // float lanes.
    if constexpr (R == Rounding::HalfToEven)
      return static_cast<TOut>(fixed::roundHalfToEvenClamped(v, range.loF, range.hiF));
    else
      return static_cast<TOut>(fixed::floorClamped(v + 0.5f, range.loF, range.hiF));
  } else {
    const float rounded =
        R == Rounding::HalfToEven ? fixed::roundHalfToEven(v) : fixed::floorIntegral(v + 0.5f);
    return static_cast<TOut>(fixed::clamp64(fixed::saturatingFloatToInt64(rounded), range.lo, range.hi));
  }
}

/// (f32(q) - z) * s: one subtraction, then one multiplication.
template <class TIn>
inline float dequantizeValue(TIn q, float s, float z) {
  return (float(q) - z) * s;
}

/// Whether a rank-0 output is traced: its one element is the origin of every
/// rank, so any non-empty trace point of zeros selects it.
inline bool rankZeroTraced() {
  ArrayRef<long> point = Context::get().getTracePoint();
  if (point.empty()) return false;
  for (long c : point)
    if (c != 0) return false;
  return true;
}

/// A per-element f32 parameter of the loop (a scale, a zero point): its
/// first entry and its byte strides over the output's axes (0 where it
/// repeats).
struct ParamOperand {
  const float* base;
  const long* strides;
};

/// Per-call tables of the f32 scales and zero points, and the byte strides
/// that make them operands of the walk: 4 on the scaled axis, 0 elsewhere
/// (all 0 per tensor), so every element meets its own entry. A table whose
/// entries are all equal (the zero points of symmetric per-channel
/// quantization) is walked with stride 0 instead: the same values, without
/// a second stream of loads, which matters once a row of parameters no
/// longer fits in the first-level cache.
struct ScaleTable {
  std::vector<float> scale, zero;
  long axis = -1;  // the normalised scaled axis; -1 per tensor or at rank 0
  long scaleStrides[kMaxRank] = {}, zeroStrides[kMaxRank] = {};

  ScaleTable(ArrayRef<double> scales, ArrayRef<int64_t> zeros, bool perAxis, int64_t givenAxis, unsigned long rank)
      : scale(scales.size()), zero(zeros.size()) {
    for (size_t i = 0; i < scale.size(); ++i) scale[i] = scaleToF32(scales[i]);
    for (size_t i = 0; i < zero.size(); ++i) zero[i] = zeroToF32(zeros[i]);
    if (perAxis && rank > 0) {
      axis = givenAxis < 0 ? long(givenAxis) + long(rank) : long(givenAxis);
      if (!allEqual(scale)) scaleStrides[axis] = long(sizeof(float));
      if (!allEqual(zero)) zeroStrides[axis] = long(sizeof(float));
    }
  }
  /// The entry of the element at `coord`.
  size_t entryOf(ArrayRef<long> coord) const { return axis < 0 ? 0 : size_t(coord[size_t(axis)]); }
  ParamOperand scaleOperand() const { return {scale.data(), scaleStrides}; }
  ParamOperand zeroOperand() const { return {zero.data(), zeroStrides}; }

 private:
  static bool allEqual(const std::vector<float>& v) {
    for (float x : v)
      if (std::bit_cast<uint32_t>(x) != std::bit_cast<uint32_t>(v[0])) return false;
    return true;
  }
};

/// Runs f(j) for j in [0, n) in blocks of 16: GCC's -O2 cost model
/// vectorises only loops whose trip count is a known multiple of the vector
/// width, which the inner block is.
template <class F>
inline void blockedFor(long n, F&& f) {
  long j = 0;
  for (; j + 16 <= n; j += 16)
    for (long k = 0; k < 16; ++k) f(j + k);
  for (; j < n; ++j) f(j);
}

/// A compact run; each parameter is one value for the run or one per element.
/// Kept out of line: inlined into the walk, the restrict qualifiers that let
/// GCC vectorise it without alias checks are lost.
template <bool FirstPerElement, bool SecondPerElement, class TOut, class TIn, class Element>
[[gnu::noinline]] void runCompact(TOut* __restrict out, const TIn* __restrict in, const float* __restrict first,
                                  const float* __restrict second, long n, const Element& element) {
  if constexpr (!FirstPerElement && !SecondPerElement) {
    const float a = *first, b = *second;
    blockedFor(n, [&](long j) { out[j] = element(in[j], a, b); });
  } else {
    blockedFor(n, [&](long j) {
      out[j] = element(in[j], first[FirstPerElement ? j : 0], second[SecondPerElement ? j : 0]);
    });
  }
}

/// Whether the byte ranges [a, a + aBytes) and [b, b + bBytes) do not meet.
inline bool disjoint(const char* a, long aBytes, const char* b, long bBytes) {
  const auto x = reinterpret_cast<std::uintptr_t>(a), y = reinterpret_cast<std::uintptr_t>(b);
  return x + std::uintptr_t(aBytes) <= y || y + std::uintptr_t(bBytes) <= x;
}

/// out[c] = element(in[c], first[c], second[c]) for every coordinate c of
/// fout's shape: rows along the innermost axis, outer coordinates in
/// row-major order. Compact rows that do not overlap run as vectorisable
/// pointer loops, anything else through byte strides.
template <class TOut, class TIn, class Element>
void affineLoop(const Tensor& fout, const Tensor& fin, ParamOperand first, ParamOperand second,
                const Element& element) {
  auto base = [](const Tensor& t) { return t.storage()->data() + t.offset(); };
  auto param = [](const float* p) { return reinterpret_cast<char*>(const_cast<float*>(p)); };
  StridedWalk<4> walk(fout.shape(), {base(fout), base(fin), param(first.base), param(second.base)},
                      {fout.strides().data(), fin.strides().data(), first.strides, second.strides});
  walk.forEachChunk([&element](char* const* p, const long* st, long n) {
    const float* a = reinterpret_cast<const float*>(p[2]);
    const float* b = reinterpret_cast<const float*>(p[3]);
    const long one = long(sizeof(float));
    const bool compact = st[0] == long(sizeof(TOut)) && st[1] == long(sizeof(TIn)) && (st[2] == 0 || st[2] == one) &&
                         (st[3] == 0 || st[3] == one);
    if (compact && disjoint(p[0], n * long(sizeof(TOut)), p[1], n * long(sizeof(TIn)))) {
      TOut* out = reinterpret_cast<TOut*>(p[0]);
      const TIn* in = reinterpret_cast<const TIn*>(p[1]);
      if (st[2] == 0 && st[3] == 0) return runCompact<false, false>(out, in, a, b, n, element);
      if (st[2] == 0) return runCompact<false, true>(out, in, a, b, n, element);
      if (st[3] == 0) return runCompact<true, false>(out, in, a, b, n, element);
      return runCompact<true, true>(out, in, a, b, n, element);
    }
    for (long j = 0; j < n; ++j) {
      const TIn x = *reinterpret_cast<const TIn*>(p[1] + j * st[1]);
      *reinterpret_cast<TOut*>(p[0] + j * st[0]) = element(x, *reinterpret_cast<const float*>(p[2] + j * st[2]),
                                                           *reinterpret_cast<const float*>(p[3] + j * st[3]));
    }
  });
}

}  // namespace kora::quant::detail
