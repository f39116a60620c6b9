// The built vrkms as a program and as a service: usage, the start gates, the
// service reached through corbaloc, judged by its peer rules, stopped in order.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "kms/platform/ProcessHandler.h"
#include "kms/platform/framework/ClientVersionInterceptor.h"
#include "server/ServiceClient.h"
#include "server/ServiceSandbox.h"

namespace Fw = Ardentis::Vaultrest::TL::Framework;
namespace Remote = Ardentis::Vaultrest::DL::KMS;
using CtlOutput::contains;
using ServiceClient::outcome;
using namespace std::chrono_literals;

namespace {

bool canConnect(int port) {
  const int fd = ServiceSandbox::connectTo(port);
  return fd >= 0 && ::close(fd) == 0;
}

class VrkmsService : public ::testing::Test {
 protected:
  void TearDown() override {  // a daemon left behind by a failed test
    const long daemon = std::atol(m_box.readFile("var/vrkms/vrkms.pid").c_str());
    const std::vector<pid_t> running = ProcessHandler("vrkms").getProcessIDs();
    if (daemon > 0 && std::find(running.begin(), running.end(), daemon) != running.end()) {
      ::kill(static_cast<pid_t>(daemon), SIGKILL);
    }
  }

  // The servants left the POA while the ORB served, the store was shut down
  // (nothing written) before the ORB was destroyed, the run files went.
  void expectOrderlyStop() {
    const std::string log = m_box.debugLog();
    size_t from = 0;
    for (const char* step :
         {"The vrkms service is stopping", "Entering KMSMgrImpl::suspend", "Entering Orb::shutdown",
          "Entering KMSMgrImpl::fini", "Entering KMSMgrImpl::~KMSMgrImpl",
          "Entering FileKeyStore::shutdown", "Entering FileKeyStore::deinitialize",
          "Entering Orb::destroy [", "The vrkms service has stopped",
          "vrkms_main: startServiceContainer returned 0"}) {
      from = log.find(step, from);
      ASSERT_NE(from, std::string::npos) << "not in order: " << step << "\n" << log;
    }
    EXPECT_FALSE(contains(log, "Cannot deactivate an object") ||
                 contains(log, "KeyStore->shutdown() returned"));
    EXPECT_EQ(m_box.readFile("kms/db/KMS_DATA.dat"), m_storeBefore);
    EXPECT_FALSE(exists(m_box.pidPath()));
    EXPECT_FALSE(exists(m_box.iorPath()));
    EXPECT_FALSE(canConnect(m_box.port()));
  }

  ServiceSandbox m_box;
  std::string m_storeBefore;
};

}  // namespace

TEST_F(VrkmsService, ConsoleServiceAdvertisesTheManagerJudgesPeersAndStopsInOrder) {
  ASSERT_TRUE(m_box.makeStore());
  ASSERT_TRUE(m_box.start()) << m_box.stderrText() << m_box.debugLog();
  m_storeBefore = m_box.readFile("kms/db/KMS_DATA.dat");
  EXPECT_EQ(m_box.readFile("var/vrkms/vrkms.pid"), std::to_string(m_box.pid()) + "\n");
  EXPECT_EQ(m_box.readFile("var/vrkms/KMS.KMSMgr.ior").substr(0, 4), "IOR:");

  KmsClient client(m_box.reference());
  Fw::ClientVersionInterceptor::install(9, 1, 2);
  Remote::KMSMgr_ptr mgr = client.manager();
  EXPECT_TRUE(mgr->_is_a("IDL:Ardentis/Vaultrest/DL/KMS/KMSMgr:1.0"));
  EXPECT_EQ(outcome([&] { Remote::QueryableFacet_var f = mgr->getQueryableFacet(); }), "");
  EXPECT_EQ(outcome([&] { Remote::EximFacet_var f = mgr->getEximFacet(); }),
            "ServiceException 1200");
  EXPECT_TRUE(contains(m_box.debugLog(),
                       "Found Peer Version Information in TSS,  Major 9 Minor 1 Patch 2"));
  Fw::ClientVersionInterceptor::remove();
  EXPECT_EQ(outcome([&] { Remote::ControlFacet_var f = mgr->getControlFacet(); }), "");
  EXPECT_TRUE(contains(m_box.debugLog(), "Did not find Peer Version Information in TSS"));
  // Media servers blocked, and this host no master once the first SERVER is another.
  m_box.writePrivate("etc/vr.conf",
                     "SERVER = 192.0.2.1\nSERVER = localhost\nVRKMS_BLOCK_MEDIA = YES\n");
  EXPECT_EQ(outcome([&] { Remote::ControlFacet_var f = mgr->getControlFacet(); }), "NO_PERMISSION");
  m_box.writeConf(ServiceSandbox::kLoopbackGrant);
  EXPECT_EQ(outcome([&] { Remote::ControlFacet_var f = mgr->getControlFacet(); }), "");

  ASSERT_EQ(::kill(m_box.pid(), SIGTERM), 0);
  EXPECT_EQ(m_box.waitForExit(60s), 0) << m_box.stderrText();
  expectOrderlyStop();
}

