// The master keys: creating a store, remaking a lost key file from its
// passphrase, changing either master key, and what is known of the keys
// without opening the store.
//
// A change of a master key follows the store's transaction discipline: the
// new key files, metadata (and, for the KPK, key table and KPK manager) are
// private copies, committed with writeToFile and moved into the members only
// after the commit returned. Nothing reaches the disk before the commit and
// nothing in memory changes until after it, so a crash leaves the old or the
// new keys, whole, across all three files.
#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "kms/platform/CrvnLis.h"
#include "kms/platform/Fips.h"
#include "kms/server/diagnostics/ErrorMapping.h"
#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/Messages.h"
#include "kms/server/diagnostics/Raise.h"
#include "kms/server/diagnostics/StatusCodes.h"
#include "kms/server/keystore/crypto/KeyGen.h"
#include "kms/server/keystore/crypto/KeyWrap.h"
#include "kms/server/keystore/crypto/SecureBytes.h"
#include "kms/server/keystore/files/FileUtils.h"
#include "kms/server/keystore/format/KSInputBuffer.h"
#include "kms/server/keystore/format/KSMetadata.h"
#include "kms/server/keystore/format/KeyFile.h"
#include "kms/server/keystore/store/FileKeyStore.h"
#include "kms/server/keystore/store/StoreLockGuards.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

