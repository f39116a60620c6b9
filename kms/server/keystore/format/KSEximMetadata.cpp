#include "kms/server/keystore/format/KSEximMetadata.h"

#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/Raise.h"
#include "kms/server/diagnostics/StatusCodes.h"
#include "kms/server/keystore/format/BlockAttributes.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

namespace {

const char* const kCtorLabel = "KSEximMetadata::KSEximMetadata";

}  // namespace

KSEximMetadata::KSEximMetadata(ks_version_t version) : m_version(version), m_outOfDate(true) {
  KMS_TRACE_THIS(kCtorLabel);
  if (version != KS_VERSION_200) {
    KMS_DEBUG(kCtorLabel, 1, "Unknown version 0x" << std::hex << version);
    KS_THROW(EC_KS_invalid_metadata, kCtorLabel);
  }
  const bool added = m_attrs.addAttribute("VERSION", std::string());
  KS_ASSERT(kCtorLabel, added == true);
}

KSEximMetadata::KSEximMetadata(const AttributeList& list)
    : m_version(0), m_attrs(list), m_outOfDate(false) {
  KMS_TRACE_THIS(kCtorLabel);
  m_version = Utils::bytesToVersion(Utils::requiredAttribute(m_attrs, "VERSION", kCtorLabel));
  if (m_version != KS_VERSION_200) {
    KMS_DEBUG(kCtorLabel, 1, "Unknown version 0x" << std::hex << m_version);
    KS_THROW(EC_KS_invalid_metadata, kCtorLabel);
  }
  if (m_attrs.size() != 1) {
    KMS_DEBUG(kCtorLabel, 1, "Attribute count " << m_attrs.size() << " is not 1");
    KS_THROW(EC_KS_malformed, kCtorLabel);
  }
}

void KSEximMetadata::clear() {
  m_outOfDate = true;
}

const AttributeList& KSEximMetadata::attributes() const {
  if (m_outOfDate) {
    const bool updated = m_attrs.updateAttribute("VERSION", Utils::versionToBytes(m_version));
    KS_ASSERT("KSEximMetadata::attributes", updated == true);
    m_outOfDate = false;
  }
  return m_attrs;
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
