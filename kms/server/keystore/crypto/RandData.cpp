#include "kms/server/keystore/crypto/RandData.h"

#include "kms/platform/MangleRandom.h"
#include "kms/server/diagnostics/Log.h"
#include "kms/server/keystore/crypto/SecureBytes.h"

namespace Vaultrest {
namespace DL {
namespace KMS {
namespace Utils {

std::string getRandData(unsigned long len) {
  static const char* const kLabel = "Utils::getRandData";
  KMS_TRACE(kLabel);
  std::string data(len, '\0');
  if (len == 0) {
    return data;
  }
  for (int attempt = 1; attempt <= kRandomAttempts; ++attempt) {
    if (mangleGetRandom(reinterpret_cast<unsigned char*>(&data[0]), len) == 0) {
      return data;
    }
    KMS_DEBUG(kLabel, 1, "mangleGetRandom returned FAILURE, attempt " << attempt);
  }
  wipeString(data);
  return data;
}

}  // namespace Utils
}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