namespace {

// Catalogued messages.
constexpr int kMsgHmkHeading = 28;
constexpr int kMsgKpkHeading = 29;
constexpr int kMsgNoKey = 50;
constexpr int kMsgDeletingOldStore = 58;
constexpr int kMsgCreatingStore = 63;
constexpr int kMsgKeyId = 64;
constexpr int kMsgKeyRandom = 65;
constexpr int kMsgChangingKpk = 66;
constexpr int kMsgPreviousValues = 67;
constexpr int kMsgNewValues = 68;
constexpr int kMsgChangingHmk = 69;
constexpr int kMsgKeyFips = 92;
constexpr int kMsgYes = 25;
constexpr int kMsgNo = 26;
constexpr int kOwnOriginator = 286;

// Status codes used by number.

// --- What each operation lets through, and what it turns the rest into ---

// isGoodKeyFile. A malformed file (1208) is the answer "no" and never reaches
// this map.
const ErrorMap kGoodKeyFileMap{{EC_KS_file_write_error, EC_KS_internal_error, EC_KS_open_failed},
                               {}};
// goodHMKFileExists, goodKPKFileExists.
const ErrorMap kGoodHmkFileMap{{EC_KS_file_write_error, EC_KS_internal_error},
                               {{{EC_KS_open_failed}, EC_KS_HMKfile_open_error}}};
const ErrorMap kGoodKpkFileMap{{EC_KS_file_write_error, EC_KS_internal_error},
                               {{{EC_KS_open_failed}, EC_KS_KPKfile_open_error}}};
// getHMKId and its kin on a closed store.
const ErrorMap kStoreMetaMap{{EC_KS_file_write_error, EC_KS_store_file_open_error,
                              EC_KS_invalid_store_file, EC_KS_internal_error},
                             {}};

// createEmpty: a failed commit has deleted what it made, so every file error
// is reported as a store that changed.
const ErrorMap kCreateEmptyMap{
    {EC_KS_internal_error, EC_KS_store_exists, EC_KS_recovery_failed, EC_KS_unknown_file_state},
    {{{EC_KS_dir_create_failed, EC_KS_file_create_failed, EC_KS_file_delete_failed,
       EC_KS_write_failed_nothing_changed, EC_KS_db_write_fail_changed},
      EC_KS_db_write_fail_changed},
     {{EC_KS_bad_argument, EC_KS_crypter_not_ready, EC_KS_crypter_failed, EC_KS_integrity_failed},
      EC_KS_internal_error}}};

// createHMKFile, createKPKFile.
const ErrorMap kCreateHmkFileMap{
    {EC_KS_store_file_open_error, EC_KS_invalid_store_file, EC_KS_hmk_file_exists,
     EC_KS_file_write_error, EC_KS_wrong_hmk, EC_KS_random_hmk, EC_KS_internal_error,
     EC_KS_recovery_failed, EC_KS_unknown_file_state},
    {{{EC_KS_open_failed}, EC_KS_HMKfile_open_error},
     {{EC_KS_integrity_failed}, EC_KS_internal_error}}};
const ErrorMap kCreateKpkFileMap{
    {EC_KS_HMKfile_open_error, EC_KS_store_file_open_error, EC_KS_invalid_store_file,
     EC_KS_file_write_error, EC_KS_wrong_hmk, EC_KS_wrong_kpk, EC_KS_kpk_file_exists,
     EC_KS_random_kpk, EC_KS_internal_error, EC_KS_recovery_failed, EC_KS_unknown_file_state},
    {{{EC_KS_open_failed}, EC_KS_KPKfile_open_error},
     {{EC_KS_malformed}, EC_KS_invalid_HMKfile},
     {{EC_KS_bad_argument, EC_KS_crypter_not_ready, EC_KS_crypter_failed, EC_KS_integrity_failed},
      EC_KS_internal_error}}};

// Failures of rewriting a key file that are reported by whether the new file
// had replaced the old one (1277) or not (1276).
const std::vector<int> kHmkRewriteFailures{EC_KS_dir_create_failed, EC_KS_file_create_failed,
                                           EC_KS_file_rename_failed, EC_KS_HMKfile_open_error,
                                           EC_KS_file_write_error};
const std::vector<int> kKpkRewriteFailures{EC_KS_file_create_failed, EC_KS_file_rename_failed,
                                           EC_KS_KPKfile_open_error, EC_KS_file_write_error};

// updateHMK, updateKPK: the code reported, and the codes after which the store
// stays live on the old keys (nothing written, or nothing changed on disk).
// After any other failure memory may disagree with the disk and the store is
// taken down.
struct RekeyFailures {
  ErrorMap map;
  std::vector<int> keepLive;
};
const RekeyFailures kUpdateHmkFailures{
    {{EC_KS_write_failed_nothing_changed, EC_KS_db_write_fail_changed, EC_KS_internal_error},
     {{{EC_KS_bad_argument, EC_KS_crypter_not_ready, EC_KS_crypter_failed, EC_KS_integrity_failed,
        EC_KS_unwrap_failed},
       EC_KS_internal_error}}},
    {EC_KS_write_failed_nothing_changed, EC_KS_bad_argument, EC_KS_crypter_not_ready,
     EC_KS_crypter_failed, EC_KS_integrity_failed, EC_KS_unwrap_failed}};
const RekeyFailures kUpdateKpkFailures{
    {{EC_KS_write_failed_nothing_changed, EC_KS_db_write_fail_changed, EC_KS_internal_error},
     {{{EC_KS_bad_argument, EC_KS_crypter_not_ready, EC_KS_crypter_failed, EC_KS_integrity_failed},
       EC_KS_internal_error}}},
    {EC_KS_write_failed_nothing_changed, EC_KS_bad_argument, EC_KS_crypter_not_ready,
     EC_KS_crypter_failed, EC_KS_integrity_failed}};

bool isOneOf(const std::vector<int>& codes, int code) {
  return std::find(codes.begin(), codes.end(), code) != codes.end();
}

// What refuses a change of a master key before it starts: a closed store,
// a quiesced one, an empty id. 0 when nothing does.
int rekeyRefusal(bool initialized, uint64_t quiesceCount, const std::string& id) {
  if (!initialized) {
    return EC_KS_not_initialized;
  }
  if (quiesceCount != 0) {
    return EC_KS_quiesced;
  }
  return id.empty() ? EC_KS_bad_argument : 0;
}

// Runs `body`, a re-key, under `failures`: gives 0 or the code to report, and
// calls `takeDown` when the failure may have left memory and disk apart.
template <typename Body, typename TakeDown>
int rekeyStatus(const char* label, const RekeyFailures& failures, Body&& body,
                TakeDown&& takeDown) {
  bool keepLive = true;
  const int status = statusOf(label, failures.map, [&] {
    try {
      body();
    } catch (const KeyStoreError& error) {
      keepLive = isOneOf(failures.keepLive, error.status());
      throw;
    } catch (...) {
      keepLive = false;
      throw;
    }
    return 0;
  });
  if (!keepLive) {
    KMS_DEBUG(label, 1, "Memory no longer agrees with the files: taking the key store down");
    takeDown();
  }
  return status;
}

// --- Files ---

// The rest of `file`, at most `maxBytes`, which is then closed. Throws 1210.
std::string readWhole(Utils::FileHolder& file, off_t maxBytes) {
  std::string bytes;
  Utils::readFileIntoString(file, bytes, static_cast<size_t>(maxBytes));
  file.close();
  return bytes;
}

// The key file at `path`, read whole. Throws `openFailure` when it cannot be
// opened, 1210 when it cannot be read, 1208 for a malformed file.
KeyFile readKeyFileAt(const char* label, const std::string& path, int openFailure) {
  KMS_TRACE("readKeyFileAt");
  Utils::FileHolder file = Utils::openForReading(label, path, Utils::kMaxKeyFileBytes);
  if (file.get() == nullptr) {
    KMS_DEBUG(label, 1, "Cannot open " << path);
    KS_THROW(openFailure, label);
  }
  KSInputBuffer buffer(readWhole(file, Utils::kMaxKeyFileBytes));
  return FileKeyStore::readKeyFile(buffer);
}

// The metadata block of the store file, which lies in clear: no key is
// needed. Throws 1204 when the file cannot be opened, 1210 when it cannot be
// read, 1207 for a malformed block.
KSMetadata readStoreMetadata(const char* label, const KMSFileLocator& locator) {
  KMS_TRACE("readStoreMetadata");
  Utils::FileHolder file =
      Utils::openForReading(label, locator.ksPath(), Utils::kMaxStoreFileBytes);
  if (file.get() == nullptr) {
    KMS_DEBUG(label, 1, "Cannot open " << locator.ksPath());
    KS_THROW(EC_KS_store_file_open_error, label);
  }
  KSInputBuffer buffer(readWhole(file, Utils::kMaxStoreFileBytes));
  return FileKeyStore::readKeyStoreMeta(buffer);
}

// Replaces the key file at `path` (no commit: the store file and the other
// key file are not touched) and gives 0. The new file is written beside it,
// synced and renamed over it, so that a failure or a crash leaves the old
// file (or none, as before) or the new one whole. A failure listed in
// `lossFailures` gives 1276 when the old file still stands and 1277 when the
// new one had replaced it but its directory could not be synced; other
// failures are rethrown.
int rewriteKeyFile(const char* label, const std::string& path, const KeyFile& keyFile,
                   bool makeDirectories, const KMSFileLocator& locator,
                   const std::vector<int>& lossFailures) {
  KMS_TRACE("rewriteKeyFile");
  bool replaced = false;
  try {
    if (makeDirectories) {
      locator.createMissingDirectories();
    }
    Utils::replaceFileDurably(
        label, path, __LINE__, __FILE__,
        [&](FILE* out) { FileKeyStore::writeKeyFile(out, keyFile); }, &replaced);
    return 0;
  } catch (const KeyStoreError& error) {
    KMS_DEBUG(label, 1, "Exception Caught: " << error.str(true));
    if (!isOneOf(lossFailures, error.status())) {
      KMS_DEBUG(label, 1, "Rethrowing Exception");
      throw;
    }
    const int result = replaced ? EC_KS_db_write_fail_changed : EC_KS_write_failed_nothing_changed;
    const char* text = getECmsg(result);
    KMS_DEBUG(label, 1,
              "Returning as " << (text != nullptr ? text : "") << " (" << error.status() << ")");
    return result;
  }
}

// --- Keys ---

// The key length of `type`. Throws 1200 for a type without one.
unsigned long keyLengthOf(const char* label, KSCrypt::CryptType type) {
  const int length = KSCrypt::cryptTypeToKeyLen(type);
  if (length <= 0) {
    KS_THROW(EC_KS_internal_error, label);
  }
  return static_cast<unsigned long>(length);
}

// Throws 1200 after message 50 when no key came out.
void requireKey(const char* label, const std::string& key) {
  if (key.empty()) {
    logAppMessage(label, CRVN_SEV_ERROR, kMsgNoKey);
    KS_THROW(EC_KS_internal_error, label);
  }
}

// A new master key for `type`: random data for an empty passphrase (then
// `salt` is empty and no passphrase can make the key again), otherwise
// stretched from the passphrase with a fresh salt, given back in `salt`.
// Throws 1200 when no salt or no key could be had. The caller wipes the key.
std::string makeMasterKey(const char* label, const std::string& passphrase, KSCrypt::CryptType type,
                          std::string& salt) {
  KMS_TRACE("makeMasterKey");
  const unsigned long length = keyLengthOf(label, type);
  salt.clear();
  std::string key;
  if (passphrase.empty()) {
    key = KeyGen::generateRandomKey(length);
  } else {
    salt = KeyGen::generateSalt();
    if (salt.empty()) {
      KS_THROW(EC_KS_internal_error, label);
    }
    key = KeyGen::passphraseToKey(passphrase, salt, length);
  }
  requireKey(label, key);
  return key;
}

// The master key that `passphrase` made when the store was written: the
// stretch with the stored salt, or, for a key of the oldest stores, which
// kept no salt, the unsalted derivation for AES-256. The caller wipes it.
std::string remakeMasterKey(const char* label, const std::string& passphrase,
                            const std::string& salt, KSCrypt::CryptType type) {
  KMS_TRACE("remakeMasterKey");
  std::string key;
  if (salt.empty()) {
    key = KeyGen::passphraseToKey_deprecated(passphrase, CT_AES256_CBC);
  } else {
    key = KeyGen::passphraseToKey(passphrase, salt, keyLengthOf(label, type));
  }
  requireKey(label, key);
  return key;
}

bool fipsModeOn() {
  return FIPS_mode() != 0;
}

KeyInfo infoOf(const KSMetadata& meta, KSMetadata::Master which) {
  const KSMetadata::MasterFields& key = meta.master(which);
  KeyInfo info;
  info.id = key.id;
  info.algorithm = key.algorithm;
  info.random = key.random;
  info.fips = key.fips;
  return info;
}

// --- Log lines ---

// The catalogue's "Yes" or "No". Throws 1269 when the catalogue fails.
std::string yesNo(bool value) {
  return GetCxULMessageEx(kOwnOriginator, value ? kMsgYes : kMsgNo);
}

// Id and kind (random or passphrase) of one master key.
void logKeyFacts(const char* label, const std::string& id, bool random) {
  logAppMessage(label, CRVN_SEV_INFO, kMsgKeyId, id);
  logAppMessage(label, CRVN_SEV_INFO, kMsgKeyRandom, yesNo(random));
}

// A master key of a new store: heading, id, kind, FIPS state.
void logNewStoreKey(const char* label, int heading, const std::string& id, bool random, bool fips) {
  logAppMessage(label, CRVN_SEV_INFO, heading);
  logKeyFacts(label, id, random);
  logAppMessage(label, CRVN_SEV_INFO, kMsgKeyFips, yesNo(fips));
}

// What a change of a master key replaces: the old facts, then the new ones.
void logKeyChange(const char* label, int heading, const KeyInfo& before, const KeyInfo& after) {
  logAppMessage(label, CRVN_SEV_INFO, heading);
  logAppMessage(label, CRVN_SEV_INFO, kMsgPreviousValues);
  logKeyFacts(label, before.id, before.random);
  logAppMessage(label, CRVN_SEV_INFO, kMsgNewValues);
  logKeyFacts(label, after.id, after.random);
}

// One fact of the store's metadata: from memory on a live store (`live` not
// null), otherwise from the store file, whose metadata lies in clear, so no
// key is needed. A closed store in a process that asked for FIPS mode and
// lacks it refuses with 1286.
template <typename Fact>
auto metadataFact(const char* label, const KSMetadata* live, bool fipsFailed,
                  const KMSFileLocator& locator, Fact fact) -> decltype(fact(*live)) {
  if (live != nullptr) {
    return fact(*live);
  }
  if (fipsFailed) {
    KS_THROW(EC_KS_fips_unavailable, label);
  }
  return translateErrors(label, kStoreMetaMap,
                         [&] { return fact(readStoreMetadata(label, locator)); });
}

// Three empty files under the final names, which make the commit's start state clean.
void createEmptyStoreFiles(const char* label, const KMSFileLocator& locator) {
  locator.createMissingDirectories();
  for (const std::string* path : {&locator.hmkPath(), &locator.kpkPath(), &locator.ksPath()}) {
    Utils::createFile(label, path->c_str(), __LINE__, false, __FILE__);
  }
}

// Deletes whatever a failed creation left; a failure here is only logged.
void deleteFailedStoreFiles(const char* label, const KMSFileLocator& locator) {
  try {
    locator.deleteAllFiles();
  } catch (...) {
    KMS_DEBUG(label, 1, "Failed trying to cleanup any created files");
  }
}

}  // namespace

