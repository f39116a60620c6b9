// The stop of a running vrkms: whichever way it is asked to stop, the
// servants are deactivated while the ORB still serves them, the manager is
// destroyed and with it the store is shut down (nothing written), and the
// process exits 0. Also the ORB's message bound that lets a whole store
// travel in one call.
//
// These tests run a process named vrkms; CTest keeps them apart from every
// other such test (RESOURCE_LOCK vrkms_process).
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

#include <omniORB4/CORBA.h>

#include "kms/platform/framework/Orb.h"
#include "server/ServiceSandbox.h"
#include "support/TempRoot.h"

using namespace std::chrono_literals;

namespace {

std::string fileText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Position of `text` in `log` at or after `from`; npos when absent.
size_t find(const std::string& log, const std::string& text, size_t from = 0) {
  return log.find(text, from);
}

class VrkmsStop : public ::testing::Test {
 protected:
  // Debug level 6 writes the entry and exit traces.
  VrkmsStop() : m_box(6) {}

  void SetUp() override {
    ASSERT_TRUE(m_box.makeStore());
    ASSERT_TRUE(m_box.start()) << m_box.readFile("stderr.txt") << m_box.debugLog();
    m_storeBefore = fileText(m_box.root().file("kms/db/KMS_DATA.dat"));
  }

  // What every stop path must leave behind, checked on the debug log of the
  // run that has just ended.
  void expectOrderlyStop() {
    const std::string log = m_box.debugLog();
    const size_t stopping = find(log, "The vrkms service is stopping");
    ASSERT_NE(stopping, std::string::npos) << log;
    // The objects left the POA before the ORB was shut down (afterwards
    // nothing can be deactivated), and none was refused; fini came later.
    const size_t suspend = find(log, "Entering KMSMgrImpl::suspend", stopping);
    const size_t orbShutdown = find(log, "Entering Orb::shutdown", stopping);
    const size_t fini = find(log, "Entering KMSMgrImpl::fini", stopping);
    ASSERT_NE(suspend, std::string::npos) << log;
    ASSERT_NE(orbShutdown, std::string::npos) << log;
    EXPECT_NE(fini, std::string::npos) << log;
    EXPECT_LT(suspend, orbShutdown) << log;
    EXPECT_LT(orbShutdown, fini) << log;
    EXPECT_EQ(find(log, "Cannot deactivate an object"), std::string::npos) << log;
    // The manager died, and with it the store was shut down, before the
    // ORB was destroyed and the service reported its end.
    const size_t managerGone = find(log, "Entering KMSMgrImpl::~KMSMgrImpl", stopping);
    const size_t storeShut = find(log, "Entering FileKeyStore::shutdown", managerGone);
    const size_t deinit = find(log, "Entering FileKeyStore::deinitialize", storeShut);
    const size_t orbGone = find(log, "Entering Orb::destroy [", stopping);
    const size_t stopped = find(log, "The vrkms service has stopped", stopping);
    ASSERT_NE(managerGone, std::string::npos) << log;
    ASSERT_NE(storeShut, std::string::npos) << log;
    EXPECT_NE(deinit, std::string::npos) << log;
    ASSERT_NE(orbGone, std::string::npos) << log;
    ASSERT_NE(stopped, std::string::npos) << log;
    EXPECT_LT(fini, managerGone) << log;
    EXPECT_LT(deinit, orbGone) << log;
    EXPECT_LT(orbGone, stopped) << log;
    // The store was live, so its shutdown succeeded; nothing was written.
    EXPECT_EQ(find(log, "KeyStore->shutdown() returned"), std::string::npos) << log;
    EXPECT_EQ(fileText(m_box.root().file("kms/db/KMS_DATA.dat")), m_storeBefore);
    EXPECT_NE(find(log, "vrkms_main: startServiceContainer returned 0"), std::string::npos) << log;
  }

  ServiceSandbox m_box;
  std::string m_storeBefore;
};

TEST_F(VrkmsStop, SigtermDestroysTheManagerAndShutsTheStoreDown) {
  ASSERT_EQ(::kill(m_box.pid(), SIGTERM), 0);
  EXPECT_EQ(m_box.waitForExit(60s), 0) << m_box.readFile("stderr.txt");
  expectOrderlyStop();
}

TEST_F(VrkmsStop, TerminateDestroysTheManagerAndShutsTheStoreDown) {
  const std::pair<int, int> statuses = m_box.terminate();
  EXPECT_EQ(statuses.first, 0);
  EXPECT_EQ(statuses.second, 0) << m_box.readFile("stderr.txt");
  expectOrderlyStop();
}

// A service whose ORB is initialised sends and accepts messages up to the
// bound, far above the ORB's own 2 MiB. Run in a child of its own, whose
// ORB is the first and only one.
TEST(OrbMessageBound, ServiceOrbAcceptsWholeStoreExports) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  namespace Fw = Ardentis::Vaultrest::TL::Framework;
  const auto check = [] {
    TempRoot run("orb-bound");
    Fw::Orb orb;
    char name[] = "vrkms";
    char* argv[] = {name, nullptr};
    const std::string endpoint = "giop:tcp:127.0.0.1:" + std::to_string(ServiceSandbox::freePort());
    if (orb.init(1, argv, endpoint, run.path()) != 0) {
      return 2;
    }
    const unsigned long bound = std::strtoul(Fw::Orb::kMaxMessageSize, nullptr, 10);
    const int status = omniORB::giopMaxMsgSize() == bound && bound >= (64ul << 20) ? 0 : 1;
    orb.shutdown(true);
    orb.destroy();
    return status;
  };
  EXPECT_EXIT(std::_Exit(check()), ::testing::ExitedWithCode(0), "");
}

}  // namespace
