// The process side of a service: detaching from the terminal, the pid file
// that tells a later "-terminate" whom to stop, and that stop.
//
// All of it runs on the main thread before the ORB starts (or, for
// terminate, in a process that never starts one).
#pragma once

#include <sys/types.h>

#include <string>

namespace Ardentis {
namespace Vaultrest {
namespace TL {
namespace Framework {

class ServiceProcess {
 public:
  // Detaches the process: fork, new session, fork again; the daemon's
  // working directory is "/" and its standard streams are /dev/null.
  // Returns true in the daemon, with *readyFd open for reportReady. Returns
  // false in the original process once the daemon has reported (or
  // `waitSeconds` passed, or it died), with *startStatus what it reported
  // (1 when it reported nothing). Only call while the process has one thread.
  static bool daemonize(int waitSeconds, int* readyFd, int* startStatus);
  // Tells the waiting original process how the start went, and closes `fd`.
  // Does nothing for fd -1.
  static void reportReady(int fd, int status);

  // Writes this process's id to `path` (the directory is created). Returns
  // 0, or -1 when the file names another live process of `name` (or cannot
  // be written). A stale file is replaced.
  static int writePidFile(const std::string& path, const std::string& name);
  // Removes `path` if it still names this process.
  static void removePidFile(const std::string& path);
  // The id in `path`, or -1.
  static pid_t readPidFile(const std::string& path);

  // Whether `pid` is a live (not zombie) process named `name`.
  static bool isLiveProcess(pid_t pid, const std::string& name);

  // Stops the service of `name` whose id is in `pidFile`: SIGTERM, then
  // waits up to `timeoutSeconds` for it to end. Returns 0 when it ended, 1
  // when no such service runs or it did not end in time.
  static int terminate(const std::string& pidFile, const std::string& name, int timeoutSeconds);
};

}  // namespace Framework
}  // namespace TL
}  // namespace Vaultrest
}  // namespace Ardentis