// ---- What differs between the two master keys' files ----

namespace {

// The HMK file holds the key that `passphrase` makes, once it is proven
// against the metadata.
KeyFile remakeHmkFile(const char* label, const std::string& passphrase, const KSMetadata& meta,
                      const KMSFileLocator&) {
  const Secret hmk(remakeMasterKey(label, passphrase, meta.hmkSalt(), meta.masterEncAlgo()));
  FileKeyStore::verifyHmk(hmk.str(), meta);
  KeyFile hmkFile(meta.version());
  hmkFile.setKey(hmk.str());
  return hmkFile;
}

// The KPK file can only be remade beside a good HMK, which wraps it.
KeyFile remakeKpkFile(const char* label, const std::string& passphrase, const KSMetadata& meta,
                      const KMSFileLocator& locator) {
  const KeyFile hmkFile = readKeyFileAt(label, locator.hmkPath(), EC_KS_HMKfile_open_error);
  FileKeyStore::verifyHmk(hmkFile.key(), meta);

  const Secret kpk(remakeMasterKey(label, passphrase, meta.kpkSalt(), meta.keyEncAlgo()));
  FileKeyStore::verifyKpk(kpk.str(), meta);

  KeyFile kpkFile(meta.version());
  kpkFile.setKey(
      Utils::encryptKeyWithKey(kpk.str(), hmkFile.key(), meta.masterEncAlgo(), meta.version()));
  return kpkFile;
}

}  // namespace

