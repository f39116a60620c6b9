#include "kms/server/keystore/crypto/KPKMgr.h"

#include <utility>

#include "kms/server/diagnostics/ErrorMapping.h"
#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/Raise.h"
#include "kms/server/diagnostics/StatusCodes.h"
#include "kms/server/keystore/crypto/KeyWrap.h"
#include "kms/server/keystore/crypto/SecureBytes.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

namespace {

// Whatever goes wrong below the manager reaches its callers as an internal
// error; the crypto codes are the expected ones.
ErrorMap kpkErrorMap(std::vector<int> pass) {
  ErrorMap map{std::move(pass), {{{1223, 1224, 1270, 1214}, EC_KS_internal_error}}};
  map.caughtText = "Caught an exception with error code : ";
  map.mappedText = "Rethrowing as EC_KS_internal_error : ";
  map.otherwiseText = "Unhandled Exception! Throwing EC_KS_internal_error : ";
  return map;
}

const ErrorMap kEncryptMap = kpkErrorMap({EC_KS_internal_error});
const ErrorMap kDecryptMap = kpkErrorMap({});

}  // namespace

KPKMgr::KPKMgr() : m_type(KSCrypt::CRYPT_INVALID), m_version(0), m_setUp(false) {}

KPKMgr::KPKMgr(const std::string& kpk, KSCrypt::CryptType type, ks_version_t version, bool setUp)
    : m_kpk(kpk), m_type(type), m_version(version), m_setUp(setUp) {
  fillPool();
}

KPKMgr::KPKMgr(const KPKMgr& other)
    : m_kpk(other.m_kpk), m_type(other.m_type), m_version(other.m_version), m_setUp(other.m_setUp) {
  fillPool();
}

KPKMgr& KPKMgr::operator=(const KPKMgr& other) {
  if (this != &other) {
    set(other.m_kpk, other.m_type, other.m_version, other.m_setUp);
  }
  return *this;
}

KPKMgr::~KPKMgr() {
  wipeString(m_kpk);
}

void KPKMgr::set(const std::string& kpk, KSCrypt::CryptType type, ks_version_t version,
                 bool setUp) {
  wipeString(m_kpk);
  m_kpk = kpk;
  m_type = type;
  m_version = version;
  m_setUp = setUp;
  fillPool();
}

void KPKMgr::fillPool() {
  const KSCrypt::CryptType pooledType = Utils::keyOnlyCryptType(m_version);
  m_pooled = m_setUp && pooledType != KSCrypt::CRYPT_INVALID;
  if (m_pooled) {
    m_crypters.setKey(pooledType, m_kpk);
  } else {
    m_crypters.clear();
  }
}

void KPKMgr::checkUsable(ks_kpktype_t kpktype, const char* function) const {
  if (!m_setUp) {
    KS_THROW(EC_KS_kpk_not_loaded, function);
  }
  if (kpktype != KPK_LOCAL) {
    KMS_DEBUG(function, 1, "Unsupported KPK type " << static_cast<int>(kpktype));
    KS_THROW(EC_KS_unknown_kpk_type, function);
  }
}

std::string KPKMgr::encryptKey(std::string_view key, ks_kpktype_t kpktype,
                               std::string_view /*kpktag*/) const {
  static const char* const kLabel = "KPKMgr::encryptKey";
  KMS_TRACE_THIS(kLabel);
  checkUsable(kpktype, kLabel);
  std::string enckey = translateErrors(kLabel, kEncryptMap, [&] {
    if (!m_pooled) {
      return Utils::encryptKeyWithKey(key, m_kpk, m_type, m_version);
    }
    const CrypterPool::Lease crypter = m_crypters.lease(CrypterPool::ENCRYPT);
    return Utils::encryptKeyWithCrypter(key, *crypter);
  });
  KS_ASSERT(kLabel, !enckey.empty());
  return enckey;
}

std::string KPKMgr::decryptKey(std::string_view enckey, ks_kpktype_t kpktype,
                               std::string_view /*kpktag*/) const {
  static const char* const kLabel = "KPKMgr::decryptKey";
  KMS_TRACE_THIS(kLabel);
  checkUsable(kpktype, kLabel);
  std::string key = translateErrors(kLabel, kDecryptMap, [&] {
    if (!m_pooled) {
      return Utils::decryptKeyWithKey(enckey, m_kpk, m_type, m_version);
    }
    const CrypterPool::Lease crypter = m_crypters.lease(CrypterPool::DECRYPT);
    return Utils::decryptKeyWithCrypter(enckey, *crypter);
  });
  KS_ASSERT(kLabel, !key.empty());
  return key;
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
