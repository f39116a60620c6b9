#include "kms/server/keystore/format/FileOutDest.h"

#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/Raise.h"
#include "kms/server/diagnostics/StatusCodes.h"
#include "kms/server/keystore/files/FileUtils.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

void FileOutDest::write(const void* data, unsigned long len) {
  static const char* const kLabel = "FileOutDest::write";
  KMS_TRACE_THIS(kLabel);
  if (len > m_room) {
    KMS_DEBUG(kLabel, 1, "Writing " << len << " bytes would pass the file's bound");
    KS_THROW(EC_KS_file_write_error, kLabel);
  }
  if (Utils::fwriteall(m_file, data, len) == -1) {
    KS_THROW(EC_KS_file_write_error, kLabel);
  }
  m_room -= len;
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
