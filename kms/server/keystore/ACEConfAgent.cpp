#include "kms/server/keystore/ACEConfAgent.h"

#include <ace/Configuration_Import_Export.h>
#include <ace/Guard_T.h>

#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/Raise.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

namespace {

const char kSectionName[] = "KMSConfig";
constexpr int kConfigFailure = 1257;

}  // namespace

ACEConfAgent::ACEConfAgent(const std::string& fileName) : m_fileName(fileName) {
  KMS_TRACE_THIS("ACEConfAgent::ACEConfAgent");
  reload();
}

ACEConfAgent::~ACEConfAgent() = default;

void ACEConfAgent::reload() {
  KMS_TRACE_THIS("ACEConfAgent::reload");
  ACE_Write_Guard<ACE_RW_Thread_Mutex> guard(m_lock);

  // The new copy is built aside and put in place only when complete.
  auto config = std::make_unique<ACE_Configuration_Heap>();
  if (config->open() != 0) {
    KMS_DEBUG("ACEConfAgent::reload", 1, "FAILED to initialize Configuration_Heap");
    KS_THROW(kConfigFailure, "ACEConfAgent::reload");
  }
  ACE_Registry_ImpExp importer(*config);
  if (importer.import_config(m_fileName.c_str()) != 0) {
    KMS_DEBUG("ACEConfAgent::reload", 1, "FAILED to read from config file. Ignoring error");
  }
  ACE_Configuration_Section_Key section;
  if (config->open_section(config->root_section(), kSectionName, true, section) != 0) {
    KMS_DEBUG("ACEConfAgent::reload", 1, "FAILED to open KMSConfig section");
    KS_THROW(kConfigFailure, "ACEConfAgent::reload");
  }
  m_section = section;
  m_config = std::move(config);
}

void ACEConfAgent::save() {
  KMS_TRACE_THIS("ACEConfAgent::save");
  ACE_Write_Guard<ACE_RW_Thread_Mutex> guard(m_lock);
  ACE_Registry_ImpExp exporter(*m_config);
  if (exporter.export_config(m_fileName.c_str()) != 0) {
    KMS_DEBUG("ACEConfAgent::save", 1, "FAILED to save configuration to file: " << m_fileName);
    KS_THROW(kConfigFailure, "ACEConfAgent::save");
  }
}

int ACEConfAgent::getIntegerValue(const std::string& key) {
  KMS_TRACE_THIS("ACEConfAgent::getIntegerValue");
  ACE_Read_Guard<ACE_RW_Thread_Mutex> guard(m_lock);
  u_int value = 0;
  if (m_config->get_integer_value(m_section, key.c_str(), value) != 0) {
    KMS_DEBUG("ACEConfAgent::getIntegerValue", 2, "No integer value for key: " << key);
    KS_THROW(kConfigFailure, "ACEConfAgent::getIntegerValue");
  }
  // The file keeps the 32 bits of the int as they are.
  return static_cast<int>(value);
}

std::string ACEConfAgent::getStringValue(const std::string& key) {
  KMS_TRACE_THIS("ACEConfAgent::getStringValue");
  ACE_Read_Guard<ACE_RW_Thread_Mutex> guard(m_lock);
  ACE_TString value;
  if (m_config->get_string_value(m_section, key.c_str(), value) != 0) {
    KMS_DEBUG("ACEConfAgent::getStringValue", 2, "No string value for key: " << key);
    KS_THROW(kConfigFailure, "ACEConfAgent::getStringValue");
  }
  return std::string(value.c_str(), value.length());
}

void ACEConfAgent::setIntegerValue(const std::string& key, int value) {
  KMS_TRACE_THIS("ACEConfAgent::setIntegerValue");
  ACE_Write_Guard<ACE_RW_Thread_Mutex> guard(m_lock);
  if (m_config->set_integer_value(m_section, key.c_str(), static_cast<u_int>(value)) != 0) {
    KMS_DEBUG("ACEConfAgent::setIntegerValue", 1,
              "FAILED to set value: " << value << ", for key: " << key);
    KS_THROW(kConfigFailure, "ACEConfAgent::setIntegerValue");
  }
}

void ACEConfAgent::setStringValue(const std::string& key, const std::string& value) {
  KMS_TRACE_THIS("ACEConfAgent::setStringValue");
  ACE_Write_Guard<ACE_RW_Thread_Mutex> guard(m_lock);
  if (m_config->set_string_value(m_section, key.c_str(), ACE_TString(value.c_str())) != 0) {
    KMS_DEBUG("ACEConfAgent::setStringValue", 1,
              "FAILED to set value: " << value << ", for key: " << key);
    KS_THROW(kConfigFailure, "ACEConfAgent::setStringValue");
  }
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
