// What every native family shares: its members called by name as a host
// calls them, and the trap for an element type a member does not serve.
#include "NativeTest.h"

using namespace kora;
using namespace kora::test;
using enum ElementType;

TEST(NativeTable, MembersRunByNameConfigFirst) {
  Tensor fin = f32s({2, 3}, {1, 2, 3, 4, 5, 6}), row = f32s({1, 2}, {1, 2}), w = f32s({2, 2}, {3, 4, 5, 6});
  using Dims = std::vector<int64_t>;
  // The output's type is preset when the caller sets it.
  struct Case { const char* name; std::vector<Argument> args; TensorType type; std::vector<double> values; ElementType preset = invalid; };
  const Case cases[] = {
      {"native::Clamp", {ints(si8, {-9, 0, 9}), -3L, 3L}, TensorType(si8, {3}), {-3, 0, 3}},
      {"native::Cast", {f32s({2}, {-5.5f, 7.9f}), true}, TensorType(ui8, {2}), {0, 7}, ui8},
      {"native::ReduceSum", {fin, Dims{1}, false}, TensorType(f32, {2}), {6, 15}},
      {"native::MatMul", {row, w}, TensorType(f32, {1, 2}), {13, 16}},
      {"native::CumSum", {fin, 0, true, false}, TensorType(f32, {2, 3}), {0, 0, 0, 1, 2, 3}},
      {"native::Linear", {row, w, f32s({2}, {0.5f, -0.5f})}, TensorType(f32, {1, 2}), {11.5, 16.5}},
  };
  for (const Case& c : cases) {
    std::vector<Tensor> outputs = {Tensor(c.preset, {})};
    ASSERT_TRUE(invoke(c.name, outputs, c.args).ok()) << c.name;
    EXPECT_EQ(outputs.at(0).type(), c.type) << c.name;
    EXPECT_EQ(valuesOf<double>(outputs[0].cast(f64)), c.values) << c.name;
  }
  std::vector<Tensor> outputs;
  Status bad = invoke("native::GELUV2", outputs, {Tensor::create(f32, {2}), "exact"});
  EXPECT_TRUE(bad.message().starts_with(
      "native::GELUV2 config function call failure! GELUV2 config error: only support none or tanh approximate.\n"))
      << bad.message();
}

using NativeDeathTest = ::testing::Test;
TEST_F(NativeDeathTest, TypesAMemberDoesNotServeTrap) {
  using Call = std::function<Status(Tensor&, const Tensor&)>;
  const std::vector<long> matrix = {2, 2}, row = {2};
  const std::tuple<ElementType, ElementType, std::vector<long>, Call> cases[] = {
      {f64, f64, matrix, native::Sigmoid}, {opaque32, opaque32, matrix, native::LogicalNot},
      {f32, f32, matrix, [](Tensor& o, const Tensor& i) { return native::Clamp(o, i, 0, 1); }},
      {si32, si32, matrix, [](Tensor& o, const Tensor& i) { return native::Lut(o, i, Tensor::create(si32, {4})); }},
      {vbf16, vbf16, matrix, [](Tensor& o, const Tensor& i) { return native::Add(o, i, i); }},
      {f32, f32, matrix, [](Tensor& o, const Tensor& i) { return native::BitwiseAnd(o, i, i); }},
      {opaque16, bool8, matrix, [](Tensor& o, const Tensor& i) { return native::Less(o, i, i); }},
      {f32, opaque8, matrix, [](Tensor& o, const Tensor& i) { return native::Equal(o, i, i); }},
      {vbf16, vbf16, row, [](Tensor& o, const Tensor& i) { return native::ReduceMax(o, i, {0}, false); }},
      {bool8, si32, row, [](Tensor& o, const Tensor& i) { return native::ReduceArgMax(o, i, {0}, false); }},
      {tf32, tf32, matrix, [](Tensor& o, const Tensor& i) { return native::CumSum(o, i, 0, false, false); }},
  };
  for (const auto& [in, outType, outShape, call] : cases) {
    Tensor fin = Tensor::create(in, matrix), out = Tensor::create(outType, outShape);
    expectTypeTrap([&] { (void)call(out, fin); }, outType == opaque8 ? outType : in);
  }
  Tensor bytes = Tensor::create(ui8, matrix), bytesOut = Tensor::create(ui8, matrix);
  expectTypeTrap([&] { (void)native::MatMul(bytesOut, bytes, bytes); }, ui8);
  Tensor in = Tensor::create(f32, row), unset = Tensor::create(f32, row).view(invalid);
  expectTypeTrap([&] { (void)native::ReLU(unset, in); }, invalid);
}
