// The look-up transform: an affine index transform chosen by range, then
// linear interpolation in a two-bank int16 table.
#include "kora/Core/Trace.h"
#include "kora/Support/Dispatch.h"
#include "kora/Support/ElementLoop.h"
#include "kora/Support/FixedPoint.h"
#include "kora/Vela/Intrinsic.h"

namespace kora::vela::intrinsic {

namespace {

constexpr unsigned long kRangeCount = 3, kRangeFields = 4, kTableSize = 65;
constexpr int32_t kSelectBias = 32;  // select in [-32, 31] addresses table[0 .. 64]

/// One range record as its registers hold it.
struct LutRange {
  int16_t max;
  int16_t k;
  int32_t b;
  uint8_t s;
};

LutRange rangeAt(ArrayRef<int64_t> ranges, unsigned long i) {
  const int64_t* f = ranges.data() + i * kRangeFields;
  return {int16_t(fixed::signExtend(uint64_t(f[0]), 16)), int16_t(fixed::signExtend(uint64_t(f[1]), 16)),
          fixed::truncateToInt32(f[2]), uint8_t(uint64_t(f[3]) & 0xff)};
}

template <class Trace>
int32_t lutElement(int32_t x, const LutRange* ranges, const int16_t* table, Trace& trace) {
  const unsigned which = x <= ranges[0].max ? 0 : x <= ranges[1].max ? 1 : 2;
  const LutRange& r = ranges[which];
  KORA_TRACE(trace, "lut trans: ");
  KORA_TRACE(trace, " value = {:6}, max = {:6}, k = {:6}, b = {:6}, s = {:2}", x, r.max, r.k, r.b, int(r.s));
  // |k * x| <= 2^30, so the product is exact; the sum wraps in 32 bits.
  const uint32_t t = fixed::shiftRightLogical32(fixed::wrapAdd(uint32_t(r.b), uint32_t(int32_t(r.k) * x)), r.s);
  const int64_t wide = fixed::signExtend(t, 17);
  KORA_TRACE(trace, " index = {:6}", wide);
  const int32_t index = int32_t(fixed::clamp64(wide, -32768, 32767));
  KORA_TRACE(trace, " index = clamp({}, -32768, 32767) = res", wide);
  KORA_TRACE(trace, " range {}", which);
  const int32_t select = fixed::shiftRightArithmetic(index, 10);
  const int32_t interp = int32_t(uint32_t(index) & 1023u);
  KORA_TRACE(trace, " lut interp: index = {:5}  select = {:3}", index, select);
  // The table sits in two banks by position parity; the left neighbour of the
  // interval is in the even bank or the odd one.
  const int32_t left = select + kSelectBias;
  const bool leftEven = (left & 1) == 0;
  const int32_t evenAt = leftEven ? left : left + 1, oddAt = leftEven ? left + 1 : left;
  const int32_t even = table[evenAt], odd = table[oddAt];
  KORA_TRACE(trace, " odd = table[{:2}] = {:6}", oddAt, odd);
  KORA_TRACE(trace, " even = table[{:2}] = {:6}", evenAt, even);
  const int32_t diff = odd - even;  // within 17 bits
  const int32_t weight = leftEven ? interp : 1024 - interp;
  const int32_t result = fixed::shiftRightArithmetic(diff * weight, 10) + even;  // |diff * weight| < 2^27
  if (leftEven)
    KORA_TRACE(trace, " result = (diff * interp) >> 10 + even = ({:6} * {:6}) >> 10 + {:6}) = {:6}", diff, weight,
               even, result);
  else
    KORA_TRACE(trace, " result = (diff * (1024 - interp)) >> 10 + even = ({:6} * {:6}) >> 10 + {:6}) = {:6}", diff,
               weight, even, result);
  const int32_t out = fixed::shiftRightArithmetic(result, 8);
  KORA_TRACE(trace, " result >>= 8 = {:6}", out);
  return out;
}

}  // namespace

Status ConvLut(Tensor& fout, Tensor const& fin, ArrayRef<int16_t> table, ArrayRef<int64_t> ranges) {
  using LutTypes = TypeList<int8_t, int16_t>;
  if (ranges.size() != kRangeCount * kRangeFields) return Status::failure("Incorrect lut range size");
  if (table.size() != kTableSize) return Status::failure("Incorrect lut table size");
  if (!typeIn<LutTypes>(fin.elementType())) return Status::failure("lut input must be si8 or si16");
  if (!typeIn<LutTypes>(fout.elementType())) return Status::failure("lut output must be si8 or si16");
  if (!fout.sameShape(fin)) return Status::failure("shape of lut input and output must be identical");
  if (!fout.isValid() || !fin.isValid()) return Status::failure("lut input and output must hold data");
  if (fout.isEmpty()) return Status::success();

  const LutRange records[] = {rangeAt(ranges, 0), rangeAt(ranges, 1), rangeAt(ranges, 2)};
  const TracePoint trace = TracePoint::forOutput(fout);
  dispatch<LutTypes>(fin.elementType(), [&]<class TIn>() {
    if (trace) {  // computed, not stored, before the loop
      Tracer tracer;
      (void)lutElement(fin.at<TIn>(trace.coord()), records, table.data(), tracer);
    }
    dispatch<LutTypes>(fout.elementType(), [&]<class TOut>() {
      mapElements<TOut, TIn>(fout, fin, [&](TIn x) {
        NoTrace quiet;
        return fixed::saturate<TOut>(lutElement(x, records, table.data(), quiet));
      });
    });
  });
  return Status::success();
}

}  // namespace kora::vela::intrinsic
