// The service's peer rule, with peers and master configurations made up by
// the test.
#include "kms/server/KMSServiceContainer.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <list>
#include <map>
#include <string>

#include "support/LogCapture.h"
#include "support/PlatformTestRoot.h"

using namespace Ardentis::Vaultrest::TL::Framework;
using Vaultrest::DL::KMS::KMSServiceContainer;

TEST(ServiceContainer, EveryPeerPassesUnlessMediaServersAreBlocked) {
  PlatformTestRoot root;
  LogCapture log{6};
  KMSServiceContainer container{
      false, "vrkms", 286, std::list<std::string>{}, 10, ServiceContainerOptions{0}, ""};
  const struct {
    const char* conf;
    const char* peer;
    int passes;
  } rows[] = {
      {"SERVER = 192.0.2.1\n", "192.0.2.7", 1},
      {"SERVER = 192.0.2.1\nVRKMS_BLOCK_MEDIA = NO\n", "192.0.2.7", 1},
      {"SERVER = 192.0.2.1\nVRKMS_BLOCK_MEDIA = maybe\n", "192.0.2.7", 1},
      // Blocked: only a local master server passes.
      {"SERVER = localhost\nVRKMS_BLOCK_MEDIA = YES\n", "127.0.0.1", 1},
      {"SERVER = localhost\nVRKMS_BLOCK_MEDIA = YES\n", "192.0.2.7", 0},
      {"SERVER = localhost\nVRKMS_BLOCK_MEDIA = YES\n", nullptr, 0},
      {"SERVER = 192.0.2.1\nSERVER = localhost\nVRKMS_BLOCK_MEDIA = YES\n", "127.0.0.1", 0},
  };
  for (const auto& row : rows) {
    root.writeConf(row.conf);
    EXPECT_EQ(container.extraServiceLevelValidation(row.peer), row.passes) << row.conf;
  }
  const auto lines = log.debugLines();
  for (const auto& [text, count] : std::map<std::string, size_t>{
           {"Configuration flag:VRKMS_BLOCK_MEDIA is set, checking whether the peer is media "
            "server",
            4},
           {"Peer:127.0.0.1 is master server, allowing request", 1},
           {"Peer:192.0.2.7 is media server, NOT allowing request", 1}}) {
    EXPECT_EQ(LogCapture::containing(lines, text).size(), count) << text;
  }
  // An unreadable master configuration lets everyone in.
  ASSERT_EQ(::unlink(root.confPath().c_str()), 0);
  EXPECT_EQ(container.extraServiceLevelValidation("192.0.2.7"), 1);
  EXPECT_FALSE(
      LogCapture::containing(log.debugLines(), "VR_read_master_config failed with status :")
          .empty());
}
