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

const std::string& required(const AttributeList& list, const char* name) {
  return Utils::requiredAttribute(list, name, kCtorLabel);
}

void requireVersion(bool allowed, ks_version_t version, const char* function) {
  if (!allowed) {
    KMS_DEBUG(function, 1, "Not available in version 0x" << std::hex << version);
    KS_THROW(EC_KS_metadata_field_unavailable, function);
  }
}

}  // namespace

KSMetadata::KSMetadata(ks_version_t version)
    : m_version(version),
      m_masterEncAlgo(KSCrypt::CRYPT_INVALID),
      m_keyEncAlgo(KSCrypt::CRYPT_INVALID),
      m_hmkRandom(false),
      m_kpkRandom(false),
      m_hmkFips(false),
      m_kpkFips(false),
      m_outOfDate(true) {
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
    : m_version(0),
      m_masterEncAlgo(KSCrypt::CRYPT_INVALID),
      m_keyEncAlgo(KSCrypt::CRYPT_INVALID),
      m_hmkRandom(false),
      m_kpkRandom(false),
      m_hmkFips(false),
      m_kpkFips(false),
      m_attrs(list),
      m_outOfDate(false) {
  KMS_TRACE_THIS(kCtorLabel);
  m_version = Utils::bytesToVersion(required(m_attrs, "VERSION"));
  if (!Utils::isStoreVersion(m_version)) {
    KMS_DEBUG(kCtorLabel, 1, "Unknown version 0x" << std::hex << m_version);
    KS_THROW(EC_KS_invalid_metadata, kCtorLabel);
  }
  const bool hashed = m_version != KS_VERSION_300;
  m_hmkID = required(m_attrs, "HMKID");
  if (hashed) {
    m_hmkHash = required(m_attrs, "HMKHASH");
  } else {
    m_hmkVerifier = required(m_attrs, "HMKVERIF");
  }
  m_kpkID = required(m_attrs, "KPKID");
  if (hashed) {
    m_kpkHash = required(m_attrs, "KPKHASH");
  } else {
    m_kpkVerifier = required(m_attrs, "KPKVERIF");
  }
  m_masterEncAlgo = KSCrypt::stringToCryptType(required(m_attrs, "MENCALG"));
  m_keyEncAlgo = KSCrypt::stringToCryptType(required(m_attrs, "KENCALG"));
  m_hmkRandom = stringToBool(required(m_attrs, "HMKRAND"));
  m_kpkRandom = stringToBool(required(m_attrs, "KPKRAND"));
  for (const char* name : {"HMKFIPS", "KPKFIPS"}) {
    bool& flag = name[0] == 'H' ? m_hmkFips : m_kpkFips;
    if (m_attrs.find(name) == m_attrs.end() && m_version == KS_VERSION_100) {
      KMS_DEBUG(kCtorLabel, 1, "Adding " << name << " = false to a version 1.0 block");
      const bool added = m_attrs.addAttribute(name, boolToString(false));
      KS_ASSERT(kCtorLabel, added == true);
    }
    flag = stringToBool(required(m_attrs, name));
  }
  if (m_version > KS_VERSION_100) {
    m_hmkSalt = required(m_attrs, "HMKSALT");
    m_kpkSalt = required(m_attrs, "KPKSALT");
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

const std::string& KSMetadata::hmkHash() const {
  requireVersion(m_version <= KS_VERSION_200, m_version, "KSMetadata::hmkHash");
  return m_hmkHash;
}

const std::string& KSMetadata::kpkHash() const {
  requireVersion(m_version <= KS_VERSION_200, m_version, "KSMetadata::kpkHash");
  return m_kpkHash;
}

const std::string& KSMetadata::hmkVerifier() const {
  requireVersion(m_version >= KS_VERSION_300, m_version, "KSMetadata::hmkVerifier");
  return m_hmkVerifier;
}

const std::string& KSMetadata::kpkVerifier() const {
  requireVersion(m_version >= KS_VERSION_300, m_version, "KSMetadata::kpkVerifier");
  return m_kpkVerifier;
}

void KSMetadata::setHmkID(const std::string& id) {
  m_hmkID = id;
  m_outOfDate = true;
}

void KSMetadata::setKpkID(const std::string& id) {
  m_kpkID = id;
  m_outOfDate = true;
}

void KSMetadata::setHmkHash(const std::string& hash) {
  requireVersion(m_version <= KS_VERSION_200, m_version, "KSMetadata::setHmkHash");
  m_hmkHash = hash;
  m_outOfDate = true;
}

void KSMetadata::setKpkHash(const std::string& hash) {
  requireVersion(m_version <= KS_VERSION_200, m_version, "KSMetadata::setKpkHash");
  m_kpkHash = hash;
  m_outOfDate = true;
}

void KSMetadata::setHmkVerifier(const std::string& verifier) {
  requireVersion(m_version >= KS_VERSION_300, m_version, "KSMetadata::setHmkVerifier");
  m_hmkVerifier = verifier;
  m_outOfDate = true;
}

void KSMetadata::setKpkVerifier(const std::string& verifier) {
  requireVersion(m_version >= KS_VERSION_300, m_version, "KSMetadata::setKpkVerifier");
  m_kpkVerifier = verifier;
  m_outOfDate = true;
}

void KSMetadata::setMasterEncAlgo(KSCrypt::CryptType type) {
  m_masterEncAlgo = type;
  m_outOfDate = true;
}

void KSMetadata::setKeyEncAlgo(KSCrypt::CryptType type) {
  m_keyEncAlgo = type;
  m_outOfDate = true;
}

void KSMetadata::setHmkRandom(bool random) {
  m_hmkRandom = random;
  m_outOfDate = true;
}

void KSMetadata::setKpkRandom(bool random) {
  m_kpkRandom = random;
  m_outOfDate = true;
}

void KSMetadata::setHmkFips(bool fips) {
  m_hmkFips = fips;
  m_outOfDate = true;
}

void KSMetadata::setKpkFips(bool fips) {
  m_kpkFips = fips;
  m_outOfDate = true;
}

void KSMetadata::setHmkSalt(const std::string& salt) {
  requireVersion(m_version >= KS_VERSION_200, m_version, "KSMetadata::setHmkSalt");
  m_hmkSalt = salt;
  m_outOfDate = true;
}

void KSMetadata::setKpkSalt(const std::string& salt) {
  requireVersion(m_version >= KS_VERSION_200, m_version, "KSMetadata::setKpkSalt");
  m_kpkSalt = salt;
  m_outOfDate = true;
}

void KSMetadata::setMasterIV(const std::string& iv) {
  requireVersion(m_version == KS_VERSION_200, m_version, "KSMetadata::setMasterIV");
  m_masterIV = iv;
  m_outOfDate = true;
}

void KSMetadata::clear() {
  KMS_TRACE_THIS("KSMetadata::clear");
  m_hmkID.clear();
  m_hmkHash.clear();
  m_kpkID.clear();
  m_kpkHash.clear();
  m_masterEncAlgo = KSCrypt::CRYPT_INVALID;
  m_keyEncAlgo = KSCrypt::CRYPT_INVALID;
  m_hmkRandom = false;
  m_kpkRandom = false;
  m_hmkFips = false;
  m_kpkFips = false;
  m_hmkSalt.clear();
  m_kpkSalt.clear();
  m_masterIV.clear();
  m_hmkVerifier.clear();
  m_kpkVerifier.clear();
  m_outOfDate = true;
}

const AttributeList& KSMetadata::attributes() const {
  KMS_TRACE_THIS("KSMetadata::attributes");
  if (!m_outOfDate || !Utils::isStoreVersion(m_version)) {
    return m_attrs;
  }
  static const char* const kLabel = "KSMetadata::attributes";
  const auto update = [this](const char* name, const std::string& value) {
    const bool updated = m_attrs.updateAttribute(name, value);
    KS_ASSERT(kLabel, updated == true);
  };
  const bool hashed = m_version != KS_VERSION_300;
  update("VERSION", Utils::versionToBytes(m_version));
  update("HMKID", m_hmkID);
  update(hashed ? "HMKHASH" : "HMKVERIF", hashed ? m_hmkHash : m_hmkVerifier);
  update("KPKID", m_kpkID);
  update(hashed ? "KPKHASH" : "KPKVERIF", hashed ? m_kpkHash : m_kpkVerifier);
  update("MENCALG", KSCrypt::cryptTypeToString(m_masterEncAlgo));
  update("KENCALG", KSCrypt::cryptTypeToString(m_keyEncAlgo));
  update("HMKRAND", boolToString(m_hmkRandom));
  update("KPKRAND", boolToString(m_kpkRandom));
  update("HMKFIPS", boolToString(m_hmkFips));
  update("KPKFIPS", boolToString(m_kpkFips));
  if (m_version > KS_VERSION_100) {
    update("HMKSALT", m_hmkSalt);
    update("KPKSALT", m_kpkSalt);
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
