#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>

#include "TestUtil.h"

using namespace kora;

namespace {

// Every (output offset, input offset) pair the walk visits, in order.
std::vector<std::pair<long, long>> visits(const Tensor& out, const Tensor& in) {
  std::vector<std::pair<long, long>> v;
  const char* o0 = out.storage()->data() + out.offset();
  const char* i0 = in.storage()->data() + in.offset();
  StridedWalk<2>::over(out, in).forEachChunk([&](char* const* p, const long* s, long n) {
    for (long j = 0; j < n; ++j) v.emplace_back(p[0] + j * s[0] - o0, p[1] + j * s[1] - i0);
  });
  return v;
}

// The same pairs computed coordinate by coordinate with getCoord.
std::vector<std::pair<long, long>> reference(const Tensor& out, const Tensor& in) {
  std::vector<std::pair<long, long>> v;
  const auto elementStrides = getStrides(out.shape(), 1);
  for (long i = 0; i < out.numElements(); ++i) {
    const auto c = getCoord(i, out.shape(), elementStrides);
    long o = 0, n = 0;
    for (size_t d = 0; d < c.size(); ++d) {
      o += c[d] * out.strides()[d];
      n += c[d] * in.strides()[d];
    }
    v.emplace_back(o, n);
  }
  return v;
}

}  // namespace

TEST(StridedWalk, CompactTensorsOfAnyRankBecomeOneRun) {
  Tensor a = Tensor::create(ElementType::f32, {2, 3, 1, 4, 5});
  Tensor b = Tensor::create(ElementType::f32, {2, 3, 1, 4, 5});
  auto walk = StridedWalk<2>::over(a, b);
  EXPECT_EQ(walk.mergedRank(), 1u);
  long chunks = 0, elements = 0;
  walk.forEachChunk([&](char* const*, const long* s, long n) {
    ++chunks;
    elements += n;
    EXPECT_EQ(s[0], 4);
  });
  EXPECT_EQ(chunks, 1);
  EXPECT_EQ(elements, 120);
}

TEST(StridedWalk, VisitsEveryCoordinateInRowMajorOrder) {
  Tensor base = Tensor::create(ElementType::si32, {4, 6, 5});
  Tensor out = Tensor::create(ElementType::si32, {5, 6, 4});
  struct Case {
    const char* what;
    Tensor in;
  };
  Tensor row = Tensor::create(ElementType::si32, {4});
  const Case cases[] = {
      {"transposed", base.permute({2, 1, 0})},
      {"sliced", Tensor::create(ElementType::si32, {10, 6, 9}).slice(0, 1, 10, 2).slice(2, 0, 4)},
      {"broadcast row", Tensor({5, 6, 4}, {0, 0, 4}, ElementType::si32, 0, row.storage())},
      {"broadcast column", Tensor({5, 6, 4}, {4, 0, 0}, ElementType::si32, 0, base.storage())},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    ASSERT_EQ(c.in.shape().vec(), out.shape().vec());
    EXPECT_EQ(visits(out, c.in), reference(out, c.in));
  }
}

TEST(StridedWalk, TiledOrderVisitsEveryCoordinateOnce) {
  // Transposed operands are walked in tiles; with extents that are not
  // multiples of the tile, every pair must still come exactly once.
  Tensor base = Tensor::create(ElementType::f32, {3, 700, 37});
  Tensor in = base.permute({0, 2, 1});
  Tensor out = Tensor::create(ElementType::f32, {3, 37, 700});
  std::vector<std::pair<long, long>> seen;
  const char* o0 = out.storage()->data();
  const char* i0 = in.storage()->data();
  StridedWalk<2>::over(out, in).forEachChunkAnyOrder([&](char* const* p, const long* s, long n) {
    for (long j = 0; j < n; ++j) seen.emplace_back(p[0] + j * s[0] - o0, p[1] + j * s[1] - i0);
  });
  auto expected = reference(out, in);
  EXPECT_NE(seen, expected) << "expected a tiled order for a transposed operand";
  std::sort(seen.begin(), seen.end());
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(seen, expected);
}

TEST(StridedWalk, MergesOnlyWhereEveryOperandIsContiguous) {
  Tensor out = Tensor::create(ElementType::f32, {3, 4, 5});
  Tensor in = Tensor::create(ElementType::f32, {3, 4, 10}).slice(2, 0, 5);
  // The two inner axes stay apart (the input has a gap), the outer pair merges.
  EXPECT_EQ(StridedWalk<2>::over(out, in).mergedRank(), 2u);
  EXPECT_EQ(visits(out, in), reference(out, in));
}

TEST(StridedWalk, EmptyAndScalarShapes) {
  Tensor empty = Tensor::create(ElementType::f32, {3, 0, 2});
  long calls = 0;
  StridedWalk<2>::over(empty, empty).forEachChunk([&](char* const*, const long*, long) { ++calls; });
  EXPECT_EQ(calls, 0);
  Tensor scalar = Tensor::create(ElementType::f32, {});
  long elements = 0;
  StridedWalk<2>::over(scalar, scalar).forEachChunk([&](char* const*, const long*, long n) { elements += n; });
  EXPECT_EQ(elements, 1);
}