struct FileKeyStore::MasterKeyKind {
  const char* goodLabel;
  const char* createLabel;
  const char* idLabel;
  const char* infoLabel;
  KSMetadata::Master which;
  const std::string& (KMSFileLocator::*path)() const;
  const ErrorMap& goodMap;
  const ErrorMap& createMap;
  int fileExists;  // a good file stands there and overwriting was not asked
  int randomKey;   // the key was random and the caller refuses that
  int openFailure;
  // Unlike the HMK file, the KPK file is not given missing directories.
  bool makeDirectories;
  const std::vector<int>& rewriteFailures;
  KeyFile (*remake)(const char* label, const std::string& passphrase, const KSMetadata& meta,
                    const KMSFileLocator& locator);
};

const FileKeyStore::MasterKeyKind FileKeyStore::kHmkKind = {"FileKeyStore::goodHMKFileExists",
                                                            "FileKeyStore::createHMKFile",
                                                            "FileKeyStore::getHMKId",
                                                            "FileKeyStore::getHMKInfo",
                                                            KSMetadata::HMK,
                                                            &KMSFileLocator::hmkPath,
                                                            kGoodHmkFileMap,
                                                            kCreateHmkFileMap,
                                                            EC_KS_hmk_file_exists,
                                                            EC_KS_random_hmk,
                                                            EC_KS_HMKfile_open_error,
                                                            true,
                                                            kHmkRewriteFailures,
                                                            &remakeHmkFile};

