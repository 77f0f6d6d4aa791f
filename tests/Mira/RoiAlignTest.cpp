// RoiAlign against hand-worked samples, a wide pixel-space reference on
// seeded random boxes, the Config checks' exact words and the traps.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <functional>
#include <random>

#include "TestUtil.h"

using namespace kora;
using test::tensorOf;
using test::valuesOf;
using enum ElementType;

namespace {

struct Args {
  Args(std::vector<Tensor> in, std::vector<int64_t> pooled = {1, 1}, std::vector<int64_t> featureStrides = {1})
      : inputs(std::move(in)), shape(std::move(pooled)), strides(std::move(featureStrides)) {}
  std::vector<Tensor> inputs;  // rois, then feature maps
  std::vector<int64_t> shape, strides;
  int64_t ratio = 1;
  std::string mode = "bilinear";
  int64_t boxSize = 224, level = 4;
  std::vector<double> clip;
};

Status configure(Tensor& out, const Args& a) {
  return mira::RoiAlignConfig(out, a.inputs, a.shape, a.strides, a.ratio, a.mode, a.boxSize, a.level, a.clip);
}
Status compute(Tensor& out, const Args& a) {
  return mira::RoiAlign(out, a.inputs, a.shape, a.strides, a.ratio, a.mode, a.boxSize, a.level, a.clip);
}

/// The elements as ints.
std::vector<int> ints(const Tensor& t) { return valuesOf<int32_t>(t.cast(si32)); }

/// Config, an output prefilled with a marker, then the computation.
std::vector<int> pool(const Args& a) {
  Tensor out;
  EXPECT_EQ(configure(out, a).message(), "");
  out = test::filled(out.elementType(), out.shape().vec(), 0x5a);
  EXPECT_EQ(compute(out, a).message(), "");
  return ints(out);
}

/// The rows as rank-2 rois, or split evenly over `images` as rank-3 ones.
Tensor rois(const std::vector<std::vector<int16_t>>& rows, long images = 0) {
  std::vector<int16_t> flat;
  for (const auto& r : rows) flat.insert(flat.end(), r.begin(), r.end());
  const long n = long(rows.size()), width = long(rows.at(0).size());
  return images ? tensorOf<int16_t>(si16, {images, n / images, width}, flat) : tensorOf<int16_t>(si16, {n, width}, flat);
}

Tensor featureMap(std::vector<long> shape, const std::function<int(long y, long x, long c)>& f) {
  Tensor t = Tensor::create(si8, shape);
  const long h = shape[shape.size() - 3], w = shape[shape.size() - 2], ch = shape.back();
  auto data = t.data<int8_t>();
  for (size_t i = 0; i < data.size(); ++i) {
    const long k = long(i) % (h * w * ch);
    data[i] = int8_t(f(k / (w * ch), k / ch % w, k % ch));
  }
  return t;
}

// A 3 x 3 map of two channels, 10y + 20x and its negation.
Tensor rampMap() { return featureMap({3, 3, 2}, [](long y, long x, long c) { return int((10 * y + 20 * x) * (c ? -1 : 1)); }); }

/// Image b of a batched map, as a rank-3 view.
Tensor imageOf(const Tensor& batched, long b) {
  return Tensor(batched.shape().slice(1, 3), batched.strides().slice(1, 3), batched.elementType(),
                batched.offset() + b * batched.stride(0), batched.storage());
}

}  // namespace

TEST(RoiAlign, LevelChoice) {
  // Level l is filled with 10 (l + 1), so each output names its level.
  // Sizes in roi units (four per pixel); the box size is inclusive: 892 is
  // 224 pixels, floor(4 - 3 + log2(224/224)) = 1, and 888 one pixel less.
  const std::vector<int64_t> four = {8, 16, 32, 64};
  const std::tuple<std::vector<int64_t>, int64_t, int16_t, int16_t, int> cases[] = {
      {four, 224, 892, 892, 1}, {four, 224, 888, 888, 0}, {four, 224, 892, 3580, 2} /* sqrt(224 * 896) */,
      {four, 224, 30000, 30000, 3}, {four, 224, 4, 4, 0}, {{12, 16, 32, 64}, 224, 896, 896, 1},  // k0 = trunc(log2 12)
      {four, 0, 4, 4, 3} /* log2(+inf) */, {four, -224, 30000, 30000, 0} /* NaN */, {{8}, 224, 30000, 30000, 0},
  };
  for (const auto& [strides, boxSize, w, h, level] : cases) {
    Args a{{rois({{0, 0, w, h}})}, {1, 1}, strides};
    for (size_t l = 0; l < strides.size(); ++l) a.inputs.push_back(featureMap({4, 4, 1}, [l](long, long, long) { return int(10 * (l + 1)); }));
    a.boxSize = boxSize;
    // The traced level names the same map (a NaN floor must become 0, not a cast of NaN).
    test::TraceCapture capture;
    test::ScopedTracePoint point({0, 0, 0, 0});
    EXPECT_EQ(pool(a), std::vector<int>{10 * (level + 1)}) << w << " x " << h << ", " << boxSize;
    EXPECT_TRUE(capture.lines().at(1).ends_with(fmt::format("-> {}", level))) << capture.lines().at(1);
  }
}

