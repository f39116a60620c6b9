// The master configuration: its reader, the store's settings in it, and the checks reading it.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <sys/stat.h>

#include <climits>
#include <filesystem>
#include <iterator>

#include "kms/platform/Fips.h"
#include "kms/platform/HostCheck.h"
#include "kms/platform/VrConfInfo.h"
#include "kms/platform/VrConfReader.h"
#include "support/PlatformTestRoot.h"

TEST(VrConfReader, SkipsCommentsCountsBadLinesAndReadsValues) {
  VrConfReader conf;
  conf.parse(
      "# master configuration\n   # indented comment = not an entry\n\nSERVER = master.example\n"
      "SERVER=media1\n  SERVER   =   media2  \r\nno equals sign here\nTWO WORDS = x\n = no name\n"
      "KMS_DIR = /srv/kms = odd\nEMPTY =\nserver = lower-case names are other names\n"
      "A = YES\nB = no\nC = TRUE\nD = 0\nE = yEs\nF = False\nG = 1\nH = maybe\nI = 2\n");
  EXPECT_EQ(conf.badLines(), 3);
  EXPECT_EQ(conf.servers(), (std::vector<std::string>{"master.example", "media1", "media2"}));
  EXPECT_EQ(conf.get("SERVER"), "master.example");
  EXPECT_EQ(conf.get("KMS_DIR"), "/srv/kms = odd");  // split at the first "="
  EXPECT_TRUE(conf.has("EMPTY"));
  EXPECT_EQ(conf.get("EMPTY", "fallback"), "");
  EXPECT_EQ(conf.get("MISSING", "fallback"), "fallback");
  EXPECT_EQ(conf.getAll("server").size(), 1u);
  // Booleans in any case; other words leave the value untouched.
  const std::pair<const char*, int> bools[] = {{"A", 1},  {"B", 0},      {"C", 1},      {"D", 0},
                                               {"E", 1},  {"F", 0},      {"G", 1},      {"H", -1},
                                               {"I", -1}, {"EMPTY", -1}, {"ABSENT", -1}};
  for (const auto& [name, value] : bools) {
    bool b = value != 1;
    EXPECT_EQ(conf.getBool(name, &b), value >= 0) << name;
    EXPECT_EQ(b, value == 1 || value < 0) << name;
  }
  EXPECT_EQ(conf.getInt("I", -1), 2);
  EXPECT_EQ(conf.getInt("H", -1), -1);
}

