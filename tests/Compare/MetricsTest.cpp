#include <gtest/gtest.h>

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
  // References from 40-digit decimal arithmetic.
  struct Case { const char* what; Tensor expected, actual; double cosine, rmsd, maxNoise, sqnr; long mismatches; bool identical; };
  const Case cases[] = {
      {"one element off by one", f32({4}, {1, 2, 3, 4}), f32({4}, {1, 2, 3, 5}), 0.0060009114520335566506, 0.5, 1,
       14.771212547196624, 1, false},
      {"f16 against f32", tensorOf<uint16_t>(ElementType::f16, {3}, {0x3800, 0xbc00, 0x4000}),  // 0.5, -1, 2
       f32({3}, {0.25f, -1.f, 2.5f}), 0.011461696640956047584, 0.32274861218395140710, 0.5, 12.253092817258628536, 2, false},
      {"si8 against ui8 reads values, not bytes", tensorOf<int8_t>(ElementType::si8, {3}, {-1, 0, 127}),
       tensorOf<uint8_t>(ElementType::ui8, {3}, {255, 0, 127}), 0.56125293228304328817, 147.80166891254419571, 256,
       -6.0884556323473760282, 1, false},
      {"bool8", tensorOf<uint8_t>(ElementType::bool8, {2}, {1, 0}), tensorOf<uint8_t>(ElementType::bool8, {2}, {3, 1}),
       1 - 1 / std::sqrt(2.0), std::sqrt(0.5), 1, 0, 1, false},
      {"both all zeros", f64({2}, {0, 0}), f64({2}, {0, 0}), 0, 0, 0, kInf, 0, true},
      {"zeros against ones", f64({2}, {0, 0}), f64({2}, {1, 1}), 1, 1, 1, -kInf, 2, false},
      {"ones against zeros", f64({2}, {1, 1}), f64({2}, {0, 0}), 1, 1, 1, 0, 2, false},
      {"opposite signs", f64({2}, {1, 2}), f64({2}, {-1, -2}), 2, std::sqrt(10.0), 4, 10 * std::log10(5.0 / 20.0), 2, false},
      {"no elements", Tensor::create(ElementType::f64, {0, 2}), Tensor::create(ElementType::f64, {0, 2}), 0, 0, 0, kInf, 0, true},
  };
  for (const Case& c : cases) {
    Comparison r = compare(c.expected, c.actual);
    // 1 - similarity cancels: its error is a few units of 1's last place.
    EXPECT_NEAR(r.cosineDistance, c.cosine, 5e-16) << c.what;
    expectNear(r.rootMeanSquareDeviation, c.rmsd, 1e-15, c.what);
    expectNear(r.maximumQuantizationNoise, c.maxNoise, 0, c.what);
    expectNear(r.signalQuantizationNoiseRatio, c.sqnr, 1e-14, c.what);
    EXPECT_EQ(r.mismatches, c.mismatches) << c.what;
    EXPECT_EQ(r.allClose, c.mismatches == 0) << c.what;
    EXPECT_EQ(r.allIdentical, c.identical) << c.what;
    // The single-metric functions agree with the combined pass.
    using Metric = Status (*)(double&, const Tensor&, const Tensor&);
    const std::pair<Metric, double> metrics[] = {{&CosineDistance, r.cosineDistance},
                                                 {&RootMeanSquareDeviation, r.rootMeanSquareDeviation},
                                                 {&MaximumQuantizationNoise, r.maximumQuantizationNoise},
                                                 {&SignalQuantizationNoiseRatio, r.signalQuantizationNoiseRatio}};
    for (auto [metric, combined] : metrics) {
      double value = -1;
      ASSERT_TRUE(metric(value, c.expected, c.actual).ok());
      expectNear(value, combined, 0, c.what);
    }
    bool close = !r.allClose, identical = !c.identical;
    ASSERT_TRUE(AllClose(close, c.expected, c.actual).ok() && AllIdentical(identical, c.expected, c.actual).ok());
    EXPECT_EQ(close, r.allClose) << c.what;
    EXPECT_EQ(identical, c.identical) << c.what;
  }
}

