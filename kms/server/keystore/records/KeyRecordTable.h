// The table of keys: a RecordTable with two secondary indexes and the rule of
// one active key per group.
//
//  - by group: for each group tag the list of its key tags, active keys at
//    the front and all others behind them in the order of their tags, which
//    is the order of the file: a group lists its keys in the same order
//    before and after a reload. A group without keys has no entry.
//  - by KAD: a KAD is a prefix of its tags, so the records themselves, in
//    tag order, are the index: the tags of a KAD stand together.
//
// Every change goes through addRecord, updateRecord and removeRecord, which
// keep the indexes and end with the invariant's check of what they touched:
// the number of listed keys, the active keys at the front of the lists of
// the groups that the change touched, and the place of the changed record.
// With the invariant true before, that keeps it true of the whole table at
// a cost that does not grow with the table.
// testInvariant checks the whole table (after a load, and on demand). A
// broken invariant aborts the process (message 89). Records may be changed in place through a
// mutable findForChange or changeEach (as the key wrapping does), but never in tag, key group or
// state. The base is not public, so no caller can reach its changes, which would bypass the
// indexes.
//
// Copying shares the records and the group lists with the original until
// either changes them (see RecordTable); the store copies the table for each
// change at a cost in proportion to what the change touches. No lock: see
// RecordTable.
#pragma once

#include <algorithm>
#include <cstdio>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/Raise.h"
#include "kms/server/keystore/records/GroupTags.h"
#include "kms/server/keystore/records/RecordTable.h"
#include "kms/server/keystore/records/RecordUtils.h"
#include "kms/server/keystore/store/KeyStoreTypes.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

template <typename R>
class KeyRecordTable : protected RecordTable<R> {
  typedef RecordTable<R> Base;

 public:
  // Key tags found by KAD.
  typedef std::vector<std::string> TagList;
  using typename Base::const_iterator;
  using typename Base::iterator;

  // Length of the KAD that the index is built on, the shortest a caller may
  // look up.
  static constexpr size_t kKadLength = 12;

  // `singleActive`: whether a group may hold only one KEY_ACTIVE key. Every
  // table of the store is made with true.
  explicit KeyRecordTable(bool singleActive)
      : m_singleActive(singleActive), m_skipInvariant(false) {
    testInvariant();
  }

  // Adds the record. False, with nothing changed, if the tag is taken or if
  // the record is KEY_ACTIVE and its group already has an active key under
  // the single-active rule.
  bool addRecord(const R& rec) { return addRecord(R(rec)); }
  bool addRecord(R&& rec);

  // Replaces the record of the same tag, moving its tag between or within
  // group lists when the key group or state changes. False, with nothing
  // changed, if the tag is absent, or if the record becomes KEY_ACTIVE in a
  // group that already has an active key under the single-active rule: the
  // table never demotes the old active key, the caller must update it first.
  bool updateRecord(const R& rec);

  // Removes the record and its index entries; false if the tag is absent.
  bool removeRecord(std::string_view tagToRemove);

  using Base::begin;
  using Base::changeEach;
  using Base::end;
  using Base::find;
  using Base::findForChange;
  using Base::getRecord;
  using Base::size;

  // The group's key tags, active keys first, or a static empty list. The
  // reference is valid until the next change of the table.
  const GroupTags& getTagsByGroup(std::string_view group) const {
    const auto giter = m_groups.find(group);
    return giter != m_groups.end() ? giter->second : m_errorL;
  }

  // Calls `visit(group, tags)` for each group that has keys, in the order
  // of the group tags; `visit` must not change the table.
  template <typename Visit>
  void forEachGroup(Visit&& visit) const {
    for (const auto& group : m_groups) {
      visit(group.first, static_cast<const GroupTags&>(group.second));
    }
  }

  // Number of keys in the group; 0 for an unknown group.
  size_t getNumKeysInGroup(std::string_view group) const {
    const auto giter = m_groups.find(group);
    return giter != m_groups.end() ? giter->second.size() : 0;
  }

  // Tag of the group's KEY_ACTIVE key, or an empty view. Valid until the
  // next change of the table.
  std::string_view getActiveKeyInGroup(std::string_view group) const;

