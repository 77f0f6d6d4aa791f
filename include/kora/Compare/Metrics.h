#pragma once
// Comparing a computed tensor with a reference one.
//
// Every metric takes two tensors of equal shape, `expected` (the reference)
// and `actual` (the result under test), of any numeric element types (f16,
// vbf16, f32, f64, si8 ... si64, ui8 ... ui64, bool8; the two may differ) and
// any strides. Each element is read as a double, exactly (64-bit integers
// beyond 2^53 round to the nearest double), and everything is computed in
// double. With e_i the expected and a_i the actual value of element i, over
// all n elements:
//
//  - the difference d_i = a_i - e_i, except that d_i = 0 when a_i == e_i
//    (equal infinities included) or when both are NaN;
//  - AllClose: true when every element is close, as numpy's
//    allclose(actual, expected): |a_i - e_i| <= atol + rtol * |e_i|, the
//    tolerance growing with the expected value. A pair holding an infinity
//    is close only when both are the same infinity; a NaN is close to
//    nothing, except to another NaN when `equalNan` is set;
//  - AllIdentical: true when both tensors have the same element type and
//    every element has the same bytes (so -0.0 differs from +0.0 and two NaNs
//    must have the same bits). It is the one metric that also serves types
//    with no numeric reading (opaque, cf8, ...);
//  - CosineDistance: 1 - sum(e a) / sqrt(sum(e^2) * sum(a^2)), clamped to
//    [0, 2]; 0 when both tensors are all zeros, 1 when exactly one is;
//  - RootMeanSquareDeviation: sqrt(sum(d^2) / n);
//  - MaximumQuantizationNoise: max |d_i|;
//  - SignalQuantizationNoiseRatio: 10 * log10(sum(e^2) / sum(d^2)) in dB;
//    +inf when sum(d^2) is 0 (no noise at all), -inf when the signal sum(e^2)
//    is 0 but the noise is not.
//
// Non-finite values follow IEEE arithmetic: a NaN difference (a NaN against a
// number) makes RootMeanSquareDeviation, MaximumQuantizationNoise and
// SignalQuantizationNoiseRatio NaN; a NaN or an infinity anywhere in either
// tensor makes CosineDistance NaN. Tensors with no elements agree: AllClose
// and AllIdentical are true, the distances 0 and the ratio +inf.
//
// The sums are taken in blocks of row-major positions, in an order fixed by
// the code, so a result is the same bits on every machine and whatever the
// operands' strides. When squares of the values would leave double's
// range (f64 data beyond about 1e120 or below 1e-120), the sums are taken
// again over the values scaled by a power of two, which changes no ratio.
//
// Misuse comes back as a failed Status: "shape mismatch: expected 2x3, actual
// 3x2", "expected holds no data", "element type opaque8 of actual has no
// numeric reading", "rtol must be a non-negative number".
#include <map>
#include <string>
#include <vector>

#include "kora/Core/Export.h"
#include "kora/Core/Tensor.h"
#include "kora/Kernel/Status.h"

namespace kora {

struct CompareOptions {
  double rtol = 1e-5;
  double atol = 1e-8;
  bool equalNan = false;
  /// How many of the worst elements compareTensors keeps.
  long worstCount = 10;
};

/// One element of the difference view.
struct ElementDifference {
  std::vector<long> coord;
  double expected = 0;
  double actual = 0;
  double difference = 0;  // d = actual - expected, as defined above
  bool close = false;
};

/// Everything compareTensors measures, in one pass over both tensors.
struct Comparison {
  TensorType expectedType, actualType;
  CompareOptions options;
  long elements = 0;
  /// Elements that are not close.
  long mismatches = 0;
  bool allClose = true;
  bool allIdentical = true;
  double cosineDistance = 0;
  double rootMeanSquareDeviation = 0;
  double maximumQuantizationNoise = 0;
  double signalQuantizationNoiseRatio = 0;
  /// The worst elements, largest |d| first (a NaN difference counts as the
  /// largest; ties keep row-major order): among the mismatches when there
  /// are any (worstAreMismatches), otherwise among all non-zero differences.
  std::vector<ElementDifference> worst;
  bool worstAreMismatches = false;
  /// Histogram of |d|: d == 0, each decade k counting |d| in [10^k, 10^(k+1)),
  /// infinite and NaN differences. Every element is in exactly one of them.
  long equalCount = 0;
  std::map<int, long> decades;
  long infiniteCount = 0;
  long nanCount = 0;
};

/// Compares `actual` against `expected` (see the definitions above).
KORA_API Status compareTensors(Comparison& out, const Tensor& expected, const Tensor& actual,
                               const CompareOptions& options = {});

/// One line per metric, e.g. "AllClose                      no: 2 of 6
/// elements differ beyond rtol 1e-05, atol 1e-08".
KORA_API std::string formatMetrics(const Comparison& comparison);

struct DifferenceViewOptions {
  /// Rows of the worst-elements table (at most comparison.worst.size()).
  long worstRows = 10;
  /// Decade rows of the histogram; lower decades beyond it are merged into
  /// one "below" row.
  long histogramRows = 12;
  /// Characters of the longest histogram bar.
  long barWidth = 40;
};

/// The printed difference view: the worst elements with their coordinates,
/// both values and the difference, then the histogram of |d|, every part
/// capped in length by `options`.
KORA_API std::string differenceView(const Comparison& comparison, const DifferenceViewOptions& options = {});

/// The metrics one by one. Each is a pass of its own over the tensors; to get
/// several at once, use compareTensors.
KORA_API Status AllClose(bool& result, const Tensor& expected, const Tensor& actual, double rtol = 1e-5,
                         double atol = 1e-8, bool equalNan = false);
KORA_API Status AllIdentical(bool& result, const Tensor& expected, const Tensor& actual);
KORA_API Status CosineDistance(double& result, const Tensor& expected, const Tensor& actual);
KORA_API Status RootMeanSquareDeviation(double& result, const Tensor& expected, const Tensor& actual);
KORA_API Status MaximumQuantizationNoise(double& result, const Tensor& expected, const Tensor& actual);
KORA_API Status SignalQuantizationNoiseRatio(double& result, const Tensor& expected, const Tensor& actual);

}  // namespace kora
