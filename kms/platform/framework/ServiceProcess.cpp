#include "kms/platform/framework/ServiceProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>

#include "kms/platform/ProcessHandler.h"
#include "kms/platform/framework/FrameworkLog.h"

namespace Ardentis {
namespace Vaultrest {
namespace TL {
namespace Framework {

namespace {

bool makeParentDirectories(const std::string& path) {
  const size_t last = path.rfind('/');
  if (last == std::string::npos || last == 0) {
    return true;
  }
  for (size_t slash = path.find('/', 1); slash != std::string::npos && slash <= last;
       slash = path.find('/', slash + 1)) {
    const std::string part = path.substr(0, slash);
    if (::mkdir(part.c_str(), 0700) != 0 && errno != EEXIST) {
      return false;
    }
  }
  return true;
}

}  // namespace

bool ServiceProcess::daemonize(int waitSeconds, int* readyFd, int* startStatus) {
  FW_TRACE("ServiceProcess::daemonize");
  int fds[2];
  if (::pipe(fds) != 0) {
    *startStatus = 1;
    return false;
  }
  const pid_t child = ::fork();
  if (child < 0) {
    ::close(fds[0]);
    ::close(fds[1]);
    *startStatus = 1;
    return false;
  }
  if (child > 0) {
    ::close(fds[1]);
    int childStatus = 0;
    ::waitpid(child, &childStatus, 0);  // the first child ends at once
    pollfd wait{fds[0], POLLIN, 0};
    unsigned char status = 1;
    if (::poll(&wait, 1, waitSeconds * 1000) <= 0 || ::read(fds[0], &status, 1) != 1) {
      status = 1;
    }
    ::close(fds[0]);
    *startStatus = status;
    return false;
  }
  ::close(fds[0]);
  ::setsid();
  const pid_t daemon = ::fork();
  if (daemon != 0) {
    ::_exit(daemon < 0 ? 1 : 0);
  }
  if (::chdir("/") != 0) {
    FW_DEBUG("ServiceProcess::daemonize", 1, "Cannot change to /");
  }
  const int null = ::open("/dev/null", O_RDWR);
  if (null >= 0) {
    ::dup2(null, 0);
    ::dup2(null, 1);
    ::dup2(null, 2);
    if (null > 2) {
      ::close(null);
    }
  }
  *readyFd = fds[1];
  return true;
}

void ServiceProcess::reportReady(int fd, int status) {
  if (fd < 0) {
    return;
  }
  const unsigned char byte = static_cast<unsigned char>(std::min(std::max(status, 0), 255));
  if (::write(fd, &byte, 1) != 1) {
    FW_DEBUG("ServiceProcess::reportReady", 1, "The starting process is gone");
  }
  ::close(fd);
}

int ServiceProcess::writePidFile(const std::string& path, const std::string& name) {
  FW_TRACE("ServiceProcess::writePidFile");
  if (!makeParentDirectories(path)) {
    FW_DEBUG("ServiceProcess::writePidFile", 1, "Cannot create the directory of " << path);
    return -1;
  }
  for (int attempt = 0; attempt < 2; ++attempt) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600);
    if (fd >= 0) {
      const std::string text = std::to_string(::getpid()) + "\n";
      const bool written =
          ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
      ::close(fd);
      return written ? 0 : -1;
    }
    if (errno != EEXIST) {
      break;
    }
    const pid_t holder = readPidFile(path);
    if (holder > 0 && holder != ::getpid() && isLiveProcess(holder, name)) {
      FW_DEBUG("ServiceProcess::writePidFile", 1,
               "The " << name << " service already runs as process " << holder);
      return -1;
    }
    ::unlink(path.c_str());  // stale
  }
  FW_DEBUG("ServiceProcess::writePidFile", 1, "Cannot write " << path);
  return -1;
}

void ServiceProcess::removePidFile(const std::string& path) {
  if (readPidFile(path) == ::getpid()) {
    ::unlink(path.c_str());
  }
}

pid_t ServiceProcess::readPidFile(const std::string& path) {
  std::ifstream in(path);
  long pid = -1;
  if (!(in >> pid) || pid <= 0) {
    return -1;
  }
  return static_cast<pid_t>(pid);
}

bool ServiceProcess::isLiveProcess(pid_t pid, const std::string& name) {
  const std::vector<pid_t> live = ProcessHandler(name).getProcessIDs();
  return std::find(live.begin(), live.end(), pid) != live.end();
}

int ServiceProcess::terminate(const std::string& pidFile, const std::string& name,
                              int timeoutSeconds) {
  FW_TRACE("ServiceProcess::terminate");
  const pid_t pid = readPidFile(pidFile);
  if (pid <= 0 || !isLiveProcess(pid, name)) {
    FW_DEBUG("ServiceProcess::terminate", 1, "No " << name << " service is running");
    return 1;
  }
  FW_DEBUG("ServiceProcess::terminate", 1, "Stopping the " << name << " service, process " << pid);
  if (::kill(pid, SIGTERM) != 0) {
    FW_DEBUG("ServiceProcess::terminate", 1,
             "Cannot signal process " << pid << ", errno " << errno);
    return 1;
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeoutSeconds);
  while (std::chrono::steady_clock::now() < deadline) {
    if (!isLiveProcess(pid, name)) {
      FW_DEBUG("ServiceProcess::terminate", 1, "The " << name << " service has stopped");
      return 0;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  FW_DEBUG("ServiceProcess::terminate", 1,
           "The " << name << " service did not stop within " << timeoutSeconds << " seconds");
  return 1;
}

}  // namespace Framework
}  // namespace TL
}  // namespace Vaultrest
}  // namespace Ardentis
