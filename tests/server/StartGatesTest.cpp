#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "kms/platform/InstallRoot.h"
#include "kms/server/KMSSpecialOps.h"
#include "support/LogCapture.h"
#include "support/PlatformTestRoot.h"

using namespace Vaultrest::DL::KMS;

namespace {

// A stand-in cluster utility: exits with `clusterAnswer` for "-iscluster" and
// `activeAnswer` for "-isactive".
void installClusterUtility(int clusterAnswer, int activeAnswer) {
  const std::string bin = InstallRoot::path("vaultrest/bin");
  ::mkdir(InstallRoot::path("vaultrest").c_str(), 0755);
  ::mkdir(bin.c_str(), 0755);
  const std::string path = bin + "/vrclusterutil";
  std::ofstream(path) << "#!/bin/sh\n"
                      << "case \"$2\" in\n"
                      << "-iscluster) exit " << clusterAnswer << " ;;\n"
                      << "-isactive) exit " << activeAnswer << " ;;\n"
                      << "esac\nexit 99\n";
  ::chmod(path.c_str(), 0755);
}

}  // namespace

TEST(StartGates, InactiveClusterNodeNeedsBothAnswersOfTheUtility) {
  PlatformTestRoot root;
  LogCapture log;
  EXPECT_FALSE(KMSSpecialOps::onInactiveClusterNode());  // no utility: not inactive
  const std::string command =
      InstallRoot::path("vaultrest/bin") + "/vrclusterutil -np -iscluster 1>/dev/null 2>&1";
  EXPECT_EQ(
      LogCapture::containing(log.debugLines(), "COMMAND (" + command + ") returned 32512").size(),
      1u);

  struct Case {
    int cluster;
    int active;
    bool inactive;
  };
  for (const Case& c : {Case{1, 0, true}, Case{1, 1, false}, Case{0, 0, false}, Case{2, 0, true}}) {
    installClusterUtility(c.cluster, c.active);
    EXPECT_EQ(KMSSpecialOps::onInactiveClusterNode(), c.inactive) << c.cluster << c.active;
  }
  // Raw results of system(), not exit codes, are logged.
  EXPECT_FALSE(
      LogCapture::containing(log.debugLines(), "-isactive 1>/dev/null 2>&1) returned 256").empty());
}

TEST(StartGates, MasterServerIsTheFirstServerOfTheMasterConfiguration) {
  PlatformTestRoot root;
  LogCapture log;
  EXPECT_FALSE(KMSSpecialOps::onMasterServer());
  EXPECT_EQ(LogCapture::containing(log.appLines(), "286-32 ").size(), 1u);

  root.writeConf("SERVER = localhost\nSERVER = 192.0.2.1\n");
  EXPECT_TRUE(KMSSpecialOps::onMasterServer());
  root.writeConf("SERVER = 192.0.2.1\nSERVER = localhost\n");
  EXPECT_FALSE(KMSSpecialOps::onMasterServer());
  root.writeConf("EMM_SERVER = localhost\n");
  EXPECT_FALSE(KMSSpecialOps::onMasterServer());
  EXPECT_EQ(LogCapture::containing(log.appLines(), "286-32 ").size(), 2u);
}
