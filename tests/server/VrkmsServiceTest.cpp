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
#include "server/ServiceSandbox.h"
#include "support/ProcessRunner.h"
#include "support/TempRoot.h"

namespace Fw = Ardentis::Vaultrest::TL::Framework;
namespace Remote = Ardentis::Vaultrest::DL::KMS;
namespace Store = Vaultrest::DL::KMS;
using namespace std::chrono_literals;

namespace {

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

class VrkmsService : public ::testing::Test {
 protected:
  VrkmsService() : m_box(6), m_storeMade(m_box.makeStore()) {}

  void TearDown() override {
    // A daemon left behind by a failed test.
    std::ifstream in(m_box.pidPath());
    long daemon = 0;
    if (in >> daemon && daemon > 0) {
      const std::vector<pid_t> running = ProcessHandler("vrkms").getProcessIDs();
      if (std::find(running.begin(), running.end(), daemon) != running.end()) {
        ::kill(static_cast<pid_t>(daemon), SIGKILL);
      }
    }
  }

  CORBA::Object_ptr manager() const {
    return testOrb()->string_to_object(m_box.reference().c_str());
  }
  std::string file(const std::string& name) const { return m_box.readFile(name); }

  ServiceSandbox m_box;
  bool m_storeMade;
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
  m_box.launch({"-console"});
  if (!m_storeMade) {
    // Without a store the service refuses to go live; see the next test.
    EXPECT_EQ(m_box.waitForExit(60s), 1);
    GTEST_SKIP() << "no store could be made here";
  }
  ASSERT_TRUE(m_box.waitForAdvertisement()) << file("stderr.txt") << m_box.debugLog();
  EXPECT_EQ(file("var/vrkms/vrkms.pid"), std::to_string(m_box.pid()) + "\n");
  EXPECT_EQ(file("var/vrkms/KMS.KMSMgr.ior").substr(0, 4), "IOR:");

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
      contains(m_box.debugLog(), "Found Peer Version Information in TSS,  Major 9 Minor 1 Patch 2"))
      << m_box.debugLog();
  Fw::ClientVersionInterceptor::remove();
  EXPECT_EQ(outcome([&] { Remote::ControlFacet_var f = mgr->getControlFacet(); }), "");
  EXPECT_TRUE(contains(m_box.debugLog(), "Did not find Peer Version Information in TSS"));

  // A blocked media server gets nothing; this host is no master once the
  // first SERVER is another.
  std::ofstream(m_box.root().file("etc/vr.conf"), std::ios::trunc)
      << "SERVER = 192.0.2.1\nSERVER = localhost\nVRKMS_BLOCK_MEDIA = YES\n";
  EXPECT_EQ(outcome([&] { Remote::ControlFacet_var f = mgr->getControlFacet(); }), "NO_PERMISSION");
  m_box.writeConf("");
  EXPECT_EQ(outcome([&] { Remote::ControlFacet_var f = mgr->getControlFacet(); }), "");

  // SIGTERM stops the service in order; the store is shut down, nothing is
  // written, and the run files go.
  const std::string storeBefore = file("kms/db/KMS_DATA.dat");
  ASSERT_EQ(::kill(m_box.pid(), SIGTERM), 0);
  EXPECT_EQ(m_box.waitForExit(30s), 0) << m_box.debugLog();
  EXPECT_FALSE(exists(m_box.pidPath()));
  EXPECT_FALSE(exists(m_box.iorPath()));
  EXPECT_FALSE(canConnect(m_box.port()));
  EXPECT_EQ(file("kms/db/KMS_DATA.dat"), storeBefore);
  const std::string log = m_box.debugLog();
  EXPECT_TRUE(contains(log, "The vrkms service has stopped")) << log;
  EXPECT_FALSE(contains(log, "KeyStore->shutdown() returned")) << log;
  EXPECT_TRUE(contains(log, "vrkms_main: startServiceContainer returned 0")) << log;
}

TEST_F(VrkmsService, DaemonStartsDetachedAndTerminateStopsIt) {
  if (!m_storeMade) {
    GTEST_SKIP() << "no store could be made here";
  }
  const ProcessResult started = m_box.run({});
  ASSERT_TRUE(started.exited) << started.err;
  ASSERT_EQ(started.exitStatus, 0) << started.err << m_box.debugLog();
  const pid_t daemon = static_cast<pid_t>(std::stol(file("var/vrkms/vrkms.pid")));
  EXPECT_NE(daemon, 0);
  const std::vector<pid_t> running = ProcessHandler("vrkms").getProcessIDs();
  ASSERT_NE(std::find(running.begin(), running.end(), daemon), running.end());
  CORBA::Object_var object = manager();
  EXPECT_FALSE(object->_non_existent());

  // While it runs, a second start is refused at the gate, quietly.
  const ProcessResult second = m_box.run({"-console"});
  EXPECT_EQ(second.exitStatus, 0);
  EXPECT_TRUE(contains(m_box.appLog(), "286-31 vrkms_main: ")) << m_box.appLog();

  const ProcessResult terminated = m_box.run({"-terminate"});
  ASSERT_TRUE(terminated.exited);
  EXPECT_EQ(terminated.exitStatus, 0) << m_box.debugLog();
  const std::vector<pid_t> after = ProcessHandler("vrkms").getProcessIDs();
  EXPECT_EQ(std::find(after.begin(), after.end(), daemon), after.end());
  EXPECT_FALSE(exists(m_box.pidPath()));
  EXPECT_FALSE(canConnect(m_box.port()));

  // Nothing left to stop.
  const ProcessResult again = m_box.run({"-terminate"});
  EXPECT_EQ(again.exitStatus, 1);
  EXPECT_TRUE(contains(m_box.debugLog(), "No vrkms service is running"));
}

TEST_F(VrkmsService, WithoutAStoreTheServiceRefusesToGoLive) {
  // The store directory is one where nothing was ever made.
  std::ofstream(m_box.root().file("etc/vr.conf"), std::ios::trunc)
      << "SERVER = localhost\nKMS_DIR = " << m_box.root().file("empty") << "\n"
      << "VRKMS_ENDPOINT = giop:tcp:127.0.0.1:" << m_box.port() << "\n";
  m_box.launch({"-console"});
  EXPECT_EQ(m_box.waitForExit(60s), 1);
  EXPECT_FALSE(exists(m_box.iorPath()));
  EXPECT_FALSE(exists(m_box.pidPath()));
  EXPECT_FALSE(canConnect(m_box.port()));
  EXPECT_TRUE(contains(m_box.appLog(), "286-38 ")) << m_box.appLog();
  EXPECT_TRUE(contains(m_box.appLog(), "286-34 ")) << m_box.appLog();
  EXPECT_TRUE(contains(m_box.debugLog(), "The directive \"static KMSMgrService\" failed"));
  EXPECT_TRUE(contains(m_box.debugLog(), "vrkms_main: startServiceContainer returned 1"));
}
