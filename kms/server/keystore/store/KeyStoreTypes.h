// Enumerations shared by the records, the file format and the crypto layer.
#pragma once

#include <cstdint>

namespace Vaultrest {
namespace DL {
namespace KMS {

// File version of a store, a key file or an export, kept in the "VERSION"
// attribute as 4 bytes big-endian.
typedef uint32_t ks_version_t;
constexpr ks_version_t KS_VERSION_100 = 0x100;
constexpr ks_version_t KS_VERSION_200 = 0x200;
constexpr ks_version_t KS_VERSION_300 = 0x300;

enum ks_keystate_t : int32_t {
  KEY_INVALID = 0,
  KEY_ACTIVE = 1,
  KEY_INACTIVE = 2,
  KEY_DEPRECATED = 3,
  KEY_PRELIVE = 4,
  KEY_TERMINATED = 5,
};

enum ks_ciphertype_t : int32_t {
  CT_INVALID_CBC = 0,
  CT_AES128_CBC = 1,
  CT_AES192_CBC = 2,
  CT_AES256_CBC = 3,
  CT_BLOW_CBC = 4,
};

enum ks_kpktype_t : int32_t {
  KPK_INVALID = 0,
  KPK_LOCAL = 1,
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
