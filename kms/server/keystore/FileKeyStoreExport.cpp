// Export of the whole store or a selection of groups and keys into one
// passphrase-sealed buffer. Runs under the read lock; nothing of the store
// changes.
#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/Raise.h"
#include "kms/server/diagnostics/StatusCodes.h"
#include "kms/server/keystore/FileKeyStore.h"
#include "kms/server/keystore/StoreLockGuards.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

std::string FileKeyStore::exportToBuffer(
    const std::list<std::pair<std::string, std::string>>& /*selection*/,
    const std::string& /*passphrase*/, KSOpStatus& status) const {
  static const char* const kLabel = "FileKeyStore::exportToBuffer";
  KMS_TRACE_THIS(kLabel);
  StoreReadGuard guard(m_lock, m_writerTurnstile);
  if (!m_initialized) {
    KS_THROW(1202, kLabel);
  }
  // Export is still to be built: refused as an internal error, reported in
  // the status like every failure after the state check.
  status.setErrCode(EC_KS_internal_error);
  return std::string();
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
