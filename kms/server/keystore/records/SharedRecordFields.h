// The fields of a key group record that a key record has too: tag, name,
// update and create time, description, revision and the attribute list, with
// their getters and setters. (A key record keeps its own in one block.)
//
// `Record` derives from SharedRecordFields<Record>, names itself in
// `Record::kClassName` (the prefix of the function names in the log) and
// provides testInvariant(), which every setter here ends with. The tag
// refuses a value over 4096 bytes with KeyStoreError 1214 and stays as it
// was; name and description are cut to 4096 bytes without an error. The
// string fields are shown as views, valid while the record lives and is not
// changed.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

#include "kms/server/keystore/records/AttributeList.h"
#include "kms/server/keystore/records/RecordFields.h"
#include "kms/server/keystore/records/RecordUtils.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

template <typename Record>
class SharedRecordFields {
 public:
  std::string_view tag() const { return m_tag; }
  std::string_view name() const { return m_name; }
  uint64_t updateTime() const { return m_updatetime; }
  uint64_t createTime() const { return m_createtime; }
  std::string_view description() const { return m_description; }
  uint32_t rev() const { return m_rev; }
  const AttributeList& attributes() const { return m_attrs; }
  // The list keeps its own limits, so it may be changed in place.
  AttributeList& attributes() { return m_attrs; }

  void setTag(std::string_view tag) {  // throws 1214
    static const std::string kLabel = qualified("setTag");
    assignBoundedField(kLabel.c_str(), "Encountered TAG of size: ", m_tag, tag);
    self().testInvariant();
  }
  void setName(std::string_view name) {
    static const std::string kLabel = qualified("setName");
    assignTruncatedField(kLabel.c_str(), "Name", m_name, name);
    self().testInvariant();
  }
  void setUpdateTime(uint64_t seconds) {
    m_updatetime = seconds;
    self().testInvariant();
  }
  void setCreateTime(uint64_t seconds) {
    m_createtime = seconds;
    self().testInvariant();
  }
  void setDescription(std::string_view description) {
    static const std::string kLabel = qualified("setDescription");
    assignTruncatedField(kLabel.c_str(), "Description", m_description, description);
    self().testInvariant();
  }
  void setRev(uint32_t rev) {
    m_rev = rev;
    self().testInvariant();
  }

 protected:
  SharedRecordFields() = default;

  // All shared fields, the attribute lists by size and then pair by pair.
  bool sharedFieldsEqual(const SharedRecordFields& other) const {
    return m_tag == other.m_tag && m_name == other.m_name && m_createtime == other.m_createtime &&
           m_updatetime == other.m_updatetime && m_description == other.m_description &&
           m_rev == other.m_rev && m_attrs == other.m_attrs;
  }

  std::string m_tag;
  std::string m_name;
  uint64_t m_updatetime = 0;
  uint64_t m_createtime = 0;
  std::string m_description;
  uint32_t m_rev = 0;
  AttributeList m_attrs;

 private:
  static std::string qualified(const char* function) {
    return std::string(Record::kClassName) + "::" + function;
  }
  const Record& self() const { return static_cast<const Record&>(*this); }
};

// The console lines of a record's times, description and revision.
template <typename Record>
void displaySharedFields(const Record& rec) {
  std::printf("Creation Time : ");
  Utils::displayTimestamp(rec.createTime());
  std::printf("Last Update Time : ");
  Utils::displayTimestamp(rec.updateTime());
  std::printf("Description : ");
  Utils::displayBuffer(rec.description(), false, "", false);
  std::printf("Object Revision : ");
  Utils::displayObjRev(rec.rev());
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
