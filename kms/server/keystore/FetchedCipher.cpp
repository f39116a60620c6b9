#include "kms/server/keystore/FetchedCipher.h"

#include <memory>

namespace Vaultrest {
namespace DL {
namespace KMS {

namespace {

struct CipherFree {
  void operator()(EVP_CIPHER* cipher) const { EVP_CIPHER_free(cipher); }
};
using CipherPtr = std::unique_ptr<EVP_CIPHER, CipherFree>;

}  // namespace

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