  // Fills `tags` (cleared first) with the tags that begin with `kad`; a KAD
  // longer than a tag matches over the tag's whole length. Returns 1220 for a
  // KAD shorter than 12 bytes, else 0, also when nothing matches.
  int getTagsByKad(const std::string& kad, TagList& tags) const;

  bool singleActive() const { return m_singleActive; }

  // While set, testInvariant does nothing. Set while a table is loaded from
  // a file; whoever clears it runs testInvariant once.
  void setSkipInvariant(bool skip) { m_skipInvariant = skip; }
  bool skipInvariant() const { return m_skipInvariant; }

  // Aborts the process (message 89) if the indexes disagree with the
  // records or a group breaks the order or number of its active keys.
  void testInvariant() const;
  // The same for what a change touched only: the number of listed keys, the
  // active keys at the front of the lists of `group` and `other` (if not
  // empty), and the place of the record of `tag` (if not empty) in its list.
  void testGroups(std::string_view group, std::string_view other = {},
                  std::string_view tag = {}) const;

  // Console dump of the records, then of the group lists.
  void display() const;

 private:
  using Base::m_rectable;

  struct GroupList;
  // The group's list, made for a change (created if missing).
  GroupList& groupForChange(std::string_view group);
  // Puts `tag` into `tags`: at the front if `active`, else among the keys
  // behind the active ones in tag order.
  void insertTag(GroupList& tags, std::string_view tag, bool active);
  // Takes `tag` out of the group's list, and the group's entry if that was
  // its last key; false if the tag was not listed there.
  bool eraseTag(std::string_view group, std::string_view tag);
  // True if each list names exactly the records of its group, the active
  // ones at the front and the others behind them in tag order; then
  // `mostActive` is the largest number of active keys in one group.
  bool listsMatchRecords(size_t& mostActive) const;
  // Names the first broken condition of the lists: a record that is not
  // listed in its group, too many active keys or an active key behind
  // another one, else keys out of tag order; aborts in any case.
  [[noreturn]] void explainBrokenLists() const;

  // A group's list together with the group's tag, which keys it in m_groups,
  // and the number of active keys at its front, which insertTag and eraseTag
  // keep and the checks compare with the records.
  struct GroupList : GroupTags {
    explicit GroupList(std::string_view group) : m_group(group) {}
    std::string_view tag() const { return m_group; }
    // The place behind the active keys (the end if the count passes it).
    GroupTags::const_iterator activeEnd() const {
      auto place = begin();
      for (size_t skipped = 0; skipped < m_active && place != end(); ++skipped) {
        ++place;
      }
      return place;
    }
    std::string m_group;
    size_t m_active = 0;
  };

  SharedTagMap<GroupList> m_groups;
  // Number of tags in all group lists.
  size_t m_listed = 0;
  bool m_singleActive;
  bool m_skipInvariant;
  static inline const GroupTags m_errorL{};
};

template <typename R>
bool KeyRecordTable<R>::addRecord(R&& rec) {
  KMS_TRACE_THIS("KeyRecordTable::addRecord");
  const bool active = rec.state() == KEY_ACTIVE;
  if (m_singleActive && active && !getActiveKeyInGroup(rec.keyGroup()).empty()) {
    testGroups(rec.keyGroup());
    return false;
  }
  // Only the index changes below, so `stored` stays valid.
  const R* stored = m_rectable.emplace(std::move(rec));
  if (stored == nullptr) {
    testGroups(rec.keyGroup());
    return false;
  }
  insertTag(groupForChange(stored->keyGroup()), stored->tag(), active);
  testGroups(stored->keyGroup(), {}, stored->tag());
  return true;
}

template <typename R>
typename KeyRecordTable<R>::GroupList& KeyRecordTable<R>::groupForChange(std::string_view group) {
  GroupList* tags = m_groups.findForChange(group);
  return tags != nullptr ? *tags : *m_groups.emplace(GroupList(group));
}

