#include "kms/platform/HostCheck.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <unistd.h>

#include <climits>

#include "kms/platform/VrConfReader.h"
#include "support/PlatformTestRoot.h"

TEST(HostCheck, LocalHostIsThisHostByNameLoopbackOrInterfaceAddress) {
  char host[HOST_NAME_MAX + 1] = {};
  ASSERT_EQ(gethostname(host, sizeof(host) - 1), 0);
  std::vector<std::string> local = {host,        "localhost", "LOCALHOST",       "127.0.0.1",
                                    "127.1.2.3", "::1",       "::ffff:127.0.0.1"};
  // Every non-loopback IPv4 address of a local interface.
  struct ifaddrs* list = nullptr;
  ASSERT_EQ(getifaddrs(&list), 0);
  for (const struct ifaddrs* ifa = list; ifa != nullptr; ifa = ifa->ifa_next) {
    if (ifa->ifa_addr != nullptr && ifa->ifa_addr->sa_family == AF_INET) {
      char text[INET_ADDRSTRLEN];
      inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(ifa->ifa_addr)->sin_addr, text,
                sizeof(text));
      local.push_back(text);
    }
  }
  freeifaddrs(list);
  for (const std::string& name : local) {
    EXPECT_TRUE(vrnet_is_local_host(name.c_str())) << name;
  }
  // Documentation addresses never belong to a host.
  for (const char* name : {"192.0.2.1", "2001:db8::1", ""}) {
    EXPECT_FALSE(vrnet_is_local_host(name)) << name;
  }
  EXPECT_FALSE(vrnet_is_local_host(nullptr));
}

// The process-wide copy of the master configuration: dropped when the file
// cannot be read, while a copy a caller holds stays valid.
TEST(HostCheck, MasterServerIsTheFirstServerOfTheConfiguration) {
  PlatformTestRoot root;
  root.writeConf("EMM_SERVER = localhost\n");
  ASSERT_EQ(VR_read_master_config(), 0);
  EXPECT_FALSE(vrnet_is_master_server("localhost"));
  root.writeConf("SERVER = localhost\nSERVER = 192.0.2.1\nVRKMS_BLOCK_MEDIA = yes\n");
  ASSERT_EQ(VR_read_master_config(), 0);
  for (const char* name : {"localhost", "LocalHost", "127.0.0.1"}) {  // by name or address
    EXPECT_TRUE(vrnet_is_master_server(name)) << name;
  }
  EXPECT_FALSE(vrnet_is_master_server("192.0.2.1"));  // a server, not the first
  EXPECT_FALSE(vrnet_is_master_server(""));
  EXPECT_FALSE(vrnet_is_master_server(nullptr));
  bool block = false;
  EXPECT_EQ(vrconfGetKeyValPairAsBool("VRKMS_BLOCK_MEDIA", &block), 0);
  EXPECT_TRUE(block);
  EXPECT_NE(vrconfGetKeyValPairAsBool("ABSENT", &block), 0);

  const auto config = get_master_config_ptr();
  ASSERT_TRUE(config);
  std::remove(root.confPath().c_str());
  EXPECT_NE(VR_read_master_config(), 0);
  EXPECT_FALSE(get_master_config_ptr());
  EXPECT_FALSE(vrnet_is_master_server("localhost"));
  EXPECT_NE(vrconfGetKeyValPairAsBool("VRKMS_BLOCK_MEDIA", &block), 0);
  EXPECT_EQ(config->servers, (std::vector<std::string>{"localhost", "192.0.2.1"}));
  VrConfReader direct;
  EXPECT_NE(direct.read(root.confPath()), 0);
  EXPECT_TRUE(direct.entries().empty());
}
