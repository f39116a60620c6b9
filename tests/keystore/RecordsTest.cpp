// The records, their attribute lists, the key table's indexes and the record utilities.
#include <gtest/gtest.h>

#include <stdlib.h>
#include <functional>
#include <string>
#include <tuple>

#include "CryptoTestUtil.h"
#include "FormatTestUtil.h"
#include "kms/server/keystore/records/AttributeList.h"
#include "kms/server/keystore/records/KeyGrpRecord_v1.h"
#include "kms/server/keystore/records/KeyRecordTable.h"
#include "kms/server/keystore/records/KeyRecord_v1.h"
#include "kms/server/keystore/records/RecordUtils.h"

using namespace Vaultrest::DL::KMS;
using formattest::tagOf;

TEST(AttributeList, AddUpdateRemoveOrderTheCutAt4096BytesAndTheRecordUtilities) {
  AttributeList list;
  // Update does not insert; add keeps an existing value; remove once.
  const std::string n = "KEY_FIPS";
  EXPECT_EQ(std::vector<bool>({list.updateAttribute(n, "true"), list.addAttribute(n, "true"),
                               list.addAttribute(n, "false"), list.getAttribute(n) == "true",
                               list.updateAttribute(n, "false"), list.getAttribute(n) == "false",
                               list.removeAttribute(n), list.removeAttribute(n)}),
            std::vector<bool>({false, true, false, true, true, true, true, false}));
  EXPECT_EQ(list.size(), 0u);
  // Values are cut on add and update; names equal up to byte 4096 are one.
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
  // Names are ordered as unsigned bytes, shorter first at an equal prefix.
  const std::string zeroName("a\0b", 3);
  list.addAttribute(zeroName, std::string("\0\0", 2));
  list.addAttribute("a", "short");
  list.addAttribute(std::string(1, '\xff'), "high");
  list.addAttribute("empty", "");
  std::string order;
  for (const auto& attr : list) {
    order += std::string(attr.first) + "|";
  }
  EXPECT_EQ(order, "a|" + zeroName + "|empty|n|" + std::string(1, '\xff') + "|");
  EXPECT_EQ(list.getAttribute(zeroName), std::string("\0\0", 2));
  // A missing name reads as empty; only find tells the two apart.
  EXPECT_EQ(list.getAttribute("absent"), "");
  EXPECT_TRUE(list.find("empty") != list.end() && list.find("absent") == list.end());
  // The record utilities: hex, key lengths, timestamps and display.
  std::string all;
  for (int b = 0; b < 256; ++b) {
    all.push_back(static_cast<char>(b));
  }
  const std::string hex = Utils::binToHex(all);
  EXPECT_EQ(hex.substr(0, 24) + hex.substr(508), "000102030405060708090a0bfeff");  // lower case
  EXPECT_EQ(Utils::hexToBin(hex), all);
  for (const std::string& bad :
       {std::string("AB"), std::string("abc"), std::string("abcg"), std::string("0x12"),
        std::string("a b "), std::string("a\0", 2), std::string("/0"), std::string(":0"),
        std::string("`0"), std::string("0g")}) {
    EXPECT_EQ(Utils::hexToBin(bad), "") << bad;
  }
  // Blowfish is no AES cipher, and still 16.
  const size_t lens[] = {0, 16, 24, 32, 16, 0};
  for (int type = 0; type < 6; ++type) {
    EXPECT_EQ(Utils::cipherTypeToKeyLen(static_cast<ks_ciphertype_t>(type)), lens[type]) << type;
  }
  const char* savedTz = getenv("TZ");
  const std::string saved = savedTz != nullptr ? savedTz : "";
  setenv("TZ", "UTC", 1);
  tzset();
  EXPECT_EQ(Utils::getTimestampSuffix(1700000000), "20231114221320");
  savedTz != nullptr ? setenv("TZ", saved.c_str(), 1) : unsetenv("TZ");
  tzset();
  EXPECT_EQ(Utils::bufferToString(std::string("a \0Z~", 5)), "a..Z~(6120005a7e)");
  std::string bytes(33, 'x');
  bytes[1] = '\0';
  testing::internal::CaptureStdout();
  Utils::displayBuffer(bytes, true, ">", true);
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(out.rfind(">(33 bytes) : HEX(78007878", 0), 0u) << out;
  EXPECT_NE(out.find(" 31 \n>\tASC : x  .  x  "), std::string::npos) << out;
  // The 33rd byte starts a second row at offset 32.
  EXPECT_NE(out.find("\n\n>\t      32 \n>\tASC : x  \n>\tHEX : 78 \n\n"), std::string::npos) << out;
  testing::internal::CaptureStdout();
  Utils::displayBuffer("a\x01", true, "", false);
  EXPECT_EQ(testing::internal::GetCapturedStdout().rfind("(2 bytes) : ASC(a.)\n", 0), 0u);
}

