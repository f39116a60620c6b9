// The built vrkms as a service: started under a private installation root on
// a loopback port of its own, reached by a client through corbaloc, judged
// by its peer rules, and stopped by signal and by "-terminate".
//
// These tests run a process named vrkms; CTest keeps them apart from every
// other such test (RESOURCE_LOCK vrkms_process).
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include <KMS.h>

#include "kms/platform/ProcessHandler.h"
#include "kms/platform/framework/ClientVersionInterceptor.h"
#include "kms/server/keystore/FileKeyStore.h"
#include "kms/server/keystore/KMSFileLocator.h"
#include "server/OrbTestSupport.h"
#include "support/ProcessRunner.h"
#include "support/TempRoot.h"

namespace Fw = Ardentis::Vaultrest::TL::Framework;
namespace Remote = Ardentis::Vaultrest::DL::KMS;
namespace Store = Vaultrest::DL::KMS;
using namespace std::chrono_literals;

namespace {

// A loopback port that nothing listens on at the moment.
int freePort() {
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

bool canConnect(int port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<uint16_t>(port));
  const bool connected = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  ::close(fd);
  return connected;
}

bool exists(const std::string& path) {
  struct stat info;
  return ::stat(path.c_str(), &info) == 0;
}

std::string readFile(const std::string& path) {
  std::ifstream in(path);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

class VrkmsService : public ::testing::Test {
 protected:
  void SetUp() override {
    m_port = freePort();
    writeConf("");
    Store::FileKeyStore::g_fips_mode_disabled = true;
    Store::FileKeyStore store(Store::KMSFileLocator(m_root.file("kms")));
    m_storeMade =
        store.createEmpty("hmk passphrase", "hmk-1", "kpk passphrase", "kpk-1", false) == 0;
  }

  void TearDown() override {
    if (m_pid > 0) {
      ::kill(m_pid, SIGKILL);
      ::waitpid(m_pid, nullptr, 0);
    }
    // A daemon left behind by a failed test.
    std::ifstream in(pidPath());
    long daemon = 0;
    if (in >> daemon && daemon > 0) {
      const std::vector<pid_t> running = ProcessHandler("vrkms").getProcessIDs();
      if (std::find(running.begin(), running.end(), daemon) != running.end()) {
        ::kill(static_cast<pid_t>(daemon), SIGKILL);
      }
    }
  }

  void writeConf(const std::string& extra) const {
    ::mkdir(m_root.file("etc").c_str(), 0700);
    std::ofstream(m_root.file("etc/vr.conf"), std::ios::trunc)
        << "SERVER = localhost\n"
        << "KMS_DIR = " << m_root.file("kms") << "\n"
        << "VRKMS_ENDPOINT = giop:tcp:127.0.0.1:" << m_port << "\n"
        << "VRKMS_DEBUG_LEVEL = 6\n"
        << extra;
  }

  // Starts vrkms with `args`, standard error to a file of the root.
  void start(const std::vector<std::string>& args) {
    m_pid = ::fork();
    ASSERT_GE(m_pid, 0);
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

  // The exit status of the started vrkms once it ends, or -1 after `limit`.
  int waitForExit(std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < deadline) {
      int status = 0;
      if (::waitpid(m_pid, &status, WNOHANG) == m_pid) {
        m_pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      }
      std::this_thread::sleep_for(20ms);
    }
    return -1;
  }

  // Waits until the manager is advertised; false if vrkms ends first.
  bool waitForAdvertisement() {
    for (int i = 0; i < 1500; ++i) {
      if (exists(iorPath())) {
        return true;
      }
      int status = 0;
      if (m_pid > 0 && ::waitpid(m_pid, &status, WNOHANG) == m_pid) {
        m_pid = -1;
        return false;
      }
      std::this_thread::sleep_for(20ms);
    }
    return false;
  }

  ProcessResult run(std::vector<std::string> args) const {
    return ProcessRunner(VRKMS_BINARY)
        .args(std::move(args))
        .env("VREST_ROOT", m_root.path())
        .timeout(60s)
        .run();
  }

  CORBA::Object_ptr manager() const {
    const std::string where = "corbaloc::127.0.0.1:" + std::to_string(m_port) + "/KMS.KMSMgr";
    return testOrb()->string_to_object(where.c_str());
  }

  std::string iorPath() const { return m_root.file("var/vrkms/KMS.KMSMgr.ior"); }
  std::string pidPath() const { return m_root.file("var/vrkms/vrkms.pid"); }
  std::string debugLog() const { return readFile(m_root.file("logs/vrkms/vrkms_debug.log")); }
  std::string appLog() const { return readFile(m_root.file("logs/vrkms/vrkms_app.log")); }

  TempRoot m_root{"vrkms-svc"};
  int m_port = 0;
  bool m_storeMade = false;
  pid_t m_pid = -1;
};

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// Calls `call`; the system exception's name, "" for none, or the
// ServiceException's error code as "ServiceException <code>".
template <typename Call>
std::string outcome(Call&& call) {
  try {
    call();
    return "";
  } catch (const Fw::ServiceException& e) {
    const Fw::ErrorCodeExceptionDetails* details =
        Fw::ErrorCodeExceptionDetails::_downcast(e.details.in());
    return "ServiceException " + (details ? std::to_string(details->errorCode()) : "?");
  } catch (const CORBA::SystemException& e) {
    return e._name();
  }
}

}  // namespace

TEST_F(VrkmsService, ConsoleServiceAdvertisesTheManagerJudgesPeersAndStopsOnSigterm) {
  start({"-console"});
  if (!m_storeMade) {
    // Without a store the service refuses to go live; see the next test.
    EXPECT_EQ(waitForExit(60s), 1);
    GTEST_SKIP() << "no store could be made here";
  }
  ASSERT_TRUE(waitForAdvertisement()) << readFile(m_root.file("stderr.txt")) << debugLog();
  EXPECT_EQ(readFile(pidPath()), std::to_string(m_pid) + "\n");
  EXPECT_EQ(readFile(iorPath()).substr(0, 4), "IOR:");

  testOrb();  // interceptors belong to an initialised ORB
  Fw::ClientVersionInterceptor::install(9, 1, 2);
  CORBA::Object_var object = manager();
  EXPECT_FALSE(object->_non_existent());
  EXPECT_TRUE(object->_is_a("IDL:Ardentis/Vaultrest/DL/KMS/KMSMgr:1.0"));
  Remote::KMSMgr_var mgr = Remote::KMSMgr::_narrow(object.in());
  ASSERT_FALSE(CORBA::is_nil(mgr.in()));
  EXPECT_EQ(outcome([&] { Remote::QueryableFacet_var f = mgr->getQueryableFacet(); }), "");
  EXPECT_EQ(outcome([&] { Remote::EximFacet_var f = mgr->getEximFacet(); }),
            "ServiceException 1200");
  EXPECT_TRUE(
      contains(debugLog(), "Found Peer Version Information in TSS,  Major 9 Minor 1 Patch 2"))
      << debugLog();
  Fw::ClientVersionInterceptor::remove();
  EXPECT_EQ(outcome([&] { Remote::ControlFacet_var f = mgr->getControlFacet(); }), "");
  EXPECT_TRUE(contains(debugLog(), "Did not find Peer Version Information in TSS"));

  // Rights come from the master configuration, read anew for each request.
  writeConf("VRKMS_GRANT = * 5\n");
  EXPECT_EQ(outcome([&] { Remote::QueryableFacet_var f = mgr->getQueryableFacet(); }),
            "NO_PERMISSION");
  EXPECT_EQ(outcome([&] { Remote::EximFacet_var f = mgr->getEximFacet(); }),
            "ServiceException 1200");  // no row: one right is enough
  writeConf("VRKMS_GRANT = 192.0.2.1 1,2,3,28,40\n");
  EXPECT_EQ(outcome([&] { Remote::EximFacet_var f = mgr->getEximFacet(); }), "NO_PERMISSION");
  EXPECT_EQ(outcome([&] { mgr->_non_existent(); }), "");  // built-in: no right needed
  EXPECT_TRUE(contains(debugLog(),
                       "Refused Ardentis/Vaultrest/DL/KMS/KMSMgr_getQueryableFacet to peer "
                       "giop:tcp:127.0.0.1:"))
      << debugLog();

  // A blocked media server gets nothing; this host is no master once the
  // first SERVER is another.
  std::ofstream(m_root.file("etc/vr.conf"), std::ios::trunc)
      << "SERVER = 192.0.2.1\nSERVER = localhost\nVRKMS_BLOCK_MEDIA = YES\n";
  EXPECT_EQ(outcome([&] { Remote::ControlFacet_var f = mgr->getControlFacet(); }), "NO_PERMISSION");
  writeConf("");
  EXPECT_EQ(outcome([&] { Remote::ControlFacet_var f = mgr->getControlFacet(); }), "");

  // SIGTERM stops the service in order; the store is shut down, nothing is
  // written, and the run files go.
  const std::string storeBefore = readFile(m_root.file("kms/db/KMS_DATA.dat"));
  ASSERT_EQ(::kill(m_pid, SIGTERM), 0);
  EXPECT_EQ(waitForExit(30s), 0) << debugLog();
  EXPECT_FALSE(exists(pidPath()));
  EXPECT_FALSE(exists(iorPath()));
  EXPECT_FALSE(canConnect(m_port));
  EXPECT_EQ(readFile(m_root.file("kms/db/KMS_DATA.dat")), storeBefore);
  const std::string log = debugLog();
  EXPECT_TRUE(contains(log, "The vrkms service has stopped")) << log;
  EXPECT_FALSE(contains(log, "KeyStore->shutdown() returned")) << log;
  EXPECT_TRUE(contains(log, "vrkms_main: startServiceContainer returned 0")) << log;
}

TEST_F(VrkmsService, DaemonStartsDetachedAndTerminateStopsIt) {
  if (!m_storeMade) {
    GTEST_SKIP() << "no store could be made here";
  }
  const ProcessResult started = run({});
  ASSERT_TRUE(started.exited) << started.err;
  ASSERT_EQ(started.exitStatus, 0) << started.err << debugLog();
  const pid_t daemon = static_cast<pid_t>(std::stol(readFile(pidPath())));
  EXPECT_NE(daemon, 0);
  const std::vector<pid_t> running = ProcessHandler("vrkms").getProcessIDs();
  ASSERT_NE(std::find(running.begin(), running.end(), daemon), running.end());
  CORBA::Object_var object = manager();
  EXPECT_FALSE(object->_non_existent());

  // While it runs, a second start is refused at the gate, quietly.
  const ProcessResult second = run({"-console"});
  EXPECT_EQ(second.exitStatus, 0);
  EXPECT_TRUE(contains(appLog(), "286-31 vrkms_main: ")) << appLog();

  const ProcessResult terminated = run({"-terminate"});
  ASSERT_TRUE(terminated.exited);
  EXPECT_EQ(terminated.exitStatus, 0) << debugLog();
  const std::vector<pid_t> after = ProcessHandler("vrkms").getProcessIDs();
  EXPECT_EQ(std::find(after.begin(), after.end(), daemon), after.end());
  EXPECT_FALSE(exists(pidPath()));
  EXPECT_FALSE(canConnect(m_port));

  // Nothing left to stop.
  const ProcessResult again = run({"-terminate"});
  EXPECT_EQ(again.exitStatus, 1);
  EXPECT_TRUE(contains(debugLog(), "No vrkms service is running"));
}

TEST_F(VrkmsService, WithoutAStoreTheServiceRefusesToGoLive) {
  // The store directory is one where nothing was ever made.
  std::ofstream(m_root.file("etc/vr.conf"), std::ios::trunc)
      << "SERVER = localhost\nKMS_DIR = " << m_root.file("empty") << "\n"
      << "VRKMS_ENDPOINT = giop:tcp:127.0.0.1:" << m_port << "\n";
  start({"-console"});
  EXPECT_EQ(waitForExit(60s), 1);
  EXPECT_FALSE(exists(iorPath()));
  EXPECT_FALSE(exists(pidPath()));
  EXPECT_FALSE(canConnect(m_port));
  EXPECT_TRUE(contains(appLog(), "286-38 ")) << appLog();
  EXPECT_TRUE(contains(appLog(), "286-34 ")) << appLog();
  EXPECT_TRUE(contains(debugLog(), "The directive \"static KMSMgrService\" failed"));
  EXPECT_TRUE(contains(debugLog(), "vrkms_main: startServiceContainer returned 1"));
}
