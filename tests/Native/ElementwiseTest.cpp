// Shape inference and broadcast views shared by the elementwise kernels.
#include <gtest/gtest.h>

#include "TestUtil.h"

using namespace kora;
using test::tensorOf;

TEST(ElementwiseShape, InferenceRightAlignsAndTakesTheSizeThatIsNotOne) {
  struct Case {
    std::vector<std::vector<long>> inputs;
    std::vector<long> shape;
    std::string failure;
  };
  const Case cases[] = {
      {{{3, 1}, {4}}, {3, 4}, ""},
      {{{2, 3}, {4, 3}}, {}, "axis 0 size not match for all fins"},
      {{{5, 1, 7}, {6, 1}, {1}}, {5, 6, 7}, ""},
      {{{1, 1}, {1}}, {1, 1}, ""},
      {{{}, {2, 2}}, {2, 2}, ""},
      {{{0, 3}, {1, 3}}, {0, 3}, ""},
      {{{2, 3, 4}, {2, 1, 5}}, {}, "axis 2 size not match for all fins"},
      {{{2, 3}, {3}, {2, 1}, {4, 1, 1}}, {4, 2, 3}, ""},
  };
  for (const Case& c : cases) {
    std::vector<Tensor> tensors;
    for (const auto& s : c.inputs) tensors.push_back(Tensor::create(ElementType::f32, s));
    std::vector<long> shape = {99};
    Status s = tensors.size() == 2 ? native::inferElementwiseShape({&tensors[0], &tensors[1]}, shape)
               : tensors.size() == 3
                   ? native::inferElementwiseShape({&tensors[0], &tensors[1], &tensors[2]}, shape)
                   : native::inferElementwiseShape({&tensors[0], &tensors[1], &tensors[2], &tensors[3]}, shape);
    EXPECT_EQ(s.message(), c.failure);
    if (c.failure.empty()) {
      EXPECT_EQ(shape, c.shape);
    }
  }
  std::vector<long> shape;
  Tensor valid = Tensor::create(ElementType::f32, {2});
  Tensor noData(ElementType::f32, {2});
  EXPECT_EQ(native::inferElementwiseShape({&valid, &noData}, shape).message(), "lhs and rhs must both valid");
}

TEST(ElementwiseShape, BroadcastViewsShareStorageWithStrideZero) {
  Tensor fout = Tensor::create(ElementType::f32, {2, 3, 4});
  Tensor lhs = tensorOf<float>(ElementType::f32, {3, 1}, {1, 2, 3});
  Tensor rhs = Tensor::create(ElementType::f32, {2, 1, 4});
  const auto lhsStorage = lhs.storage();
  const long countBefore = lhsStorage.use_count();
  ASSERT_TRUE(native::broadcastBinary(fout, lhs, rhs).ok());
  EXPECT_EQ(lhs.shape().vec(), (std::vector<long>{2, 3, 4}));
  EXPECT_EQ(lhs.strides().vec(), (std::vector<long>{0, 4, 0}));
  EXPECT_EQ(rhs.strides().vec(), (std::vector<long>{16, 0, 4}));
  EXPECT_EQ(lhs.storage(), lhsStorage) << "the view shares the caller's storage";
  EXPECT_EQ(lhsStorage.use_count(), countBefore);
  EXPECT_EQ(lhs.at<float>({1, 2, 3}), 3.0f);

  // A view keeps a non-zero offset and the operand's own strides.
  Tensor base = tensorOf<float>(ElementType::f32, {2, 4}, {0, 1, 2, 3, 4, 5, 6, 7});
  Tensor column = base.slice(1, 2, 3).slice(0, 1, 2);  // [1, 1] holding 6
  Tensor row = base.slice(0, 1, 2).permute({1, 0}).slice(0, 0, 3);  // [3, 1]: 4, 5, 6
  Tensor target = Tensor::create(ElementType::f32, {3, 5});
  ASSERT_TRUE(native::broadcastBinary(target, column, row).ok());
  EXPECT_EQ(column.at<float>({2, 4}), 6.0f);
  EXPECT_EQ(row.at<float>({1, 3}), 5.0f);
}

TEST(ElementwiseShape, BroadcastFailuresLeaveTheOperandsUntouched) {
  Tensor fout = Tensor::create(ElementType::f32, {3, 4});
  struct Case {
    std::vector<long> lhs, rhs;
    std::string failure;
  };
  const Case cases[] = {
      {{3, 4}, {2, 4}, "axis 0 size not match for all fins"},
      {{3, 5}, {4}, "axis 1 size not match for all fins"},
      {{1, 3, 4}, {4}, "rank of fout is less than lhs and rhs"},
      {{4}, {3, 2}, "axis 1 size not match for all fins"},
  };
  for (const Case& c : cases) {
    Tensor lhs = Tensor::create(ElementType::f32, c.lhs), rhs = Tensor::create(ElementType::f32, c.rhs);
    const Tensor lhsBefore = lhs, rhsBefore = rhs;
    EXPECT_EQ(native::broadcastBinary(fout, lhs, rhs).message(), c.failure);
    EXPECT_EQ(lhs.shape().vec(), lhsBefore.shape().vec());
    EXPECT_EQ(rhs.shape().vec(), rhsBefore.shape().vec());
    EXPECT_EQ(lhs.strides().vec(), lhsBefore.strides().vec());
  }
}

