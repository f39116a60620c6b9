// AES-256-GCM crypter (crypt type AES_256_GCM). The stream is self-contained:
//
//   IV (12, fresh from mangleGetRandom at every encryptReset)
//   || ciphertext (as long as the plaintext) || tag (16)
//
// so an empty plaintext gives 28 bytes. AAD, if any, is authenticated but not
// carried in the stream. The decrypt side splits its input into IV,
// ciphertext and a held-back candidate tag as it arrives (any split of the
// stream across calls is fine) and releases plaintext only at the final call,
// after the tag has been checked. So it holds the whole ciphertext in memory,
// and a failed check (1270) leaves no plaintext reachable: the get then
// returns 1223.
//
// A crypter may be reused for any number of streams under its key: each
// side's cipher context keeps its key schedule from one reset to the next,
// so a reset after a successful stream only sets a new IV. After any failure
// on a side, its next reset builds the context afresh. The contexts (key
// schedules included) are wiped when the crypter is destroyed.
#pragma once

#include <openssl/evp.h>

#include <memory>
#include <string>

#include "kms/platform/OpenSslPtr.h"
#include "kms/server/keystore/crypto/KSCrypt.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

class GCMCrypter : public KSCrypt {
 public:
  static constexpr int GCM_IV_LEN = 12;
  static constexpr int GCM_TAG_LEN = 16;

  // Throws KeyStoreError 1223 for a key that is not 32 bytes or a failed
  // initial reset (which draws the first IV).
  explicit GCMCrypter(const std::string& key);
  ~GCMCrypter() override;

  // Allowed right after encryptReset, before the first encrypt; otherwise
  // 1224 and the side stays unusable until encryptReset.
  int add_authenticated_data_encrypt(const unsigned char* data, unsigned long len) override;
  // The first output carries the 12 IV bytes; the final call adds the tag.
  [[nodiscard]] int encrypt(const unsigned char* data, unsigned long len, bool final) override;
  [[nodiscard]] int getEncryptedData(const unsigned char** data, unsigned long* len) override;
  // Allowed right after decryptReset, before the first decrypt.
  int add_authenticated_data_decrypt(const unsigned char* data, unsigned long len) override;
  // Non-final calls produce no plaintext. At the final call: 1224 if the
  // stream was too short to hold an IV and a tag, 1270 if the tag does not
  // match (wrong key, changed byte, different AAD).
  [[nodiscard]] int decrypt(const unsigned char* data, unsigned long len, bool final) override;
  [[nodiscard]] int getDecryptedData(const unsigned char** data, unsigned long* len) override;
  [[nodiscard]] int reset() override;
  [[nodiscard]] int encryptReset() override;
  [[nodiscard]] int decryptReset() override;

 private:
  // States of the two sides.
  enum State : int {
    NOT_READY = 0,
    RESET_DONE = 1,   // AAD allowed
    READING_IV = 2,   // decrypt
    ENCRYPTING = 3,   // encrypt
    IV_COMPLETE = 4,  // decrypt: collecting ciphertext
    FINAL_DONE = 5,
  };

  using CtxPtr = CmnCrypto::CipherCtxPtr;

  // Splits the rest of the input between the pending ciphertext and the
  // candidate tag, keeping the last 16 bytes seen in the tag.
  void collect(const unsigned char* data, unsigned long len);
  // The final step over the whole ciphertext, the tag in m_cached_tag.
  int finishDecrypt(const unsigned char* ciphertext, size_t length);
  // Record a failure of the side: `status` becomes its status, its context
  // is rebuilt at the next reset. Return `status`.
  int encryptFailed(int status);
  int decryptFailed(int status);

  const EVP_CIPHER* m_cipher = nullptr;
  SecureBytes m_key;
  std::string m_iv;  // decrypt side: IV bytes collected so far
  CtxPtr m_encCtx;
  CtxPtr m_decCtx;
  int m_encStatus = 1223;
  int m_decStatus = 1223;
  Output m_encOutput{false};
  Output m_decOutput{true};
  std::string m_aad;  // held for decryption until the final call
  std::string m_cached_tag;
  std::string m_pending;  // ciphertext known not to be tag
  SecureBytes m_work;     // one block, for the final call
  State m_encState = NOT_READY;
  State m_decState = NOT_READY;
  // The side's context holds the cipher, the IV length and the key from a
  // successful earlier stream or reset: a reset only has to set a new IV.
  bool m_encKeyed = false;
  bool m_decKeyed = false;
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
