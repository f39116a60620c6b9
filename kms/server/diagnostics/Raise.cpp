#include "kms/server/diagnostics/Raise.h"

#include <cstdlib>
#include <string>

#include "kms/server/diagnostics/Log.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

void raiseKeyStoreError(const KeyStoreError& error) {
  KMS_DEBUG(error.function().c_str(), 1, "Throwing Exception: " << error.str(true));
  throw error;
}

void raiseKeyStoreError(int status, const char* function, const char* file, unsigned long line) {
  raiseKeyStoreError(KeyStoreError(status, function, baseName(file), line));
}

void assertionFailed(const char* label, const char* expression, const char* file, int line) {
  logAppMessage(label, CRVN_SEV_ERROR, 89, std::string(expression), std::string(baseName(file)),
                line, std::string());
  std::abort();
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
