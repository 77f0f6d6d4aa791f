#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>
#include <random>

#include "TestUtil.h"

using namespace kora;
using test::tensorOf;

namespace {

constexpr double kInf = std::numeric_limits<double>::infinity(), kNaN = std::numeric_limits<double>::quiet_NaN();

Comparison compare(const Tensor& e, const Tensor& a, CompareOptions o = {}) {
  Comparison c;
  Status s = compareTensors(c, e, a, o);
  EXPECT_TRUE(s.ok()) << s.message();
  return c;
}

Tensor f64(std::vector<long> shape, std::vector<double> v) { return tensorOf<double>(ElementType::f64, shape, v); }
Tensor f32(std::vector<long> shape, std::vector<float> v) { return tensorOf<float>(ElementType::f32, shape, v); }

/// Equal within `rel` of the reference, or both the same non-finite value.
void expectNear(double got, double want, double rel, const std::string& what) {
  if (!std::isfinite(want))
    EXPECT_TRUE(got == want || (std::isnan(got) && std::isnan(want))) << what << ": " << got << " vs " << want;
  else
    EXPECT_NEAR(got, want, std::fabs(want) * rel + 1e-300) << what;
}

}  // namespace

TEST(Metrics, HandWorkedValues) {
  // References from 40-digit decimal arithmetic. A NaN in both places is no
  // difference, yet it poisons the sums of the cosine and the ratio's signal;
  // squares of 1e200 overflow double and squares of 1e-200 underflow it: the
  // sums are rescaled.
  struct Case { const char* what; Tensor expected, actual; double cosine, rmsd, maxNoise, sqnr, rel; long mismatches; bool identical; };
  const Case cases[] = {
      {"si8 against ui8 reads values, not bytes", tensorOf<int8_t>(ElementType::si8, {3}, {-1, 0, 127}),
       tensorOf<uint8_t>(ElementType::ui8, {3}, {255, 0, 127}), 0.56125293228304328817, 147.80166891254419571, 256,
       -6.0884556323473760282, 1e-14, 1, false},
      {"bool8", tensorOf<uint8_t>(ElementType::bool8, {2}, {1, 0}), tensorOf<uint8_t>(ElementType::bool8, {2}, {3, 1}),
       1 - 1 / std::sqrt(2.0), std::sqrt(0.5), 1, 0, 1e-15, 1, false},
      {"both all zeros", f64({2}, {0, 0}), f64({2}, {0, 0}), 0, 0, 0, kInf, 0, 0, true},
      {"zeros against ones", f64({2}, {0, 0}), f64({2}, {1, 1}), 1, 1, 1, -kInf, 0, 2, false},
      {"opposite signs", f64({2}, {1, 2}), f64({2}, {-1, -2}), 2, std::sqrt(10.0), 4, 10 * std::log10(5.0 / 20.0), 1e-15, 2, false},
      {"no elements", Tensor::create(ElementType::f64, {0, 2}), Tensor::create(ElementType::f64, {0, 2}), 0, 0, 0, kInf, 0, 0, true},
      {"NaN in both (same bits)", f64({2}, {kNaN, 1}), f64({2}, {kNaN, 1}), kNaN, 0, 0, kNaN, 0, 1, true},
      {"signed zeros: equal values, other bytes", f64({1}, {-0.0}), f64({1}, {0.0}), 0, 0, 0, kInf, 0, 0, false},
      {"NaN in one", f64({2}, {1, 2}), f64({2}, {kNaN, 2}), kNaN, kNaN, kNaN, kNaN, 0, 1, false},
      {"infinity in one", f64({2}, {1, 2}), f64({2}, {kInf, 2}), kNaN, kInf, kInf, -kInf, 0, 1, false},
      {"huge", f64({2}, {1e200, -3e200}), f64({2}, {1.5e200, -3e200}), 0.010050506338833465839, 3.5355339059327376220e199, 0.5e200,
       16.020599913279623904, 1e-12, 1, false},
      {"tiny", f64({2}, {1e-200, 2e-200}), f64({2}, {2e-200, 2e-200}), 1 - 6 / std::sqrt(40.0), 7.0710678118654752440e-201, 1e-200,
       10 * std::log10(5.0), 1e-12, 0, false},
  };
  for (const Case& c : cases) {
    Comparison r = compare(c.expected, c.actual);
    // 1 - similarity cancels: its error is a few units of 1's last place.
    expectNear(r.cosineDistance, c.cosine, c.rel + 5e-16 / std::max(std::fabs(c.cosine), 1e-300), c.what);
    expectNear(r.rootMeanSquareDeviation, c.rmsd, c.rel, c.what);
    expectNear(r.maximumQuantizationNoise, c.maxNoise, c.rel, c.what);
    expectNear(r.signalQuantizationNoiseRatio, c.sqnr, c.rel, c.what);
    EXPECT_EQ(r.mismatches, c.mismatches) << c.what;
    EXPECT_EQ(r.allClose, c.mismatches == 0) << c.what;
    // AllIdentical has a pass of its own.
    bool identical = !c.identical;
    ASSERT_TRUE(AllIdentical(identical, c.expected, c.actual).ok());
    EXPECT_EQ(identical, c.identical) << c.what;
  }
}

