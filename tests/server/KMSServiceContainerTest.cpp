// The service's peer rule and the framework's judgement of a request, with
// peers and master configurations made up by the test.
#include "kms/server/KMSServiceContainer.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <list>
#include <string>

#include "kms/platform/framework/RequestGuard.h"
#include "kms/server/KMSAuthTable.h"
#include "support/LogCapture.h"
#include "support/PlatformTestRoot.h"

using namespace Ardentis::Vaultrest::TL::Framework;
using Vaultrest::DL::KMS::KMSAuthTable;
using Vaultrest::DL::KMS::KMSServiceContainer;

namespace {

class ServiceContainerTest : public ::testing::Test {
 protected:
  PeerTSSResources peer(const std::string& host) {
    PeerTSSResources record;
    record.remote = true;
    record.peerHost = host;
    record.peerAddress = "giop:tcp:" + host + ":4000";
    record.identity = {PeerTransport::kTcp, host};
    return record;
  }

  PlatformTestRoot m_root;
  LogCapture m_log{6};
  KMSServiceContainer m_container{
      false, "vrkms", 286, std::list<std::string>{}, 10, ServiceContainerOptions{0}, ""};
};

const std::string kQueryFacet = "Ardentis/Vaultrest/DL/KMS/KMSMgr_getQueryableFacet";

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

TEST_F(ServiceContainerTest, RequestsAreJudgedByPeerRuleThenRights) {
  ASSERT_EQ(ServiceContainer::current(), &m_container);
  ASSERT_EQ(ServiceContainer::registerAuthorizationTable(KMSAuthTable), 0);

  // No grant: no TCP peer holds a right, loopback included.
  m_root.writeConf("SERVER = localhost\n");
  EXPECT_FALSE(RequestGuard::admit(m_container, peer("127.0.0.1"), kQueryFacet, false));
  EXPECT_FALSE(RequestGuard::admit(m_container, peer("192.0.2.7"), kQueryFacet, false));
  // Built-in operations ask for no right.
  EXPECT_TRUE(RequestGuard::admit(m_container, peer("192.0.2.7"), "_non_existent", true));

  m_root.writeConf("SERVER = localhost\nVRKMS_GRANT = 192.0.2.7 3\nVRKMS_GRANT = * 4\n");
  EXPECT_TRUE(RequestGuard::admit(m_container, peer("192.0.2.7"), kQueryFacet, false));
  EXPECT_FALSE(RequestGuard::admit(m_container, peer("127.0.0.1"), kQueryFacet, false));
  // No row: the key-value right.
  EXPECT_TRUE(RequestGuard::admit(m_container, peer("127.0.0.1"),
                                  "Ardentis/Vaultrest/DL/KMS/KMSMgr_getEximFacet", false));

  // The peer rule comes first: a refused media server gets nothing, even
  // with the rights and even for a built-in operation.
  m_root.writeConf("SERVER = localhost\nVRKMS_BLOCK_MEDIA = 1\nVRKMS_GRANT = * 1\n");
  EXPECT_FALSE(RequestGuard::admit(m_container, peer("192.0.2.7"), kQueryFacet, false));
  EXPECT_FALSE(RequestGuard::admit(m_container, peer("192.0.2.7"), "_is_a", true));
  EXPECT_TRUE(RequestGuard::admit(m_container, peer("127.0.0.1"), kQueryFacet, false));

  const auto refusals = LogCapture::containing(m_log.debugLines(), "Refused ");
  EXPECT_EQ(refusals.size(), 5u);
  EXPECT_FALSE(LogCapture::containing(refusals, "Refused " + kQueryFacet +
                                                    " to peer giop:tcp:192.0.2.7:4000 (tcp "
                                                    "192.0.2.7): the peer lacks the rights")
                   .empty());
}