TEST(Metrics, AllCloseFollowsNumpysRuleAndAllIdenticalComparesBytes) {
  struct Case { double expected, actual, rtol, atol; bool equalNan, close; };
  const Case cases[] = {
      {1e10, 1.00001e10, 1e-5, 1e-8, false, true},  // |d| = 1e5 = rtol * |e|
      {1e10, 1.0000100001e10, 1e-5, 0, false, false},
      {1e-8, 1e-9, 1e-5, 1e-8, false, true},  // within atol
      {0, 1e-7, 1e-5, 1e-8, false, false},
      {100, 99, 0.01, 0, false, true},  // the tolerance scales with the expected value only
      {99, 100, 0.01, 0, false, false},
      {-0.0, 0.0, 0, 0, false, true},
      {kInf, kInf, 0, 0, false, true},
      {-kInf, kInf, 1, 1, false, false},
      {kInf, 1e308, 1, 1, false, false},  // |d| = inf <= atol + rtol * inf would hold: infinities must be equal
      {1e308, -1e308, 1, 1, false, false},  // the difference overflows to infinity
      {kNaN, kNaN, 1, 1, false, false},
      {kNaN, kNaN, 0, 0, true, true},
      {kNaN, 1, 1, 1, true, false},
      {1, kNaN, 1, 1, true, false},
  };
  for (const Case& c : cases) {
    // One element, and the same pair twice among many (the paired path).
    for (long n : {1, 9}) {
      std::vector<double> e(size_t(n), 1.0), a(size_t(n), 1.0);
      e[size_t(n / 2)] = e[size_t(n - 1)] = c.expected, a[size_t(n / 2)] = a[size_t(n - 1)] = c.actual;
      bool close = !c.close;
      ASSERT_TRUE(AllClose(close, f64({n}, e), f64({n}, a), c.rtol, c.atol, c.equalNan).ok());
      EXPECT_EQ(close, c.close) << c.expected << " vs " << c.actual << " rtol " << c.rtol << " atol " << c.atol << " n " << n;
    }
  }
  const uint32_t quietNaN = 0x7fc00000, otherNaN = 0x7fc00001, negativeZero = 0x80000000;
  struct Bytes { const char* what; Tensor expected, actual; bool identical, close; };
  const Bytes bytes[] = {
      {"same NaN bits", tensorOf<uint32_t>(ElementType::f32, {2}, {quietNaN, 1}), tensorOf<uint32_t>(ElementType::f32, {2}, {quietNaN, 1}), true, false},
      {"NaN payloads differ", tensorOf<uint32_t>(ElementType::f32, {1}, {quietNaN}), tensorOf<uint32_t>(ElementType::f32, {1}, {otherNaN}), false, false},
      {"signed zeros", tensorOf<uint32_t>(ElementType::f32, {1}, {negativeZero}), tensorOf<uint32_t>(ElementType::f32, {1}, {0}), false, true},
      {"equal values of different types", f32({2}, {1, 2}), f64({2}, {1, 2}), false, true},
      {"same bytes, different types", tensorOf<uint8_t>(ElementType::si8, {1}, {200}), tensorOf<uint8_t>(ElementType::ui8, {1}, {200}), false, false},
  };
  for (const Bytes& c : bytes) {
    Comparison r = compare(c.expected, c.actual);
    EXPECT_EQ(r.allIdentical, c.identical) << c.what;
    EXPECT_EQ(r.allClose, c.close) << c.what;
  }
  // Types with no numeric reading are compared byte for byte too.
  bool identical = false;
  Tensor a = tensorOf<uint16_t>(ElementType::opaque16, {2}, {1, 2}), b = tensorOf<uint16_t>(ElementType::opaque16, {2}, {1, 2});
  ASSERT_TRUE(AllIdentical(identical, a, b).ok());
  EXPECT_TRUE(identical);
  b.data<uint16_t>()[1] = 3;
  ASSERT_TRUE(AllIdentical(identical, a, b).ok());
  EXPECT_FALSE(identical);
}

