// The element loops against a coordinate-by-coordinate reference (getCoord
// and Tensor::at), over every operand layout their fast paths distinguish.
#include <gtest/gtest.h>

#include <numeric>

#include "TestUtil.h"

using namespace kora;
using test::valuesOf;

namespace {

std::vector<std::vector<long>> coordinatesOf(ArrayRef<long> shape) {
  std::vector<std::vector<long>> all;
  const auto strides = getStrides(shape, 1);
  long count = 1;
  for (long s : shape) count *= s;
  for (long i = 0; i < count; ++i) all.push_back(getCoord(i, shape, strides));
  return all;
}

// A compact tensor whose elements are 1, 2, 3 ... scaled by `scale`.
Tensor counting(std::vector<long> shape, int32_t scale) {
  Tensor t = Tensor::create(ElementType::si32, shape);
  auto data = t.data<int32_t>();
  for (size_t i = 0; i < data.size(); ++i) data[i] = int32_t(i + 1) * scale;
  return t;
}

// Operand layouts of shape [6, 40]: the loops' fast paths are chosen per run.
struct Layout {
  const char* what;
  Tensor view;
};

std::vector<Layout> layoutsOf40(int32_t scale) {
  Tensor column = counting({6, 1}, scale), row = counting({40}, scale), one = counting({1}, scale);
  return {
      {"compact", counting({6, 40}, scale)},
      {"transposed", counting({40, 6}, scale).permute({1, 0})},
      {"sliced", counting({6, 90}, scale).slice(1, 5, 85, 2)},
      {"broadcast row", Tensor({6, 40}, {0, 4}, ElementType::si32, 0, row.storage())},
      {"broadcast column", Tensor({6, 40}, {4, 0}, ElementType::si32, 0, column.storage())},
      {"broadcast scalar", Tensor({6, 40}, {0, 0}, ElementType::si32, 0, one.storage())},
  };
}

}  // namespace

TEST(ElementLoop, ZipReadsEveryLayoutPairAtTheSameCoordinate) {
  const std::vector<long> shape = {6, 40};
  for (const Layout& a : layoutsOf40(1)) {
    for (const Layout& b : layoutsOf40(1000)) {
      for (bool transposedOut : {false, true}) {
        SCOPED_TRACE(std::string(a.what) + " with " + b.what + (transposedOut ? ", transposed output" : ""));
        Tensor storage = Tensor::create(ElementType::si32, transposedOut ? std::vector<long>{40, 6} : shape);
        Tensor out = transposedOut ? storage.permute({1, 0}) : storage;
        zipElements<int32_t, int32_t, int32_t>(out, a.view, b.view, [](int32_t x, int32_t y) { return x * 3 + y; });
        for (const auto& c : coordinatesOf(shape))
          ASSERT_EQ(out.at<int32_t>(c), a.view.at<int32_t>(c) * 3 + b.view.at<int32_t>(c)) << c[0] << "," << c[1];
      }
    }
  }
}

TEST(ElementLoop, Zip3ReadsThreeOperandsAtTheSameCoordinate) {
  const std::vector<long> shape = {6, 40};
  const auto as = layoutsOf40(1), bs = layoutsOf40(1000), cs = layoutsOf40(100000);
  for (size_t i = 0; i < as.size(); ++i) {
    const Layout& a = as[i];
    const Layout& b = bs[(i + 1) % bs.size()];
    const Layout& c = cs[(i + 3) % cs.size()];
    SCOPED_TRACE(std::string(a.what) + ", " + b.what + ", " + c.what);
    Tensor out = Tensor::create(ElementType::si64, shape);
    zip3Elements<int64_t, int32_t, int32_t, int32_t>(out, a.view, b.view, c.view,
                                                      [](int32_t x, int32_t y, int32_t z) { return int64_t(x) + y + z; });
    for (const auto& k : coordinatesOf(shape))
      ASSERT_EQ(out.at<int64_t>(k), int64_t(a.view.at<int32_t>(k)) + b.view.at<int32_t>(k) + c.view.at<int32_t>(k));
  }
}

TEST(ElementLoop, ComputedHalfLoopsEqualElementByElementConversion) {
  // Runs longer than one conversion block, not multiples of 8, compact and
  // strided, with NaNs and infinities among ordinary values.
  const long n = 700;
  Tensor a = Tensor::create(ElementType::f16, {2, n}), b = Tensor::create(ElementType::f16, {n, 2});
  auto fill = [](Tensor& t, uint32_t seed) {
    auto d = t.data<half>();
    for (size_t i = 0; i < d.size(); ++i) d[i] = half::fromBits(uint16_t((i * 2654435761u + seed) >> 7));
  };
  fill(a, 1);
  fill(b, 2);
  auto op = [](float x, float y) { return x * 0.75f - y; };
  struct Case {
    const char* what;
    Tensor lhs, rhs, out;
  };
  Tensor strided = Tensor::create(ElementType::f16, {2, 2 * n});
  const Case cases[] = {
      {"compact with broadcast row", a, a.slice(0, 1, 2), Tensor::create(ElementType::f16, {2, n})},
      {"transposed rhs", a, b.permute({1, 0}), Tensor::create(ElementType::f16, {2, n})},
      {"strided output", a, b.permute({1, 0}), strided.slice(1, 0, 2 * n, 2)},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Tensor rhs = c.rhs;
    ASSERT_TRUE(native::broadcastTo(c.out.shape(), rhs).ok());
    zipComputed<half>(c.out, c.lhs, rhs, op);
    for (const auto& k : coordinatesOf(c.out.shape())) {
      const float expected = op(halfBitsToFloat(c.lhs.at<half>(k).bits), halfBitsToFloat(rhs.at<half>(k).bits));
      ASSERT_EQ(c.out.at<half>(k).bits, floatToHalfBits(expected)) << k[0] << "," << k[1];
    }
    Tensor single = Tensor::create(ElementType::f16, c.out.shape());
    mapComputed<half>(single, rhs, [](float x) { return x / 3.0f; });
    for (const auto& k : coordinatesOf(c.out.shape()))
      ASSERT_EQ(single.at<half>(k).bits, floatToHalfBits(halfBitsToFloat(rhs.at<half>(k).bits) / 3.0f));
  }
}