TEST(RoiAlign, ClipRoundsOnceHalfAwayFromZeroAndEmptyBoxesGiveZeros) {
  // (Boxes of no width or height are among the random boxes below.) A clip
  // of zeros changes nothing; one to nothing, or by NaN, leaves zeros; so do
  // rois that are not integral. Clipped corners round half away from zero:
  // 2.5 -> 3, 5.5 -> 6; -1.5 -> -2, -0.5 -> -1 (x1 = 3 samples at 0.75 px,
  // y1 = 5 at 1.25 px: 27.5 -> 28, -27.5 -> -27). The fused clip of -3 by
  // 0.03 * 150 is 1.4999... -> 1, a sample at x = 0.25 px where unfused
  // 1.5 -> 2 is 0.5 px.
  const Tensor box = rois({{4, 4, 8, 8}});
  const std::vector<double> quarter = {0.25, 0.25, 0.25, 0.25};
  const std::tuple<Tensor, std::vector<double>, std::vector<int>, std::string> cases[] = {
      {box, {0, 0, 0, 0}, {30, -30}, "-> [4, 4, 8, 8]"}, {box, {0.5, 0, 0.5, 0}, {0, 0}, ""}, {box, {0, NAN, 0, 0}, {0, 0}, ""},
      {tensorOf<float>(f32, {1, 4}, {4, 4, 8, 8}), {}, {0, 0}, ""},
      {rois({{-3, 0, 147, 4}}), {0.03, 0, 0, 0}, {5, -5}, "-> [1, 0, 147, 4]"},
      {rois({{1, 3, 7, 11}}), quarter, {28, -27}, "-> [3, 5, 6, 9]"}, {rois({{-3, -5, 3, 1}}), quarter, {0, 0}, "-> [-2, -4, 2, -1]"},
  };
  for (const auto& [r, clip, expected, clipped] : cases) {
    Args a{{r, rampMap()}};
    a.clip = clip;
    test::TraceCapture capture;
    test::ScopedTracePoint point({0, 0, 0, 0});
    EXPECT_EQ(pool(a), expected) << ::testing::PrintToString(clip);
    EXPECT_TRUE(clipped.empty() || (capture.lines().size() > 1 && capture.lines()[1].ends_with(clipped))) << clipped;
  }
}

namespace {

// floor(log2(stride)).
int shiftOf(int64_t stride) { return std::bit_width(uint64_t(stride)) - 1; }

// A wide reference in pixel terms: bins as int64 floor divisions, sample
// positions as doubles in pixels, the four-neighbour blend as one exact
// double rounded half up, and the level as the last whose size threshold
// canonicalBoxSize * 2^(level - canonicalLevel + k0) the box reaches.
std::vector<int> reference(const std::vector<std::vector<int16_t>>& boxes, const std::vector<Tensor>& maps,
                           const std::vector<int64_t>& strides, long ph, long pw, int64_t boxSize, int64_t canonical) {
  std::vector<int> out;
  const long channels = maps[0].dim(2);
  for (const auto& b : boxes) {
    const int64_t w = b[2] - b[0], h = b[3] - b[1];
    if (w <= 0 || h <= 0) {
      out.insert(out.end(), size_t(ph * pw * channels), 0);
      continue;
    }
    const double t = std::sqrt((double(w) / 4 + 1) * (double(h) / 4 + 1));
    size_t level = 0;
    while (level + 1 < maps.size() &&
           double(boxSize) * std::ldexp(1.0, int(level + 1) - int(canonical) + shiftOf(strides[0])) <= t)
      ++level;
    const Tensor& m = maps[level];
    const int64_t one = int64_t(4) << shiftOf(strides[level]);
    auto sample = [one](int64_t start, int64_t bin, long cell, long extent, long& index, double& frac) {
      const double pixel = double(std::clamp<int64_t>(start + cell * bin, 0, (extent - 1) * one)) / double(one);
      index = std::min(long(std::floor(pixel)), extent - 2);
      frac = pixel - double(index);
    };
    for (long i = 0; i < ph; ++i)
      for (long j = 0; j < pw; ++j)
        for (long c = 0; c < channels; ++c) {
          long y0, x0;
          double fy, fx;
          sample(b[1], (h + one) / ph, i, m.dim(0), y0, fy);
          sample(b[0], (w + one) / pw, j, m.dim(1), x0, fx);
          auto f = [&](long y, long x) { return y < 0 || x < 0 ? 0.0 : double(m.at<int8_t>({y, x, c})); };
          const double v = f(y0, x0) * (1 - fy) * (1 - fx) + f(y0, x0 + 1) * (1 - fy) * fx +
                           f(y0 + 1, x0) * fy * (1 - fx) + f(y0 + 1, x0 + 1) * fy * fx;
          out.push_back(int(std::floor(v + 0.5)));
        }
  }
  return out;
}

}  // namespace

