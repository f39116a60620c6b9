// Installs a private logger as VRLogger::s_default for one test and reads back
// what was written. Restores the previous default logger when it goes.
#pragma once

#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "kms/platform/VRLogger.h"
#include "support/TempRoot.h"

class LogCapture {
 public:
  // Logs go to `dir`, or to a temporary directory of their own when it is empty.
  explicit LogCapture(int level = 1, const std::string& dir = "")
      : m_dir(dir.empty() ? m_root.emplace("vrkms-log").path() : dir),
        m_logger(286, m_dir + "/vrkms_debug.log", m_dir + "/vrkms_app.log", level),
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
      if (line.find(part) != std::string::npos) {
        found.push_back(line);
      }
    }
    return found;
  }

 private:
  std::optional<TempRoot> m_root;  // first: m_dir is made from it

  static std::vector<std::string> lines(const std::string& path) {
    std::vector<std::string> out;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
      out.push_back(line);
    }
    return out;
  }

  std::string m_dir;
  VRLogger m_logger;
  VRLogger* m_previous;
};
