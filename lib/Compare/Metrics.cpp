#include "kora/Compare/Metrics.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <emmintrin.h>
#include <limits>

#include "kora/Support/Dispatch.h"
#include "kora/Support/StridedWalk.h"

namespace kora {

namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
// Elements are converted to double and measured this many at a time.
constexpr long kBlock = 256;
// Squares of values beyond 2^kScaleExponent (or below its inverse) could
// leave double's range once summed.
constexpr int kScaleExponent = 400;

std::string shapeText(ArrayRef<long> shape) {
  if (shape.empty()) return "()";
  std::string text;
  for (unsigned long i = 0; i < shape.size(); ++i) text += fmt::format("{}{}", i ? "x" : "", shape[i]);
  return text;
}

Status checkOperands(const Tensor& expected, const Tensor& actual, bool numeric) {
  if (!expected.isValid()) return Status::failure("expected holds no data");
  if (!actual.isValid()) return Status::failure("actual holds no data");
  if (!expected.sameShape(actual))
    return failure("shape mismatch: expected {}, actual {}", shapeText(expected.shape()), shapeText(actual.shape()));
  if (numeric) {
    if (!typeIn<NumericTypes>(expected.elementType()))
      return failure("element type {} of expected has no numeric reading", elementTypeName(expected.elementType()));
    if (!typeIn<NumericTypes>(actual.elementType()))
      return failure("element type {} of actual has no numeric reading", elementTypeName(actual.elementType()));
  }
  return Status::success();
}

Status checkOptions(const CompareOptions& o) {
  if (!(o.rtol >= 0)) return Status::failure("rtol must be a non-negative number");
  if (!(o.atol >= 0)) return Status::failure("atol must be a non-negative number");
  if (o.worstCount < 0) return Status::failure("worstCount must not be negative");
  return Status::success();
}

// ------------------------------------------------------------ reading values

using Loader = void (*)(const char* p, long stride, long n, double scale, double* out);

template <class T>
double toDouble(T x) {
  if constexpr (std::is_same_v<T, Bool8>)
    return x.value != 0 ? 1.0 : 0.0;
  else
    return double(widen(x));
}

template <class T>
void loadDoubles(const char* p, long stride, long n, double scale, double* out) {
  if (stride == long(sizeof(T))) {
    const T* q = reinterpret_cast<const T*>(p);
    for (long i = 0; i < n; ++i) out[i] = toDouble(q[i]) * scale;
  } else {
    for (long i = 0; i < n; ++i) out[i] = toDouble(*reinterpret_cast<const T*>(p + i * stride)) * scale;
  }
}

Loader loaderFor(ElementType type) {
  return dispatch<NumericTypes>(type, []<class T>() -> Loader { return &loadDoubles<T>; });
}

// ---------------------------------------------------------- histogram slots

/// Every |d| is counted in one of 4096 slots: two per binary exponent, split
/// at the power of ten that falls inside that binade, if one does. Each slot
/// then lies in one decade [10^k, 10^(k+1)), the bounds being the doubles
/// nearest the powers of ten (which is what "1e-7" means to a reader), and
/// finding it is a table load and a comparison, with no branch. Slot 0 holds
/// the zeros, slot 1 the subnormals (placed exactly, off the fast path),
/// the last two NaN and infinity.
class Slots {
 public:
  static constexpr int kCount = 4096;
  static constexpr int kZero = 0, kSubnormal = 1, kNaN = 4094, kInfinity = 4095;
  static constexpr int kLowestDecade = -324, kHighestDecade = 308;

  static const Slots& get() {
    static const Slots table;
    return table;
  }

  /// The slot of x = |d| (x >= 0, or NaN with its sign bit clear).
  int of(double x) const {
    const auto biased = static_cast<unsigned>(std::bit_cast<uint64_t>(x) >> 52);
    return int(2 * biased + (x >= split_[biased] ? 1 : 0));
  }
  int decade(int slot) const { return decade_[std::size_t(slot)]; }

