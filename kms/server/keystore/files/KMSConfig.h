// The service's one configuration: a ConfigMgr over s_config_table and the
// file $VREST_ROOT/kms/vrkms.conf, reached through KMSConfig::instance().
//
// Tests: the file name is fixed when the singleton is first used, from the
// $VREST_ROOT of that moment (each test binary's main sets a private root
// before any test runs). To serve other values, write the file at
// InstallRoot::path("kms/vrkms.conf") (creating the "kms" directory) and call
// KMSConfig::instance()->reload(); remove the file and reload again when done,
// so that later tests of the same binary see the defaults.
#pragma once

#include <ace/Recursive_Thread_Mutex.h>
#include <ace/Singleton.h>

#include "kms/server/keystore/files/ConfigMgr.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

class KMSConfig {
 public:
  // The rows of the service's configuration, ending with "EOTEOTEOT".
  static const config_row s_config_table[];

  // The process's one instance, made on first use under the singleton's
  // recursive mutex and destroyed at process exit. Never null.
  static KMSConfig* instance();

  // Lives as long as the instance; thread-safe (see ConfigMgr).
  ConfigMgr& getConfigMgr() { return m_configMgr; }

  // Re-reads every back end (ConfigMgr::reload): throws 1257 if any failed,
  // after all were tried.
  void reload();

 private:
  friend class ACE_Singleton<KMSConfig, ACE_Recursive_Thread_Mutex>;

  KMSConfig();
  ~KMSConfig();
  KMSConfig(const KMSConfig&) = delete;
  KMSConfig& operator=(const KMSConfig&) = delete;

  ConfigMgr m_configMgr;
};

typedef ACE_Singleton<KMSConfig, ACE_Recursive_Thread_Mutex> KMSConfigSingleton;

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
