// A vrkms installation for process-level tests: a private root whose master
// configuration names this host as master server, the service on a free
// loopback port, vrkms and vrkmsctl each behind an optional command prefix
// (nsenter, setpriv). Suites that run vrkms are named Vrkms* (RESOURCE_LOCK).
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <iterator>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "support/ProcessRunner.h"
#include "support/TempRoot.h"

// Reading what vrkmsctl printed.
namespace CtlOutput {

// The first member `name` of a JSON text: a string's content (escapes as
// they are) or a number's text; "<absent>" when there is none.
inline std::string jsonField(const std::string& json, const std::string& name) {
  const std::string key = "\"" + name + "\":";
  size_t at = json.find(key);
  if (at == std::string::npos)
    return "<absent>";
  at += key.size();
  if (json[at] == '"')
    return json.substr(at + 1, json.find('"', at + 1) - at - 1);
  return json.substr(at, json.find_first_of(",}]", at) - at);
}

// How often `part` stands in `text` (overlapping places counted).
inline size_t countOf(const std::string& text, const std::string& part) {
  size_t n = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
    ++n;
  }
  return n;
}

inline void expectFields(const std::string& json,
                         const std::map<std::string, std::string>& fields) {
  for (const auto& [name, value] : fields) {
    EXPECT_EQ(jsonField(json, name), value) << name << " in " << json;
  }
}

inline bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}
inline bool startsWith(const std::string& text, const std::string& part) {
  return text.rfind(part, 0) == 0;
}

}  // namespace CtlOutput

class ServiceSandbox {
 public:
  // The test process calls over TCP from loopback: every right of the table.
  static constexpr const char* kLoopbackGrant = "VRKMS_GRANT = 127.0.0.1 1,2,3,4,28,40\n";

  explicit ServiceSandbox(int debugLevel = 9, std::vector<std::string> prefix = {})
      : m_prefix(std::move(prefix)), m_port(freePort()), m_debugLevel(debugLevel) {
    ::mkdir(m_root.file("etc").c_str(), 0700);
    writeConf(kLoopbackGrant);
  }
  ~ServiceSandbox() { kill(); }
  ServiceSandbox(const ServiceSandbox&) = delete;
  ServiceSandbox& operator=(const ServiceSandbox&) = delete;
  // The master configuration: the store at kmsDir(), the endpoint, `extra`.
  void writeConf(const std::string& extra) const {
    writePrivate("etc/vr.conf",
                 "SERVER = localhost\nKMS_DIR = " + m_kmsDir +
                     "\nVRKMS_ENDPOINT = giop:tcp:127.0.0.1:" + std::to_string(m_port) +
                     "\nVRKMS_DEBUG_LEVEL = " + std::to_string(m_debugLevel) + "\n" + extra);
  }
  void setKmsDir(const std::string& dir, const std::string& extra = kLoopbackGrant) {
    m_kmsDir = dir;
    writeConf(extra);
  }
  const std::string& kmsDir() const { return m_kmsDir; }
  // A store with random master keys ("hmk-1", "kpk-1").
  bool makeStore() const {
    const ProcessResult r = run({"-createemptydb", "-randomhmk", "-randomkpk", "-hmkid", "hmk-1",
                                 "-kpkid", "kpk-1", "-overwrite"});
    return r.exited && r.exitStatus == 0;
  }

