// A back end of the configuration: somewhere named values are read from and
// written to. ConfigMgr owns its agents and picks one per table row.
#pragma once

#include <string>

namespace Vaultrest {
namespace DL {
namespace KMS {

// Every operation is thread-safe (each implementation has its own lock) and
// reports any failure, including a key the back end does not know, by throwing
// KeyStoreError 1257. A set changes the agent's copy only; save() writes it out.
class ConfigurationAgent {
 public:
  ConfigurationAgent() = default;
  ConfigurationAgent(const ConfigurationAgent&) = delete;
  ConfigurationAgent& operator=(const ConfigurationAgent&) = delete;

  virtual int getIntegerValue(const std::string& key) = 0;
  virtual std::string getStringValue(const std::string& key) = 0;
  virtual void setIntegerValue(const std::string& key, int value) = 0;
  virtual void setStringValue(const std::string& key, const std::string& value) = 0;
  // Drops the agent's copy and reads the back end again.
  virtual void reload() = 0;
  // Writes the agent's copy to the back end.
  virtual void save() = 0;
  virtual ~ConfigurationAgent();
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
