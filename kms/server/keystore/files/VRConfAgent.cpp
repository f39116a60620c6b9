#include "kms/server/keystore/files/VRConfAgent.h"

#include <cstdlib>
#include <cstring>

#include <ace/Guard_T.h>

#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/Raise.h"
#include "kms/server/diagnostics/StatusCodes.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

namespace {

const char kUseCxss[] = "use_cxss";
const char kVerbose[] = "verbose";
const char kEmmServer[] = "emm_server";

// The integer field of `info` named `key`, or null.
int* integerField(vrconf_info_t& info, const std::string& key) {
  if (key == kUseCxss) {
    return &info.use_cxss;
  }
  if (key == kVerbose) {
    return &info.verbose;
  }
  return nullptr;
}

}  // namespace

VRConfAgent::VRConfAgent() {
  KMS_TRACE_THIS("VRConfAgent::VRConfAgent");
  reload();
}

VRConfAgent::~VRConfAgent() {
  vrconf_free_info(&m_info);
}

void VRConfAgent::reload() {
  KMS_TRACE_THIS("VRConfAgent::reload");
  ACE_Write_Guard<ACE_RW_Thread_Mutex> guard(m_lock);
  vrconf_info_t fresh{};
  const int rc = vrconf_get_info(&fresh);
  if (rc != 0) {
    vrconf_free_info(&fresh);
    KMS_DEBUG("VRConfAgent::reload", 1, "vrconf_get_info FAILED with " << rc);
    KS_THROW(EC_KS_config_failure, "VRConfAgent::reload");
  }
  vrconf_free_info(&m_info);
  m_info = fresh;
}

void VRConfAgent::save() {
  KMS_TRACE_THIS("VRConfAgent::save");
  ACE_Write_Guard<ACE_RW_Thread_Mutex> guard(m_lock);
  const int rc = vrconf_set_info(&m_info);
  if (rc != 0) {
    KMS_DEBUG("VRConfAgent::save", 1, "vrconf_set_info FAILED with " << rc);
    KS_THROW(EC_KS_config_failure, "VRConfAgent::save");
  }
}

int VRConfAgent::getIntegerValue(const std::string& key) {
  KMS_TRACE_THIS("VRConfAgent::getIntegerValue");
  ACE_Read_Guard<ACE_RW_Thread_Mutex> guard(m_lock);
  const int* field = integerField(m_info, key);
  if (field == nullptr) {
    KMS_DEBUG("VRConfAgent::getIntegerValue", 1, "Unknown integer key: " << key);
    KS_THROW(EC_KS_config_failure, "VRConfAgent::getIntegerValue");
  }
  return *field;
}

std::string VRConfAgent::getStringValue(const std::string& key) {
  KMS_TRACE_THIS("VRConfAgent::getStringValue");
  ACE_Read_Guard<ACE_RW_Thread_Mutex> guard(m_lock);
  if (key != kEmmServer) {
    KMS_DEBUG("VRConfAgent::getStringValue", 1, "Unknown string key: " << key);
    KS_THROW(EC_KS_config_failure, "VRConfAgent::getStringValue");
  }
  return m_info.emm_server != nullptr ? m_info.emm_server : "";
}

void VRConfAgent::setIntegerValue(const std::string& key, int value) {
  KMS_TRACE_THIS("VRConfAgent::setIntegerValue");
  ACE_Write_Guard<ACE_RW_Thread_Mutex> guard(m_lock);
  int* field = integerField(m_info, key);
  if (field == nullptr) {
    KMS_DEBUG("VRConfAgent::setIntegerValue", 1, "Unknown integer key: " << key);
    KS_THROW(EC_KS_config_failure, "VRConfAgent::setIntegerValue");
  }
  *field = value;
}

void VRConfAgent::setStringValue(const std::string& key, const std::string& value) {
  KMS_TRACE_THIS("VRConfAgent::setStringValue");
  ACE_Write_Guard<ACE_RW_Thread_Mutex> guard(m_lock);
  if (key != kEmmServer) {
    KMS_DEBUG("VRConfAgent::setStringValue", 1, "Unknown string key: " << key);
    KS_THROW(EC_KS_config_failure, "VRConfAgent::setStringValue");
  }
  // The record owns its string as malloc memory (vrconf_free_info frees it).
  char* copy = static_cast<char*>(std::malloc(value.size() + 1));
  if (copy == nullptr) {
    KMS_DEBUG("VRConfAgent::setStringValue", 1, "Out of memory for key: " << key);
    KS_THROW(EC_KS_config_failure, "VRConfAgent::setStringValue");
  }
  std::memcpy(copy, value.c_str(), value.size() + 1);
  std::free(m_info.emm_server);
  m_info.emm_server = copy;
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