TEST(RoiAlign, MatchesAWidePixelReferenceOnRandomBoxes) {
  // Every other round reads the maps through channel steps of 2 (the
  // channel loop's strided path). Every other pair of rounds pools rank-3 rois over two
  // images, each roi reading its own image; their rows are six entries
  // wide, the last two not read.
  std::mt19937 rng(7);
  auto uniform = [&](int lo, int hi) { return lo + int(rng() % unsigned(hi - lo + 1)); };
  const std::vector<int64_t> strides = {4, 8, 16};
  const long channels = 19;  // one vector block and a tail
  for (int round = 0; round < 40; ++round) {
    const bool strided = round % 2 == 1, batched = round % 4 >= 2;
    const long images = batched ? 2 : 1;
    // The coarsest map is one pixel wide or one high (its row or column -1
    // is a neighbour of weight 0 that is never read).
    const long sides[3][2] = {{16, 12}, {8, 6}, {round % 8 < 4 ? 3 : 1, round % 8 < 4 ? 1 : 3}};
    std::vector<Tensor> maps;
    for (const auto& side : sides) {
      Tensor full = featureMap({images, side[0], side[1], channels * 2}, [&](long, long, long) { return uniform(-128, 127); });
      if (!batched) full = imageOf(full, 0);
      maps.push_back(strided ? full.slice(-1, 0, channels * 2, 2) : full.slice(-1, 0, channels));
    }
    std::vector<std::vector<int16_t>> boxes;
    for (int n = 0; n < 6; ++n) {
      const int x1 = uniform(-40, 260), y1 = uniform(-40, 200);
      boxes.push_back({int16_t(x1), int16_t(y1), int16_t(x1 + uniform(-8, 300)), int16_t(y1 + uniform(-8, 250))});
      if (batched) boxes.back().insert(boxes.back().end(), {int16_t(uniform(-999, 999)), -1});
    }
    Args a{{rois(boxes, batched ? 2 : 0)}, {uniform(1, 5), uniform(1, 5)}, strides};
    a.inputs.insert(a.inputs.end(), maps.begin(), maps.end());
    a.boxSize = 16, a.level = 3;
    const std::vector<int> pooled = pool(a);
    std::vector<int> expected;
    for (long b = 0; b < images; ++b) {
      std::vector<Tensor> own;
      for (const Tensor& m : maps) own.push_back(batched ? imageOf(m, b) : m);
      const std::vector<std::vector<int16_t>> ownBoxes(boxes.begin() + b * 6 / images, boxes.begin() + (b + 1) * 6 / images);
      for (int v : reference(ownBoxes, own, strides, a.shape[0], a.shape[1], 16, 3)) expected.push_back(v);
    }
    EXPECT_EQ(pooled, expected) << "round " << round;
  }
}