TEST(KeyRecord, BoundedFieldsRefuseBadValuesAndTheKeySurvivesCopiesAndMoves) {
  const std::string ok(4096, '\0'), tooLong(4097, 'x');
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
      // setFields refuses what the setters refuse, and changes nothing then.
      [&] {
        rec.setFields(tagOf(4), "other", tagOf(5), static_cast<ks_keystate_t>(9), 21, 11, "d", 4,
                      KPK_INVALID, tagOf(6), "k2");
      },
      [&] {
        rec.setFields(tagOf(4), "other", tagOf(5), KEY_ACTIVE, 21, 11, "d", 4,
                      static_cast<ks_kpktype_t>(2), tagOf(6), "k2");
      },
  };
  for (size_t i = 0; i < std::size(refused); ++i) {
    EXPECT_EQ(cryptotest::ksStatus(refused[i]), 1214) << i;
    EXPECT_TRUE(rec == recBefore && grp == grpBefore) << i;
  }
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
  EXPECT_EQ(std::string(rec.name()).append(rec.description()),
            longText.substr(0, 4096) + longText.substr(0, 4096));
  EXPECT_EQ(grp.name().size() + grp.description().size(), 8192u);
  // The key field wipes its buffer on release and reuse, yet travels intact through copies.
  const std::string longKey(std::string("k\0", 2) + std::string(46, 'k'));
  KeyRecord_v1 a, d, e;
  a.setKey(longKey);
  KeyRecord_v1 b = a;
  b.setKey("short");  // reuses the longer buffer
  EXPECT_EQ(std::string(b.key()).append(a.key()), "short" + longKey);
  b = a;
  const KeyRecord_v1& alias = a;
  a = alias;
  EXPECT_EQ(std::string(b.key()).append(a.key()), longKey + longKey);
  KeyRecord_v1 c = std::move(b);
  EXPECT_EQ(std::string(c.key()).append(b.key()), longKey);
  d.setKey("old");
  d = std::move(c);
  EXPECT_EQ(std::string(d.key()).append(c.key()), longKey);
  e.setKey("sso");  // kept inside the string object itself
  KeyRecord_v1 f = std::move(e);
  EXPECT_EQ(std::string(f.key()).append(e.key()), "sso");
}

namespace {

typedef KeyRecordTable<KeyRecord_v1> KeyTable;
typedef KeyTable::TagList TagList;

const std::string kA = tagOf(1000, 'G'), kB = tagOf(1001, 'G');

KeyRecord_v1 key(unsigned n, const std::string& group, ks_keystate_t state) {
  return formattest::keyRecord(tagOf(n), group, state);
}

// A table with the unique-active rule holding the keys given.
KeyTable tableOf(std::initializer_list<std::tuple<unsigned, std::string, ks_keystate_t>> keys) {
  KeyTable table(true);
  for (const auto& [n, group, state] : keys) {
    EXPECT_TRUE(table.addRecord(key(n, group, state))) << n;
  }
  return table;
}

TagList tags(std::initializer_list<unsigned> ns) {
  TagList list;
  for (unsigned n : ns) {
    list.push_back(tagOf(n));
  }
  return list;
}

}  // namespace

