#include <gtest/gtest.h>

#include "TestUtil.h"

using namespace kora;
using test::tensorOf;
using test::valuesOf;

namespace {

// out = in * scale + offset over f32; fails when told to.
Status scaleConfig(Tensor& out, Tensor const& in, double, const std::vector<long>&, int8_t offset) {
  if (offset == 13) return configError("Scale", "unlucky offset");
  out.setShape(in.shape());
  if (out.elementType() == ElementType::invalid) out.setElementType(in.elementType());
  return Status::success();
}

Status scale(Tensor& out, Tensor const& in, double k, const std::vector<long>& dims, int8_t offset) {
  if (out.elementType() != ElementType::f32) return Status::failure("only f32");
  if (!dims.empty()) return failure("dims {} not supported", dims.size());
  mapElements<float, float>(out, in, [&](float x) { return x * float(k) + offset; });
  return Status::success();
}

Status pick(Tensor& out, const std::vector<Tensor>& ins, int64_t index) {
  out = ins.at(size_t(index));
  return Status::success();
}

class Invoke : public ::testing::Test {
 protected:
  Invoke() {
    registerKernel(table_, "test::Scale", &scaleConfig, &scale, {Argument(std::vector<int64_t>{}), Argument(0)});
    registerKernel(table_, "test::Pick", nullptr, &pick);
  }
  const KernelEntry& entry(int i) { return *table_.entries.at(i); }
  KernelRegistry table_;
  Tensor in_ = tensorOf<float>(ElementType::f32, {2}, {1.f, -2.f});
};

}  // namespace

TEST_F(Invoke, ConfigAllocatesOutputsThenImplComputes) {
  std::vector<Tensor> outs;
  ASSERT_TRUE(invoke(entry(0), outs, {in_, 2.0, std::vector<int64_t>{}, 1}).ok());
  ASSERT_EQ(outs.size(), 1u);
  EXPECT_EQ(valuesOf<float>(outs[0]), (std::vector<float>{3.f, -3.f}));
}

TEST_F(Invoke, TrailingInputsTakeTheirDefaults) {
  std::vector<Tensor> outs;
  ASSERT_TRUE(invoke(entry(0), outs, {in_, 3}).ok());
  EXPECT_EQ(valuesOf<float>(outs[0]), (std::vector<float>{3.f, -6.f}));
}

TEST_F(Invoke, OutputsGivenWithStorageAreWrittenInPlace) {
  std::vector<Tensor> outs = {Tensor::create(ElementType::f32, {2})};
  Tensor mine = outs[0];
  ASSERT_TRUE(invoke(entry(0), outs, {in_, 1.0}).ok());
  EXPECT_EQ(outs[0].storage(), mine.storage());
  EXPECT_EQ(valuesOf<float>(mine), (std::vector<float>{1.f, -2.f}));
}

TEST_F(Invoke, MisuseIsReportedInTheLayersOwnWords) {
  struct Case {
    int entry;
    std::vector<Argument> inputs;
    std::string message;
  };
  const Case cases[] = {
      {0, {in_, "two"}, "test::Scale: 2-th parameter fails to convert. Kernel expect type is double, but got a type string"},
      {0, {2.0, 2.0}, "test::Scale: 1-th parameter fails to convert. Kernel expect type is Tensor, but got a type double"},
      {0, {in_, 1.0, std::vector<int64_t>{}, 300},
       "test::Scale: 4-th parameter fails to convert. Kernel expect type is int8_t, but got a type int64_t"},
      {0, {in_, 1.0, std::vector<double>{1.5}},
       "test::Scale: 3-th parameter fails to convert. Kernel expect type is int64_t[], but got a type double[]"},
      {0, {}, "test::Scale expects 4 inputs, but got 0"},
      {0, {in_, 1.0, std::vector<int64_t>{}, 1, 5}, "test::Scale expects 4 inputs, but got 5"},
      {1, {in_, 0},
       "test::Pick: 1-th parameter fails to convert. Kernel expect type is Tensor[], but got a type Tensor. "
       "you should use vector<Variable> to wrap vector<Tensor>."},
  };
  for (const Case& c : cases) {
    std::vector<Tensor> outs;
    Status s = invoke(entry(c.entry), outs, c.inputs);
    EXPECT_FALSE(s.ok());
    EXPECT_EQ(s.message(), c.message);
  }
  std::vector<Tensor> tooMany(3);
  EXPECT_EQ(invoke(entry(0), tooMany, {in_, 1.0}).message(), "test::Scale expects 1 outputs, but got 3");
  EXPECT_EQ(invoke("native::Nothing", tooMany, {}).message(), "no kernel is registered as \"native::Nothing\"");
}

TEST_F(Invoke, ConfigAndImplFailuresCarryTheKernelsMessage) {
  std::vector<Tensor> outs;
  Status config = invoke(entry(0), outs, {in_, 1.0, std::vector<int64_t>{}, 13});
  EXPECT_EQ(config.message().rfind("test::Scale config function call failure! Scale config error: unlucky offset\n"
                                   "(Config invoke) The input params: Tensor<f32,2,4>, 1, [], 13\nIt's defined at ",
                                   0),
            0u)
      << config.message();
  EXPECT_TRUE(outs[0].storage() == nullptr) << "nothing is allocated when Config fails";

  std::vector<Tensor> again;
  Status impl = invoke(entry(0), again, {in_, 1.0, std::vector<int64_t>{1}});
  EXPECT_EQ(impl.message().rfind("test::Scale impl function call failure! dims 1 not supported\n"
                                 "(Impl invoke) The output params: Tensor<f32,2,4>",
                                 0),
            0u)
      << impl.message();
}

TEST_F(Invoke, KernelWithoutConfigNeedsTypedOutputs) {
  std::vector<Tensor> outs;
  EXPECT_EQ(invoke(entry(1), outs, {std::vector<Tensor>{in_}, 0}).message(),
            "test::Pick: output 0 has no element type; pass it with one");
  std::vector<Tensor> typed = {Tensor(ElementType::f32, {2})};
  ASSERT_TRUE(invoke(entry(1), typed, {std::vector<Tensor>{in_}, 0}).ok());
  EXPECT_EQ(typed[0].storage(), in_.storage());
}

TEST(InvokeTable, ReluByName) {
  test::TraceCapture capture;
  test::ScopedTracePoint point({1});
  std::vector<Tensor> outs;
  Tensor in = tensorOf<float>(ElementType::f32, {3}, {-1.f, -2.5f, 4.f});
  ASSERT_TRUE(invoke("native::ReLU", outs, {in}).ok());
  EXPECT_EQ(valuesOf<float>(outs[0]), (std::vector<float>{0.f, 0.f, 4.f}));
  EXPECT_EQ(capture.lines(), (std::vector<std::string>{"fout[1] = relu(fin[1]) // relu(-2.5) -> 0 "}));
  std::vector<Tensor> none;
  EXPECT_EQ(invoke("native::ReLU", none, {Tensor()}).message().substr(0, 79),
            "native::ReLU config function call failure! ReLU config error: lhs and rhs must ");
}
