// The metadata block at the start of the data file: a typed view of one
// AttributeList. Made from a version and filled by setters when a store is
// written, or made from a list that was read, which it validates.
//
// Attributes by version (count: 11 for 0x100, 14 for 0x200, 13 for 0x300):
//   all        "VERSION" "HMKID" "KPKID" "MENCALG" "KENCALG" "HMKRAND" "KPKRAND"
//              "HMKFIPS" "KPKFIPS" (both may be absent in 0x100: read as false)
//   0x100-200  "HMKHASH" "KPKHASH"
//   0x200-300  "HMKSALT" "KPKSALT"
//   0x200      "MASTERIV"
//   0x300      "HMKVERIF" "KPKVERIF"
// Crypt types are stored by name (KSCrypt::cryptTypeToString), booleans as
// "true"/"false", the version as 4 bytes big-endian.
//
// Some accessors belong to some versions only and throw KeyStoreError 1219
// outside them: the hashes up to 0x200, the verifiers from 0x300, the salt
// setters from 0x200, setMasterIV in 0x200 alone. A plain value with no lock.
#pragma once

#include <string>

#include "kms/server/keystore/crypto/KSCrypt.h"
#include "kms/server/keystore/records/AttributeList.h"
#include "kms/server/keystore/store/KeyStoreTypes.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

class KSMetadata {
 public:
  // Every attribute of `version` with an empty value, types 0, flags false.
  // Throws 1218 for a version other than 0x100, 0x200 and 0x300.
  explicit KSMetadata(ks_version_t version);
  // Validates and copies `list`. Throws 1218 for an illegal version and 1208
  // for a missing attribute, a boolean other than "true"/"false" or a count
  // that is not the version's (so an unknown extra attribute is refused). An
  // unknown crypt type name is kept as CRYPT_INVALID without an error. A
  // 0x100 list without "HMKFIPS"/"KPKFIPS" gets them, set to "false".
  explicit KSMetadata(const AttributeList& list);

  ks_version_t version() const { return m_version; }
  const std::string& hmkID() const { return m_hmkID; }
  const std::string& kpkID() const { return m_kpkID; }
  const std::string& hmkHash() const;      // throws 1219 above 0x200
  const std::string& kpkHash() const;      // throws 1219 above 0x200
  const std::string& hmkVerifier() const;  // throws 1219 below 0x300
  const std::string& kpkVerifier() const;  // throws 1219 below 0x300
  KSCrypt::CryptType masterEncAlgo() const { return m_masterEncAlgo; }
  KSCrypt::CryptType keyEncAlgo() const { return m_keyEncAlgo; }
  bool hmkRandom() const { return m_hmkRandom; }
  bool kpkRandom() const { return m_kpkRandom; }
  bool hmkFips() const { return m_hmkFips; }
  bool kpkFips() const { return m_kpkFips; }
  const std::string& hmkSalt() const { return m_hmkSalt; }
  const std::string& kpkSalt() const { return m_kpkSalt; }
  // Empty except in 0x200, where it is the IV of the data file's body.
  const std::string& masterIV() const { return m_masterIV; }

  void setHmkID(const std::string& id);
  void setKpkID(const std::string& id);
  void setHmkHash(const std::string& hash);          // throws 1219 above 0x200
  void setKpkHash(const std::string& hash);          // throws 1219 above 0x200
  void setHmkVerifier(const std::string& verifier);  // throws 1219 below 0x300
  void setKpkVerifier(const std::string& verifier);  // throws 1219 below 0x300
  void setMasterEncAlgo(KSCrypt::CryptType type);
  void setKeyEncAlgo(KSCrypt::CryptType type);
  void setHmkRandom(bool random);
  void setKpkRandom(bool random);
  void setHmkFips(bool fips);
  void setKpkFips(bool fips);
  void setHmkSalt(const std::string& salt);  // throws 1219 below 0x200
  void setKpkSalt(const std::string& salt);  // throws 1219 below 0x200
  void setMasterIV(const std::string& iv);   // throws 1219 unless 0x200

  // Empties every field but the version; types 0, flags false.
  void clear();

  // The list to write: brought up to date with the fields first if a setter
  // or clear ran since it was last made. A list that was read and not changed
  // comes back as it was read. Valid until the next change of this object.
  const AttributeList& attributes() const;

  // "true" or "false"; stringToBool accepts exactly those two and throws
  // KeyStoreError 1208 for anything else.
  static std::string boolToString(bool value);
  static bool stringToBool(const std::string& text);

 private:
  ks_version_t m_version;
  std::string m_hmkID;
  std::string m_hmkHash;
  std::string m_kpkID;
  std::string m_kpkHash;
  KSCrypt::CryptType m_masterEncAlgo;
  KSCrypt::CryptType m_keyEncAlgo;
  bool m_hmkRandom;
  bool m_kpkRandom;
  bool m_hmkFips;
  bool m_kpkFips;
  std::string m_hmkSalt;
  std::string m_kpkSalt;
  std::string m_masterIV;
  std::string m_hmkVerifier;
  std::string m_kpkVerifier;
  mutable AttributeList m_attrs;
  mutable bool m_outOfDate;
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
