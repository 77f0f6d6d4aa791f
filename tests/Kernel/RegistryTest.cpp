// The kernel table (entry points, published order, parameter kinds) and
// calls by name through the invocation layer.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "Kernel/PublishedKernels.h"
#include "Kernel/TestKernels.h"

using namespace kora;
using test::tensorOf;
using test::testKernel;
using test::valuesOf;

TEST(Registry, TheLibraryTableAndTheTensorLayout) {
  // (tests/standalone/AbiHost.cpp checks the entry points the way a host
  // calls them, reading the table through its own copy of the layout.)
  EXPECT_EQ(sizeof(Tensor), 8u + 88 + 88 + 8 + 8 + 16) << "hosts pass tensors as they are";
  Dispatcher& d = Dispatcher::singleton();
  EXPECT_TRUE(d.empty()) << "nothing in the library fills the process-wide map";
  d.indexTable(kernelTable());
  EXPECT_EQ(d.at("native::ReLU"), findKernel("native::ReLU"));
  d.clear();
}

TEST(Registry, TableFollowsThePublishedOrder) {
  const std::vector<std::string> published = test::publishedKernels();
  ASSERT_EQ(std::set<std::string>(published.begin(), published.end()).size(), 257u);
  long previous = -1;
  for (const auto& entry : kernelTable().entries) {
    auto it = std::find(published.begin(), published.end(), entry->name);
    ASSERT_NE(it, published.end()) << entry->name << " is not a published name";
    EXPECT_GT(it - published.begin(), previous) << entry->name << " is out of order (or registered twice)";
    previous = it - published.begin();
    EXPECT_EQ(findKernel(entry->name), entry.get());
  }
}

namespace {
Status twoOutputs(Tensor&, Tensor&, Tensor const&, const std::vector<long>&, double, bool, const std::string&,
                  ArrayRef<int16_t>, const ElementType&) {
  return Status::success();
}
}  // namespace

TEST(Registration, KindsAndCountsComeFromTheSignatureWithTheirPublishedCodesAndNames) {
  KernelRegistry table;
  registerKernel(table, "test::TwoOutputs", nullptr, &twoOutputs);
  const KernelEntry& e = *table.entries.at(0);
  EXPECT_EQ(std::make_pair(e.numOutputs, e.numInputs), std::make_pair(uint64_t(2), uint64_t(7)));
  const uint64_t inputs[] = {0x1000400, 0x3080105, 0x80004, 0x10205, kKindString, 0x3020103, 0x80204, 0};
  EXPECT_TRUE(std::equal(std::begin(inputs), std::end(inputs), e.inputKinds));
  EXPECT_EQ(std::vector<uint64_t>(e.outputKinds, e.outputKinds + 3), (std::vector<uint64_t>{kKindTensor, kKindTensor, 0}));
  // Kinds the signature above lacks (the command-line tests print the names
  // of the test kernels' kinds).
  struct Row { uint64_t code, expected; const char* name; };
  const Row rows[] = {
      {paramKind<int8_t>(), 0x10102, "int8_t"}, {paramKind<half>(), 0x20002, "half"},
      {paramKind<const std::vector<Tensor>&>(), 0x3000400, "Tensor[]"}, {paramKind<ArrayRef<float>>(), 0x3040003, "float[]"},
  };
  for (const Row& r : rows) {
    EXPECT_EQ(r.code, r.expected) << r.name;
    EXPECT_EQ(kindName(r.code), r.name);
  }
}

TEST(Invoke, ConfigAllocatesThenImplComputesWithDefaultsForTrailingInputs) {
  const Tensor in = tensorOf<float>(ElementType::f32, {2}, {1.f, -2.f});
  const KernelEntry& scale = testKernel("test::Scale");
  const std::pair<std::vector<Argument>, std::vector<float>> cases[] = {
      {{in, 2.0, std::vector<int64_t>{}, 1}, {3.f, -3.f}}, {{in, 3}, {3.f, -6.f}}, {{in, 1.0, std::vector<int64_t>{}}, {1.f, -2.f}}};
  for (const auto& [inputs, expected] : cases) {
    std::vector<Tensor> outs;
    ASSERT_TRUE(invoke(scale, outs, inputs).ok());
    ASSERT_EQ(outs.size(), 1u);
    EXPECT_EQ(valuesOf<float>(outs[0]), expected);
  }
  // Outputs given with storage are written in place.
  std::vector<Tensor> outs = {Tensor::create(ElementType::f32, {2})};
  Tensor mine = outs[0];
  ASSERT_TRUE(invoke(scale, outs, {in, -1.0}).ok());
  EXPECT_EQ(valuesOf<float>(mine), (std::vector<float>{-1.f, 2.f}));
  // (A kernel without a Config, given typed outputs or not: the command-line tests.)
  // Misuse in the layer's own words (the command-line tests cover the other conversion failures).
  std::vector<Tensor> none, tooMany(3);
  EXPECT_EQ(invoke(testKernel("test::Concat"), none, {in}).message(),
            "test::Concat: 1-th parameter fails to convert. Kernel expect type is Tensor[], but got a type Tensor. "
            "you should use vector<Variable> to wrap vector<Tensor>.");
  EXPECT_EQ(invoke(testKernel("test::Scale"), tooMany, {in, 1.0}).message(), "test::Scale expects 1 outputs, but got 3");
  Status config = invoke(testKernel("test::Scale"), none, {in, 1.0, std::vector<int64_t>{}, 13});
  EXPECT_EQ(config.message().rfind("test::Scale config function call failure! Scale config error: unlucky offset\n"
                                   "(Config invoke) The input params: Tensor<f32,2,4>, 1, [], 13\nIt's defined at ", 0), 0u)
      << config.message();
  EXPECT_TRUE(none[0].storage() == nullptr) << "nothing is allocated when Config fails";
  std::vector<Tensor> again;
  Status impl = invoke(testKernel("test::Scale"), again, {in, 1.0, std::vector<int64_t>{1}});
  EXPECT_EQ(impl.message().rfind("test::Scale impl function call failure! dims 1 not supported\n"
                                 "(Impl invoke) The output params: Tensor<f32,2,4>", 0), 0u) << impl.message();
}

TEST(Invoke, UnknownNameIsRefused) {
  std::vector<Tensor> outs;
  EXPECT_EQ(invoke("native::NoSuchKernel", outs, {}).message(), "no kernel is registered as \"native::NoSuchKernel\"");
}
