#include <gtest/gtest.h>

#include "TestUtil.h"

using namespace kora;

namespace {

struct TypeRow { const char* name; uint32_t value; unsigned long bytes; char family; /* f, s, u, o */ };

// The published table, written out independently of the enum.
const TypeRow kTypes[] = {
    {"cf8", 0x10001, 1, 'f'},        {"f16", 0x20002, 2, 'f'},         {"f32", 0x40003, 4, 'f'},
    {"f64", 0x80004, 8, 'f'},        {"vbf16", 0x20005, 2, 'f'},       {"vf32", 0x40006, 4, 'f'},
    {"tf32", 0x40007, 4, 'f'},       {"si4x2", 0x10101, 1, 's'},       {"si8", 0x10102, 1, 's'},
    {"si16", 0x20103, 2, 's'},       {"si32", 0x40104, 4, 's'},        {"si64", 0x80105, 8, 's'},
    {"ui8", 0x10201, 1, 'u'},        {"ui16", 0x20202, 2, 'u'},        {"ui32", 0x40203, 4, 'u'},
    {"ui64", 0x80204, 8, 'u'},       {"bool8", 0x10205, 1, 'u'},       {"opaque8", 0x103c8, 1, 'o'},
    {"opaque16", 0x203c8, 2, 'o'},   {"opaque32", 0x403c8, 4, 'o'},    {"opaque64", 0x803c8, 8, 'o'},
    {"opaque128", 0x1003c8, 16, 'o'}, {"opaque256", 0x2003c8, 32, 'o'}, {"opaque512", 0x4003c8, 64, 'o'},
    {"opaque1024", 0x8003c8, 128, 'o'}, {"opaque2048", 0x10003c8, 256, 'o'},
};

}  // namespace

TEST(ElementType, TableOfNamesValuesWidthsAndFamilies) {
  ASSERT_EQ(std::size(kTypes), kAllElementTypes.size());
  for (const TypeRow& row : kTypes) {
    SCOPED_TRACE(row.name);
    const auto type = static_cast<ElementType>(row.value);
    EXPECT_STREQ(elementTypeName(type), row.name);
    EXPECT_EQ(fmt::format("{}", type), row.name);
    EXPECT_EQ(elementTypeFromName(row.name), type);
    EXPECT_EQ(byteWidth(type), row.bytes);
    EXPECT_EQ(isFloat(type), row.family == 'f');
    EXPECT_EQ(isSignedInt(type), row.family == 's');
    EXPECT_EQ(isUnsignedInt(type), row.family == 'u');
    EXPECT_EQ(isOpaque(type), row.family == 'o');
    if (row.family == 'o') {
      EXPECT_EQ(opaqueTypeOfWidth(row.bytes), type);
    }
  }
  EXPECT_STREQ(elementTypeName(ElementType::invalid), "invalid");
  for (uint32_t value : {0u, 1u, 0x40008u, 0x10103u, 0x203c9u})
    EXPECT_STREQ(elementTypeName(static_cast<ElementType>(value)), "unreachable") << value;
  EXPECT_EQ(elementTypeFromName("float32"), ElementType::invalid);
}

TEST(ElementType, RoundModeFromText) {
  const std::pair<const char*, uint32_t> cases[] = {{"FLOOR", 0}, {"ROUND", 1}, {"CEIL", 2}, {"round", 3}, {"", 3}};
  for (auto [text, mode] : cases) EXPECT_EQ(uint32_t(roundModeFromText(text)), mode) << text;
}

using ElementTypeDeathTest = ::testing::Test;

TEST_F(ElementTypeDeathTest, OpaqueWidthThreeAndUnknownTypesTrap) {
  EXPECT_DEATH({ test::logToStderr(); (void)opaqueTypeOfWidth(3); },
               "2\\|trapped at include/kora/Core/ElementType, line 278\n2\\|no opaque type for byte size 3");
  EXPECT_DEATH({ test::logToStderr(); trapUnknownElementType(ElementType::cf8); },
               "2\\|trapped at include/kora/Core/ElementType, line [0-9]+\n2\\|unknown element type: cf8");
}
