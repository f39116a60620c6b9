// The service's configuration singleton over $VREST_ROOT/kms/vrkms.conf.
#include "kms/server/keystore/KMSConfig.h"

#include <cstring>
#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "kms/platform/InstallRoot.h"
#include "kms/server/diagnostics/KeyStoreError.h"

namespace Vaultrest {
namespace DL {
namespace KMS {
namespace {

// Reloads the singleton. Only the central agent may fail here (when some
// other test of this process left a master configuration behind and took it
// away again); the file agent has been re-read all the same.
void reloadConfig() {
  try {
    KMSConfig::instance()->reload();
  } catch (const KeyStoreError& error) {
    EXPECT_EQ(error.status(), 1257);
  }
}

// Writes the service's configuration file for one test and removes it after.
class ConfFile {
 public:
  explicit ConfFile(const std::string& text) : m_path(InstallRoot::path("kms/vrkms.conf")) {
    std::filesystem::create_directories(std::filesystem::path(m_path).parent_path());
    std::ofstream(m_path, std::ios::trunc) << text;
    reloadConfig();
  }
  ~ConfFile() {
    std::filesystem::remove(m_path);
    reloadConfig();
  }

 private:
  std::string m_path;
};

TEST(KMSConfigTest, TableIsCompleteAndTerminated) {
  const config_row* rows = KMSConfig::s_config_table;
  int count = 0;
  while (std::strcmp(rows[count].name, "EOTEOTEOT") != 0) {
    ++count;
  }
  EXPECT_EQ(count, 13);
  EXPECT_EQ(KMSConfig::instance(), KMSConfigSingleton::instance());

  ConfigMgr& mgr = KMSConfig::instance()->getConfigMgr();
  EXPECT_EQ(mgr.getStringValue("memstr"), "Default");
  EXPECT_EQ(mgr.getIntegerValue("memint"), 20);
  EXPECT_EQ(mgr.getIntegerValue("timeout"), 10);
  EXPECT_EQ(mgr.getIntegerValue("hash_debug"), 0);
  EXPECT_EQ(mgr.getIntegerValue("file_rw_debug"), 0);
  EXPECT_EQ(mgr.getStringValue("master_encrypt_algo"), "AES_256_CBC_EVP");
  EXPECT_EQ(mgr.getStringValue("key_encrypt_algo"), "AES_256_CBC_EVP");
  EXPECT_FALSE(mgr.getStringValue("home_page").empty());
  EXPECT_EQ(mgr.getConfEntry("use_cxss")->agent, config_row::CENTRAL_AGENT);
  EXPECT_EQ(mgr.getConfEntry("emm_server")->agent, config_row::CENTRAL_AGENT);
  EXPECT_EQ(mgr.getConfEntry("verbose")->agent, config_row::CENTRAL_AGENT);
}

TEST(KMSConfigTest, WithoutAFileTheLimitsAreTheDefaults) {
  ASSERT_FALSE(std::filesystem::exists(InstallRoot::path("kms/vrkms.conf")));
  ConfigMgr& mgr = KMSConfig::instance()->getConfigMgr();
  EXPECT_EQ(mgr.getIntegerValue("max_key_groups"), 100);
  EXPECT_EQ(mgr.getIntegerValue("max_keys_per_group"), 30);
}

TEST(KMSConfigTest, AFileWithOnlyTimeoutChangesOnlyTimeout) {
  ConfigMgr& mgr = KMSConfig::instance()->getConfigMgr();
  {
    ConfFile file("[KMSConfig]\n\"timeout\"=dword:0000001e\n");
    EXPECT_EQ(mgr.getIntegerValue("timeout"), 30);
    EXPECT_EQ(mgr.getIntegerValue("max_key_groups"), 100);
    EXPECT_EQ(mgr.getIntegerValue("max_keys_per_group"), 30);
    EXPECT_EQ(mgr.getIntegerValue("file_rw_debug"), 0);
  }
  EXPECT_EQ(mgr.getIntegerValue("timeout"), 10);
  {
    ConfFile file("[KMSConfig]\n\"max_key_groups\"=dword:00000000\n");
    EXPECT_EQ(mgr.getIntegerValue("max_key_groups"), 0);
    EXPECT_EQ(mgr.getIntegerValue("timeout"), 10);
  }
}

}  // namespace
}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