const FileKeyStore::MasterKeyKind FileKeyStore::kKpkKind = {"FileKeyStore::goodKPKFileExists",
                                                            "FileKeyStore::createKPKFile",
                                                            "FileKeyStore::getKPKId",
                                                            "FileKeyStore::getKPKInfo",
                                                            KSMetadata::KPK,
                                                            &KMSFileLocator::kpkPath,
                                                            kGoodKpkFileMap,
                                                            kCreateKpkFileMap,
                                                            EC_KS_kpk_file_exists,
                                                            EC_KS_random_kpk,
                                                            EC_KS_KPKfile_open_error,
                                                            false,
                                                            kKpkRewriteFailures,
                                                            &remakeKpkFile};

// ---- Facts of the master keys ----

KeyInfo FileKeyStore::masterKeyInfo(const MasterKeyKind& kind, const char* label) {
  KMS_TRACE_THIS(label);
  StoreReadGuard guard(m_lock, m_writerTurnstile);
  return metadataFact(label, m_initialized ? m_metadata.get() : nullptr,
                      !m_initialized && fipsEnableFailed(), m_locator,
                      [&kind](const KSMetadata& meta) { return infoOf(meta, kind.which); });
}

std::string FileKeyStore::getHMKId() {
  return masterKeyInfo(kHmkKind, kHmkKind.idLabel).id;
}

