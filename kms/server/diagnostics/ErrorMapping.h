// Exception translation as data. A function states which codes pass, which are
// mapped to what, and what everything else becomes; one helper does the
// catching and the logging:
//
//   static const ErrorMap kMap{{1276, 1200}, {{{1238, 1239}, 1277}}};
//   translateErrors("FileKeyStore::writeToFile", kMap, [&] { ...; });
//   int rc = statusOf("KMSSpecialOps::info", kMap, [&] { ...; return 0; });
#pragma once

#include <vector>

#include "kms/server/diagnostics/KeyStoreError.h"
#include "kms/server/diagnostics/StatusCodes.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

struct CodeRule {
  std::vector<int> from;
  int to;
};

struct ErrorMap {
  std::vector<int> pass;                 // go on unchanged ("Rethrowing Exception" / "Returning")
  std::vector<CodeRule> mapped;          // listed replacements
  int otherwise = EC_KS_internal_error;  // every other code, and non-KeyStoreError exceptions
  // Log wording of the throwing form. The defaults are the store's; the key
  // wrapping layer has its own.
  const char* caughtText = "Exception Caught: ";
  const char* mappedText = "Mapping and Rethrowing Exception as: ";
  const char* otherwiseText = "Unexpected Exception! Rethrowing as: ";
};

// The code `status` becomes under `map`.
int translatedCode(const ErrorMap& map, int status);

// Throwing form: logs under `function`, then rethrows `error` unchanged or
// with its code replaced (function, file and line of the origin are kept).
[[noreturn]] void rethrowTranslated(const char* function, const KeyStoreError& error,
                                    const ErrorMap& map);
// For an exception that is no KeyStoreError: logs and throws map.otherwise.
[[noreturn]] void rethrowUnexpected(const char* function, const ErrorMap& map);

// Returning form: logs "Returning", "Returning as <symbol> : " or
// "Uncaught Exception! Returning EC_KS_internal_error : " and gives the code.
int returnTranslated(const char* function, const KeyStoreError& error, const ErrorMap& map);
int returnUnexpected(const char* function, const ErrorMap& map);

template <typename Body>
auto translateErrors(const char* function, const ErrorMap& map, Body&& body) -> decltype(body()) {
  try {
    return body();
  } catch (const KeyStoreError& error) {
    rethrowTranslated(function, error, map);
  } catch (...) {
    rethrowUnexpected(function, map);
  }
}

template <typename Body>
int statusOf(const char* function, const ErrorMap& map, Body&& body) {
  try {
    return body();
  } catch (const KeyStoreError& error) {
    return returnTranslated(function, error, map);
  } catch (...) {
    return returnUnexpected(function, map);
  }
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
