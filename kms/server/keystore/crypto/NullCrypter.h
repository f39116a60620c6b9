// The crypter of type CRYPT_NONE: both sides copy their input to their output
// unchanged. It takes no key and supports no AAD.
#pragma once

#include "kms/server/keystore/crypto/KSCrypt.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

class NullCrypter : public KSCrypt {
 public:
  // Throws KeyStoreError 1223 if the initial reset fails.
  NullCrypter();
  ~NullCrypter() override;

  // A call after the final call returns 1224 (checked before the status).
  [[nodiscard]] int encrypt(const unsigned char* data, unsigned long len, bool final) override;
  [[nodiscard]] int getEncryptedData(const unsigned char** data, unsigned long* len) override;
  [[nodiscard]] int decrypt(const unsigned char* data, unsigned long len, bool final) override;
  [[nodiscard]] int getDecryptedData(const unsigned char** data, unsigned long* len) override;
  [[nodiscard]] int reset() override;
  [[nodiscard]] int encryptReset() override;
  [[nodiscard]] int decryptReset() override;

 private:
  struct Side {
    int status = 1223;
    // Both sides put out their input as it is: plaintext.
    Output output{true};
    bool finalDone = false;
  };
  static int copy(Side& side, const unsigned char* data, unsigned long len, bool final);

  Side m_enc;
  Side m_dec;
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
