#include "kms/server/keystore/format/SecuredDataHeader.h"

#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/Raise.h"
#include "kms/server/diagnostics/StatusCodes.h"
#include "kms/server/keystore/format/BlockAttributes.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

namespace {

const char* const kCtorLabel = "SecuredDataHeader::SecuredDataHeader";

}  // namespace

SecuredDataHeader::SecuredDataHeader(ks_version_t version) : m_version(version), m_outOfDate(true) {
  KMS_TRACE_THIS(kCtorLabel);
  if (version != KS_VERSION_200) {
    KMS_DEBUG(kCtorLabel, 1, "Unknown version 0x" << std::hex << version);
    KS_THROW(EC_KS_invalid_metadata, kCtorLabel);
  }
  for (const char* name : {"VERSION", "SALT", "IV"}) {
    const bool added = m_attrs.addAttribute(name, std::string());
    KS_ASSERT(kCtorLabel, added == true);
  }
}

SecuredDataHeader::SecuredDataHeader(const AttributeList& list)
    : m_version(0), m_attrs(list), m_outOfDate(false) {
  KMS_TRACE_THIS(kCtorLabel);
  m_version = Utils::bytesToVersion(Utils::requiredAttribute(m_attrs, "VERSION", kCtorLabel));
  if (m_version != KS_VERSION_200) {
    KMS_DEBUG(kCtorLabel, 1, "Unknown version 0x" << std::hex << m_version);
    KS_THROW(EC_KS_invalid_metadata, kCtorLabel);
  }
  m_salt = Utils::requiredAttribute(m_attrs, "SALT", kCtorLabel);
  m_iv = Utils::requiredAttribute(m_attrs, "IV", kCtorLabel);
  if (m_attrs.size() != 3) {
    KMS_DEBUG(kCtorLabel, 1, "Attribute count " << m_attrs.size() << " is not 3");
    KS_THROW(EC_KS_malformed, kCtorLabel);
  }
}

void SecuredDataHeader::setSalt(const std::string& salt) {
  m_salt = salt;
  m_outOfDate = true;
}

void SecuredDataHeader::setIV(const std::string& iv) {
  m_iv = iv;
  m_outOfDate = true;
}

void SecuredDataHeader::clear() {
  m_salt.clear();
  m_iv.clear();
  m_outOfDate = true;
}

const AttributeList& SecuredDataHeader::attributes() const {
  if (m_outOfDate) {
    static const char* const kLabel = "SecuredDataHeader::attributes";
    bool updated = m_attrs.updateAttribute("VERSION", Utils::versionToBytes(m_version));
    KS_ASSERT(kLabel, updated == true);
    updated = m_attrs.updateAttribute("SALT", m_salt);
    KS_ASSERT(kLabel, updated == true);
    updated = m_attrs.updateAttribute("IV", m_iv);
    KS_ASSERT(kLabel, updated == true);
    m_outOfDate = false;
  }
  return m_attrs;
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