template <typename R>
void KeyRecordTable<R>::insertTag(GroupList& tags, std::string_view tag, bool active) {
  ++m_listed;
  if (active) {
    tags.insert(tags.begin(), tag);
    ++tags.m_active;
    return;
  }
  // Above the last tag (as when loaded in tag order): behind the active
  // keys and every other, so at the end, without a lookup.
  if (tags.empty() || tags.back() < tag) {
    tags.push_back(tag);
    return;
  }
  auto place = tags.activeEnd();
  while (place != tags.end() && *place < tag) {
    ++place;
  }
  tags.insert(place, tag);
}

template <typename R>
bool KeyRecordTable<R>::eraseTag(std::string_view group, std::string_view tag) {
  if (m_groups.find(group) == m_groups.end()) {
    return false;
  }
  GroupList& tags = *m_groups.findForChange(group);
  const auto at = tags.find(tag);
  if (at == tags.end()) {
    return false;
  }
  if (static_cast<size_t>(at - tags.begin()) < tags.m_active) {
    --tags.m_active;
  }
  tags.erase(at);
  --m_listed;
  if (tags.empty()) {
    m_groups.erase(group);
  }
  return true;
}

template <typename R>
bool KeyRecordTable<R>::updateRecord(const R& rec) {
  KMS_TRACE_THIS("KeyRecordTable::updateRecord");
  static constexpr const char* kLabel = "KeyRecordTable::updateRecord";
  const size_t numrecs = m_rectable.size();
  const auto iter = m_rectable.find(rec.tag());
  if (iter == m_rectable.end()) {
    KS_ASSERT(kLabel, numrecs == m_rectable.size());
    testGroups(rec.keyGroup());
    return false;
  }

  const R& stored = iter->second;
  // A copy: `stored` may go when the record is replaced.
  const std::string oldGroup(stored.keyGroup());
  if (stored.keyGroup() != rec.keyGroup() || stored.state() != rec.state()) {
    if (m_singleActive && rec.state() == KEY_ACTIVE &&
        !getActiveKeyInGroup(rec.keyGroup()).empty()) {
      testGroups(oldGroup, rec.keyGroup());
      return false;
    }

    // Take the tag out of the old group's list and put it into the new one.
    const bool erased = eraseTag(stored.keyGroup(), rec.tag());
    KS_ASSERT(kLabel, erased == true);
    insertTag(groupForChange(rec.keyGroup()), rec.tag(), rec.state() == KEY_ACTIVE);
  }

  const bool updated = Base::updateRecord(rec);
  KS_ASSERT(kLabel, updated);
  KS_ASSERT(kLabel, numrecs == m_rectable.size());
  testGroups(oldGroup, rec.keyGroup(), rec.tag());
  return true;
}

template <typename R>
bool KeyRecordTable<R>::removeRecord(std::string_view tagToRemove) {
  KMS_TRACE_THIS("KeyRecordTable::removeRecord");
  static constexpr const char* kLabel = "KeyRecordTable::removeRecord";
  // A copy: the argument may be the key of the record that goes.
  const std::string tag(tagToRemove);
  const size_t numrecs = m_rectable.size();
  const auto iter = m_rectable.find(tag);
  if (iter == m_rectable.end()) {
    KS_ASSERT(kLabel, numrecs == m_rectable.size());
    testInvariant();
    return false;
  }

  const std::string group(iter->second.keyGroup());
  const bool erased = eraseTag(group, tag);
  KS_ASSERT(kLabel, erased == true);

  const bool removed = Base::removeRecord(tag);
  KS_ASSERT(kLabel, removed == true);
  KS_ASSERT(kLabel, (numrecs - 1) == m_rectable.size());
  // The spacing inside the call is part of the logged assertion text.
  // clang-format off
  KS_ASSERT(kLabel, m_rectable.find( tag ) == m_rectable.end());
  // clang-format on
  testGroups(group);
  return true;
}

template <typename R>
std::string_view KeyRecordTable<R>::getActiveKeyInGroup(std::string_view group) const {
  const auto giter = m_groups.find(group);
  if (giter == m_groups.end() || giter->second.empty()) {
    return {};
  }
  // Active keys stand at the front, so the first tag decides.
  const auto iter = m_rectable.find(giter->second.front());
  if (iter != m_rectable.end() && iter->second.state() == KEY_ACTIVE) {
    return iter->first;
  }
  return {};
}

