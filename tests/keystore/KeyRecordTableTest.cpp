#include "kms/server/keystore/records/KeyRecordTable.h"

#include <gtest/gtest.h>

#include <string>

#include "keystore/RecordTestHelpers.h"
#include "kms/server/keystore/records/KeyGrpRecord_v1.h"
#include "kms/server/keystore/records/KeyRecord_v1.h"
#include "kms/server/keystore/records/RecordTable.h"

using namespace Vaultrest::DL::KMS;
using recordtest::keyRecord;
using recordtest::tagOf;

namespace {

typedef KeyRecordTable<KeyRecord_v1> KeyTable;
typedef KeyTable::TagList TagList;

const std::string kGroupA = tagOf(1000, 'G');
const std::string kGroupB = tagOf(1001, 'G');

TagList tags(std::initializer_list<std::string> list) {
  return TagList(list);
}

}  // namespace

TEST(RecordTable, AddUpdateRemoveByTag) {
  RecordTable<KeyGrpRecord_v1> table;
  KeyGrpRecord_v1 g;
  g.setFields(tagOf(1, 'G'), "first", CT_AES256_CBC, 1, 1, "", 1);
  EXPECT_TRUE(table.addRecord(g));
  KeyGrpRecord_v1 clash = g;
  clash.setName("second");
  EXPECT_FALSE(table.addRecord(clash));
  EXPECT_EQ(table.getRecord(g.tag()).name(), "first");  // old record stays

  EXPECT_TRUE(table.updateRecord(clash));
  EXPECT_EQ(table.getRecord(g.tag()).name(), "second");
  KeyGrpRecord_v1 absent;
  absent.setTag(tagOf(2, 'G'));
  EXPECT_FALSE(table.updateRecord(absent));
  EXPECT_EQ(table.size(), 1u);

  // A missing tag gives the one default record, recognisable by its empty tag.
  const KeyGrpRecord_v1& missing = table.getRecord(tagOf(3, 'G'));
  EXPECT_EQ(missing.tag(), "");
  EXPECT_EQ(&missing, &table.getRecord(tagOf(4, 'G')));

  EXPECT_TRUE(table.removeRecord(g.tag()));
  EXPECT_FALSE(table.removeRecord(g.tag()));
  EXPECT_EQ(table.size(), 0u);
}

TEST(KeyRecordTable, SecondActiveKeyInAGroupIsRefusedOnAdd) {
  KeyTable table(true);
  EXPECT_TRUE(table.addRecord(keyRecord(tagOf(1), kGroupA, KEY_INACTIVE)));
  EXPECT_TRUE(table.addRecord(keyRecord(tagOf(2), kGroupA, KEY_ACTIVE)));
  EXPECT_FALSE(table.addRecord(keyRecord(tagOf(3), kGroupA, KEY_ACTIVE)));
  EXPECT_FALSE(table.addRecord(keyRecord(tagOf(1), kGroupB, KEY_PRELIVE)));  // tag taken
  EXPECT_EQ(table.size(), 2u);
  EXPECT_EQ(table.getTagsByGroup(kGroupA), tags({tagOf(2), tagOf(1)}));  // active first
  EXPECT_EQ(table.getActiveKeyInGroup(kGroupA), tagOf(2));

  // An active key in another group is fine.
  EXPECT_TRUE(table.addRecord(keyRecord(tagOf(3), kGroupB, KEY_ACTIVE)));

  // Without the rule, several active keys stand at the front.
  KeyTable loose(false);
  EXPECT_TRUE(loose.addRecord(keyRecord(tagOf(1), kGroupA, KEY_DEPRECATED)));
  EXPECT_TRUE(loose.addRecord(keyRecord(tagOf(2), kGroupA, KEY_ACTIVE)));
  EXPECT_TRUE(loose.addRecord(keyRecord(tagOf(3), kGroupA, KEY_ACTIVE)));
  EXPECT_EQ(loose.getTagsByGroup(kGroupA), tags({tagOf(3), tagOf(2), tagOf(1)}));
}

