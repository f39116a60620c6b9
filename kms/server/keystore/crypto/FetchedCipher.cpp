#include "kms/server/keystore/crypto/FetchedCipher.h"

#include "kms/platform/OpenSslPtr.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

using CmnCrypto::CipherPtr;

const EVP_CIPHER* FetchedCipher::aes256Gcm() {
  static const CipherPtr cipher(EVP_CIPHER_fetch(nullptr, "AES-256-GCM", nullptr));
  return cipher.get();
}

const EVP_CIPHER* FetchedCipher::aes256Cbc() {
  static const CipherPtr cipher(EVP_CIPHER_fetch(nullptr, "AES-256-CBC", nullptr));
  return cipher.get();
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