TEST(Metrics, NonFiniteValuesAndExtremeMagnitudes) {
  // A NaN in both places is no difference; it still poisons the sums of the
  // cosine and the ratio's signal. Squares of 1e200 overflow double, squares
  // of 1e-200 underflow it: the sums are rescaled.
  struct Case { std::vector<double> expected, actual; double cosine, rmsd, maxNoise, sqnr, rel; };
  const Case cases[] = {
      {{kNaN, 1}, {kNaN, 1}, kNaN, 0, 0, kNaN, 0},
      {{1, 2}, {kNaN, 2}, kNaN, kNaN, kNaN, kNaN, 0},
      {{kInf, 1}, {kInf, 2}, kNaN, std::sqrt(0.5), 1, kInf, 1e-15},
      {{1, 2}, {kInf, 2}, kNaN, kInf, kInf, 10 * std::log10(5 / kInf), 0},
      {{1e200, -3e200}, {1.5e200, -3e200}, 0.010050506338833465839, 3.5355339059327376220e199, 0.5e200, 16.020599913279623904, 1e-12},
      {{1e-200, 2e-200}, {2e-200, 2e-200}, 1 - 6 / std::sqrt(40.0), 7.0710678118654752440e-201, 1e-200, 10 * std::log10(5.0), 1e-12},
  };
  for (const Case& c : cases) {
    const std::string what = ::testing::PrintToString(c.expected) + " vs " + ::testing::PrintToString(c.actual);
    Comparison r = compare(f64({2}, c.expected), f64({2}, c.actual));
    expectNear(r.cosineDistance, c.cosine, c.rel, what);
    expectNear(r.rootMeanSquareDeviation, c.rmsd, c.rel, what);
    expectNear(r.maximumQuantizationNoise, c.maxNoise, c.rel, what);
    expectNear(r.signalQuantizationNoiseRatio, c.sqnr, c.rel, what);
  }
}

TEST(Metrics, AgreeWithWiderArithmeticOnRandomData) {
  std::mt19937 rng(7);
  std::normal_distribution<float> value(0.f, 3.f), noise(0.f, 1e-3f);
  const long n = 100003;  // not a multiple of the block size
  std::vector<float> e(n), a(n);
  long double ee = 0, aa = 0, ea = 0, dd = 0, maxNoise = 0;
  for (long i = 0; i < n; ++i) {
    e[i] = value(rng);
    a[i] = e[i] + noise(rng);
    const long double x = e[i], y = a[i], d = y - x;
    ee += x * x, aa += y * y, ea += x * y, dd += d * d;
    maxNoise = std::max(maxNoise, std::fabs(d));
  }
  Comparison r = compare(f32({n}, e), f32({n}, a));
  expectNear(r.rootMeanSquareDeviation, double(std::sqrt(dd / n)), 1e-12, "rmsd");
  expectNear(r.signalQuantizationNoiseRatio, double(10 * std::log10(ee / dd)), 1e-12, "sqnr");
  // 1 - similarity loses digits to cancellation; compare the similarity instead.
  expectNear(1 - r.cosineDistance, double(ea / std::sqrt(ee * aa)), 1e-13, "similarity");
  EXPECT_EQ(r.maximumQuantizationNoise, double(maxNoise)) << "the largest difference is exact";
}

