// A vrkms service for process-level tests: a private installation root with
// a master configuration naming this host as master server, a store made
// from passphrases, the built vrkms run with "-console" on a free loopback
// port, and vrkmsctl run against it.
//
// Tests that use it run a process named vrkms: their suite names start with
// "Vrkms" (RESOURCE_LOCK vrkms_process).
#pragma once

#include <arpa/inet.h>
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

#include "kms/server/keystore/FileKeyStore.h"
#include "kms/server/keystore/KMSFileLocator.h"
#include "support/ProcessRunner.h"
#include "support/TempRoot.h"

class ServiceSandbox {
 public:
  // The test process calls over TCP from loopback (vrkmsctl calls on the
  // local endpoint): that address holds every right of the service's table.
  static constexpr const char* kLoopbackGrant = "VRKMS_GRANT = 127.0.0.1 1,2,3,4,28,40\n";

  // `debugLevel` is the service's VRKMS_DEBUG_LEVEL.
  explicit ServiceSandbox(int debugLevel = 4) : m_port(freePort()), m_debugLevel(debugLevel) {
    writeConf("");
  }
  // Kills a service still running.
  ~ServiceSandbox() { kill(); }
  ServiceSandbox(const ServiceSandbox&) = delete;
  ServiceSandbox& operator=(const ServiceSandbox&) = delete;

  // Rewrites the master configuration: the fixed lines and `extra`.
  void writeConf(const std::string& extra) const {
    ::mkdir(m_root.file("etc").c_str(), 0700);
    std::ofstream(m_root.file("etc/vr.conf"), std::ios::trunc)
        << "SERVER = localhost\n"
        << "KMS_DIR = " << m_root.file("kms") << "\n"
        << "VRKMS_ENDPOINT = giop:tcp:127.0.0.1:" << m_port << "\n"
        << "VRKMS_DEBUG_LEVEL = " << m_debugLevel << "\n"
        << kLoopbackGrant << extra;
  }

  // Makes the store (HMK id "hmk-1", KPK id "kpk-1"); false when it cannot.
  bool makeStore() const {
    Vaultrest::DL::KMS::FileKeyStore::g_fips_mode_disabled = true;
    Vaultrest::DL::KMS::FileKeyStore store(Vaultrest::DL::KMS::KMSFileLocator(m_root.file("kms")));
    return store.createEmpty("hmk passphrase", "hmk-1", "kpk passphrase", "kpk-1", false) == 0;
  }

  // Starts "vrkms -console" and waits until the manager is advertised;
  // false when vrkms ends first or takes too long.
  bool start() {
    launch({"-console"});
    return waitForAdvertisement();
  }

  // Starts vrkms with `args`, standard error to "stderr.txt" of the root,
  // without waiting for anything.
  void launch(const std::vector<std::string>& args) {
    ::unlink(iorPath().c_str());
    m_pid = ::fork();
    if (m_pid == 0) {
      ::setenv("VREST_ROOT", m_root.path().c_str(), 1);
      const int err = ::open(m_root.file("stderr.txt").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      ::dup2(err, 2);
      std::vector<char*> argv{const_cast<char*>(VRKMS_BINARY)};
      for (const std::string& arg : args) {
        argv.push_back(const_cast<char*>(arg.c_str()));
      }
      argv.push_back(nullptr);
      ::execv(VRKMS_BINARY, argv.data());
      ::_exit(127);
    }
  }

  // Waits until the manager is advertised; false if vrkms ends first or
  // takes a minute.
  bool waitForAdvertisement() {
    for (int i = 0; i < 3000 && m_pid > 0; ++i) {
      struct stat info;
      if (::stat(iorPath().c_str(), &info) == 0) {
        return true;
      }
      int status = 0;
      if (::waitpid(m_pid, &status, WNOHANG) == m_pid) {
        m_pid = -1;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
  }

  // The exit status of the launched vrkms once it ends (128 + signal for a
  // killed one), or -1 after `limit`.
  int waitForExit(std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (m_pid > 0 && std::chrono::steady_clock::now() < deadline) {
      int status = 0;
      if (::waitpid(m_pid, &status, WNOHANG) == m_pid) {
        m_pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return -1;
  }

  // Runs vrkms with `args` under the sandbox's root and waits for it.
  ProcessResult run(std::vector<std::string> args) const {
    return ProcessRunner(VRKMS_BINARY)
        .args(std::move(args))
        .env("VREST_ROOT", m_root.path())
        .timeout(std::chrono::seconds(60))
        .run();
  }

  // Runs "vrkms -terminate" and gives its exit status and that of the
  // service (-1 if it did not end).
  std::pair<int, int> terminate() {
    const ProcessResult stopper = run({"-terminate"});
    const int service = waitForExit(std::chrono::seconds(30));
    return {stopper.exited ? stopper.exitStatus : -1, service};
  }

  void kill() {
    if (m_pid > 0) {
      ::kill(m_pid, SIGKILL);
      ::waitpid(m_pid, nullptr, 0);
      m_pid = -1;
    }
  }

  // Runs vrkmsctl with `args` under the sandbox's root, so that it finds
  // the service through the master configuration.
  ProcessResult ctl(std::vector<std::string> args, const std::string& input = "") const {
    return ProcessRunner(VRKMSCTL_BINARY)
        .args(std::move(args))
        .env("VREST_ROOT", m_root.path())
        .stdinText(input)
        .timeout(std::chrono::seconds(120))
        .run();
  }

  // A file of the root with `text` in it; its path.
  std::string writeFile(const std::string& name, const std::string& text) const {
    std::ofstream(m_root.file(name), std::ios::trunc) << text;
    return m_root.file(name);
  }

  std::string readFile(const std::string& name) const {
    std::ifstream in(m_root.file(name));
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }

  std::string debugLog() const { return readFile("logs/vrkms/vrkms_debug.log"); }
  std::string appLog() const { return readFile("logs/vrkms/vrkms_app.log"); }
  std::string iorPath() const { return m_root.file("var/vrkms/KMS.KMSMgr.ior"); }
  std::string pidPath() const { return m_root.file("var/vrkms/vrkms.pid"); }
  std::string reference() const {
    return "corbaloc::127.0.0.1:" + std::to_string(m_port) + "/KMS.KMSMgr";
  }
  int port() const { return m_port; }
  pid_t pid() const { return m_pid; }
  const TempRoot& root() const { return m_root; }

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
  TempRoot m_root{"vrkms-ctl"};
  int m_port;
  int m_debugLevel;
  pid_t m_pid = -1;
};