KeyInfo FileKeyStore::getHMKInfo() {
  return masterKeyInfo(kHmkKind, kHmkKind.infoLabel);
}

std::string FileKeyStore::getKPKId() {
  return masterKeyInfo(kKpkKind, kKpkKind.idLabel).id;
}

KeyInfo FileKeyStore::getKPKInfo() {
  return masterKeyInfo(kKpkKind, kKpkKind.infoLabel);
}

bool FileKeyStore::goodHMKFileExists() {
  return goodKeyFileExists(kHmkKind);
}

bool FileKeyStore::goodKPKFileExists() {
  return goodKeyFileExists(kKpkKind);
}

bool FileKeyStore::goodKeyFileExists(const MasterKeyKind& kind) {
  KMS_TRACE_THIS(kind.goodLabel);
  StoreReadGuard guard(m_lock, m_writerTurnstile);
  if (m_initialized) {
    return true;
  }
  if (fipsEnableFailed()) {
    KS_THROW(EC_KS_fips_unavailable, kind.goodLabel);
  }
  return translateErrors(kind.goodLabel, kind.goodMap,
                         [&] { return isGoodKeyFile((m_locator.*kind.path)()); });
}

bool FileKeyStore::isGoodKeyFile(const std::string& path) {
  static const char* const kLabel = "FileKeyStore::isGoodKeyFile";
  KMS_TRACE(kLabel);
  return translateErrors(kLabel, kGoodKeyFileMap, [&] {
    if (!Utils::fileExists(path.c_str(), Utils::LOG_BOTH, kLabel)) {
      return false;
    }
    // Only the form of the file is tested, not whether its key is right.
    try {
      readKeyFileAt(kLabel, path, EC_KS_open_failed);
    } catch (const KeyStoreError& error) {
      if (error.status() != EC_KS_malformed) {
        throw;
      }
      KMS_DEBUG(kLabel, 1, path << " is not a valid key file: " << error.str(true));
      return false;
    }
    return true;
  });
}

// ---- Creating a store ----

int FileKeyStore::createEmpty(const std::string& hmkPassphrase, const std::string& hmkId,
                              const std::string& kpkPassphrase, const std::string& kpkId,
                              bool overwrite) {
  static const char* const kLabel = "FileKeyStore::createEmpty";
  KMS_TRACE_THIS(kLabel);
  StoreWriteGuard guard(m_lock, m_writerTurnstile);
  if (m_initialized) {
    return EC_KS_already_initialized;
  }
  if (fipsEnableFailed()) {
    return EC_KS_fips_unavailable;
  }
  if (hmkId.empty() || kpkId.empty()) {
    return EC_KS_bad_argument;
  }
  return statusOf(kLabel, kCreateEmptyMap, [&] {
    // A store about to be replaced is first recovered as a start would
    // recover it; files in a state that no start accepts are refused (1275)
    // before anything is deleted.
    if (overwrite && m_locator.anyFileExists()) {
      recoverDB(m_locator);
    }
    try {
      // A refusal to overwrite is raised in here too, so it also deletes the
      // files of the store found: a caller that wants to keep a store asks
      // dbExists first.
      if (m_locator.anyFileExists()) {
        if (!overwrite) {
          KS_THROW(EC_KS_store_exists, kLabel);
        }
        logAppMessage(kLabel, CRVN_SEV_INFO, kMsgDeletingOldStore);
        m_locator.deleteAllFiles();
      }

      std::string hmkSalt;
      const Secret hmk(makeMasterKey(kLabel, hmkPassphrase, m_masterEncAlgo, hmkSalt));
      KeyFile hmkFile(kCurrentVersion);
      hmkFile.setKey(hmk.str());

      std::string kpkSalt;
      const Secret kpk(makeMasterKey(kLabel, kpkPassphrase, m_keyEncAlgo, kpkSalt));
      KeyFile kpkFile(kCurrentVersion);
      kpkFile.setKey(
          Utils::encryptKeyWithKey(kpk.str(), hmk.str(), m_masterEncAlgo, kCurrentVersion));

      const bool fips = fipsModeOn();
      KSMetadata meta(kCurrentVersion);
      meta.setMaster(KSMetadata::HMK,
                     currentMasterFields(KSMetadata::HMK, hmk.str(), hmkId, m_masterEncAlgo,
                                         hmkPassphrase.empty(), fips, hmkSalt));
      meta.setMaster(KSMetadata::KPK,
                     currentMasterFields(KSMetadata::KPK, kpk.str(), kpkId, m_keyEncAlgo,
                                         kpkPassphrase.empty(), fips, kpkSalt));

      const KeyTable keys(true);
      const GroupTable groups;

      createEmptyStoreFiles(kLabel, m_locator);

      logAppMessage(kLabel, CRVN_SEV_INFO, kMsgCreatingStore);
      logNewStoreKey(kLabel, kMsgHmkHeading, hmkId, meta.hmkRandom(), fips);
      logNewStoreKey(kLabel, kMsgKpkHeading, kpkId, meta.kpkRandom(), fips);

      writeToFile(hmkFile, kpkFile, meta, keys, groups, m_locator);
    } catch (...) {
      // Nothing of a store that failed to come into being is left behind.
      deleteFailedStoreFiles(kLabel, m_locator);
      throw;
    }
    return 0;
  });
}