TEST(RoiAlign, AllSixRegistrationsAgree) {
  // The maps as one list and as k separate tensors. The separate calls leave
  // the trailing attributes out; the list call spells their defaults. Boxes
  // of 14 to 1040 pixels reach levels 0 to 4 under the default level rule.
  std::mt19937 rng(5);
  std::vector<Tensor> listed = {rois({{0, 0, 60, 45}, {8, 4, 608, 454}, {0, 8, 1200, 908}, {4, 0, 2404, 1800}, {0, 0, 4800, 3600}})};
  std::vector<Argument> separate = {listed[0]};
  const std::vector<int64_t> strides = {4, 8, 16, 32, 64};
  for (long k = 1; k <= 5; ++k) {
    listed.push_back(featureMap({64 >> k, 64 >> k, 3}, [&](long, long, long) { return int(rng() % 256) - 128; }));
    separate.push_back(listed.back());
    const std::vector<int64_t> shape = {2, 3}, firstStrides(strides.begin(), strides.begin() + k);
    std::vector<Argument> asArguments = separate;
    asArguments.insert(asArguments.end(), {shape, firstStrides});
    std::vector<Tensor> viaList, viaArguments;
    ASSERT_TRUE(invoke("mira::RoiAlign", viaList, {listed, shape, firstStrides, 1, "bilinear", 224, 4, std::vector<double>{}}).ok() &&
                invoke(fmt::format("mira::RoiAlign{}", k), viaArguments, asArguments).ok());
    EXPECT_EQ(ints(viaList[0]), ints(viaArguments[0])) << k << " maps";
  }
}

TEST(RoiAlign, ConfigChecksInOrderWithTheirWords) {
  // The conditions whose numbers or place in the order are easy to get
  // wrong (the first check, a missing first map, the row width checked
  // before the shape, the batch naming its map, the dynamic axis, the last
  // check), and the one text kept misspelt; each refusal leaves the output
  // untouched.
  auto shaped = [](std::vector<long> shape, ElementType type = si8) { return Tensor(type, shape); };
  const Tensor r2 = shaped({5, 4}, si16), r3 = shaped({2, 5, 4}, si16);
  auto batched = [&](Args& a, Tensor rois, long b0, long b1) { a.inputs = {rois, shaped({b0, 8, 8, 16}), shaped({b1, 4, 4, 16})}; };
#define CHANGE(...) [&](Args& a) { __VA_ARGS__; }
  const std::pair<std::function<void(Args&)>, std::string> cases[] = {
      {CHANGE(a.inputs.clear()), "The rank of input rois only support 2 and 3, but got 0."},
      {CHANGE(a.inputs = {r2}), "The rank of input rois is 2, expect input feature rank is 3, but got 0."},
      {CHANGE(a.inputs[0] = shaped({5, 5}, si16), a.shape = {7}), "Roi c channel only support 4 or 6, but got 5."},
      {CHANGE(batched(a, r3, 2, 3)), "Input batch must be the same, roi batch is 2, but got input feature[1] batch 3"},
      {CHANGE(a.ratio = 2), "sampling ration should be equal with 1, but it is 2"},
      {CHANGE(batched(a, shaped({-1, 5, 4}, si16), -1, -1)),
       "RoiAlign dynamic dim must be 0 when roi rank is 2, must be 1 when roi rank is 3, given roi rank is 3, "
       "dynamic dim is 0."},
      {CHANGE(a.shape = {7, -1}), "Attribute shape should not be negative, but got [7, -1]."},
  };
#undef CHANGE
  for (const auto& [change, reason] : cases) {
    Args a{{r2, shaped({8, 8, 16}), shaped({4, 4, 16})}, {7, 7}, {8, 16}};
    change(a);
    Tensor fout;
    EXPECT_EQ(configure(fout, a).message(), "RoiAlign config error: " + reason);
    EXPECT_EQ(fout.type(), TensorType()) << reason;
  }
}

TEST(RoiAlign, RunTimeFailuresNameTheirCauseAndWriteNothing) {
  // A floating output is zeroed, the only write a failure makes.
  Tensor floating = test::filled(f32, {3, 3, 1}, 0x3f), out;
  Args a{{rois({{0, 0, 8, 8}}), floating}, {2, 1}};
  ASSERT_TRUE(configure(out, a).ok());
  out = test::filled(out.elementType(), out.shape().vec(), 0x3f);
  EXPECT_EQ(compute(out, a).message(), "Currently, only the fixed-point version of RoiAlign is supported. output was set 0");
  EXPECT_EQ(valuesOf<float>(out), (std::vector<float>{0, 0}));
  // A level stride of 2^14 would push the blend's rounding shift out of 32 bits.
  Args wide{{rois({{0, 0, 8, 8}}), rampMap(), featureMap({2, 2, 2}, [](long, long, long) { return 1; })}, {1, 1}, {1, 16384}};
  Tensor fout = test::filled(si8, {1, 1, 1, 2}, 0x5a);
  test::LogCapture log;
  EXPECT_EQ(compute(fout, wide).message(), "Compute quantized roi align error");
  EXPECT_EQ(log.messages, (std::vector<std::pair<LogLevel, std::string>>{
                              {LogLevel::warn, "RoiAlign: feature stride 16384 is not in [1, 2^14)"}}));
  EXPECT_EQ(test::storageBytes(fout), std::string(2, '\x5a'));
}

