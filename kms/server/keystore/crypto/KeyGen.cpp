#include "kms/server/keystore/crypto/KeyGen.h"

#include <openssl/crypto.h>

#include <climits>

#include "kms/platform/MangleRandom.h"
#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/OpenSSLErrors.h"
#include "kms/server/diagnostics/Raise.h"
#include "kms/server/diagnostics/StatusCodes.h"
#include "kms/server/keystore/crypto/RandData.h"
#include "kms/server/keystore/crypto/SecureBytes.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

bool KeyGen::s_use_weak_kdf = false;

int KeyGen::ksLoadCipher(ks_ciphertype_t type, const EVP_CIPHER** cipher) {
  KMS_TRACE("KeyGen::ksLoadCipher");
  if (cipher == nullptr) {
    return EC_KS_bad_argument;
  }
  switch (type) {
    case CT_AES128_CBC:
      *cipher = EVP_aes_128_cbc();
      return 0;
    case CT_AES192_CBC:
      *cipher = EVP_aes_192_cbc();
      return 0;
    case CT_AES256_CBC:
      *cipher = EVP_aes_256_cbc();
      return 0;
    case CT_BLOW_CBC:
      *cipher = EVP_bf_cbc();
      return 0;
    default:
      return EC_KS_bad_argument;
  }
}

std::string KeyGen::generateRandomKey(unsigned long len) {
  static const char* const kLabel = "KeyGen::generateRandomKey";
  KMS_TRACE(kLabel);
  if (len == 0 || len > MAX_RANDOM_KEY_LEN) {
    KMS_DEBUG(kLabel, 1, "Invalid key length " << len);
    return std::string();
  }
  unsigned char buf[MAX_RANDOM_KEY_LEN];
  std::string key;
  if (mangleGetRandom(buf, len) == 0) {
    key.assign(reinterpret_cast<const char*>(buf), len);
  } else {
    KMS_DEBUG(kLabel, 1, "mangleGetRandom returned FAILURE");
  }
  OPENSSL_cleanse(buf, sizeof buf);
  return key;
}

std::string KeyGen::generateSalt() {
  static const char* const kLabel = "KeyGen::generateSalt";
  KMS_TRACE(kLabel);
  std::string salt(1, static_cast<char>(SALT_MARKER));
  salt.push_back(static_cast<char>(s_use_weak_kdf ? SCHEME_WEAK : SCHEME_SHA512));
  salt.append(Utils::getRandData(SALT_LEN - 2));
  if (salt.size() != SALT_LEN) {
    KMS_DEBUG(kLabel, 1, "No random data for a salt");
    return std::string();
  }
  return salt;
}

std::string KeyGen::pbkdf2(const std::string& passphrase, const std::string& salt, int iterations,
                           const EVP_MD* digest, unsigned long keylen) {
  static const char* const kLabel = "KeyGen::pbkdf2";
  if (digest == nullptr || iterations < 1 || keylen > static_cast<unsigned long>(INT_MAX) ||
      passphrase.size() > static_cast<size_t>(INT_MAX) ||
      salt.size() > static_cast<size_t>(INT_MAX)) {
    return std::string();
  }
  std::string key(keylen, '\0');
  if (PKCS5_PBKDF2_HMAC(passphrase.data(), static_cast<int>(passphrase.size()),
                        reinterpret_cast<const unsigned char*>(salt.data()),
                        static_cast<int>(salt.size()), iterations, digest, static_cast<int>(keylen),
                        reinterpret_cast<unsigned char*>(&key[0])) == 0) {
    KMS_DEBUG(kLabel, 1, "PKCS5_PBKDF2_HMAC returned FAILURE");
    logOpenSSLErrors(kLabel);
    wipeString(key);
  }
  return key;
}

std::string KeyGen::passphraseToKey(const std::string& passphrase, const std::string& salt,
                                    unsigned long keylen) {
  static const char* const kLabel = "KeyGen::passphraseToKey";
  KMS_TRACE(kLabel);
  if (salt.size() != SALT_LEN || static_cast<unsigned char>(salt[0]) != SALT_MARKER) {
    KMS_DEBUG(kLabel, 1, "Malformed salt of " << salt.size() << " bytes");
    KS_THROW(EC_KS_key_derivation_failed, kLabel);
  }
  const unsigned char scheme = static_cast<unsigned char>(salt[1]);
  switch (scheme) {
    case SCHEME_SHA1:
      return pbkdf2(passphrase, salt, STRONG_ITERATIONS, EVP_sha1(), keylen);
    case SCHEME_SHA512:
      return pbkdf2(passphrase, salt, STRONG_ITERATIONS, EVP_sha512(), keylen);
    case SCHEME_WEAK:
      return pbkdf2(passphrase, salt, WEAK_ITERATIONS, EVP_sha1(), keylen);
    default:
      KMS_DEBUG(kLabel, 1, "Unknown salt scheme " << static_cast<int>(scheme));
      KS_THROW(EC_KS_key_derivation_failed, kLabel);
  }
}

std::string KeyGen::passphraseToKey_deprecated(const std::string& passphrase,
                                               ks_ciphertype_t type) {
  static const char* const kLabel = "KeyGen::passphraseToKey_deprecated";
  KMS_TRACE(kLabel);
  const EVP_CIPHER* cipher = nullptr;
  if (ksLoadCipher(type, &cipher) != 0 || cipher == nullptr ||
      passphrase.size() > static_cast<size_t>(INT_MAX)) {
    return std::string();
  }
  unsigned char key[EVP_MAX_KEY_LENGTH];
  unsigned char iv[EVP_MAX_IV_LENGTH];
  const int len = EVP_BytesToKey(cipher, EVP_sha1(), nullptr,
                                 reinterpret_cast<const unsigned char*>(passphrase.data()),
                                 static_cast<int>(passphrase.size()), 1000, key, iv);
  std::string result;
  if (len > 0) {
    result.assign(reinterpret_cast<const char*>(key), static_cast<size_t>(len));
  } else {
    KMS_DEBUG(kLabel, 1, "EVP_BytesToKey returned FAILURE");
    logOpenSSLErrors(kLabel);
  }
  OPENSSL_cleanse(key, sizeof key);
  OPENSSL_cleanse(iv, sizeof iv);
  return result;
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
