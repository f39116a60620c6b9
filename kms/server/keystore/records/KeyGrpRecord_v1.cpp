#include "kms/server/keystore/records/KeyGrpRecord_v1.h"

#include <cstdio>

#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/Raise.h"
#include "kms/server/diagnostics/StatusCodes.h"
#include "kms/server/keystore/records/RecordFields.h"
#include "kms/server/keystore/records/RecordUtils.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

KeyGrpRecord_v1::KeyGrpRecord_v1()
    : m_ciphertype(CT_INVALID_CBC), m_hasactivekey(false), m_numkeys(0) {
  m_attrs.testInvariant();
  testInvariant();
}

void KeyGrpRecord_v1::setCipherType(ks_ciphertype_t type) {
  if (!isKnownCipherType(type)) {
    KMS_DEBUG("KeyGrpRecord_v1::setCipherType", 1,
              "Encounted an UNKNOWN CipherType: " << static_cast<int32_t>(type));
    KS_THROW(EC_KS_bad_argument, "KeyGrpRecord_v1::setCipherType");
  }
  m_ciphertype = type;
  testInvariant();
}

void KeyGrpRecord_v1::setHasActiveKey(bool hasActiveKey) {
  m_hasactivekey = hasActiveKey;
  testInvariant();
}

void KeyGrpRecord_v1::setNumKeys(uint64_t numKeys) {
  m_numkeys = numKeys;
  testInvariant();
}

void KeyGrpRecord_v1::setFields(std::string_view tag, std::string_view name,
                                ks_ciphertype_t cipherType, uint64_t updateTime,
                                uint64_t createTime, std::string_view description, uint32_t rev) {
  KMS_TRACE_THIS("KeyGrpRecord_v1::setFields");
  setTag(tag);
  setName(name);
  setCipherType(cipherType);
  setUpdateTime(updateTime);
  setCreateTime(createTime);
  setDescription(description);
  setRev(rev);
}

bool KeyGrpRecord_v1::operator==(const KeyGrpRecord_v1& other) const {
  // m_hasactivekey and m_numkeys are derived and left out.
  return sharedFieldsEqual(other) && m_ciphertype == other.m_ciphertype;
}

void KeyGrpRecord_v1::testInvariant() const {
  KS_ASSERT("KeyGrpRecord_v1::testInvariant", m_tag.size() <= 4096);
  KS_ASSERT("KeyGrpRecord_v1::testInvariant", m_name.size() <= 4096);
  KS_ASSERT("KeyGrpRecord_v1::testInvariant", m_description.size() <= 4096);
  // The spacing inside the call is part of the logged assertion text.
  // clang-format off
  KS_ASSERT("KeyGrpRecord_v1::testInvariant", isKnownCipherType( m_ciphertype ));
  // clang-format on
}

void KeyGrpRecord_v1::display(int number) const {
  KMS_TRACE_THIS("KeyGrpRecord_v1::display");
  std::printf("\n>>>>>>>>>>>>>>>>>>> RECORD %d <<<<<<<<<<<<<<<<<<<<<<<<<\n\n", number);
  std::printf("Name : ");
  Utils::displayBuffer(m_name, true, "", false);
  std::printf("Tag : ");
  Utils::displayBuffer(m_tag, true, "", true);
  std::printf("CipherType : %s\n", Utils::cipherTypeToString(m_ciphertype).c_str());
  displaySharedFields(*this);
  std::printf("HasActiveKey : %s\n", m_hasactivekey ? "true" : "false");
  std::printf("NumKeys : %lu\n", static_cast<unsigned long>(m_numkeys));
  std::printf("Extended Attributes : ");
  m_attrs.display();
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
