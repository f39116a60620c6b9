// Holds the plain KPK, the crypt type and the file version to wrap for, and
// wraps and unwraps the keys of key records under it. Read-only once filled:
// any number of threads may wrap and unwrap at once (under whatever lock the
// store holds), but set and assignment need the manager to themselves. The
// plain KPK is wiped when the manager is destroyed or refilled.
//
// Under the forms whose crypter takes the KPK alone (every version but
// 0x200) the manager keeps the crypters it has used in a CrypterPool and
// reuses them, so that an unwrap costs one decryption and not the building
// of a crypter. A copy starts with an empty pool of its own.
#pragma once

#include <string>
#include <string_view>

#include "kms/server/keystore/crypto/CrypterPool.h"
#include "kms/server/keystore/crypto/KSCrypt.h"
#include "kms/server/keystore/store/KeyStoreTypes.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

class KPKMgr {
 public:
  // Empty: no key, type and version 0, not set up.
  KPKMgr();
  KPKMgr(const std::string& kpk, KSCrypt::CryptType type, ks_version_t version, bool setUp);
  KPKMgr(const KPKMgr& other);
  KPKMgr& operator=(const KPKMgr& other);
  ~KPKMgr();

  void set(const std::string& kpk, KSCrypt::CryptType type, ks_version_t version, bool setUp);

  const std::string& kpk() const { return m_kpk; }
  KSCrypt::CryptType cryptType() const { return m_type; }
  ks_version_t version() const { return m_version; }
  bool isSetUp() const { return m_setUp; }

  // Wrap and unwrap `key` under the KPK (Utils::encryptKeyWithKey with the
  // held type and version). `kpktag` is accepted and not used: there is one
  // local KPK. Throw KeyStoreError 1254 if not set up, 1255 if `kpktype` is
  // not KPK_LOCAL, and 1200 for every failure of the wrapping itself (a wrong
  // KPK or a damaged wrapped key included). An empty result aborts the
  // process.
  std::string encryptKey(std::string_view key, ks_kpktype_t kpktype, std::string_view kpktag) const;
  std::string decryptKey(std::string_view enckey, ks_kpktype_t kpktype,
                         std::string_view kpktag) const;

 private:
  void checkUsable(ks_kpktype_t kpktype, const char* function) const;
  // Points the pool at the held KPK and version, or empties it.
  void fillPool();

  std::string m_kpk;
  KSCrypt::CryptType m_type;
  ks_version_t m_version;
  bool m_setUp;
  // Leasing changes only the pool, which locks for itself.
  mutable CrypterPool m_crypters;
  bool m_pooled = false;
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
