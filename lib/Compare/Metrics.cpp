#include "kora/Compare/Metrics.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <cstring>
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

// -------------------------------------------------------- histogram decades

/// floor(log10(x)) for finite x > 0: a guess from the binary exponent, then
/// one correction against the double nearest each power of ten (which is
/// what "1e-7" means to a reader).
class Decades {
 public:
  static constexpr int kLowest = -324, kHighest = 308;

  static const Decades& get() {
    static const Decades table;
    return table;
  }

  int of(double x) const {
    const auto biased = static_cast<unsigned>((std::bit_cast<uint64_t>(x) >> 52) & 0x7ff);
    int k = guess_[biased];
    while (k < kHighest && x >= power(k + 1)) ++k;
    while (k > kLowest && x < power(k)) --k;
    return k;
  }

 private:
  Decades() {
    for (int k = kLowest; k <= kHighest; ++k) powers_[k - kLowest] = std::strtod(fmt::format("1e{}", k).c_str(), nullptr);
    for (int biased = 0; biased < 2048; ++biased) {
      // The smallest value with this exponent is 2^(biased - 1023) (2^-1074 for subnormals).
      const int e2 = biased == 0 ? -1074 : biased - 1023;
      guess_[biased] = short(std::clamp(int(std::floor(e2 * 0.30102999566398120)), kLowest, kHighest));
    }
  }
  double power(int k) const { return powers_[k - kLowest]; }

  std::array<double, kHighest - kLowest + 1> powers_{};
  std::array<short, 2048> guess_{};
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

  explicit WorstList(long capacity) : capacity_(std::size_t(capacity)) { entries_.reserve(capacity_); }

  /// Whether an element with this key would be kept.
  bool wants(double key) const { return capacity_ > 0 && (entries_.size() < capacity_ || key > entries_.front().key); }

  void add(const Entry& e) {
    if (entries_.size() == capacity_) {
      std::pop_heap(entries_.begin(), entries_.end(), keepsBetter);
      entries_.pop_back();
    }
    entries_.push_back(e);
    std::push_heap(entries_.begin(), entries_.end(), keepsBetter);
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
  std::vector<Entry> entries_;
};

/// Four partial sums per quantity, so that the additions of neighbouring
/// elements do not wait for each other; the order stays fixed.
struct Sums {
  double ee = 0, aa = 0, ea = 0, dd = 0;
  void add(const Sums& s) {
    ee += s.ee;
    aa += s.aa;
    ea += s.ea;
    dd += s.dd;
  }
};

class Pass {
  const CompareOptions& o_;
  const bool sumsOnly_;
  const double scale_;
  const Decades& decades_;

 public:
  Pass(const CompareOptions& o, bool sumsOnly, double scale)
      : o_(o), sumsOnly_(sumsOnly), scale_(scale), decades_(Decades::get()), mismatchList_(sumsOnly ? 0 : o.worstCount),
        differenceList_(sumsOnly ? 0 : o.worstCount) {}

  void run(const Tensor& expected, const Tensor& actual) {
    const Loader loadE = loaderFor(expected.elementType()), loadA = loaderFor(actual.elementType());
    alignas(64) double e[kBlock], a[kBlock];
    StridedWalk<2>::over(expected, actual).forEachChunk([&](char* const* p, const long* s, long n) {
      for (long start = 0; start < n; start += kBlock) {
        const long count = std::min(kBlock, n - start);
        loadE(p[0] + start * s[0], s[0], count, scale_, e);
        loadA(p[1] + start * s[1], s[1], count, scale_, a);
        block(e, a, count);
      }
    });
  }

  Sums sums;
  double maxAbsExpected = 0, maxAbsActual = 0, maxAbsDifference = 0;
  long mismatches = 0, equal = 0, infinite = 0, nan = 0;
  std::map<int, long> decades;
  WorstList mismatchList_, differenceList_;