TEST_F(VrkmsService, DaemonStartsDetachedRefusesEveryOtherRunAndTerminateStopsIt) {
  ASSERT_TRUE(m_box.makeStore());
  const ProcessResult started = m_box.run({});
  ASSERT_EQ(started.exitStatus, 0) << started.err << m_box.debugLog();
  const pid_t daemon = static_cast<pid_t>(std::atol(m_box.readFile("var/vrkms/vrkms.pid").c_str()));
  const std::vector<pid_t> running = ProcessHandler("vrkms").getProcessIDs();
  ASSERT_NE(std::find(running.begin(), running.end(), daemon), running.end());
  KmsClient client(m_box.reference());
  EXPECT_EQ(client.control()->isQuiesced(), 0);
  // While it runs, another start is refused quietly ("-info" after "-console"
  // is never run), every administrator option with 1272.
  for (const std::vector<std::string>& args :
       std::vector<std::vector<std::string>>{{}, {"-console"}, {"-console", "-info"}}) {
    const ProcessResult again = m_box.run(args);
    EXPECT_EQ(again.exitStatus, 0);
    EXPECT_EQ(again.err, "");
  }
  EXPECT_EQ(CtlOutput::countOf(m_box.appLog(), "286-31 vrkms_main: "), 3u) << m_box.appLog();
  for (const char* option : {"-createemptydb", "-resethmk", "-resetkpk", "-info"}) {
    const ProcessResult refused = m_box.run({option});
    EXPECT_EQ(refused.exitStatus, 252) << option;
    EXPECT_TRUE(contains(refused.err, "\nEXIT STATUS = 1272\n")) << refused.err;
  }

  const ProcessResult terminated = m_box.run({"-terminate"});
  EXPECT_EQ(terminated.exitStatus, 0) << m_box.debugLog();
  const std::vector<pid_t> after = ProcessHandler("vrkms").getProcessIDs();
  EXPECT_EQ(std::find(after.begin(), after.end(), daemon), after.end());
  EXPECT_FALSE(exists(m_box.pidPath()));
  EXPECT_FALSE(canConnect(m_box.port()));
  // Nothing left to stop.
  EXPECT_EQ(m_box.run({"-terminate"}).exitStatus, 1);
  EXPECT_TRUE(contains(m_box.debugLog(), "No vrkms service is running"));
}

// A store directory where nothing was made (286-38), none configured (286-37).
TEST_F(VrkmsService, WithoutAStoreTheServiceRefusesToGoLive) {
  for (const char* refusal : {"286-38 ", "286-37 "}) {
    if (refusal[5] == '8') {
      m_box.setKmsDir(m_box.path("empty"));
    } else {
      m_box.writePrivate("etc/vr.conf", "SERVER = localhost\nVRKMS_ENDPOINT = giop:tcp:127.0.0.1:" +
                                            std::to_string(m_box.port()) + "\n");
    }
    m_box.launch({"-console"});
    EXPECT_EQ(m_box.waitForExit(60s), 1);
    EXPECT_FALSE(exists(m_box.iorPath()));
    EXPECT_FALSE(exists(m_box.pidPath()));
    EXPECT_FALSE(canConnect(m_box.port()));
    EXPECT_TRUE(contains(m_box.appLog(), refusal)) << m_box.appLog();
  }
  EXPECT_EQ(CtlOutput::countOf(m_box.appLog(), "286-34 "), 2u);
  EXPECT_TRUE(contains(m_box.debugLog(), "The directive \"static KMSMgrService\" failed"));
  EXPECT_EQ(CtlOutput::countOf(m_box.debugLog(), "vrkms_main: startServiceContainer returned 1"),
            2u);
}

