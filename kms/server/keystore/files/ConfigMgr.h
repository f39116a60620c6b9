// Named settings served from a table compiled into the program. Each row says
// where its value lives: in the row (memory), in the service's own file (file
// agent) or in the product's master configuration (central agent). A back end
// that fails never stops a read: the row's default is served instead.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "kms/server/keystore/files/ConfigurationAgent.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

// One row of a configuration table. A table is an array of rows ending with
// the row named "EOTEOTEOT"; it must outlive every ConfigMgr over it.
struct config_row {
  enum Type { INTEGER = 0, STRING = 1 };
  enum Agent { MEMORY = 0, FILE_AGENT = 1, CENTRAL_AGENT = 2 };

  const char* name;
  int type;                // Type
  int64_t intDefault;      // served for an INTEGER row whose agent cannot answer
  const char* strDefault;  // likewise for a STRING row
  int agent;               // Agent: the slot of ConfigMgr that holds the value
};

// Thread-safe: the table is read-only and every agent has its own lock.
class ConfigMgr {
 public:
  static const int kAgentSlots = 3;

  // Makes an ACEConfAgent over `confFile` and a VRConfAgent. One that cannot
  // be made is logged and left out, and its rows serve their defaults. Never
  // throws a KeyStoreError.
  ConfigMgr(const config_row* table, const std::string& confFile);
  // Uses the given agents for the file and central slots (either may be null).
  ConfigMgr(const config_row* table, std::unique_ptr<ConfigurationAgent> fileAgent,
            std::unique_ptr<ConfigurationAgent> centralAgent);
  ~ConfigMgr();
  ConfigMgr(const ConfigMgr&) = delete;
  ConfigMgr& operator=(const ConfigMgr&) = delete;

  // The row named `name` (case-sensitive), or null.
  const config_row* getConfEntry(const std::string& name) const;

  // Gets throw 1258 for a name with no row and 1259 for a row of the other
  // type. Otherwise they give the agent's value, or the row's default when the
  // row has no agent or the agent fails. An integer default is cut to int.
  int getIntegerValue(const std::string& name);
  std::string getStringValue(const std::string& name);
  // Sets throw 1258 and 1259 as the gets do, 1257 for a row without an agent
  // (memory rows can never be changed) and whatever the agent throws (1257).
  // The value reaches the back end only through save().
  void setIntegerValue(const std::string& name, int value);
  void setStringValue(const std::string& name, const std::string& value);

  // Call the operation on every agent in slot order; a failure does not stop
  // the next agent. Throw 1257 afterwards if any agent failed.
  void reload();
  void save();

 private:
  // The row for `name` of `type`; throws 1258 / 1259 under `function`.
  const config_row* rowFor(const std::string& name, int type, const char* function) const;
  // The agent that serves `row`, or null.
  ConfigurationAgent* agentFor(const config_row* row) const;
  template <typename Operation>
  void forEachAgent(const char* function, Operation operation);

  const config_row* const m_table;
  // Indexed by config_row::agent. Slot 0 (memory) is always null, slots 1
  // and 2 are null when their agent could not be made.
  std::unique_ptr<ConfigurationAgent> m_agents[kAgentSlots];
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
