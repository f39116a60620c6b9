#include "kms/server/keystore/format/FileOutDest.h"

#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/Raise.h"
#include "kms/server/diagnostics/StatusCodes.h"
#include "kms/server/keystore/files/FileUtils.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

void FileOutDest::write(const void* data, unsigned long len) {
  KMS_TRACE_THIS("FileOutDest::write");
  if (Utils::fwriteall(m_file, data, len) == -1) {
    KS_THROW(EC_KS_file_write_error, "FileOutDest::write");
  }
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
