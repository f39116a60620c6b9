// The product's logger: a debug log and an application log, both under
// $VREST_ROOT/logs/vrkms/. Every line carries a time stamp and the thread id.
// Writing is thread-safe (one write(2) per line on an O_APPEND descriptor), so
// lines of concurrent threads never interleave and nothing is lost in a crash.
#pragma once

#include <atomic>
#include <mutex>
#include <string>

#include "kms/platform/CrvnLis.h"

namespace Corvane {
namespace L10N {
class LisMgr;
}
}  // namespace Corvane

class VRLogger {
 public:
  // The process's loggers, set once by main (or a test) before threads start.
  // Every user tests them for null.
  static VRLogger* s_default;
  static VRLogger* s_defaultLib;

  // Logs of `originator` go to `debugPath` and `appPath`; the files and their
  // directory are created on first use with modes 0600 and 0700. A file that
  // cannot be opened makes its lines vanish silently.
  VRLogger(unsigned long originator, std::string debugPath, std::string appPath, int debugLevel);
  ~VRLogger();
  VRLogger(const VRLogger&) = delete;
  VRLogger& operator=(const VRLogger&) = delete;

  // Lines of debug level <= debugLevel() are written. 0 turns debug logging off.
  int debugLevel() const { return m_debugLevel.load(std::memory_order_relaxed); }
  void setDebugLevel(int level) { m_debugLevel.store(level, std::memory_order_relaxed); }

  void logDebug(const char* label, int level, const char* text);
  void logDebug(const char* label, int level, const std::string& text) {
    logDebug(label, level, text.c_str());
  }
  // Renders `message` from the catalogue under this logger's originator.
  void logApp(const char* label, crvnLogSeverity_t severity, const Corvane::L10N::LisMgr& message);

  unsigned long originator() const { return m_originator; }
  const std::string& debugLogPath() const { return m_debugPath; }
  const std::string& appLogPath() const { return m_appPath; }

  // Routes the legacy logging calls of older libraries to s_default. Those
  // libraries are not part of this build, so there is nothing left to route.
  static void RedirectLegacyLogToVRLogger() {}

 private:
  struct Sink {
    std::string path;
    int fd = -1;
    bool failed = false;
  };
  void writeLine(Sink& sink, const std::string& line);

  const unsigned long m_originator;
  const std::string m_debugPath;
  const std::string m_appPath;
  std::atomic<int> m_debugLevel;
  std::mutex m_mutex;  // guards opening of the sinks
  Sink m_debug;
  Sink m_app;
};
