// The in-store record of one key: a plain value (copyable, comparable). In
// the store's tables the key field holds the wrapped key; copies that leave
// the store hold the plain key or nothing.
//
// The fields live in one shared, immutable KeyRecordBlock, in the form the
// key table's stream holds them: copying a record copies a reference, and a
// setter makes a new block (a digest over the record, about a microsecond).
// The views that the accessors return are valid while the record lives and
// is not changed. The attribute list is kept beside the block.
//
// Limits: tag, key group, KPK tag and key are at most 4096 bytes and their
// setters throw KeyStoreError 1214 for a longer value, leaving the field as it
// was; name and description are cut to 4096 bytes without an error. The
// enumeration setters refuse values outside the enumeration with 1214 (the
// zero values are accepted here; the store refuses them). Every setter ends
// with testInvariant, whose failure aborts the process. The key bytes are
// wiped when the last record lets go of its block; a record moved from is
// left empty.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "kms/server/keystore/records/AttributeList.h"
#include "kms/server/keystore/records/KeyRecordBlock.h"
#include "kms/server/keystore/store/KeyStoreTypes.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

class KeyRecord_v1 {
 public:
  static constexpr const char* kClassName = "KeyRecord_v1";

  // Empty strings, zero times, revision 0, KEY_INVALID, KPK_INVALID.
  KeyRecord_v1();
  // A record of a block that a table read has checked, enumerations
  // included.
  explicit KeyRecord_v1(KeyRecordBlock::Ref block);
  KeyRecord_v1(const KeyRecord_v1&) = default;
  KeyRecord_v1(KeyRecord_v1&& other) noexcept;
  KeyRecord_v1& operator=(const KeyRecord_v1&) = default;
  KeyRecord_v1& operator=(KeyRecord_v1&& other) noexcept;

  std::string_view tag() const { return m_block->field(KeyRecordBlock::kTag); }
  std::string_view name() const { return m_block->field(KeyRecordBlock::kName); }
  uint64_t updateTime() const { return m_block->integer(KeyRecordBlock::kUpdateTime); }
  uint64_t createTime() const { return m_block->integer(KeyRecordBlock::kCreateTime); }
  std::string_view description() const { return m_block->field(KeyRecordBlock::kDescription); }
  uint32_t rev() const { return static_cast<uint32_t>(m_block->integer(KeyRecordBlock::kRev)); }
  std::string_view keyGroup() const { return m_block->field(KeyRecordBlock::kKeyGroup); }
  ks_keystate_t state() const {
    return static_cast<ks_keystate_t>(
        static_cast<int32_t>(m_block->integer(KeyRecordBlock::kState)));
  }
  ks_kpktype_t kpkType() const {
    return static_cast<ks_kpktype_t>(
        static_cast<int32_t>(m_block->integer(KeyRecordBlock::kKpkType)));
  }
  std::string_view kpkTag() const { return m_block->field(KeyRecordBlock::kKpkTag); }
  std::string_view key() const { return m_block->field(KeyRecordBlock::kKey); }
  const AttributeList& attributes() const { return m_attrs; }
  // The list keeps its own limits, so it may be changed in place.
  AttributeList& attributes() { return m_attrs; }
  // The fields as the key table's stream holds them.
  const KeyRecordBlock& block() const { return *m_block; }

  // Each makes a new block (see the limits above for what throws 1214).
  void setTag(std::string_view tag) { change(KeyRecordBlock::kTag, tag); }
  void setName(std::string_view name) { change(KeyRecordBlock::kName, name); }
  void setUpdateTime(uint64_t seconds) { change(KeyRecordBlock::kUpdateTime, seconds); }
  void setCreateTime(uint64_t seconds) { change(KeyRecordBlock::kCreateTime, seconds); }
  void setDescription(std::string_view description) {
    change(KeyRecordBlock::kDescription, description);
  }
  void setRev(uint32_t rev) { change(KeyRecordBlock::kRev, uint64_t{rev}); }
  void setKeyGroup(std::string_view groupTag) { change(KeyRecordBlock::kKeyGroup, groupTag); }
  void setState(ks_keystate_t state);
  void setKpkType(ks_kpktype_t type);
  void setKpkTag(std::string_view kpkTag) { change(KeyRecordBlock::kKpkTag, kpkTag); }
  void setKey(std::string_view key) { change(KeyRecordBlock::kKey, key); }

  // Sets tag, name, update time, create time, description, revision, key
  // group, state, KPK type, KPK tag and key in one new block, each checked as
  // its setter checks it; a refused value throws 1214 and leaves the record
  // as it was. The attributes are not touched.
  void setFields(std::string_view tag, std::string_view name, std::string_view keyGroup,
                 ks_keystate_t state, uint64_t updateTime, uint64_t createTime,
                 std::string_view description, uint32_t rev, ks_kpktype_t kpkType,
                 std::string_view kpkTag, std::string_view key);

  // Adds the attribute, or replaces the value of an existing one. Throws 1200
  // only if neither works.
  void addOrUpdateKRAttribute(std::string name, std::string value);

  // All fields, the attribute lists by size and then pair by pair.
  bool operator==(const KeyRecord_v1& other) const;
  bool operator!=(const KeyRecord_v1& other) const { return !(*this == other); }

  // Aborts the process (message 89) if a bound or an enumeration is broken.
  void testInvariant() const;
  // Console dump of the record, headed by `number`.
  void display(int number) const;

 private:
  // A new block with one field replaced (a byte string checked as its
  // setter says), then the invariant.
  void change(KeyRecordBlock::Field field, std::string_view value);
  void change(KeyRecordBlock::Field field, uint64_t value);

  KeyRecordBlock::Ref m_block;
  AttributeList m_attrs;
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