TEST(KeyRecordTable, UpdateNeverDemotesTheOldActiveKey) {
  KeyTable table(true);
  table.addRecord(keyRecord(tagOf(1), kGroupA, KEY_ACTIVE));
  table.addRecord(keyRecord(tagOf(2), kGroupA, KEY_INACTIVE));
  table.addRecord(keyRecord(tagOf(3), kGroupB, KEY_ACTIVE));

  // Promoting within the group, or moving an active key in, is refused.
  EXPECT_FALSE(table.updateRecord(keyRecord(tagOf(2), kGroupA, KEY_ACTIVE)));
  EXPECT_FALSE(table.updateRecord(keyRecord(tagOf(3), kGroupA, KEY_ACTIVE)));
  EXPECT_EQ(table.getRecord(tagOf(2)).state(), KEY_INACTIVE);
  EXPECT_EQ(table.getRecord(tagOf(3)).keyGroup(), kGroupB);
  EXPECT_EQ(table.getActiveKeyInGroup(kGroupA), tagOf(1));
  EXPECT_FALSE(table.updateRecord(keyRecord(tagOf(9), kGroupA, KEY_INACTIVE)));  // absent

  // Demote the old key first, then the promotion goes through and moves the
  // tag to the front.
  // Keys behind the active one stand in tag order, as a reload lists them.
  EXPECT_TRUE(table.updateRecord(keyRecord(tagOf(1), kGroupA, KEY_INACTIVE)));
  EXPECT_EQ(table.getTagsByGroup(kGroupA), tags({tagOf(1), tagOf(2)}));
  EXPECT_EQ(table.getActiveKeyInGroup(kGroupA), "");
  EXPECT_TRUE(table.updateRecord(keyRecord(tagOf(2), kGroupA, KEY_ACTIVE)));
  EXPECT_EQ(table.getTagsByGroup(kGroupA), tags({tagOf(2), tagOf(1)}));
  EXPECT_EQ(table.getActiveKeyInGroup(kGroupA), tagOf(2));

  // A change that keeps group and state keeps the order and the new fields.
  KeyRecord_v1 renamed = keyRecord(tagOf(1), kGroupA, KEY_INACTIVE);
  renamed.setName("renamed");
  EXPECT_TRUE(table.updateRecord(renamed));
  EXPECT_EQ(table.getRecord(tagOf(1)).name(), "renamed");
  EXPECT_EQ(table.getTagsByGroup(kGroupA), tags({tagOf(2), tagOf(1)}));
}

TEST(KeyRecordTable, MovingKeysBetweenGroups) {
  KeyTable table(true);
  table.addRecord(keyRecord(tagOf(1), kGroupA, KEY_DEPRECATED));
  table.addRecord(keyRecord(tagOf(2), kGroupB, KEY_ACTIVE));
  table.addRecord(keyRecord(tagOf(3), kGroupB, KEY_INACTIVE));

  // A non-active key joins behind the active one in tag order, and as the
  // last key of its group it takes the group's entry with it.
  EXPECT_TRUE(table.updateRecord(keyRecord(tagOf(1), kGroupB, KEY_DEPRECATED)));
  EXPECT_EQ(table.getTagsByGroup(kGroupB), tags({tagOf(2), tagOf(1), tagOf(3)}));
  EXPECT_EQ(table.getNumKeysInGroup(kGroupA), 0u);
  const TagList& none = table.getTagsByGroup(kGroupA);
  EXPECT_TRUE(none.empty());
  EXPECT_EQ(&none, &table.getTagsByGroup(tagOf(5000, 'G')));  // the static empty list

  // An active key moves to the front of an empty group; the old group's
  // order is kept.
  EXPECT_TRUE(table.updateRecord(keyRecord(tagOf(2), kGroupA, KEY_ACTIVE)));
  EXPECT_EQ(table.getTagsByGroup(kGroupA), tags({tagOf(2)}));
  EXPECT_EQ(table.getTagsByGroup(kGroupB), tags({tagOf(1), tagOf(3)}));
  EXPECT_EQ(table.getActiveKeyInGroup(kGroupA), tagOf(2));
  EXPECT_EQ(table.getActiveKeyInGroup(kGroupB), "");

  // Moving and activating at once into a group without an active key.
  EXPECT_TRUE(table.updateRecord(keyRecord(tagOf(2), kGroupB, KEY_INACTIVE)));
  EXPECT_TRUE(table.updateRecord(keyRecord(tagOf(3), kGroupA, KEY_ACTIVE)));
  EXPECT_EQ(table.getTagsByGroup(kGroupA), tags({tagOf(3)}));
  EXPECT_EQ(table.getTagsByGroup(kGroupB), tags({tagOf(1), tagOf(2)}));
  EXPECT_EQ(table.getNumKeysInGroup(kGroupB), 2u);
}