TEST(RoiAlign, TracesTheStepsOfOneElement) {
  test::TraceCapture capture;
  test::ScopedTracePoint traced({0, 1, 0, 1});
  pool({{rois({{0, 8, 4, 20}}), rampMap()}, {2, 1}});
  EXPECT_EQ(capture.lines(), (std::vector<std::string>{
      "box[0] = rois[0] // [x1, y1, x2, y2] -> [0, 8, 4, 20]", "level[0] = 0 // one feature map -> 0",
      "binH = ((y2 - y1 + one) << F) / (pooledH << F) // ((20 - 8 + 4) << 2) / (2 << 2) -> 8",
      "binW = ((x2 - x1 + one) << F) / (pooledW << F) // ((4 - 0 + 4) << 2) / (1 << 2) -> 8",
      "y = max(min(y1 + i * binH, (H - 1) << F), 0) // max(min(8 + 1 * 8, 8), 0) -> 8",
      "y0 = min(y >> F, H - 2) // min(8 >> 2, 1) -> 1", "ly = y - (y0 << F) // 8 - (1 << 2) -> 4",
      "hy = one - ly // 4 - 4 -> 0",
      "x = max(min(x1 + j * binW, (W - 1) << F), 0) // max(min(0 + 0 * 8, 8), 0) -> 0",
      "x0 = min(x >> F, W - 2) // min(0 >> 2, 1) -> 0", "lx = x - (x0 << F) // 0 - (0 << 2) -> 0",
      "hx = one - lx // 4 - 0 -> 4", "f00 = feature0[1, 0, 1] -> -10", "f01 = feature0[1, 1, 1] -> -30",
      "f10 = feature0[2, 0, 1] -> -20", "f11 = feature0[2, 1, 1] -> -40",
      "top = f00 * hx + f01 * lx // -10 * 4 + -30 * 0 -> -40",
      "bottom = f10 * hx + f11 * lx // -20 * 4 + -40 * 0 -> -80",
      "v = top * hy + bottom * ly + 2^(2F - 1) // -40 * 0 + -80 * 4 + 8 -> -312",
      "fout[0, 1, 0, 1] = v >> 2F // -312 >> 4 -> -20"}));
}

using RoiAlignDeathTest = ::testing::Test;
TEST_F(RoiAlignDeathTest, BrokenInvariantsStopTheProcess) {
  const std::string trapped = "2\\|trapped at lib/Mira/RoiAlign, line [0-9]+\n2\\|";
  Args clip{{rois({{0, 0, 8, 8}}), rampMap()}};
  clip.clip = {0.1, 0.1, 0.1};
  Tensor out = Tensor::create(si8, {1, 1, 1, 2});
  EXPECT_DEATH({ test::logToStderr(); (void)compute(out, clip); }, trapped + "box clip ratio error");
  // Rank-3 rois over unbatched maps: each roi would be two-dimensional.
  Args rows{{tensorOf<int16_t>(si16, {1, 1, 4}, {0, 0, 8, 8}), rampMap()}};
  EXPECT_DEATH({ test::logToStderr(); (void)compute(out, rows); }, trapped + "one roi should be 1 dimension");
  // si16 maps go through the same arithmetic and the same [-128, 127] result
  // check: 128 traps, both bounds pass.
  Args overflow{{rois({{0, 0, 4, 4}}), tensorOf<int16_t>(si16, {2, 2, 1}, {128, 128, 128, 128})}};
  Tensor out16 = Tensor::create(si16, {1, 1, 1, 1});
  EXPECT_DEATH({ test::logToStderr(); (void)compute(out16, overflow); }, trapped + "roi align numeric overflow");
  Tensor bounds = tensorOf<int16_t>(si16, {2, 2, 2}, {-128, 127, -128, 127, -128, 127, -128, 127});
  Tensor out2 = Tensor::create(si16, {1, 1, 1, 2});
  ASSERT_TRUE(compute(out2, {{rois({{2, 0, 6, 4}}), bounds}}).ok());
  EXPECT_EQ(valuesOf<int16_t>(out2), (std::vector<int16_t>{-128, 127}));
}
