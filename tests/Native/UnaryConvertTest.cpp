// Cast, FakeCast and Lut.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "TestUtil.h"

using namespace kora;
using test::bitsOf;
using test::tensorOf;
using test::valuesOf;

namespace {

Tensor castTo(ElementType type, const Tensor& in, bool saturate) {
  Tensor out(type, {});
  Status s = native::CastConfig(out, in, saturate);
  EXPECT_TRUE(s.ok()) << s.message();
  out.allocate();
  s = native::Cast(out, in, saturate);
  EXPECT_TRUE(s.ok()) << s.message();
  return out;
}

}  // namespace

TEST(Cast, OneRulePerPairWithTheSaturateFlag) {
  const float inf = std::numeric_limits<float>::infinity();
  Tensor floats = tensorOf<float>(ElementType::f32, {6}, {2.9f, -2.9f, 300.0f, -1e10f, NAN, 65520.0f});
  EXPECT_EQ(valuesOf<int8_t>(castTo(ElementType::si8, floats, false)), (std::vector<int8_t>{2, -2, 127, -128, 0, 127}));
  EXPECT_EQ(valuesOf<uint16_t>(castTo(ElementType::ui16, floats, true)),
            (std::vector<uint16_t>{2, 0, 300, 0, 0, 65520}));
  // f32 -> f16 rounds to nearest even; 65520 overflows unless saturating.
  EXPECT_EQ(bitsOf<half>(castTo(ElementType::f16, floats, false))[5], 0x7c00);
  EXPECT_EQ(bitsOf<half>(castTo(ElementType::f16, floats, true))[5], 0x7bff);
  EXPECT_EQ(bitsOf<half>(castTo(ElementType::f16, tensorOf<float>(ElementType::f32, {1}, {-inf}), true))[0], 0xfc00)
      << "infinities stay infinite";

  Tensor ints = tensorOf<int32_t>(ElementType::si32, {4}, {300, -129, 255, -1});
  EXPECT_EQ(valuesOf<int8_t>(castTo(ElementType::si8, ints, false)), (std::vector<int8_t>{44, 127, -1, -1}));
  EXPECT_EQ(valuesOf<int8_t>(castTo(ElementType::si8, ints, true)), (std::vector<int8_t>{127, -128, 127, -1}));
  EXPECT_EQ(valuesOf<uint8_t>(castTo(ElementType::ui8, ints, true)), (std::vector<uint8_t>{255, 0, 255, 0}));
  EXPECT_EQ(valuesOf<uint8_t>(castTo(ElementType::bool8, ints, false)), (std::vector<uint8_t>{1, 1, 1, 1}));
  EXPECT_EQ(valuesOf<double>(castTo(ElementType::f64, tensorOf<uint8_t>(ElementType::bool8, {3}, {0, 1, 9}), false)),
            (std::vector<double>{0, 1, 1}));
}

TEST(Cast, EqualTypesCopyBitForBitAndStridesAreFollowed) {
  // A NaN payload survives a same-type cast.
  Tensor nan = tensorOf<uint32_t>(ElementType::f32, {2}, {0x7fa00001u, 0xff800000u});
  EXPECT_EQ(bitsOf<float>(castTo(ElementType::f32, nan, false)), (std::vector<uint32_t>{0x7fa00001u, 0xff800000u}));
  // Transposed input, transposed output.
  Tensor in = tensorOf<int16_t>(ElementType::si16, {2, 3}, {1, -2, 3, -4, 5, -600}).permute({1, 0});
  Tensor storage = Tensor::create(ElementType::si8, {2, 3});
  Tensor out = storage.permute({1, 0});
  ASSERT_TRUE(native::Cast(out, in, true).ok());
  EXPECT_EQ(valuesOf<int8_t>(storage), (std::vector<int8_t>{1, -2, 3, -4, 5, -128}));
}

TEST(Cast, ConfigNeedsATypedOutput) {
  Tensor in = Tensor::create(ElementType::f32, {2, 2});
  Tensor untyped;
  EXPECT_EQ(native::CastConfig(untyped, in, false).message(), "CastOp config error: invalid fout ElementType");
  Tensor typed(ElementType::si16, {});
  ASSERT_TRUE(native::CastConfig(typed, in, false).ok());
  EXPECT_EQ(typed.type(), TensorType(ElementType::si16, {2, 2}));
  // Through the kernel table, with the target type carried by the output.
  std::vector<Tensor> outputs = {Tensor(ElementType::ui8, {})};
  ASSERT_TRUE(invoke("native::Cast", outputs, {tensorOf<float>(ElementType::f32, {2}, {-5.5f, 7.9f}), true}).ok());
  EXPECT_EQ(valuesOf<uint8_t>(outputs[0]), (std::vector<uint8_t>{0, 7}));
  Tensor shaped = Tensor::create(ElementType::si8, {3});
  EXPECT_EQ(native::Cast(shaped, in, false).message(), "shape mismatch");
}

TEST(FakeCast, RoundsThroughHalf) {
  Tensor in = tensorOf<float>(ElementType::f32, {6}, {1.0001f, 65520.0f, 65519.0f, -1e-8f, 0.1f, NAN});
  Tensor out(ElementType::f32, {});
  ASSERT_TRUE(native::FakeCastConfig(out, in, ElementType::f16).ok());
  out.allocate();
  ASSERT_TRUE(native::FakeCast(out, in, ElementType::f16).ok());
  const auto v = valuesOf<float>(out);
  EXPECT_EQ(v[0], 1.0f);
  EXPECT_EQ(v[1], std::numeric_limits<float>::infinity());
  EXPECT_EQ(v[2], 65504.0f);
  EXPECT_EQ(std::bit_cast<uint32_t>(v[3]), 0x80000000u) << "-1e-8 underflows to -0";
  EXPECT_EQ(v[4], 0.0999755859375f);
  EXPECT_TRUE(std::isnan(v[5]));

  test::TraceCapture capture;
  test::ScopedTracePoint point({1});
  ASSERT_TRUE(native::FakeCast(out, in, ElementType::f16).ok());
  EXPECT_EQ(capture.lines(), std::vector<std::string>{"fout[1] = fakecast(fin[1]) // fakecast(65520) -> inf"});
}

