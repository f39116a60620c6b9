// AES-CBC crypter over the mangle library (crypt types AES_256_CBC,
// AES_192_CBC, AES_128_CBC). It takes no IV: the library draws one at every
// encryptReset and carries it at the head of the stream (see
// kms/platform/MangleCipher.h), so a caller stores one opaque byte string.
// No AAD. It keeps no final flag of its own: a call after the final call is
// refused by the library and reported as 1224.
#pragma once

#include <string>

#include "kms/platform/MangleCipher.h"
#include "kms/server/keystore/crypto/KSCrypt.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

class MangleCrypter : public KSCrypt {
 public:
  // Throws KeyStoreError 1223 if the initial reset fails (unknown type, or a
  // key that is not the type's length).
  MangleCrypter(mangleCipherType type, const std::string& key);
  ~MangleCrypter() override;

  [[nodiscard]] int encrypt(const unsigned char* data, unsigned long len, bool final) override;
  [[nodiscard]] int getEncryptedData(const unsigned char** data, unsigned long* len) override;
  // A failed padding check at the final call (or a stream shorter than the IV
  // and one block) returns 1270; other library failures 1224.
  [[nodiscard]] int decrypt(const unsigned char* data, unsigned long len, bool final) override;
  [[nodiscard]] int getDecryptedData(const unsigned char** data, unsigned long* len) override;
  [[nodiscard]] int reset() override;
  [[nodiscard]] int encryptReset() override;
  [[nodiscard]] int decryptReset() override;

 private:
  SecureBytes m_key;
  mangleCipherType m_type;
  mangleCipherCtx_t m_encCtx;
  mangleCipherCtx_t m_decCtx;
  int m_encStatus = 1223;
  int m_decStatus = 1223;
  Output m_encOutput{false};
  Output m_decOutput{true};
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
