// Import of an exported buffer: parsed without the lock, then validated,
// settled against the store and committed under the write lock. Import does
// not look at the quiesce count.
#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/Raise.h"
#include "kms/server/diagnostics/StatusCodes.h"
#include "kms/server/keystore/FileKeyStore.h"
#include "kms/server/keystore/StoreLockGuards.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

void FileKeyStore::importFromBuffer(const std::string& /*buffer*/, std::string /*passphrase*/,
                                    bool /*preserveNames*/, const std::string& /*description*/,
                                    KSOpStatus& status, bool /*previewOnly*/) {
  static const char* const kLabel = "FileKeyStore::importFromBuffer";
  KMS_TRACE_THIS(kLabel);
  // Tested before the lock, which is taken only once the buffer is parsed.
  if (!m_initialized) {
    KS_THROW(1202, kLabel);
  }
  StoreWriteGuard guard(m_lock, m_writerTurnstile);
  // Import is still to be built: refused as an internal error, reported in
  // the status like every failure after the state check.
  status.setErrCode(EC_KS_internal_error);
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
