// The records and their attribute lists: bounds, enumerations, the order of
// names and the key field's travel through copies and moves.
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "keystore/CryptoTestUtil.h"
#include "keystore/FormatTestUtil.h"
#include "kms/server/keystore/records/AttributeList.h"
#include "kms/server/keystore/records/KeyGrpRecord_v1.h"
#include "kms/server/keystore/records/KeyRecord_v1.h"

using namespace Vaultrest::DL::KMS;
using formattest::tagOf;

TEST(AttributeList, AddUpdateRemoveOrderAndTheCutAt4096Bytes) {
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
  const std::string a4096(4096, 'a');
  EXPECT_TRUE(list.addAttribute(a4096 + "1", "first"));
  EXPECT_FALSE(list.addAttribute(a4096 + "2", "second"));
  EXPECT_EQ(list.getAttribute(a4096), "first");
  EXPECT_TRUE(list.removeAttribute(a4096 + "3"));
  EXPECT_EQ(list.size(), 1u);
  // Names are byte strings ordered as unsigned bytes, shorter before longer
  // at an equal prefix.
  const std::string zeroName("a\0b", 3);
  list.addAttribute(zeroName, std::string("\0\0", 2));
  list.addAttribute("a", "short");
  list.addAttribute(std::string(1, '\xff'), "high");
  list.addAttribute("empty", "");
  std::string order;
  for (const auto& attr : list) {
    order += attr.first + "|";
  }
  EXPECT_EQ(order, "a|" + zeroName + "|empty|n|" + std::string(1, '\xff') + "|");
  EXPECT_EQ(list.getAttribute(zeroName), std::string("\0\0", 2));
  // A missing name reads as empty; only find tells the two apart.
  EXPECT_EQ(list.getAttribute("absent"), "");
  EXPECT_NE(list.find("empty"), list.end());
  EXPECT_EQ(list.find("absent"), list.end());
}

TEST(KeyRecord, BoundedFieldsAndEnumerationsRefuseBadValuesAndStayUnchanged) {
  const std::string ok(4096, '\0');
  const std::string tooLong(4097, 'x');
  KeyRecord_v1 rec;
  KeyGrpRecord_v1 grp;
  rec.setFields(ok, "n", ok, KEY_INVALID, 0, 0, "", 0, KPK_LOCAL, ok, ok);
  EXPECT_EQ(rec.state(), KEY_INVALID);  // the record accepts 0; only the store refuses it
  EXPECT_EQ(rec.key(), ok);
  rec.setFields("old-tag", "n", "old-group", KEY_TERMINATED, 0, 0, "", 0, KPK_LOCAL, "old-kpk",
                std::string("old\0key", 7));
  grp.setTag("g");
  grp.setCipherType(CT_BLOW_CBC);
  const KeyRecord_v1 recBefore = rec;
  const KeyGrpRecord_v1 grpBefore = grp;
  const std::function<void()> refused[] = {
      [&] { rec.setTag(tooLong); },
      [&] { rec.setKeyGroup(tooLong); },
      [&] { rec.setKpkTag(tooLong); },
      [&] { rec.setKey(tooLong); },
      [&] { rec.setState(static_cast<ks_keystate_t>(6)); },
      [&] { rec.setState(static_cast<ks_keystate_t>(-1)); },
      [&] { rec.setKpkType(static_cast<ks_kpktype_t>(2)); },
      [&] { grp.setTag(tooLong); },
      [&] { grp.setCipherType(static_cast<ks_ciphertype_t>(5)); },
      // setFields stops at the state, after the key group, before the KPK fields.
      [&] {
        rec.setFields(tagOf(4), "other", tagOf(5), static_cast<ks_keystate_t>(9), 21, 11, "d", 4,
                      KPK_INVALID, tagOf(6), "k2");
      },
  };
  for (size_t i = 0; i < std::size(refused); ++i) {
    EXPECT_EQ(cryptotest::ksStatus(refused[i]), 1214) << i;
    if (i + 1 < std::size(refused)) {
      EXPECT_TRUE(rec == recBefore && grp == grpBefore) << i;
    }
  }
  EXPECT_EQ(rec.tag() + rec.keyGroup(), tagOf(4) + tagOf(5));
  EXPECT_EQ(rec.state(), KEY_TERMINATED);
  EXPECT_EQ(rec.kpkTag(), "old-kpk");
  EXPECT_FALSE(rec == KeyRecord_v1());
  // Names and descriptions are cut without an error; attributes are left alone.
  rec.addOrUpdateKRAttribute("KEY_FIPS", "false");
  rec.addOrUpdateKRAttribute("KEY_FIPS", "true");
  const std::string longText = std::string(4096, 'n') + "tail";
  rec.setFields(tagOf(1), longText, tagOf(2), KEY_ACTIVE, 20, 10, longText, 3, KPK_LOCAL, tagOf(3),
                "wrapped");
  EXPECT_EQ(rec.updateTime() * 100 + rec.createTime() * 10 + rec.rev(), 2103u);
  EXPECT_EQ(rec.attributes().size(), 1u);
  EXPECT_EQ(rec.attributes().getAttribute("KEY_FIPS"), "true");
  grp.setName(longText);
  grp.setDescription(longText);
  EXPECT_EQ(rec.name() + rec.description(), longText.substr(0, 4096) + longText.substr(0, 4096));
  EXPECT_EQ(grp.name().size() + grp.description().size(), 8192u);
}

// The key field wipes its buffer on every release and reuse; its value must
// still travel intact through copies and moves.
TEST(KeyRecord, KeySurvivesCopiesAndMovesAndLeavesMovedFromRecordsEmpty) {
  const std::string longKey(std::string("k\0", 2) + std::string(46, 'k'));
  KeyRecord_v1 a;
  a.setKey(longKey);
  KeyRecord_v1 b = a;
  b.setKey("short");  // reuses the longer buffer
  EXPECT_EQ(b.key(), "short");
  EXPECT_EQ(a.key(), longKey);
  b = a;
  EXPECT_EQ(b.key(), longKey);
  const KeyRecord_v1& alias = a;
  a = alias;
  EXPECT_EQ(a.key(), longKey);
  KeyRecord_v1 c = std::move(b);
  EXPECT_EQ(c.key(), longKey);
  EXPECT_EQ(b.key(), "");
  KeyRecord_v1 d;
  d.setKey("old");
  d = std::move(c);
  EXPECT_EQ(d.key(), longKey);
  EXPECT_EQ(c.key(), "");
  KeyRecord_v1 e;
  e.setKey("sso");  // kept inside the string object itself
  KeyRecord_v1 f = std::move(e);
  EXPECT_EQ(f.key(), "sso");
  EXPECT_EQ(e.key(), "");
}