TEST(ElementwiseShape, SourceCoordinateDropsLeadingAxesAndZeroesBroadcastOnes) {
  const long coord[] = {4, 2, 3};
  const long shape1[] = {3, 1};
  const long shape2[] = {1, 3, 5};
  const long shape3[] = {7};
  EXPECT_EQ(native::broadcastSourceCoord(coord, ArrayRef<long>(shape1, 2)).ref().vec(), (std::vector<long>{2, 0}));
  EXPECT_EQ(native::broadcastSourceCoord(coord, ArrayRef<long>(shape2, 3)).ref().vec(), (std::vector<long>{0, 2, 3}));
  EXPECT_EQ(native::broadcastSourceCoord(coord, ArrayRef<long>(shape3, 1)).ref().vec(), (std::vector<long>{3}));
  EXPECT_EQ(native::broadcastSourceCoord(coord, ArrayRef<long>()).rank, 0u);
}

TEST(ElementwiseTable, EveryMemberIsRegisteredWithItsParameterKinds) {
  const uint64_t tensor = 0x1000400;
  struct Row {
    const char* name;
    std::vector<uint64_t> inputs;
  };
  std::vector<Row> rows;
  for (const char* unary :
       {"Abs", "Acos", "Acosh", "Asin", "Asinh", "Atan", "Atanh", "BitwiseNot", "Ceil", "Cos", "Cosh", "Erf", "Exp",
        "Floor", "GELU", "Log", "LogicalNot", "Mish", "Neg", "ReLU", "Reciprocal", "Rsqrt", "Sigmoid", "Sign", "Sin",
        "Sinh", "Softsign", "Sqrt", "Swish", "Tan", "Tanh"})
    rows.push_back({unary, {tensor}});
  for (const char* binary :
       {"Add", "Sub", "Mul", "Div", "Rem", "Mod", "Pow", "Max", "Min", "BitShift", "BitwiseAnd", "BitwiseOr",
        "BitwiseXor", "Equal", "NotEqual", "Greater", "GreaterEqual", "Less", "LessEqual", "LogicalAnd", "LogicalOr",
        "LogicalXor", "PRelu", "Lut"})
    rows.push_back({binary, {tensor, tensor}});
  const uint64_t f32 = 0x40003, f64 = 0x80004, i64 = 0x80105, boolean = 0x10205, ui64 = 0x80204, text = 0x1000404;
  rows.push_back({"Where", {tensor, tensor, tensor}});
  rows.push_back({"Cast", {tensor, boolean}});
  rows.push_back({"FakeCast", {tensor, ui64}});
  rows.push_back({"GELUV2", {tensor, text}});
  rows.push_back({"LeakyReLU", {tensor, f64}});
  rows.push_back({"Softplus", {tensor, f64, f64}});
  rows.push_back({"ClampF", {tensor, f64, f64}});
  rows.push_back({"NanToNum", {tensor, f64, f64, f64}});
  rows.push_back({"Elu", {tensor, f32}});
  rows.push_back({"Selu", {tensor, f32, f32}});
  rows.push_back({"Hardsigmoid", {tensor, f32, f32}});
  rows.push_back({"Clamp", {tensor, i64, i64}});
  rows.push_back({"Round", {tensor, i64}});
  EXPECT_EQ(rows.size(), 68u);
  for (const Row& row : rows) {
    const std::string name = std::string("native::") + row.name;
    const KernelEntry* entry = findKernel(name);
    ASSERT_NE(entry, nullptr) << name;
    EXPECT_EQ(entry->numOutputs, 1u) << name;
    EXPECT_EQ(entry->outputKinds[0], tensor) << name;
    ASSERT_EQ(entry->numInputs, row.inputs.size()) << name;
    for (size_t i = 0; i < row.inputs.size(); ++i) EXPECT_EQ(entry->inputKinds[i], row.inputs[i]) << name << " " << i;
    EXPECT_NE(entry->config, nullptr) << name;
  }
}

TEST(ElementwiseTable, CallsByNameFollowTheProtocol) {
  std::vector<Tensor> outputs;
  ASSERT_TRUE(invoke("native::Equal", outputs,
                     {tensorOf<int16_t>(ElementType::si16, {2, 1}, {1, 2}), tensorOf<int16_t>(ElementType::si16, {2}, {2, 1})})
                  .ok());
  EXPECT_EQ(outputs[0].type(), TensorType(ElementType::bool8, {2, 2}));
  EXPECT_EQ(test::valuesOf<uint8_t>(outputs[0]), (std::vector<uint8_t>{0, 1, 1, 0}));
  outputs.clear();
  Status bad = invoke("native::GELUV2", outputs, {Tensor::create(ElementType::f32, {2}), "exact"});
  EXPECT_EQ(bad.message().rfind(
                "native::GELUV2 config function call failure! GELUV2 config error: only support none or tanh "
                "approximate.\n",
                0),
            0u)
      << bad.message();
  outputs.clear();
  ASSERT_TRUE(invoke("native::Clamp", outputs, {tensorOf<int8_t>(ElementType::si8, {3}, {-9, 0, 9}), -3L, 3L}).ok());
  EXPECT_EQ(test::valuesOf<int8_t>(outputs[0]), (std::vector<int8_t>{-3, 0, 3}));
}
