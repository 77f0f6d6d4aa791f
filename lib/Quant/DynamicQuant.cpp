// Dynamic quantization: symmetric quantization with scales computed from the
// data (per tensor or per row), and the dequantizations that undo it.
#include <bit>
#include <cmath>
#include <limits>

#include <fmt/format.h>

#include "Quant/QuantMath.h"
#include "kora/Core/Trace.h"
#include "kora/Quant/Quant.h"

namespace kora::quant {

using namespace detail;

namespace {

using DynamicFloatTypes = TypeList<half, bfloat16, float>;
using DynamicIntTypes = TypeList<int8_t, int16_t, int32_t>;
using DequantizedTypes = TypeList<float, half, bfloat16>;

/// A zero point of 0 for every element, for the loop's second parameter.
constexpr float kNoZero = 0.0f;
constexpr long kRepeat[kMaxRank] = {};

std::string shapeText(ArrayRef<long> shape) { return fmt::format("[{}]", fmt::join(shape, ", ")); }

/// fin's shape with the grouped axes at extent 1: the last one per row, all
/// of them per tensor.
std::vector<long> groupShape(ArrayRef<long> shape, bool perRow) {
  std::vector<long> result = shape.vec();
  for (size_t d = 0; d < result.size(); ++d)
    if (!perRow || d + 1 == result.size()) result[d] = 1;
  return result;
}

/// `t` seen with `shape`, right-aligned, its extents of 1 repeated through a
/// byte stride of 0. False when an extent is neither 1 nor the shape's.
bool broadcastTo(const Tensor& t, ArrayRef<long> shape, Tensor& view) {
  if (t.rank() > shape.size()) return false;
  long strides[kMaxRank] = {};
  const unsigned long lead = shape.size() - t.rank();
  for (unsigned long d = 0; d < t.rank(); ++d) {
    if (t.shape()[d] == shape[lead + d])
      strides[lead + d] = t.strides()[d];
    else if (t.shape()[d] != 1)
      return false;
  }
  view = Tensor(shape, ArrayRef<long>(strides, shape.size()), t.elementType(), t.offset(), t.storage());
  return true;
}

/// The coordinate in `operand` of the element broadcast to `c`.
Coord broadcastCoord(const Coord& c, const Tensor& operand) {
  Coord result;
  const unsigned long lead = c.rank - operand.rank();
  for (unsigned long d = 0; d < operand.rank(); ++d) result.push(operand.shape()[d] == 1 ? 0 : c[lead + d]);
  return result;
}

const float* floatBase(const Tensor& t) {
  return reinterpret_cast<const float*>(t.storage()->data() + t.offset());
}

/// The traced coordinate of an output of fin's shape, if any; at rank 0 the
/// all-zeros rule of the family applies.
bool tracedCoord(const Tensor& fout, Coord& coord) {
  if (fout.rank() == 0) return rankZeroTraced();
  const TracePoint trace = TracePoint::forOutput(fout);
  if (trace) coord = trace.coord();
  return bool(trace);
}

// ---- DynamicQuantize ------------------------------------------------------

/// The reason DynamicQuantize refuses its operands, or "". Config accepts
/// outputs without a type (it gives them one); the kernel does not.
std::string dynamicQuantizeReason(const Tensor& fout, const Tensor& scale, const Tensor& fin, bool filling) {
  if (!fin.isValid()) return "Invalid input.";
  if (!typeIn<DynamicFloatTypes>(fin.elementType())) return "fin must be f16, vbf16 or f32";
  if (!(filling && fout.elementType() == ElementType::invalid) && !typeIn<DynamicIntTypes>(fout.elementType()))
    return "fout must be si8, si16 or si32";
  if (!(filling && scale.elementType() == ElementType::invalid) && scale.elementType() != ElementType::f32)
    return "scale must be f32";
  return "";
}

/// scale = m / qmax, one f32 division; a zero quotient (an all-zero group or
/// an underflow) becomes 1, so that the group quantizes to 0.
float scaleFromAbsmax(float absmax, float qmax) {
  const float scale = absmax / qmax;
  return scale == 0.0f ? 1.0f : scale;
}

/// The largest finite |x| of a compact f32 run and `start`. Non-negative
/// floats order as their bit patterns, so the maximum runs on integers (in
/// 16 independent lanes, which vectorise); NaN and infinities (patterns from
/// 0x7f800000) count as 0.
[[gnu::noinline]] float largestFiniteMagnitude(const float* __restrict x, long n, float start) {
  auto magnitudeBits = [](float v) {
    const int32_t a = std::bit_cast<int32_t>(v) & 0x7fffffff;
    return a < 0x7f800000 ? a : 0;
  };
  int32_t m = std::bit_cast<int32_t>(start), lanes[16];
  for (int32_t& lane : lanes) lane = m;
  long j = 0;
  for (; j + 16 <= n; j += 16)
    for (long k = 0; k < 16; ++k) {
      const int32_t a = magnitudeBits(x[j + k]);
      lanes[k] = a > lanes[k] ? a : lanes[k];
    }
  for (int32_t lane : lanes) m = lane > m ? lane : m;
  for (; j < n; ++j) m = magnitudeBits(x[j]) > m ? magnitudeBits(x[j]) : m;
  return std::bit_cast<float>(m);
}

/// Writes into each scale element the largest finite |x| of its group.
template <class TIn>
void gatherAbsmax(const Tensor& fin, const Tensor& scale, const Tensor& scaleView) {
  StridedWalk<1>::over(scale).forEachChunk([](char* const* p, const long* st, long n) {
    for (long j = 0; j < n; ++j) *reinterpret_cast<float*>(p[0] + j * st[0]) = 0.0f;
  });
  StridedWalk<2>::over(scaleView, fin).forEachChunk([](char* const* p, const long* st, long n) {
    auto magnitude = [&](long j) { return std::fabs(toF32(*reinterpret_cast<const TIn*>(p[1] + j * st[1]))); };
    constexpr float largest = std::numeric_limits<float>::max();
    if constexpr (std::is_same_v<TIn, float>) {
      if (st[0] == 0 && st[1] == long(sizeof(float))) {
        float& m = *reinterpret_cast<float*>(p[0]);
        m = largestFiniteMagnitude(reinterpret_cast<const float*>(p[1]), n, m);
        return;
      }
    }
    if (st[0] == 0) {  // the run lies in one group
      float m = *reinterpret_cast<float*>(p[0]);
      for (long j = 0; j < n; ++j) {
        const float a = magnitude(j);
        m = a <= largest && a > m ? a : m;  // NaN and infinities are skipped
      }
      *reinterpret_cast<float*>(p[0]) = m;
      return;
    }
    for (long j = 0; j < n; ++j) {
      float& m = *reinterpret_cast<float*>(p[0] + j * st[0]);
      const float a = magnitude(j);
      m = a <= largest && a > m ? a : m;
    }
  });
}

template <class TOut, class TIn>
void dynamicQuantize(const Tensor& fout, const Tensor& scale, const Tensor& fin, const Tensor& scaleView) {
  const IntRange range = integerRangeOf<TOut>(true);
  const float qmax = float(range.hi);
  gatherAbsmax<TIn>(fin, scale, scaleView);
  Coord traced;
  const bool tracing = tracedCoord(fout, traced);
  const float tracedAbsmax = tracing ? scaleView.at<float>(traced) : 0.0f;
  StridedWalk<1>::over(scale).forEachChunk([qmax](char* const* p, const long* st, long n) {
    for (long j = 0; j < n; ++j) {
      float& s = *reinterpret_cast<float*>(p[0] + j * st[0]);
      s = scaleFromAbsmax(s, qmax);
    }
  });
  auto element = [range](TIn x, float s, float z) {
    return quantizeValue<TOut, Rounding::HalfToEven>(toF32(x), s, z, range);
  };
  if (tracing) {
    const Coord at = broadcastCoord(traced, scale);
    const float s = scaleView.at<float>(traced);
    const TIn x = fin.at<TIn>(traced);
    Tracer{}("scale{} = absmax / {} // {} / {} -> {}", at, qmax, tracedAbsmax, qmax, s);
    Tracer{}("fout{} = quantize(fin{} / scale{}) // round({} / {}) -> {}", traced, traced, at, x, s,
             int64_t(element(x, s, kNoZero)));
  }
  affineLoop<TOut, TIn>(fout, fin, {floatBase(scaleView), scaleView.strides().data()}, {&kNoZero, kRepeat}, element);
}

// ---- DynamicDequantize and FuseDynamicDequantize --------------------------

/// The reason a scale operand is refused, or "".
std::string scaleReason(const char* name, const Tensor& scale, const Tensor& fin, Tensor& view) {
  if (!scale.isValid() || scale.elementType() != ElementType::f32) return fmt::format("{} must be a valid f32 tensor", name);
  if (!broadcastTo(scale, fin.shape(), view))
    return fmt::format("{} of shape {} does not broadcast to fin's shape {}", name, shapeText(scale.shape()),
                       shapeText(fin.shape()));
  return "";
}

std::string dequantizedOutputReason(const Tensor& fout, const Tensor& fin, bool filling) {
  if (!(filling && fout.elementType() == ElementType::invalid) && !typeIn<DequantizedTypes>(fout.elementType()))
    return "fout must be f32, f16 or vbf16";
  if (filling) return "";
  if (!fout.sameShape(fin)) return fmt::format("fout must have fin's shape {}", shapeText(fin.shape()));
  if (!fout.storage()) return "fout must hold data";
  return "";
}

/// Gives an output without storage fin's shape and, when unset, `type`.
void fillOutput(Tensor& out, ArrayRef<long> shape, ElementType type) {
  if (out.storage()) return;
  out.setShape(shape);
  if (out.elementType() == ElementType::invalid) out.setElementType(type);
}

std::string dynamicDequantizeReason(const Tensor& fout, const Tensor& fin, const Tensor& scale, Tensor& view,
                                    bool filling) {
  if (!fin.isValid()) return "Invalid input.";
  if (!typeIn<DynamicIntTypes>(fin.elementType())) return "fin must be si8, si16 or si32";
  if (std::string reason = scaleReason("scale", scale, fin, view); !reason.empty()) return reason;
  return dequantizedOutputReason(fout, fin, filling);
}

std::string fuseReason(const Tensor& fout, const Tensor& fin, const Tensor& rowScale, const Tensor& colScale,
                       Tensor& rowView, Tensor& colView, bool filling) {
  if (!fin.isValid()) return "Invalid input.";
  if (fin.elementType() != ElementType::si32) return "fin must be si32";
  if (std::string reason = scaleReason("rowScale", rowScale, fin, rowView); !reason.empty()) return reason;
  if (std::string reason = scaleReason("colScale", colScale, fin, colView); !reason.empty()) return reason;
  return dequantizedOutputReason(fout, fin, filling);
}

Status asStatus(const std::string& reason) { return reason.empty() ? Status::success() : Status::failure(reason); }
Status asConfigStatus(const char* kernel, const std::string& reason) {
  return reason.empty() ? Status::success() : configError(kernel, reason);
}

}  // namespace

Status DynamicQuantizeConfig(Tensor& fout, Tensor& scale, Tensor const& fin, bool perRow) {
  KORA_RETURN_IF_ERROR(asConfigStatus("DynamicQuantize", dynamicQuantizeReason(fout, scale, fin, true)));
  fillOutput(fout, fin.shape(), ElementType::si8);
  fillOutput(scale, groupShape(fin.shape(), perRow), ElementType::f32);
  return Status::success();
}

Status DynamicQuantize(Tensor& fout, Tensor& scale, Tensor const& fin, bool perRow) {
  useRoundToNearest();
  KORA_RETURN_IF_ERROR(asStatus(dynamicQuantizeReason(fout, scale, fin, false)));
  const std::vector<long> scaleShape = groupShape(fin.shape(), perRow);
  if (!fout.sameShape(fin)) return failure("fout must have fin's shape {}", shapeText(fin.shape()));
  if (!scale.shape().equals(scaleShape)) return failure("scale must have shape {}", shapeText(scaleShape));
  if (!fout.storage() || !scale.storage()) return Status::failure("fout and scale must hold data");
  Tensor scaleView;
  (void)broadcastTo(scale, fin.shape(), scaleView);  // it has the group shape, which always broadcasts
  dispatch<DynamicFloatTypes>(fin.elementType(), [&]<class TIn>() {
    dispatch<DynamicIntTypes>(fout.elementType(),
                              [&]<class TOut>() { dynamicQuantize<TOut, TIn>(fout, scale, fin, scaleView); });
  });
  return Status::success();
}

Status DynamicDequantizeConfig(Tensor& fout, Tensor const& fin, Tensor const& scale) {
  Tensor view;
  KORA_RETURN_IF_ERROR(asConfigStatus("DynamicDequantize", dynamicDequantizeReason(fout, fin, scale, view, true)));
  fillOutput(fout, fin.shape(), ElementType::f32);
  return Status::success();
}

Status DynamicDequantize(Tensor& fout, Tensor const& fin, Tensor const& scale) {
  useRoundToNearest();
  Tensor view;
  KORA_RETURN_IF_ERROR(asStatus(dynamicDequantizeReason(fout, fin, scale, view, false)));
  dispatch<DynamicIntTypes>(fin.elementType(), [&]<class TIn>() {
    dispatch<DequantizedTypes>(fout.elementType(), [&]<class TOut>() {
      auto element = [](TIn q, float s, float) { return fromF32<TOut>(float(q) * s); };
      Coord c;
      if (tracedCoord(fout, c)) {
        const TIn q = fin.at<TIn>(c);
        const float s = view.at<float>(c);
        Tracer{}("fout{} = fin{} * scale{} // {} * {} -> {}", c, c, broadcastCoord(c, scale), int64_t(q), s,
                 element(q, s, kNoZero));
      }
      affineLoop<TOut, TIn>(fout, fin, {floatBase(view), view.strides().data()}, {&kNoZero, kRepeat}, element);
    });
  });
  return Status::success();
}

Status FuseDynamicDequantizeConfig(Tensor& fout, Tensor const& fin, Tensor const& rowScale, Tensor const& colScale) {
  Tensor rowView, colView;
  KORA_RETURN_IF_ERROR(asConfigStatus("FuseDynamicDequantize",
                                      fuseReason(fout, fin, rowScale, colScale, rowView, colView, true)));
  fillOutput(fout, fin.shape(), ElementType::f32);
  return Status::success();
}

Status FuseDynamicDequantize(Tensor& fout, Tensor const& fin, Tensor const& rowScale, Tensor const& colScale) {
  useRoundToNearest();
  Tensor rowView, colView;
  KORA_RETURN_IF_ERROR(asStatus(fuseReason(fout, fin, rowScale, colScale, rowView, colView, false)));
  dispatch<DequantizedTypes>(fout.elementType(), [&]<class TOut>() {
    // The product's scale is the outer product of both: two multiplications, row first.
    auto element = [](int32_t acc, float r, float c) { return fromF32<TOut>((float(acc) * r) * c); };
    Coord c;
    if (tracedCoord(fout, c)) {
      const int32_t acc = fin.at<int32_t>(c);
      const float r = rowView.at<float>(c), s = colView.at<float>(c);
      Tracer{}("fout{} = fin{} * rowScale{} * colScale{} // {} * {} * {} -> {}", c, c, broadcastCoord(c, rowScale),
               broadcastCoord(c, colScale), acc, r, s, element(acc, r, s));
    }
    affineLoop<TOut, int32_t>(fout, fin, {floatBase(rowView), rowView.strides().data()},
                              {floatBase(colView), colView.strides().data()}, element);
  });
  return Status::success();
}

}  // namespace kora::quant
