#include "kms/platform/ProcessHandler.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "kms/platform/Digits.h"

namespace {

// Reads a /proc file whole through plain descriptors: a process that exits
// between the open and the read makes read() fail with ESRCH, which must be
// a false return here, never an exception (a stream buffer would throw).
bool readFile(const std::string& path, std::string* text) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    return false;
  }
  text->clear();
  char buffer[4096];
  bool ok = true;
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof(buffer));
    if (n > 0) {
      text->append(buffer, static_cast<size_t>(n));
    } else if (n == 0) {
      break;
    } else if (errno != EINTR) {
      ok = false;
      break;
    }
  }
  ::close(fd);
  return ok;
}

// The state letter of /proc/<pid>/stat: the field after the command name,
// which is in brackets and may itself hold spaces and brackets.
char processState(const std::string& procDir) {
  std::string stat;
  if (!readFile(procDir + "/stat", &stat)) {
    return '?';
  }
  const size_t close = stat.rfind(')');
  if (close == std::string::npos || close + 2 >= stat.size()) {
    return '?';
  }
  return stat[close + 2];
}

std::string commandName(const std::string& procDir) {
  std::string comm;
  if (!readFile(procDir + "/comm", &comm)) {
    return std::string();
  }
  if (!comm.empty() && comm.back() == '\n') {
    comm.pop_back();
  }
  return comm;
}

std::string argv0BaseName(const std::string& procDir) {
  std::string cmdline;
  if (!readFile(procDir + "/cmdline", &cmdline)) {
    return std::string();
  }
  const std::string argv0 = cmdline.substr(0, cmdline.find('\0'));
  const size_t slash = argv0.rfind('/');
  return slash == std::string::npos ? argv0 : argv0.substr(slash + 1);
}

}  // namespace

std::vector<pid_t> ProcessHandler::getProcessIDs() const {
  std::vector<pid_t> pids;
  if (m_name.empty()) {
    return pids;
  }
  DIR* proc = opendir("/proc");
  if (proc == nullptr) {
    return pids;
  }
  const pid_t self = getpid();
  while (const struct dirent* entry = readdir(proc)) {
    if (!CmnText::allDigits(entry->d_name)) {
      continue;
    }
    const pid_t pid = static_cast<pid_t>(std::strtol(entry->d_name, nullptr, 10));
    if (pid == self) {
      continue;
    }
    const std::string dir = std::string("/proc/") + entry->d_name;
    if (commandName(dir) != m_name && argv0BaseName(dir) != m_name) {
      continue;
    }
    const char state = processState(dir);
    if (state == 'Z' || state == 'X' || state == '?') {
      continue;
    }
    pids.push_back(pid);
  }
  closedir(proc);
  std::sort(pids.begin(), pids.end());
  return pids;
}
