// Entry and exit tracing: a Tracer logs "Entering" when made and "Leaving"
// when destroyed, so the exit line comes out on every path, exceptions
// included. Both lines are at debug level Tracer::kLevel.
#pragma once

class VRLogger;

class Tracer {
 public:
  static constexpr int kLevel = 6;

  // `logger` may be null (then nothing is logged). `label` and `file` must
  // outlive the Tracer (string literals).
  Tracer(VRLogger* logger, const void* object, const char* label, const char* file, int line);
  ~Tracer();
  Tracer(const Tracer&) = delete;
  Tracer& operator=(const Tracer&) = delete;

 private:
  VRLogger* m_logger;
  const void* m_object;
  const char* m_label;
  const char* m_file;
  int m_line;
};
