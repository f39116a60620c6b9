// AES-256-CBC through OpenSSL with PKCS#7 padding, under a key and IV given
// by the caller (crypt type AES_256_CBC_EVP). The IV is not part of the
// output; the caller keeps it. CBC has no authentication: a wrong key is
// usually, but not always, caught by the padding check at the final decrypt.
#pragma once

#include <openssl/evp.h>

#include <memory>
#include <string>

#include "kms/platform/OpenSslPtr.h"
#include "kms/server/keystore/crypto/KSCrypt.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

class EVPCrypter : public KSCrypt {
 public:
  enum EVPCryptType : int {
    EVP_AES_256_CBC = 0,  // the only legal value
  };

  // Throws KeyStoreError 1223 for an unknown type, a key that is not 32
  // bytes, an IV that is not 16 bytes, or a failed initial reset.
  EVPCrypter(EVPCryptType type, const std::string& key, const std::string& iv);
  ~EVPCrypter() override;

  // The status is checked before the final flag (a call after the final
  // call on a good side returns 1224).
  [[nodiscard]] int encrypt(const unsigned char* data, unsigned long len, bool final) override;
  [[nodiscard]] int getEncryptedData(const unsigned char** data, unsigned long* len) override;
  // A failed padding check at the final call returns 1270.
  [[nodiscard]] int decrypt(const unsigned char* data, unsigned long len, bool final) override;
  [[nodiscard]] int getDecryptedData(const unsigned char** data, unsigned long* len) override;
  [[nodiscard]] int reset() override;
  [[nodiscard]] int encryptReset() override;
  [[nodiscard]] int decryptReset() override;

 private:
  using CtxPtr = CmnCrypto::CipherCtxPtr;

  struct Side {
    explicit Side(bool decrypting) : output(decrypting) {}
    CtxPtr ctx;
    int status = 1223;
    bool finalDone = false;
    Output output;
  };

  int sideReset(Side& side, int enc, const char* function);
  int run(Side& side, const unsigned char* data, unsigned long len, bool final, bool decrypting,
          const char* function);

  const EVP_CIPHER* m_cipher = nullptr;
  SecureBytes m_key;
  std::string m_iv;
  Side m_enc{false};
  Side m_dec{true};
  SecureBytes m_work;  // block size + 2048 bytes, shared by both sides
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