  /// The decade of any finite x > 0, found by search (for subnormals).
  int decadeOf(double x) const {
    const auto above = std::upper_bound(powers_.begin(), powers_.end(), x);
    return above == powers_.begin() ? kLowestDecade : int(above - powers_.begin()) - 1 + kLowestDecade + 1;
  }

 private:
  Slots() {
    // powers_[i] is the double nearest 10^(i - 323); 1e-324 rounds to 0.
    for (int k = kLowestDecade + 1; k <= kHighestDecade; ++k)
      powers_[std::size_t(k - kLowestDecade - 1)] = std::strtod(fmt::format("1e{}", k).c_str(), nullptr);
    split_[0] = std::numeric_limits<double>::denorm_min();
    for (unsigned biased = 1; biased < 2047; ++biased) {
      const double low = std::ldexp(1.0, int(biased) - 1023), high = 2 * low;
      split_[biased] = kInf;
      decade_[2 * biased] = short(decadeOf(low));
      const int next = decadeOf(low) + 1;
      if (next <= kHighestDecade && power(next) > low && power(next) < high) {
        split_[biased] = power(next);
        decade_[2 * biased + 1] = short(next);
      }
    }
    split_[2047] = kInf;  // NaN compares false (slot 4094), infinity equal (4095)
  }
  double power(int k) const { return powers_[std::size_t(k - kLowestDecade - 1)]; }

  std::array<double, kHighestDecade - kLowestDecade> powers_{};
  std::array<double, 2048> split_{};
  std::array<short, kCount> decade_{};
};

// ---------------------------------------------------------------- the pass

/// The kept worst elements: a heap whose front is the one to drop next.
class WorstList {
 public:
  struct Entry {
    double key;
    long index;
    double expected, actual, difference;
    bool close;
  };

  /// Keeps up to `capacity` entries whose keys exceed `floor`.
  WorstList(long capacity, double floor) : capacity_(std::size_t(capacity)), threshold_(capacity > 0 ? floor : kInf) {
    entries_.reserve(capacity_);
  }

  /// Keys must exceed this to be kept.
  double threshold() const { return threshold_; }

  [[gnu::noinline]] void add(const Entry& e) {
    if (entries_.size() == capacity_) {
      std::pop_heap(entries_.begin(), entries_.end(), keepsBetter);
      entries_.pop_back();
    }
    entries_.push_back(e);
    std::push_heap(entries_.begin(), entries_.end(), keepsBetter);
    // Once full, only larger keys get in: an equal key comes later in
    // row-major order and loses the tie.
    if (entries_.size() == capacity_) threshold_ = entries_.front().key;
  }

  std::vector<Entry> sorted() const {
    std::vector<Entry> list = entries_;
    std::sort(list.begin(), list.end(), keepsBetter);
    return list;
  }

 private:
  // Larger keys first, then earlier elements.
  static bool keepsBetter(const Entry& a, const Entry& b) {
    return a.key > b.key || (a.key == b.key && a.index < b.index);
  }
  std::size_t capacity_;
  double threshold_;
  std::vector<Entry> entries_;
};

struct Sums {
  double ee = 0, aa = 0, ea = 0, dd = 0;
};

/// One pass over both tensors. Elements are converted a block at a time;
/// within a block two lanes of partial sums take the even and the odd
/// elements (the two halves of an SSE2 register), so that neighbouring
/// additions do not wait for each other, in an order fixed by the code.
/// Histogram slots are counted in eight interleaved tables for the same
/// reason (runs of one slot would otherwise chain every increment).
class Pass {
  static constexpr int kTables = 8;

  const CompareOptions& o_;
  const bool sumsOnly_;
  const double scale_;
  const Slots& slotTable_;
  std::vector<uint64_t> slots_;  // kTables rows of Slots::kCount counters
  std::map<int, long> subnormalDecades_;
  long index_ = 0;

