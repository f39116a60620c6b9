#include "kms/platform/HostCheck.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <unistd.h>

#include <climits>

#include "kms/platform/VrConfReader.h"
#include "support/PlatformTestRoot.h"

namespace {

// A non-loopback IPv4 address of a local interface, or "" when there is none.
std::string interfaceAddress() {
  std::string found;
  struct ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) {
    return found;
  }
  for (const struct ifaddrs* ifa = list; ifa != nullptr && found.empty(); ifa = ifa->ifa_next) {
    if (ifa->ifa_addr == nullptr || ifa->ifa_addr->sa_family != AF_INET) {
      continue;
    }
    const auto* in = reinterpret_cast<const struct sockaddr_in*>(ifa->ifa_addr);
    char text[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &in->sin_addr, text, sizeof(text));
    if (std::string(text).rfind("127.", 0) != 0) {
      found = text;
    }
  }
  freeifaddrs(list);
  return found;
}

}  // namespace

TEST(HostCheck, LocalHostIsThisHostByNameLoopbackOrInterfaceAddress) {
  char host[HOST_NAME_MAX + 1] = {};
  ASSERT_EQ(gethostname(host, sizeof(host) - 1), 0);
  EXPECT_TRUE(vrnet_is_local_host(host));
  EXPECT_TRUE(vrnet_is_local_host("localhost"));
  EXPECT_TRUE(vrnet_is_local_host("LOCALHOST"));
  EXPECT_TRUE(vrnet_is_local_host("127.0.0.1"));
  EXPECT_TRUE(vrnet_is_local_host("127.1.2.3"));
  EXPECT_TRUE(vrnet_is_local_host("::1"));
  EXPECT_TRUE(vrnet_is_local_host("::ffff:127.0.0.1"));
  const std::string own = interfaceAddress();
  if (!own.empty()) {
    EXPECT_TRUE(vrnet_is_local_host(own.c_str())) << own;
  }

  // Documentation addresses never belong to a host.
  EXPECT_FALSE(vrnet_is_local_host("192.0.2.1"));
  EXPECT_FALSE(vrnet_is_local_host("2001:db8::1"));
  EXPECT_FALSE(vrnet_is_local_host(""));
  EXPECT_FALSE(vrnet_is_local_host(nullptr));
}

TEST(HostCheck, MasterServerIsTheFirstServerOfTheConfiguration) {
  PlatformTestRoot root;
  VR_read_master_config();  // none yet
  EXPECT_FALSE(vrnet_is_master_server("localhost"));

  root.writeConf("SERVER = localhost\nSERVER = 192.0.2.1\n");
  ASSERT_EQ(VR_read_master_config(), 0);
  EXPECT_TRUE(vrnet_is_master_server("localhost"));
  EXPECT_TRUE(vrnet_is_master_server("LocalHost"));
  EXPECT_TRUE(vrnet_is_master_server("127.0.0.1"));   // by address
  EXPECT_FALSE(vrnet_is_master_server("192.0.2.1"));  // a server, not the first
  EXPECT_FALSE(vrnet_is_master_server(""));
  EXPECT_FALSE(vrnet_is_master_server(nullptr));

  root.writeConf("EMM_SERVER = localhost\n");
  ASSERT_EQ(VR_read_master_config(), 0);
  EXPECT_FALSE(vrnet_is_master_server("localhost"));
}
