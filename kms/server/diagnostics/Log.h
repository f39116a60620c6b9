// Logging shorthands of the key store. Each debug text is finished with
// " (<file base name>:<line>)"; nothing is formatted unless the default logger
// exists and its level admits the line.
#pragma once

#include <sstream>

#include "kms/platform/Lis.h"
#include "kms/platform/Tracer.h"
#include "kms/platform/VRLogger.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

// The part of `path` after its last '/'.
constexpr const char* baseName(const char* path) {
  const char* base = path;
  for (const char* p = path; *p != '\0'; ++p) {
    if (*p == '/') {
      base = p + 1;
    }
  }
  return base;
}

// Logs catalogued message `id` with `args...` (ints and strings) to the
// application log of the default logger, if there is one.
template <typename... Args>
void logAppMessage(const char* label, crvnLogSeverity_t severity, int id, const Args&... args) {
  VRLogger* logger = VRLogger::s_default;
  if (logger == nullptr) {
    return;
  }
  Corvane::L10N::Lis lis(id);
  (void)std::initializer_list<int>{((void)(lis << args), 0)...};
  logger->logApp(label, severity, lis);
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest

// KMS_DEBUG("FileKeyStore::init", 1, "Reading " << path);
#define KMS_DEBUG(label, level, streamed)                                                         \
  do {                                                                                            \
    ::VRLogger* kmsLogger_ = ::VRLogger::s_default;                                               \
    if (kmsLogger_ != nullptr && kmsLogger_->debugLevel() > 0 &&                                  \
        kmsLogger_->debugLevel() >= (level)) {                                                    \
      std::ostringstream kmsText_;                                                                \
      kmsText_ << streamed << " (" << ::Vaultrest::DL::KMS::baseName(__FILE__) << ":" << __LINE__ \
               << ")";                                                                            \
      kmsLogger_->logDebug((label), (level), kmsText_.str());                                     \
    }                                                                                             \
  } while (0)

// Opens a Tracer for the rest of the scope; KMS_TRACE_THIS records `this`.
#define KMS_TRACE(label) \
  ::Tracer kmsTracer_(::VRLogger::s_default, nullptr, (label), __FILE__, __LINE__)
#define KMS_TRACE_THIS(label) \
  ::Tracer kmsTracer_(::VRLogger::s_default, this, (label), __FILE__, __LINE__)
