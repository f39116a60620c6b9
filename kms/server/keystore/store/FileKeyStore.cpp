#include "kms/server/keystore/store/FileKeyStore.h"

#include <limits>

#include "kms/platform/Fips.h"
#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/Raise.h"
#include "kms/server/diagnostics/StatusCodes.h"
#include "kms/server/keystore/files/FileUtils.h"
#include "kms/server/keystore/files/KMSConfig.h"
#include "kms/server/keystore/format/KSMetadata.h"
#include "kms/server/keystore/format/KeyFile.h"
#include "kms/server/keystore/format/ReaderWriter.h"
#include "kms/server/keystore/store/StoreLockGuards.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

bool FileKeyStore::g_fips_mode_disabled = false;

namespace {

constexpr int kMsgMaxKeysPerGroup = 52;
constexpr int kMsgMaxKeyGroups = 53;

// Message `id` with the limit, or with "UNLIMITED" for 0.
void logLimit(int id, int64_t limit) {
  if (limit == 0) {
    logAppMessage("FileKeyStore::FileKeyStore", CRVN_SEV_INFO, id, std::string("UNLIMITED"));
  } else {
    // The limit came from a 32-bit configuration value.
    logAppMessage("FileKeyStore::FileKeyStore", CRVN_SEV_INFO, id, static_cast<int>(limit));
  }
}

}  // namespace

FileKeyStore::FileKeyStore(const KMSFileLocator& locator)
    : m_initialized(false),
      m_quiesceCount(0),
      m_maxKeyGroups(0),
      m_maxKeysPerGroup(0),
      m_masterEncAlgo(KSCrypt::AES_256_GCM),
      m_keyEncAlgo(KSCrypt::AES_256_GCM),
      m_locator(locator) {
  static const char* const kLabel = "FileKeyStore::FileKeyStore";
  KMS_TRACE_THIS(kLabel);
  try {
    ConfigMgr& config = KMSConfig::instance()->getConfigMgr();
    ReaderWriter::debug(config.getIntegerValue("file_rw_debug") != 0);
    m_maxKeyGroups = static_cast<int64_t>(config.getIntegerValue("max_key_groups"));
    m_maxKeysPerGroup = static_cast<int64_t>(config.getIntegerValue("max_keys_per_group"));
  } catch (const KeyStoreError& error) {
    KMS_DEBUG(kLabel, 1, "Exception Caught: " << error.str(true));
    KMS_DEBUG(kLabel, 2, "Failed to read advanced configuration parameters");
  }
  logLimit(kMsgMaxKeyGroups, m_maxKeyGroups);
  logLimit(kMsgMaxKeysPerGroup, m_maxKeysPerGroup);
}

FileKeyStore::~FileKeyStore() = default;

int FileKeyStore::init() {
  static const char* const kLabel = "FileKeyStore::init";
  KMS_TRACE_THIS(kLabel);
  StoreWriteGuard guard(m_lock, m_writerTurnstile);
  if (m_initialized) {
    return EC_KS_already_initialized;
  }
  try {
    auto hmkFile = std::make_unique<KeyFile>(kCurrentVersion);
    auto kpkFile = std::make_unique<KeyFile>(kCurrentVersion);
    auto kpkMgr = std::make_unique<KPKMgr>();
    auto metadata = std::make_unique<KSMetadata>(kCurrentVersion);
    auto keyTable = std::make_unique<KeyTable>(true);
    auto groupTable = std::make_unique<GroupTable>();
    bool needsRewrite = false;

    // Files and directories that others could change are refused before
    // recovery or the read touches them.
    m_locator.requireTrusted();
    readFromFile(*hmkFile, *kpkFile, *kpkMgr, *metadata, *keyTable, *groupTable, m_locator,
                 needsRewrite);
    if (fipsEnableFailed()) {
      KS_THROW(EC_KS_fips_unavailable, kLabel);
    }
    if (needsRewrite) {
      // An upgraded store reaches the disk before it serves.
      writeToFile(*hmkFile, *kpkFile, *metadata, *keyTable, *groupTable, m_locator);
    }
    goLive(std::move(hmkFile), std::move(kpkFile), std::move(kpkMgr), std::move(metadata),
           std::move(keyTable), std::move(groupTable));

    // Tested only now that the store is live: a failure here reports 1200
    // and leaves the store serving.
    if (m_metadata->version() != kCurrentVersion || m_kpkFile->version() != kCurrentVersion ||
        m_hmkFile->version() != kCurrentVersion) {
      KS_THROW(EC_KS_internal_error, kLabel);
    }
    return 0;
  } catch (const KeyStoreError& error) {
    KMS_DEBUG(kLabel, 1, "Exception Caught: " << error.str(true));
    return error.status();
  }
}

void FileKeyStore::goLive(std::unique_ptr<KeyFile> hmkFile, std::unique_ptr<KeyFile> kpkFile,
                          std::unique_ptr<KPKMgr> kpkMgr, std::unique_ptr<KSMetadata> metadata,
                          std::unique_ptr<KeyTable> keyTable,
                          std::unique_ptr<GroupTable> groupTable) {
  static const char* const kLabel = "FileKeyStore::goLive";
  KS_ASSERT(kLabel, !m_initialized);
  if (!hmkFile || !kpkFile || !kpkMgr || !metadata || !keyTable || !groupTable) {
    KS_THROW(EC_KS_internal_error, kLabel);
  }
  m_hmkFile = std::move(hmkFile);
  m_kpkFile = std::move(kpkFile);
  m_kpkMgr = std::move(kpkMgr);
  m_metadata = std::move(metadata);
  m_keyTable = std::move(keyTable);
  m_groupTable = std::move(groupTable);
  m_quiesceCount = 0;
  m_initialized = true;
}