TEST(Metrics, AllCloseFollowsNumpysRule) {
  struct Case { double expected, actual, rtol, atol; bool equalNan, close; };
  const Case cases[] = {
      {1e10, 1.00001e10, 1e-5, 1e-8, false, true},  // |d| = 1e5 = rtol * |e|
      {1e10, 1.0000100001e10, 1e-5, 0, false, false},
      {100, 99, 0.01, 0, false, true},  // the tolerance scales with the expected value only
      {99, 100, 0.01, 0, false, false},
      {kInf, kInf, 0, 0, false, true},
      {kInf, 1e308, 1, 1, false, false},  // |d| = inf <= atol + rtol * inf would hold: infinities must be equal
      {kNaN, kNaN, 1, 1, false, false},
      {kNaN, kNaN, 0, 0, true, true},
  };
  for (const Case& c : cases) {
    // One element, and the same pair twice among ten, where pairs of
    // elements are measured together.
    for (long n : {1, 10}) {
      std::vector<double> e(size_t(n), 1.0), a(size_t(n), 1.0);
      e[size_t(n / 2)] = e[size_t(n - 1)] = c.expected, a[size_t(n / 2)] = a[size_t(n - 1)] = c.actual;
      bool close = !c.close;
      ASSERT_TRUE(AllClose(close, f64({n}, e), f64({n}, a), c.rtol, c.atol, c.equalNan).ok());
      EXPECT_EQ(close, c.close) << c.expected << " vs " << c.actual << " rtol " << c.rtol << " atol " << c.atol << " n " << n;
    }
  }
  // AllIdentical also serves types with no numeric reading.
  bool identical = false;
  const Tensor opaque = tensorOf<uint16_t>(ElementType::opaque16, {2}, {1, 2});
  ASSERT_TRUE(AllIdentical(identical, opaque, tensorOf<uint16_t>(ElementType::opaque16, {2}, {1, 2})).ok());
  EXPECT_TRUE(identical);
}

TEST(Metrics, AgreeWithWiderArithmeticWhateverTheLayout) {
  // Random values stored transposed. The sums are blocked by row-major
  // position, so the view and its compact copy give the same bits; both
  // agree with long double sums.
  std::mt19937 rng(7);
  std::normal_distribution<float> value(0.f, 3.f), noise(0.f, 1e-3f);
  const long n = 7 * 14287;  // not a multiple of the block size
  std::vector<float> e(n), a(n);
  long double ee = 0, aa = 0, ea = 0, dd = 0, maxNoise = 0;
  for (long i = 0; i < n; ++i) {
    e[i] = value(rng);
    a[i] = e[i] + noise(rng);
    const long double x = e[i], y = a[i], d = y - x;
    ee += x * x, aa += y * y, ea += x * y, dd += d * d;
    maxNoise = std::max(maxNoise, std::fabs(d));
  }
  const Tensor expected = f32({n / 7, 7}, e).permute({1, 0}), actual = f32({n / 7, 7}, a).permute({1, 0});
  Comparison r = compare(expected, actual), compact = compare(expected.contiguous(), actual.contiguous());
  EXPECT_EQ(formatMetrics(r) + differenceView(r), formatMetrics(compact) + differenceView(compact));
  for (auto sum : {&Comparison::cosineDistance, &Comparison::signalQuantizationNoiseRatio, &Comparison::rootMeanSquareDeviation})
    EXPECT_EQ(std::bit_cast<uint64_t>(r.*sum), std::bit_cast<uint64_t>(compact.*sum));
  expectNear(r.rootMeanSquareDeviation, double(std::sqrt(dd / n)), 1e-12, "rmsd");
  expectNear(r.signalQuantizationNoiseRatio, double(10 * std::log10(ee / dd)), 1e-12, "sqnr");
  // 1 - similarity loses digits to cancellation; compare the similarity instead.
  expectNear(1 - r.cosineDistance, double(ea / std::sqrt(ee * aa)), 1e-13, "similarity");
  EXPECT_EQ(r.maximumQuantizationNoise, double(maxNoise)) << "the largest difference is exact";
  // The bytes of a transposed view are compared element by element.
  Tensor transposed = f32({2, 3}, {1, 2, 3, 4, 5, 6}).permute({1, 0});
  EXPECT_TRUE(compare(f32({3, 2}, {1, 4, 2, 5, 3, 6}), transposed).allIdentical);
}