TEST(VrConfInfo, FailuresChangeNothingSetThenGetLeavesOtherLinesAlone) {
  PlatformTestRoot root;
  vrconf_info_t info{};
  info.use_cxss = 77;
  EXPECT_NE(vrconf_get_info(&info), 0);  // no file yet
  EXPECT_TRUE(info.use_cxss == 0 && info.emm_server == nullptr);
  vrconf_free_info(nullptr);
  EXPECT_TRUE(vrconf_get_info(nullptr) != 0 && vrconf_set_info(nullptr) != 0);
  vrconf_info_t update{1, 1, nullptr};
  EXPECT_NE(vrconf_set_info(&update), 0);  // the service never creates the file
  root.writeConf("EMM_SERVER = old\n");
  char broken[] = "two\nlines";
  vrconf_info_t bad{1, 1, broken};
  EXPECT_NE(vrconf_set_info(&bad), 0);
  EXPECT_EQ(root.readConf(), "EMM_SERVER = old\n");
  ASSERT_EQ(vrconf_set_info(&update), 0);  // no server: written as empty
  EXPECT_EQ(root.readConf(), "EMM_SERVER = \nUSE_CXSS = 1\nVERBOSE = 1\n");
  root.writeConf(
      "# product settings\nSERVER = master\nUSE_CXSS = 1\n  VERBOSE=3   # odd spacing\r\n"
      "KMS_DIR = /srv/kms\nUSE_CXSS = 9\ntrailing line without newline");
  chmod(root.confPath().c_str(), 0640);
  ASSERT_EQ(vrconf_get_info(&info), 0);
  EXPECT_EQ(info.use_cxss, 1);                     // the first of a repeated name
  EXPECT_EQ(info.verbose, kVrconfDefaultVerbose);  // "3   # odd spacing" is no number
  EXPECT_STREQ(info.emm_server, kVrconfDefaultEmmServer);
  vrconf_free_info(&info);
  EXPECT_EQ(info.emm_server, nullptr);
  char server[] = "emm.example:1556";
  update = vrconf_info_t{0, 5, server};
  ASSERT_EQ(vrconf_set_info(&update), 0);
  EXPECT_EQ(root.readConf(),
            "# product settings\nSERVER = master\nUSE_CXSS = 0\nVERBOSE = 5\r\nKMS_DIR = /srv/kms\n"
            "USE_CXSS = 0\ntrailing line without newline\nEMM_SERVER = emm.example:1556\n");
  struct stat st;
  ASSERT_EQ(stat(root.confPath().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0640u);
  // Nothing else is left beside the file.
  const std::filesystem::directory_iterator etc(root.etcDir());
  EXPECT_EQ(std::distance(begin(etc), end(etc)), 1);
}

TEST(HostCheck, LocalHostMasterServerAndFipsFlagOfTheMasterConfiguration) {
  char host[HOST_NAME_MAX + 1] = {};
  ASSERT_EQ(gethostname(host, sizeof(host) - 1), 0);
  std::vector<std::string> local = {host,        "localhost", "LOCALHOST",       "127.0.0.1",
                                    "127.1.2.3", "::1",       "::ffff:127.0.0.1"};
  // Every non-loopback IPv4 address of a local interface.
  struct ifaddrs* list = nullptr;
  ASSERT_EQ(getifaddrs(&list), 0);
  for (const struct ifaddrs* ifa = list; ifa != nullptr; ifa = ifa->ifa_next) {
    if (ifa->ifa_addr != nullptr && ifa->ifa_addr->sa_family == AF_INET) {
      local.push_back(inet_ntoa(reinterpret_cast<const sockaddr_in*>(ifa->ifa_addr)->sin_addr));
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
  // The first SERVER is the master; a held copy outlives a file that cannot be read.
  PlatformTestRoot root;
  root.writeConf("EMM_SERVER = localhost\n");
  ASSERT_EQ(VR_read_master_config(), 0);
  EXPECT_FALSE(vrnet_is_master_server("localhost"));
  root.writeConf("SERVER = localhost\nSERVER = 192.0.2.1\nVRKMS_BLOCK_MEDIA = yes\n");
  ASSERT_EQ(VR_read_master_config(), 0);
  for (const char* name : {"localhost", "LocalHost", "127.0.0.1"}) {  // by name or address
    EXPECT_TRUE(vrnet_is_master_server(name)) << name;
  }
  EXPECT_FALSE(vrnet_is_master_server(""));
  EXPECT_FALSE(vrnet_is_master_server(nullptr));
  const auto config = get_master_config_ptr();
  ASSERT_TRUE(config);
  std::remove(root.confPath().c_str());
  EXPECT_NE(VR_read_master_config(), 0);
  EXPECT_FALSE(get_master_config_ptr());
  EXPECT_FALSE(vrnet_is_master_server("localhost"));
  bool block = false;
  EXPECT_NE(vrconfGetKeyValPairAsBool("VRKMS_BLOCK_MEDIA", &block), 0);
  EXPECT_EQ(config->servers, (std::vector<std::string>{"localhost", "192.0.2.1"}));
  // FIPS: read from the file without a process-wide copy; with one, the copy decides.
  EXPECT_EQ(getFIPSModeForProcess("vrkms"), 0);
  root.writeConf("VRKMS_FIPS = TRUE\n");
  EXPECT_NE(getFIPSModeForProcess("vrkms"), 0);
  root.writeConf("VRKMS_FIPS = yes\nOTHER_FIPS = no\n");
  ASSERT_EQ(VR_read_master_config(), 0);
  root.writeConf("VRKMS_FIPS = no\n");
  EXPECT_NE(getFIPSModeForProcess("vrkms"), 0);
  for (const char* other : {"other", "absent", "", static_cast<const char*>(nullptr)}) {
    EXPECT_EQ(getFIPSModeForProcess(other), 0) << (other ? other : "null");
  }
  ASSERT_EQ(VR_read_master_config(), 0);  // re-read: now "no"
  EXPECT_EQ(getFIPSModeForProcess("vrkms"), 0);
  EXPECT_EQ(FIPS_mode(), EVP_default_properties_is_fips_enabled(nullptr) ? 1 : 0);
}