 public:
  Pass(const CompareOptions& o, bool sumsOnly, double scale)
      : o_(o), sumsOnly_(sumsOnly), scale_(scale), slotTable_(Slots::get()),
        slots_(sumsOnly ? 0 : std::size_t(kTables * Slots::kCount), 0),
        mismatchList(sumsOnly ? 0 : o.worstCount, -1.0),
        differenceList(sumsOnly ? 0 : o.worstCount, 0.0) {}

  /// Blocks are cut by row-major position, not by the walk's chunks, so the
  /// sums do not depend on the operands' strides.
  void run(const Tensor& expected, const Tensor& actual) {
    const Loader loadE = loaderFor(expected.elementType()), loadA = loaderFor(actual.elementType());
    alignas(64) double e[kBlock], a[kBlock];
    long fill = 0;
    StridedWalk<2>::over(expected, actual).forEachChunk([&](char* const* p, const long* s, long n) {
      for (long start = 0; start < n;) {
        const long count = std::min(kBlock - fill, n - start);
        loadE(p[0] + start * s[0], s[0], count, scale_, e + fill);
        loadA(p[1] + start * s[1], s[1], count, scale_, a + fill);
        fill += count;
        start += count;
        if (fill == kBlock) {
          process(e, a, fill);
          fill = 0;
        }
      }
    });
    if (fill > 0) process(e, a, fill);
  }

  /// Totals of the slots: equal, decades, infinite and NaN counts.
  void histogram(long& equal, std::map<int, long>& decades, long& infinite, long& nan) const {
    std::array<uint64_t, Slots::kCount> total{};
    for (int t = 0; t < kTables; ++t)
      for (int slot = 0; slot < Slots::kCount; ++slot) total[std::size_t(slot)] += slots_[std::size_t(t * Slots::kCount + slot)];
    equal = long(total[Slots::kZero]);
    nan = long(total[Slots::kNaN]);
    infinite = long(total[Slots::kInfinity]);
    decades = subnormalDecades_;
    for (int slot = 2; slot < Slots::kNaN; ++slot)
      if (total[std::size_t(slot)]) decades[slotTable_.decade(slot)] += long(total[std::size_t(slot)]);
  }

  Sums sums;
  /// The largest magnitude of any expected or actual value, and of any d.
  double maxAbsValue = 0, maxAbsDifference = 0;
  long mismatches = 0;
  WorstList mismatchList, differenceList;

 private:
  void process(const double* e, const double* a, long n) {
    if (sumsOnly_)
      block<true>(e, a, n);
    else
      block<false>(e, a, n);
  }

  template <bool kSumsOnly>
  void block(const double* e, const double* a, long n) {
    Sums lane0, lane1;
    double maxValue = maxAbsValue, maxD = maxAbsDifference;
    long notClose = 0;
    uint64_t* const tables = kSumsOnly ? nullptr : slots_.data();
    long i = 0;
    if constexpr (kSumsOnly) {
      for (; i + 2 <= n; i += 2) {
        element<kSumsOnly>(e[i], a[i], i, lane0, maxValue, maxD, notClose, tables);
        element<kSumsOnly>(e[i + 1], a[i + 1], i + 1, lane1, maxValue, maxD, notClose, tables);
      }
    } else {
      i = pairs(e, a, n, lane0, lane1, maxValue, maxD, notClose, tables);
    }
    if (i < n) element<kSumsOnly>(e[i], a[i], i, lane0, maxValue, maxD, notClose, tables);
    sums.ee += lane0.ee + lane1.ee;
    sums.aa += lane0.aa + lane1.aa;
    sums.ea += lane0.ea + lane1.ea;
    sums.dd += lane0.dd + lane1.dd;
    maxAbsValue = maxValue;
    maxAbsDifference = maxD;
    mismatches += notClose;
    index_ += n;
  }