TEST(KeyRecordTable, RemoveKeepsTheIndexesAndDropsEmptyGroups) {
  KeyTable table(true);
  table.addRecord(keyRecord(tagOf(1), kGroupA, KEY_ACTIVE));
  table.addRecord(keyRecord(tagOf(2), kGroupA, KEY_INACTIVE));
  EXPECT_FALSE(table.removeRecord(tagOf(3)));
  EXPECT_TRUE(table.removeRecord(tagOf(1)));
  EXPECT_EQ(table.getTagsByGroup(kGroupA), tags({tagOf(2)}));
  EXPECT_EQ(table.getActiveKeyInGroup(kGroupA), "");
  TagList found;
  EXPECT_EQ(table.getTagsByKad(tagOf(1), found), 0);
  EXPECT_TRUE(found.empty());

  // The argument may be the table's own key of the record that goes.
  EXPECT_TRUE(table.removeRecord(table.begin()->first));
  EXPECT_EQ(table.size(), 0u);
  EXPECT_EQ(table.getNumKeysInGroup(kGroupA), 0u);
  // Now the group takes an active key again.
  EXPECT_TRUE(table.addRecord(keyRecord(tagOf(4), kGroupA, KEY_ACTIVE)));
}

TEST(KeyRecordTable, LookupByKadPrefix) {
  KeyTable table(true);
  // Two tags sharing their first 12 bytes (zero bytes included), and a third
  // with another prefix.
  const std::string shared = std::string("\0kad\0prefix", 11) + "!";
  const std::string t1 = shared + std::string("\x01\0rest-one", 10);
  const std::string t2 = shared + std::string("\x02\0rest-two", 10);
  const std::string t3 = std::string(12, '\xff') + "other";
  const std::string shortTag = shared.substr(0, 8);
  for (const std::string& t : {t1, t2, t3, shortTag}) {
    ASSERT_TRUE(table.addRecord(keyRecord(t, kGroupA, KEY_INACTIVE)));
  }

  TagList found{"stale"};
  EXPECT_EQ(table.getTagsByKad(shared.substr(0, 11), found), 1220);
  EXPECT_TRUE(found.empty());  // cleared before anything else

  EXPECT_EQ(table.getTagsByKad(shared, found), 0);
  EXPECT_EQ(found, tags({t1, t2}));

  EXPECT_EQ(table.getTagsByKad(t2.substr(0, 13), found), 0);
  EXPECT_EQ(found, tags({t2}));

  // A KAD longer than the tag matches by the tag's whole length.
  EXPECT_EQ(table.getTagsByKad(t1 + "padding", found), 0);
  EXPECT_EQ(found, tags({t1}));

  // 12 bytes that match nothing: success, empty list. A tag shorter than
  // 12 bytes is never reached.
  EXPECT_EQ(table.getTagsByKad(std::string(12, 'z'), found), 0);
  EXPECT_TRUE(found.empty());
  EXPECT_EQ(table.getTagsByKad(shortTag + std::string(4, '\0'), found), 0);
  EXPECT_TRUE(found.empty());
}

