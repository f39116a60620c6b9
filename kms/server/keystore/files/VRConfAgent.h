// The configuration agent over the product's master configuration. It knows
// three settings: "use_cxss" and "verbose" (integers) and "emm_server" (a
// string); any other key, or a key asked for with the other type, is 1257.
#pragma once

#include <string>

#include <ace/RW_Thread_Mutex.h>

#include "kms/platform/VrConfInfo.h"
#include "kms/server/keystore/files/ConfigurationAgent.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

class VRConfAgent : public ConfigurationAgent {
 public:
  // Reads the master configuration at once; throws 1257 when it cannot.
  VRConfAgent();
  ~VRConfAgent() override;

  // Read lock.
  int getIntegerValue(const std::string& key) override;
  std::string getStringValue(const std::string& key) override;
  // Write lock. Change the copy in memory only.
  void setIntegerValue(const std::string& key, int value) override;
  void setStringValue(const std::string& key, const std::string& value) override;
  // Write lock. On a 1257 the previous copy stays in place.
  void reload() override;
  // Write lock. Writes the three settings to the master configuration.
  void save() override;

 private:
  ACE_RW_Thread_Mutex m_lock;
  vrconf_info_t m_info{};  // guarded by m_lock; owns emm_server
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
