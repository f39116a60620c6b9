#include "kms/server/keystore/format/KSMetadata.h"

#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/Raise.h"
#include "kms/server/diagnostics/StatusCodes.h"
#include "kms/server/keystore/format/BlockAttributes.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

namespace {

const char* const kCtorLabel = "KSMetadata::KSMetadata";

// The versions an attribute is stored in.
enum : unsigned { V1 = 1, V2 = 2, V3 = 4, ALL = V1 | V2 | V3 };

struct StoredAttribute {
  const char* name;
  unsigned versions;
};

// In the order a new block adds them.
const StoredAttribute kAttributes[] = {
    {"VERSION", ALL}, {"HMKID", ALL},       {"HMKHASH", V1 | V2}, {"HMKVERIF", V3},
    {"KPKID", ALL},   {"KPKHASH", V1 | V2}, {"KPKVERIF", V3},     {"MENCALG", ALL},
    {"KENCALG", ALL}, {"HMKRAND", ALL},     {"KPKRAND", ALL},     {"HMKFIPS", ALL},
    {"KPKFIPS", ALL}, {"HMKSALT", V2 | V3}, {"KPKSALT", V2 | V3}, {"MASTERIV", V2},
};

unsigned versionBit(ks_version_t version) {
  switch (version) {
    case KS_VERSION_100:
      return V1;
    case KS_VERSION_200:
      return V2;
    case KS_VERSION_300:
      return V3;
    default:
      return 0;
  }
}

size_t attributeCount(ks_version_t version) {
  size_t count = 0;
  for (const StoredAttribute& attr : kAttributes) {
    if ((attr.versions & versionBit(version)) != 0) {
      ++count;
    }
  }
  return count;
}

// The attribute names of each master key's fields, by KSMetadata::Master.
const char* const kPrefix[] = {"HMK", "KPK"};
const char* const kAlgorithm[] = {"MENCALG", "KENCALG"};

std::string required(const AttributeList& list, const char* name) {
  return Utils::requiredAttribute(list, name, kCtorLabel);
}

void requireVersion(bool allowed, ks_version_t version, const char* function) {
  if (!allowed) {
    KMS_DEBUG(function, 1, "Not available in version 0x" << std::hex << version);
    KS_THROW(EC_KS_metadata_field_unavailable, function);
  }
}

}  // namespace

KSMetadata::KSMetadata(ks_version_t version) : m_version(version), m_outOfDate(true) {
  KMS_TRACE_THIS(kCtorLabel);
  if (!Utils::isStoreVersion(version)) {
    KMS_DEBUG(kCtorLabel, 1, "Unknown version 0x" << std::hex << version);
    KS_THROW(EC_KS_invalid_metadata, kCtorLabel);
  }
  for (const StoredAttribute& attr : kAttributes) {
    if ((attr.versions & versionBit(version)) != 0) {
      const bool added = m_attrs.addAttribute(attr.name, std::string());
      KS_ASSERT(kCtorLabel, added == true);
    }
  }
}

KSMetadata::KSMetadata(const AttributeList& list)
    : m_version(0), m_attrs(list), m_outOfDate(false) {
  KMS_TRACE_THIS(kCtorLabel);
  m_version = Utils::bytesToVersion(required(m_attrs, "VERSION"));
  if (!Utils::isStoreVersion(m_version)) {
    KMS_DEBUG(kCtorLabel, 1, "Unknown version 0x" << std::hex << m_version);
    KS_THROW(EC_KS_invalid_metadata, kCtorLabel);
  }
  for (const Master which : {HMK, KPK}) {
    MasterFields& key = m_master[which];
    const std::string prefix = kPrefix[which];
    key.id = required(m_attrs, (prefix + "ID").c_str());
    (hashed() ? key.hash : key.verifier) =
        required(m_attrs, (prefix + (hashed() ? "HASH" : "VERIF")).c_str());
    key.algorithm = KSCrypt::stringToCryptType(required(m_attrs, kAlgorithm[which]));
    key.random = stringToBool(required(m_attrs, (prefix + "RAND").c_str()));
    const std::string fips = prefix + "FIPS";
    if (m_attrs.find(fips) == m_attrs.end() && m_version == KS_VERSION_100) {
      KMS_DEBUG(kCtorLabel, 1, "Adding " << fips << " = false to a version 1.0 block");
      const bool added = m_attrs.addAttribute(fips, boolToString(false));
      KS_ASSERT(kCtorLabel, added == true);
    }
    key.fips = stringToBool(required(m_attrs, fips.c_str()));
    if (salted()) {
      key.salt = required(m_attrs, (prefix + "SALT").c_str());
    }
  }
  if (m_version == KS_VERSION_200) {
    m_masterIV = required(m_attrs, "MASTERIV");
  }
  if (m_attrs.size() != attributeCount(m_version)) {
    KMS_DEBUG(kCtorLabel, 1,
              "Attribute count " << m_attrs.size() << " is not " << attributeCount(m_version));
    KS_THROW(EC_KS_malformed, kCtorLabel);
  }
}

void KSMetadata::setMaster(Master which, const MasterFields& fields) {
  requireField((fields.hash.empty() || hashed()) && (fields.verifier.empty() || verified()) &&
               (fields.salt.empty() || salted()));
  m_master[which] = fields;
  m_outOfDate = true;
}

void KSMetadata::requireField(bool available) const {
  requireVersion(available, m_version, "KSMetadata::requireField");
}

void KSMetadata::setMasterIV(const std::string& iv) {
  requireVersion(m_version == KS_VERSION_200, m_version, "KSMetadata::setMasterIV");
  m_masterIV = iv;
  m_outOfDate = true;
}

void KSMetadata::clear() {
  KMS_TRACE_THIS("KSMetadata::clear");
  m_master[HMK] = m_master[KPK] = MasterFields();
  m_masterIV.clear();
  m_outOfDate = true;
}

const AttributeList& KSMetadata::attributes() const {
  KMS_TRACE_THIS("KSMetadata::attributes");
  if (!m_outOfDate || !Utils::isStoreVersion(m_version)) {
    return m_attrs;
  }
  static const char* const kLabel = "KSMetadata::attributes";
  const auto update = [this](const std::string& name, const std::string& value) {
    const bool updated = m_attrs.updateAttribute(name, value);
    KS_ASSERT(kLabel, updated == true);
  };
  update("VERSION", Utils::versionToBytes(m_version));
  for (const Master which : {HMK, KPK}) {
    const MasterFields& key = m_master[which];
    const std::string prefix = kPrefix[which];
    update(prefix + "ID", key.id);
    update(prefix + (hashed() ? "HASH" : "VERIF"), hashed() ? key.hash : key.verifier);
    update(kAlgorithm[which], KSCrypt::cryptTypeToString(key.algorithm));
    update(prefix + "RAND", boolToString(key.random));
    update(prefix + "FIPS", boolToString(key.fips));
    if (salted()) {
      update(prefix + "SALT", key.salt);
    }
  }
  if (m_version == KS_VERSION_200) {
    update("MASTERIV", m_masterIV);
  }
  m_outOfDate = false;
  return m_attrs;
}

std::string KSMetadata::boolToString(bool value) {
  return value ? "true" : "false";
}

bool KSMetadata::stringToBool(const std::string& text) {
  if (text == "true") {
    return true;
  }
  if (text == "false") {
    return false;
  }
  KMS_DEBUG("KSMetadata::stringToBool", 1, "Not a boolean: " << text);
  KS_THROW(EC_KS_malformed, "KSMetadata::stringToBool");
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
