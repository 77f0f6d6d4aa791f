// Affine quantization: Qcast / Quantize, Dcast / Dequantize and FakeQuant.
#include "kora/Quant/Quant.h"

#include <fmt/format.h>

#include "Quant/QuantMath.h"
#include "kora/Core/Trace.h"

namespace kora::quant {

using namespace detail;

namespace {

enum class Direction { Quantize, Dequantize, Fake };

Status checkTypes(Direction direction, const Tensor& fout, const Tensor& fin) {
  const ElementType in = fin.elementType(), out = fout.elementType();
  switch (direction) {
    case Direction::Quantize:
      if (!isFloat(in)) return Status::failure("fin must be floating-point");
      if (!isInteger(out)) return Status::failure("fout must be integral");
      break;
    case Direction::Dequantize:
      if (!isInteger(in)) return Status::failure("fin must be integral");
      if (!isFloat(out)) return Status::failure("fout must be floating-point");
      break;
    case Direction::Fake:
      if (!isFloat(in)) return Status::failure("fin must be floating-point");
      if (!isFloat(out)) return Status::failure("fout must be floating-point");
      if (in != out) return Status::failure("fin and fout must have same type");
      break;
  }
  return Status::success();
}

Status checkScaleAndZero(const Tensor& fout, ArrayRef<double> scale, ArrayRef<int64_t> zero, bool perAxis,
                         int64_t axis) {
  if (scale.size() != zero.size()) return Status::failure("Scale and zero point size mismatch");
  if (!perAxis) {
    if (scale.size() != 1) return Status::failure("Scale number must be 1 in per tensor mode");
    return Status::success();
  }
  const long rank = long(fout.rank());
  long extent = 1;  // a rank-0 tensor has extent 1 on any axis
  if (rank > 0) {
    if (axis < -rank || axis >= rank) return failure("Invalid axis {} for fout of rank {}", axis, rank);
    extent = fout.dim(long(axis));
  }
  if (long(scale.size()) != extent) return failure("Scale number must be {} of fout axis {}", extent, axis);
  if (long(zero.size()) != extent) return failure("Zero point number must be {} of fout axis {}", extent, axis);
  return Status::success();
}

/// Types that pass the checks above but have no arithmetic here.
Status checkSupported(Direction direction, const Tensor& fout, const Tensor& fin) {
  const bool fromFloat = direction != Direction::Dequantize;
  const bool toFloat = direction != Direction::Quantize;
  if (!(fromFloat ? typeIn<QuantFloatTypes>(fin.elementType()) : typeIn<QuantIntTypes>(fin.elementType())))
    return failure("fin type {} is not supported", fin.elementType());
  if (!(toFloat ? typeIn<QuantFloatTypes>(fout.elementType()) : typeIn<QuantIntTypes>(fout.elementType())))
    return failure("fout type {} is not supported", fout.elementType());
  return Status::success();
}

/// The checks shared by every kernel of the family, in their published order,
/// then the ones of this implementation.
Status checkOperands(Direction direction, const Tensor& fout, const Tensor& fin, ArrayRef<double> scale,
                     ArrayRef<int64_t> zero, bool perAxis, int64_t axis) {
  if (!fin.isValid()) return Status::failure("Invalid input.");
  if (!fout.sameShape(fin)) return Status::failure("Invalid tensor shape, input and output must have same shape");
  KORA_RETURN_IF_ERROR(checkTypes(direction, fout, fin));
  return checkScaleAndZero(fout, scale, zero, perAxis, axis);
}

Status checkStorage(const Tensor& fout) {
  return fout.storage() ? Status::success() : Status::failure("fout must hold data");
}

/// Runs `element` over every element: the rank-0 path, or the traced element
/// first (computed, not stored, so that an in-place call traces its
/// original input) and then the loop. `line(coord, x, y, entry)` writes the
/// trace line; coord is null at rank 0.
template <class TOut, class TIn, class Element, class Line>
void computeAll(const Tensor& fout, const Tensor& fin, const ScaleTable& table, const Element& element,
                const Line& line) {
  if (fout.rank() == 0) {
    const TIn x = fin.at<TIn>({});
    const TOut y = element(x, table.scale[0], table.zero[0]);
    if (rankZeroTraced()) line(nullptr, x, y, 0);
    fout.at<TOut>({}) = y;
    return;
  }
  const TracePoint trace = TracePoint::forOutput(fout);
  if (trace) {
    const size_t entry = table.entryOf(trace.coord());
    const TIn x = fin.at<TIn>(trace.coord());
    line(&trace.coord(), x, element(x, table.scale[entry], table.zero[entry]), entry);
  }
  affineLoop<TOut, TIn>(fout, fin, table.scaleOperand(), table.zeroOperand(), element);
}

template <class TOut, class TIn, Rounding R>
void quantizeTensor(const Tensor& fout, const Tensor& fin, const ScaleTable& table, ArrayRef<int64_t> zero,
                    const IntRange& range) {
  auto element = [range](TIn x, float s, float z) { return quantizeValue<TOut, R>(toF32(x), s, z, range); };
  auto line = [&](const Coord* c, TIn x, TOut q, size_t e) {
    if (c)
      Tracer{}("fout{} {} = quantize(fin[{}] {},  scale {}, zero {})", *c, int64_t(q), fmt::join(c->ref(), ", "), x,
               table.scale[e], zero[e]);
    else
      Tracer{}("fout(0-rank) {} = quantize(fin(0-rank) {},  scale {}, zero {})", int64_t(q), x, table.scale[e],
               zero[e]);
  };
  computeAll<TOut, TIn>(fout, fin, table, element, line);
}

template <class TOut, class TIn>
void dequantizeTensor(const Tensor& fout, const Tensor& fin, const ScaleTable& table, ArrayRef<int64_t> zero) {
  auto element = [](TIn q, float s, float z) { return fromF32<TOut>(dequantizeValue(q, s, z)); };
  auto line = [&](const Coord* c, TIn q, TOut y, size_t e) {
    if (c)
      Tracer{}("fout{} {} = dequantize(fin[{}] {},  scale {}, zero {})", *c, y, fmt::join(c->ref(), ", "),
               int64_t(q), table.scale[e], zero[e]);
    else
      Tracer{}("fout(0-rank) {} = dequantize(fin(0-rank) {},  scale {}, zero {})", y, int64_t(q), table.scale[e],
               zero[e]);
  };
  computeAll<TOut, TIn>(fout, fin, table, element, line);
}

/// Quantizes to the signed integer Carrier's range and back to T.
template <class T, class Carrier, Rounding R>
void fakeQuantizeTensor(const Tensor& fout, const Tensor& fin, const ScaleTable& table, ArrayRef<int64_t> zero,
                        bool narrowRange) {
  const IntRange range = integerRangeOf<Carrier>(narrowRange);
  auto element = [range](T x, float s, float z) {
    return fromF32<T>(dequantizeValue(quantizeValue<Carrier, R>(toF32(x), s, z, range), s, z));
  };
  auto line = [&](const Coord* c, T x, T y, size_t e) {
    if (c)
      Tracer{}("fout {} = fake_quantize(fin {},  scale {}, zero {})", y, x, table.scale[e], zero[e]);
    else
      Tracer{}("fout(0-rank) {} = fake_quantize(fin(0-rank) {},  scale {}, zero {})", y, x, table.scale[e], zero[e]);
  };
  computeAll<T, T>(fout, fin, table, element, line);
}

}  // namespace

Status Qcast(Tensor& fout, Tensor const& fin, ArrayRef<double> scale, ArrayRef<int64_t> zero, bool perAxis,
             int64_t axis, bool narrowRange, bool roundHalfToEven) {
  useRoundToNearest();
  KORA_RETURN_IF_ERROR(checkOperands(Direction::Quantize, fout, fin, scale, zero, perAxis, axis));
  KORA_RETURN_IF_ERROR(checkSupported(Direction::Quantize, fout, fin));
  KORA_RETURN_IF_ERROR(checkStorage(fout));
  const ScaleTable table(scale, zero, perAxis, axis, fout.rank());
  dispatch<QuantFloatTypes>(fin.elementType(), [&]<class TIn>() {
    dispatch<QuantIntTypes>(fout.elementType(), [&]<class TOut>() {
      const IntRange range = integerRangeOf<TOut>(narrowRange);
      if (roundHalfToEven)
        quantizeTensor<TOut, TIn, Rounding::HalfToEven>(fout, fin, table, zero, range);
      else
        quantizeTensor<TOut, TIn, Rounding::HalfUp>(fout, fin, table, zero, range);
    });
  });
  return Status::success();
}

Status Quantize(Tensor& fout, Tensor const& fin, ArrayRef<double> scale, ArrayRef<int64_t> zero, bool perAxis,
                int64_t axis, bool narrowRange) {
  return Qcast(fout, fin, scale, zero, perAxis, axis, narrowRange, true);
}

Status DcastConfig(Tensor& fout, Tensor const& fin, ArrayRef<double> scale, ArrayRef<int64_t> zero, bool perAxis,
                   int64_t axis) {
  KORA_RETURN_IF_ERROR(checkOperands(Direction::Dequantize, fout, fin, scale, zero, perAxis, axis));
  return checkSupported(Direction::Dequantize, fout, fin);
}

Status Dcast(Tensor& fout, Tensor const& fin, ArrayRef<double> scale, ArrayRef<int64_t> zero, bool perAxis,
             int64_t axis) {
  useRoundToNearest();
  KORA_RETURN_IF_ERROR(DcastConfig(fout, fin, scale, zero, perAxis, axis));
  KORA_RETURN_IF_ERROR(checkStorage(fout));
  const ScaleTable table(scale, zero, perAxis, axis, fout.rank());
  dispatch<QuantIntTypes>(fin.elementType(), [&]<class TIn>() {
    dispatch<QuantFloatTypes>(fout.elementType(),
                              [&]<class TOut>() { dequantizeTensor<TOut, TIn>(fout, fin, table, zero); });
  });
  return Status::success();
}

Status DequantizeConfig(Tensor& fout, Tensor const& fin, ArrayRef<double> scale, ArrayRef<int64_t> zero,
                        bool perAxis, int64_t axis) {
  return DcastConfig(fout, fin, scale, zero, perAxis, axis);
}

Status Dequantize(Tensor& fout, Tensor const& fin, ArrayRef<double> scale, ArrayRef<int64_t> zero, bool perAxis,
                  int64_t axis) {
  return Dcast(fout, fin, scale, zero, perAxis, axis);
}

Status FakeQuant(Tensor& fout, Tensor const& fin, ArrayRef<double> scale, ArrayRef<int64_t> zero, bool perAxis,
                 int64_t axis, bool narrowRange, int64_t bitWidth, bool isSigned, bool roundHalfToEven) {
  useRoundToNearest();
  KORA_RETURN_IF_ERROR(checkOperands(Direction::Fake, fout, fin, scale, zero, perAxis, axis));
  if (!isSigned) return Status::failure("Only supports signed fake quant");
  if (bitWidth != 8 && bitWidth != 16 && bitWidth != 32)
    return Status::failure("Only accepts bit width among 8,16,32");
  KORA_RETURN_IF_ERROR(checkSupported(Direction::Fake, fout, fin));
  KORA_RETURN_IF_ERROR(checkStorage(fout));
  const ScaleTable table(scale, zero, perAxis, axis, fout.rank());
  dispatch<QuantFloatTypes>(fin.elementType(), [&]<class T>() {
    auto run = [&]<class Carrier>() {
      if (roundHalfToEven)
        fakeQuantizeTensor<T, Carrier, Rounding::HalfToEven>(fout, fin, table, zero, narrowRange);
      else
        fakeQuantizeTensor<T, Carrier, Rounding::HalfUp>(fout, fin, table, zero, narrowRange);
    };
    if (bitWidth == 8)
      run.template operator()<int8_t>();
    else if (bitWidth == 16)
      run.template operator()<int16_t>();
    else
      run.template operator()<int32_t>();
  });
  return Status::success();
}

}  // namespace kora::quant
