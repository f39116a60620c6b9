#include "kms/server/keystore/records/KeyRecord_v1.h"

#include <cstdio>

#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/Raise.h"
#include "kms/server/diagnostics/StatusCodes.h"
#include "kms/server/keystore/records/RecordFields.h"
#include "kms/server/keystore/records/RecordUtils.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

KeyRecord_v1::KeyRecord_v1() : m_state(KEY_INVALID), m_kpktype(KPK_INVALID) {
  m_attrs.testInvariant();
  testInvariant();
}

void KeyRecord_v1::setKeyGroup(std::string_view groupTag) {
  assignBoundedField("KeyRecord_v1::setKeyGroup", "Encountered KeyGroup TAG of size: ", m_kgroup,
                     groupTag);
  testInvariant();
}

void KeyRecord_v1::setState(ks_keystate_t state) {
  if (!isKnownKeyState(state)) {
    KMS_DEBUG("KeyRecord_v1::setState", 1,
              "Encounted an UNKNOWN KeyState: " << static_cast<int32_t>(state));
    KS_THROW(EC_KS_bad_argument, "KeyRecord_v1::setState");
  }
  m_state = state;
  testInvariant();
}

void KeyRecord_v1::setKpkType(ks_kpktype_t type) {
  if (!isKnownKpkType(type)) {
    KMS_DEBUG("KeyRecord_v1::setKpkType", 1,
              "Encounted an UNKNOWN KpkType: " << static_cast<int32_t>(type));
    KS_THROW(EC_KS_bad_argument, "KeyRecord_v1::setKpkType");
  }
  m_kpktype = type;
  testInvariant();
}

void KeyRecord_v1::setKpkTag(std::string_view kpkTag) {
  assignBoundedField("KeyRecord_v1::setKpkTag", "Encountered KpkTag of size: ", m_kpktag, kpkTag);
  testInvariant();
}

void KeyRecord_v1::setKey(std::string_view key) {
  if (key.size() > kMaxRecordFieldLength) {
    KMS_DEBUG("KeyRecord_v1::setKey", 1, "Encountered Key of size: " << key.size());
    KS_THROW(EC_KS_bad_argument, "KeyRecord_v1::setKey");
  }
  m_key.assign(key);
  testInvariant();
}

void KeyRecord_v1::setFields(std::string_view tag, std::string_view name, std::string_view keyGroup,
                             ks_keystate_t state, uint64_t updateTime, uint64_t createTime,
                             std::string_view description, uint32_t rev, ks_kpktype_t kpkType,
                             std::string_view kpkTag, std::string_view key) {
  KMS_TRACE_THIS("KeyRecord_v1::setFields");
  setTag(tag);
  setName(name);
  setUpdateTime(updateTime);
  setCreateTime(createTime);
  setDescription(description);
  setRev(rev);
  setKeyGroup(keyGroup);
  setState(state);
  setKpkType(kpkType);
  setKpkTag(kpkTag);
  setKey(key);
}

void KeyRecord_v1::addOrUpdateKRAttribute(std::string name, std::string value) {
  KMS_TRACE_THIS("KeyRecord_v1::addOrUpdateKRAttribute");
  if (!m_attrs.addAttribute(name, value)) {
    KMS_DEBUG("KeyRecord_v1::addOrUpdateKRAttribute", 1,
              "Attribute already exist: " << name << " = " << value);
    if (!m_attrs.updateAttribute(name, value)) {
      KMS_DEBUG("KeyRecord_v1::addOrUpdateKRAttribute", 1,
                "Unable to update attribute: " << name << " = " << value);
      KS_THROW(EC_KS_internal_error, "KeyRecord_v1::addOrUpdateKRAttribute");
    }
  }
  testInvariant();
}

bool KeyRecord_v1::operator==(const KeyRecord_v1& other) const {
  return sharedFieldsEqual(other) && m_kgroup == other.m_kgroup && m_state == other.m_state &&
         m_kpktype == other.m_kpktype && m_kpktag == other.m_kpktag && m_key == other.m_key;
}

void KeyRecord_v1::testInvariant() const {
  KS_ASSERT("KeyRecord_v1::testInvariant", m_tag.size() <= 4096);
  KS_ASSERT("KeyRecord_v1::testInvariant", m_name.size() <= 4096);
  KS_ASSERT("KeyRecord_v1::testInvariant", m_kgroup.size() <= 4096);
  KS_ASSERT("KeyRecord_v1::testInvariant", m_description.size() <= 4096);
  KS_ASSERT("KeyRecord_v1::testInvariant", m_kpktag.size() <= 4096);
  KS_ASSERT("KeyRecord_v1::testInvariant", m_key.size() <= 4096);
  // The spacing inside the calls is part of the logged assertion text.
  // clang-format off
  KS_ASSERT("KeyRecord_v1::testInvariant", isKnownKeyState( m_state ));
  KS_ASSERT("KeyRecord_v1::testInvariant", isKnownKpkType( m_kpktype ));
  // clang-format on
}

void KeyRecord_v1::display(int number) const {
  KMS_TRACE_THIS("KeyRecord_v1::display");
  std::printf("\n>>>>>>>>>>>>>>>>>>> RECORD %d <<<<<<<<<<<<<<<<<<<<<<<<<\n\n", number);
  std::printf("Name : ");
  Utils::displayBuffer(m_name, true, "", false);
  std::printf("Tag : ");
  Utils::displayBuffer(m_tag, true, "", true);
  std::printf("Key Group : ");
  Utils::displayBuffer(m_kgroup, true, "", true);
  std::printf("Status : %s\n\n", Utils::keystateToString(m_state).c_str());
  displaySharedFields();
  std::printf("KPK Type : %s\n", Utils::kpkTypeToString(m_kpktype).c_str());
  std::printf("KPK Tag : ");
  Utils::displayBuffer(m_kpktag, true, "", true);
  std::printf("Key : ");
  Utils::displayBuffer(m_key.bytes(), false, "", true);
  std::printf("Extended Attributes : ");
  m_attrs.display();
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
