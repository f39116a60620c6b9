// Installs a private logger as VRLogger::s_default for one test and reads back
// what was written; restores the previous default logger when it goes.
#pragma once

#include <fstream>
#include <string>
#include <vector>

#include "kms/platform/VRLogger.h"
#include "support/TempRoot.h"

class LogCapture {
 public:
  explicit LogCapture(int level = 1)
      : m_logger(286, m_dir.file("vrkms_debug.log"), m_dir.file("vrkms_app.log"), level),
        m_previous(VRLogger::s_default) {
    VRLogger::s_default = &m_logger;
  }
  ~LogCapture() { VRLogger::s_default = m_previous; }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  VRLogger& logger() { return m_logger; }
  std::vector<std::string> debugLines() const { return lines(m_logger.debugLogPath()); }
  std::vector<std::string> appLines() const { return lines(m_logger.appLogPath()); }
  // Lines of `all` that contain `part`.
  static std::vector<std::string> containing(const std::vector<std::string>& all,
                                             const std::string& part) {
    std::vector<std::string> found;
    for (const auto& line : all) {
      if (line.find(part) != std::string::npos)
        found.push_back(line);
    }
    return found;
  }

 private:
  static std::vector<std::string> lines(const std::string& path) {
    std::vector<std::string> out;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);)
      out.push_back(line);
    return out;
  }

  TempRoot m_dir{"vrkms-log"};
  VRLogger m_logger;
  VRLogger* m_previous;
};