  /// The elements two at a time in SSE2 registers, lane 0 holding the even
  /// and lane 1 the odd ones: the same operations in the same order as
  /// element() does for each lane, so the same bits. Returns the elements done.
  long pairs(const double* e, const double* a, long n, Sums& lane0, Sums& lane1, double& maxValue, double& maxD,
             long& notClose, uint64_t* tables) {
    const __m128d absMask = _mm_castsi128_pd(_mm_set1_epi64x(0x7fffffffffffffff));
    const __m128d largest = _mm_set1_pd(DBL_MAX), atol = _mm_set1_pd(o_.atol), rtol = _mm_set1_pd(o_.rtol);
    const __m128d equalNan = o_.equalNan ? _mm_castsi128_pd(_mm_set1_epi64x(-1)) : _mm_setzero_pd();
    __m128d ee = _mm_set_pd(lane1.ee, lane0.ee), aa = _mm_set_pd(lane1.aa, lane0.aa);
    __m128d ea = _mm_set_pd(lane1.ea, lane0.ea), dd = _mm_set_pd(lane1.dd, lane0.dd);
    __m128d maxV = _mm_set1_pd(maxValue), maxDiff = _mm_set1_pd(maxD);
    alignas(16) double magnitudes[2];
    long i = 0;
    for (; i + 2 <= n; i += 2) {
      const __m128d x = _mm_load_pd(e + i), y = _mm_load_pd(a + i);
      const __m128d same = _mm_cmpeq_pd(x, y);
      const __m128d bothNaN = _mm_and_pd(_mm_cmpunord_pd(x, x), _mm_cmpunord_pd(y, y));
      const __m128d d = _mm_andnot_pd(_mm_or_pd(same, bothNaN), _mm_sub_pd(y, x));
      ee = _mm_add_pd(ee, _mm_mul_pd(x, x));
      aa = _mm_add_pd(aa, _mm_mul_pd(y, y));
      ea = _mm_add_pd(ea, _mm_mul_pd(x, y));
      dd = _mm_add_pd(dd, _mm_mul_pd(d, d));
      const __m128d ax = _mm_and_pd(x, absMask), ay = _mm_and_pd(y, absMask), ad = _mm_and_pd(d, absMask);
      const __m128d larger = _mm_max_pd(ax, ay);  // ax > ay ? ax : ay
      maxV = _mm_max_pd(larger, maxV);
      maxDiff = _mm_max_pd(ad, maxDiff);
      const __m128d within = _mm_and_pd(_mm_cmple_pd(larger, largest), _mm_cmple_pd(ad, _mm_add_pd(atol, _mm_mul_pd(rtol, ax))));
      const __m128d close = _mm_or_pd(_mm_or_pd(same, within), _mm_and_pd(equalNan, bothNaN));
      const int closeBits = _mm_movemask_pd(close);
      notClose += 2 - (closeBits & 1) - (closeBits >> 1);
      _mm_store_pd(magnitudes, ad);
      for (int k = 0; k < 2; ++k) {
        const double m = magnitudes[k];
        const int slot = slotTable_.of(m);
        ++tables[std::size_t(((i + k) & (kTables - 1)) * Slots::kCount + slot)];
        if (slot == Slots::kSubnormal) [[unlikely]]
          ++subnormalDecades_[slotTable_.decadeOf(m)];
        const double key = m != m ? kInf : m;  // NaN ranks above everything
        const bool isClose = (closeBits >> k) & 1;
        if (key > differenceList.threshold() || (!isClose && key > mismatchList.threshold())) [[unlikely]] {
          const double dk = _mm_cvtsd_f64(k ? _mm_unpackhi_pd(d, d) : d);
          if (key > differenceList.threshold()) differenceList.add({key, index_ + i + k, e[i + k], a[i + k], dk, isClose});
          if (!isClose && key > mismatchList.threshold())
            mismatchList.add({key, index_ + i + k, e[i + k], a[i + k], dk, isClose});
        }
      }
    }
    alignas(16) double lanes[2];
    _mm_store_pd(lanes, ee);
    lane0.ee = lanes[0], lane1.ee = lanes[1];
    _mm_store_pd(lanes, aa);
    lane0.aa = lanes[0], lane1.aa = lanes[1];
    _mm_store_pd(lanes, ea);
    lane0.ea = lanes[0], lane1.ea = lanes[1];
    _mm_store_pd(lanes, dd);
    lane0.dd = lanes[0], lane1.dd = lanes[1];
    _mm_store_pd(lanes, maxV);
    maxValue = std::max(lanes[0], lanes[1]);
    _mm_store_pd(lanes, maxDiff);
    maxD = std::max(lanes[0], lanes[1]);
    return i;
  }

