#include "kms/platform/VrConfInfo.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <iterator>

#include "support/PlatformTestRoot.h"

TEST(VrConfInfo, SetThenGetRoundTripsAndLeavesOtherLinesAlone) {
  PlatformTestRoot root;
  root.writeConf(
      "# product settings\n"
      "SERVER = master\n"
      "USE_CXSS = 1\n"
      "  VERBOSE=3   # odd spacing\r\n"
      "KMS_DIR = /srv/kms\n"
      "USE_CXSS = 9\n"
      "trailing line without newline");
  chmod(root.confPath().c_str(), 0640);

  vrconf_info_t info{};
  ASSERT_EQ(vrconf_get_info(&info), 0);
  EXPECT_EQ(info.use_cxss, 1);                     // the first of a repeated name
  EXPECT_EQ(info.verbose, kVrconfDefaultVerbose);  // "3   # odd spacing" is no number
  EXPECT_STREQ(info.emm_server, kVrconfDefaultEmmServer);
  vrconf_free_info(&info);
  EXPECT_EQ(info.emm_server, nullptr);
  char server[] = "emm.example:1556";
  vrconf_info_t update{0, 5, server};
  ASSERT_EQ(vrconf_set_info(&update), 0);
  EXPECT_EQ(root.readConf(),
            "# product settings\n"
            "SERVER = master\n"
            "USE_CXSS = 0\n"
            "VERBOSE = 5\r\n"
            "KMS_DIR = /srv/kms\n"
            "USE_CXSS = 0\n"
            "trailing line without newline\n"
            "EMM_SERVER = emm.example:1556\n");
  struct stat st;
  ASSERT_EQ(stat(root.confPath().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0640u);

  ASSERT_EQ(vrconf_get_info(&info), 0);
  EXPECT_EQ(info.use_cxss, 0);
  EXPECT_EQ(info.verbose, 5);
  EXPECT_STREQ(info.emm_server, "emm.example:1556");
  vrconf_free_info(&info);

  // Nothing else is left beside the file.
  const std::filesystem::directory_iterator etc(root.etcDir());
  EXPECT_EQ(std::distance(begin(etc), end(etc)), 1);
}

TEST(VrConfInfo, FailuresReturnNonZeroAndChangeNothing) {
  PlatformTestRoot root;
  vrconf_info_t info{};
  info.use_cxss = 77;
  EXPECT_NE(vrconf_get_info(&info), 0);  // no file yet
  EXPECT_EQ(info.use_cxss, 0);
  EXPECT_EQ(info.emm_server, nullptr);
  vrconf_free_info(&info);
  vrconf_free_info(nullptr);
  EXPECT_NE(vrconf_get_info(nullptr), 0);
  vrconf_info_t update{1, 1, nullptr};
  EXPECT_NE(vrconf_set_info(&update), 0);  // the service never creates the file
  EXPECT_NE(vrconf_set_info(nullptr), 0);
  root.writeConf("EMM_SERVER = old\n");
  char broken[] = "two\nlines";
  vrconf_info_t bad{1, 1, broken};
  EXPECT_NE(vrconf_set_info(&bad), 0);
  EXPECT_EQ(root.readConf(), "EMM_SERVER = old\n");

  update.emm_server = nullptr;  // written as empty
  ASSERT_EQ(vrconf_set_info(&update), 0);
  EXPECT_EQ(root.readConf(), "EMM_SERVER = \nUSE_CXSS = 1\nVERBOSE = 1\n");
}
