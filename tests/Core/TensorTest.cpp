#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "TestUtil.h"

using namespace kora;
using test::compactBytes;
using test::tensorOf;
using test::valuesOf;

TEST(Storage, SizesAlignmentAndOwnership) {
  auto one = Storage::createUninit(1, DeviceType::Host, 16);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(one->data()) % 64, 0u);
  EXPECT_TRUE(one->ownsData() && one->initializedByCreator());
  one->data()[63] = 1;  // the allocation is rounded up to 64 bytes (ASan checks the write)
  // External memory is never freed (ASan reports a free of stack memory).
  char buffer[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  {
    Tensor t({2}, {4}, ElementType::f32, 0, Storage::createExternal(MutableArrayRef<char>(buffer)));
    EXPECT_FALSE(t.storage()->ownsData());
    EXPECT_EQ(t.storage()->data(), buffer);
  }
}

TEST(Tensor, StridesContiguityPrintingAndValidity) {
  EXPECT_EQ(getStrides({2, 3, 4}, 4), (std::vector<long>{48, 16, 4}));
  EXPECT_EQ(getCoord(5, {2, 1, 3}, {3, 0, 1}), (std::vector<long>{1, 0, 2}));
  struct Case { std::vector<long> shape, strides; long dim; bool contiguous; };
  const Case cases[] = {
      {{2, 3}, {12, 4}, 0, true},
      {{2, 1, 3}, {12, 999, 4}, 0, true},  // size-1 axes are ignored
      {{2, 3}, {4, 8}, 0, false},  // transposed
      {{2, 3}, {99, 4}, 1, true},  // axes before dim are not examined
      {{2, 3}, {99, 4}, -1, true},
      {{2, 3}, {99, 8}, 2, true},  // past the last axis
      {{4}, {0}, 0, false},        // broadcast
  };
  for (const Case& c : cases) {
    Tensor t(c.shape, c.strides, ElementType::f32, 0, Storage::createUninit(256));
    EXPECT_EQ(t.isContiguous(c.dim), c.contiguous) << t << " dim " << c.dim;
  }
  EXPECT_EQ(toString(Tensor::create(ElementType::si8, {1, 3, 4})), "Tensor<si8,1x3x4,12x4x1>");
  Tensor noType({2, 3}, {3, 1}, ElementType::invalid, 0, nullptr);
  EXPECT_EQ(toString(TensorType(ElementType::f16, {2, 8})), "TensorType<f16,2x8>");
  EXPECT_FALSE(noType.isValid());
  EXPECT_FALSE(Tensor(ElementType::f32, {2}).isValid()) << "no storage";
  EXPECT_TRUE(Tensor::create(ElementType::f32, {2, 0}).isEmpty());
  EXPECT_FALSE(Tensor::create(ElementType::f32, {}).isEmpty());
}

TEST(Tensor, ViewsShareStorageAndContiguousCopiesOnlyWhenNeeded) {
  Tensor f = Tensor::create(ElementType::f32, {4, 6});
  Tensor column = f.slice(1, 2, 3);  // shape 4x1, strides 24x4, offset 8
  EXPECT_EQ(column.data<float>().data(), f.data<float>().data() + 2);
  Tensor t = tensorOf<int32_t>(ElementType::si32, {2, 3}, {0, 1, 2, 3, 4, 5});
  Tensor transposed = t.permute({1, 0});
  EXPECT_EQ(valuesOf<int32_t>(t.slice(1, 0, 3, 2)), (std::vector<int32_t>{0, 2, 3, 5}));
  EXPECT_EQ(t.contiguous().storage(), t.storage());
  Tensor c = transposed.contiguous();
  EXPECT_NE(c.storage(), t.storage());
  EXPECT_TRUE(c.isContiguous() && c.offset() == 0);
  EXPECT_EQ(c.data<int32_t>().vec(), (std::vector<int32_t>{0, 3, 1, 4, 2, 5}));
  transposed.at<int32_t>({2, 1}) = 42;
  EXPECT_EQ(t.at<int32_t>({1, 2}), 42);
}