 private:
  void block(const double* e, const double* a, long n) {
    double ee[4] = {}, aa[4] = {}, ea[4] = {}, dd[4] = {};
    double maxE = maxAbsExpected, maxA = maxAbsActual, maxD = maxAbsDifference;
    long i = 0;
    for (; i + 4 <= n; i += 4)
      for (int lane = 0; lane < 4; ++lane) element(e[i + lane], a[i + lane], i + lane, ee[lane], aa[lane], ea[lane], dd[lane], maxE, maxA, maxD);
    for (int lane = 0; i < n; ++i, ++lane) element(e[i], a[i], i, ee[lane], aa[lane], ea[lane], dd[lane], maxE, maxA, maxD);
    sums.add({(ee[0] + ee[1]) + (ee[2] + ee[3]), (aa[0] + aa[1]) + (aa[2] + aa[3]),
              (ea[0] + ea[1]) + (ea[2] + ea[3]), (dd[0] + dd[1]) + (dd[2] + dd[3])});
    maxAbsExpected = maxE;
    maxAbsActual = maxA;
    maxAbsDifference = maxD;
    index_ += n;
  }

  inline void element(double e, double a, long i, double& ee, double& aa, double& ea, double& dd, double& maxE,
                      double& maxA, double& maxD) {
    const bool same = e == a;
    const bool bothNaN = e != e && a != a;
    const double d = same || bothNaN ? 0.0 : a - e;
    ee += e * e;
    aa += a * a;
    ea += e * a;
    dd += d * d;
    if (sumsOnly_) return;
    const double ae = std::fabs(e), aA = std::fabs(a), ad = std::fabs(d);
    maxE = ae > maxE ? ae : maxE;
    maxA = aA > maxA ? aA : maxA;
    maxD = ad > maxD ? ad : maxD;
    const bool finite = ae <= DBL_MAX && aA <= DBL_MAX;
    const bool close = same || (finite && ad <= o_.atol + o_.rtol * ae) || (o_.equalNan && bothNaN);
    mismatches += !close;
    if (d == 0) {
      ++equal;
      return;
    }
    different(e, a, d, ad, close, index_ + i);
  }

  // An element whose difference is not zero: histogram and worst lists.
  void different(double e, double a, double d, double ad, bool close, long index) {
    double key = ad;
    if (ad != ad) {
      ++nan;
      key = kInf;
    } else if (ad > DBL_MAX) {
      ++infinite;
    } else {
      const int k = decades_.of(ad);
      if (k == lastDecade_) {
        ++*lastCount_;
      } else {
        lastDecade_ = k;
        lastCount_ = &decades[k];
        ++*lastCount_;
      }
    }
    if (differenceList_.wants(key)) differenceList_.add({key, index, e, a, d, close});
    if (!close && mismatchList_.wants(key)) mismatchList_.add({key, index, e, a, d, close});
  }

  long index_ = 0;
  int lastDecade_ = Decades::kLowest - 1;
  long* lastCount_ = nullptr;
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
  const double largest = std::max(pass.maxAbsExpected, pass.maxAbsActual);
  if (largest <= DBL_MAX &&
      (largest > std::ldexp(1.0, kScaleExponent) || (largest > 0 && largest < std::ldexp(1.0, -kScaleExponent)))) {
    scale = std::ldexp(1.0, -std::ilogb(largest));
    Pass scaled(options, true, scale);
    scaled.run(expected, actual);
    sums = scaled.sums;
  }

  c.mismatches = pass.mismatches;
  c.allClose = pass.mismatches == 0;
  c.allIdentical =
      expected.elementType() == actual.elementType() && pass.equal == c.elements && sameBytes(expected, actual);
  if (c.elements > 0) {
    c.rootMeanSquareDeviation = std::sqrt(sums.dd / double(c.elements)) / scale;
    c.maximumQuantizationNoise = pass.nan > 0 ? kNaN : pass.maxAbsDifference;
    c.cosineDistance = cosineDistance(sums);
    c.signalQuantizationNoiseRatio = noiseRatio(sums);
  }
  c.worstAreMismatches = c.mismatches > 0;
  const std::vector<long> elementStrides = getStrides(expected.shape(), 1);
  for (const auto& entry : (c.worstAreMismatches ? pass.mismatchList_ : pass.differenceList_).sorted())
    c.worst.push_back({getCoord(entry.index, expected.shape(), elementStrides), entry.expected, entry.actual,
                       entry.difference, entry.close});
  c.equalCount = pass.equal;
  c.decades = std::move(pass.decades);
  c.infiniteCount = pass.infinite;
  c.nanCount = pass.nan;
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