TEST(Metrics, SameBitsWhateverTheLayout) {
  // The same logical values stored transposed and compact: the sums are
  // blocked by row-major position, so every metric has the same bits.
  std::mt19937 rng(21);
  std::uniform_real_distribution<float> value(-2.f, 2.f), noise(-1e-3f, 1e-3f);
  std::vector<float> e(11 * 9 * 7), a(e.size());
  for (size_t i = 0; i < e.size(); ++i) e[i] = value(rng), a[i] = e[i] + noise(rng);
  Tensor ev = f32({11, 9, 7}, e).permute({2, 1, 0}), av = f32({11, 9, 7}, a).permute({2, 1, 0});
  Comparison strided = compare(ev, av), compact = compare(ev.contiguous(), av.contiguous());
  EXPECT_EQ(strided.cosineDistance, compact.cosineDistance);
  EXPECT_EQ(strided.rootMeanSquareDeviation, compact.rootMeanSquareDeviation);
  EXPECT_EQ(strided.signalQuantizationNoiseRatio, compact.signalQuantizationNoiseRatio);
  EXPECT_EQ(strided.maximumQuantizationNoise, compact.maximumQuantizationNoise);
  EXPECT_EQ(strided.mismatches, compact.mismatches);
  ASSERT_EQ(strided.worst.size(), compact.worst.size());
  for (size_t i = 0; i < strided.worst.size(); ++i) EXPECT_EQ(strided.worst[i].coord, compact.worst[i].coord);
  EXPECT_EQ(strided.decades, compact.decades);
  // Every element against a broadcast 3.5: differences -2.5 ... 2.5.
  Tensor transposed = f32({2, 3}, {1, 2, 3, 4, 5, 6}).permute({1, 0});
  EXPECT_TRUE(compare(f32({3, 2}, {1, 4, 2, 5, 3, 6}), transposed).allIdentical);
  Tensor broadcast(std::vector<long>{3, 2}, std::vector<long>{0, 0}, ElementType::f32, 0, f32({1}, {3.5f}).storage());
  Comparison r = compare(broadcast, transposed);
  EXPECT_EQ(r.maximumQuantizationNoise, 2.5);
  EXPECT_EQ(r.rootMeanSquareDeviation, std::sqrt((2.5 * 2.5 + 1.5 * 1.5 + 0.5 * 0.5) * 2 / 6));
  ASSERT_EQ(r.worst.size(), 6u);
  EXPECT_EQ(r.worst[0].coord, (std::vector<long>{0, 0}));  // 1 - 3.5, first of the two largest in row-major order
  EXPECT_EQ(r.worst[1].coord, (std::vector<long>{2, 1}));  // 6 - 3.5
}

TEST(Metrics, WorstElementsAndHistogram) {
  const double justBelow = std::nextafter(1e-3, 0.0);
  // Expected all zeros, so each difference is the actual value itself.
  std::vector<double> actual = {0, 1e-3, justBelow, -1, 9.999, 10, 5e-324, kNaN, kInf, -10, 0, 0};
  CompareOptions o;
  o.rtol = 0;
  o.atol = 0.01;
  o.worstCount = 4;
  Comparison r = compare(f64({2, 3, 2}, std::vector<double>(12, 0.0)), f64({2, 3, 2}, actual), o);
  EXPECT_EQ(r.mismatches, 6);
  EXPECT_TRUE(r.worstAreMismatches);
  // NaN and infinity rank first (in row-major order), then |d| = 10 twice.
  ASSERT_EQ(r.worst.size(), 4u);
  const std::vector<std::vector<long>> coords = {{1, 0, 1}, {1, 1, 0}, {0, 2, 1}, {1, 1, 1}};
  for (size_t i = 0; i < 4; ++i) EXPECT_EQ(r.worst[i].coord, coords[i]) << i;
  EXPECT_TRUE(std::isnan(r.worst[0].difference));
  EXPECT_EQ(r.worst[1].difference, kInf);
  EXPECT_EQ(r.worst[2].difference, 10);
  EXPECT_EQ(r.worst[3].difference, -10);
  EXPECT_EQ(r.worst[3].expected, 0);
  EXPECT_FALSE(r.worst[3].close);
  EXPECT_EQ(r.equalCount, 3);
  EXPECT_EQ(r.decades, (std::map<int, long>{{-324, 1}, {-4, 1}, {-3, 1}, {0, 2}, {1, 2}}));
  EXPECT_EQ(r.infiniteCount, 1);
  EXPECT_EQ(r.nanCount, 1);
  // With every element close, the list shows the largest differences.
  o.atol = 1;
  r = compare(f64({3}, {0, 0, 0}), f64({3}, {0.5, -0.75, 0}), o);
  EXPECT_FALSE(r.worstAreMismatches);
  ASSERT_EQ(r.worst.size(), 2u);
  EXPECT_EQ(r.worst[0].difference, -0.75);
  EXPECT_TRUE(r.worst[0].close);
}