TEST(Metrics, WorstElementsAndHistogram) {
  const double justBelow = std::nextafter(1e-3, 0.0);
  // Expected all zeros, so each difference is the actual value itself.
  std::vector<double> actual = {0, 1e-3, justBelow, -1, 9.999, 10, 5e-324, kNaN, kInf, -10, 0, 0};
  CompareOptions o{.rtol = 0, .atol = 0.01, .worstCount = 4};
  Comparison r = compare(f64({2, 3, 2}, std::vector<double>(12, 0.0)), f64({2, 3, 2}, actual), o);
  EXPECT_EQ(r.mismatches, 6);
  EXPECT_TRUE(r.worstAreMismatches);
  // NaN and infinity rank first (in row-major order), then |d| = 10 twice.
  std::vector<std::pair<std::vector<long>, std::string>> worst;
  for (const auto& w : r.worst) worst.emplace_back(w.coord, fmt::format("{} {} {}", w.expected, w.difference, w.close));
  EXPECT_EQ(worst, (decltype(worst){{{1, 0, 1}, "0 nan false"}, {{1, 1, 0}, "0 inf false"}, {{0, 2, 1}, "0 10 false"},
                                    {{1, 1, 1}, "0 -10 false"}}));
  EXPECT_EQ(r.decades, (std::map<int, long>{{-324, 1}, {-4, 1}, {-3, 1}, {0, 2}, {1, 2}}));
  EXPECT_EQ(std::vector<long>({r.equalCount, r.infiniteCount, r.nanCount}), std::vector<long>({3, 1, 1}));
}

TEST(Metrics, PrintedForms) {
  Comparison r = compare(f32({2, 2}, {1, 2, 3, 4}), f32({2, 2}, {1, 2.5f, 3, 3.75f}), {.worstCount = 2});
  EXPECT_EQ(formatMetrics(r),
            "AllClose                      no: 2 of 4 elements differ beyond rtol 1e-05, atol 1e-08\n"
            "AllIdentical                  no\n"
            "CosineDistance                0.00516799\n"
            "RootMeanSquareDeviation       0.279508\n"
            "MaximumQuantizationNoise      0.5\n"
            "SignalQuantizationNoiseRatio  19.8227 dB\n");
  EXPECT_EQ(differenceView(r),
            "worst mismatches (2 of 2):\n"
            "  coordinate  expected  actual  difference\n"
            "  [0, 1]            2.     2.5  0.5\n"
            "  [1, 1]            4.    3.75  -0.25\n"
            "|difference| histogram (4 elements):\n"
            "  0 (equal)       2  ########################################\n"
            "  [1e-01, 1e+00)  2  ########################################\n");
  // Every part is capped: rows of the table, and the lowest decades merge.
  std::vector<double> spread;
  for (int k = -9; k <= 0; ++k) spread.push_back(3 * std::pow(10.0, k));
  const std::string capped = differenceView(compare(f64({10}, std::vector<double>(10, 0.0)), f64({10}, spread)),
                                            {.worstRows = 1, .histogramRows = 2, .barWidth = 8});
  EXPECT_TRUE(capped.starts_with("worst mismatches (1 of 9):\n  coordinate  expected  actual  difference\n  [9] ")) << capped;
  EXPECT_TRUE(capped.ends_with("  < 1e-01         8  ########\n  [1e-01, 1e+00)  1  #\n  [1e+00, 1e+01)  1  #\n")) << capped;
  EXPECT_EQ(differenceView(compare(f64({2}, {1, 2}), f64({2}, {1, 2}))), "no differences: all 2 elements are equal\n");
}

TEST(Metrics, MisuseIsReported) {
  Tensor a = f64({2, 3}, {1, 2, 3, 4, 5, 6});
  struct Case { Tensor expected, actual; CompareOptions options; std::string message; };
  const Case cases[] = {
      {a, a.permute({1, 0}), {}, "shape mismatch: expected 2x3, actual 3x2"},
      {Tensor::create(ElementType::opaque8, {1}), Tensor::create(ElementType::si8, {1}), {}, "element type opaque8 of expected has no numeric reading"},
      {a, a, {.atol = kNaN}, "atol must be a non-negative number"},
  };
  for (const Case& c : cases) {
    Comparison r;
    EXPECT_EQ(compareTensors(r, c.expected, c.actual, c.options).message(), c.message);
  }
  bool flag;
  EXPECT_EQ(AllIdentical(flag, a, f64({6}, {1, 2, 3, 4, 5, 6})).message(), "shape mismatch: expected 2x3, actual 6");
}
