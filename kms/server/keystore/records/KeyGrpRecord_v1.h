// The in-store record of one key group: a plain value (copyable, comparable).
//
// Limits: the tag is at most 4096 bytes and setTag throws KeyStoreError 1214
// for a longer one, leaving it as it was; name and description are cut to
// 4096 bytes without an error; setCipherType refuses values above
// CT_BLOW_CBC with 1214. Every setter ends with testInvariant, whose failure
// aborts the process.
//
// hasActiveKey and numKeys are derived: the store fills them in on copies that
// leave it, they are not kept up to date in a table, and operator== ignores
// them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "kms/server/keystore/records/AttributeList.h"
#include "kms/server/keystore/records/SharedRecordFields.h"
#include "kms/server/keystore/store/KeyStoreTypes.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

class KeyGrpRecord_v1 : public SharedRecordFields<KeyGrpRecord_v1> {
 public:
  // Tag, name, times, description, revision and attributes, with their
  // accessors, come from SharedRecordFields.
  static constexpr const char* kClassName = "KeyGrpRecord_v1";

  // Empty strings, zero times, revision 0, CT_INVALID_CBC, false, 0.
  KeyGrpRecord_v1();
  KeyGrpRecord_v1(const KeyGrpRecord_v1&) = default;
  KeyGrpRecord_v1(KeyGrpRecord_v1&&) = default;
  KeyGrpRecord_v1& operator=(const KeyGrpRecord_v1&) = default;
  KeyGrpRecord_v1& operator=(KeyGrpRecord_v1&&) = default;

  ks_ciphertype_t cipherType() const { return m_ciphertype; }
  bool hasActiveKey() const { return m_hasactivekey; }
  uint64_t numKeys() const { return m_numkeys; }

  void setCipherType(ks_ciphertype_t type);  // throws 1214
  void setHasActiveKey(bool hasActiveKey);
  void setNumKeys(uint64_t numKeys);

  // Sets tag, name, cipher type, update time, create time, description and
  // revision, in that order, each through its setter (so it throws as they
  // do).
  void setFields(std::string_view tag, std::string_view name, ks_ciphertype_t cipherType,
                 uint64_t updateTime, uint64_t createTime, std::string_view description,
                 uint32_t rev);

  // All fields but hasActiveKey and numKeys.
  bool operator==(const KeyGrpRecord_v1& other) const;
  bool operator!=(const KeyGrpRecord_v1& other) const { return !(*this == other); }

  // Aborts the process (message 89) if a bound or the cipher type is broken.
  void testInvariant() const;
  // Console dump of the record, headed by `number`.
  void display(int number) const;

 private:
  ks_ciphertype_t m_ciphertype;
  bool m_hasactivekey;
  uint64_t m_numkeys;
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
