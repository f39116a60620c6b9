// Wrapping of one key under another. The plaintext is always R || K, where R
// is as many random bytes as the key K has, so the ciphertext is twice the
// key's length plus the cipher's overhead. The form follows the file
// version:
//
//   0x100      "VERSION_1_0" form under AES_256_CBC (the caller's type is
//              ignored): the mangle stream of R || K
//   0x200      "VERSION_2_0" form under the caller's type:
//              IV (cryptTypeToIVLen(type) fresh bytes) || ciphertext of R || K
//   any other  "VERSION_1_0" form under AES_256_GCM (the caller's type is
//              ignored): IV (12) || ciphertext || tag (16); 92 bytes for a
//              32-byte key
//
// No AAD and no salt in any form. All functions throw KeyStoreError:
//   1200  no random bytes (also for an empty key to wrap); wrapped bytes no
//         longer than the IV
//   1223  from the crypter's constructor (a key of the wrong length)
//   1224  the crypter failed
//   1270  wrong key or damaged bytes caught by the final check; odd plaintext
// The unwrapped key is the caller's to wipe; intermediate plaintext is wiped
// here.
#pragma once

#include <string>
#include <string_view>

#include "kms/server/keystore/crypto/KSCrypt.h"
#include "kms/server/keystore/store/KeyStoreTypes.h"

namespace Vaultrest {
namespace DL {
namespace KMS {
namespace Utils {

std::string encryptKeyWithKey(std::string_view keytoenc, const std::string& key,
                              KSCrypt::CryptType type, ks_version_t version);
std::string decryptKeyWithKey(std::string_view keytodec, const std::string& key,
                              KSCrypt::CryptType type, ks_version_t version);

// The two forms, under exactly the type given.
std::string encryptKeyWithKey_VERSION_1_0(std::string_view keytoenc, const std::string& key,
                                          KSCrypt::CryptType type);
std::string encryptKeyWithKey_VERSION_2_0(std::string_view keytoenc, const std::string& key,
                                          KSCrypt::CryptType type);
std::string decryptKeyWithKey_VERSION_1_0(std::string_view keytodec, const std::string& key,
                                          KSCrypt::CryptType type);
std::string decryptKeyWithKey_VERSION_2_0(std::string_view keytodec, const std::string& key,
                                          KSCrypt::CryptType type);

// The type of the crypter that the form of `version` builds from the
// wrapping key alone: AES_256_CBC for 0x100, AES_256_GCM for any version but
// 0x200. CRYPT_INVALID for 0x200, whose crypter takes each wrap's own IV.
KSCrypt::CryptType keyOnlyCryptType(ks_version_t version);

// The VERSION_1_0 form with a crypter the caller supplies: one of
// keyOnlyCryptType's type, under the wrapping key, with the side used ready
// (new or just reset). The side is left used; the caller resets it before
// reusing the crypter, and so wipes the plaintext left in its output. Same
// errors as above, less the crypter's constructor.
std::string encryptKeyWithCrypter(std::string_view keytoenc, KSCrypt& crypter);
std::string decryptKeyWithCrypter(std::string_view keytodec, KSCrypt& crypter);

}  // namespace Utils
}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
