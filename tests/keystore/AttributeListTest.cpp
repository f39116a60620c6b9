#include "kms/server/keystore/AttributeList.h"

#include <gtest/gtest.h>

#include <string>

using Vaultrest::DL::KMS::AttributeList;

TEST(AttributeList, AddAndUpdateDoNotDoEachOthersJob) {
  AttributeList list;
  EXPECT_FALSE(list.updateAttribute("KEY_FIPS", "true"));  // no insert
  EXPECT_EQ(list.size(), 0u);

  EXPECT_TRUE(list.addAttribute("KEY_FIPS", "true"));
  EXPECT_FALSE(list.addAttribute("KEY_FIPS", "false"));  // existing name keeps its value
  EXPECT_EQ(list.getAttribute("KEY_FIPS"), "true");

  EXPECT_TRUE(list.updateAttribute("KEY_FIPS", "false"));
  EXPECT_EQ(list.getAttribute("KEY_FIPS"), "false");

  EXPECT_TRUE(list.removeAttribute("KEY_FIPS"));
  EXPECT_FALSE(list.removeAttribute("KEY_FIPS"));
  EXPECT_EQ(list.size(), 0u);
}

TEST(AttributeList, MissingNameAndEmptyValueReadAlikeButFindTellsThemApart) {
  AttributeList list;
  list.addAttribute("empty", "");
  const std::string& a = list.getAttribute("absent");
  const std::string& b = list.getAttribute("other");
  EXPECT_EQ(&a, &b);  // the one static empty string
  EXPECT_EQ(a, "");
  EXPECT_EQ(list.getAttribute("empty"), "");
  EXPECT_NE(list.find("empty"), list.end());
  EXPECT_EQ(list.find("absent"), list.end());
}

TEST(AttributeList, NamesAndValuesAreCutAt4096Bytes) {
  AttributeList list;
  const std::string longValue(5000, 'v');
  EXPECT_TRUE(list.addAttribute("n", longValue));
  EXPECT_EQ(list.getAttribute("n"), longValue.substr(0, 4096));

  EXPECT_TRUE(list.updateAttribute("n", std::string(4097, 'w')));
  EXPECT_EQ(list.getAttribute("n").size(), 4096u);

  // Two names that differ only after byte 4096 are one name.
  const std::string name1 = std::string(4096, 'a') + "1";
  const std::string name2 = std::string(4096, 'a') + "2";
  EXPECT_TRUE(list.addAttribute(name1, "first"));
  EXPECT_FALSE(list.addAttribute(name2, "second"));
  EXPECT_EQ(list.getAttribute(name2), "first");
  EXPECT_NE(list.find(std::string(4096, 'a')), list.end());
  EXPECT_TRUE(list.removeAttribute(name2));
  EXPECT_EQ(list.size(), 1u);
}

TEST(AttributeList, ByteStringsAndOrderByBytes) {
  AttributeList list;
  const std::string zeroName("a\0b", 3);
  list.addAttribute(zeroName, std::string("\0\0", 2));
  list.addAttribute("a", "short");
  list.addAttribute(std::string(1, '\xff'), "high");
  ASSERT_EQ(list.size(), 3u);
  auto iter = list.begin();
  EXPECT_EQ(iter->first, "a");  // shorter before longer at equal prefix
  EXPECT_EQ((++iter)->first, zeroName);
  EXPECT_EQ(iter->second, std::string("\0\0", 2));
  EXPECT_EQ((++iter)->first, std::string(1, '\xff'));  // bytes compare unsigned

  AttributeList copy = list;
  EXPECT_EQ(copy, list);
  copy.updateAttribute("a", "changed");
  EXPECT_NE(copy, list);
  EXPECT_EQ(list.getAttribute("a"), "short");
}
