// The integer post-process of both generations against hand-worked values,
// against a reference written with floor divisions (decoded rows taken as
// their encoding holds them, the encoded path alike), its tables, trace
// lines and checks.
#include <gtest/gtest.h>

#include "Vela/VelaTestUtil.h"

using namespace kora;
using namespace kora::test;

namespace {

template <class T>
T ppOne(const Generation& g, int32_t psum, const Row& row, bool relu, bool round) {
  Tensor out = Tensor::create(elementTypeOf<T>, {1, 1});
  const Status s = g.pp(out, tensorOf<int32_t>(ElementType::si32, {1, 1}, {psum}), rowsOf({row}), Tensor(), relu, round,
                        false);
  EXPECT_TRUE(s.ok()) << s.message();
  return valuesOf<T>(out)[0];
}

}  // namespace

TEST(VelaPostProcess, HandWorkedSteps) {
  // The floor-division sweep below covers the arithmetic; these rows pin the
  // ties, the clamps and the widest shift.
  struct Case { char gens; const char* what; int32_t psum; Row row; bool relu, round; int32_t expected8, expected16, expected32; };
  const Case cases[] = {
      {'B', "-3 >> 1 rounds to -1: half up", -3, {0, 0, 0, 0, 1, 1}, false, true, -1, -1, -1},
      {'B', "relu zeroes a sum with bias below 1", 100, {-101, 0, 0, 3, 1, 0}, true, false, 0, 0, 0},
      {'B', "the 16-bit clamp comes before the scale", 1 << 20, {0, 0, 0, 0, 2, 0}, false, false, 127, 32767, 65534},
      {'L', "postRShift 40 with rounding adds bit 39 of -5", -5, {0, 0, 0, 0, 1, 40}, false, true, 0, 0, 0},
  };
  for (const Case& c : cases)
    for (const Generation* g : kGenerations) {
      if (!runsOn(c.gens, *g)) continue;
      EXPECT_EQ(ppOne<int8_t>(*g, c.psum, c.row, c.relu, c.round), c.expected8) << g->name << ": " << c.what;
      EXPECT_EQ(ppOne<int16_t>(*g, c.psum, c.row, c.relu, c.round), c.expected16) << g->name << ": " << c.what;
      EXPECT_EQ(ppOne<int32_t>(*g, c.psum, c.row, c.relu, c.round), c.expected32) << g->name << ": " << c.what;
    }
}

TEST(VelaPostProcess, MatchesTheFloorDivisionReferenceOnDecodedAndEncodedRows) {
  // Rows with fields beyond their ranges: the registers hold what their
  // encoding holds, so the reference runs on the rows decoded back.
  std::mt19937 rng(31);
  const long K = 16, n = 24;
  const ElementType outputs[] = {ElementType::si8, ElementType::si16, ElementType::si32};
  for (const Generation* g : kGenerations)
    for (ElementType suminType : {ElementType::invalid, ElementType::si8, ElementType::si16, ElementType::si32}) {
      if (suminType == ElementType::si16 && !g->second) continue;
      const bool sumin32 = suminType == ElementType::si32;
      for (int trial = 0; trial < 6; ++trial) {
        std::vector<Row> rows(K);
        for (Row& r : rows)
          r = {int64_t(rng()) - (int64_t(1) << 31) + int64_t(rng() % 8) * (int64_t(1) << 32), int64_t(rng() % 70000),
               sumin32 ? int64_t(rng() % 3) * 8 - 8 : g->suminMin - 3 + int64_t(rng() % 45), int64_t(rng() % 36) - 2,
               int64_t(rng() % 70000), int64_t(rng() % (g->postMask + 9))};
        const auto words = encodeRows(*g, rows, sumin32);
        const auto registers = decodeWords(*g, words, sumin32);
        const Tensor encoded = tensorOf<int64_t>(ElementType::si64, {K, g->words(sumin32)}, words);
        std::vector<int32_t> psum(size_t(n * K)), suminValues(size_t(n * K), 0);
        for (int32_t& v : psum) v = int32_t(rng()) >> (rng() % 31);
        Tensor sumin;
        if (suminType != ElementType::invalid) {
          for (int32_t& v : suminValues) v = int32_t(rng()) >> (rng() % 31);
          sumin = tensorOf<int32_t>(ElementType::si32, {n, K}, suminValues).cast(suminType);
          const auto narrowed = integersOf(sumin);
          suminValues.assign(narrowed.begin(), narrowed.end());
        }
        const bool relu = rng() % 2, round = rng() % 2;
        const ElementType outType = outputs[trial % 3];
        Tensor a = Tensor::create(outType, {n, K}), b = Tensor::create(outType, {n, K});
        const Tensor psumTensor = tensorOf<int32_t>(ElementType::si32, {n, K}, psum);
        ASSERT_TRUE(g->pp(a, psumTensor, rowsOf(rows), sumin, relu, round, false).ok());
        ASSERT_TRUE(g->ppEncoded(b, psumTensor, encoded, sumin, relu, round, false).ok());
        const auto got = integersOf(a);
        EXPECT_EQ(integersOf(b), got) << g->name;
        const int64_t hi = outType == ElementType::si8 ? 127 : outType == ElementType::si16 ? 32767 : INT32_MAX;
        for (long i = 0; i < n * K; ++i) {
          Row q;
          std::copy_n(registers.begin() + (i % K) * 6, 6, q.begin());
          ASSERT_EQ(got[size_t(i)], referencePP(psum[i], suminValues[i], sumin32, q, relu, round, -hi - 1, hi))
              << g->name << " sumin " << int(suminType) << " trial " << trial << " element " << i;
        }
      }
    }
}

