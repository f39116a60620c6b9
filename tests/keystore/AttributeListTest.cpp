#include "kms/server/keystore/records/AttributeList.h"

#include <gtest/gtest.h>

#include <string>

using Vaultrest::DL::KMS::AttributeList;

TEST(AttributeList, AddUpdateRemoveAndTheCutAt4096Bytes) {
  AttributeList list;
  EXPECT_FALSE(list.updateAttribute("KEY_FIPS", "true"));  // no insert
  EXPECT_TRUE(list.addAttribute("KEY_FIPS", "true"));
  EXPECT_FALSE(list.addAttribute("KEY_FIPS", "false"));  // existing name keeps its value
  EXPECT_EQ(list.getAttribute("KEY_FIPS"), "true");
  EXPECT_TRUE(list.updateAttribute("KEY_FIPS", "false"));
  EXPECT_EQ(list.getAttribute("KEY_FIPS"), "false");
  EXPECT_TRUE(list.removeAttribute("KEY_FIPS"));
  EXPECT_FALSE(list.removeAttribute("KEY_FIPS"));
  EXPECT_EQ(list.size(), 0u);

  // Values are cut on add and update; names that differ only after byte
  // 4096 are one name.
  EXPECT_TRUE(list.addAttribute("n", std::string(5000, 'v')));
  EXPECT_EQ(list.getAttribute("n"), std::string(4096, 'v'));
  EXPECT_TRUE(list.updateAttribute("n", std::string(4097, 'w')));
  EXPECT_EQ(list.getAttribute("n"), std::string(4096, 'w'));
  const std::string name1 = std::string(4096, 'a') + "1";
  EXPECT_TRUE(list.addAttribute(name1, "first"));
  EXPECT_FALSE(list.addAttribute(std::string(4096, 'a') + "2", "second"));
  EXPECT_EQ(list.getAttribute(std::string(4096, 'a')), "first");
  EXPECT_TRUE(list.removeAttribute(std::string(4096, 'a') + "3"));
  EXPECT_EQ(list.size(), 1u);
}

TEST(AttributeList, ByteStringsOrderedAsUnsignedBytes) {
  AttributeList list;
  const std::string zeroName("a\0b", 3);
  list.addAttribute(zeroName, std::string("\0\0", 2));
  list.addAttribute("a", "short");
  list.addAttribute(std::string(1, '\xff'), "high");
  list.addAttribute("empty", "");
  ASSERT_EQ(list.size(), 4u);
  auto iter = list.begin();
  EXPECT_EQ(iter->first, "a");  // shorter before longer at equal prefix
  EXPECT_EQ((++iter)->first, zeroName);
  EXPECT_EQ(iter->second, std::string("\0\0", 2));
  EXPECT_EQ((++iter)->first, "empty");
  EXPECT_EQ((++iter)->first, std::string(1, '\xff'));
  // A missing name reads as empty; only find tells the two apart.
  EXPECT_EQ(list.getAttribute("absent"), "");
  EXPECT_NE(list.find("empty"), list.end());
  EXPECT_EQ(list.find("absent"), list.end());
}
