#include <gtest/gtest.h>

#include <string>

#include "kora/Kora.h"

TEST(Version, TaggedFormsCarryNameAndValue) {
  const std::string version = KORA_VERSION, hash = KORA_GIT_HASH;
  EXPECT_FALSE(version.empty());
  EXPECT_EQ(std::string(KORA_VERSION_WITH_TAG), "@(KORA_VERSION = \"" + version + "\"");
  EXPECT_EQ(std::string(KORA_GIT_HASH_WITH_TAG), "@(KORA_GIT_HASH = \"" + hash + "\"");
  EXPECT_EQ(std::string(KORA_SOURCE_DATE_EPOCH_WITH_TAG),
            "@(KORA_SOURCE_DATE_EPOCH = " + std::to_string(KORA_SOURCE_DATE_EPOCH));
  // Built from a git checkout: a 40-digit revision; otherwise the value says so.
  if (hash.rfind("unknown", 0) != 0) {
    EXPECT_EQ(hash.size(), 40u);
    EXPECT_EQ(hash.find_first_not_of("0123456789abcdef"), std::string::npos);
    EXPECT_GT(KORA_SOURCE_DATE_EPOCH, 1500000000L);
  }
}
