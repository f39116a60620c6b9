#include "kms/server/keystore/format/StringOutDest.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

void StringOutDest::write(const void* data, unsigned long len) {
  m_out.append(static_cast<const char*>(data), len);
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
