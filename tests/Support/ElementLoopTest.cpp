// The strided walk and the element loops built on it against a
// coordinate-by-coordinate reference (getCoord and Tensor::at), over every
// operand layout their fast paths distinguish.
#include <gtest/gtest.h>

#include <algorithm>

#include "TestUtil.h"

using namespace kora;

namespace {

std::vector<std::vector<long>> coordinatesOf(ArrayRef<long> shape) {
  std::vector<std::vector<long>> all;
  long count = 1;
  for (long s : shape) count *= s;
  for (long i = 0; i < count; ++i) all.push_back(getCoord(i, shape, getStrides(shape, 1)));
  return all;
}

using Visits = std::vector<std::pair<long, long>>;

// Every (output offset, input offset) pair a walk visits, in order.
Visits visits(const Tensor& out, const Tensor& in, bool anyOrder = false) {
  Visits v;
  const char *o0 = out.storage()->data() + out.offset(), *i0 = in.storage()->data() + in.offset();
  auto each = [&](char* const* p, const long* s, long n) {
    for (long j = 0; j < n; ++j) v.emplace_back(p[0] + j * s[0] - o0, p[1] + j * s[1] - i0);
  };
  anyOrder ? StridedWalk<2>::over(out, in).forEachChunkAnyOrder(each) : StridedWalk<2>::over(out, in).forEachChunk(each);
  return v;
}

// The same pairs computed coordinate by coordinate, in row-major order.
Visits reference(const Tensor& out, const Tensor& in) {
  Visits v;
  for (const auto& c : coordinatesOf(out.shape())) {
    long o = 0, n = 0;
    for (size_t d = 0; d < c.size(); ++d) o += c[d] * out.strides()[d], n += c[d] * in.strides()[d];
    v.emplace_back(o, n);
  }
  return v;
}

// A compact si32 tensor whose elements are 1, 2, 3 ... scaled by `scale`.
Tensor counting(std::vector<long> shape, int32_t scale) {
  Tensor t = Tensor::create(ElementType::si32, shape);
  auto data = t.data<int32_t>();
  for (size_t i = 0; i < data.size(); ++i) data[i] = int32_t(i + 1) * scale;
  return t;
}

// Operand layouts of shape [6, 40]: the loops' fast paths are chosen per run.
std::vector<std::pair<const char*, Tensor>> layoutsOf40(int32_t scale) {
  Tensor column = counting({6, 1}, scale), row = counting({40}, scale);
  return {{"compact", counting({6, 40}, scale)},
          {"transposed", counting({40, 6}, scale).permute({1, 0})},
          {"broadcast row", Tensor({6, 40}, {0, 4}, ElementType::si32, 0, row.storage())},
          {"broadcast column", Tensor({6, 40}, {4, 0}, ElementType::si32, 0, column.storage())}};
}

}  // namespace

TEST(StridedWalk, MergesWhereEveryOperandIsContiguousAndTilesTransposedOperands) {
  // (The zips below check that every layout is walked coordinate by coordinate.)
  // Compact operands take the fast path: one run over everything.
  Tensor compact = Tensor::create(ElementType::f32, {2, 3, 1, 4, 5});
  EXPECT_EQ(StridedWalk<2>::over(compact, compact).mergedRank(), 1u);
  Tensor empty = Tensor::create(ElementType::f32, {3, 0, 2}), scalar = Tensor::create(ElementType::f32, {});
  EXPECT_TRUE(visits(empty, empty).empty());
  EXPECT_EQ(visits(scalar, scalar), (Visits{{0, 0}}));
  // A transposed operand is walked in tiles; with extents that are not
  // multiples of the tile, every pair must still come exactly once.
  Tensor in = Tensor::create(ElementType::f32, {3, 700, 37}).permute({0, 2, 1}), out = Tensor::create(ElementType::f32, {3, 37, 700});
  Visits seen = visits(out, in, true), expected = reference(out, in);
  EXPECT_EQ(visits(out, in), expected) << "row-major order unless asked otherwise";
  EXPECT_NE(seen, expected) << "expected a tiled order for a transposed operand";
  std::sort(seen.begin(), seen.end());
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(seen, expected);
}

// (zip3Elements shares the walk; the Where tests cover it.)
TEST(ElementLoop, ZipsReadEveryLayoutAtTheSameCoordinate) {
  const std::vector<long> shape = {6, 40};
  const auto as = layoutsOf40(1), bs = layoutsOf40(1000);
  for (size_t i = 0; i < as.size(); ++i) {
    for (size_t j = 0; j < bs.size(); ++j) {
      const Tensor &a = as[i].second, &b = bs[j].second;
      for (bool transposedOut : {false, true}) {
        SCOPED_TRACE(std::string(as[i].first) + " with " + bs[j].first + (transposedOut ? ", transposed output" : ""));
        Tensor storage = Tensor::create(ElementType::si32, transposedOut ? std::vector<long>{40, 6} : shape);
        Tensor out = transposedOut ? storage.permute({1, 0}) : storage;
        zipElements<int32_t, int32_t, int32_t>(out, a, b, [](int32_t x, int32_t y) { return x * 3 + y; });
        for (const auto& k : coordinatesOf(shape))
          ASSERT_EQ(out.at<int32_t>(k), a.at<int32_t>(k) * 3 + b.at<int32_t>(k)) << k[0] << "," << k[1];
      }
    }
  }
}

TEST(ElementLoop, ComputedHalfLoopsEqualElementByElementConversion) {
  // Runs longer than one conversion block, not multiples of 8, compact and
  // strided, with NaNs and infinities among ordinary values.
  const long n = 700;
  Tensor a = Tensor::create(ElementType::f16, {2, n}), b = Tensor::create(ElementType::f16, {n, 2});
  for (Tensor* t : {&a, &b}) {
    auto d = t->data<half>();
    for (size_t i = 0; i < d.size(); ++i) d[i] = half::fromBits(uint16_t((i * 2654435761u + (t == &b)) >> 7));
  }
  auto op = [](float x, float y) { return x * 0.75f - y; };
  Tensor strided = Tensor::create(ElementType::f16, {2, 2 * n});
  struct Case { const char* what; Tensor rhs, out; };
  const Case cases[] = {
      {"compact with broadcast row", a.slice(0, 1, 2), Tensor::create(ElementType::f16, {2, n})},
      {"transposed rhs, strided output", b.permute({1, 0}), strided.slice(1, 0, 2 * n, 2)},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Tensor rhs = c.rhs;
    ASSERT_TRUE(native::broadcastTo(c.out.shape(), rhs).ok());
    zipComputed<half>(c.out, a, rhs, op);
    Tensor single = Tensor::create(ElementType::f16, c.out.shape());
    mapComputed<half>(single, rhs, [](float x) { return x / 3.0f; });
    for (const auto& k : coordinatesOf(c.out.shape())) {
      const float x = halfBitsToFloat(a.at<half>(k).bits), y = halfBitsToFloat(rhs.at<half>(k).bits);
      ASSERT_EQ(c.out.at<half>(k).bits, floatToHalfBits(op(x, y))) << k[0] << "," << k[1];
      ASSERT_EQ(single.at<half>(k).bits, floatToHalfBits(y / 3.0f));
    }
  }
}
