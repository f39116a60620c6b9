// What the four metadata blocks (KSMetadata, KeyFile, KSEximMetadata,
// SecuredDataHeader) share in their attribute lists: the "VERSION" value,
// a file version as 4 bytes big-endian (00 00 03 00 for 0x300), and the
// lookup of an attribute that must be there.
#pragma once

#include <string>

#include "kms/server/keystore/records/AttributeList.h"
#include "kms/server/keystore/store/KeyStoreTypes.h"

namespace Vaultrest {
namespace DL {
namespace KMS {
namespace Utils {

// The 4 big-endian bytes of `version`.
std::string versionToBytes(ks_version_t version);

// All the bytes folded big-endian, whatever their number, so a shorter
// encoding of the same number reads the same (01 00 is 0x100). A value that
// does not fit in 32 bits gives 0xffffffff, which is no legal version; no
// bytes give 0.
ks_version_t bytesToVersion(const std::string& bytes);

// 0x100, 0x200 or 0x300: the versions a store or key file may have.
inline bool isStoreVersion(ks_version_t version) {
  return version == KS_VERSION_100 || version == KS_VERSION_200 || version == KS_VERSION_300;
}

// The value of `name` in `list`. If it is absent, logs "Missing attribute"
// under `function` and throws KeyStoreError 1208.
std::string requiredAttribute(const AttributeList& list, const char* name, const char* function);

}  // namespace Utils
}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
