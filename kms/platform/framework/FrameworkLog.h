// Logging shorthands of the service framework, on the process's default
// logger. Nothing is formatted unless the logger exists and admits the level.
#pragma once

#include <sstream>

#include "kms/platform/Tracer.h"
#include "kms/platform/VRLogger.h"

#define FW_DEBUG(label, level, streamed)                              \
  do {                                                                \
    ::VRLogger* fwLogger_ = ::VRLogger::s_default;                    \
    if (fwLogger_ != nullptr && fwLogger_->debugLevel() >= (level)) { \
      std::ostringstream fwText_;                                     \
      fwText_ << streamed;                                            \
      fwLogger_->logDebug((label), (level), fwText_.str());           \
    }                                                                 \
  } while (0)

#define FW_TRACE(label) \
  ::Tracer fwTracer_(::VRLogger::s_default, nullptr, (label), __FILE__, __LINE__)
#define FW_TRACE_THIS(label) \
  ::Tracer fwTracer_(::VRLogger::s_default, this, (label), __FILE__, __LINE__)
