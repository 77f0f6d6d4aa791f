// What every native family shares: the trap for an element type a member
// does not serve.
#include "NativeTest.h"

using namespace kora;
using namespace kora::test;
using enum ElementType;

using NativeDeathTest = ::testing::Test;
TEST_F(NativeDeathTest, TypesAMemberDoesNotServeTrap) {
  // One member per family; Equal checks its output's type on its own.
  using Call = std::function<Status(Tensor&, const Tensor&)>;
  const std::vector<long> matrix = {2, 2}, row = {2};
  const std::tuple<ElementType, ElementType, std::vector<long>, Call> cases[] = {
      {f64, f64, matrix, native::Sigmoid},
      {vbf16, vbf16, matrix, [](Tensor& o, const Tensor& i) { return native::Add(o, i, i); }},
      {f32, opaque8, matrix, [](Tensor& o, const Tensor& i) { return native::Equal(o, i, i); }},
      {vbf16, vbf16, row, [](Tensor& o, const Tensor& i) { return native::ReduceMax(o, i, {0}, false); }},
      {ui8, ui8, matrix, [](Tensor& o, const Tensor& i) { return native::MatMul(o, i, i); }},
  };
  for (const auto& [in, outType, outShape, call] : cases) {
    Tensor fin = Tensor::create(in, matrix), out = Tensor::create(outType, outShape);
    expectTypeTrap([&] { (void)call(out, fin); }, outType == opaque8 ? outType : in);
  }
  Tensor in = Tensor::create(f32, row), unset = Tensor::create(f32, row).view(invalid);
  expectTypeTrap([&] { (void)native::ReLU(unset, in); }, invalid);
}
