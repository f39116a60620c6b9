#include "kms/server/keystore/files/KMSFileLocator.h"

#include <sys/stat.h>

#include <vector>

#include "kms/server/keystore/files/FileFaults.h"

#include "kms/platform/VrConfReader.h"
#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/Raise.h"
#include "kms/server/diagnostics/StatusCodes.h"
#include "kms/server/keystore/files/FileUtils.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

namespace {

constexpr int kMsgConfigUnreadable = 32;
constexpr int kMsgNoKmsDir = 33;
constexpr int kMsgStoreRoot = 51;

std::string withExt(const std::string& base, const std::string& ext) {
  return base + "." + ext;
}

}  // namespace

const std::string KMSFileLocator::KS_FILE_NAME = "KMS_DATA";
const std::string KMSFileLocator::HMK_FILE_NAME = "KMS_HMKF";
const std::string KMSFileLocator::KPK_FILE_NAME = "KMS_KPKF";
const std::string KMSFileLocator::FILE_EXT = "dat";
const std::string KMSFileLocator::BAK_FILE_EXT = "bak";
const std::string KMSFileLocator::NEW_FILE_EXT = "new";
const std::string KMSFileLocator::KS_DB_DIR = "db";
const std::string KMSFileLocator::KS_KEY_DIR = "key";

KMSFileLocator::KMSFileLocator() {
  KMS_TRACE_THIS("KMSFileLocator::KMSFileLocator");
  if (VR_read_master_config() != 0) {
    logAppMessage("KMSFileLocator::KMSFileLocator", CRVN_SEV_ERROR, kMsgConfigUnreadable);
    KS_THROW(EC_KS_internal_error, "KMSFileLocator::KMSFileLocator");
  }
  std::shared_ptr<const VrMasterConfig> config = get_master_config_ptr();
  if (!config || config->kmsDir.empty()) {
    logAppMessage("KMSFileLocator::KMSFileLocator", CRVN_SEV_ERROR, kMsgNoKmsDir);
    KS_THROW(EC_KS_internal_error, "KMSFileLocator::KMSFileLocator");
  }
  initPathVariables(config->kmsDir);
}

KMSFileLocator::KMSFileLocator(const std::string& root) {
  KMS_TRACE_THIS("KMSFileLocator::KMSFileLocator");
  initPathVariables(root);
}

void KMSFileLocator::initPathVariables(const std::string& root) {
  KMS_TRACE_THIS("KMSFileLocator::initPathVariables");
  logAppMessage("KMSFileLocator::initPathVariables", CRVN_SEV_INFO, kMsgStoreRoot, root);
  m_rootDir = root;
  m_dbDir = m_rootDir + "/" + KS_DB_DIR;
  m_keyDir = m_rootDir + "/" + KS_KEY_DIR;
  m_ksPath = m_dbDir + "/" + withExt(KS_FILE_NAME, FILE_EXT);
  m_ksNewPath = m_dbDir + "/" + withExt(KS_FILE_NAME, NEW_FILE_EXT);
  m_ksBakPath = m_dbDir + "/" + withExt(KS_FILE_NAME, BAK_FILE_EXT);
  m_hmkPath = m_keyDir + "/" + withExt(HMK_FILE_NAME, FILE_EXT);
  m_hmkNewPath = m_keyDir + "/" + withExt(HMK_FILE_NAME, NEW_FILE_EXT);
  m_hmkBakPath = m_keyDir + "/" + withExt(HMK_FILE_NAME, BAK_FILE_EXT);
  m_kpkPath = m_keyDir + "/" + withExt(KPK_FILE_NAME, FILE_EXT);
  m_kpkNewPath = m_keyDir + "/" + withExt(KPK_FILE_NAME, NEW_FILE_EXT);
  m_kpkBakPath = m_keyDir + "/" + withExt(KPK_FILE_NAME, BAK_FILE_EXT);
}

std::array<const std::string*, 9> KMSFileLocator::filesInOrder() const {
  return {&m_hmkPath,    &m_ksPath,     &m_kpkPath,   &m_hmkNewPath, &m_ksNewPath,
          &m_kpkNewPath, &m_hmkBakPath, &m_ksBakPath, &m_kpkBakPath};
}

bool KMSFileLocator::anyFileExists() const {
  KMS_TRACE_THIS("KMSFileLocator::anyFileExists");
  for (const std::string* path : filesInOrder()) {
    if (Utils::fileExists(path->c_str(), Utils::LOG_NEITHER, "KMSFileLocator::anyFileExists")) {
      return true;
    }
  }
  return false;
}

void KMSFileLocator::deleteAllFiles() const {
  KMS_TRACE_THIS("KMSFileLocator::deleteAllFiles");
  for (const std::string* path : filesInOrder()) {
    Utils::deleteFile("KMSFileLocator::deleteAllFiles", path->c_str(), __LINE__, true, __FILE__);
  }
}

void KMSFileLocator::requireTrusted() const {
  static const char* const kLabel = "KMSFileLocator::requireTrusted";
  KMS_TRACE_THIS(kLabel);
  // Every directory on the way to the root; root-owned ones above are the
  // system's and trusted as they are.
  std::vector<std::string> ancestors;
  for (size_t slash = m_rootDir.find('/', 1); slash != std::string::npos;
       slash = m_rootDir.find('/', slash + 1)) {
    ancestors.push_back(m_rootDir.substr(0, slash));
  }
  size_t firstChecked = 0;
  for (size_t i = 0; i < ancestors.size(); ++i) {
    struct stat st;
    if (FileFaults::statPath(ancestors[i].c_str(), &st) == 0 && st.st_uid == 0) {
      firstChecked = i + 1;
    }
  }
  for (size_t i = firstChecked; i < ancestors.size(); ++i) {
    Utils::requireTrustedPath(kLabel, ancestors[i], true, __LINE__, __FILE__);
  }
  for (const std::string* dir : {&m_rootDir, &m_dbDir, &m_keyDir}) {
    Utils::requireTrustedPath(kLabel, *dir, true, __LINE__, __FILE__);
  }
  for (const std::string* path : filesInOrder()) {
    Utils::requireTrustedPath(kLabel, *path, false, __LINE__, __FILE__);
  }
}

void KMSFileLocator::createMissingDirectories() const {
  KMS_TRACE_THIS("KMSFileLocator::createMissingDirectories");
  for (const std::string* dir : {&m_rootDir, &m_dbDir, &m_keyDir}) {
    Utils::createDir("KMSFileLocator::createMissingDirectories", dir->c_str(), __LINE__, __FILE__);
  }
}

std::string KMSFileLocator::ksFileName() {
  return withExt(KS_FILE_NAME, FILE_EXT);
}

std::string KMSFileLocator::hmkFileName() {
  return withExt(HMK_FILE_NAME, FILE_EXT);
}

std::string KMSFileLocator::kpkFileName() {
  return withExt(KPK_FILE_NAME, FILE_EXT);
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