TEST(KeyRecordTable, OneActiveKeyPerGroupStandsFirstThroughAddsMovesAndRemovals) {
  KeyTable table = tableOf({{1, kA, KEY_INACTIVE}, {2, kA, KEY_ACTIVE}});
  EXPECT_FALSE(table.addRecord(key(3, kA, KEY_ACTIVE)));
  EXPECT_FALSE(table.addRecord(key(1, kB, KEY_PRELIVE)));       // tag taken
  EXPECT_EQ(table.getTagsByGroup(kA).strings(), tags({2, 1}));  // active first
  EXPECT_TRUE(table.addRecord(key(3, kB, KEY_ACTIVE)));         // another group is fine
  // Without the rule, several active keys stand at the front.
  KeyTable loose(false);
  for (const auto& [n, state] :
       {std::pair{1u, KEY_DEPRECATED}, {2u, KEY_ACTIVE}, {3u, KEY_ACTIVE}}) {
    EXPECT_TRUE(loose.addRecord(key(n, kA, state)));
  }
  EXPECT_EQ(loose.getTagsByGroup(kA).strings(), tags({3, 2, 1}));
  // Promoting in the group, or moving an active key in, is refused.
  table = tableOf({{1, kA, KEY_ACTIVE}, {2, kA, KEY_INACTIVE}, {3, kB, KEY_ACTIVE}});
  EXPECT_FALSE(table.updateRecord(key(2, kA, KEY_ACTIVE)));
  EXPECT_FALSE(table.updateRecord(key(3, kA, KEY_ACTIVE)));
  EXPECT_FALSE(table.updateRecord(key(9, kA, KEY_INACTIVE)));  // absent
  EXPECT_EQ(table.getRecord(tagOf(2)).state(), KEY_INACTIVE);
  EXPECT_EQ(table.getRecord(tagOf(3)).keyGroup(), kB);
  EXPECT_EQ(table.getActiveKeyInGroup(kA), tagOf(1));
  // After a demotion the promotion goes through; keys behind the active one are in tag order.
  EXPECT_TRUE(table.updateRecord(key(1, kA, KEY_INACTIVE)));
  EXPECT_EQ(table.getTagsByGroup(kA).strings(), tags({1, 2}));
  EXPECT_EQ(table.getActiveKeyInGroup(kA), "");
  EXPECT_TRUE(table.updateRecord(key(2, kA, KEY_ACTIVE)));
  EXPECT_EQ(table.getTagsByGroup(kA).strings(), tags({2, 1}));
  EXPECT_EQ(table.getActiveKeyInGroup(kA), tagOf(2));
  // A change that keeps group and state keeps the order and the new fields.
  KeyRecord_v1 renamed = key(1, kA, KEY_INACTIVE);
  renamed.setName("renamed");
  EXPECT_TRUE(table.updateRecord(renamed));
  EXPECT_EQ(table.getRecord(tagOf(1)).name(), "renamed");
  EXPECT_EQ(table.getTagsByGroup(kA).strings(), tags({2, 1}));
  table = tableOf({{1, kA, KEY_DEPRECATED}, {2, kB, KEY_ACTIVE}, {3, kB, KEY_INACTIVE}});
  // A key joins behind the active one in tag order; the last of a group takes its entry along.
  EXPECT_TRUE(table.updateRecord(key(1, kB, KEY_DEPRECATED)));
  EXPECT_EQ(table.getTagsByGroup(kB).strings(), tags({2, 1, 3}));
  EXPECT_EQ(table.getNumKeysInGroup(kA), 0u);
  EXPECT_EQ(&table.getTagsByGroup(kA), &table.getTagsByGroup(tagOf(5000, 'G')));  // static, empty
  // An active key moves to the front of an empty group; the old group keeps its order.
  EXPECT_TRUE(table.updateRecord(key(2, kA, KEY_ACTIVE)));
  EXPECT_EQ(table.getTagsByGroup(kA).strings(), tags({2}));
  EXPECT_EQ(table.getTagsByGroup(kB).strings(), tags({1, 3}));
  EXPECT_EQ(table.getActiveKeyInGroup(kB), "");
  // Moving and activating at once into a group without an active key.
  EXPECT_TRUE(table.updateRecord(key(2, kB, KEY_INACTIVE)));
  EXPECT_TRUE(table.updateRecord(key(3, kA, KEY_ACTIVE)));
  EXPECT_EQ(table.getTagsByGroup(kA).strings(), tags({3}));
  EXPECT_EQ(table.getTagsByGroup(kB).strings(), tags({1, 2}));
  EXPECT_EQ(table.getNumKeysInGroup(kB), 2u);
  // Removal keeps the indexes and drops empty groups.
  table = tableOf({{1, kA, KEY_ACTIVE}, {2, kA, KEY_INACTIVE}});
  EXPECT_FALSE(table.removeRecord(tagOf(3)));
  EXPECT_TRUE(table.removeRecord(tagOf(1)));
  EXPECT_EQ(table.getTagsByGroup(kA).strings(), tags({2}));
  EXPECT_EQ(table.getActiveKeyInGroup(kA), "");
  TagList found;
  EXPECT_EQ(table.getTagsByKad(tagOf(1), found), 0);
  EXPECT_TRUE(found.empty());
  // The argument may be the table's own key of the record that goes.
  EXPECT_TRUE(table.removeRecord(table.begin()->first));
  EXPECT_EQ(table.size() + table.getNumKeysInGroup(kA), 0u);
  EXPECT_TRUE(table.addRecord(key(4, kA, KEY_ACTIVE)));  // the group takes an active key again
}

