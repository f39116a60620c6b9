#include "kms/server/keystore/format/BlockAttributes.h"

#include <cstdint>

#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/Raise.h"
#include "kms/server/diagnostics/StatusCodes.h"

namespace Vaultrest {
namespace DL {
namespace KMS {
namespace Utils {

std::string versionToBytes(ks_version_t version) {
  std::string bytes(4, '\0');
  for (int i = 3; i >= 0; --i) {
    bytes[i] = static_cast<char>(version & 0xff);
    version >>= 8;
  }
  return bytes;
}

ks_version_t bytesToVersion(const std::string& bytes) {
  uint64_t value = 0;
  for (unsigned char byte : bytes) {
    value = (value << 8) | byte;
    if (value > UINT32_MAX) {
      return UINT32_MAX;
    }
  }
  return static_cast<ks_version_t>(value);
}

std::string requiredAttribute(const AttributeList& list, const char* name, const char* function) {
  const auto iter = list.find(name);
  if (iter == list.end()) {
    KMS_DEBUG(function, 1, "Missing attribute " << name);
    KS_THROW(EC_KS_malformed, function);
  }
  return std::string(iter->second);
}

}  // namespace Utils
}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