  template <bool kSumsOnly>
  [[gnu::always_inline]] inline void element(double e, double a, long i, Sums& lane, double& maxValue, double& maxD,
                                             long& notClose, uint64_t* tables) {
    const bool same = e == a;
    const bool bothNaN = e != e && a != a;
    const double d = same || bothNaN ? 0.0 : a - e;
    lane.ee += e * e;
    lane.aa += a * a;
    lane.ea += e * a;
    lane.dd += d * d;
    if constexpr (kSumsOnly) return;
    const double ae = std::fabs(e), aA = std::fabs(a), ad = std::fabs(d);
    const double larger = ae > aA ? ae : aA;
    maxValue = larger > maxValue ? larger : maxValue;
    maxD = ad > maxD ? ad : maxD;
    const bool finite = larger <= DBL_MAX;
    const bool close = same || (finite && ad <= o_.atol + o_.rtol * ae) || (o_.equalNan && bothNaN);
    notClose += close ? 0 : 1;
    const int slot = slotTable_.of(ad);
    ++tables[std::size_t((i & (kTables - 1)) * Slots::kCount + slot)];
    if (slot == Slots::kSubnormal) [[unlikely]]
      ++subnormalDecades_[slotTable_.decadeOf(ad)];
    const double key = ad != ad ? kInf : ad;
    if (key > differenceList.threshold()) [[unlikely]]
      differenceList.add({key, index_ + i, e, a, d, close});
    if (!close && key > mismatchList.threshold()) [[unlikely]]
      mismatchList.add({key, index_ + i, e, a, d, close});
  }
};

bool sameBytes(const Tensor& expected, const Tensor& actual) {
  const unsigned long width = byteWidth(expected.elementType());
  bool same = true;
  StridedWalk<2>::over(expected, actual).forEachChunk([&](char* const* p, const long* s, long n) {
    if (!same) return;
    if (s[0] == long(width) && s[1] == long(width)) {
      same = std::memcmp(p[0], p[1], static_cast<std::size_t>(n) * width) == 0;
      return;
    }
    for (long i = 0; i < n && same; ++i) same = std::memcmp(p[0] + i * s[0], p[1] + i * s[1], width) == 0;
  });
  return same;
}

double cosineDistance(const Sums& s) {
  if (s.ee != s.ee || s.aa != s.aa || s.ea != s.ea) return kNaN;
  if (s.ee == 0 && s.aa == 0) return 0;
  if (s.ee == 0 || s.aa == 0) return 1;
  const double product = s.ee * s.aa;
  const double similarity = product <= DBL_MAX ? s.ea / std::sqrt(product) : s.ea / std::sqrt(s.ee) / std::sqrt(s.aa);
  return std::clamp(1.0 - similarity, 0.0, 2.0);
}

double noiseRatio(const Sums& s) {
  if (s.dd != s.dd || s.ee != s.ee) return kNaN;
  if (s.dd == 0) return kInf;
  if (s.ee == 0) return -kInf;
  return 10.0 * std::log10(s.ee / s.dd);
}

}  // namespace