// ---- Remaking a lost key file ----

int FileKeyStore::createHMKFile(const std::string& passphrase, bool overwrite, bool refuseRandom) {
  return createKeyFile(kHmkKind, passphrase, overwrite, refuseRandom);
}

int FileKeyStore::createKPKFile(const std::string& passphrase, bool overwrite, bool refuseRandom) {
  return createKeyFile(kKpkKind, passphrase, overwrite, refuseRandom);
}

int FileKeyStore::createKeyFile(const MasterKeyKind& kind, const std::string& passphrase,
                                bool overwrite, bool refuseRandom) {
  const char* const label = kind.createLabel;
  KMS_TRACE_THIS(label);
  StoreWriteGuard guard(m_lock, m_writerTurnstile);
  if (m_initialized) {
    return EC_KS_already_initialized;
  }
  if (fipsEnableFailed()) {
    return EC_KS_fips_unavailable;
  }
  if (passphrase.empty()) {
    return EC_KS_bad_passphrase;
  }
  const std::string& path = (m_locator.*kind.path)();
  return statusOf(label, kind.createMap, [&] {
    // A key file is remade only beside a store that a start would accept:
    // an unfinished commit is completed (or rolled back) first, and files
    // that no start accepts are refused (1275) untouched.
    recoverDB(m_locator);
    if (!overwrite && isGoodKeyFile(path)) {
      KS_THROW(kind.fileExists, label);
    }
    const KSMetadata meta = readStoreMetadata(label, m_locator);
    if (refuseRandom && meta.master(kind.which).random) {
      // A random key cannot come back from a passphrase.
      KS_THROW(kind.randomKey, label);
    }
    const KeyFile keyFile = kind.remake(label, passphrase, meta, m_locator);
    return rewriteKeyFile(label, path, keyFile, kind.makeDirectories, m_locator,
                          kind.rewriteFailures);
  });
}

// ---- Changing a master key ----

