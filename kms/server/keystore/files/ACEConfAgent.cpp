#include "kms/server/keystore/files/ACEConfAgent.h"

#include <ace/Configuration_Import_Export.h>
#include <ace/Guard_T.h>
#include <cerrno>

#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/Raise.h"
#include "kms/server/diagnostics/StatusCodes.h"
#include "kms/server/keystore/files/FileUtils.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

namespace {

const char kSectionName[] = "KMSConfig";
constexpr int kMsgConfigNotRead = 112;

// A valid file holds the one section "KMSConfig" with the thirteen keys of
// the configuration table, each a short line: far below both bounds. A
// bigger file, or one of more sections, is refused before it is parsed, so
// that it cannot hold up the start.
constexpr off_t kMaxConfigFileBytes = 64 * 1024;
constexpr size_t kMaxConfigSections = 16;

// The name under which ACE reopens the file open on `stream` (the file
// itself, not whatever its name points at by then).
std::string nameOfOpenFile(FILE* stream) {
  return "/proc/self/fd/" + std::to_string(::fileno(stream));
}

// Section headers: lines that begin with "[".
size_t sectionCount(const std::string& text) {
  size_t count = 0;
  for (size_t pos = 0; pos < text.size(); ++pos) {
    if (text[pos] == '[' && (pos == 0 || text[pos - 1] == '\n')) {
      ++count;
    }
  }
  return count;
}

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
    KS_THROW(EC_KS_config_failure, "ACEConfAgent::reload");
  }
  // The file is opened as the store's files are (no symlink, no FIFO or
  // device, a file of this user that others cannot write, of bounded size)
  // and looked at before ACE parses it through the open descriptor.
  bool imported = false;
  Utils::FileHolder in =
      Utils::openForReading("ACEConfAgent::reload", m_fileName, kMaxConfigFileBytes);
  if (in.get() != nullptr) {
    std::string text;
    try {
      Utils::readFileIntoString(in, text, static_cast<size_t>(kMaxConfigFileBytes));
      const size_t sections = sectionCount(text);
      if (sections > kMaxConfigSections) {
        logAppMessage("ACEConfAgent::reload", CRVN_SEV_ERROR, kMsgConfigNotRead, m_fileName,
                      std::to_string(sections) + " sections, more than " +
                          std::to_string(kMaxConfigSections) + ", were found");
      } else {
        ACE_Registry_ImpExp importer(*config);
        imported = importer.import_config(nameOfOpenFile(in).c_str()) == 0;
      }
    } catch (const KeyStoreError& error) {
      KMS_DEBUG("ACEConfAgent::reload", 1, "Exception Caught: " << error.str(true));
    }
  }
  if (!imported) {
    KMS_DEBUG("ACEConfAgent::reload", 1, "FAILED to read from config file. Ignoring error");
  }
  ACE_Configuration_Section_Key section;
  if (config->open_section(config->root_section(), kSectionName, true, section) != 0) {
    KMS_DEBUG("ACEConfAgent::reload", 1, "FAILED to open KMSConfig section");
    KS_THROW(EC_KS_config_failure, "ACEConfAgent::reload");
  }
  m_section = section;
  m_config = std::move(config);
}

void ACEConfAgent::save() {
  KMS_TRACE_THIS("ACEConfAgent::save");
  ACE_Write_Guard<ACE_RW_Thread_Mutex> guard(m_lock);
  // Written beside the file, synced and renamed over it: a crash leaves the
  // old file or the new one, whole. ACE writes through the new file's own
  // descriptor.
  try {
    Utils::replaceFileDurably("ACEConfAgent::save", m_fileName, __LINE__, __FILE__, [&](FILE* out) {
      ACE_Registry_ImpExp exporter(*m_config);
      if (exporter.export_config(nameOfOpenFile(out).c_str()) != 0) {
        KS_THROW(EC_KS_config_failure, "ACEConfAgent::save");
      }
    });
  } catch (const KeyStoreError& error) {
    KMS_DEBUG("ACEConfAgent::save", 1, "Exception Caught: " << error.str(true));
    KMS_DEBUG("ACEConfAgent::save", 1, "FAILED to save configuration to file: " << m_fileName);
    KS_THROW(EC_KS_config_failure, "ACEConfAgent::save");
  }
}

int ACEConfAgent::getIntegerValue(const std::string& key) {
  KMS_TRACE_THIS("ACEConfAgent::getIntegerValue");
  ACE_Read_Guard<ACE_RW_Thread_Mutex> guard(m_lock);
  u_int value = 0;
  if (m_config->get_integer_value(m_section, key.c_str(), value) != 0) {
    KMS_DEBUG("ACEConfAgent::getIntegerValue", 2, "No integer value for key: " << key);
    KS_THROW(EC_KS_config_failure, "ACEConfAgent::getIntegerValue");
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
    KS_THROW(EC_KS_config_failure, "ACEConfAgent::getStringValue");
  }
  return std::string(value.c_str(), value.length());
}

void ACEConfAgent::setIntegerValue(const std::string& key, int value) {
  KMS_TRACE_THIS("ACEConfAgent::setIntegerValue");
  ACE_Write_Guard<ACE_RW_Thread_Mutex> guard(m_lock);
  if (m_config->set_integer_value(m_section, key.c_str(), static_cast<u_int>(value)) != 0) {
    KMS_DEBUG("ACEConfAgent::setIntegerValue", 1,
              "FAILED to set value: " << value << ", for key: " << key);
    KS_THROW(EC_KS_config_failure, "ACEConfAgent::setIntegerValue");
  }
}

void ACEConfAgent::setStringValue(const std::string& key, const std::string& value) {
  KMS_TRACE_THIS("ACEConfAgent::setStringValue");
  ACE_Write_Guard<ACE_RW_Thread_Mutex> guard(m_lock);
  if (m_config->set_string_value(m_section, key.c_str(), ACE_TString(value.c_str())) != 0) {
    KMS_DEBUG("ACEConfAgent::setStringValue", 1,
              "FAILED to set value: " << value << ", for key: " << key);
    KS_THROW(EC_KS_config_failure, "ACEConfAgent::setStringValue");
  }
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