Status compareTensors(Comparison& out, const Tensor& expected, const Tensor& actual, const CompareOptions& options) {
  KORA_RETURN_IF_ERROR(checkOptions(options));
  KORA_RETURN_IF_ERROR(checkOperands(expected, actual, true));
  Comparison c;
  c.expectedType = expected.type();
  c.actualType = actual.type();
  c.options = options;
  c.elements = expected.isEmpty() ? 0 : expected.numElements();
  c.signalQuantizationNoiseRatio = kInf;

  Pass pass(options, false, 1.0);
  pass.run(expected, actual);
  Sums sums = pass.sums;
  double scale = 1.0;
  const double largest = pass.maxAbsValue;
  if (largest <= DBL_MAX &&
      (largest > std::ldexp(1.0, kScaleExponent) || (largest > 0 && largest < std::ldexp(1.0, -kScaleExponent)))) {
    scale = std::ldexp(1.0, -std::ilogb(largest));
    Pass scaled(options, true, scale);
    scaled.run(expected, actual);
    sums = scaled.sums;
  }

  c.mismatches = pass.mismatches;
  c.allClose = pass.mismatches == 0;
  pass.histogram(c.equalCount, c.decades, c.infiniteCount, c.nanCount);
  c.allIdentical =
      expected.elementType() == actual.elementType() && c.equalCount == c.elements && sameBytes(expected, actual);
  if (c.elements > 0) {
    c.rootMeanSquareDeviation = std::sqrt(sums.dd / double(c.elements)) / scale;
    c.maximumQuantizationNoise = c.nanCount > 0 ? kNaN : pass.maxAbsDifference;
    c.cosineDistance = cosineDistance(sums);
    c.signalQuantizationNoiseRatio = noiseRatio(sums);
  }
  c.worstAreMismatches = c.mismatches > 0;
  const std::vector<long> elementStrides = getStrides(expected.shape(), 1);
  for (const auto& entry : (c.worstAreMismatches ? pass.mismatchList : pass.differenceList).sorted())
    c.worst.push_back({getCoord(entry.index, expected.shape(), elementStrides), entry.expected, entry.actual,
                       entry.difference, entry.close});
  out = std::move(c);
  return Status::success();
}

namespace {

template <class F>
Status oneMetric(const Tensor& expected, const Tensor& actual, const CompareOptions& options, F&& take) {
  Comparison c;
  KORA_RETURN_IF_ERROR(compareTensors(c, expected, actual, options));
  take(c);
  return Status::success();
}

CompareOptions metricsOnly() {
  CompareOptions o;
  o.worstCount = 0;
  return o;
}

}  // namespace

Status AllClose(bool& result, const Tensor& expected, const Tensor& actual, double rtol, double atol, bool equalNan) {
  CompareOptions o = metricsOnly();
  o.rtol = rtol;
  o.atol = atol;
  o.equalNan = equalNan;
  return oneMetric(expected, actual, o, [&](const Comparison& c) { result = c.allClose; });
}

Status AllIdentical(bool& result, const Tensor& expected, const Tensor& actual) {
  KORA_RETURN_IF_ERROR(checkOperands(expected, actual, false));
  result = expected.elementType() == actual.elementType() && sameBytes(expected, actual);
  return Status::success();
}

Status CosineDistance(double& result, const Tensor& expected, const Tensor& actual) {
  return oneMetric(expected, actual, metricsOnly(), [&](const Comparison& c) { result = c.cosineDistance; });
}

Status RootMeanSquareDeviation(double& result, const Tensor& expected, const Tensor& actual) {
  return oneMetric(expected, actual, metricsOnly(), [&](const Comparison& c) { result = c.rootMeanSquareDeviation; });
}

Status MaximumQuantizationNoise(double& result, const Tensor& expected, const Tensor& actual) {
  return oneMetric(expected, actual, metricsOnly(), [&](const Comparison& c) { result = c.maximumQuantizationNoise; });
}

Status SignalQuantizationNoiseRatio(double& result, const Tensor& expected, const Tensor& actual) {
  return oneMetric(expected, actual, metricsOnly(), [&](const Comparison& c) { result = c.signalQuantizationNoiseRatio; });
}

}  // namespace kora