int FileKeyStore::updateHMK(const std::string& passphrase, const std::string& hmkId) {
  static const char* const kLabel = "FileKeyStore::updateHMK";
  KMS_TRACE_THIS(kLabel);
  StoreWriteGuard guard(m_lock, m_writerTurnstile);
  if (const int refused = rekeyRefusal(m_initialized, m_quiesceCount, hmkId)) {
    return refused;
  }
  return rekeyStatus(
      kLabel, kUpdateHmkFailures,
      [&]() NO_THREAD_SAFETY_ANALYSIS {
        auto hmkFile = std::make_unique<KeyFile>(*m_hmkFile);
        auto kpkFile = std::make_unique<KeyFile>(*m_kpkFile);
        auto meta = std::make_unique<KSMetadata>(*m_metadata);
        if (hmkFile->version() != kCurrentVersion || kpkFile->version() != kCurrentVersion ||
            meta->version() != kCurrentVersion) {
          KS_THROW(EC_KS_internal_error, kLabel);
        }

        const Secret kpk(Utils::decryptKeyWithKey(kpkFile->key(), hmkFile->key(),
                                                  meta->masterEncAlgo(), kpkFile->version()));

        std::string salt;
        const Secret hmk(makeMasterKey(kLabel, passphrase, m_masterEncAlgo, salt));
        hmkFile->setKey(hmk.str());
        kpkFile->setKey(
            Utils::encryptKeyWithKey(kpk.str(), hmk.str(), m_masterEncAlgo, kpkFile->version()));

        meta->setMaster(KSMetadata::HMK,
                        currentMasterFields(KSMetadata::HMK, hmk.str(), hmkId, m_masterEncAlgo,
                                            passphrase.empty(), fipsModeOn(), salt));

        logKeyChange(kLabel, kMsgChangingHmk, infoOf(*m_metadata, KSMetadata::HMK),
                     infoOf(*meta, KSMetadata::HMK));

        // The records stay as they are: their keys are wrapped under the
        // KPK, which has not changed. The stream is written anew under the
        // new HMK.
        writeToFile(*hmkFile, *kpkFile, *meta, *m_keyTable, *m_groupTable, m_locator);

        m_hmkFile = std::move(hmkFile);
        m_kpkFile = std::move(kpkFile);
        m_metadata = std::move(meta);
      },
      [&]() NO_THREAD_SAFETY_ANALYSIS { deinitialize(); });
}

int FileKeyStore::updateKPK(const std::string& passphrase, const std::string& kpkId) {
  static const char* const kLabel = "FileKeyStore::updateKPK";
  KMS_TRACE_THIS(kLabel);
  StoreWriteGuard guard(m_lock, m_writerTurnstile);
  if (const int refused = rekeyRefusal(m_initialized, m_quiesceCount, kpkId)) {
    return refused;
  }
  return rekeyStatus(
      kLabel, kUpdateKpkFailures,
      [&]() NO_THREAD_SAFETY_ANALYSIS {
        auto kpkFile = std::make_unique<KeyFile>(*m_kpkFile);
        auto meta = std::make_unique<KSMetadata>(*m_metadata);
        if (m_hmkFile->version() != kCurrentVersion || kpkFile->version() != kCurrentVersion ||
            meta->version() != kCurrentVersion) {
          KS_THROW(EC_KS_internal_error, kLabel);
        }
        const std::string& hmk = m_hmkFile->key();

        // The KPK file must unwrap under the HMK before anything is changed.
        const Secret oldKpk(Utils::decryptKeyWithKey(kpkFile->key(), hmk, meta->masterEncAlgo(),
                                                     kpkFile->version()));

        std::string salt;
        const Secret kpk(makeMasterKey(kLabel, passphrase, m_keyEncAlgo, salt));

        // Every record key moves from the old KPK to the new one, on a copy.
        auto kpkMgr = std::make_unique<KPKMgr>(kpk.str(), m_keyEncAlgo, meta->version(), true);
        auto keyTable = std::make_unique<KeyTable>(*m_keyTable);
        reencryptKeyRecords(*keyTable, *m_kpkMgr, *kpkMgr);

        kpkFile->setKey(
            Utils::encryptKeyWithKey(kpk.str(), hmk, meta->masterEncAlgo(), kpkFile->version()));
        meta->setMaster(KSMetadata::KPK,
                        currentMasterFields(KSMetadata::KPK, kpk.str(), kpkId, m_keyEncAlgo,
                                            passphrase.empty(), fipsModeOn(), salt));

        logKeyChange(kLabel, kMsgChangingKpk, infoOf(*m_metadata, KSMetadata::KPK),
                     infoOf(*meta, KSMetadata::KPK));

        writeToFile(*m_hmkFile, *kpkFile, *meta, *keyTable, *m_groupTable, m_locator);

        m_kpkFile = std::move(kpkFile);
        m_kpkMgr = std::move(kpkMgr);
        m_metadata = std::move(meta);
        m_keyTable = std::move(keyTable);
      },
      [&]() NO_THREAD_SAFETY_ANALYSIS { deinitialize(); });
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
