#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "Kernel/PublishedKernels.h"
#include "TestUtil.h"

using namespace kora;

TEST(Registry, EntryPoints) {
  EXPECT_EQ(UDE_ABI_CHECK(), 730268002998899u);
  uint64_t p0 = 5, p1 = 5;
  KernelRegistry* first = UDE_LIBRARY_MAIN(&p0, &p1);
  EXPECT_EQ(p0, 1u);
  EXPECT_EQ(p1, 0u);
  p0 = p1 = 5;
  EXPECT_EQ(UDE_LIBRARY_MAIN(&p0, &p1), first);
  EXPECT_EQ(p0, 1u);
  EXPECT_EQ(p1, 0u);
  EXPECT_EQ(getTabbyCHandle(), first);
  EXPECT_EQ(&kernelTable(), first);
}

TEST(Registry, TableFollowsThePublishedOrder) {
  const auto& published = test::kPublishedKernels;
  ASSERT_EQ(std::set<std::string_view>(published.begin(), published.end()).size(), 257u);
  long previous = -1;
  for (const auto& entry : kernelTable().entries) {
    auto it = std::find(published.begin(), published.end(), std::string_view(entry->name));
    ASSERT_NE(it, published.end()) << entry->name << " is not a published name";
    const long position = it - published.begin();
    EXPECT_GT(position, previous) << entry->name << " is out of order (or registered twice)";
    previous = position;
    EXPECT_EQ(findKernel(entry->name), entry.get());
    EXPECT_EQ(entry->reserved, 0u);
    EXPECT_TRUE(std::equal(entry->libraryInfo, entry->libraryInfo + 3, kernelTable().libraryInfo));
  }
  EXPECT_EQ(findKernel("native::NoSuchKernel"), nullptr);
}

TEST(Registry, ReluEntry) {
  const KernelEntry* relu = findKernel("native::ReLU");
  ASSERT_NE(relu, nullptr);
  EXPECT_EQ(relu->numOutputs, 1u);
  EXPECT_EQ(relu->numInputs, 1u);
  EXPECT_EQ(relu->outputKinds[0], 0x1000400u);
  EXPECT_EQ(relu->inputKinds[0], 0x1000400u);
  EXPECT_EQ(relu->outputKinds[1], 0u);
  EXPECT_EQ(relu->inputKinds[1], 0u);
  EXPECT_NE(relu->config, nullptr);
  EXPECT_EQ(relu->impl, reinterpret_cast<KernelEntry::AnyFunction>(&native::ReLU));
}

TEST(Registry, EntryLayoutAfterTheVtablePointer) {
  // Hosts read entries as raw memory: the offsets are part of the ABI.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"
  EXPECT_EQ(offsetof(KernelEntry, name), 8u);
  EXPECT_EQ(offsetof(KernelEntry, reserved), 16u);
  EXPECT_EQ(offsetof(KernelEntry, outputKinds), 24u);
  EXPECT_EQ(offsetof(KernelEntry, inputKinds), 64u);
  EXPECT_EQ(offsetof(KernelEntry, libraryInfo), 384u);
  EXPECT_EQ(offsetof(KernelEntry, impl), 408u);
  EXPECT_EQ(offsetof(KernelEntry, config), 416u);
  EXPECT_EQ(offsetof(KernelEntry, numOutputs), 424u);
  EXPECT_EQ(offsetof(KernelEntry, numInputs), 432u);
  EXPECT_EQ(offsetof(KernelRegistry, libraryInfo), 24u);
#pragma GCC diagnostic pop
  EXPECT_EQ(sizeof(Tensor), 8u + 88 + 88 + 8 + 8 + 16);
}

TEST(KindCode, PublishedCodesAndNames) {
  struct Row {
    uint64_t code;
    const char* name;
  };
  const Row rows[] = {
      {paramKind<int8_t>(), "int8_t"},          {paramKind<int16_t>(), "int16_t"},
      {paramKind<int64_t>(), "int64_t"},        {paramKind<uint64_t>(), "uint64_t"},
      {paramKind<bool>(), "bool"},              {paramKind<half>(), "half"},
      {paramKind<double>(), "double"},          {paramKind<uint16_t>(), "uint16_t"},
      {paramKind<uint32_t>(), "uint32_t"},      {paramKind<Tensor&>(), "Tensor"},
      {paramKind<const Tensor&>(), "Tensor"},   {paramKind<const std::vector<Tensor>&>(), "Tensor[]"},
      {paramKind<ArrayRef<float>>(), "float[]"}, {paramKind<const std::vector<double>&>(), "double[]"},
      {paramKind<ArrayRef<long>>(), "int64_t[]"}, {paramKind<const ElementType&>(), "uint64_t"},
  };
  const uint64_t expected[] = {0x10102, 0x20103, 0x80105, 0x80204, 0x10205, 0x20002, 0x80004, 0x20202,
                               0x40203, 0x1000400, 0x1000400, 0x3000400, 0x3040003, 0x3080004, 0x3080105, 0x80204};
  for (size_t i = 0; i < std::size(rows); ++i) {
    EXPECT_EQ(rows[i].code, expected[i]) << rows[i].name;
    EXPECT_EQ(kindName(rows[i].code), rows[i].name);
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
  EXPECT_EQ(e.outputKinds[0], kKindTensor);
  EXPECT_EQ(e.outputKinds[1], kKindTensor);
  EXPECT_EQ(e.outputKinds[2], 0u);
}

TEST(Dispatcher, AProcessWideMapThatStartsEmpty) {
  Dispatcher& d = Dispatcher::singleton();
  EXPECT_EQ(&d, &Dispatcher::singleton());
  EXPECT_TRUE(d.empty()) << "nothing in the library fills it";
  d.indexTable(kernelTable());
  EXPECT_EQ(d.at("native::ReLU"), findKernel("native::ReLU"));
  d.clear();
}
