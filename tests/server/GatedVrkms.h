// A vrkms installation for process-level tests that share the machine with
// other vrkms processes: a private root and master configuration, the
// administrator options, the service ("-console") and vrkmsctl, each run
// the way an administrator would run them.
//
// Only one vrkms may run on a host, and the gate that enforces it looks at
// every process named vrkms. An operation refused by that gate (1272 for an
// administrator option, a quiet exit for the service) is therefore retried
// until the other process has gone, for up to five minutes.
//
// Every program can be run behind a command prefix (for instance nsenter
// into a mount namespace); the prefix is fixed for the object's lifetime.
//
// Tests that use it run a process named vrkms: their suite names start with
// "Vrkms" (RESOURCE_LOCK vrkms_process).
#pragma once

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "support/ProcessRunner.h"
#include "support/TempRoot.h"

class GatedVrkms {
 public:
  // `prefix`: argv words put before every program this object runs.
  explicit GatedVrkms(std::vector<std::string> prefix = {})
      : m_prefix(std::move(prefix)), m_port(freePort()) {
    ::mkdir(m_root.file("etc").c_str(), 0700);
  }
  // Kills a service still running.
  ~GatedVrkms() { kill(); }
  GatedVrkms(const GatedVrkms&) = delete;
  GatedVrkms& operator=(const GatedVrkms&) = delete;

  // Rewrites the master configuration: the store at `kmsDir`, this host as
  // master server, the service on its own loopback port, and `extra`.
  void writeConf(const std::string& kmsDir, const std::string& extra = "") {
    m_kmsDir = kmsDir;
    writePrivate("etc/vr.conf", "SERVER = localhost\nKMS_DIR = " + kmsDir +
                                    "\nVRKMS_ENDPOINT = giop:tcp:127.0.0.1:" +
                                    std::to_string(m_port) + "\nVRKMS_DEBUG_LEVEL = 9\n" + extra);
  }
  // Rewrites only the lines after the fixed ones.
  void writeExtraConf(const std::string& extra) { writeConf(m_kmsDir, extra); }

  // Runs vrkms with an administrator option, waiting out another vrkms.
  ProcessResult admin(const std::vector<std::string>& args, const std::string& input = "") const {
    const auto deadline = std::chrono::steady_clock::now() + kGateWait;
    for (;;) {
      const ProcessResult r = runner(VRKMS_BINARY, args).stdinText(input).run();
      const bool gated = r.exited && r.exitStatus == 252 &&
                         r.err.find("EXIT STATUS = 1272\n") != std::string::npos;
      if (!gated || std::chrono::steady_clock::now() > deadline) {
        return r;
      }
      std::this_thread::sleep_for(std::chrono::seconds(1));
    }
  }

  // Starts vrkms with an administrator option on a terminal of its own and
  // returns at once (no waiting out another vrkms).
  RunningProcess adminOnTerminal(const std::vector<std::string>& args) const {
    return runner(VRKMS_BINARY, args).spawnOnTerminal();
  }

