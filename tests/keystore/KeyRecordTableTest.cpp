#include "kms/server/keystore/records/KeyRecordTable.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "keystore/FormatTestUtil.h"
#include "kms/server/keystore/records/KeyGrpRecord_v1.h"
#include "kms/server/keystore/records/KeyRecord_v1.h"
#include "kms/server/keystore/records/RecordTable.h"

using namespace Vaultrest::DL::KMS;
using formattest::tagOf;

namespace {

typedef KeyRecordTable<KeyRecord_v1> KeyTable;
typedef KeyTable::TagList TagList;

const std::string kA = tagOf(1000, 'G');
const std::string kB = tagOf(1001, 'G');

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

TEST(KeyRecordTable, OneActiveKeyPerGroupStandsFirstOnAddAndUpdate) {
  KeyTable table = tableOf({{1, kA, KEY_INACTIVE}, {2, kA, KEY_ACTIVE}});
  EXPECT_FALSE(table.addRecord(key(3, kA, KEY_ACTIVE)));
  EXPECT_FALSE(table.addRecord(key(1, kB, KEY_PRELIVE)));  // tag taken
  EXPECT_EQ(table.getTagsByGroup(kA), tags({2, 1}));       // active first
  EXPECT_TRUE(table.addRecord(key(3, kB, KEY_ACTIVE)));    // another group is fine
  // Without the rule, several active keys stand at the front.
  KeyTable loose(false);
  for (const auto& [n, state] :
       {std::pair{1u, KEY_DEPRECATED}, {2u, KEY_ACTIVE}, {3u, KEY_ACTIVE}}) {
    EXPECT_TRUE(loose.addRecord(key(n, kA, state)));
  }
  EXPECT_EQ(loose.getTagsByGroup(kA), tags({3, 2, 1}));

  // Promoting within the group, or moving an active key in, is refused; the
  // old active key is never demoted on the way.
  table = tableOf({{1, kA, KEY_ACTIVE}, {2, kA, KEY_INACTIVE}, {3, kB, KEY_ACTIVE}});
  EXPECT_FALSE(table.updateRecord(key(2, kA, KEY_ACTIVE)));
  EXPECT_FALSE(table.updateRecord(key(3, kA, KEY_ACTIVE)));
  EXPECT_FALSE(table.updateRecord(key(9, kA, KEY_INACTIVE)));  // absent
  EXPECT_EQ(table.getRecord(tagOf(2)).state(), KEY_INACTIVE);
  EXPECT_EQ(table.getRecord(tagOf(3)).keyGroup(), kB);
  EXPECT_EQ(table.getActiveKeyInGroup(kA), tagOf(1));
  // Demote the old key first, then the promotion goes through and moves the
  // tag to the front; keys behind the active one stand in tag order.
  EXPECT_TRUE(table.updateRecord(key(1, kA, KEY_INACTIVE)));
  EXPECT_EQ(table.getTagsByGroup(kA), tags({1, 2}));
  EXPECT_EQ(table.getActiveKeyInGroup(kA), "");
  EXPECT_TRUE(table.updateRecord(key(2, kA, KEY_ACTIVE)));
  EXPECT_EQ(table.getTagsByGroup(kA), tags({2, 1}));
  EXPECT_EQ(table.getActiveKeyInGroup(kA), tagOf(2));
  // A change that keeps group and state keeps the order and the new fields.
  KeyRecord_v1 renamed = key(1, kA, KEY_INACTIVE);
  renamed.setName("renamed");
  EXPECT_TRUE(table.updateRecord(renamed));
  EXPECT_EQ(table.getRecord(tagOf(1)).name(), "renamed");
  EXPECT_EQ(table.getTagsByGroup(kA), tags({2, 1}));
}

TEST(KeyRecordTable, MovingAndRemovingKeys) {
  KeyTable table = tableOf({{1, kA, KEY_DEPRECATED}, {2, kB, KEY_ACTIVE}, {3, kB, KEY_INACTIVE}});
  // A non-active key joins behind the active one in tag order, and as the
  // last key of its group it takes the group's entry with it.
  EXPECT_TRUE(table.updateRecord(key(1, kB, KEY_DEPRECATED)));
  EXPECT_EQ(table.getTagsByGroup(kB), tags({2, 1, 3}));
  EXPECT_EQ(table.getNumKeysInGroup(kA), 0u);
  const TagList& none = table.getTagsByGroup(kA);
  EXPECT_TRUE(none.empty());
  EXPECT_EQ(&none, &table.getTagsByGroup(tagOf(5000, 'G')));  // the static empty list
  // An active key moves to the front of an empty group; the old group's
  // order is kept.
  EXPECT_TRUE(table.updateRecord(key(2, kA, KEY_ACTIVE)));
  EXPECT_EQ(table.getTagsByGroup(kA), tags({2}));
  EXPECT_EQ(table.getTagsByGroup(kB), tags({1, 3}));
  EXPECT_EQ(table.getActiveKeyInGroup(kB), "");
  // Moving and activating at once into a group without an active key.
  EXPECT_TRUE(table.updateRecord(key(2, kB, KEY_INACTIVE)));
  EXPECT_TRUE(table.updateRecord(key(3, kA, KEY_ACTIVE)));
  EXPECT_EQ(table.getTagsByGroup(kA), tags({3}));
  EXPECT_EQ(table.getTagsByGroup(kB), tags({1, 2}));
  EXPECT_EQ(table.getNumKeysInGroup(kB), 2u);

  // Removal keeps the indexes and drops empty groups.
  table = tableOf({{1, kA, KEY_ACTIVE}, {2, kA, KEY_INACTIVE}});
  EXPECT_FALSE(table.removeRecord(tagOf(3)));
  EXPECT_TRUE(table.removeRecord(tagOf(1)));
  EXPECT_EQ(table.getTagsByGroup(kA), tags({2}));
  EXPECT_EQ(table.getActiveKeyInGroup(kA), "");
  TagList found;
  EXPECT_EQ(table.getTagsByKad(tagOf(1), found), 0);
  EXPECT_TRUE(found.empty());
  // The argument may be the table's own key of the record that goes.
  EXPECT_TRUE(table.removeRecord(table.begin()->first));
  EXPECT_EQ(table.size(), 0u);
  EXPECT_EQ(table.getNumKeysInGroup(kA), 0u);
  EXPECT_TRUE(table.addRecord(key(4, kA, KEY_ACTIVE)));  // the group takes an active key again
}

TEST(KeyRecordTable, LookupByKadPrefix) {
  KeyTable table(true);
  // Two tags sharing their first 12 bytes (zero bytes included), a third
  // with another prefix, and one shorter than 12 bytes.
  const std::string shared = std::string("\0kad\0prefix", 11) + "!";
  const std::string t1 = shared + std::string("\x01\0rest-one", 10);
  const std::string t2 = shared + std::string("\x02\0rest-two", 10);
  const std::string shortTag = shared.substr(0, 8);
  for (const std::string& t : {t1, t2, std::string(12, '\xff') + "other", shortTag}) {
    ASSERT_TRUE(table.addRecord(formattest::keyRecord(t, kA, KEY_INACTIVE)));
  }
  TagList found{"stale"};
  EXPECT_EQ(table.getTagsByKad(shared.substr(0, 11), found), 1220);
  EXPECT_TRUE(found.empty());  // cleared before anything else
  const std::pair<std::string, TagList> rows[] = {
      {shared, {t1, t2}},
      {t2.substr(0, 13), {t2}},
      {t1 + "padding", {t1}},  // a KAD longer than the tag matches by the tag's length
      {std::string(12, 'z'), {}},
      {shortTag + std::string(4, '\0'), {}},  // a tag under 12 bytes is never reached
  };
  for (const auto& [kad, expected] : rows) {
    EXPECT_EQ(table.getTagsByKad(kad, found), 0);
    EXPECT_EQ(found, expected);
  }
}

TEST(KeyRecordTable, CopyIsIndependent) {
  KeyTable table = tableOf({{1, kA, KEY_ACTIVE}, {2, kA, KEY_INACTIVE}});
  KeyTable copy(table);
  EXPECT_TRUE(copy.updateRecord(key(1, kB, KEY_INACTIVE)));
  EXPECT_TRUE(copy.removeRecord(tagOf(2)));
  EXPECT_TRUE(copy.addRecord(key(3, kA, KEY_ACTIVE)));
  EXPECT_EQ(table.getTagsByGroup(kA), tags({1, 2}));
  EXPECT_EQ(table.getNumKeysInGroup(kB), 0u);
  TagList found;
  table.getTagsByKad(tagOf(2), found);
  EXPECT_EQ(found, tags({2}));
  copy.getTagsByKad(tagOf(2), found);
  EXPECT_TRUE(found.empty());
  table = copy;  // assignment replaces every index
  EXPECT_EQ(table.getTagsByGroup(kA), tags({3}));
  EXPECT_EQ(table.getTagsByGroup(kB), tags({1}));
}

// A record changed in place in its state or group breaks the indexes; the
// next check of the table ends the process with the failed condition.
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
