// The program's one way of raising an error and of failing an invariant.
//
//   KS_THROW(EC_KS_not_initialized, label);   logs "Throwing Exception: ..." and throws
//   KS_ASSERT("RecordTable::add", n == m);     logs message 89 and aborts when false
#pragma once

#include "kms/server/diagnostics/KeyStoreError.h"
#include "kms/server/diagnostics/StatusCodes.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

// Logs "Throwing Exception: " and the verbose text at debug level 1 under
// `function`, then throws KeyStoreError(status, function, base name of file, line).
[[noreturn]] void raiseKeyStoreError(int status, const char* function, const char* file,
                                     unsigned long line);

// Logs "Throwing Exception: " for `error` under its own function and throws a copy.
[[noreturn]] void raiseKeyStoreError(const KeyStoreError& error);

// Logs catalogued message 89 (expression, file, line, "") at severity 3 under
// `label`, then aborts the process.
[[noreturn]] void assertionFailed(const char* label, const char* expression, const char* file,
                                  int line);

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest

#define KS_THROW(status, function) \
  ::Vaultrest::DL::KMS::raiseKeyStoreError((status), (function), __FILE__, __LINE__)

#define KS_ASSERT(label, expression)                                                   \
  do {                                                                                 \
    if (!(expression)) {                                                               \
      ::Vaultrest::DL::KMS::assertionFailed((label), #expression, __FILE__, __LINE__); \
    }                                                                                  \
  } while (0)