TEST(VrkmsProgram, UsageCodesAndTheLoggedCommandLine) {
  ServiceSandbox box;
  ::unlink(box.path("etc/vr.conf").c_str());
  for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
           {"-help"}, {"-H"}, {"-bogus"}, {"-infox"}, {"-h", "-info"}, {"word"}, {""}}) {
    const ProcessResult r = box.run(args);
    EXPECT_EQ(r.exitStatus, 0) << args[0];
    EXPECT_EQ(r.out + "|" + r.err,
              "|\nUSAGE: Vaultrest key management service\n\n"
              "   vrkms [ -createemptydb | -info | -resethmk | -resetkpk ]\n");
  }
  // Off the master server (no configuration): the code, and 252.
  for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
           {"-createemptydb", "-randomhmk", "-randomkpk"}, {"-RESETKPK"}, {"-info", "ignored"}}) {
    const ProcessResult r = box.run(args);
    EXPECT_EQ(r.exitStatus, 252) << args[0];
    EXPECT_TRUE(contains(r.err, "\nEXIT STATUS = 1271\n")) << r.err;
    EXPECT_EQ(r.out, "");
  }
  box.run({"-resethmk", "-hmkpass", "secret1"});
  box.run({"-resethmk", "-HMKPASS", "secret2", "-overwrite"});
  box.run({"-createemptydb", "-kpkpass", "secret3", "-hmkpass"});
  box.run({"-resetkpk", "-hmkpassword", "plain"});
  const std::string log = box.debugLog();
  for (const char* logged :
       {"Actual Error Code: 1271 (", "kmsExit: Exiting with Status: 252 (",
        "FIPS mode DISABLED in configuration",
        "Command Line Args: " VRKMS_BINARY " -resethmk -hmkpass ****** ",
        " -resethmk -HMKPASS ****** -overwrite ",
        " -createemptydb -kpkpass ****** -hmkpass ****** ", " -resetkpk -hmkpassword plain "}) {
    EXPECT_TRUE(contains(log, logged)) << logged;
  }
  EXPECT_FALSE(contains(log, "secret")) << log;
}

// "-terminate" passes the gates of a start but the running-service one: refused
// at a gate it exits 0 quietly; past them all it finds no service to stop (1).
TEST(VrkmsProgram, StartGatesRefuseOffTheMasterServerAndOnAnInactiveClusterNode) {
  struct Gate {
    const char* conf;     // nullptr: none
    int cluster, active;  // the stand-in cluster utility's answers; -1: none
    int exitStatus;
    const char* logged;
  };
  const Gate gates[] = {
      {nullptr, -1, -1, 0, "286-32 "},
      {"SERVER = 192.0.2.1\nSERVER = localhost\n", -1, -1, 0, "286-30 "},
      {"EMM_SERVER = localhost\n", -1, -1, 0, "286-32 "},
      {"SERVER = localhost\n", -1, -1, 1, "No vrkms service is running"},
      {"SERVER = localhost\n", 1, 0, 0, "286-86 vrkms_main: "},
      {"SERVER = localhost\n", 2, 0, 0, "286-86 vrkms_main: "},
      {"SERVER = localhost\n", 1, 1, 1, "No vrkms service is running"},
      {"SERVER = localhost\n", 0, 0, 1, "No vrkms service is running"},
  };
  for (const Gate& gate : gates) {
    ServiceSandbox box;
    SCOPED_TRACE(std::to_string(&gate - gates));
    if (gate.conf == nullptr) {
      ::unlink(box.path("etc/vr.conf").c_str());
    } else {
      box.writePrivate("etc/vr.conf", gate.conf);
    }
    if (gate.cluster >= 0) {
      std::filesystem::create_directories(box.path("vaultrest/bin"));
      const std::string utility = box.writePrivate(
          "vaultrest/bin/vrclusterutil",
          "#!/bin/sh\ncase \"$2\" in\n-iscluster) exit " + std::to_string(gate.cluster) +
              " ;;\n-isactive) exit " + std::to_string(gate.active) + " ;;\nesac\nexit 99\n");
      ::chmod(utility.c_str(), 0755);
    }
    const ProcessResult r = box.run({"-TERMINATE", "ignored"});
    EXPECT_EQ(r.exitStatus, gate.exitStatus);
    EXPECT_TRUE(contains(box.appLog() + box.debugLog(), gate.logged)) << box.appLog();
    if (gate.exitStatus == 0) {
      EXPECT_EQ(r.err, "");
      EXPECT_TRUE(contains(box.appLog(), "286-30 vrkms_main: ") ||
                  contains(box.appLog(), "286-86 vrkms_main: "));
    }
  }
}
