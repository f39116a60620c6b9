// The crypter interface: every bulk encryption and decryption of the store
// goes through a KSCrypt. A crypter has two independent sides (encrypt and
// decrypt), each with its own cipher state, status, output buffer and reset.
// It is built for one use (a file, a block, a key wrap), or kept for reuse
// under its key (CrypterPool), and belongs to one thread at a time; nothing
// here locks.
//
// Calling order on one side:
//   1. the constructor has already reset both sides; a reused crypter is
//      reset with encryptReset()/decryptReset();
//   2. optionally add_authenticated_data_*() before the first data (only the
//      GCM crypter supports it);
//   3. encrypt()/decrypt() any number of times, the last call with final
//      true (it may carry no data);
//   4. getEncryptedData()/getDecryptedData() after any call.
//
// Results: 0 for success; 1223 when the side is not ready (never reset, or an
// earlier call failed, until the next successful reset); 1224 when this call
// failed, AAD is not supported, or a call came after the final call; 1270
// when decryption's final check failed (wrong key, bad padding, bad tag).
// Crypters never throw from these operations; their constructors do.
//
// Output: encrypt()/decrypt() append to the side's output. A get hands out
// everything appended since the previous get, so the same bytes never come
// out twice; a second get in a row gives length 0. The pointer belongs to the
// crypter and stays valid until the next encrypt/decrypt, reset or
// destruction of that side.
#pragma once

#include <string>

#include "kms/server/keystore/crypto/SecureBytes.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

class KSCrypt {
 public:
  // Stored by name in the file metadata ("MENCALG", "KENCALG"): the names are
  // part of the file format. The underlying type is fixed, so any int read
  // from elsewhere is a value of the type (and outside 1..6 an invalid one).
  enum CryptType : int {
    CRYPT_INVALID = 0,
    CRYPT_NONE = 1,
    AES_256_CBC = 2,
    AES_192_CBC = 3,
    AES_128_CBC = 4,
    AES_256_CBC_EVP = 5,
    AES_256_GCM = 6,
  };

  virtual int add_authenticated_data_encrypt(const unsigned char* data, unsigned long len);
  [[nodiscard]] virtual int encrypt(const unsigned char* data, unsigned long len, bool final) = 0;
  [[nodiscard]] virtual int getEncryptedData(const unsigned char** data, unsigned long* len) = 0;
  virtual int add_authenticated_data_decrypt(const unsigned char* data, unsigned long len);
  [[nodiscard]] virtual int decrypt(const unsigned char* data, unsigned long len, bool final) = 0;
  [[nodiscard]] virtual int getDecryptedData(const unsigned char** data, unsigned long* len) = 0;
  // Resets both sides (both always run); 1223 if either failed.
  [[nodiscard]] virtual int reset() = 0;
  [[nodiscard]] virtual int encryptReset() = 0;
  [[nodiscard]] virtual int decryptReset() = 0;
  virtual ~KSCrypt() = 0;

  // The type's name; 0 and anything above 6 give "CRYPT_INVALID".
  static std::string cryptTypeToString(CryptType type);
  // Exact, case-sensitive match of the six names "CRYPT_NONE".."AES_256_GCM";
  // anything else gives CRYPT_INVALID. Never fails.
  static CryptType stringToCryptType(const std::string& name);
  // Key bytes the type needs, IV bytes the caller supplies (0 for GCM, which
  // carries its own), and whether it takes AAD. Each throws KeyStoreError
  // 1200 for a type outside 1..6.
  static int cryptTypeToKeyLen(CryptType type);
  static int cryptTypeToIVLen(CryptType type);
  static bool cryptTypeSupportsAAD(CryptType type);

 protected:
  KSCrypt() = default;
  KSCrypt(const KSCrypt&) = delete;
  KSCrypt& operator=(const KSCrypt&) = delete;

  // The get operation of a side whose status is `status`: 1223 unless the
  // side is ready, 1224 for a null argument, otherwise hands out `output`.
  class Output;
  [[nodiscard]] static int fetchOutput(int status, Output& output, const unsigned char** data,
                                       unsigned long* len);

  // The output of one side with its fetched flag. Plaintext (what a side
  // decrypts, and both sides of a crypter that does not encrypt) is wiped
  // whenever it is dropped; ciphertext is dropped without a wipe. Growth and
  // release wipe either (SecureBytes).
  class Output {
   public:
    explicit Output(bool plaintext) : m_plaintext(plaintext) {}
    // Start of an encrypt/decrypt call: drops bytes already handed out.
    void beginCall() {
      if (m_fetched) {
        drop();
      }
    }
    void append(const unsigned char* data, unsigned long len) {
      m_bytes.insert(m_bytes.end(), data, data + len);
    }
    // Room for `len` bytes at the end, for a cipher to write in place.
    unsigned char* extend(unsigned long len) {
      const size_t used = m_bytes.size();
      m_bytes.resize(used + len);
      return m_bytes.data() + used;
    }
    // Successful end of an encrypt/decrypt call.
    void endCall() { m_fetched = false; }
    // Hands out what was appended since the previous fetch. The pointer is
    // never null.
    void fetch(const unsigned char** data, unsigned long* len) {
      if (m_fetched) {
        drop();
      }
      *data = m_bytes.empty() ? &kNoBytes : m_bytes.data();
      *len = m_bytes.size();
      m_fetched = true;
    }
    void reset() {
      drop();
      m_fetched = false;
    }

   private:
    void drop() {
      if (m_plaintext) {
        wipeBytes(m_bytes);
      } else {
        m_bytes.clear();
      }
    }

    static const unsigned char kNoBytes;
    SecureBytes m_bytes;
    bool m_fetched = false;
    bool m_plaintext;
  };
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
