// A table of records keyed by tag, in the order of the tags' bytes. The store
// keeps its key groups in a RecordTable<KeyGrpRecord_v1>; keys live in the
// derived KeyRecordTable, which adds indexes.
//
// R must have `std::string_view tag() const` and `void display(int) const`.
// No lock: the store's lock guards a live table; a copy in the making belongs
// to the thread that made it. A copy shares the records with its original
// until either changes them (SharedTagMap): copying costs 256 pointers, and
// each change afterwards copies the records of one shard, about 1/256 of
// them. Iterators are read-only; records change through the table.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>
#include <utility>

#include "kms/server/diagnostics/Log.h"
#include "kms/server/keystore/records/SharedTagMap.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

template <typename R>
class RecordTable {
 public:
  typedef SharedTagMap<R> Table;
  typedef typename Table::const_iterator const_iterator;
  typedef const_iterator iterator;

  RecordTable() = default;

  // Inserts under the record's tag; false, and the old record stays, if the
  // tag is taken.
  bool addRecord(const R& record) {
    KMS_TRACE_THIS("RecordTable::addRecord");
    return m_rectable.emplace(R(record)) != nullptr;
  }
  // The same, taking the record over.
  bool addRecord(R&& record) {
    KMS_TRACE_THIS("RecordTable::addRecord");
    return m_rectable.emplace(std::move(record)) != nullptr;
  }

  // Replaces the whole record of the same tag; false if the tag is absent.
  bool updateRecord(const R& record) {
    KMS_TRACE_THIS("RecordTable::updateRecord");
    R* stored = m_rectable.findForChange(record.tag());
    if (stored == nullptr) {
      return false;
    }
    *stored = record;
    return true;
  }

  // True if a record was erased.
  bool removeRecord(std::string_view tag) {
    KMS_TRACE_THIS("RecordTable::removeRecord");
    return m_rectable.erase(tag);
  }

  // The record, or a static default record (empty tag) if the tag is absent.
  // The reference is valid until the record is changed or removed.
  const R& getRecord(std::string_view tag) const {
    const const_iterator iter = m_rectable.find(tag);
    return iter != m_rectable.end() ? iter->second : m_errorR;
  }

  const_iterator find(std::string_view tag) const { return m_rectable.find(tag); }
  const_iterator begin() const { return m_rectable.begin(); }
  const_iterator end() const { return m_rectable.end(); }
  size_t size() const { return m_rectable.size(); }

  // The record of `tag` to change in place, or null if absent; never its
  // tag. Valid until the next change of the table.
  R* findForChange(std::string_view tag) { return m_rectable.findForChange(tag); }
  // Calls `change(R&)` for every record in tag order; never its tag.
  template <typename Change>
  void changeEach(Change&& change) {
    m_rectable.changeEach([&](std::string_view, R& rec) { change(rec); });
  }

  // Console dump of every record in tag order, numbered from 1.
  void display() const {
    KMS_TRACE_THIS("RecordTable::display");
    std::printf(" Number of records = %lu\n\n", static_cast<unsigned long>(m_rectable.size()));
    int number = 1;
    for (const auto& entry : m_rectable) {
      entry.second.display(number++);
    }
  }

 protected:
  Table m_rectable;
  static inline const R m_errorR{};
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