// A record changed in place in state or group breaks the indexes: the next check aborts.
TEST(KeyRecordTableDeathTest, BrokenIndexesAbortAtTheNextCheck) {
  auto dies = [](KeyTable& table, const std::string& condition) {
    EXPECT_DEATH(
        {
          formattest::logAppToStderr();
          table.testInvariant();
        },
        "Assertion failed: \\(" + condition + "\\)");
  };
  KeyTable twoActive = tableOf({{1, kA, KEY_ACTIVE}, {2, kA, KEY_INACTIVE}});
  twoActive.setSkipInvariant(true);
  twoActive.findForChange(tagOf(2))->setState(KEY_ACTIVE);
  twoActive.findForChange(tagOf(1))->setKey("rewrapped");      // the key may change in place
  EXPECT_TRUE(twoActive.addRecord(key(3, kB, KEY_INACTIVE)));  // no check
  twoActive.setSkipInvariant(false);
  dies(twoActive, "activekeycount <= 1");
  KeyTable behind = tableOf({{1, kA, KEY_INACTIVE}, {2, kA, KEY_INACTIVE}});
  behind.findForChange(tagOf(2))->setState(KEY_ACTIVE);
  dies(behind, "liter == \\(giter->second\\).end\\(\\)");
  KeyTable moved = tableOf({{1, kA, KEY_INACTIVE}, {2, kB, KEY_INACTIVE}});
  moved.findForChange(tagOf(1))->setKeyGroup(tagOf(7, 'G'));  // a group with no entry
  dies(moved, "giter != m_groups.end\\(\\)");
  moved.findForChange(tagOf(1))->setKeyGroup(kB);  // listed under A, claims B
  dies(moved, "liter != \\(giter->second\\).end\\(\\)");
  EXPECT_DEATH(
      {
        formattest::logAppToStderr();
        moved.removeRecord(tagOf(1));
      },
      "Assertion failed: \\(erased == true\\)");
}
