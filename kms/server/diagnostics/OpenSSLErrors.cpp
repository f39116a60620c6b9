#include "kms/server/diagnostics/OpenSSLErrors.h"

#include <openssl/err.h>

#include "kms/server/diagnostics/Log.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

void logOpenSSLErrors(const char* context) {
  KMS_TRACE("logOpenSSLErrors");
  // OpenSSL 3 loads its error strings by itself and frees them at exit.
  const char* where = context != nullptr ? context : "";
  unsigned long code;
  while ((code = ERR_get_error()) != 0) {
    char text[1024];
    ERR_error_string_n(code, text, sizeof(text));
    KMS_DEBUG("logOpenSSLErrors", 1, "OpenSSL error " << where << ": " << text);
  }
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
