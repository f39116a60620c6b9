// The store's default algorithms by version, and the wrapping and rewrapping
// of every record key of a table under a KPK manager (at load, at commit and
// when the KPK changes).
#include <string>

#include "kms/server/diagnostics/ErrorMapping.h"
#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/StatusCodes.h"
#include "kms/server/keystore/crypto/SecureBytes.h"
#include "kms/server/keystore/store/FileKeyStore.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

namespace {

// Every failure while rewrapping the keys of a table is an internal error.
const ErrorMap kRewrapMap{{},
                          {},
                          EC_KS_internal_error,
                          "Exception Caught: ",
                          "Mapping and Rethrowing Exception as: ",
                          "Mapping and Rethrowing Exception as: "};

}  // namespace

KSCrypt::CryptType FileKeyStore::getDefaultEncAlgos(ks_version_t version) {
  switch (version) {
    case KS_VERSION_100:
      return KSCrypt::AES_256_CBC;
    case KS_VERSION_200:
      return KSCrypt::AES_256_CBC_EVP;
    default:
      return KSCrypt::AES_256_GCM;
  }
}

void FileKeyStore::encryptKeyRecords(KeyTable& table, const KPKMgr& kpkMgr) {
  static const char* const kLabel = "FileKeyStore::encryptKeyRecords";
  KMS_TRACE(kLabel);
  translateErrors(kLabel, kRewrapMap, [&] {
    table.changeEach([&](KeyRecord_v1& rec) {
      KMS_DEBUG(kLabel, 5, "Encrypting key [" << rec.name() << "]");
      rec.setKey(kpkMgr.encryptKey(rec.key(), rec.kpkType(), rec.kpkTag()));
    });
  });
}

void FileKeyStore::decryptKeyRecords(KeyTable& table, const KPKMgr& kpkMgr) {
  static const char* const kLabel = "FileKeyStore::decryptKeyRecords";
  KMS_TRACE(kLabel);
  translateErrors(kLabel, kRewrapMap, [&] {
    table.changeEach([&](KeyRecord_v1& rec) {
      const Secret plain(kpkMgr.decryptKey(rec.key(), rec.kpkType(), rec.kpkTag()));
      rec.setKey(plain.str());
    });
  });
}

void FileKeyStore::reencryptKeyRecords(KeyTable& table, const KPKMgr& oldKpkMgr,
                                       const KPKMgr& newKpkMgr) {
  static const char* const kLabel = "FileKeyStore::reencryptKeyRecords";
  KMS_TRACE(kLabel);
  translateErrors(kLabel, kRewrapMap, [&] {
    table.changeEach([&](KeyRecord_v1& rec) {
      const Secret plain(oldKpkMgr.decryptKey(rec.key(), rec.kpkType(), rec.kpkTag()));
      rec.setKey(newKpkMgr.encryptKey(plain.str(), rec.kpkType(), rec.kpkTag()));
    });
  });
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
