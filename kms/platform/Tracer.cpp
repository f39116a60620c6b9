#include "kms/platform/Tracer.h"

#include <cstdio>
#include <cstring>

#include "kms/platform/VRLogger.h"

namespace {

void traceLine(VRLogger* logger, const char* what, const void* object, const char* label,
               const char* file, int line) {
  const char* slash = std::strrchr(file, '/');
  char text[512];
  std::snprintf(text, sizeof(text), "%s %s [%p] (%s:%d)", what, label, object,
                slash != nullptr ? slash + 1 : file, line);
  logger->logDebug(label, Tracer::kLevel, text);
}

}  // namespace

Tracer::Tracer(VRLogger* logger, const void* object, const char* label, const char* file, int line)
    : m_logger(logger), m_object(object), m_label(label), m_file(file), m_line(line) {
  if (m_logger != nullptr && m_logger->debugLevel() >= kLevel) {
    traceLine(m_logger, "Entering", m_object, m_label, m_file, m_line);
  }
}

Tracer::~Tracer() {
  if (m_logger != nullptr && m_logger->debugLevel() >= kLevel) {
    traceLine(m_logger, "Leaving", m_object, m_label, m_file, m_line);
  }
}