TEST(TensorCast, ConversionRules) {
  const float inf = std::numeric_limits<float>::infinity();
  const Tensor floats = tensorOf<float>(ElementType::f32, {9}, {2.9f, -2.9f, -0.5f, 127.5f, 300.f, -300.f, inf, -inf, NAN});
  const Tensor big = tensorOf<double>(ElementType::f64, {3}, {1e30, -1e30, 9223372036854775807.0});
  const Tensor ints = tensorOf<int32_t>(ElementType::si32, {5}, {300, -129, 127, -1, INT32_MIN});
  const Tensor u64 = tensorOf<uint64_t>(ElementType::ui64, {2}, {UINT64_MAX, 1ull << 63});
  // 1 + 2^-11 + 2^-40 lies just above the f16 midpoint between 1 and 1 + 2^-10;
  // going through f32 first would drop the 2^-40 and round down to 1.
  const Tensor d = tensorOf<double>(ElementType::f64, {3}, {1.0 + 0x1p-11 + 0x1p-40, 1.0 + 0x1p-11, 70000.0});
  // 2^24 + 1 is not a float: ties to even gives 2^24; 2^24 + 3 gives 2^24 + 4.
  const Tensor i64 = tensorOf<int64_t>(ElementType::si64, {3}, {(1 << 24) + 1, (1 << 24) + 3, -70000});
  struct Case { Tensor in; bool saturate; Tensor expected; };
  const Case cases[] = {
      // float -> integer truncates and always saturates (without the flag too); NaN gives 0
      {floats, false, tensorOf<int8_t>(ElementType::si8, {9}, {2, -2, 0, 127, 127, -128, 127, -128, 0})},
      {floats, false, tensorOf<uint8_t>(ElementType::ui8, {9}, {2, 0, 0, 127, 255, 0, 255, 0, 0})},
      {big, false, tensorOf<int64_t>(ElementType::si64, {3}, {INT64_MAX, INT64_MIN, INT64_MAX})},
      // integer narrowing wraps, or saturates when asked
      {ints, false, tensorOf<int8_t>(ElementType::si8, {5}, {44, 127, 127, -1, 0})},
      {ints, true, tensorOf<int8_t>(ElementType::si8, {5}, {127, -128, 127, -1, -128})},
      {u64, true, tensorOf<int64_t>(ElementType::si64, {2}, {INT64_MAX, INT64_MAX})},
      // narrowing floats round once to nearest even; overflow saturates when asked
      {d, false, tensorOf<uint16_t>(ElementType::f16, {3}, {0x3c01, 0x3c00, 0x7c00})},
      {d, true, tensorOf<uint16_t>(ElementType::f16, {3}, {0x3c01, 0x3c00, 0x7bff})},
      {i64, false, tensorOf<float>(ElementType::f32, {3}, {16777216.f, 16777220.f, -70000.f})},
      {tensorOf<float>(ElementType::f32, {3}, {1.00390625f, 1.01171875f, NAN}), false,  // bf16 ties
       tensorOf<uint16_t>(ElementType::vbf16, {3}, {0x3f80, 0x3f82, 0x7fc0})},
      {tensorOf<double>(ElementType::f64, {2}, {INFINITY, 1e300}), true, tensorOf<float>(ElementType::f32, {2}, {inf, FLT_MAX})},
      {tensorOf<float>(ElementType::f32, {4}, {0.0f, -0.0f, 0.25f, NAN}), false,
       tensorOf<uint8_t>(ElementType::bool8, {4}, {0, 0, 1, 1})},
  };
  for (const Case& c : cases) {
    Tensor out = c.in.cast(c.expected.elementType(), c.saturate);
    EXPECT_EQ(out.elementType(), c.expected.elementType());
    EXPECT_EQ(compactBytes(out), compactBytes(c.expected)) << c.in << " -> " << c.expected << (c.saturate ? " saturating" : "");
  }
  // A broadcast source (stride 0) converted into a transposed destination.
  Tensor row = tensorOf<int32_t>(ElementType::si32, {3}, {-1, 300, 7});
  Tensor source(std::vector<long>{2, 3}, std::vector<long>{0, 4}, ElementType::si32, 0, row.storage());
  Tensor target = Tensor::create(ElementType::si8, {3, 2});
  castElements(target.permute({1, 0}), source, true);
  EXPECT_EQ(valuesOf<int8_t>(target), (std::vector<int8_t>{-1, -1, 127, 127, 7, 7}));
}

TEST(Serialize, HeaderWordsThenCompactElements) {
  Tensor t = tensorOf<int16_t>(ElementType::si16, {2, 3}, {1, -2, 3, -4, 5, -6});
  SerializedTensor s = t.serialize();
  EXPECT_EQ(std::string(s.bytes.get(), s.size), test::words({0xFADE, 0x20103, 2, 2, 3}) + test::raw<int16_t>({1, -2, 3, -4, 5, -6}));
  // Rank 0, a transposed and a broadcast view: written compactly.
  Tensor ints = tensorOf<int32_t>(ElementType::si32, {2, 3}, {1, 2, 3, 4, 5, 6});
  struct Case { Tensor in; unsigned long size; };
  const Case cases[] = {{t, 5 * 8 + 12}, {tensorOf<double>(ElementType::f64, {}, {2.5}), 24 + 8}, {ints.permute({1, 0}), 5 * 8 + 24},
                        {Tensor({2, 3}, {0, 4}, ElementType::si32, 0, ints.storage()), 5 * 8 + 24}};
  for (const Case& c : cases) {
    SerializedTensor s = c.in.serialize();
    EXPECT_EQ(s.size, c.size) << c.in;
    Tensor back = Tensor::deserialize(s.view(), true);
    EXPECT_EQ(back.type(), c.in.type());
    EXPECT_TRUE(back.isContiguous());
    EXPECT_EQ(compactBytes(back), compactBytes(c.in)) << c.in;
  }
  // Reading in place aliases the caller's buffer; a copy does not.
  Tensor view = Tensor::deserialize(s.view(), false), copy = Tensor::deserialize(s.view(), true);
  EXPECT_FALSE(view.storage()->ownsData());
  view.data<int16_t>()[1] = 9;
  copy.data<int16_t>()[0] = 5;
  EXPECT_EQ(std::string(s.bytes.get() + 40, 4), test::raw<int16_t>({1, 9}));
}

// (A cast without a numeric reading ends in the unknown-type trap, whose
// death test is ElementTypeTest's.)
using TensorDeathTest = ::testing::Test;
TEST_F(TensorDeathTest, WrongMagicTraps) {
  SerializedTensor s = Tensor::create(ElementType::si8, {4}).serialize();
  s.bytes[0] = 0;
  EXPECT_DEATH({ test::logToStderr(); (void)Tensor::deserialize(s.view(), true); },
               "2\\|trapped at lib/Core/Tensor, line 146\n2\\|given data is not a tensor");
}
