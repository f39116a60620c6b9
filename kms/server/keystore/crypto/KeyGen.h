// Random keys, salts and passphrase-derived keys.
//
// A salt is 24 bytes: the letter 'S' (0x53), a scheme byte, 22 random bytes.
// The scheme says how a passphrase is stretched, and all 24 bytes are the
// PBKDF2 salt:
//   1  PBKDF2-HMAC-SHA-1,   500000 iterations (read only; older builds)
//   2  PBKDF2-HMAC-SHA-512, 500000 iterations (every new salt)
//   3  PBKDF2-HMAC-SHA-1,   2 iterations (only while s_use_weak_kdf is set)
//
// Failures are empty results, except passphraseToKey's refusal of a
// malformed salt. The derivations are deliberately slow; they run only for
// administrator operations, keys made from a passphrase, export and import.
// The caller owns and should wipe the keys returned.
#pragma once

#include <openssl/evp.h>

#include <string>

#include "kms/server/keystore/store/KeyStoreTypes.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

class KeyGen {
 public:
  static constexpr size_t SALT_LEN = 24;
  static constexpr unsigned char SALT_MARKER = 0x53;
  static constexpr unsigned char SCHEME_SHA1 = 1;
  static constexpr unsigned char SCHEME_SHA512 = 2;
  static constexpr unsigned char SCHEME_WEAK = 3;
  static constexpr int STRONG_ITERATIONS = 500000;
  static constexpr int WEAK_ITERATIONS = 2;
  static constexpr unsigned long MAX_RANDOM_KEY_LEN = 64;

  // Makes generateSalt choose scheme 3. False by default; this program never
  // sets it (it exists for callers outside the service).
  static bool s_use_weak_kdf;

  // Stores the CBC cipher of `type` (1 AES-128, 2 AES-192, 3 AES-256,
  // 4 Blowfish) and returns 0; 1214 for another type or a null `cipher`.
  static int ksLoadCipher(ks_ciphertype_t type, const EVP_CIPHER** cipher);

  // `len` random bytes in one attempt; empty if `len` is 0 or above 64 or the
  // random source failed.
  static std::string generateRandomKey(unsigned long len);

  // A new 24-byte salt (scheme 2, or 3 under s_use_weak_kdf); empty, never
  // short, if the random bytes could not be had.
  static std::string generateSalt();

  // The key that `passphrase` and `salt` stretch to, `keylen` bytes. Throws
  // KeyStoreError 1282 for a salt that is not 24 bytes, does not begin with
  // 'S' or names an unknown scheme; empty if PBKDF2 failed.
  static std::string passphraseToKey(const std::string& passphrase, const std::string& salt,
                                     unsigned long keylen);

  // The unsalted derivation of file version 0x100: EVP_BytesToKey with the
  // cipher of `type`, SHA-1, no salt and 1000 rounds; gives the cipher's key
  // length in bytes. Empty for an unknown type.
  static std::string passphraseToKey_deprecated(const std::string& passphrase,
                                                ks_ciphertype_t type);

  // The primitive under passphraseToKey: PKCS5_PBKDF2_HMAC over the given
  // digest. Empty on failure (also for `iterations` < 1 or `keylen` beyond int).
  static std::string pbkdf2(const std::string& passphrase, const std::string& salt, int iterations,
                            const EVP_MD* digest, unsigned long keylen);
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
