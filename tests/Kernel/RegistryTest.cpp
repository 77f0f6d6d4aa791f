#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "Kernel/PublishedKernels.h"
#include "TestUtil.h"

using namespace kora;

TEST(Registry, EntryPointsAndTheTensorLayout) {
  EXPECT_EQ(UDE_ABI_CHECK(), 730268002998899u);
  uint64_t p0 = 5, p1 = 5;
  KernelRegistry* first = UDE_LIBRARY_MAIN(&p0, &p1);
  EXPECT_EQ(std::make_pair(p0, p1), std::make_pair(uint64_t(1), uint64_t(0)));
  EXPECT_EQ(UDE_LIBRARY_MAIN(&p0, &p1), first);
  EXPECT_EQ(getTabbyCHandle(), first);
  EXPECT_EQ(&kernelTable(), first);
  EXPECT_EQ(findKernel("native::ReLU")->impl, reinterpret_cast<KernelEntry::AnyFunction>(&native::ReLU));
  // Hosts read entries as raw memory: tests/standalone/AbiHost.cpp reads
  // them through its own copy of the layout; tensors are passed as they are.
  EXPECT_EQ(sizeof(Tensor), 8u + 88 + 88 + 8 + 8 + 16);
}

TEST(Registry, TableFollowsThePublishedOrder) {
  const auto& published = test::kPublishedKernels;
  ASSERT_EQ(std::set<std::string_view>(published.begin(), published.end()).size(), 257u);
  long previous = -1;
  for (const auto& entry : kernelTable().entries) {
    auto it = std::find(published.begin(), published.end(), std::string_view(entry->name));
    ASSERT_NE(it, published.end()) << entry->name << " is not a published name";
    EXPECT_GT(it - published.begin(), previous) << entry->name << " is out of order (or registered twice)";
    previous = it - published.begin();
    EXPECT_EQ(findKernel(entry->name), entry.get());
    EXPECT_EQ(entry->reserved, 0u);
    EXPECT_TRUE(std::equal(entry->libraryInfo, entry->libraryInfo + 3, kernelTable().libraryInfo));
  }
  EXPECT_EQ(findKernel("native::NoSuchKernel"), nullptr);
}

TEST(KindCode, PublishedCodesAndNames) {
  struct Row { uint64_t code, expected; const char* name; };
  const Row rows[] = {
      {paramKind<int8_t>(), 0x10102, "int8_t"},           {paramKind<int16_t>(), 0x20103, "int16_t"},
      {paramKind<int64_t>(), 0x80105, "int64_t"},         {paramKind<uint64_t>(), 0x80204, "uint64_t"},
      {paramKind<bool>(), 0x10205, "bool"},               {paramKind<half>(), 0x20002, "half"},
      {paramKind<double>(), 0x80004, "double"},           {paramKind<uint16_t>(), 0x20202, "uint16_t"},
      {paramKind<uint32_t>(), 0x40203, "uint32_t"},       {paramKind<Tensor&>(), 0x1000400, "Tensor"},
      {paramKind<const Tensor&>(), 0x1000400, "Tensor"},  {paramKind<const std::vector<Tensor>&>(), 0x3000400, "Tensor[]"},
      {paramKind<ArrayRef<float>>(), 0x3040003, "float[]"}, {paramKind<const std::vector<double>&>(), 0x3080004, "double[]"},
      {paramKind<ArrayRef<long>>(), 0x3080105, "int64_t[]"}, {paramKind<const ElementType&>(), 0x80204, "uint64_t"},
  };
  for (const Row& r : rows) {
    EXPECT_EQ(r.code, r.expected) << r.name;
    EXPECT_EQ(kindName(r.code), r.name);
  }
  EXPECT_EQ(kindName(kKindVector), "Vector");
  EXPECT_EQ(kindName(0x1234), "0x1234");
}

namespace {
Status twoOutputs(Tensor&, Tensor&, Tensor const&, const std::vector<long>&, double, bool, const std::string&,
                  ArrayRef<int16_t>, const ElementType&) {
  return Status::success();
}
}  // namespace

TEST(Registration, KindsAndCountsComeFromTheSignature) {
  KernelRegistry table;
  table.libraryInfo[1] = 99;
  registerKernel(table, "test::TwoOutputs", nullptr, &twoOutputs);
  const KernelEntry& e = *table.entries.at(0);
  EXPECT_EQ(e.numOutputs, 2u);
  EXPECT_EQ(e.numInputs, 7u);
  EXPECT_EQ(e.config, nullptr);
  EXPECT_EQ(e.libraryInfo[1], 99u);
  const uint64_t inputs[] = {0x1000400, 0x3080105, 0x80004, 0x10205, kKindString, 0x3020103, 0x80204, 0};
  EXPECT_TRUE(std::equal(std::begin(inputs), std::end(inputs), e.inputKinds));
  EXPECT_EQ(std::vector<uint64_t>(e.outputKinds, e.outputKinds + 3), (std::vector<uint64_t>{kKindTensor, kKindTensor, 0}));
}

TEST(Dispatcher, AProcessWideMapThatStartsEmpty) {
  Dispatcher& d = Dispatcher::singleton();
  EXPECT_EQ(&d, &Dispatcher::singleton());
  EXPECT_TRUE(d.empty()) << "nothing in the library fills it";
  d.indexTable(kernelTable());
  EXPECT_EQ(d.at("native::ReLU"), findKernel("native::ReLU"));
  d.clear();
}
