// The service's configuration singleton over $VREST_ROOT/kms/vrkms.conf.
#include "kms/server/keystore/KMSConfig.h"

#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "keystore/ChangeTestStore.h"
#include "kms/platform/InstallRoot.h"
#include "kms/server/diagnostics/KeyStoreError.h"

namespace Vaultrest {
namespace DL {
namespace KMS {
namespace {

using ConfFile = changetest::ServiceConfFile;

TEST(KMSConfigTest, AFileChangesOnlyTheValuesItNames) {
  ASSERT_FALSE(std::filesystem::exists(InstallRoot::path("kms/vrkms.conf")));
  ConfigMgr& mgr = KMSConfig::instance()->getConfigMgr();
  EXPECT_EQ(mgr.getIntegerValue("max_key_groups"), 100);
  EXPECT_EQ(mgr.getIntegerValue("max_keys_per_group"), 30);
  EXPECT_EQ(mgr.getStringValue("master_encrypt_algo"), "AES_256_CBC_EVP");
  EXPECT_EQ(mgr.getConfEntry("use_cxss")->agent, config_row::CENTRAL_AGENT);
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