TEST(FakeCast, Failures) {
  Tensor f32 = Tensor::create(ElementType::f32, {2});
  Tensor f16 = Tensor::create(ElementType::f16, {2});
  Tensor untyped;
  EXPECT_EQ(native::FakeCastConfig(untyped, f32, ElementType::f16).message(),
            "FakeCast config error: invalid fout ElementType");
  EXPECT_EQ(native::FakeCast(f16, f16, ElementType::f16).message(), "input and output type must be float32");
  EXPECT_EQ(native::FakeCast(f32, f16, ElementType::f16).message(), "input and output type must be float32");
  EXPECT_EQ(native::FakeCast(f32, f32, ElementType::vbf16).message(), "only float16 is supported as dtype");
}

TEST(Lut, EntryZeroBelongsToTheLowestValue) {
  // si8: a complete 256-entry table, entry i holding 2 * i + 7 wrapped to 8 bits.
  std::vector<int8_t> entries(256);
  for (int i = 0; i < 256; ++i) entries[i] = int8_t(uint8_t(2 * i + 7));
  Tensor table = tensorOf<int8_t>(ElementType::si8, {256}, entries);
  Tensor in = tensorOf<int8_t>(ElementType::si8, {2, 2}, {-128, -1, 0, 127});
  Tensor out(ElementType::invalid, {});
  ASSERT_TRUE(native::LutConfig(out, in, table).ok());
  EXPECT_EQ(out.type(), TensorType(ElementType::si8, {2, 2}));
  out.allocate();
  ASSERT_TRUE(native::Lut(out, in, table).ok());
  EXPECT_EQ(valuesOf<int8_t>(out), (std::vector<int8_t>{7, int8_t(uint8_t(2 * 127 + 7)), int8_t(uint8_t(2 * 128 + 7)), 5}));

  // ui16 through a strided table (every other element of a wider tensor).
  Tensor wide = tensorOf<uint16_t>(ElementType::ui16, {8}, {10, 0, 11, 0, 12, 0, 13, 0});
  Tensor strided = wide.slice(0, 0, 8, 2);
  Tensor u = tensorOf<uint16_t>(ElementType::ui16, {3}, {3, 0, 2});
  Tensor uOut = Tensor::create(ElementType::ui16, {3});
  ASSERT_TRUE(native::Lut(uOut, u, strided).ok());
  EXPECT_EQ(valuesOf<uint16_t>(uOut), (std::vector<uint16_t>{13, 10, 12}));

  // si16 on a transposed input: -32768 selects entry 0.
  Tensor shorts = tensorOf<int16_t>(ElementType::si16, {2, 2}, {-32768, -32767, -32766, -32765}).permute({1, 0});
  Tensor shortTable = tensorOf<int16_t>(ElementType::si16, {4}, {40, 41, 42, 43});
  Tensor sOut = Tensor::create(ElementType::si16, {2, 2});
  ASSERT_TRUE(native::Lut(sOut, shorts, shortTable).ok());
  EXPECT_EQ(valuesOf<int16_t>(sOut), (std::vector<int16_t>{40, 42, 41, 43}));
}

TEST(Lut, OutOfRangeIndicesAreReportedBeforeAnythingIsWritten) {
  Tensor table = tensorOf<uint8_t>(ElementType::ui8, {4}, {1, 2, 3, 4});
  Tensor in = tensorOf<uint8_t>(ElementType::ui8, {5}, {0, 3, 9, 4, 1});
  Tensor out = tensorOf<uint8_t>(ElementType::ui8, {5}, {77, 77, 77, 77, 77});
  EXPECT_EQ(native::Lut(out, in, table).message(), "lut index 9 out of range for a table of 4 entries");
  EXPECT_EQ(valuesOf<uint8_t>(out), (std::vector<uint8_t>{77, 77, 77, 77, 77}));
  Tensor signedIn = tensorOf<int8_t>(ElementType::si8, {1}, {0});
  Tensor signedOut = Tensor::create(ElementType::si8, {1});
  Tensor shortTable = tensorOf<int8_t>(ElementType::si8, {128}, std::vector<int8_t>(128, 1));
  EXPECT_EQ(native::Lut(signedOut, signedIn, shortTable).message(),
            "lut index 128 out of range for a table of 128 entries")
      << "0 is entry 128 of an si8 table";
  Tensor matrix = Tensor::create(ElementType::ui8, {2, 2});
  EXPECT_EQ(native::Lut(out, in, matrix).message(), "table must have rank 1");
  EXPECT_EQ(native::Lut(out, in, Tensor::create(ElementType::si8, {4})).message(), "type mismatch");
}

using LutDeathTest = ::testing::Test;
TEST_F(LutDeathTest, WideTypesTrap) {
  Tensor in = Tensor::create(ElementType::si32, {2}), out = Tensor::create(ElementType::si32, {2});
  Tensor table = Tensor::create(ElementType::si32, {4});
  EXPECT_DEATH(
      {
        test::logToStderr();
        (void)native::Lut(out, in, table);
      },
      "unknown element type: si32");
}