  ProcessResult run(const std::vector<std::string>& args, const std::string& input = "") const {
    return runner(VRKMS_BINARY, args).stdinText(input).run();
  }
  ProcessResult ctl(const std::vector<std::string>& args, const std::string& input = "") const {
    return runner(VRKMSCTL_BINARY, args).stdinText(input).run();
  }
  // vrkmsctl `args`, which must succeed; its output.
  std::string ok(const std::vector<std::string>& args) const {
    const ProcessResult r = ctl(args);
    EXPECT_EQ(r.exitStatus, 0) << ::testing::PrintToString(args) << r.out << r.err;
    return r.out;
  }
  std::string json(std::vector<std::string> args) const {
    args.insert(args.begin(), "--json");
    return ok(args);
  }
  // vrkmsctl `args`, which the service must refuse with `code`.
  void refused(const std::vector<std::string>& args, int code) const {
    const ProcessResult r = ctl(args);
    EXPECT_EQ(r.exitStatus, 1) << ::testing::PrintToString(args) << r.out;
    EXPECT_EQ(r.err.rfind("error " + std::to_string(code) + ": ", 0), 0u) << r.err;
  }
  // Starts "vrkms -console" until the manager is advertised; false when the
  // service ends or takes a minute.
  bool start() {
    ::unlink(iorPath().c_str());
    launch({"-console"});
    for (int i = 0; i < 3000 && m_pid > 0; ++i) {
      if (::access(iorPath().c_str(), F_OK) == 0)
        return true;
      reap(WNOHANG);
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    kill();
    return false;
  }
  // Starts vrkms with `args`, standard error to stderrText(), and returns.
  void launch(const std::vector<std::string>& args) {
    m_exit = -1;
    std::vector<std::string> words = m_prefix;
    words.push_back(VRKMS_BINARY);
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& word : words) {
      argv.push_back(&word[0]);
    }
    argv.push_back(nullptr);
    const std::string errPath = m_root.file("stderr.txt");
    m_pid = ::fork();
    if (m_pid == 0) {
      ::setenv("VREST_ROOT", m_root.path().c_str(), 1);
      ::dup2(::open(errPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600), 2);
      ::execvp(argv[0], argv.data());
      ::_exit(127);
    }
  }
  // Whether the launched vrkms has ended; left unreaped (its pid not reused).
  bool ended() const {
    siginfo_t info{};
    return m_pid > 0 &&
           ::waitid(P_PID, static_cast<id_t>(m_pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid == m_pid;
  }
  // The launched vrkms's exit status (128 + signal), or -1 after `limit`.
  int waitForExit(std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (m_pid > 0 && std::chrono::steady_clock::now() < deadline) {
      reap(WNOHANG);
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return m_pid > 0 ? -1 : m_exit;
  }
  // "vrkms -terminate": its exit status and the service's (-1: not ended).
  std::pair<int, int> terminate() {
    const ProcessResult stopper = run({"-terminate"});
    const int service = waitForExit(std::chrono::seconds(30));
    return {stopper.exited ? stopper.exitStatus : -1, service};
  }

  void kill() {
    if (m_pid > 0) {
      ::kill(m_pid, SIGKILL);
      reap(0);
    }
  }
  // A file of the root, private to its owner, holding `text`; its path.
  std::string writePrivate(const std::string& name, const std::string& text) const {
    const std::string path = m_root.file(name);
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd >= 0) {
      static_cast<void>(::write(fd, text.data(), text.size()));
      ::close(fd);
    }
    return path;
  }

  std::string path(const std::string& name) const { return m_root.file(name); }
  std::string readFile(const std::string& name) const { return ::readFile(m_root.file(name)); }
  std::string debugLog() const { return readFile("logs/vrkms/vrkms_debug.log"); }
  std::string appLog() const { return readFile("logs/vrkms/vrkms_app.log"); }
  std::string stderrText() const { return readFile("stderr.txt"); }
  std::string iorPath() const { return m_root.file("var/vrkms/KMS.KMSMgr.ior"); }
  std::string pidPath() const { return m_root.file("var/vrkms/vrkms.pid"); }
  std::string reference() const {
    return "corbaloc::127.0.0.1:" + std::to_string(m_port) + "/KMS.KMSMgr";
  }
  const TempRoot& root() const { return m_root; }
  pid_t pid() const { return m_pid; }
  int port() const { return m_port; }

  // Every path under `dir`, each directory before what it holds.
  static std::vector<std::string> walk(const std::string& dir) {
    std::vector<std::string> found;
    std::error_code ec;
    const auto options = std::filesystem::directory_options::skip_permission_denied;
    for (std::filesystem::recursive_directory_iterator it(dir, options, ec), end; !ec && it != end;
         it.increment(ec)) {
      found.push_back(it->path().string());
    }
    return found;
  }
  // Every regular file under `dir` by its relative path, with its bytes.
  static std::map<std::string, std::string> snapshot(const std::string& dir) {
    std::map<std::string, std::string> files;
    for (const std::string& path : walk(dir)) {
      struct stat info;
      if (::lstat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode))
        files[path.substr(dir.size() + 1)] = ::readFile(path);
    }
    return files;
  }
  // A TCP connection from `from` to `port` on 127.0.0.1; -1 if refused.
  static int connectTo(int port, const char* from = "127.0.0.1") {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    ::inet_pton(AF_INET, from, &address.sin_addr);
    ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    address.sin_port = htons(static_cast<uint16_t>(port));
    ::inet_pton(AF_INET, "127.0.0.1", &address.sin_addr);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0)
      return fd;
    ::close(fd);
    return -1;
  }
  // A socket bound to a free loopback port (listening when `listening`).
  static int bindLoopback(int* port, bool listening) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ::bind(fd, reinterpret_cast<sockaddr*>(&address), length);
    if (listening)
      ::listen(fd, 4);
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    *port = ntohs(address.sin_port);
    return fd;
  }
  // A loopback port that nothing listens on at the moment.
  static int freePort() {
    int port = 0;
    ::close(bindLoopback(&port, false));
    return port;
  }

  ProcessRunner runner(const std::string& program, const std::vector<std::string>& args) const {
    std::vector<std::string> all(m_prefix.begin() + (m_prefix.empty() ? 0 : 1), m_prefix.end());
    if (!m_prefix.empty())
      all.push_back(program);
    all.insert(all.end(), args.begin(), args.end());
    return ProcessRunner(m_prefix.empty() ? program : m_prefix.front())
        .args(std::move(all))
        .env("VREST_ROOT", m_root.path())
        .timeout(std::chrono::seconds(120));
  }

 private:
  void reap(int options) {
    int status = 0;
    if (m_pid > 0 && ::waitpid(m_pid, &status, options) == m_pid) {
      m_pid = -1;
      m_exit = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
  }

  TempRoot m_root{"vrkms-sandbox"};
  std::vector<std::string> m_prefix;
  int m_port;
  int m_debugLevel;
  std::string m_kmsDir = m_root.file("kms");
  pid_t m_pid = -1;
  int m_exit = -1;
};
