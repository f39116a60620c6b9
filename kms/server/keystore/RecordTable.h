// A table of records keyed by tag, in the order of the tags' bytes. The store
// keeps its key groups in a RecordTable<KeyGrpRecord_v1>; keys live in the
// derived KeyRecordTable, which adds indexes.
//
// R must have `const std::string& tag() const` and `void display(int) const`.
// No lock: the store's lock guards a live table; a copy in the making belongs
// to the thread that made it. Copying copies every record (one allocation per
// record and per string field of it).
#pragma once

#include <cstdio>
#include <map>
#include <string>

#include "kms/server/diagnostics/Log.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

template <typename R>
class RecordTable {
 public:
  typedef std::map<std::string, R> Table;
  typedef typename Table::iterator iterator;
  typedef typename Table::const_iterator const_iterator;

  RecordTable() = default;

  // Inserts under the record's tag; false, and the old record stays, if the
  // tag is taken.
  bool addRecord(const R& record) {
    KMS_TRACE_THIS("RecordTable::addRecord");
    return m_rectable.emplace(record.tag(), record).second;
  }

  // Replaces the whole record of the same tag; false if the tag is absent.
  bool updateRecord(const R& record) {
    KMS_TRACE_THIS("RecordTable::updateRecord");
    const iterator iter = m_rectable.find(record.tag());
    if (iter == m_rectable.end()) {
      return false;
    }
    iter->second = record;
    return true;
  }

  // True if a record was erased.
  bool removeRecord(const std::string& tag) {
    KMS_TRACE_THIS("RecordTable::removeRecord");
    return m_rectable.erase(tag) == 1;
  }

  // The record, or a static default record (empty tag) if the tag is absent.
  // The reference is valid until the record is changed or removed.
  const R& getRecord(const std::string& tag) const {
    const const_iterator iter = m_rectable.find(tag);
    return iter != m_rectable.end() ? iter->second : m_errorR;
  }

  // A record may be changed in place through a mutable iterator, but never
  // its tag.
  iterator find(const std::string& tag) { return m_rectable.find(tag); }
  const_iterator find(const std::string& tag) const { return m_rectable.find(tag); }
  iterator begin() { return m_rectable.begin(); }
  iterator end() { return m_rectable.end(); }
  const_iterator begin() const { return m_rectable.begin(); }
  const_iterator end() const { return m_rectable.end(); }
  size_t size() const { return m_rectable.size(); }

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