template <typename R>
int KeyRecordTable<R>::getTagsByKad(const std::string& kad, TagList& tags) const {
  KMS_TRACE_THIS("KeyRecordTable::getTagsByKad");
  tags.clear();
  if (kad.size() < kKadLength) {
    return EC_KS_kad_too_short;
  }
  // The tags that begin with the KAD's first 12 bytes stand together in tag
  // order, from the first tag not less than those 12 bytes.
  const std::string prefix = kad.substr(0, kKadLength);
  for (auto iter = m_rectable.lower_bound(prefix); iter != m_rectable.end(); ++iter) {
    const std::string_view tag = iter->first;
    if (tag.compare(0, kKadLength, prefix) != 0) {
      break;
    }
    const size_t length = std::min(tag.size(), kad.size());
    if (tag.compare(0, length, kad, 0, length) == 0) {
      tags.emplace_back(tag);
    }
  }
  return 0;
}

template <typename R>
void KeyRecordTable<R>::testInvariant() const {
  if (m_skipInvariant) {
    return;
  }
  KMS_TRACE_THIS("KeyRecordTable::testInvariant");
  static constexpr const char* kLabel = "KeyRecordTable::testInvariant";

  // 1. No group entry is empty, and the lists name as many tags as there are
  //    records.
  size_t numrecs = 0;
  for (auto giter = m_groups.begin(); giter != m_groups.end(); ++giter) {
    KS_ASSERT(kLabel, (giter->second).size() != 0);
    numrecs += (giter->second).size();
  }
  KS_ASSERT(kLabel, numrecs == m_rectable.size());

  // 2. Each list names exactly the records of its group, active keys at
  //    the front, at most one under the single-active rule, and the others
  //    behind them in tag order. One walk of the records checks this; if it
  //    fails, slower walks name the broken condition.
  size_t activekeycount = 0;
  if (!listsMatchRecords(activekeycount)) {
    explainBrokenLists();
  }
  if (m_singleActive) {
    KS_ASSERT(kLabel, activekeycount <= 1);
  }

  // 3. The KAD index is the records themselves: nothing to check.
}

template <typename R>
void KeyRecordTable<R>::testGroups(std::string_view group, std::string_view other,
                                   std::string_view tag) const {
  if (m_skipInvariant) {
    return;
  }
  KMS_TRACE_THIS("KeyRecordTable::testInvariant");
  static constexpr const char* kLabel = "KeyRecordTable::testInvariant";
  // 1. The lists name as many tags as there are records.
  const size_t numrecs = m_listed;
  KS_ASSERT(kLabel, numrecs == m_rectable.size());
  const auto touchedRecord = tag.empty() ? m_rectable.end() : m_rectable.find(tag);
  for (const std::string_view* touched : {&group, &other}) {
    if (touched == &other && (other.empty() || other == group)) {
      continue;
    }
    const auto giter = m_groups.find(*touched);
    if (giter == m_groups.end()) {
      continue;
    }
    KS_ASSERT(kLabel, (giter->second).size() != 0);
    // 3. The active keys at the front, at most one under the single-active
    //    rule; each a record of this group (else the walk of all records
    //    names the broken condition).
    auto liter = (giter->second).begin();
    size_t activekeycount = 0;
    for (; liter != (giter->second).end(); ++liter) {
      const auto iter = m_rectable.find(*liter);
      if (iter == m_rectable.end() || iter->second.keyGroup() != *touched) {
        explainBrokenLists();
      }
      if (iter->second.state() != KEY_ACTIVE) {
        break;
      }
      ++activekeycount;
    }
    if (m_singleActive) {
      KS_ASSERT(kLabel, activekeycount <= 1);
    }
    KS_ASSERT(kLabel, activekeycount == giter->second.m_active);
    // 2. The touched record is listed in its group, and an active one
    //    stands among the active keys at the front.
    if (touchedRecord != m_rectable.end() && touchedRecord->second.keyGroup() == *touched) {
      liter = (giter->second).find(tag);
      if (liter == (giter->second).end()) {
        explainBrokenLists();
      }
      if (touchedRecord->second.state() == KEY_ACTIVE &&
          static_cast<size_t>(liter - (giter->second).begin()) >= activekeycount) {
        KS_ASSERT(kLabel, liter == (giter->second).end());
      }
    }
  }
}

