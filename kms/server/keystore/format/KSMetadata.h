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
// outside them. A plain value with no lock.
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

  // What the block holds for each master key: the HMK's fields are the
  // "HMK..." attributes and "MENCALG", the KPK's the "KPK..." ones and
  // "KENCALG". The named accessors below read and write these.
  enum Master { HMK, KPK };
  struct MasterFields {
    std::string id;
    std::string hash;      // up to 0x200
    std::string verifier;  // from 0x300
    std::string salt;      // from 0x200
    KSCrypt::CryptType algorithm = KSCrypt::CRYPT_INVALID;
    bool random = false;
    bool fips = false;
  };
  const MasterFields& master(Master which) const { return m_master[which]; }
  // Replaces all of one key's fields; throws 1219 for a hash, verifier or
  // salt that the version does not hold.
  void setMaster(Master which, const MasterFields& fields);

  ks_version_t version() const { return m_version; }
  const std::string& hmkID() const { return m_master[HMK].id; }
  const std::string& kpkID() const { return m_master[KPK].id; }
  // The hashes throw 1219 above 0x200, the verifiers below 0x300.
  const std::string& hmkHash() const { return checked(m_master[HMK].hash, hashed()); }
  const std::string& kpkHash() const { return checked(m_master[KPK].hash, hashed()); }
  const std::string& hmkVerifier() const { return checked(m_master[HMK].verifier, verified()); }
  const std::string& kpkVerifier() const { return checked(m_master[KPK].verifier, verified()); }
  KSCrypt::CryptType masterEncAlgo() const { return m_master[HMK].algorithm; }
  KSCrypt::CryptType keyEncAlgo() const { return m_master[KPK].algorithm; }
  bool hmkRandom() const { return m_master[HMK].random; }
  bool kpkRandom() const { return m_master[KPK].random; }
  bool hmkFips() const { return m_master[HMK].fips; }
  bool kpkFips() const { return m_master[KPK].fips; }
  const std::string& hmkSalt() const { return m_master[HMK].salt; }
  const std::string& kpkSalt() const { return m_master[KPK].salt; }
  // Empty except in 0x200, where it is the IV of the data file's body.
  const std::string& masterIV() const { return m_masterIV; }

  // The hash setters throw 1219 above 0x200, the verifier setters below
  // 0x300, the salt setters below 0x200.
  void setHmkID(const std::string& id) { set(HMK, &MasterFields::id, id); }
  void setKpkID(const std::string& id) { set(KPK, &MasterFields::id, id); }
  void setHmkHash(const std::string& hash) { set(HMK, &MasterFields::hash, hash, hashed()); }
  void setKpkHash(const std::string& hash) { set(KPK, &MasterFields::hash, hash, hashed()); }
  void setHmkVerifier(const std::string& v) { set(HMK, &MasterFields::verifier, v, verified()); }
  void setKpkVerifier(const std::string& v) { set(KPK, &MasterFields::verifier, v, verified()); }
  void setMasterEncAlgo(KSCrypt::CryptType type) { set(HMK, &MasterFields::algorithm, type); }
  void setKeyEncAlgo(KSCrypt::CryptType type) { set(KPK, &MasterFields::algorithm, type); }
  void setHmkRandom(bool random) { set(HMK, &MasterFields::random, random); }
  void setKpkRandom(bool random) { set(KPK, &MasterFields::random, random); }
  void setHmkFips(bool fips) { set(HMK, &MasterFields::fips, fips); }
  void setKpkFips(bool fips) { set(KPK, &MasterFields::fips, fips); }
  void setHmkSalt(const std::string& salt) { set(HMK, &MasterFields::salt, salt, salted()); }
  void setKpkSalt(const std::string& salt) { set(KPK, &MasterFields::salt, salt, salted()); }
  void setMasterIV(const std::string& iv);  // throws 1219 unless 0x200

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
  bool hashed() const { return m_version <= KS_VERSION_200; }
  bool verified() const { return m_version >= KS_VERSION_300; }
  bool salted() const { return m_version >= KS_VERSION_200; }
  // Throws KeyStoreError 1219 unless `available`: the version has no such field.
  void requireField(bool available) const;
  const std::string& checked(const std::string& value, bool available) const {
    requireField(available);
    return value;
  }
  template <typename T>
  void set(Master which, T MasterFields::*field, const T& value, bool available = true) {
    requireField(available);
    m_master[which].*field = value;
    m_outOfDate = true;
  }

  ks_version_t m_version;
  MasterFields m_master[2];
  std::string m_masterIV;
  mutable AttributeList m_attrs;
  mutable bool m_outOfDate;
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
