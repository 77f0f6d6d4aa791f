#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "TestUtil.h"

using namespace kora;
using test::bitsOf;
using test::tensorOf;
using test::valuesOf;

namespace {

Tensor relu(const Tensor& in) {
  Tensor out;
  Status config = native::ReLUConfig(out, in);
  EXPECT_TRUE(config.ok()) << config.message();
  out.allocate();
  Status s = native::ReLU(out, in);
  EXPECT_TRUE(s.ok()) << s.message();
  return out;
}

}  // namespace

TEST(ReLU, FloatSpecialValues) {
  const float inf = std::numeric_limits<float>::infinity();
  Tensor in = tensorOf<float>(ElementType::f32, {7}, {-0.0f, 0.0f, -1e-45f, 1e-45f, NAN, -inf, inf});
  // x > 0 ? x : 0: negative zero and NaN both give +0.
  EXPECT_EQ(bitsOf<float>(relu(in)),
            (std::vector<uint32_t>{0, 0, 0, 1, 0, 0, 0x7f800000}));
}

TEST(ReLU, HalfIsComputedThroughFloat) {
  Tensor in = tensorOf<uint16_t>(ElementType::f16, {5}, {0xbc00, 0x3c00, 0x0001, 0x8001, 0x7e00});
  EXPECT_EQ(bitsOf<half>(relu(in)), (std::vector<uint16_t>{0, 0x3c00, 0x0001, 0, 0}));
}

TEST(ReLU, IntegerTypes) {
  EXPECT_EQ(valuesOf<int8_t>(relu(tensorOf<int8_t>(ElementType::si8, {3}, {-128, 0, 127}))),
            (std::vector<int8_t>{0, 0, 127}));
  EXPECT_EQ(valuesOf<int16_t>(relu(tensorOf<int16_t>(ElementType::si16, {2}, {-5, 5}))),
            (std::vector<int16_t>{0, 5}));
  EXPECT_EQ(valuesOf<int32_t>(relu(tensorOf<int32_t>(ElementType::si32, {2}, {INT32_MIN, 9}))),
            (std::vector<int32_t>{0, 9}));
  EXPECT_EQ(valuesOf<int64_t>(relu(tensorOf<int64_t>(ElementType::si64, {2}, {-1, INT64_MAX}))),
            (std::vector<int64_t>{0, INT64_MAX}));
}

TEST(ReLU, StridedOperandsAndInPlace) {
  Tensor base = tensorOf<float>(ElementType::f32, {2, 3}, {-1, 2, -3, 4, -5, 6});
  Tensor transposed = base.permute({1, 0});
  EXPECT_EQ(valuesOf<float>(relu(transposed)), (std::vector<float>{0, 4, 2, 0, 0, 6}));
  // Writing into a transposed view of a fresh tensor.
  Tensor target = Tensor::create(ElementType::f32, {3, 2});
  Tensor view = target.permute({1, 0});
  ASSERT_TRUE(native::ReLU(view, base).ok());
  EXPECT_EQ(valuesOf<float>(target), (std::vector<float>{0, 4, 2, 0, 0, 6}));
  // In place, traced: the trace sees the original input.
  test::TraceCapture capture;
  test::ScopedTracePoint point({0, 2});
  ASSERT_TRUE(native::ReLU(base, base).ok());
  EXPECT_EQ(valuesOf<float>(base), (std::vector<float>{0, 2, 0, 4, 0, 6}));
  EXPECT_EQ(capture.lines(), (std::vector<std::string>{"fout[0, 2] = relu(fin[0, 2]) // relu(-3) -> 0 "}));
}

TEST(ReLU, TraceLineForTheTracedElementOnly) {
  Tensor in = tensorOf<uint16_t>(ElementType::f16, {2, 2}, {0xc000, 0x3e00, 0x3555, 0xbc00});
  const auto untraced = bitsOf<half>(relu(in));
  struct Case {
    std::vector<long> point;
    std::vector<std::string> lines;
  };
  const Case cases[] = {
      {{0, 1}, {"fout[0, 1] = relu(fin[0, 1]) // relu(1.5) -> 1.5 "}},
      {{1, 0}, {"fout[1, 0] = relu(fin[1, 0]) // relu(0.33325195) -> 0.33325195 "}},
      {{2, 0}, {}},     // outside the output
      {{1}, {}},        // another rank
      {{0, 0, 0}, {}},  // another rank
  };
  for (const Case& c : cases) {
    test::TraceCapture capture;
    test::ScopedTracePoint point(c.point);
    EXPECT_EQ(bitsOf<half>(relu(in)), untraced) << "tracing never changes the output";
    EXPECT_EQ(capture.lines(), c.lines);
  }
}

TEST(ReLU, BadOperandsFailWithoutWriting) {
  Tensor in = tensorOf<float>(ElementType::f32, {2}, {-1, 1});
  Tensor out = tensorOf<float>(ElementType::f32, {2}, {7, 7});
  Tensor wrongShape = Tensor::create(ElementType::f32, {3});
  EXPECT_EQ(native::ReLU(wrongShape, in).message(), "shape mismatch");
  Tensor wrongType = tensorOf<int32_t>(ElementType::si32, {2}, {-1, 1});
  EXPECT_EQ(native::ReLU(out, wrongType).message(), "type mismatch");
  EXPECT_EQ(valuesOf<float>(out), (std::vector<float>{7, 7}));

  Tensor config;
  EXPECT_EQ(native::ReLUConfig(config, Tensor()).message(), "ReLU config error: lhs and rhs must both valid");
  Tensor typed(ElementType::f16, {});
  ASSERT_TRUE(native::ReLUConfig(typed, in).ok());
  EXPECT_EQ(typed.type(), TensorType(ElementType::f16, {2})) << "a type set by the caller is kept";
}

using ReLUDeathTest = ::testing::Test;
TEST_F(ReLUDeathTest, UnsupportedOrUnsetTypesTrap) {
  Tensor in = Tensor::create(ElementType::f64, {2});
  Tensor out = Tensor::create(ElementType::f64, {2});
  EXPECT_DEATH(
      {
        test::logToStderr();
        (void)native::ReLU(out, in);
      },
      "2\\|trapped at include/kora/Core/ElementType, line [0-9]+\n2\\|unknown element type: f64");
  Tensor unset = out.view(ElementType::invalid);
  EXPECT_DEATH(
      {
        test::logToStderr();
        (void)native::ReLU(unset, in);
      },
      "unknown element type: invalid");
}