TEST(KeyRecordTable, CopyIsIndependent) {
  KeyTable table(true);
  table.addRecord(keyRecord(tagOf(1), kGroupA, KEY_ACTIVE));
  table.addRecord(keyRecord(tagOf(2), kGroupA, KEY_INACTIVE));
  KeyTable copy(table);
  EXPECT_TRUE(copy.updateRecord(keyRecord(tagOf(1), kGroupB, KEY_INACTIVE)));
  EXPECT_TRUE(copy.removeRecord(tagOf(2)));
  EXPECT_TRUE(copy.addRecord(keyRecord(tagOf(3), kGroupA, KEY_ACTIVE)));

  EXPECT_EQ(table.getTagsByGroup(kGroupA), tags({tagOf(1), tagOf(2)}));
  EXPECT_EQ(table.getNumKeysInGroup(kGroupB), 0u);
  TagList found;
  table.getTagsByKad(tagOf(2), found);
  EXPECT_EQ(found, tags({tagOf(2)}));
  copy.getTagsByKad(tagOf(2), found);
  EXPECT_TRUE(found.empty());

  table = copy;  // assignment replaces every index
  EXPECT_EQ(table.getTagsByGroup(kGroupA), tags({tagOf(3)}));
  EXPECT_EQ(table.getTagsByGroup(kGroupB), tags({tagOf(1)}));
}

// A record changed in place in its state or group breaks the indexes; the
// next check of the table ends the process with the failed condition.
TEST(KeyRecordTableDeathTest, BrokenIndexesAbortAtTheNextCheck) {
  auto dies = [](KeyTable& table, const std::string& condition) {
    EXPECT_DEATH(
        {
          recordtest::logAppToStderr();
          table.testInvariant();
        },
        "Assertion failed: \\(" + condition + "\\)");
  };
  KeyTable twoActive(true);
  twoActive.addRecord(keyRecord(tagOf(1), kGroupA, KEY_ACTIVE));
  twoActive.addRecord(keyRecord(tagOf(2), kGroupA, KEY_INACTIVE));
  twoActive.setSkipInvariant(true);
  twoActive.findForChange(tagOf(2))->setState(KEY_ACTIVE);
  twoActive.findForChange(tagOf(1))->setKey("rewrapped");  // the key may change in place
  EXPECT_TRUE(twoActive.addRecord(keyRecord(tagOf(3), kGroupB, KEY_INACTIVE)));  // no check
  twoActive.setSkipInvariant(false);
  dies(twoActive, "activekeycount <= 1");

  KeyTable behind(true);
  behind.addRecord(keyRecord(tagOf(1), kGroupA, KEY_INACTIVE));
  behind.addRecord(keyRecord(tagOf(2), kGroupA, KEY_INACTIVE));
  behind.findForChange(tagOf(2))->setState(KEY_ACTIVE);
  dies(behind, "liter == \\(giter->second\\).end\\(\\)");

  KeyTable moved(true);
  moved.addRecord(keyRecord(tagOf(1), kGroupA, KEY_INACTIVE));
  moved.addRecord(keyRecord(tagOf(2), kGroupB, KEY_INACTIVE));
  moved.findForChange(tagOf(1))->setKeyGroup(tagOf(7, 'G'));  // a group with no entry
  dies(moved, "giter != m_groups.end\\(\\)");
  moved.findForChange(tagOf(1))->setKeyGroup(kGroupB);  // listed under A, claims B
  dies(moved, "liter != \\(giter->second\\).end\\(\\)");
  EXPECT_DEATH(
      {
        recordtest::logAppToStderr();
        moved.removeRecord(tagOf(1));
      },
      "Assertion failed: \\(erased == true\\)");
}
