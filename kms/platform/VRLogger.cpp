#include "kms/platform/VRLogger.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ctime>

#include "kms/platform/Lis.h"

VRLogger* VRLogger::s_default = nullptr;
VRLogger* VRLogger::s_defaultLib = nullptr;

namespace {

std::string timeStamp() {
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  struct tm tmv;
  localtime_r(&tv.tv_sec, &tmv);
  char buf[64];
  size_t n = std::strftime(buf, sizeof(buf), "%Y-%m-%d %H:%M:%S", &tmv);
  std::snprintf(buf + n, sizeof(buf) - n, ".%06ld", static_cast<long>(tv.tv_usec));
  return buf;
}

long threadId() {
  return static_cast<long>(syscall(SYS_gettid));
}

// mkdir -p with mode 0700 for the directory part of `path`.
void makeParentDirs(const std::string& path) {
  for (size_t pos = path.find('/', 1); pos != std::string::npos; pos = path.find('/', pos + 1)) {
    std::string dir = path.substr(0, pos);
    if (mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) {
      return;
    }
  }
}

const char* severityName(crvnLogSeverity_t severity) {
  switch (severity) {
    case CRVN_SEV_INFO:
      return "INFO";
    case CRVN_SEV_WARNING:
      return "WARNING";
    case CRVN_SEV_ERROR:
      return "ERROR";
    default:
      return "SEVERITY";
  }
}

}  // namespace

VRLogger::VRLogger(unsigned long originator, std::string debugPath, std::string appPath,
                   int debugLevel)
    : m_originator(originator),
      m_debugPath(std::move(debugPath)),
      m_appPath(std::move(appPath)),
      m_debugLevel(debugLevel) {
  m_debug.path = m_debugPath;
  m_app.path = m_appPath;
}

VRLogger::~VRLogger() {
  if (m_debug.fd >= 0) {
    close(m_debug.fd);
  }
  if (m_app.fd >= 0) {
    close(m_app.fd);
  }
}

void VRLogger::writeLine(Sink& sink, const std::string& line) {
  int fd;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (sink.fd < 0 && !sink.failed) {
      makeParentDirs(sink.path);
      sink.fd = open(sink.path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
      sink.failed = sink.fd < 0;
    }
    fd = sink.fd;
  }
  if (fd < 0) {
    return;
  }
  const char* p = line.data();
  size_t left = line.size();
  while (left > 0) {
    ssize_t n = write(fd, p, left);
    if (n < 0) {
      if (errno == EINTR) {
        continue;
      }
      return;
    }
    p += n;
    left -= static_cast<size_t>(n);
  }
}

void VRLogger::logDebug(const char* label, int level, const char* text) {
  if (level > debugLevel()) {
    return;
  }
  std::string line = timeStamp() + " [" + std::to_string(threadId()) + "] " +
                     std::to_string(m_originator) + " L" + std::to_string(level) + " " +
                     (label != nullptr ? label : "") + ": " + (text != nullptr ? text : "") + "\n";
  writeLine(m_debug, line);
}

void VRLogger::logApp(const char* label, crvnLogSeverity_t severity,
                      const Corvane::L10N::LisMgr& message) {
  std::string text;
  Corvane::L10N::renderLis(static_cast<int>(m_originator), message, &text);
  std::string line = timeStamp() + " [" + std::to_string(threadId()) + "] " +
                     severityName(severity) + " " + std::to_string(m_originator) + "-" +
                     std::to_string(message.messageId()) + " " + (label != nullptr ? label : "") +
                     ": " + text + "\n";
  writeLine(m_app, line);
  // The debug log shows the application messages too, in their place.
  logDebug(label, 1, "APP " + std::to_string(message.messageId()) + ": " + text);
}