template <typename R>
bool KeyRecordTable<R>::listsMatchRecords(size_t& mostActive) const {
  // The records stand in tag order, and so do the keys behind the active
  // ones in each list. One walk of the records therefore meets each list's
  // tags in turn: a cursor per group points at the tag that its next record
  // which is not active must have. Each active record must stand among the
  // keys that its list counts as active at its front; as many as it counts
  // must be met, so those keys are exactly the group's active records.
  struct Cursor {
    const GroupTags* tags;
    GroupTags::const_iterator activeEnd;
    GroupTags::const_iterator next;
    size_t activeListed;
    size_t activeSeen;
  };
  std::unordered_map<std::string_view, Cursor> cursors;
  cursors.reserve(m_groups.size());
  mostActive = 0;
  for (const auto& group : m_groups) {
    const GroupList& tags = group.second;
    const size_t active = tags.m_active;
    if (active > tags.size()) {
      return false;
    }
    const auto activeEnd = tags.activeEnd();
    mostActive = std::max(mostActive, active);
    cursors.emplace(group.first, Cursor{&tags, activeEnd, activeEnd, active, 0});
  }

  for (const auto& entry : m_rectable) {
    const auto found = cursors.find(entry.second.keyGroup());
    if (found == cursors.end()) {
      return false;
    }
    Cursor& cursor = found->second;
    if (entry.second.state() == KEY_ACTIVE) {
      if (++cursor.activeSeen > cursor.activeListed ||
          std::find(cursor.tags->begin(), cursor.activeEnd, entry.first) == cursor.activeEnd) {
        return false;
      }
    } else {
      if (cursor.next == cursor.tags->end() || *cursor.next != entry.first) {
        return false;
      }
      ++cursor.next;
    }
  }
  for (const auto& entry : cursors) {
    const Cursor& cursor = entry.second;
    if (cursor.next != cursor.tags->end() || cursor.activeSeen != cursor.activeListed) {
      return false;
    }
  }
  return true;
}

template <typename R>
void KeyRecordTable<R>::explainBrokenLists() const {
  static constexpr const char* kLabel = "KeyRecordTable::testInvariant";
  // Every record is listed in its own group; with the count of the lists,
  // each exactly once.
  for (auto iter = m_rectable.begin(); iter != m_rectable.end(); ++iter) {
    const auto giter = m_groups.find(iter->second.keyGroup());
    KS_ASSERT(kLabel, giter != m_groups.end());
    const auto liter = (giter->second).find(iter->first);
    KS_ASSERT(kLabel, liter != (giter->second).end());
  }
  // Active keys stand at the front of each list, at most one under the
  // single-active rule.
  const auto active = [this](std::string_view tag) {
    const auto iter = m_rectable.find(tag);
    return iter != m_rectable.end() && iter->second.state() == KEY_ACTIVE;
  };
  for (auto giter = m_groups.begin(); giter != m_groups.end(); ++giter) {
    auto liter = (giter->second).begin();
    size_t activekeycount = 0;
    while (liter != (giter->second).end() && active(*liter)) {
      ++activekeycount;
      ++liter;
    }
    if (m_singleActive) {
      KS_ASSERT(kLabel, activekeycount <= 1);
    }
    while (liter != (giter->second).end() && !active(*liter)) {
      ++liter;
    }
    KS_ASSERT(kLabel, liter == (giter->second).end());
  }
  // What is left: keys behind the active ones out of tag order.
  assertionFailed(kLabel, "listsMatchRecords( activekeycount )", __FILE__, __LINE__);
}

template <typename R>
void KeyRecordTable<R>::display() const {
  KMS_TRACE_THIS("KeyRecordTable::display");
  Base::display();
  std::printf(" ******* Group List ******* \n\n");
  for (const auto& group : m_groups) {
    std::printf(" Key Group : ");
    Utils::displayBuffer(group.first, true, "", true);
    for (const std::string_view tag : group.second) {
      std::printf("\t\t");
      Utils::displayBuffer(tag, true, "\t", true);
    }
  }
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
