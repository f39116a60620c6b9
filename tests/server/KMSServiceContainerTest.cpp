// The service's peer rule, with peers and master configurations made up by
// the test. (The framework's judgement of requests is tested on the running
// service: VrkmsSecurityTest.)
#include "kms/server/KMSServiceContainer.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <list>
#include <string>

#include "support/LogCapture.h"
#include "support/PlatformTestRoot.h"

using namespace Ardentis::Vaultrest::TL::Framework;
using Vaultrest::DL::KMS::KMSServiceContainer;

namespace {

class ServiceContainerTest : public ::testing::Test {
 protected:
  PlatformTestRoot m_root;
  LogCapture m_log{6};
  KMSServiceContainer m_container{
      false, "vrkms", 286, std::list<std::string>{}, 10, ServiceContainerOptions{0}, ""};
};

}  // namespace

TEST_F(ServiceContainerTest, EveryPeerPassesUnlessMediaServersAreBlocked) {
  m_root.writeConf("SERVER = 192.0.2.1\n");
  EXPECT_EQ(m_container.extraServiceLevelValidation("192.0.2.7"), 1);
  m_root.writeConf("SERVER = 192.0.2.1\nVRKMS_BLOCK_MEDIA = NO\n");
  EXPECT_EQ(m_container.extraServiceLevelValidation("192.0.2.7"), 1);
  m_root.writeConf("SERVER = 192.0.2.1\nVRKMS_BLOCK_MEDIA = maybe\n");
  EXPECT_EQ(m_container.extraServiceLevelValidation("192.0.2.7"), 1);
  EXPECT_TRUE(LogCapture::containing(m_log.debugLines(), "VRKMS_BLOCK_MEDIA is set").empty());

  // Blocked: only a local master server passes.
  m_root.writeConf("SERVER = localhost\nVRKMS_BLOCK_MEDIA = YES\n");
  EXPECT_EQ(m_container.extraServiceLevelValidation("127.0.0.1"), 1);
  EXPECT_EQ(m_container.extraServiceLevelValidation("192.0.2.7"), 0);
  EXPECT_EQ(m_container.extraServiceLevelValidation(nullptr), 0);
  m_root.writeConf("SERVER = 192.0.2.1\nSERVER = localhost\nVRKMS_BLOCK_MEDIA = YES\n");
  EXPECT_EQ(m_container.extraServiceLevelValidation("127.0.0.1"), 0);  // local, not master

  const auto lines = m_log.debugLines();
  EXPECT_EQ(LogCapture::containing(lines,
                                   "Configuration flag:VRKMS_BLOCK_MEDIA is set, checking "
                                   "whether the peer is media server")
                .size(),
            4u);
  EXPECT_EQ(
      LogCapture::containing(lines, "Peer:127.0.0.1 is master server, allowing request").size(),
      1u);
  EXPECT_EQ(
      LogCapture::containing(lines, "Peer:192.0.2.7 is media server, NOT allowing request").size(),
      1u);

  // An unreadable master configuration lets everyone in.
  ASSERT_EQ(::unlink(m_root.confPath().c_str()), 0);
  EXPECT_EQ(m_container.extraServiceLevelValidation("192.0.2.7"), 1);
  EXPECT_FALSE(
      LogCapture::containing(m_log.debugLines(), "VR_read_master_config failed with status :")
          .empty());
}