TEST(VelaPostProcess, TablesPerTensorPerImageAndLongerThanNeeded) {
  const Tensor psum = tensorOf<int32_t>(ElementType::si32, {2, 1, 2}, {10, 20, 30, 40});
  auto table = [](std::vector<long> shape, std::vector<int64_t> scales) {
    std::vector<int64_t> flat;
    for (int64_t s : scales) flat.insert(flat.end(), {0, 0, 0, 0, s, 0});
    return tensorOf<int64_t>(ElementType::si64, shape, flat);
  };
  struct Case { char gens; Tensor quantInfo; bool perTensor; std::vector<int16_t> expected; };
  const Case cases[] = {
      {'B', rowsOf({{1, 0, 0, 0, 2, 0}}), true, {22, 42, 62, 82}},
      {'B', table({2, 2, 6}, {1, 2, 3, 4}), false, {10, 40, 90, 160}},  // one table per image
      {'V', table({3, 6}, {2, 3, 5}), false, {20, 60, 60, 120}},  // the first generation takes longer tables
  };
  for (const Case& c : cases)
    for (const Generation* g : kGenerations) {
      if (!runsOn(c.gens, *g)) continue;
      Tensor out = Tensor::create(ElementType::si16, {2, 1, 2});
      ASSERT_TRUE(g->pp(out, psum, c.quantInfo, Tensor(), false, false, c.perTensor).ok());
      EXPECT_EQ(valuesOf<int16_t>(out), c.expected) << g->name;
    }
}

TEST(VelaPostProcess, TraceShowsEveryStep) {
  // psum 0, bias -100, relu, preRShift 1, scale 3, postRShift 2 rounded, a
  // 32-bit sumin shifted left by 8; the output saturates.
  Tensor out = Tensor::create(ElementType::si8, {1, 2});
  TraceCapture capture;
  ScopedTracePoint point({0, 1});
  ASSERT_TRUE(kVela.pp(out, tensorOf<int32_t>(ElementType::si32, {1, 2}, {0, 0}), rowsOf({{}, {-100, 0, -8, 1, 3, 2}}),
                       tensorOf<int32_t>(ElementType::si32, {1, 2}, {0, 3}), true, true, false).ok());
  EXPECT_EQ(capture.lines(),
            (std::vector<std::string>{
                "psum64 = psum[0, 1] // 0", "psum64 += bias(-100) // -100", "sumin32 = sumin[0, 1] // 3",
                "rescaledSumin = sumin32 << (-1 * suminRShift) // 3 << (-1 * -8) -> 768",
                "psum64 += rescaledSumin //  668", "psum64 = relu(psum64) //  668", "psum64 >>= preRShift(1) // 334",
                "psum64 = clamp16(psum64) // 334", "psum64 *= scale(3) // 1002", "psum64 >>~= postRShift(2) // 251",
                "fout[0, 1] = clamp(psum64) // 127"}));
  EXPECT_EQ(valuesOf<int8_t>(out)[1], 127) << "the stored value is the traced one";
}

TEST(VelaPostProcess, ChecksInOrderAndWritesNothing) {
  const ElementType si8 = ElementType::si8, si32 = ElementType::si32, si64 = ElementType::si64, f32 = ElementType::f32;
  // The checks whose conditions differ between the generations, each
  // generation's message (nullptr: not a failure of that generation).
  struct Case { const char *first, *second; bool encoded; Tensor quantInfo, sumin = Tensor(); };
  const Tensor psum = Tensor::create(si32, {2, 3}), rows = filled(si64, {3, 6}, 0);
  const char* same = "";
  const Case cases[] = {
      {"encode tensor axis -1 must be either 1 or 2", "encode tensor axis -1 must be 2", true, rows},
      {"quantInfo axis -2 must be greater or equal to psum axis -1", "quantInfo axis -2 must be identical to psum axis -1",
       false, filled(si64, {2, 6}, 0)},
      {"sumin must be 8bit or 32bit", "sumin must be 8bit 16bit or 32bit", false, rows, Tensor::create(f32, {2, 3})},
      {"sumin type does not match the quantInfo form", nullptr, true, filled(si64, {3, 2}, 0), Tensor::create(si32, {2, 3})},
      {"i32 suminRShift must be one of [8, 0, -8], but got 4", same, false, rowsOf({{}, {0, 0, 4, 0, 1, 0}, {}}),
       Tensor::create(si32, {2, 3})},
  };
  for (const Generation* g : kGenerations) {
    for (const Case& c : cases) {
      const char* expected = g->second && c.second != same ? c.second : c.first;
      if (!expected) continue;
      Tensor fout = filled(si8, {2, 3}, 0x5a);
      const std::string before = storageBytes(fout);
      const Status s = c.encoded ? g->ppEncoded(fout, psum, c.quantInfo, c.sumin, true, true, false)
                                 : g->pp(fout, psum, c.quantInfo, c.sumin, true, true, false);
      EXPECT_EQ(s.message(), expected) << g->name;
      EXPECT_EQ(storageBytes(fout), before) << expected;
    }
  }
}
