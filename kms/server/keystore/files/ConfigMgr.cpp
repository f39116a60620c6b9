#include "kms/server/keystore/files/ConfigMgr.h"

#include <cstring>

#include "kms/server/diagnostics/KeyStoreError.h"
#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/Raise.h"
#include "kms/server/diagnostics/StatusCodes.h"
#include "kms/server/keystore/files/ACEConfAgent.h"
#include "kms/server/keystore/files/VRConfAgent.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

namespace {

const char kEndOfTable[] = "EOTEOTEOT";

// Makes one agent; a KeyStoreError leaves the slot empty.
template <typename Make>
std::unique_ptr<ConfigurationAgent> makeAgent(const char* failureText, Make make) {
  try {
    return make();
  } catch (const KeyStoreError& error) {
    KMS_DEBUG("ConfigMgr::ConfigMgr", 1, "Exception Caught: " << error.str(true));
    KMS_DEBUG("ConfigMgr::ConfigMgr", 1, failureText);
    return nullptr;
  }
}

}  // namespace

ConfigMgr::ConfigMgr(const config_row* table, const std::string& confFile) : m_table(table) {
  KMS_TRACE_THIS("ConfigMgr::ConfigMgr");
  m_agents[config_row::FILE_AGENT] =
      makeAgent("FAILED to create ACEConfAgent. Will serve default values.",
                [&] { return std::make_unique<ACEConfAgent>(confFile); });
  m_agents[config_row::CENTRAL_AGENT] =
      makeAgent("FAILED to create VRConfAgent. Will serve default values.",
                [] { return std::make_unique<VRConfAgent>(); });
}

ConfigMgr::ConfigMgr(const config_row* table, std::unique_ptr<ConfigurationAgent> fileAgent,
                     std::unique_ptr<ConfigurationAgent> centralAgent)
    : m_table(table) {
  m_agents[config_row::FILE_AGENT] = std::move(fileAgent);
  m_agents[config_row::CENTRAL_AGENT] = std::move(centralAgent);
}

ConfigMgr::~ConfigMgr() = default;

const config_row* ConfigMgr::getConfEntry(const std::string& name) const {
  for (const config_row* row = m_table; std::strcmp(row->name, kEndOfTable) != 0; ++row) {
    if (name == row->name) {
      return row;
    }
  }
  return nullptr;
}

const config_row* ConfigMgr::rowFor(const std::string& name, int type, const char* function) const {
  const config_row* row = getConfEntry(name);
  if (row == nullptr) {
    KMS_DEBUG(function, 1, "No configuration entry for key: " << name);
    KS_THROW(EC_KS_no_such_config_key, function);
  }
  if (row->type != type) {
    KMS_DEBUG(function, 1, "Configuration entry of another type for key: " << name);
    KS_THROW(EC_KS_config_wrong_type, function);
  }
  return row;
}

ConfigurationAgent* ConfigMgr::agentFor(const config_row* row) const {
  if (row->agent < 0 || row->agent >= kAgentSlots) {
    return nullptr;
  }
  return m_agents[row->agent].get();
}

int ConfigMgr::getIntegerValue(const std::string& name) {
  KMS_TRACE_THIS("ConfigMgr::getIntegerValue");
  const config_row* row = rowFor(name, config_row::INTEGER, "ConfigMgr::getIntegerValue");
  if (ConfigurationAgent* agent = agentFor(row)) {
    try {
      return agent->getIntegerValue(name);
    } catch (const KeyStoreError& error) {
      KMS_DEBUG("ConfigMgr::getIntegerValue", 1, "Exception Caught: " << error.str(true));
    }
  }
  KMS_DEBUG("ConfigMgr::getIntegerValue", 2,
            "Serving default value " << row->intDefault << " for key: " << name);
  return static_cast<int>(row->intDefault);
}

std::string ConfigMgr::getStringValue(const std::string& name) {
  KMS_TRACE_THIS("ConfigMgr::getStringValue");
  const config_row* row = rowFor(name, config_row::STRING, "ConfigMgr::getStringValue");
  if (ConfigurationAgent* agent = agentFor(row)) {
    try {
      return agent->getStringValue(name);
    } catch (const KeyStoreError& error) {
      KMS_DEBUG("ConfigMgr::getStringValue", 1, "Exception Caught: " << error.str(true));
    }
  }
  const char* fallback = row->strDefault != nullptr ? row->strDefault : "";
  KMS_DEBUG("ConfigMgr::getStringValue", 2,
            "Serving default value " << fallback << " for key: " << name);
  return fallback;
}

void ConfigMgr::setIntegerValue(const std::string& name, int value) {
  KMS_TRACE_THIS("ConfigMgr::setIntegerValue");
  const config_row* row = rowFor(name, config_row::INTEGER, "ConfigMgr::setIntegerValue");
  ConfigurationAgent* agent = agentFor(row);
  if (agent == nullptr) {
    KMS_DEBUG("ConfigMgr::setIntegerValue", 1, "No configuration agent for key: " << name);
    KS_THROW(EC_KS_config_failure, "ConfigMgr::setIntegerValue");
  }
  agent->setIntegerValue(name, value);
}

void ConfigMgr::setStringValue(const std::string& name, const std::string& value) {
  KMS_TRACE_THIS("ConfigMgr::setStringValue");
  const config_row* row = rowFor(name, config_row::STRING, "ConfigMgr::setStringValue");
  ConfigurationAgent* agent = agentFor(row);
  if (agent == nullptr) {
    KMS_DEBUG("ConfigMgr::setStringValue", 1, "No configuration agent for key: " << name);
    KS_THROW(EC_KS_config_failure, "ConfigMgr::setStringValue");
  }
  agent->setStringValue(name, value);
}

template <typename Operation>
void ConfigMgr::forEachAgent(const char* function, Operation operation) {
  bool failed = false;
  for (const auto& agent : m_agents) {
    if (agent == nullptr) {
      continue;
    }
    try {
      operation(*agent);
    } catch (const KeyStoreError& error) {
      KMS_DEBUG(function, 1, "Exception Caught: " << error.str(true));
      failed = true;
    }
  }
  if (failed) {
    KS_THROW(EC_KS_config_failure, function);
  }
}

void ConfigMgr::reload() {
  KMS_TRACE_THIS("ConfigMgr::reload");
  forEachAgent("ConfigMgr::reload", [](ConfigurationAgent& agent) { agent.reload(); });
}

void ConfigMgr::save() {
  KMS_TRACE_THIS("ConfigMgr::save");
  forEachAgent("ConfigMgr::save", [](ConfigurationAgent& agent) { agent.save(); });
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
