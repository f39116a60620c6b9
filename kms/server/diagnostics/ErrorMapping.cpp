#include "kms/server/diagnostics/ErrorMapping.h"

#include <algorithm>

#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/Raise.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

const char* statusSymbol(int code) {
  switch (code) {
    case EC_KS_success:
      return "EC_KS_success";
    case EC_KS_internal_error:
      return "EC_KS_internal_error";
    case EC_KS_HMKfile_open_error:
      return "EC_KS_HMKfile_open_error";
    case EC_KS_invalid_HMKfile:
      return "EC_KS_invalid_HMKfile";
    case EC_KS_KPKfile_open_error:
      return "EC_KS_KPKfile_open_error";
    case EC_KS_db_write_fail_changed:
      return "EC_KS_db_write_fail_changed";
    default:
      return nullptr;
  }
}

namespace {

bool contains(const std::vector<int>& codes, int code) {
  return std::find(codes.begin(), codes.end(), code) != codes.end();
}

const CodeRule* findRule(const ErrorMap& map, int status) {
  for (const CodeRule& rule : map.mapped) {
    if (contains(rule.from, status)) {
      return &rule;
    }
  }
  return nullptr;
}

}  // namespace

int translatedCode(const ErrorMap& map, int status) {
  if (contains(map.pass, status)) {
    return status;
  }
  const CodeRule* rule = findRule(map, status);
  return rule != nullptr ? rule->to : map.otherwise;
}

void rethrowTranslated(const char* function, const KeyStoreError& error, const ErrorMap& map) {
  KMS_DEBUG(function, 1, map.caughtText << error.str(true));
  if (contains(map.pass, error.status())) {
    KMS_DEBUG(function, 1, "Rethrowing Exception");
    throw error;
  }
  const CodeRule* rule = findRule(map, error.status());
  const int code = rule != nullptr ? rule->to : map.otherwise;
  KeyStoreError mapped(code, error.function().c_str(), error.file().c_str(), error.line());
  KMS_DEBUG(function, 1,
            (rule != nullptr ? map.mappedText : map.otherwiseText) << mapped.str(true));
  throw mapped;
}

void rethrowUnexpected(const char* function, const ErrorMap& map) {
  KeyStoreError mapped(map.otherwise, function, "", 0);
  KMS_DEBUG(function, 1, map.otherwiseText << mapped.str(true));
  throw mapped;
}

int returnTranslated(const char* function, const KeyStoreError& error, const ErrorMap& map) {
  KMS_DEBUG(function, 1, "Exception Caught: " << error.str(true));
  const int status = error.status();
  if (contains(map.pass, status)) {
    KMS_DEBUG(function, 1, "Returning " << status);
    return status;
  }
  const CodeRule* rule = findRule(map, status);
  if (rule != nullptr) {
    const char* symbol = statusSymbol(rule->to);
    KMS_DEBUG(function, 1, "Returning as " << (symbol != nullptr ? symbol : "") << " : " << status);
    return rule->to;
  }
  KMS_DEBUG(function, 1, "Uncaught Exception! Returning EC_KS_internal_error : " << status);
  return map.otherwise;
}

int returnUnexpected(const char* function, const ErrorMap& map) {
  KMS_DEBUG(function, 1, "Uncaught Exception! Returning EC_KS_internal_error : unknown exception");
  return map.otherwise;
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
