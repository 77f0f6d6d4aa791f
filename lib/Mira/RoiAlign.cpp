#include "kora/Mira/RoiAlign.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>

#include <fmt/ranges.h>

#include "kora/Core/Context.h"
#include "kora/Core/Trace.h"
#include "kora/Core/Trap.h"
#include "kora/Support/Dispatch.h"
#include "kora/Support/FixedPoint.h"
#include "kora/Support/StridedWalk.h"

namespace kora::mira {

namespace {

using fixed::shiftLeftWrap;
using fixed::shiftRightArithmetic;
using fixed::wrapAdd;
using fixed::wrapMul;
using fixed::wrapSub;

/// Feature maps the pooling serves. si16 maps go through the same 32-bit
/// arithmetic and the same [-128, 127] result check as si8 ones.
using FeatureTypes = TypeList<int8_t, int16_t>;
/// Integral roi types whose every value fits a 32-bit box corner.
using RoiTypes = TypeList<int16_t, int8_t, int32_t, uint8_t, uint16_t>;

/// The largest level shift k: the blend's rounding shift by 2F = 2k + 4
/// must stay below 32 bits.
constexpr int64_t kMaxLevelShift = 13;

/// The attributes every entry point passes on unchanged.
struct Attributes {
  const std::vector<int64_t>& shape;
  const std::vector<int64_t>& featureStrides;
  int64_t samplingRatio;
  const std::string& interpolateMode;
  int64_t canonicalBoxSize;
  int64_t canonicalLevel;
  const std::vector<double>& boxClipRatio;
};

// ---------------------------------------------------------------------------
// Config

Status refuse(std::string reason) { return configError("RoiAlign", reason); }

/// The checks of Config, first failure wins; on success `outShape` is fout's.
Status checkOperands(ArrayRef<Tensor> inputs, const Attributes& a, ElementType outType, std::vector<long>& outShape) {
  const long roiRank = inputs.empty() ? 0 : long(inputs[0].rank());
  if (roiRank != 2 && roiRank != 3)
    return refuse(fmt::format("The rank of input rois only support 2 and 3, but got {}.", roiRank));
  const Tensor& rois = inputs[0];
  const long featureRank = roiRank + 1;
  const long firstRank = inputs.size() > 1 ? long(inputs[1].rank()) : 0;
  if (firstRank != featureRank)
    return refuse(fmt::format("The rank of input rois is {}, expect input feature rank is {}, but got {}.", roiRank,
                              featureRank, firstRank));
  const long rowWidth = rois.dim(-1);
  if (rowWidth != 4 && rowWidth != 6)
    return refuse(fmt::format("Roi c channel only support 4 or 6, but got {}.", rowWidth));
  if (a.shape.size() != 2)
    return refuse(fmt::format("Attribute shape should be size of 2, but got {}.", a.shape.size()));
  for (size_t i = 2; i < inputs.size(); ++i)
    if (long(inputs[i].rank()) != firstRank)
      return refuse(fmt::format(
          "The rank of the rest input features must be the same to the first feature rank {}, but got {}", firstRank,
          inputs[i].rank()));
  if (roiRank == 3)
    for (size_t i = 1; i < inputs.size(); ++i)
      if (inputs[i].dim(0) != rois.dim(0))
        return refuse(fmt::format("Input batch must be the same, roi batch is {}, but got input feature[{}] batch {}",
                                  rois.dim(0), i - 1, inputs[i].dim(0)));
  if (a.featureStrides.size() + 1 != inputs.size())
    return refuse(
        "The number of feature strides in the input should be consistent with the number of feature inputs.");
  if (a.samplingRatio != 1)
    return refuse(fmt::format("sampling ration should be equal with 1, but it is {}", a.samplingRatio));
  if (a.interpolateMode != "bilinear")
    return refuse(fmt::format("interpolate mode should be equal with bilinear, but got {}", a.interpolateMode));
  long dynamicDims = 0, dynamicDim = -1;
  for (long d = 0; d < roiRank; ++d)
    if (rois.dim(d) < 0) ++dynamicDims, dynamicDim = d;
  if (dynamicDims > 1)
    return refuse(fmt::format("RoiAlign only support one dynamic axis for box num, roi has {} dynamic dims.",
                              dynamicDims));
  if (dynamicDims == 1 && dynamicDim != roiRank - 2)
    return refuse(fmt::format("RoiAlign dynamic dim must be 0 when roi rank is 2, must be 1 when roi rank is 3, "
                              "given roi rank is {}, dynamic dim is {}.",
                              roiRank, dynamicDim));
  for (size_t i = 1; i < inputs.size(); ++i)
    if (inputs[i].elementType() != outType)
      return refuse("For RoiAlign, the type of feature should consistent with the type of output");
  if (a.shape[0] < 0 || a.shape[1] < 0)
    return refuse(fmt::format("Attribute shape should not be negative, but got {}.", a.shape));

  const Tensor& first = inputs[1];
  const long channels = first.dim(-1);
  if (roiRank == 2)
    outShape = {rois.dim(0), long(a.shape[0]), long(a.shape[1]), channels};
  else
    outShape = {first.dim(0), rois.dim(1), long(a.shape[0]), long(a.shape[1]), channels};
  return Status::success();
}

Status configure(Tensor& fout, ArrayRef<Tensor> inputs, const Attributes& a) {
  ElementType outType = fout.elementType();
  if (outType == ElementType::invalid && inputs.size() > 1) outType = inputs[1].elementType();
  std::vector<long> shape;
  KORA_RETURN_IF_ERROR(checkOperands(inputs, a, outType, shape));
  fout.setElementType(outType);
  fout.setShape(shape);
  return Status::success();
}

// ---------------------------------------------------------------------------
// The computation's operands, checked once per call

/// One pyramid level as the pooling reads it.
struct Level {
  const char* base = nullptr;
  long batchStride = 0, rowStride = 0, colStride = 0, channelStride = 0;  // bytes
  int32_t height = 0, width = 0;
  int64_t shift = 0;      // k = trunc(log2(stride))
  unsigned fracBits = 0;  // F = k + 2
};

struct Setup {
  std::vector<Level> levels;
  /// x1, y1, x2, y2 of roi [b, n] at b * boxes + n.
  std::vector<std::array<int32_t, 4>> corners;
  bool integralRois = false;
  ElementType roiType = ElementType::invalid;
  long batches = 1, boxes = 0, channels = 0, pooledH = 0, pooledW = 0;
  int64_t canonicalBoxSize = 0, canonicalLevel = 0;
  const double* clip = nullptr;  // a, b, c, d, or none
  bool batched = false;          // rank-3 rois and rank-4 features
  char* out = nullptr;
  long outStride[5] = {};  // bytes: batch (0 when unbatched), box, row, column, channel
};

/// Logs why the quantized computation cannot run; always false.
template <class... A>
bool cannotRun(fmt::format_string<A...> format, A&&... args) {
  Context::get().logf(LogLevel::warn, "RoiAlign: {}", fmt::format(format, std::forward<A>(args)...));
  return false;
}

void readCorners(const Tensor& rois, Setup& s) {
  s.corners.resize(size_t(s.batches * s.boxes));
  if (!s.integralRois) return;
  const long rowStride = rois.stride(-2), entryStride = rois.stride(-1);
  const long batchStride = s.batched ? rois.stride(0) : 0;
  const char* base = reinterpret_cast<const char*>(rois.data<char>().data());
  dispatch<RoiTypes>(rois.elementType(), [&]<class R>() {
    for (long b = 0; b < s.batches; ++b)
      for (long n = 0; n < s.boxes; ++n) {
        const char* row = base + b * batchStride + n * rowStride;
        auto& corner = s.corners[size_t(b * s.boxes + n)];
        for (long k = 0; k < 4; ++k) corner[size_t(k)] = int32_t(*reinterpret_cast<const R*>(row + k * entryStride));
      }
  });
}

/// The Impl's checks. The two broken invariants trap; anything else the
/// computation cannot serve is logged and refused.
bool setUp(const Tensor& fout, ArrayRef<Tensor> inputs, const Attributes& a, Setup& s) {
  if (inputs.size() < 2)
    return cannotRun("needs the rois and at least one feature map, but got {} inputs", inputs.size());
  const Tensor& rois = inputs[0];
  const Tensor& first = inputs[1];
  if (first.rank() != 3 && first.rank() != 4)
    return cannotRun("feature maps have rank 3 or 4, but feature[0] has rank {}", first.rank());
  s.batched = first.rank() == 4;
  const long leadingAxes = s.batched ? 2 : 1;  // [B,] N
  if (long(rois.rank()) - leadingAxes != 1) KORA_TRAP("one roi should be 1 dimension");
  if (!a.boxClipRatio.empty() && a.boxClipRatio.size() != 4) KORA_TRAP("box clip ratio error");

  if (a.samplingRatio != 1 || a.interpolateMode != "bilinear")
    return cannotRun("sampling ratio {} and mode {} are not 1 and bilinear", a.samplingRatio, a.interpolateMode);
  if (a.shape.size() != 2 || a.shape[0] < 0 || a.shape[1] < 0)
    return cannotRun("shape {} is not a pooled height and width", a.shape);
  if (a.featureStrides.size() + 1 != inputs.size())
    return cannotRun("{} feature strides for {} feature maps", a.featureStrides.size(), inputs.size() - 1);
  if (!rois.isValid() || !fout.isValid()) return cannotRun("rois and fout must hold data");
  for (const Tensor& t : inputs)
    for (long size : t.shape())
      if (size < 0) return cannotRun("an operand of shape {} has a dynamic size left", t.shape().vec());
  if (rois.dim(-1) != 4 && rois.dim(-1) != 6) return cannotRun("roi rows of {} entries", rois.dim(-1));
  s.roiType = rois.elementType();
  s.integralRois = isInteger(s.roiType);
  if (s.integralRois && !typeIn<RoiTypes>(s.roiType)) return cannotRun("rois of type {}", s.roiType);
  if (!typeIn<FeatureTypes>(fout.elementType())) return cannotRun("features of type {}", fout.elementType());

  s.batches = s.batched ? rois.dim(0) : 1;
  s.boxes = rois.dim(-2);
  s.channels = first.dim(-1);
  for (size_t i = 1; i < inputs.size(); ++i) {
    const Tensor& f = inputs[i];
    const size_t index = i - 1;
    if (!f.isValid()) return cannotRun("feature[{}] holds no data", index);
    if (f.rank() != first.rank()) return cannotRun("feature[{}] has rank {}, not {}", index, f.rank(), first.rank());
    if (f.elementType() != fout.elementType())
      return cannotRun("feature[{}] is {}, fout is {}", index, f.elementType(), fout.elementType());
    if (s.batched && f.dim(0) != s.batches)
      return cannotRun("feature[{}] has batch {}, the rois {}", index, f.dim(0), s.batches);
    if (f.dim(-1) != s.channels)
      return cannotRun("feature[{}] has {} channels, feature[0] {}", index, f.dim(-1), s.channels);
    const long height = f.dim(-3), width = f.dim(-2);
    if (height > INT32_MAX || width > INT32_MAX)
      return cannotRun("feature[{}] is {} x {}, beyond 32-bit sample positions", index, height, width);
    const int64_t stride = a.featureStrides[index];
    const int64_t shift = stride >= 1 ? int64_t(std::log2(double(stride))) : -1;
    if (shift < 0 || shift > kMaxLevelShift)
      return cannotRun("feature stride {} is not in [1, 2^{})", stride, kMaxLevelShift + 1);
    Level level;
    level.base = f.data<char>().data();
    level.batchStride = s.batched ? f.stride(0) : 0;
    level.rowStride = f.stride(-3);
    level.colStride = f.stride(-2);
    level.channelStride = f.stride(-1);
    level.height = int32_t(height);
    level.width = int32_t(width);
    level.shift = shift;
    level.fracBits = unsigned(shift + 2);
    s.levels.push_back(level);
  }

  s.pooledH = long(a.shape[0]);
  s.pooledW = long(a.shape[1]);
  std::vector<long> expected = {s.boxes, s.pooledH, s.pooledW, s.channels};
  if (s.batched) expected.insert(expected.begin(), s.batches);
  if (!fout.shape().equals(expected)) return cannotRun("fout is {}, expected the shape {}", fout, expected);

  s.canonicalBoxSize = a.canonicalBoxSize;
  s.canonicalLevel = a.canonicalLevel;
  s.clip = a.boxClipRatio.empty() ? nullptr : a.boxClipRatio.data();
  s.out = fout.data<char>().data();
  const unsigned skip = s.batched ? 0 : 1;
  for (unsigned d = skip; d < 5; ++d) s.outStride[d] = fout.stride(long(d - skip));
  readCorners(rois, s);
  return true;
}

// ---------------------------------------------------------------------------
// One output element's arithmetic, written once for the traced and the
// untraced path

struct Box {
  int64_t level = 0;
  int32_t x1 = 0, y1 = 0, x2 = 0, y2 = 0;
  bool invalid = true;
};

/// floor(canonicalLevel - k0 + log2(t / canonicalBoxSize)) in double, t the
/// box's inclusive size in pixels, limited to the pyramid.
// The libm log2 may differ in its last bit between machines, but the floor
// cannot: t^2 is a multiple of 1/16, so for sides and box sizes below 2^20
// t / canonicalBoxSize is either exactly a power of two (log2 then exact) or
// off every power of two by a factor beyond 1 + 2^-45, far more than a few
// rounding errors can bridge.
template <class Trace>
int64_t selectLevel(int64_t w, int64_t h, const Setup& s, const Coord& roi, Trace& trace) {
  const int64_t last = int64_t(s.levels.size()) - 1;
  if (last == 0) {
    KORA_TRACE(trace, "level{} = 0 // one feature map -> 0", roi);
    return 0;
  }
  const double size = std::sqrt((double(w) * 0.25 + 1.0) * (double(h) * 0.25 + 1.0));
  const double k0 = double(s.levels[0].shift);
  const double raw = std::floor(double(s.canonicalLevel) - k0 + std::log2(size / double(s.canonicalBoxSize)));
  const int64_t level = !(raw >= 0.0) ? 0 : raw >= double(last) ? last : int64_t(raw);
  KORA_TRACE(trace,
             "level{} = floor(canonicalLevel - k0 + log2(t / canonicalBoxSize)) // floor({} - {} + log2({} / {})) = "
             "{} -> {}",
             roi, s.canonicalLevel, s.levels[0].shift, size, s.canonicalBoxSize, raw, level);
  return level;
}

/// Box preparation: validity, the optional clip, the level.
template <class Trace>
Box prepareBox(const std::array<int32_t, 4>& raw, const Setup& s, const Coord& roi, Trace& trace) {
  Box box;
  if (!s.integralRois) {
    KORA_TRACE(trace, "box{} invalid // rois of type {} are not integral", roi, s.roiType);
    return box;
  }
  KORA_TRACE(trace, "box{} = rois{} // [x1, y1, x2, y2] -> [{}, {}, {}, {}]", roi, roi, raw[0], raw[1], raw[2],
             raw[3]);
  int64_t w = int64_t(raw[2]) - raw[0], h = int64_t(raw[3]) - raw[1];
  if (w <= 0 || h <= 0) {
    KORA_TRACE(trace, "box{} invalid // w {}, h {}", roi, w, h);
    return box;
  }
  std::array<int32_t, 4> corner = raw;
  if (s.clip) {
    // x1 + a*w, y1 + b*h, x2 - c*w, y2 - d*h, each rounded once.
    const double factor[4] = {s.clip[0], s.clip[1], -s.clip[2], -s.clip[3]};
    const double extent[4] = {double(w), double(h), double(w), double(h)};
    for (size_t k = 0; k < 4; ++k) {
      const double moved = std::fma(factor[k], extent[k], double(raw[k]));
      if (std::isnan(moved)) {
        KORA_TRACE(trace, "box{} invalid // clipped corner {} is NaN", roi, k);
        return box;
      }
      corner[k] = fixed::roundHalfAwaySaturate<int32_t>(moved);
    }
    KORA_TRACE(trace, "box{} = clip(box{}) // [{} + {} * {}, {} + {} * {}, {} - {} * {}, {} - {} * {}] -> [{}, {}, {}, {}]",
               roi, roi, raw[0], s.clip[0], w, raw[1], s.clip[1], h, raw[2], s.clip[2], w, raw[3], s.clip[3], h,
               corner[0], corner[1], corner[2], corner[3]);
    w = int64_t(corner[2]) - corner[0];
    h = int64_t(corner[3]) - corner[1];
    if (w <= 0 || h <= 0) {
      KORA_TRACE(trace, "box{} invalid // w {}, h {} after the clip", roi, w, h);
      return box;
    }
  }
  box.x1 = corner[0], box.y1 = corner[1], box.x2 = corner[2], box.y2 = corner[3];
  box.level = selectLevel(w, h, s, roi, trace);
  box.invalid = false;
  return box;
}

/// How the trace lines name one axis of the sampling.
struct AxisNames {
  char axis;         // 'y' or 'x'
  char cell;         // 'i' or 'j'
  const char* bin;   // "binH" or "binW"
  char extent;       // 'H' or 'W'
  const char* pooled;
};
constexpr AxisNames kRows{'y', 'i', "binH", 'H', "pooledH"};
constexpr AxisNames kColumns{'x', 'j', "binW", 'W', "pooledW"};

/// ((hi - lo + one) << F) / (pooled << F) in unsigned 32-bit arithmetic.
template <class Trace>
uint32_t binSize(int32_t lo, int32_t hi, long pooled, unsigned fracBits, const AxisNames& n, Trace& trace) {
  const uint32_t one = uint32_t(1) << fracBits;
  const uint32_t extent = uint32_t(hi) - uint32_t(lo) + one;
  const uint32_t divisor = shiftLeftWrap<uint32_t>(uint32_t(pooled), fracBits);
  const uint32_t bin = fixed::divideOrZero(shiftLeftWrap<uint32_t>(extent, fracBits), divisor);
  KORA_TRACE(trace, "{0} = (({1}2 - {1}1 + one) << F) / ({2} << F) // (({3} - {4} + {5}) << {6}) / ({7} << {6}) -> {8}",
             n.bin, n.axis, n.pooled, hi, lo, one, fracBits, pooled, bin);
  return bin;
}

/// One sample position along an axis: the lower neighbour's index, its
/// weight (one - frac) and the weight of the neighbour after it (frac).
struct AxisSample {
  int32_t index = 0;
  int32_t near = 0;  // one - frac: weight of `index`
  int32_t far = 0;   // frac: weight of `index + 1`
};

template <class Trace>
AxisSample sampleAxis(int32_t start, uint32_t bin, long cell, int32_t extent, unsigned fracBits, const AxisNames& n,
                      Trace& trace) {
  const int32_t one = shiftLeftWrap<int32_t>(1, fracBits);
  const int32_t unclamped = int32_t(uint32_t(start) + uint32_t(cell) * bin);
  const int32_t last = shiftLeftWrap<int32_t>(extent - 1, fracBits);
  const int32_t pos = std::max(std::min(unclamped, last), 0);
  KORA_TRACE(trace, "{0} = max(min({0}1 + {1} * {2}, ({3} - 1) << F), 0) // max(min({4} + {5} * {6}, {7}), 0) -> {8}",
             n.axis, n.cell, n.bin, n.extent, start, cell, bin, last, pos);
  AxisSample sample;
  sample.index = std::min(shiftRightArithmetic(pos, fracBits), extent - 2);
  KORA_TRACE(trace, "{0}0 = min({0} >> F, {1} - 2) // min({2} >> {3}, {4}) -> {5}", n.axis, n.extent, pos, fracBits,
             extent - 2, sample.index);
  sample.far = wrapSub(pos, shiftLeftWrap(sample.index, fracBits));
  sample.near = wrapSub(one, sample.far);
  KORA_TRACE(trace, "l{0} = {0} - ({0}0 << F) // {1} - ({2} << {3}) -> {4}", n.axis, pos, sample.index, fracBits,
             sample.far);
  KORA_TRACE(trace, "h{0} = one - l{0} // {1} - {2} -> {3}", n.axis, one, sample.far, sample.near);
  return sample;
}

struct CellWeights {
  int32_t hx, lx, hy, ly;
  int32_t half;    // 2^(2F - 1)
  unsigned shift;  // 2F
};

CellWeights cellWeights(const AxisSample& row, const AxisSample& column, unsigned fracBits) {
  return {column.near, column.far, row.near, row.far, shiftLeftWrap<int32_t>(1, 2 * fracBits - 1), 2 * fracBits};
}

/// The blend of four neighbours, all in 32-bit wrapping arithmetic, with one
/// rounding shift.
template <class Trace>
int32_t blend(int32_t f00, int32_t f01, int32_t f10, int32_t f11, const CellWeights& w, const Coord& at,
              Trace& trace) {
  const int32_t top = wrapAdd(wrapMul(f00, w.hx), wrapMul(f01, w.lx));
  KORA_TRACE(trace, "top = f00 * hx + f01 * lx // {} * {} + {} * {} -> {}", f00, w.hx, f01, w.lx, top);
  const int32_t bottom = wrapAdd(wrapMul(f10, w.hx), wrapMul(f11, w.lx));
  KORA_TRACE(trace, "bottom = f10 * hx + f11 * lx // {} * {} + {} * {} -> {}", f10, w.hx, f11, w.lx, bottom);
  const int32_t v = wrapAdd(wrapAdd(wrapMul(top, w.hy), wrapMul(bottom, w.ly)), w.half);
  KORA_TRACE(trace, "v = top * hy + bottom * ly + 2^(2F - 1) // {} * {} + {} * {} + {} -> {}", top, w.hy, bottom, w.ly,
             w.half, v);
  const int32_t result = shiftRightArithmetic(v, w.shift);
  KORA_TRACE(trace, "fout{} = v >> 2F // {} >> {} -> {}", at, v, w.shift, result);
  return result;
}

// ---------------------------------------------------------------------------
// The loops

const Coord kNowhere;

/// Blends channels [first, last) of one cell through byte steps; true when
/// some result lies outside [-128, 127].
template <class T>
bool blendStrided(char* out, long outStep, const char* const from[4], const long step[4], const CellWeights& w,
                  long first, long last) {
  NoTrace quiet;
  int32_t outside = 0;
  auto at = [&](int k, long c) -> int32_t { return *reinterpret_cast<const T*>(from[k] + c * step[k]); };
  for (long c = first; c < last; ++c) {
    const int32_t r = blend(at(0, c), at(1, c), at(2, c), at(3, c), w, kNowhere, quiet);
    outside |= int32_t(r < -128) | int32_t(r > 127);
    *reinterpret_cast<T*>(out + c * outStep) = static_cast<T>(r);
  }
  return outside != 0;
}

/// kChannelBlock contiguous channels: a loop of fixed length over unaliased
/// operands, which the compiler turns into vector code without a scalar
/// fallback.
constexpr long kChannelBlock = 16;

template <class T>
[[gnu::always_inline]] inline bool blendBlock(T* __restrict out, const T* __restrict f00, const T* __restrict f01, const T* __restrict f10,
                const T* __restrict f11, const CellWeights w) {
  NoTrace quiet;
  int32_t outside = 0;
  for (long c = 0; c < kChannelBlock; ++c) {
    const int32_t r = blend(f00[c], f01[c], f10[c], f11[c], w, kNowhere, quiet);
    outside |= int32_t(r < -128) | int32_t(r > 127);
    out[c] = static_cast<T>(r);
  }
  return outside != 0;
}

/// Blends one cell's channels; true when some result lies outside
/// [-128, 127]. Integer arithmetic gives the same bits on any instruction
/// set, so a wider one is picked at run time where the machine has it.
template <class T>
__attribute__((target_clones("avx2", "default"))) bool blendChannels(char* out, long outStep, const char* const from[4], const long step[4], const CellWeights& w,
                   long channels, bool unitSteps) {
  long c = 0;
  bool outside = false;
  if (unitSteps) {
    for (; c + kChannelBlock <= channels; c += kChannelBlock) {
      auto in = [&](int k) { return reinterpret_cast<const T*>(from[k]) + c; };
      outside |= blendBlock<T>(reinterpret_cast<T*>(out) + c, in(0), in(1), in(2), in(3), w);
    }
  }
  return blendStrided<T>(out, outStep, from, step, w, c, channels) || outside;
}

/// Buffers sized once per call.
template <class T>
struct Scratch {
  std::vector<AxisSample> rows, columns;
  std::vector<T> zeros;  // what a neighbour outside the map reads
  explicit Scratch(const Setup& s)
      : rows(size_t(s.pooledH)), columns(size_t(s.pooledW)), zeros(size_t(std::max(s.channels, 1L)), T(0)) {}
};

/// Address of a neighbour's channel 0, or of the zero row when its row or
/// column index is negative.
template <class T>
const char* neighbour(const Level& level, const char* image, int32_t y, int32_t x, const Scratch<T>& scratch) {
  if (y < 0 || x < 0) return reinterpret_cast<const char*>(scratch.zeros.data());
  return image + y * level.rowStride + x * level.colStride;
}

template <class T>
void poolBox(const Box& box, const Setup& s, long b, char* block, Scratch<T>& scratch) {
  NoTrace quiet;
  const Level& level = s.levels[size_t(box.level)];
  const unsigned fracBits = level.fracBits;
  const uint32_t binH = binSize(box.y1, box.y2, s.pooledH, fracBits, kRows, quiet);
  const uint32_t binW = binSize(box.x1, box.x2, s.pooledW, fracBits, kColumns, quiet);
  for (long i = 0; i < s.pooledH; ++i)
    scratch.rows[size_t(i)] = sampleAxis(box.y1, binH, i, level.height, fracBits, kRows, quiet);
  for (long j = 0; j < s.pooledW; ++j)
    scratch.columns[size_t(j)] = sampleAxis(box.x1, binW, j, level.width, fracBits, kColumns, quiet);

  const char* image = level.base + b * level.batchStride;
  const long unit = long(sizeof(T));
  const long outStep = s.outStride[4];
  const bool unitRun = level.channelStride == unit && outStep == unit;
  for (long i = 0; i < s.pooledH; ++i) {
    const AxisSample& row = scratch.rows[size_t(i)];
    for (long j = 0; j < s.pooledW; ++j) {
      const AxisSample& column = scratch.columns[size_t(j)];
      const char* from[4] = {neighbour(level, image, row.index, column.index, scratch),
                             neighbour(level, image, row.index, column.index + 1, scratch),
                             neighbour(level, image, row.index + 1, column.index, scratch),
                             neighbour(level, image, row.index + 1, column.index + 1, scratch)};
      long step[4];
      for (int k = 0; k < 4; ++k)
        step[k] = from[k] == reinterpret_cast<const char*>(scratch.zeros.data()) ? 0 : level.channelStride;
      const CellWeights w = cellWeights(row, column, fracBits);
      char* out = block + i * s.outStride[2] + j * s.outStride[3];
      if (blendChannels<T>(out, outStep, from, step, w, s.channels, unitRun)) KORA_TRAP("roi align numeric overflow");
    }
  }
}

template <class T>
void zeroBlock(const Setup& s, char* block) {
  for (long i = 0; i < s.pooledH; ++i)
    for (long j = 0; j < s.pooledW; ++j) {
      char* cell = block + i * s.outStride[2] + j * s.outStride[3];
      for (long c = 0; c < s.channels; ++c) *reinterpret_cast<T*>(cell + c * s.outStride[4]) = T(0);
    }
}

/// The traced element, computed along the same path and not stored.
template <class T>
void traceElement(const Setup& s, const Coord& at) {
  Tracer trace;
  const unsigned lead = s.batched ? 1 : 0;
  const long b = s.batched ? at[0] : 0, n = at[lead], i = at[lead + 1], j = at[lead + 2], c = at[lead + 3];
  Coord roi;
  if (s.batched) roi.push(b);
  roi.push(n);
  const Box box = prepareBox(s.corners[size_t(b * s.boxes + n)], s, roi, trace);
  if (box.invalid) {
    trace("fout{} = 0 // box{} is invalid -> 0", at, roi);
    return;
  }
  const Level& level = s.levels[size_t(box.level)];
  const unsigned fracBits = level.fracBits;
  const uint32_t binH = binSize(box.y1, box.y2, s.pooledH, fracBits, kRows, trace);
  const uint32_t binW = binSize(box.x1, box.x2, s.pooledW, fracBits, kColumns, trace);
  const AxisSample row = sampleAxis(box.y1, binH, i, level.height, fracBits, kRows, trace);
  const AxisSample column = sampleAxis(box.x1, binW, j, level.width, fracBits, kColumns, trace);

  const char* image = level.base + b * level.batchStride;
  int32_t f[4];
  const char* names[4] = {"f00", "f01", "f10", "f11"};
  for (int k = 0; k < 4; ++k) {
    const int32_t y = row.index + k / 2, x = column.index + k % 2;
    Coord where;
    if (s.batched) where.push(b);
    where.push(y), where.push(x), where.push(c);
    if (y < 0 || x < 0) {
      f[k] = 0;
      trace("{} = feature{}{} // outside the map -> 0", names[k], box.level, where);
    } else {
      f[k] = *reinterpret_cast<const T*>(image + y * level.rowStride + x * level.colStride + c * level.channelStride);
      trace("{} = feature{}{} -> {}", names[k], box.level, where, f[k]);
    }
  }
  (void)blend(f[0], f[1], f[2], f[3], cellWeights(row, column, fracBits), at, trace);
}

template <class T>
void poolAll(const Setup& s, const Tensor& fout) {
  const TracePoint trace = TracePoint::forOutput(fout);
  if (trace) traceElement<T>(s, trace.coord());
  NoTrace quiet;
  Scratch<T> scratch(s);
  for (long b = 0; b < s.batches; ++b)
    for (long n = 0; n < s.boxes; ++n) {
      const Box box = prepareBox(s.corners[size_t(b * s.boxes + n)], s, kNowhere, quiet);
      char* block = s.out + b * s.outStride[0] + n * s.outStride[1];
      if (box.invalid)
        zeroBlock<T>(s, block);
      else
        poolBox<T>(box, s, b, block, scratch);
    }
}

void zeroFill(const Tensor& t) {
  const long width = long(byteWidth(t.elementType()));
  StridedWalk<1>::over(t).forEachChunk([width](char* const* p, const long* stride, long n) {
    if (stride[0] == width) {
      std::memset(p[0], 0, size_t(n * width));
    } else {
      for (long k = 0; k < n; ++k) std::memset(p[0] + k * stride[0], 0, size_t(width));
    }
  });
}

Status compute(Tensor& fout, ArrayRef<Tensor> inputs, const Attributes& a) {
  if (!isInteger(fout.elementType())) {
    if (fout.isValid()) zeroFill(fout);
    return Status::failure("Currently, only the fixed-point version of RoiAlign is supported. output was set 0");
  }
  Setup s;
  if (!setUp(fout, inputs, a, s)) return Status::failure("Compute quantized roi align error");
  dispatch<FeatureTypes>(fout.elementType(), [&]<class T>() { poolAll<T>(s, fout); });
  return Status::success();
}

}  // namespace

// ---------------------------------------------------------------------------
// Entry points: one operator, its features as a list or as one to five
// separate arguments.

#define KORA_ROI_ALIGN_ATTRIBUTES \
  {shape, featureStrides, samplingRatio, interpolateMode, canonicalBoxSize, canonicalLevel, boxClipRatio}

Status RoiAlignConfig(Tensor& fout, std::vector<Tensor> const& inputs, std::vector<int64_t> const& shape,
                      std::vector<int64_t> const& featureStrides, int64_t samplingRatio,
                      std::string const& interpolateMode, int64_t canonicalBoxSize, int64_t canonicalLevel,
                      std::vector<double> const& boxClipRatio) {
  return configure(fout, inputs, KORA_ROI_ALIGN_ATTRIBUTES);
}
Status RoiAlign(Tensor& fout, std::vector<Tensor> const& inputs, std::vector<int64_t> const& shape,
                std::vector<int64_t> const& featureStrides, int64_t samplingRatio, std::string const& interpolateMode,
                int64_t canonicalBoxSize, int64_t canonicalLevel, std::vector<double> const& boxClipRatio) {
  return compute(fout, inputs, KORA_ROI_ALIGN_ATTRIBUTES);
}

Status RoiAlign1Config(Tensor& fout, Tensor const& rois, Tensor const& feature0, std::vector<int64_t> const& shape,
                       std::vector<int64_t> const& featureStrides, int64_t samplingRatio,
                       std::string const& interpolateMode, int64_t canonicalBoxSize, int64_t canonicalLevel,
                       std::vector<double> const& boxClipRatio) {
  const std::array<Tensor, 2> inputs{rois, feature0};
  return configure(fout, inputs, KORA_ROI_ALIGN_ATTRIBUTES);
}
Status RoiAlign1(Tensor& fout, Tensor const& rois, Tensor const& feature0, std::vector<int64_t> const& shape,
                 std::vector<int64_t> const& featureStrides, int64_t samplingRatio, std::string const& interpolateMode,
                 int64_t canonicalBoxSize, int64_t canonicalLevel, std::vector<double> const& boxClipRatio) {
  const std::array<Tensor, 2> inputs{rois, feature0};
  return compute(fout, inputs, KORA_ROI_ALIGN_ATTRIBUTES);
}

Status RoiAlign2Config(Tensor& fout, Tensor const& rois, Tensor const& feature0, Tensor const& feature1,
                       std::vector<int64_t> const& shape, std::vector<int64_t> const& featureStrides,
                       int64_t samplingRatio, std::string const& interpolateMode, int64_t canonicalBoxSize,
                       int64_t canonicalLevel, std::vector<double> const& boxClipRatio) {
  const std::array<Tensor, 3> inputs{rois, feature0, feature1};
  return configure(fout, inputs, KORA_ROI_ALIGN_ATTRIBUTES);
}
Status RoiAlign2(Tensor& fout, Tensor const& rois, Tensor const& feature0, Tensor const& feature1,
                 std::vector<int64_t> const& shape, std::vector<int64_t> const& featureStrides, int64_t samplingRatio,
                 std::string const& interpolateMode, int64_t canonicalBoxSize, int64_t canonicalLevel,
                 std::vector<double> const& boxClipRatio) {
  const std::array<Tensor, 3> inputs{rois, feature0, feature1};
  return compute(fout, inputs, KORA_ROI_ALIGN_ATTRIBUTES);
}

Status RoiAlign3Config(Tensor& fout, Tensor const& rois, Tensor const& feature0, Tensor const& feature1,
                       Tensor const& feature2, std::vector<int64_t> const& shape,
                       std::vector<int64_t> const& featureStrides, int64_t samplingRatio,
                       std::string const& interpolateMode, int64_t canonicalBoxSize, int64_t canonicalLevel,
                       std::vector<double> const& boxClipRatio) {
  const std::array<Tensor, 4> inputs{rois, feature0, feature1, feature2};
  return configure(fout, inputs, KORA_ROI_ALIGN_ATTRIBUTES);
}
Status RoiAlign3(Tensor& fout, Tensor const& rois, Tensor const& feature0, Tensor const& feature1,
                 Tensor const& feature2, std::vector<int64_t> const& shape, std::vector<int64_t> const& featureStrides,
                 int64_t samplingRatio, std::string const& interpolateMode, int64_t canonicalBoxSize,
                 int64_t canonicalLevel, std::vector<double> const& boxClipRatio) {
  const std::array<Tensor, 4> inputs{rois, feature0, feature1, feature2};
  return compute(fout, inputs, KORA_ROI_ALIGN_ATTRIBUTES);
}

Status RoiAlign4Config(Tensor& fout, Tensor const& rois, Tensor const& feature0, Tensor const& feature1,
                       Tensor const& feature2, Tensor const& feature3, std::vector<int64_t> const& shape,
                       std::vector<int64_t> const& featureStrides, int64_t samplingRatio,
                       std::string const& interpolateMode, int64_t canonicalBoxSize, int64_t canonicalLevel,
                       std::vector<double> const& boxClipRatio) {
  const std::array<Tensor, 5> inputs{rois, feature0, feature1, feature2, feature3};
  return configure(fout, inputs, KORA_ROI_ALIGN_ATTRIBUTES);
}
Status RoiAlign4(Tensor& fout, Tensor const& rois, Tensor const& feature0, Tensor const& feature1,
                 Tensor const& feature2, Tensor const& feature3, std::vector<int64_t> const& shape,
                 std::vector<int64_t> const& featureStrides, int64_t samplingRatio, std::string const& interpolateMode,
                 int64_t canonicalBoxSize, int64_t canonicalLevel, std::vector<double> const& boxClipRatio) {
  const std::array<Tensor, 5> inputs{rois, feature0, feature1, feature2, feature3};
  return compute(fout, inputs, KORA_ROI_ALIGN_ATTRIBUTES);
}

Status RoiAlign5Config(Tensor& fout, Tensor const& rois, Tensor const& feature0, Tensor const& feature1,
                       Tensor const& feature2, Tensor const& feature3, Tensor const& feature4,
                       std::vector<int64_t> const& shape, std::vector<int64_t> const& featureStrides,
                       int64_t samplingRatio, std::string const& interpolateMode, int64_t canonicalBoxSize,
                       int64_t canonicalLevel, std::vector<double> const& boxClipRatio) {
  const std::array<Tensor, 6> inputs{rois, feature0, feature1, feature2, feature3, feature4};
  return configure(fout, inputs, KORA_ROI_ALIGN_ATTRIBUTES);
}
Status RoiAlign5(Tensor& fout, Tensor const& rois, Tensor const& feature0, Tensor const& feature1,
                 Tensor const& feature2, Tensor const& feature3, Tensor const& feature4,
                 std::vector<int64_t> const& shape, std::vector<int64_t> const& featureStrides, int64_t samplingRatio,
                 std::string const& interpolateMode, int64_t canonicalBoxSize, int64_t canonicalLevel,
                 std::vector<double> const& boxClipRatio) {
  const std::array<Tensor, 6> inputs{rois, feature0, feature1, feature2, feature3, feature4};
  return compute(fout, inputs, KORA_ROI_ALIGN_ATTRIBUTES);
}

#undef KORA_ROI_ALIGN_ATTRIBUTES

}  // namespace kora::mira
