#include "kms/server/keystore/crypto/CryptFactory.h"

#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/Raise.h"
#include "kms/server/diagnostics/StatusCodes.h"
#include "kms/server/keystore/crypto/EVPCrypter.h"
#include "kms/server/keystore/crypto/GCMCrypter.h"
#include "kms/server/keystore/crypto/MangleCrypter.h"
#include "kms/server/keystore/crypto/NullCrypter.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

std::unique_ptr<KSCrypt> CryptFactory::createCrypter(KSCrypt::CryptType type,
                                                     const std::string& key,
                                                     const std::string& iv) {
  static const char* const kLabel = "CryptFactory::createCrypter";
  KMS_TRACE(kLabel);
  switch (type) {
    case KSCrypt::CRYPT_NONE:
      return std::make_unique<NullCrypter>();
    case KSCrypt::AES_256_CBC:
      return std::make_unique<MangleCrypter>(MANGLE_AES_256, key);
    case KSCrypt::AES_192_CBC:
      return std::make_unique<MangleCrypter>(MANGLE_AES_192, key);
    case KSCrypt::AES_128_CBC:
      return std::make_unique<MangleCrypter>(MANGLE_AES_128, key);
    case KSCrypt::AES_256_CBC_EVP:
      return std::make_unique<EVPCrypter>(EVPCrypter::EVP_AES_256_CBC, key, iv);
    case KSCrypt::AES_256_GCM:
      return std::make_unique<GCMCrypter>(key);
    default:
      KMS_DEBUG(kLabel, 1, "Unknown crypt type " << static_cast<int>(type));
      KS_THROW(EC_KS_crypter_not_ready, kLabel);
  }
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
