// The configuration agent over the service's own file: a registry-export text
// file ("[KMSConfig]", then lines such as "timeout"=dword:0000000a or
// "home_page"="host") whose section "KMSConfig" holds the values.
#pragma once

#include <memory>
#include <string>

#include <ace/Configuration.h>
#include <ace/RW_Thread_Mutex.h>

#include "kms/server/keystore/files/ConfigurationAgent.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

class ACEConfAgent : public ConfigurationAgent {
 public:
  // Reads `fileName` at once (see reload()); throws 1257 when the in-memory
  // configuration cannot be set up. A missing or unreadable file is no error:
  // the agent then holds an empty section and every get throws 1257.
  explicit ACEConfAgent(const std::string& fileName);
  ~ACEConfAgent() override;

  // Read lock. Throw 1257 when the section lacks the key or holds it with
  // another type.
  int getIntegerValue(const std::string& key) override;
  std::string getStringValue(const std::string& key) override;
  // Write lock. Change the copy in memory only; throw 1257 on failure.
  void setIntegerValue(const std::string& key, int value) override;
  void setStringValue(const std::string& key, const std::string& value) override;
  // Write lock. Replaces the copy in memory with what the file holds now. On
  // a 1257 the previous copy stays in place.
  void reload() override;
  // Write lock. Exports the whole copy to the file, replacing its content;
  // throws 1257 when the file cannot be written.
  void save() override;

  const std::string& fileName() const { return m_fileName; }

 private:
  ACE_RW_Thread_Mutex m_lock;
  const std::string m_fileName;
  std::unique_ptr<ACE_Configuration_Heap> m_config;  // guarded by m_lock
  ACE_Configuration_Section_Key m_section;           // "KMSConfig" in m_config
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
