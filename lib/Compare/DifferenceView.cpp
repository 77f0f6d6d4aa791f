// The printed forms of a Comparison: one line per metric, and the
// difference view (worst elements, then a histogram of |difference|).
#include <algorithm>
#include <cmath>

#include <fmt/format.h>

#include "kora/Compare/Metrics.h"
#include "kora/Core/Trace.h"
#include "kora/Io/TensorPrint.h"

namespace kora {

namespace {

std::string number(double x) {
  if (std::isnan(x)) return "nan";
  if (std::isinf(x)) return x < 0 ? "-inf" : "inf";
  return fmt::format("{:.6g}", x);
}

std::string coordText(const std::vector<long>& coord) { return fmt::format("{}", Coord(coord)); }

std::string decadeText(int k) { return k < 0 ? fmt::format("1e-{:02d}", -k) : fmt::format("1e+{:02d}", k); }

bool integral(ElementType type) { return isInteger(type); }

std::string differenceText(double d, const Comparison& c) {
  if (integral(c.expectedType.type()) && integral(c.actualType.type())) return formatValue(d, ElementType::si64);
  return number(d);
}

void appendWorst(std::string& out, const Comparison& c, const DifferenceViewOptions& o) {
  const long rows = std::min<long>(std::max(o.worstRows, 0l), long(c.worst.size()));
  if (rows == 0) return;
  const long pool = c.worstAreMismatches ? c.mismatches : c.elements - c.equalCount;
  out += c.worstAreMismatches ? fmt::format("worst mismatches ({} of {}):\n", rows, pool)
                              : fmt::format("largest differences, all within tolerance ({} of {}):\n", rows, pool);
  struct Row {
    std::string coord, expected, actual, difference;
  };
  std::vector<Row> table = {{"coordinate", "expected", "actual", "difference"}};
  for (long i = 0; i < rows; ++i) {
    const ElementDifference& w = c.worst[std::size_t(i)];
    table.push_back({coordText(w.coord), formatValue(w.expected, c.expectedType.type()),
                     formatValue(w.actual, c.actualType.type()), differenceText(w.difference, c)});
  }
  std::size_t width[4] = {};
  for (const Row& r : table) {
    width[0] = std::max(width[0], r.coord.size());
    width[1] = std::max(width[1], r.expected.size());
    width[2] = std::max(width[2], r.actual.size());
  }
  for (const Row& r : table)
    out += fmt::format("  {:<{}}  {:>{}}  {:>{}}  {}\n", r.coord, width[0], r.expected, width[1], r.actual, width[2],
                       r.difference);
}

void appendHistogram(std::string& out, const Comparison& c, const DifferenceViewOptions& o) {
  struct Bin {
    std::string label;
    long count;
  };
  std::vector<Bin> bins;
  if (c.equalCount) bins.push_back({"0 (equal)", c.equalCount});
  // Keep the highest decades; the lowest are merged into one row.
  const long keep = std::max(o.histogramRows, 1l);
  long merged = 0, index = 0;
  bool mergedWritten = false;
  const long decades = long(c.decades.size());
  for (const auto& [k, count] : c.decades) {
    if (index++ < decades - keep) {
      merged += count;
      continue;
    }
    if (merged && !mergedWritten) {
      bins.push_back({fmt::format("< {}", decadeText(k)), merged});
      mergedWritten = true;
    }
    bins.push_back({fmt::format("[{}, {})", decadeText(k), decadeText(k + 1)), count});
  }
  if (c.infiniteCount) bins.push_back({"inf", c.infiniteCount});
  if (c.nanCount) bins.push_back({"nan", c.nanCount});
  if (bins.empty()) return;
  long most = 0;
  std::size_t labelWidth = 0, countWidth = 0;
  for (const Bin& b : bins) {
    most = std::max(most, b.count);
    labelWidth = std::max(labelWidth, b.label.size());
    countWidth = std::max(countWidth, fmt::format("{}", b.count).size());
  }
  out += fmt::format("|difference| histogram ({} elements):\n", c.elements);
  for (const Bin& b : bins) {
    // Any non-empty bin gets at least one mark.
    const long bar = std::max(1l, long(double(b.count) / double(most) * double(std::max(o.barWidth, 1l)) + 0.5));
    out += fmt::format("  {:<{}}  {:>{}}  {}\n", b.label, labelWidth, b.count, countWidth, std::string(std::size_t(bar), '#'));
  }
}

}  // namespace

std::string formatMetrics(const Comparison& c) {
  const CompareOptions& o = c.options;
  std::string close = c.allClose ? fmt::format("yes (rtol {}, atol {})", number(o.rtol), number(o.atol))
                                 : fmt::format("no: {} of {} elements differ beyond rtol {}, atol {}", c.mismatches,
                                               c.elements, number(o.rtol), number(o.atol));
  std::string identical = c.allIdentical ? "yes"
                          : c.expectedType.type() != c.actualType.type()
                              ? fmt::format("no (element types {} and {})", elementTypeName(c.expectedType.type()),
                                            elementTypeName(c.actualType.type()))
                              : "no";
  std::string out;
  out += fmt::format("{:<30}{}\n", "AllClose", close);
  out += fmt::format("{:<30}{}\n", "AllIdentical", identical);
  out += fmt::format("{:<30}{}\n", "CosineDistance", number(c.cosineDistance));
  out += fmt::format("{:<30}{}\n", "RootMeanSquareDeviation", number(c.rootMeanSquareDeviation));
  out += fmt::format("{:<30}{}\n", "MaximumQuantizationNoise", number(c.maximumQuantizationNoise));
  out += fmt::format("{:<30}{} dB\n", "SignalQuantizationNoiseRatio", number(c.signalQuantizationNoiseRatio));
  return out;
}

std::string differenceView(const Comparison& c, const DifferenceViewOptions& o) {
  if (c.elements == 0) return "no elements to compare\n";
  if (c.equalCount == c.elements) return fmt::format("no differences: all {} elements are equal\n", c.elements);
  std::string out;
  appendWorst(out, c, o);
  appendHistogram(out, c, o);
  return out;
}

}  // namespace kora
