// Proof of a master key without storing it. Stores of version 0x300 keep a
// verifier per master key: a known prefix and random bytes wrapped under
// that very key, which only the right key unwraps. Older stores keep a
// digest of "Z" and the key.
#include "kms/platform/Hash.h"
#include "kms/server/diagnostics/ErrorMapping.h"
#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/Raise.h"
#include "kms/server/diagnostics/StatusCodes.h"
#include "kms/server/keystore/crypto/KeyWrap.h"
#include "kms/server/keystore/crypto/RandData.h"
#include "kms/server/keystore/crypto/SecureBytes.h"
#include "kms/server/keystore/format/KSMetadata.h"
#include "kms/server/keystore/store/FileKeyStore.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

namespace {

constexpr unsigned long kVerifierRandomBytes = 0x1c;

// A failed unwrap (1270) is the answer "wrong key" and is handled before
// this map; everything else is unforeseen.
const ErrorMap kVerifierMap{{}, {}, EC_KS_internal_error};

// Versions that prove a key by its digest rather than by a verifier.
bool provedByHash(ks_version_t version) {
  return version == KS_VERSION_100 || version == KS_VERSION_200;
}

// The digest of the byte "Z" and `key`, as older stores keep it. Throws 1225
// when it cannot be made.
std::string keyDigest(const char* label, const std::string& key) {
  Hash hash(MANGLE_HASH_SHA1);
  std::string digest;
  if (hash.update("Z", 1) != 0 || hash.update(key.data(), key.size()) != 0 ||
      hash.getHash(&digest) != 0) {
    KS_THROW(EC_KS_integrity_failed, label);
  }
  return digest;
}

// How each master key is proved, by KSMetadata::Master.
struct MasterProof {
  const char* label;
  const char* prefix;
  int wrongKey;
};
const MasterProof kProofs[] = {{"FileKeyStore::verifyHmk", "HMKV", EC_KS_wrong_hmk},
                               {"FileKeyStore::verifyKpk", "KPKV", EC_KS_wrong_kpk}};

void verifyMaster(KSMetadata::Master which, const std::string& key, const KSMetadata& meta) {
  const MasterProof& proof = kProofs[which];
  KMS_TRACE(proof.label);
  const KSMetadata::MasterFields& fields = meta.master(which);
  const bool proved = provedByHash(meta.version())
                          ? keyDigest(proof.label, key) == fields.hash
                          : FileKeyStore::isVerifierValid(proof.prefix, key, fields.verifier,
                                                          fields.algorithm, meta.version());
  if (!proved) {
    KS_THROW(proof.wrongKey, proof.label);
  }
}

}  // namespace

std::string FileKeyStore::generateVerifier(const char* prefix, const std::string& key,
                                           KSCrypt::CryptType type, ks_version_t version) {
  static const char* const kLabel = "FileKeyStore::generateVerifier";
  KMS_TRACE(kLabel);
  const std::string random = Utils::getRandData(kVerifierRandomBytes);
  if (random.empty()) {
    KS_THROW(EC_KS_internal_error, kLabel);
  }
  return Utils::encryptKeyWithKey(std::string(prefix) + random, key, type, version);
}

bool FileKeyStore::isVerifierValid(const char* prefix, const std::string& key,
                                   const std::string& verifier, KSCrypt::CryptType type,
                                   ks_version_t version) {
  static const char* const kLabel = "FileKeyStore::isVerifierValid";
  KMS_TRACE(kLabel);
  Secret plain;
  try {
    plain = Secret(Utils::decryptKeyWithKey(verifier, key, type, version));
  } catch (const KeyStoreError& error) {
    if (error.status() == EC_KS_unwrap_failed) {
      KMS_DEBUG(kLabel, 4, "Verifier does not open under the given key");
      return false;
    }
    rethrowTranslated(kLabel, error, kVerifierMap);
  } catch (...) {
    rethrowUnexpected(kLabel, kVerifierMap);
  }
  return plain.str().rfind(prefix, 0) == 0;
}

void FileKeyStore::verifyHmk(const std::string& key, const KSMetadata& meta) {
  verifyMaster(KSMetadata::HMK, key, meta);
}

void FileKeyStore::verifyKpk(const std::string& key, const KSMetadata& meta) {
  verifyMaster(KSMetadata::KPK, key, meta);
}

KSMetadata::MasterFields FileKeyStore::currentMasterFields(
    KSMetadata::Master which, const std::string& key, const std::string& id,
    KSCrypt::CryptType algorithm, bool random, bool fips, const std::string& salt) {
  KSMetadata::MasterFields fields;
  fields.id = id;
  fields.verifier = generateVerifier(kProofs[which].prefix, key, algorithm, kCurrentVersion);
  fields.salt = salt;
  fields.algorithm = algorithm;
  fields.random = random;
  fields.fips = fips;
  return fields;
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
