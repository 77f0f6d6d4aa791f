#include <gtest/gtest.h>

#include <algorithm>

#include "TestUtil.h"

using namespace kora;

namespace {

using Visits = std::vector<std::pair<long, long>>;

// Every (output offset, input offset) pair the walk visits, in order.
Visits visits(const Tensor& out, const Tensor& in, bool anyOrder = false) {
  Visits v;
  const char* o0 = out.storage()->data() + out.offset();
  const char* i0 = in.storage()->data() + in.offset();
  auto each = [&](char* const* p, const long* s, long n) {
    for (long j = 0; j < n; ++j) v.emplace_back(p[0] + j * s[0] - o0, p[1] + j * s[1] - i0);
  };
  anyOrder ? StridedWalk<2>::over(out, in).forEachChunkAnyOrder(each) : StridedWalk<2>::over(out, in).forEachChunk(each);
  return v;
}

// The same pairs computed coordinate by coordinate with getCoord.
Visits reference(const Tensor& out, const Tensor& in) {
  Visits v;
  for (long i = 0; i < out.numElements(); ++i) {
    const auto c = getCoord(i, out.shape(), getStrides(out.shape(), 1));
    long o = 0, n = 0;
    for (size_t d = 0; d < c.size(); ++d) o += c[d] * out.strides()[d], n += c[d] * in.strides()[d];
    v.emplace_back(o, n);
  }
  return v;
}

}  // namespace

TEST(StridedWalk, VisitsEveryCoordinateInRowMajorOrderMergingWhereEveryOperandIsContiguous) {
  Tensor base = Tensor::create(ElementType::si32, {4, 6, 5});
  Tensor out = Tensor::create(ElementType::si32, {5, 6, 4});
  Tensor row = Tensor::create(ElementType::si32, {4});
  Tensor compact = Tensor::create(ElementType::f32, {2, 3, 1, 4, 5});
  struct Case { const char* what; Tensor out, in; unsigned mergedRank; /* 0: not checked */ };
  const Case cases[] = {
      {"compact, any rank", compact, Tensor::create(ElementType::f32, {2, 3, 1, 4, 5}), 1},
      {"transposed", out, base.permute({2, 1, 0}), 3},
      {"sliced", out, Tensor::create(ElementType::si32, {10, 6, 9}).slice(0, 1, 10, 2).slice(2, 0, 4), 0},
      {"broadcast row", out, Tensor({5, 6, 4}, {0, 0, 4}, ElementType::si32, 0, row.storage()), 0},
      {"broadcast column", out, Tensor({5, 6, 4}, {4, 0, 0}, ElementType::si32, 0, base.storage()), 0},
      // the inner axes stay apart (the input has a gap), the outer pair merges
      {"gap", Tensor::create(ElementType::f32, {3, 4, 5}), Tensor::create(ElementType::f32, {3, 4, 10}).slice(2, 0, 5), 2},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    ASSERT_EQ(c.in.shape().vec(), c.out.shape().vec());
    EXPECT_EQ(visits(c.out, c.in), reference(c.out, c.in));
    if (c.mergedRank) {
      EXPECT_EQ(StridedWalk<2>::over(c.out, c.in).mergedRank(), c.mergedRank);
    }
  }
  // Empty shapes visit nothing, rank 0 one element.
  Tensor empty = Tensor::create(ElementType::f32, {3, 0, 2}), scalar = Tensor::create(ElementType::f32, {});
  EXPECT_TRUE(visits(empty, empty).empty());
  EXPECT_EQ(visits(scalar, scalar), (Visits{{0, 0}}));
}

TEST(StridedWalk, TiledOrderVisitsEveryCoordinateOnce) {
  // Transposed operands are walked in tiles; with extents that are not
  // multiples of the tile, every pair must still come exactly once.
  Tensor in = Tensor::create(ElementType::f32, {3, 700, 37}).permute({0, 2, 1});
  Tensor out = Tensor::create(ElementType::f32, {3, 37, 700});
  Visits seen = visits(out, in, true), expected = reference(out, in);
  EXPECT_NE(seen, expected) << "expected a tiled order for a transposed operand";
  std::sort(seen.begin(), seen.end());
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(seen, expected);
}