void FileKeyStore::installState(std::unique_ptr<KeyFile> hmkFile, std::unique_ptr<KeyFile> kpkFile,
                                std::unique_ptr<KPKMgr> kpkMgr,
                                std::unique_ptr<KSMetadata> metadata,
                                std::unique_ptr<KeyTable> keyTable,
                                std::unique_ptr<GroupTable> groupTable) {
  static const char* const kLabel = "FileKeyStore::installState";
  KMS_TRACE_THIS(kLabel);
  StoreWriteGuard guard(m_lock, m_writerTurnstile);
  if (m_initialized) {
    KS_THROW(EC_KS_already_initialized, kLabel);
  }
  goLive(std::move(hmkFile), std::move(kpkFile), std::move(kpkMgr), std::move(metadata),
         std::move(keyTable), std::move(groupTable));
}

bool FileKeyStore::isInitialized() {
  KMS_TRACE_THIS("FileKeyStore::isInitialized");
  StoreReadGuard guard(m_lock, m_writerTurnstile);
  return m_initialized;
}

void FileKeyStore::deinitialize() {
  KMS_TRACE_THIS("FileKeyStore::deinitialize");
  m_initialized = false;
  m_hmkFile.reset();
  m_kpkFile.reset();
  m_kpkMgr.reset();
  m_metadata.reset();
  m_keyTable.reset();
  m_groupTable.reset();
  m_quiesceCount = 0;
}

int FileKeyStore::shutdown() {
  KMS_TRACE_THIS("FileKeyStore::shutdown");
  StoreWriteGuard guard(m_lock, m_writerTurnstile);
  if (!m_initialized) {
    return EC_KS_not_initialized;
  }
  deinitialize();
  return 0;
}

int FileKeyStore::dbExists(bool& exists) {
  KMS_TRACE_THIS("FileKeyStore::dbExists");
  StoreReadGuard guard(m_lock, m_writerTurnstile);
  if (m_initialized) {
    return EC_KS_already_initialized;
  }
  if (fipsEnableFailed()) {
    return EC_KS_fips_unavailable;
  }
  // A path that cannot be tested is a status here like any other failure.
  try {
    exists = m_locator.anyFileExists();
  } catch (const KeyStoreError& error) {
    KMS_DEBUG("FileKeyStore::dbExists", 1, "Exception Caught: " << error.str(true));
    return error.status();
  }
  return 0;
}

bool FileKeyStore::isDbClean(const KMSFileLocator& locator) {
  static const char* const kLabel = "FileKeyStore::isDbClean";
  KMS_TRACE(kLabel);
  const auto exists = [](const std::string& path) {
    return Utils::fileExists(path.c_str(), Utils::LOG_NEITHER, kLabel);
  };
  return exists(locator.ksPath()) && exists(locator.hmkPath()) && exists(locator.kpkPath()) &&
         !exists(locator.ksNewPath()) && !exists(locator.hmkNewPath()) &&
         !exists(locator.kpkNewPath()) && !exists(locator.ksBakPath()) &&
         !exists(locator.hmkBakPath()) && !exists(locator.kpkBakPath());
}

bool FileKeyStore::fipsEnableFailed() const {
  if (g_fips_mode_disabled) {
    return false;
  }
  return FIPS_mode() == 0;
}

std::pair<uint64_t, uint64_t> FileKeyStore::getStats() {
  static const char* const kLabel = "FileKeyStore::getStats";
  KMS_TRACE_THIS(kLabel);
  StoreReadGuard guard(m_lock, m_writerTurnstile);
  if (!m_initialized) {
    KS_THROW(EC_KS_not_initialized, kLabel);
  }
  return std::make_pair(static_cast<uint64_t>(m_keyTable->size()),
                        static_cast<uint64_t>(m_groupTable->size()));
}

int FileKeyStore::setMyDACLs() {
  return 0;
}

uint64_t FileKeyStore::quiesce() {
  static const char* const kLabel = "FileKeyStore::quiesce";
  KMS_TRACE_THIS(kLabel);
  StoreWriteGuard guard(m_lock, m_writerTurnstile);
  if (!m_initialized) {
    KS_THROW(EC_KS_not_initialized, kLabel);
  }
  if (m_quiesceCount == std::numeric_limits<uint64_t>::max()) {
    KS_THROW(EC_KS_internal_error, kLabel);
  }
  return ++m_quiesceCount;
}

uint64_t FileKeyStore::unquiesce(bool force) {
  static const char* const kLabel = "FileKeyStore::unquiesce";
  KMS_TRACE_THIS(kLabel);
  StoreWriteGuard guard(m_lock, m_writerTurnstile);
  if (!m_initialized) {
    KS_THROW(EC_KS_not_initialized, kLabel);
  }
  if (m_quiesceCount == 0) {
    KS_THROW(EC_KS_not_quiesced, kLabel);
  }
  if (force) {
    m_quiesceCount = 0;
  } else {
    --m_quiesceCount;
  }
  return m_quiesceCount;
}

uint64_t FileKeyStore::isQuiesced() {
  static const char* const kLabel = "FileKeyStore::isQuiesced";
  KMS_TRACE_THIS(kLabel);
  StoreReadGuard guard(m_lock, m_writerTurnstile);
  if (!m_initialized) {
    KS_THROW(EC_KS_not_initialized, kLabel);
  }
  return m_quiesceCount;
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
