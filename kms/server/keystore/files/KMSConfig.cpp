#include "kms/server/keystore/files/KMSConfig.h"

#include "kms/platform/InstallRoot.h"
#include "kms/server/diagnostics/Log.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

// clang-format off
const config_row KMSConfig::s_config_table[] = {
    // name                 type                  int   string              agent
    {"memstr",              config_row::STRING,   0,    "Default",          config_row::MEMORY},
    {"memint",              config_row::INTEGER,  20,   "",                 config_row::MEMORY},
    {"use_cxss",            config_row::INTEGER,  2,    "",                 config_row::CENTRAL_AGENT},
    {"emm_server",          config_row::STRING,   0,    "localhost",        config_row::CENTRAL_AGENT},
    {"verbose",             config_row::INTEGER,  0,    "",                 config_row::CENTRAL_AGENT},
    {"home_page",           config_row::STRING,   0,    "www.example.com",  config_row::FILE_AGENT},
    {"timeout",             config_row::INTEGER,  10,   "",                 config_row::FILE_AGENT},
    {"hash_debug",          config_row::INTEGER,  0,    "",                 config_row::FILE_AGENT},
    {"file_rw_debug",       config_row::INTEGER,  0,    "",                 config_row::FILE_AGENT},
    {"max_key_groups",      config_row::INTEGER,  100,  "",                 config_row::FILE_AGENT},
    {"max_keys_per_group",  config_row::INTEGER,  30,   "",                 config_row::FILE_AGENT},
    {"master_encrypt_algo", config_row::STRING,   0,    "AES_256_CBC_EVP",  config_row::FILE_AGENT},
    {"key_encrypt_algo",    config_row::STRING,   0,    "AES_256_CBC_EVP",  config_row::FILE_AGENT},
    {"EOTEOTEOT",           config_row::INTEGER,  0,    "",                 config_row::MEMORY},
};
// clang-format on

KMSConfig* KMSConfig::instance() {
  return KMSConfigSingleton::instance();
}

KMSConfig::KMSConfig() : m_configMgr(s_config_table, InstallRoot::path("kms/vrkms.conf")) {
  KMS_TRACE_THIS("KMSConfig::KMSConfig");
}

KMSConfig::~KMSConfig() = default;

void KMSConfig::reload() {
  KMS_TRACE_THIS("KMSConfig::reload");
  m_configMgr.reload();
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
