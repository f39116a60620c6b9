#include "kms/server/keystore/format/KeyFile.h"

#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/Raise.h"
#include "kms/server/diagnostics/StatusCodes.h"
#include "kms/server/keystore/crypto/SecureBytes.h"
#include "kms/server/keystore/format/BlockAttributes.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

namespace {

const char* const kCtorLabel = "KeyFile::KeyFile";
const size_t kMaxKeyLength = 4096;

}  // namespace

KeyFile::KeyFile(ks_version_t version) : m_version(version), m_outOfDate(true) {
  KMS_TRACE_THIS(kCtorLabel);
  if (!Utils::isStoreVersion(version)) {
    KMS_DEBUG(kCtorLabel, 1, "Unknown version 0x" << std::hex << version);
    KS_THROW(EC_KS_invalid_metadata, kCtorLabel);
  }
  bool added = m_attrs.addAttribute("VERSION", std::string());
  KS_ASSERT(kCtorLabel, added == true);
  added = m_attrs.addAttribute("THEKEY", std::string());
  KS_ASSERT(kCtorLabel, added == true);
}

KeyFile::KeyFile(const AttributeList& list) : m_version(0), m_attrs(list), m_outOfDate(false) {
  KMS_TRACE_THIS(kCtorLabel);
  m_version = Utils::bytesToVersion(Utils::requiredAttribute(m_attrs, "VERSION", kCtorLabel));
  if (!Utils::isStoreVersion(m_version)) {
    KMS_DEBUG(kCtorLabel, 1, "Unknown version 0x" << std::hex << m_version);
    KS_THROW(EC_KS_invalid_metadata, kCtorLabel);
  }
  m_key = Utils::requiredAttribute(m_attrs, "THEKEY", kCtorLabel);
  if (m_attrs.size() != 2) {
    KMS_DEBUG(kCtorLabel, 1, "Attribute count " << m_attrs.size() << " is not 2");
    KS_THROW(EC_KS_malformed, kCtorLabel);
  }
}

KeyFile& KeyFile::operator=(const KeyFile& other) {
  if (this != &other) {
    wipeString(m_key);
    wipeKey(m_attrs);
    m_version = other.m_version;
    m_key = other.m_key;
    m_attrs = other.m_attrs;
    m_outOfDate = other.m_outOfDate;
  }
  return *this;
}

KeyFile::~KeyFile() {
  wipeString(m_key);
  wipeKey(m_attrs);
}

void KeyFile::wipeKey(AttributeList& list) {
  list = AttributeList();
}

void KeyFile::setKey(const std::string& key) {
  KMS_TRACE_THIS("KeyFile::setKey");
  if (key.size() > kMaxKeyLength) {
    KMS_DEBUG("KeyFile::setKey", 1, "Encountered a Key of size: " << key.size());
    KS_THROW(EC_KS_bad_argument, "KeyFile::setKey");
  }
  wipeString(m_key);
  m_key = key;
  m_outOfDate = true;
}

void KeyFile::clear() {
  wipeString(m_key);
  m_outOfDate = true;
}

const AttributeList& KeyFile::attributes() const {
  KMS_TRACE_THIS("KeyFile::attributes");
  if (m_outOfDate && Utils::isStoreVersion(m_version)) {
    static const char* const kLabel = "KeyFile::attributes";
    bool updated = m_attrs.updateAttribute("VERSION", Utils::versionToBytes(m_version));
    KS_ASSERT(kLabel, updated == true);
    // The list's old body, the old key in it, is wiped when let go of.
    updated = m_attrs.updateAttribute("THEKEY", m_key);
    KS_ASSERT(kLabel, updated == true);
    m_outOfDate = false;
  }
  return m_attrs;
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