  // Starts "vrkms -console" and waits until the manager is advertised,
  // waiting out another vrkms; false when the service ends or takes too long.
  bool start() {
    const auto deadline = std::chrono::steady_clock::now() + kGateWait;
    for (;;) {
      ::unlink(iorPath().c_str());
      const size_t refusalsBefore = count(appLog(), kAlreadyRunning);
      m_pid = launch({"-console"});
      int status = -1;
      for (int i = 0; i < 3000; ++i) {
        struct stat info;
        if (::stat(iorPath().c_str(), &info) == 0) {
          return true;
        }
        if (::waitpid(m_pid, &status, WNOHANG) == m_pid) {
          m_pid = -1;
          break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
      }
      const bool gated = m_pid == -1 && WIFEXITED(status) && WEXITSTATUS(status) == 0 &&
                         count(appLog(), kAlreadyRunning) > refusalsBefore;
      if (!gated || std::chrono::steady_clock::now() > deadline) {
        kill();
        return false;
      }
      std::this_thread::sleep_for(std::chrono::seconds(1));
    }
  }

  // Runs "vrkms -terminate" and gives its exit status and that of the
  // service (-1 if it did not end).
  std::pair<int, int> terminate() {
    const ProcessResult stopper = runner(VRKMS_BINARY, {"-terminate"}).run();
    int service = -1;
    for (int i = 0; i < 1500 && m_pid > 0; ++i) {
      int status = 0;
      if (::waitpid(m_pid, &status, WNOHANG) == m_pid) {
        m_pid = -1;
        service = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return {stopper.exited ? stopper.exitStatus : -1, service};
  }

  void kill() {
    if (m_pid > 0) {
      ::kill(m_pid, SIGKILL);
      ::waitpid(m_pid, nullptr, 0);
      m_pid = -1;
    }
  }

  // Runs vrkmsctl; it finds the service through the master configuration.
  ProcessResult ctl(const std::vector<std::string>& args, const std::string& input = "") const {
    return runner(VRKMSCTL_BINARY, args).stdinText(input).run();
  }

  // A file of the root, readable by its owner only, with `text` in it; its
  // path.
  std::string writePrivate(const std::string& name, const std::string& text) const {
    const std::string path = m_root.file(name);
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd >= 0) {
      const ssize_t written = ::write(fd, text.data(), text.size());
      static_cast<void>(written);
      ::close(fd);
    }
    return path;
  }

  std::string readFile(const std::string& name) const { return readPath(m_root.file(name)); }
  std::string debugLog() const { return readFile("logs/vrkms/vrkms_debug.log"); }
  std::string appLog() const { return readFile("logs/vrkms/vrkms_app.log"); }
  // What the service wrote on standard error.
  std::string stderrText() const { return readFile("stderr.txt"); }
  std::string reference() const {
    return "corbaloc::127.0.0.1:" + std::to_string(m_port) + "/KMS.KMSMgr";
  }
  const TempRoot& root() const { return m_root; }
  pid_t pid() const { return m_pid; }
  int port() const { return m_port; }
  std::string iorPath() const { return m_root.file("var/vrkms/KMS.KMSMgr.ior"); }

  static std::string readPath(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }

  // Every path under `dir` (files and directories, not `dir` itself), each
  // directory before what it holds.
  static std::vector<std::string> walk(const std::string& dir) {
    std::vector<std::string> found;
    DIR* stream = ::opendir(dir.c_str());
    if (stream == nullptr) {
      return found;
    }
    while (const dirent* entry = ::readdir(stream)) {
      const std::string name = entry->d_name;
      if (name == "." || name == "..") {
        continue;
      }
      const std::string path = dir + "/" + name;
      found.push_back(path);
      struct stat info;
      if (::lstat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) {
        const std::vector<std::string> below = walk(path);
        found.insert(found.end(), below.begin(), below.end());
      }
    }
    ::closedir(stream);
    return found;
  }

  static size_t count(const std::string& text, const std::string& part) {
    size_t n = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
      ++n;
    }
    return n;
  }

  // A loopback port that nothing listens on at the moment.
  static int freePort() {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    socklen_t length = sizeof address;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    ::close(fd);
    return ntohs(address.sin_port);
  }

 private:
  static constexpr std::chrono::minutes kGateWait{5};
  static constexpr const char* kAlreadyRunning = "286-31 ";

  ProcessRunner runner(const std::string& program, const std::vector<std::string>& args) const {
    std::vector<std::string> all(m_prefix.begin() + (m_prefix.empty() ? 0 : 1), m_prefix.end());
    if (!m_prefix.empty()) {
      all.push_back(program);
    }
    all.insert(all.end(), args.begin(), args.end());
    return ProcessRunner(m_prefix.empty() ? program : m_prefix.front())
        .args(std::move(all))
        .env("VREST_ROOT", m_root.path())
        .timeout(std::chrono::seconds(120));
  }

  // Starts the service with its standard error in a file of the root.
  pid_t launch(const std::vector<std::string>& args) const {
    std::vector<std::string> words = m_prefix;
    words.push_back(VRKMS_BINARY);
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& word : words) {
      argv.push_back(&word[0]);
    }
    argv.push_back(nullptr);
    const std::string errPath = m_root.file("stderr.txt");
    const pid_t pid = ::fork();
    if (pid == 0) {
      ::setenv("VREST_ROOT", m_root.path().c_str(), 1);
      const int err = ::open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      ::dup2(err, 2);
      ::execvp(argv[0], argv.data());
      ::_exit(127);
    }
    return pid;
  }

  TempRoot m_root{"vrkms-gated"};
  std::vector<std::string> m_prefix;
  int m_port;
  std::string m_kmsDir;
  pid_t m_pid = -1;
};
