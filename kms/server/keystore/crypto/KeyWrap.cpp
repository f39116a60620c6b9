#include "kms/server/keystore/crypto/KeyWrap.h"

#include <memory>

#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/Raise.h"
#include "kms/server/diagnostics/StatusCodes.h"
#include "kms/server/keystore/crypto/CryptFactory.h"
#include "kms/server/keystore/crypto/RandData.h"
#include "kms/server/keystore/crypto/SecureBytes.h"

namespace Vaultrest {
namespace DL {
namespace KMS {
namespace Utils {

namespace {

const unsigned char* bytes(std::string_view s) {
  return reinterpret_cast<const unsigned char*>(s.data());
}

// R || K, wiped by the caller.
std::string randomHalfAndKey(std::string_view keytoenc, const char* function) {
  std::string datatoenc = getRandData(keytoenc.size());
  if (datatoenc.empty()) {
    KS_THROW(EC_KS_internal_error, function);
  }
  datatoenc.append(keytoenc);
  KS_ASSERT(function, datatoenc.size() == 2 * keytoenc.size());
  return datatoenc;
}

std::string encryptWith(const std::string& datatoenc, KSCrypt& crypter, const char* function) {
  if (crypter.encrypt(bytes(datatoenc), datatoenc.size(), true) != 0) {
    KS_THROW(EC_KS_crypter_failed, function);
  }
  const unsigned char* out = nullptr;
  unsigned long outLen = 0;
  if (crypter.getEncryptedData(&out, &outLen) != 0) {
    KS_THROW(EC_KS_crypter_failed, function);
  }
  return std::string(reinterpret_cast<const char*>(out), outLen);
}

std::string encryptWith(const std::string& datatoenc, const std::string& key,
                        KSCrypt::CryptType type, const std::string& iv, const char* function) {
  std::unique_ptr<KSCrypt> crypter(CryptFactory::createCrypter(type, key, iv));
  return encryptWith(datatoenc, *crypter, function);
}

std::string decryptWith(const unsigned char* data, unsigned long len, KSCrypt& crypter,
                        const char* function) {
  const int rc = crypter.decrypt(data, len, true);
  if (rc != 0) {
    KS_THROW(rc == EC_KS_unwrap_failed ? EC_KS_unwrap_failed : EC_KS_crypter_failed, function);
  }
  const unsigned char* out = nullptr;
  unsigned long outLen = 0;
  if (crypter.getDecryptedData(&out, &outLen) != 0) {
    KS_THROW(EC_KS_crypter_failed, function);
  }
  if (outLen % 2 != 0) {
    KMS_DEBUG(function, 1, "Unwrapped data of odd length " << outLen);
    KS_THROW(EC_KS_unwrap_failed, function);
  }
  // The first half is the random filler; the key is the second.
  return std::string(reinterpret_cast<const char*>(out) + outLen / 2, outLen / 2);
}

std::string decryptWith(const unsigned char* data, unsigned long len, const std::string& key,
                        KSCrypt::CryptType type, const std::string& iv, const char* function) {
  std::unique_ptr<KSCrypt> crypter(CryptFactory::createCrypter(type, key, iv));
  return decryptWith(data, len, *crypter, function);
}

}  // namespace

std::string encryptKeyWithKey_VERSION_1_0(std::string_view keytoenc, const std::string& key,
                                          KSCrypt::CryptType type) {
  static const char* const kLabel = "Utils::encryptKeyWithKey_VERSION_1_0";
  KMS_TRACE(kLabel);
  const Secret datatoenc(randomHalfAndKey(keytoenc, kLabel));
  return encryptWith(datatoenc.str(), key, type, std::string(), kLabel);
}

std::string encryptKeyWithKey_VERSION_2_0(std::string_view keytoenc, const std::string& key,
                                          KSCrypt::CryptType type) {
  static const char* const kLabel = "Utils::encryptKeyWithKey_VERSION_2_0";
  KMS_TRACE(kLabel);
  const Secret datatoenc(randomHalfAndKey(keytoenc, kLabel));
  const std::string iv = getRandData(static_cast<unsigned long>(KSCrypt::cryptTypeToIVLen(type)));
  return iv + encryptWith(datatoenc.str(), key, type, iv, kLabel);
}

std::string decryptKeyWithKey_VERSION_1_0(std::string_view keytodec, const std::string& key,
                                          KSCrypt::CryptType type) {
  static const char* const kLabel = "Utils::decryptKeyWithKey_VERSION_1_0";
  KMS_TRACE(kLabel);
  return decryptWith(bytes(keytodec), keytodec.size(), key, type, std::string(), kLabel);
}

std::string decryptKeyWithKey_VERSION_2_0(std::string_view keytodec, const std::string& key,
                                          KSCrypt::CryptType type) {
  static const char* const kLabel = "Utils::decryptKeyWithKey_VERSION_2_0";
  KMS_TRACE(kLabel);
  const size_t ivLen = static_cast<size_t>(KSCrypt::cryptTypeToIVLen(type));
  if (keytodec.size() <= ivLen) {
    KMS_DEBUG(kLabel, 1, "Wrapped key of " << keytodec.size() << " bytes has no room past its IV");
    KS_THROW(EC_KS_internal_error, kLabel);
  }
  return decryptWith(bytes(keytodec) + ivLen, keytodec.size() - ivLen, key, type,
                     std::string(keytodec.substr(0, ivLen)), kLabel);
}

std::string encryptKeyWithCrypter(std::string_view keytoenc, KSCrypt& crypter) {
  static const char* const kLabel = "Utils::encryptKeyWithKey_VERSION_1_0";
  KMS_TRACE(kLabel);
  const Secret datatoenc(randomHalfAndKey(keytoenc, kLabel));
  return encryptWith(datatoenc.str(), crypter, kLabel);
}

std::string decryptKeyWithCrypter(std::string_view keytodec, KSCrypt& crypter) {
  static const char* const kLabel = "Utils::decryptKeyWithKey_VERSION_1_0";
  KMS_TRACE(kLabel);
  return decryptWith(bytes(keytodec), keytodec.size(), crypter, kLabel);
}

KSCrypt::CryptType keyOnlyCryptType(ks_version_t version) {
  if (version == KS_VERSION_100) {
    return KSCrypt::AES_256_CBC;
  }
  if (version == KS_VERSION_200) {
    return KSCrypt::CRYPT_INVALID;
  }
  // The newest form goes by the oldest function: GCM carries its own IV.
  return KSCrypt::AES_256_GCM;
}

std::string encryptKeyWithKey(std::string_view keytoenc, const std::string& key,
                              KSCrypt::CryptType type, ks_version_t version) {
  KMS_TRACE("Utils::encryptKeyWithKey");
  if (version == KS_VERSION_200) {
    return encryptKeyWithKey_VERSION_2_0(keytoenc, key, type);
  }
  return encryptKeyWithKey_VERSION_1_0(keytoenc, key, keyOnlyCryptType(version));
}

std::string decryptKeyWithKey(std::string_view keytodec, const std::string& key,
                              KSCrypt::CryptType type, ks_version_t version) {
  KMS_TRACE("Utils::decryptKeyWithKey");
  if (version == KS_VERSION_200) {
    return decryptKeyWithKey_VERSION_2_0(keytodec, key, type);
  }
  return decryptKeyWithKey_VERSION_1_0(keytodec, key, keyOnlyCryptType(version));
}

}  // namespace Utils
}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
