#include <gtest/gtest.h>

#include "Kernel/TestKernels.h"

using namespace kora;
using test::tensorOf;
using test::testKernel;
using test::valuesOf;

namespace {
const Tensor kIn = tensorOf<float>(ElementType::f32, {2}, {1.f, -2.f});
}  // namespace

TEST(Invoke, ConfigAllocatesThenImplComputesWithDefaultsForTrailingInputs) {
  const KernelEntry& scale = testKernel("test::Scale");
  struct Case { std::vector<Argument> inputs; std::vector<float> expected; };
  const Case cases[] = {
      {{kIn, 2.0, std::vector<int64_t>{}, 1}, {3.f, -3.f}},
      {{kIn, 3}, {3.f, -6.f}},
      {{kIn, 1.0, std::vector<int64_t>{}}, {1.f, -2.f}},
  };
  for (const Case& c : cases) {
    std::vector<Tensor> outs;
    ASSERT_TRUE(invoke(scale, outs, c.inputs).ok());
    ASSERT_EQ(outs.size(), 1u);
    EXPECT_EQ(valuesOf<float>(outs[0]), c.expected);
  }
  // Outputs given with storage are written in place.
  std::vector<Tensor> outs = {Tensor::create(ElementType::f32, {2})};
  Tensor mine = outs[0];
  ASSERT_TRUE(invoke(scale, outs, {kIn, -1.0}).ok());
  EXPECT_EQ(outs[0].storage(), mine.storage());
  EXPECT_EQ(valuesOf<float>(mine), (std::vector<float>{-1.f, 2.f}));
  // A kernel without a Config needs typed outputs, which it gets allocated.
  std::vector<Tensor> untyped, typed = {Tensor(ElementType::f32, {2})};
  EXPECT_EQ(invoke(testKernel("test::Fill"), untyped, {2.5}).message(),
            "test::Fill: output 0 has no element type; pass it with one");
  ASSERT_TRUE(invoke(testKernel("test::Fill"), typed, {2.5}).ok());
  EXPECT_EQ(valuesOf<float>(typed[0]), (std::vector<float>{2.5f, 2.5f}));
}

TEST(Invoke, MisuseIsReportedInTheLayersOwnWords) {
  // (The command-line tests cover the other conversion failures.)
  struct Case { const char* kernel; std::vector<Argument> inputs; std::string message; };
  const Case cases[] = {
      {"test::Scale", {2.0, 2.0}, "test::Scale: 1-th parameter fails to convert. Kernel expect type is Tensor, but got a type double"},
      {"test::Concat", {kIn},
       "test::Concat: 1-th parameter fails to convert. Kernel expect type is Tensor[], but got a type Tensor. "
       "you should use vector<Variable> to wrap vector<Tensor>."},
  };
  for (const Case& c : cases) {
    std::vector<Tensor> outs;
    EXPECT_EQ(invoke(testKernel(c.kernel), outs, c.inputs).message(), c.message);
  }
  std::vector<Tensor> tooMany(3);
  EXPECT_EQ(invoke(testKernel("test::Scale"), tooMany, {kIn, 1.0}).message(), "test::Scale expects 1 outputs, but got 3");
  EXPECT_EQ(invoke("native::Nothing", tooMany, {}).message(), "no kernel is registered as \"native::Nothing\"");

  std::vector<Tensor> outs;
  Status config = invoke(testKernel("test::Scale"), outs, {kIn, 1.0, std::vector<int64_t>{}, 13});
  EXPECT_EQ(config.message().rfind("test::Scale config function call failure! Scale config error: unlucky offset\n"
                                   "(Config invoke) The input params: Tensor<f32,2,4>, 1, [], 13\nIt's defined at ", 0),
            0u) << config.message();
  EXPECT_TRUE(outs[0].storage() == nullptr) << "nothing is allocated when Config fails";
  std::vector<Tensor> again;
  Status impl = invoke(testKernel("test::Scale"), again, {kIn, 1.0, std::vector<int64_t>{1}});
  EXPECT_EQ(impl.message().rfind("test::Scale impl function call failure! dims 1 not supported\n"
                                 "(Impl invoke) The output params: Tensor<f32,2,4>", 0),
            0u) << impl.message();
}

TEST(Invoke, ReluByNameWithItsTraceLine) {
  test::TraceCapture capture;
  test::ScopedTracePoint point({1});
  std::vector<Tensor> outs;
  ASSERT_TRUE(invoke("native::ReLU", outs, {tensorOf<float>(ElementType::f32, {3}, {-1.f, -2.5f, 4.f})}).ok());
  EXPECT_EQ(valuesOf<float>(outs[0]), (std::vector<float>{0.f, 0.f, 4.f}));
  EXPECT_EQ(capture.lines(), (std::vector<std::string>{"fout[1] = relu(fin[1]) // relu(-2.5) -> 0 "}));
  std::vector<Tensor> none;
  EXPECT_EQ(invoke("native::ReLU", none, {Tensor()}).message().substr(0, 79),
            "native::ReLU config function call failure! ReLU config error: lhs and rhs must ");
}