TEST(Metrics, PrintedForms) {
  CompareOptions o;
  o.worstCount = 2;
  Comparison r = compare(f32({2, 2}, {1, 2, 3, 4}), f32({2, 2}, {1, 2.5f, 3, 3.75f}), o);
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
  DifferenceViewOptions v;
  v.worstRows = 1;
  v.histogramRows = 2;
  v.barWidth = 8;
  EXPECT_EQ(differenceView(compare(f64({10}, std::vector<double>(10, 0.0)), f64({10}, spread)), v),
            "worst mismatches (1 of 9):\n"
            "  coordinate  expected  actual  difference\n"
            "  [9]               0.      3.  3\n"
            "|difference| histogram (10 elements):\n"
            "  < 1e-01         8  ########\n"
            "  [1e-01, 1e+00)  1  #\n"
            "  [1e+00, 1e+01)  1  #\n");
  EXPECT_EQ(differenceView(compare(f64({2}, {1, 2}), f64({2}, {1, 2}))), "no differences: all 2 elements are equal\n");
  EXPECT_EQ(differenceView(compare(tensorOf<int32_t>(ElementType::si32, {1}, {-7}), tensorOf<int8_t>(ElementType::si8, {1}, {5}))),
            "worst mismatches (1 of 1):\n"
            "  coordinate  expected  actual  difference\n"
            "  [0]               -7       5  12\n"
            "|difference| histogram (1 elements):\n"
            "  [1e+01, 1e+02)  1  ########################################\n");
}

TEST(Metrics, MisuseIsReported) {
  Tensor a = f64({2, 3}, {1, 2, 3, 4, 5, 6});
  CompareOptions negativeRtol, nanAtol, negativeWorst;
  negativeRtol.rtol = -1;
  nanAtol.atol = kNaN;
  negativeWorst.worstCount = -1;
  struct Case { Tensor expected, actual; CompareOptions options; std::string message; };
  const Case cases[] = {
      {a, a.permute({1, 0}), {}, "shape mismatch: expected 2x3, actual 3x2"},
      {a, f64({}, {1}), {}, "shape mismatch: expected 2x3, actual ()"},
      {Tensor(), a, {}, "expected holds no data"},
      {a, Tensor(ElementType::f64, {2, 3}), {}, "actual holds no data"},
      {Tensor::create(ElementType::opaque8, {1}), Tensor::create(ElementType::si8, {1}), {}, "element type opaque8 of expected has no numeric reading"},
      {Tensor::create(ElementType::si8, {1}), Tensor::create(ElementType::tf32, {1}), {}, "element type tf32 of actual has no numeric reading"},
      {a, a, negativeRtol, "rtol must be a non-negative number"},
      {a, a, nanAtol, "atol must be a non-negative number"},
      {a, a, negativeWorst, "worstCount must not be negative"},
  };
  for (const Case& c : cases) {
    Comparison r;
    EXPECT_EQ(compareTensors(r, c.expected, c.actual, c.options).message(), c.message);
  }
  bool flag;
  EXPECT_EQ(AllIdentical(flag, a, f64({6}, {1, 2, 3, 4, 5, 6})).message(), "shape mismatch: expected 2x3, actual 6");
}
