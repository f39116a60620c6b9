#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "keystore/CryptoTestUtil.h"
#include "keystore/RecordTestHelpers.h"
#include "kms/server/keystore/records/KeyGrpRecord_v1.h"
#include "kms/server/keystore/records/KeyRecord_v1.h"

using namespace Vaultrest::DL::KMS;
using cryptotest::ksStatus;
using recordtest::tagOf;

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
  };
  for (size_t i = 0; i < sizeof refused / sizeof refused[0]; ++i) {
    EXPECT_EQ(ksStatus(refused[i]), 1214) << i;
  }
  EXPECT_TRUE(rec == recBefore);
  EXPECT_TRUE(grp == grpBefore);
  EXPECT_FALSE(rec == KeyRecord_v1());

  // Names and descriptions are cut without an error.
  const std::string longText = std::string(4096, 'n') + "tail";
  rec.setName(longText);
  rec.setDescription(longText);
  grp.setName(longText);
  grp.setDescription(longText);
  EXPECT_EQ(rec.name(), longText.substr(0, 4096));
  EXPECT_EQ(rec.description(), longText.substr(0, 4096));
  EXPECT_EQ(grp.name().size(), 4096u);
  EXPECT_EQ(grp.description().size(), 4096u);
}

TEST(KeyRecord, SetFieldsStopsAtTheFirstRefusedFieldAndLeavesAttributesAlone) {
  KeyRecord_v1 rec;
  rec.addOrUpdateKRAttribute("KEY_FIPS", "false");
  rec.addOrUpdateKRAttribute("KEY_FIPS", "true");
  rec.setFields(tagOf(1), "name", tagOf(2), KEY_ACTIVE, 20, 10, "desc", 3, KPK_LOCAL, tagOf(3),
                "wrapped");
  EXPECT_EQ(rec.updateTime(), 20u);
  EXPECT_EQ(rec.createTime(), 10u);
  EXPECT_EQ(rec.rev(), 3u);
  EXPECT_EQ(rec.attributes().size(), 1u);
  EXPECT_EQ(rec.attributes().getAttribute("KEY_FIPS"), "true");

  // The state comes after the key group and before the KPK fields.
  EXPECT_EQ(ksStatus([&] {
              rec.setFields(tagOf(4), "other", tagOf(5), static_cast<ks_keystate_t>(9), 21, 11, "d",
                            4, KPK_INVALID, tagOf(6), "k2");
            }),
            1214);
  EXPECT_EQ(rec.tag(), tagOf(4));
  EXPECT_EQ(rec.keyGroup(), tagOf(5));
  EXPECT_EQ(rec.state(), KEY_ACTIVE);
  EXPECT_EQ(rec.kpkType(), KPK_LOCAL);
  EXPECT_EQ(rec.key(), "wrapped");
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
