// The one place that turns a KSCrypt::CryptType into a crypter.
#pragma once

#include <memory>

#include <string>

#include "kms/server/keystore/crypto/KSCrypt.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

class CryptFactory {
 public:
  // A new crypter of `type`, reset on both sides. Only AES_256_CBC_EVP uses `iv`; the CBC
  // types over the mangle library and GCM carry their own IV, CRYPT_NONE
  // uses neither argument. Throws KeyStoreError 1223 for type 0 or above 6,
  // and passes on the crypter constructor's KeyStoreError (1223 for a key or
  // IV of the wrong length). FIPS mode is not consulted here.
  [[nodiscard]] static std::unique_ptr<KSCrypt> createCrypter(KSCrypt::CryptType type,
                                                              const std::string& key,
                                                              const std::string& iv);
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
