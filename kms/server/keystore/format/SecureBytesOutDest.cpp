#include "kms/server/keystore/format/SecureBytesOutDest.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

void SecureBytesOutDest::write(const void* data, unsigned long len) {
  const unsigned char* bytes = static_cast<const unsigned char*>(data);
  m_out.insert(m_out.end(), bytes, bytes + len);
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
