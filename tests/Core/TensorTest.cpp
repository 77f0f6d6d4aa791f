#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <limits>

#include "TestUtil.h"

using namespace kora;
using test::tensorOf;
using test::valuesOf;

TEST(Storage, CreateUninitRecordsTheRequestedSizeAndAligns) {
  auto empty = Storage::createUninit(0);
  EXPECT_EQ(empty->data(), nullptr);
  EXPECT_EQ(empty->size(), 0u);
  auto one = Storage::createUninit(1, DeviceType::Host, 16);
  EXPECT_EQ(one->size(), 1u);
  EXPECT_EQ(one->alignment(), 16u);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(one->data()) % 64, 0u);
  EXPECT_TRUE(one->ownsData());
  EXPECT_TRUE(one->initializedByCreator());
  one->data()[63] = 1;  // the allocation is rounded up to 64 bytes (ASan checks the write)
}

TEST(Storage, ExternalMemoryIsNeverFreed) {
  char buffer[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  {
    Tensor t({2}, {4}, ElementType::f32, 0, Storage::createExternal(MutableArrayRef<char>(buffer)));
    EXPECT_FALSE(t.storage()->ownsData());
    EXPECT_EQ(t.storage()->data(), buffer);
  }
  EXPECT_EQ(buffer[7], 8);  // a free of stack memory would have been reported by ASan
}

TEST(Storage, OwnedBufferOnAnotherDeviceIsNotFreed) {
  char* data = nullptr;
  {
    auto storage = Storage::createUninit(32, static_cast<DeviceType>(1));
    data = storage->data();
  }
  std::free(data);  // a second free would be reported by ASan
}

TEST(Tensor, StridesAndCoordinates) {
  EXPECT_EQ(getStrides({2, 3, 4}, 4), (std::vector<long>{48, 16, 4}));
  EXPECT_EQ(getStrides({2, 3, 4}, 1), (std::vector<long>{12, 4, 1}));
  EXPECT_TRUE(getStrides({}, 4).empty());
  EXPECT_EQ(getCoord(23, {2, 3, 4}, {12, 4, 1}), (std::vector<long>{1, 2, 3}));
  EXPECT_EQ(getCoord(5, {2, 1, 3}, {3, 0, 1}), (std::vector<long>{1, 0, 2}));
  // Every index of a shape maps to a distinct coordinate in row-major order.
  const std::vector<long> shape = {3, 1, 4, 2};
  const auto strides = getStrides(shape, 1);
  for (long i = 0; i < 24; ++i) {
    auto c = getCoord(i, shape, strides);
    EXPECT_EQ(((c[0] * 1 + c[1]) * 4 + c[2]) * 2 + c[3], i);
  }
}

TEST(Tensor, Contiguity) {
  struct Case {
    std::vector<long> shape, strides;
    long dim;
    bool contiguous;
  };
  const Case cases[] = {
      {{2, 3}, {12, 4}, 0, true},
      {{2, 3}, {24, 8}, 0, false},
      {{2, 1, 3}, {12, 999, 4}, 0, true},  // size-1 axes are ignored
      {{2, 3}, {4, 8}, 0, false},          // transposed
      {{2, 3}, {99, 4}, 1, true},          // axes before dim are not examined
      {{2, 3}, {99, 4}, -1, true},
      {{2, 3}, {99, 4}, -2, false},
      {{2, 3}, {99, 8}, 2, true},          // past the last axis
      {{4}, {0}, 0, false},                // broadcast
  };
  for (const Case& c : cases) {
    Tensor t(c.shape, c.strides, ElementType::f32, 0, Storage::createUninit(256));
    EXPECT_EQ(t.isContiguous(c.dim), c.contiguous) << t << " dim " << c.dim;
  }
  Tensor scalar(ElementType::f32, {});
  EXPECT_TRUE(scalar.isContiguous(0));
}

TEST(Tensor, PrintingNeverShowsValues) {
  EXPECT_EQ(toString(Tensor::create(ElementType::si8, {1, 3, 4})), "Tensor<si8,1x3x4,12x4x1>");
  EXPECT_EQ(toString(Tensor::create(ElementType::f32, {})), "Tensor<f32>");
  Tensor noType({2, 3}, {3, 1}, ElementType::invalid, 0, nullptr);
  EXPECT_EQ(toString(noType), "Tensor<invalid,2x3,3x1>");
  EXPECT_FALSE(noType.isValid());
  EXPECT_EQ(toString(TensorType(ElementType::f16, {2, 8})), "TensorType<f16,2x8>");
  EXPECT_EQ(fmt::format("{}", TensorType(ElementType::si32, {})), "TensorType<si32>");
}

TEST(Tensor, ValidityAndEmptiness) {
  EXPECT_FALSE(Tensor().isValid());
  EXPECT_FALSE(Tensor(ElementType::f32, {2}).isValid()) << "no storage";
  EXPECT_FALSE(Tensor::create(ElementType::f32, {2}).view(ElementType::invalid).isValid());
  EXPECT_TRUE(Tensor::create(ElementType::f32, {2, 0}).isEmpty());
  EXPECT_FALSE(Tensor::create(ElementType::f32, {}).isEmpty());
}

TEST(Tensor, DataSpansTheAddressedBytes) {
  Tensor t = Tensor::create(ElementType::f32, {4, 6});
  EXPECT_EQ(t.data<float>().size(), 24u);
  Tensor column = t.slice(1, 2, 3);  // shape 4x1, strides 24x4, offset 8
  EXPECT_EQ(column.data<float>().data(), t.data<float>().data() + 2);
  EXPECT_EQ(column.data<float>().size(), 19u);  // (4 + 3 * 24) / 4
  EXPECT_EQ(Tensor::create(ElementType::f32, {3, 0}).data<float>().size(), 0u);
  EXPECT_EQ(Tensor().data<float>().data(), nullptr);
}

TEST(Tensor, ViewsShareStorage) {
  Tensor t = tensorOf<int32_t>(ElementType::si32, {2, 3}, {0, 1, 2, 3, 4, 5});
  Tensor transposed = t.permute({1, 0});
  EXPECT_EQ(valuesOf<int32_t>(transposed), (std::vector<int32_t>{0, 3, 1, 4, 2, 5}));
  Tensor strided = t.slice(1, 0, 3, 2);
  EXPECT_EQ(valuesOf<int32_t>(strided), (std::vector<int32_t>{0, 2, 3, 5}));
  transposed.at<int32_t>({2, 1}) = 42;
  EXPECT_EQ(t.at<int32_t>({1, 2}), 42);
  EXPECT_EQ(t.view(ElementType::opaque32).storage(), t.storage());
}

TEST(Tensor, ContiguousCopiesOnlyWhenNeeded) {
  Tensor t = tensorOf<int16_t>(ElementType::si16, {2, 3}, {1, 2, 3, 4, 5, 6});
  EXPECT_EQ(t.contiguous().storage(), t.storage());
  Tensor c = t.permute({1, 0}).contiguous();
  EXPECT_NE(c.storage(), t.storage());
  EXPECT_TRUE(c.isContiguous());
  EXPECT_EQ(c.offset(), 0);
  EXPECT_EQ(c.data<int16_t>().vec(), (std::vector<int16_t>{1, 4, 2, 5, 3, 6}));
  Tensor padded = t.slice(1, 0, 2);  // 2x2 out of 2x3: not compact
  EXPECT_EQ(padded.contiguous().data<int16_t>().vec(), (std::vector<int16_t>{1, 2, 4, 5}));
}

// --- cast -------------------------------------------------------------------

TEST(TensorCast, SameTypeSharesStorage) {
  Tensor t = Tensor::create(ElementType::opaque128, {3});
  EXPECT_EQ(t.cast(ElementType::opaque128).storage(), t.storage());
}

TEST(TensorCast, FloatToIntegerTruncatesAndSaturates) {
  const float inf = std::numeric_limits<float>::infinity();
  Tensor in = tensorOf<float>(ElementType::f32, {9}, {2.9f, -2.9f, -0.5f, 127.5f, 300.f, -300.f, inf, -inf, NAN});
  const std::vector<int8_t> expected = {2, -2, 0, 127, 127, -128, 127, -128, 0};
  EXPECT_EQ(valuesOf<int8_t>(in.cast(ElementType::si8)), expected);
  EXPECT_EQ(valuesOf<int8_t>(in.cast(ElementType::si8, true)), expected);
  EXPECT_EQ(valuesOf<uint8_t>(in.cast(ElementType::ui8)), (std::vector<uint8_t>{2, 0, 0, 127, 255, 0, 255, 0, 0}));
  Tensor big = tensorOf<double>(ElementType::f64, {3}, {1e30, -1e30, 9223372036854775807.0});
  EXPECT_EQ(valuesOf<int64_t>(big.cast(ElementType::si64)),
            (std::vector<int64_t>{INT64_MAX, INT64_MIN, INT64_MAX}));
  EXPECT_EQ(valuesOf<uint64_t>(big.cast(ElementType::ui64)), (std::vector<uint64_t>{UINT64_MAX, 0, 1ull << 63}));
}

TEST(TensorCast, IntegerNarrowingWrapsOrSaturates) {
  Tensor in = tensorOf<int32_t>(ElementType::si32, {5}, {300, -129, 127, -1, INT32_MIN});
  EXPECT_EQ(valuesOf<int8_t>(in.cast(ElementType::si8)), (std::vector<int8_t>{44, 127, 127, -1, 0}));
  EXPECT_EQ(valuesOf<int8_t>(in.cast(ElementType::si8, true)), (std::vector<int8_t>{127, -128, 127, -1, -128}));
  EXPECT_EQ(valuesOf<uint16_t>(in.cast(ElementType::ui16)), (std::vector<uint16_t>{300, 65407, 127, 65535, 0}));
  EXPECT_EQ(valuesOf<uint16_t>(in.cast(ElementType::ui16, true)), (std::vector<uint16_t>{300, 0, 127, 0, 0}));
  Tensor u = tensorOf<uint64_t>(ElementType::ui64, {2}, {UINT64_MAX, 1ull << 63});
  EXPECT_EQ(valuesOf<int64_t>(u.cast(ElementType::si64)), (std::vector<int64_t>{-1, INT64_MIN}));
  EXPECT_EQ(valuesOf<int64_t>(u.cast(ElementType::si64, true)), (std::vector<int64_t>{INT64_MAX, INT64_MAX}));
}

TEST(TensorCast, NarrowingFloatsRoundOnceToNearestEven) {
  // 1 + 2^-11 + 2^-40 lies just above the f16 midpoint between 1 and 1 + 2^-10;
  // going through f32 first would drop the 2^-40 and round down to 1.
  Tensor d = tensorOf<double>(ElementType::f64, {3}, {1.0 + 0x1p-11 + 0x1p-40, 1.0 + 0x1p-11, 70000.0});
  EXPECT_EQ(test::bitsOf<half>(d.cast(ElementType::f16)), (std::vector<uint16_t>{0x3c01, 0x3c00, 0x7c00}));
  EXPECT_EQ(test::bitsOf<half>(d.cast(ElementType::f16, true)), (std::vector<uint16_t>{0x3c01, 0x3c00, 0x7bff}));
  // 2^24 + 1 is not a float: ties to even gives 2^24; 2^24 + 3 gives 2^24 + 4.
  Tensor i = tensorOf<int64_t>(ElementType::si64, {3}, {(1 << 24) + 1, (1 << 24) + 3, -70000});
  EXPECT_EQ(valuesOf<float>(i.cast(ElementType::f32)), (std::vector<float>{16777216.f, 16777220.f, -70000.f}));
  EXPECT_EQ(test::bitsOf<half>(i.cast(ElementType::f16)), (std::vector<uint16_t>{0x7c00, 0x7c00, 0xfc00}));
  EXPECT_EQ(test::bitsOf<half>(i.cast(ElementType::f16, true)), (std::vector<uint16_t>{0x7bff, 0x7bff, 0xfbff}));
  Tensor f = tensorOf<float>(ElementType::f32, {3}, {1.00390625f, 1.01171875f, NAN});  // bf16 ties
  EXPECT_EQ(test::bitsOf<bfloat16>(f.cast(ElementType::vbf16)), (std::vector<uint16_t>{0x3f80, 0x3f82, 0x7fc0}));
}

TEST(TensorCast, BooleansAndInfinities) {
  Tensor in = tensorOf<float>(ElementType::f32, {4}, {0.0f, -0.0f, 0.25f, NAN});
  EXPECT_EQ(valuesOf<uint8_t>(in.cast(ElementType::bool8)), (std::vector<uint8_t>{0, 0, 1, 1}));
  Tensor b = tensorOf<uint8_t>(ElementType::bool8, {3}, {0, 1, 7});
  EXPECT_EQ(valuesOf<float>(b.cast(ElementType::f32)), (std::vector<float>{0, 1, 1}));
  EXPECT_EQ(valuesOf<int32_t>(b.cast(ElementType::si32)), (std::vector<int32_t>{0, 1, 1}));
  const double inf = std::numeric_limits<double>::infinity();
  Tensor d = tensorOf<double>(ElementType::f64, {2}, {inf, 1e300});
  EXPECT_EQ(valuesOf<float>(d.cast(ElementType::f32, true)), (std::vector<float>{INFINITY, FLT_MAX}));
  EXPECT_EQ(valuesOf<float>(d.cast(ElementType::f32)), (std::vector<float>{INFINITY, INFINITY}));
}

TEST(TensorCast, ReadsThroughStrides) {
  Tensor t = tensorOf<int16_t>(ElementType::si16, {2, 3}, {1, 2, 3, 4, 5, 6});
  Tensor c = t.permute({1, 0}).cast(ElementType::f32);
  EXPECT_TRUE(c.isContiguous());
  EXPECT_EQ(c.data<float>().vec(), (std::vector<float>{1, 4, 2, 5, 3, 6}));
}

using TensorCastDeathTest = ::testing::Test;
TEST_F(TensorCastDeathTest, TypesWithoutANumericReadingTrap) {
  Tensor t = Tensor::create(ElementType::f32, {2});
  EXPECT_DEATH(
      {
        test::logToStderr();
        (void)t.cast(ElementType::tf32);
      },
      "unknown element type: tf32");
}

// --- serialization -----------------------------------------------------------

TEST(Serialize, ByteLayoutOfACompactTensor) {
  Tensor t = tensorOf<int16_t>(ElementType::si16, {2, 3}, {1, -2, 3, -4, 5, -6});
  SerializedTensor s = t.serialize();
  ASSERT_EQ(s.size, 52u);
  uint64_t header[5];
  std::memcpy(header, s.bytes.get(), sizeof header);
  EXPECT_EQ(header[0], 0xFADEu);
  EXPECT_EQ(header[1], 0x20103u);
  EXPECT_EQ(header[2], 2u);
  EXPECT_EQ(header[3], 2u);
  EXPECT_EQ(header[4], 3u);
  int16_t values[6];
  std::memcpy(values, s.bytes.get() + 40, 12);
  EXPECT_EQ(std::vector<int16_t>(values, values + 6), (std::vector<int16_t>{1, -2, 3, -4, 5, -6}));

  Tensor back = Tensor::deserialize(s.view(), true);
  EXPECT_EQ(back.type(), t.type());
  EXPECT_TRUE(back.isContiguous());
  EXPECT_EQ(valuesOf<int16_t>(back), valuesOf<int16_t>(t));
}

TEST(Serialize, RankZeroIsHeaderAndOneElement) {
  Tensor t = tensorOf<double>(ElementType::f64, {}, {2.5});
  SerializedTensor s = t.serialize();
  EXPECT_EQ(s.size, 24u + 8u);
  Tensor back = Tensor::deserialize(s.view(), true);
  EXPECT_EQ(back.rank(), 0u);
  EXPECT_EQ(back.data<double>()[0], 2.5);
}

TEST(Serialize, StridedAndBroadcastTensorsAreWrittenCompactly) {
  Tensor t = tensorOf<int32_t>(ElementType::si32, {2, 3}, {1, 2, 3, 4, 5, 6});
  Tensor back = Tensor::deserialize(t.permute({1, 0}).serialize().view(), true);
  EXPECT_EQ(back.shape().vec(), (std::vector<long>{3, 2}));
  EXPECT_EQ(back.data<int32_t>().vec(), (std::vector<int32_t>{1, 4, 2, 5, 3, 6}));
  Tensor row = tensorOf<int32_t>(ElementType::si32, {3}, {7, 8, 9});
  Tensor broadcast({2, 3}, {0, 4}, ElementType::si32, 0, row.storage());
  SerializedTensor s = broadcast.serialize();
  EXPECT_EQ(s.size, 5u * 8 + 24);
  EXPECT_EQ(Tensor::deserialize(s.view(), true).data<int32_t>().vec(), (std::vector<int32_t>{7, 8, 9, 7, 8, 9}));
}

TEST(Serialize, ReadingInPlaceAliasesTheCallersBuffer) {
  SerializedTensor s = tensorOf<float>(ElementType::f32, {2}, {1.f, 2.f}).serialize();
  Tensor view = Tensor::deserialize(s.view(), false);
  EXPECT_FALSE(view.storage()->ownsData());
  view.data<float>()[1] = 9.f;
  float stored;
  std::memcpy(&stored, s.bytes.get() + 32 + 4, 4);
  EXPECT_EQ(stored, 9.f);
  Tensor copy = Tensor::deserialize(s.view(), true);
  copy.data<float>()[0] = 5.f;
  EXPECT_EQ(view.data<float>()[0], 1.f);
}

using SerializeDeathTest = ::testing::Test;
TEST_F(SerializeDeathTest, WrongMagicTrapsWithTheTensorSite) {
  SerializedTensor s = Tensor::create(ElementType::si8, {4}).serialize();
  s.bytes[0] = 0;
  EXPECT_DEATH(
      {
        test::logToStderr();
        (void)Tensor::deserialize(s.view(), true);
      },
      "2\\|trapped at lib/Core/Tensor, line 146\n2\\|given data is not a tensor");
}

TEST(TensorCast, CastElementsWritesIntoAStridedDestination) {
  // A broadcast source (stride 0) converted into a transposed destination.
  Tensor row = tensorOf<int32_t>(ElementType::si32, {3}, {-1, 300, 7});
  Tensor source(std::vector<long>{2, 3}, std::vector<long>{0, 4}, ElementType::si32, 0, row.storage());
  Tensor target = tensorOf<int8_t>(ElementType::si8, {3, 2}, {9, 9, 9, 9, 9, 9});
  Tensor view = target.permute({1, 0});
  castElements(view, source);
  EXPECT_EQ(valuesOf<int8_t>(target), (std::vector<int8_t>{-1, -1, 44, 44, 7, 7}));
  castElements(view, source, true);
  EXPECT_EQ(valuesOf<int8_t>(target), (std::vector<int8_t>{-1, -1, 127, 127, 7, 7}));
  // Equal types copy bit for bit.
  Tensor same = Tensor::create(ElementType::si32, {2, 3});
  castElements(same, source);
  EXPECT_EQ(valuesOf<int32_t>(same), (std::vector<int32_t>{-1, 300, 7, -1, 300, 7}));
}
