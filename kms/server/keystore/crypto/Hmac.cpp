#include "kms/server/keystore/crypto/Hmac.h"

#include <openssl/hmac.h>

#include <climits>

#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/OpenSSLErrors.h"

namespace Vaultrest {
namespace DL {
namespace KMS {
namespace Utils {

std::string hmac(const EVP_MD* digest, const std::string& key, const unsigned char* data,
                 size_t len) {
  static const char* const kLabel = "Utils::hmac";
  KMS_TRACE(kLabel);
  unsigned char mac[EVP_MAX_MD_SIZE];
  unsigned int macLen = 0;
  if (digest == nullptr || key.size() > static_cast<size_t>(INT_MAX) ||
      HMAC(digest, key.data(), static_cast<int>(key.size()), data, len, mac, &macLen) == nullptr) {
    KMS_DEBUG(kLabel, 1, "HMAC returned FAILURE");
    logOpenSSLErrors(kLabel);
    return std::string();
  }
  return std::string(reinterpret_cast<const char*>(mac), macLen);
}

}  // namespace Utils
}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
