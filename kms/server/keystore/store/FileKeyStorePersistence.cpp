// The three-file commit, recovery of an interrupted commit, and reading the
// files with the upgrade of older stores. All of it runs under the write lock
// of the caller (init, the change operations) or in a process of its own.
//
// Every file operation goes through the file functions of Utils.
#include <array>
#include <memory>
#include <string>

#include "kms/server/diagnostics/ErrorMapping.h"
#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/Raise.h"
#include "kms/server/diagnostics/StatusCodes.h"
#include "kms/server/keystore/crypto/CryptFactory.h"
#include "kms/server/keystore/crypto/KeyWrap.h"
#include "kms/server/keystore/crypto/SecureBytes.h"
#include "kms/server/keystore/files/FileUtils.h"
#include "kms/server/keystore/files/RecoveryTable.h"
#include "kms/server/keystore/format/FileOutDest.h"
#include "kms/server/keystore/format/KSInputBuffer.h"
#include "kms/server/keystore/format/KSMetadata.h"
#include "kms/server/keystore/format/KSOutStream.h"
#include "kms/server/keystore/format/KeyFile.h"
#include "kms/server/keystore/format/ReaderWriter.h"
#include "kms/server/keystore/records/AttributeList.h"
#include "kms/server/keystore/store/FileKeyStore.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

namespace {

// Catalogued messages.
constexpr int kMsgFileMissing = 39;
constexpr int kMsgFilesConsistent = 40;
constexpr int kMsgRecovering = 41;
constexpr int kMsgRecoveryComplete = 42;
constexpr int kMsgCommitOnLeftovers = 45;
constexpr int kMsgOpenForReadFailed = 49;
constexpr int kMsgUnknownFileState = 54;
constexpr int kMsgRolledBack = 55;
constexpr int kMsgRolledForward = 56;
constexpr int kMsgWriteFailedNothingChanged = 57;
constexpr int kMsgReplacingFiles = 82;
constexpr int kMsgStoreNotSane = 87;
constexpr int kMsgKeptFilesBad = 111;

// Status codes used by number.

// --- What each function lets through, and what it turns the rest into ---

// recoverDB: a failed rename, delete or directory sync is a failed recovery.
const ErrorMap kRecoverMap{{EC_KS_unknown_file_state},
                           {{{1238, 1239, EC_KS_file_write_error}, 1274}}};

// writeToFile while it writes the new files: every failure there leaves the
// old files untouched.
const ErrorMap kWriteNewFilesMap{
    {}, {{{1210, 1223, 1237, 1200, 1252}, EC_KS_write_failed_nothing_changed}}};
// writeToFile as a whole: from the first rename on, a failure leaves a commit
// half done, which the next init completes. A failed directory sync (1210)
// comes after the renames: the change is on disk but maybe not durable. A
// "dat" that is not the file the commit wrote (1295) stops the commit before
// the old copies go.
const ErrorMap kCommitMap{
    {EC_KS_write_failed_nothing_changed, EC_KS_internal_error},
    {{{1238, 1239, EC_KS_file_write_error, EC_KS_untrusted_path}, EC_KS_db_write_fail_changed}}};

// readFromFile.
const ErrorMap kReadMap{{1203, 1204, 1205, 1206, 1207, 1200, 1210, 1221, 1245, 1246, 1247, 1248,
                         1249, 1256, 1274, 1275},
                        {{{1270}, 1249}, {{1214, 1223, 1224, 1225}, EC_KS_internal_error}}};
// Reading one key file inside readFromFile: a malformed file is named after
// the file. The read gives 1210 and readKeyFile only 1200 and 1208, so the
// pass list holds every other code that can arise.
const ErrorMap kReadHmkFileMap{{1200, EC_KS_file_write_error},
                               {{{EC_KS_malformed}, EC_KS_invalid_HMKfile}}};
const ErrorMap kReadKpkFileMap{{1200, EC_KS_file_write_error},
                               {{{EC_KS_malformed}, EC_KS_invalid_kpk_file}}};

const ErrorMap kReadKeyFileMap{{EC_KS_internal_error, EC_KS_malformed},
                               {{{1218}, EC_KS_malformed}}};
const ErrorMap kReadMetaMap{{EC_KS_internal_error},
                            {{{EC_KS_malformed, 1218}, EC_KS_invalid_store_file}}};
const ErrorMap kReadStoreMap{
    {},
    {{{EC_KS_malformed, EC_KS_crypter_failed}, EC_KS_invalid_store_file},
     {{EC_KS_internal_error, EC_KS_crypter_not_ready}, EC_KS_internal_error}}};
const ErrorMap kWriteStoreMap{{EC_KS_file_write_error, EC_KS_internal_error},
                              {{{EC_KS_crypter_failed}, EC_KS_internal_error}}};

// throwFileOpenErrors, by the mask of opened files (1 store, 2 HMK, 4 KPK).
const int kOpenErrors[7] = {
    1245, 1246, 1247, EC_KS_KPKfile_open_error, EC_KS_hmk_file_open_only, EC_KS_HMKfile_open_error,
    1204};

// --- The nine paths ---

struct StoreFile {
  const std::string& dat;
  const std::string& fresh;  // "new"
  const std::string& bak;
  RecoveryTable::FileBits bits;
};

// HMK, KPK, store: the order of every loop over the files.
struct StoreFiles {
  std::array<StoreFile, 3> all;

  const StoreFile& hmk() const { return all[0]; }
  const StoreFile& kpk() const { return all[1]; }
  const StoreFile& store() const { return all[2]; }
  std::array<StoreFile, 3>::const_iterator begin() const { return all.begin(); }
  std::array<StoreFile, 3>::const_iterator end() const { return all.end(); }
};

StoreFiles filesOf(const KMSFileLocator& locator) {
  return StoreFiles{{{
      {locator.hmkPath(), locator.hmkNewPath(), locator.hmkBakPath(), RecoveryTable::kFiles[0]},
      {locator.kpkPath(), locator.kpkNewPath(), locator.kpkBakPath(), RecoveryTable::kFiles[1]},
      {locator.ksPath(), locator.ksNewPath(), locator.ksBakPath(), RecoveryTable::kFiles[2]},
  }}};
}

// A rename is atomic but not durable until the directory that holds it has
// been synced. Both directories of the store are synced, so that what a
// commit or a recovery has renamed or deleted survives a loss of power, not
// only a crash of the process. Throws 1210.
void syncStoreDirectories(const char* label, const KMSFileLocator& locator) {
  Utils::syncDirectory(label, locator.keyDir().c_str(), __LINE__, __FILE__);
  Utils::syncDirectory(label, locator.dbDir().c_str(), __LINE__, __FILE__);
}

// Recovery makes every rename and delete durable before the next one.
void renameDurably(const char* label, const std::string& from, const std::string& to,
                   const KMSFileLocator& locator) {
  Utils::renameFile(label, from.c_str(), to.c_str(), __LINE__, __FILE__);
  syncStoreDirectories(label, locator);
}

void deleteDurably(const char* label, const std::string& path, bool ignoreMissing,
                   const KMSFileLocator& locator) {
  Utils::deleteFile(label, path.c_str(), __LINE__, ignoreMissing, __FILE__);
  syncStoreDirectories(label, locator);
}

// The recovery mask of what exists now.
unsigned currentMask(const char* label, const StoreFiles& files) {
  unsigned mask = 0;
  for (const StoreFile& file : files) {
    if (Utils::fileExists(file.dat.c_str(), Utils::LOG_BOTH, label)) {
      mask |= file.bits.dat;
    }
    if (Utils::fileExists(file.fresh.c_str(), Utils::LOG_EXISTS, label)) {
      mask |= file.bits.fresh;
    }
    if (Utils::fileExists(file.bak.c_str(), Utils::LOG_EXISTS, label)) {
      mask |= file.bits.bak;
    }
  }
  return mask;
}

// --- Writing ---

// Runs `write` on `out` and flushes it finally. On failure the stream's
// bytes are dropped before it goes, so that the failure reaches the caller
// (whose commit then deletes the half-written file) instead of ending the
// process in the stream's destructor.
template <typename Write>
void writeOrDiscard(KSOutStream& out, Write&& write) {
  try {
    write();
  } catch (...) {
    out.discard();
    throw;
  }
}

// One attribute list through its own non-encrypting stream to `file`.
void writeListToFile(FILE* file, const AttributeList& list) {
  FileOutDest dest(file);
  KSOutStream out(dest, nullptr, KSOutStream::kBufferSize);
  writeOrDiscard(out, [&] {
    ReaderWriter::writeAttributeList(out, list);
    out.flush(true);
  });
}

// First half of the commit: the three "new" files, complete and on disk.
void writeNewFiles(const char* label, const KeyFile& hmk, const KeyFile& kpk,
                   const KSMetadata& meta, const FileKeyStore::KeyTable& keys,
                   const FileKeyStore::GroupTable& groups, const StoreFiles& files) {
  // Each new file is created, written, synced and closed through the one
  // stream that created it: a name planted in a directory is never
  // followed, and nothing is reopened by name.
  Utils::FileHolder hmkOut = Utils::createForWriting(label, files.hmk().fresh, __LINE__, __FILE__);
  Utils::FileHolder kpkOut = Utils::createForWriting(label, files.kpk().fresh, __LINE__, __FILE__);
  Utils::FileHolder storeOut =
      Utils::createForWriting(label, files.store().fresh, __LINE__, __FILE__);

  FileKeyStore::writeKeyFile(hmkOut, hmk);
  FileKeyStore::writeKeyFile(kpkOut, kpk);
  FileKeyStore::writeKeyStoreMeta(storeOut, meta);

  std::unique_ptr<KSCrypt> crypter(
      CryptFactory::createCrypter(meta.masterEncAlgo(), hmk.key(), meta.masterIV()));
  if (crypter->encryptReset() != 0) {
    KS_THROW(EC_KS_crypter_failed, label);
  }
  {
    // The record stream continues the store file behind the metadata. Init
    // reads a store file of at most kMaxStoreFileBytes: a commit that would
    // write a larger one fails here, before any file is replaced, rather
    // than leave a store that no start could load.
    const off_t written = ftello(storeOut);
    if (written < 0 || written > Utils::kMaxStoreFileBytes) {
      KS_THROW(EC_KS_file_write_error, label);
    }
    FileOutDest dest(storeOut, static_cast<uint64_t>(Utils::kMaxStoreFileBytes - written));
    KSOutStream out(dest, crypter.get(), KSOutStream::kBufferSize);
    writeOrDiscard(out, [&] { FileKeyStore::writeKeyStore(out, keys, groups); });
  }

  Utils::flushFileToDisk(label, hmkOut, __FILE__, __LINE__);
  Utils::flushFileToDisk(label, kpkOut, __FILE__, __LINE__);
  Utils::flushFileToDisk(label, storeOut, __FILE__, __LINE__);
  // Nobody swapped a name for something else while it was written: what is
  // renamed into place is what was synced.
  Utils::requireSameFile(label, files.hmk().fresh, hmkOut, __LINE__, __FILE__);
  Utils::requireSameFile(label, files.kpk().fresh, kpkOut, __LINE__, __FILE__);
  Utils::requireSameFile(label, files.store().fresh, storeOut, __LINE__, __FILE__);
  hmkOut.close();
  kpkOut.close();
  storeOut.close();
}

// A failed first half: the new files go, the old ones were never touched.
void deleteNewFiles(const char* label, const StoreFiles& files) {
  Utils::deleteFile(label, files.store().fresh.c_str(), __LINE__, true, __FILE__);
  Utils::deleteFile(label, files.kpk().fresh.c_str(), __LINE__, true, __FILE__);
  Utils::deleteFile(label, files.hmk().fresh.c_str(), __LINE__, true, __FILE__);
}

// Second half of the commit: the new files take the place of the old ones.
void replaceFiles(const char* label, const StoreFiles& files, const KMSFileLocator& locator) {
  Utils::renameFile(label, files.hmk().dat.c_str(), files.hmk().bak.c_str(), __LINE__, __FILE__);
  logAppMessage(label, CRVN_SEV_INFO, kMsgReplacingFiles);
  Utils::renameFile(label, files.kpk().dat.c_str(), files.kpk().bak.c_str(), __LINE__, __FILE__);
  Utils::renameFile(label, files.store().dat.c_str(), files.store().bak.c_str(), __LINE__,
                    __FILE__);

  for (const StoreFile& file : files) {
    Utils::renameFile(label, file.fresh.c_str(), file.dat.c_str(), __LINE__, __FILE__);
  }
  // The renames are atomic, but they are durable only once their
  // directories are synced. Without this a loss of power could bring back
  // names from before the commit after the caller had been told it
  // succeeded. The syncs come before the old copies are deleted, so the
  // state on disk after any crash is still one of the recovery table's.
  syncStoreDirectories(label, locator);

  // The old copies go only when the new files stand under the final names
  // (a name swapped between the check and the rename is caught here, and
  // the start's recovery then refuses rather than deleting the old copies).
  for (const StoreFile& file : files) {
    Utils::requireTrustedPath(label, file.dat, false, __LINE__, __FILE__);
  }
  for (const StoreFile& file : files) {
    Utils::deleteFile(label, file.bak.c_str(), __LINE__, false, __FILE__);
  }
}

// --- Reading ---

// `path` opened for reading (a regular file of this user, of at most
// `maxBytes`), or a null holder after logging message 49.
Utils::FileHolder openForRead(const char* label, const std::string& path, off_t maxBytes) {
  Utils::FileHolder file = Utils::openForReading(label, path, maxBytes);
  if (file.get() == nullptr) {
    logAppMessage(label, CRVN_SEV_ERROR, kMsgOpenForReadFailed, path);
  }
  return file;
}

// The rest of `file`, at most `maxBytes`, which is then closed. Throws 1210.
std::string readWhole(Utils::FileHolder& file, off_t maxBytes) {
  std::string bytes;
  Utils::readFileIntoString(file, bytes, static_cast<size_t>(maxBytes));
  file.close();
  return bytes;
}

// The key file in `file`, read whole.
KeyFile readKeyFileFrom(Utils::FileHolder& file) {
  KSInputBuffer buffer(readWhole(file, Utils::kMaxKeyFileBytes));
  return FileKeyStore::readKeyFile(buffer);
}

// The file at `path`, read whole, or 1204 when it cannot be opened.
std::string readKeptFile(const char* label, const std::string& path, off_t maxBytes) {
  Utils::FileHolder file = openForRead(label, path, maxBytes);
  if (file.get() == nullptr) {
    KS_THROW(EC_KS_store_file_open_error, label);
  }
  return readWhole(file, maxBytes);
}

// Recovery deletes or renames files only once the files it keeps have been
// read whole and proven to make one store: the HMK against the metadata's
// verifier, the KPK unwrapped and proven likewise, the record stream
// decrypted (its digest checked) and parsed. The recovery table still
// decides what is done; this check only decides whether it may be done. An
// empty `kpkPath` leaves the KPK out, for the one roll-back state that keeps
// no KPK file. Throws 1275 after message 111 naming the files when they do
// not verify; nothing has been changed then.
void verifyKeptFiles(const char* label, const std::string& hmkPath, const std::string& kpkPath,
                     const std::string& storePath) {
  KMS_TRACE("verifyKeptFiles");
  try {
    KSInputBuffer hmkBytes(readKeptFile(label, hmkPath, Utils::kMaxKeyFileBytes));
    const KeyFile hmk = FileKeyStore::readKeyFile(hmkBytes);
    KSInputBuffer storeBytes(readKeptFile(label, storePath, Utils::kMaxStoreFileBytes));
    const KSMetadata meta = FileKeyStore::readKeyStoreMeta(storeBytes);
    FileKeyStore::verifyHmk(hmk.key(), meta);
    if (!kpkPath.empty()) {
      KSInputBuffer kpkBytes(readKeptFile(label, kpkPath, Utils::kMaxKeyFileBytes));
      const KeyFile kpk = FileKeyStore::readKeyFile(kpkBytes);
      const Secret plainKpk(Utils::decryptKeyWithKey(
          kpk.key(), hmk.key(), FileKeyStore::getDefaultEncAlgos(kpk.version()), kpk.version()));
      FileKeyStore::verifyKpk(plainKpk.str(), meta);
    }
    std::unique_ptr<KSCrypt> crypter(
        CryptFactory::createCrypter(meta.masterEncAlgo(), hmk.key(), meta.masterIV()));
    FileKeyStore::KeyTable keys(true);
    FileKeyStore::GroupTable groups;
    FileKeyStore::readKeyStore(storeBytes, *crypter, keys, groups);
  } catch (const KeyStoreError& error) {
    KMS_DEBUG(label, 1, "Exception Caught: " << error.str(true));
    logAppMessage(label, CRVN_SEV_ERROR, kMsgKeptFilesBad, hmkPath,
                  kpkPath.empty() ? std::string("-") : kpkPath, storePath);
    KS_THROW(EC_KS_unknown_file_state, label);
  }
}

// Both tables from plain bytes. The key table is checked once, when it is
// whole, not after every record.
void readTables(KSInputBuffer& buffer, FileKeyStore::KeyTable& keys,
                FileKeyStore::GroupTable& groups) {
  const bool skipped = keys.skipInvariant();
  keys.setSkipInvariant(true);
  try {
    ReaderWriter::readRecordTable(buffer, keys);
  } catch (...) {
    keys.setSkipInvariant(skipped);
    throw;
  }
  keys.setSkipInvariant(skipped);
  keys.testInvariant();
  ReaderWriter::readRecordTable(buffer, groups);
}

bool isOlderVersion(ks_version_t version) {
  return version == KS_VERSION_100 || version == KS_VERSION_200;
}

// The metadata of an older store at the current version, with fresh verifiers and algorithms.
KSMetadata upgradedMetadata(const KSMetadata& meta, const std::string& hmkKey,
                            const std::string& plainKpk, KSCrypt::CryptType masterEncAlgo,
                            KSCrypt::CryptType keyEncAlgo) {
  constexpr ks_version_t kCurrent = FileKeyStore::kCurrentVersion;
  KSMetadata upgraded(kCurrent);
  const struct {
    KSMetadata::Master which;
    const std::string& key;
    KSCrypt::CryptType algo;
  } masters[] = {{KSMetadata::HMK, hmkKey, masterEncAlgo}, {KSMetadata::KPK, plainKpk, keyEncAlgo}};
  for (const auto& m : masters) {
    const KSMetadata::MasterFields& old = meta.master(m.which);
    upgraded.setMaster(m.which, FileKeyStore::currentMasterFields(m.which, m.key, old.id, m.algo,
                                                                  old.random, old.fips, old.salt));
  }
  return upgraded;
}

// Upgrades the objects read at an older version in memory; returns whether any was older.
bool upgradeInMemory(const char* label, KeyFile& hmk, KeyFile& kpk, KPKMgr& kpkMgr,
                     KSMetadata& meta, FileKeyStore::KeyTable& keys, const std::string& plainKpk,
                     KSCrypt::CryptType masterEncAlgo, KSCrypt::CryptType keyEncAlgo) {
  constexpr ks_version_t kCurrent = FileKeyStore::kCurrentVersion;
  bool upgradedAny = false;
  if (isOlderVersion(hmk.version())) {
    upgradedAny = true;
    KeyFile upgraded(kCurrent);
    upgraded.setKey(hmk.key());
    hmk = upgraded;
  } else if (hmk.version() != kCurrent) {
    KS_THROW(EC_KS_internal_error, label);
  }

  if (isOlderVersion(kpk.version())) {
    upgradedAny = true;
    KeyFile upgraded(kCurrent);
    upgraded.setKey(Utils::encryptKeyWithKey(plainKpk, hmk.key(), masterEncAlgo, kCurrent));
    kpk = upgraded;
  } else if (kpk.version() != kCurrent) {
    KS_THROW(EC_KS_internal_error, label);
  }

  if (isOlderVersion(meta.version())) {
    upgradedAny = true;
    meta = upgradedMetadata(meta, hmk.key(), plainKpk, masterEncAlgo, keyEncAlgo);
    const KPKMgr upgradedMgr(plainKpk, keyEncAlgo, kCurrent, true);
    FileKeyStore::reencryptKeyRecords(keys, kpkMgr, upgradedMgr);
    kpkMgr = upgradedMgr;
  } else if (meta.version() != kCurrent) {
    KS_THROW(EC_KS_internal_error, label);
  }
  return upgradedAny;
}

}  // namespace

void FileKeyStore::recoverDB(const KMSFileLocator& locator) {
  static const char* const kLabel = "FileKeyStore::recoverDB";
  KMS_TRACE(kLabel);
  translateErrors(kLabel, kRecoverMap, [&] {
    const StoreFiles files = filesOf(locator);
    const unsigned mask = currentMask(kLabel, files);
    const RecoveryTable::Action action = RecoveryTable::actionFor(mask);
    KMS_DEBUG(kLabel, 1,
              "Store files in state 0x" << std::hex << mask << std::dec << ": "
                                        << RecoveryTable::actionName(action));

    switch (action) {
      case RecoveryTable::Clean:
        logAppMessage(kLabel, CRVN_SEV_INFO, kMsgFilesConsistent);
        return;

      case RecoveryTable::FilesMissing:
        for (const StoreFile& file : files) {
          if ((mask & file.bits.dat) == 0) {
            logAppMessage(kLabel, CRVN_SEV_WARNING, kMsgFileMissing, file.dat);
          }
        }
        return;

      case RecoveryTable::RollBack:
        verifyKeptFiles(kLabel, files.hmk().dat,
                        (mask & files.kpk().bits.dat) != 0 ? files.kpk().dat : std::string(),
                        files.store().dat);
        logAppMessage(kLabel, CRVN_SEV_INFO, kMsgRecovering);
        for (const StoreFile& file : files) {
          if ((mask & file.bits.fresh) != 0) {
            deleteDurably(kLabel, file.fresh, false, locator);
          }
        }
        logAppMessage(kLabel, CRVN_SEV_INFO, kMsgRolledBack);
        logAppMessage(kLabel, CRVN_SEV_INFO, kMsgRecoveryComplete);
        return;

      case RecoveryTable::RollForwardFromFirstRenames:
      case RecoveryTable::RollForwardFromSecondRenames:
      case RecoveryTable::Finish: {
        // What stays of each set is its "new" file where there is one
        // (renamed into place below), else its "dat".
        const auto kept = [mask](const StoreFile& file) {
          return (mask & file.bits.fresh) != 0 ? file.fresh : file.dat;
        };
        verifyKeptFiles(kLabel, kept(files.hmk()), kept(files.kpk()), kept(files.store()));
        // Message 41 once, whichever row the recovery starts from.
        logAppMessage(kLabel, CRVN_SEV_INFO, kMsgRecovering);
        if (action == RecoveryTable::RollForwardFromFirstRenames) {
          for (const StoreFile& file : files) {
            if ((mask & file.bits.dat) != 0) {
              renameDurably(kLabel, file.dat, file.bak, locator);
            }
          }
        }
        if (action != RecoveryTable::Finish) {
          // The first renames leave the "new" files alone, so the mask still
          // tells which exist.
          for (const StoreFile& file : files) {
            if ((mask & file.bits.fresh) != 0) {
              renameDurably(kLabel, file.fresh, file.dat, locator);
            }
          }
        }
        for (const StoreFile& file : files) {
          deleteDurably(kLabel, file.bak, true, locator);
        }
        logAppMessage(kLabel, CRVN_SEV_INFO, kMsgRolledForward);
        logAppMessage(kLabel, CRVN_SEV_INFO, kMsgRecoveryComplete);
        return;
      }

      case RecoveryTable::Refuse:
        break;
    }
    logAppMessage(kLabel, CRVN_SEV_ERROR, kMsgUnknownFileState);
    KS_THROW(EC_KS_unknown_file_state, kLabel);
  });
}

void FileKeyStore::writeToFile(const KeyFile& hmk, const KeyFile& kpk, const KSMetadata& meta,
                               const KeyTable& keys, const GroupTable& groups,
                               const KMSFileLocator& locator) {
  static const char* const kLabel = "FileKeyStore::writeToFile";
  KMS_TRACE(kLabel);
  translateErrors(kLabel, kCommitMap, [&] {
    // A commit never starts on top of an unfinished one.
    if (!isDbClean(locator)) {
      logAppMessage(kLabel, CRVN_SEV_ERROR, kMsgCommitOnLeftovers);
      KS_THROW(EC_KS_internal_error, kLabel);
    }
    const StoreFiles files = filesOf(locator);

    // Until every new file is complete and on disk, a failure throws the new
    // files away and leaves the old ones as they were.
    try {
      writeNewFiles(kLabel, hmk, kpk, meta, keys, groups, files);
    } catch (const KeyStoreError& error) {
      deleteNewFiles(kLabel, files);
      if (error.status() == EC_KS_file_write_error) {
        logAppMessage(kLabel, CRVN_SEV_ERROR, kMsgWriteFailedNothingChanged);
      }
      rethrowTranslated(kLabel, error, kWriteNewFilesMap);
    } catch (...) {
      deleteNewFiles(kLabel, files);
      rethrowUnexpected(kLabel, kWriteNewFilesMap);
    }

    // From the first rename on the old state is given up: recovery completes
    // the commit forward.
    replaceFiles(kLabel, files, locator);
  });
}

void FileKeyStore::readFromFile(KeyFile& hmk, KeyFile& kpk, KPKMgr& kpkMgr, KSMetadata& meta,
                                KeyTable& keys, GroupTable& groups, const KMSFileLocator& locator,
                                bool& needsRewrite) {
  static const char* const kLabel = "FileKeyStore::readFromFile";
  KMS_TRACE_THIS(kLabel);
  translateErrors(kLabel, kReadMap, [&] {
    recoverDB(locator);

    Utils::FileHolder hmkIn = openForRead(kLabel, locator.hmkPath(), Utils::kMaxKeyFileBytes);
    Utils::FileHolder kpkIn = openForRead(kLabel, locator.kpkPath(), Utils::kMaxKeyFileBytes);
    Utils::FileHolder storeIn = openForRead(kLabel, locator.ksPath(), Utils::kMaxStoreFileBytes);
    const unsigned int opened = (storeIn.get() != nullptr ? 1u : 0u) |
                                (hmkIn.get() != nullptr ? 2u : 0u) |
                                (kpkIn.get() != nullptr ? 4u : 0u);
    throwFileOpenErrors(kLabel, opened, __FILE__, __LINE__);

    hmk = translateErrors(kLabel, kReadHmkFileMap, [&] { return readKeyFileFrom(hmkIn); });
    kpk = translateErrors(kLabel, kReadKpkFileMap, [&] { return readKeyFileFrom(kpkIn); });

    // The metadata lies in clear; the cursor stops at the record stream.
    KSInputBuffer storeBytes(readWhole(storeIn, Utils::kMaxStoreFileBytes));
    meta = readKeyStoreMeta(storeBytes);

    verifyHmk(hmk.key(), meta);
    // The KPK file's own version says how its key is wrapped.
    const Secret plainKpk(Utils::decryptKeyWithKey(
        kpk.key(), hmk.key(), getDefaultEncAlgos(kpk.version()), kpk.version()));
    verifyKpk(plainKpk.str(), meta);
    kpkMgr.set(plainKpk.str(), meta.keyEncAlgo(), meta.version(), true);

    {
      std::unique_ptr<KSCrypt> crypter(
          CryptFactory::createCrypter(meta.masterEncAlgo(), hmk.key(), meta.masterIV()));
      readKeyStore(storeBytes, *crypter, keys, groups);
    }
    if (!isKeyStoreSane(keys, groups)) {
      logAppMessage(kLabel, CRVN_SEV_ERROR, kMsgStoreNotSane);
      KS_THROW(EC_KS_invalid_store_file, kLabel);
    }

    // Older stores are brought up to the current version in memory; init
    // commits them before they serve. Keys keep their values.
    if (upgradeInMemory(kLabel, hmk, kpk, kpkMgr, meta, keys, plainKpk.str(), m_masterEncAlgo,
                        m_keyEncAlgo)) {
      needsRewrite = true;
    }
  });
}

KeyFile FileKeyStore::readKeyFile(KSInputBuffer& buffer) {
  static const char* const kLabel = "FileKeyStore::readKeyFile";
  KMS_TRACE(kLabel);
  return translateErrors(kLabel, kReadKeyFileMap, [&] {
    AttributeList list;
    struct WipeKey {
      AttributeList& list;
      ~WipeKey() { KeyFile::wipeKey(list); }
    } wipeKey{list};
    ReaderWriter::readAttributeList(buffer, list);
    if (buffer.remaining() != 0) {
      KMS_DEBUG(kLabel, 1, buffer.remaining() << " bytes after the key file's attribute list");
      KS_THROW(EC_KS_malformed, kLabel);
    }
    return KeyFile(list);
  });
}

KSMetadata FileKeyStore::readKeyStoreMeta(KSInputBuffer& buffer) {
  static const char* const kLabel = "FileKeyStore::readKeyStoreMeta";
  KMS_TRACE(kLabel);
  // The record stream follows the list: bytes after it are expected.
  return translateErrors(kLabel, kReadMetaMap, [&] {
    AttributeList list;
    ReaderWriter::readAttributeList(buffer, list);
    return KSMetadata(list);
  });
}

void FileKeyStore::readKeyStore(const KSInputBuffer& buffer, KSCrypt& crypter, KeyTable& keys,
                                GroupTable& groups) {
  static const char* const kLabel = "FileKeyStore::readKeyStore";
  KMS_TRACE(kLabel);
  translateErrors(kLabel, kReadStoreMap, [&] {
    if (crypter.decryptReset() != 0) {
      KS_THROW(EC_KS_crypter_not_ready, kLabel);
    }
    if (crypter.decrypt(buffer.cursor(), buffer.remaining(), true) != 0) {
      KS_THROW(EC_KS_crypter_failed, kLabel);
    }
    const unsigned char* plain = nullptr;
    unsigned long length = 0;
    if (crypter.getDecryptedData(&plain, &length) != 0) {
      KS_THROW(EC_KS_crypter_failed, kLabel);
    }
    // Read where the crypter holds them, which wipes them.
    KSInputBuffer plainBytes(plain, length);
    readTables(plainBytes, keys, groups);
  });
}

void FileKeyStore::readKeyStore(KSInputBuffer& buffer, KeyTable& keys, GroupTable& groups) {
  static const char* const kLabel = "FileKeyStore::readKeyStore";
  KMS_TRACE(kLabel);
  translateErrors(kLabel, kReadStoreMap, [&] { readTables(buffer, keys, groups); });
}

void FileKeyStore::writeKeyFile(FILE* file, const KeyFile& keyFile) {
  KMS_TRACE("FileKeyStore::writeKeyFile");
  writeListToFile(file, keyFile.attributes());
}

void FileKeyStore::writeKeyStoreMeta(FILE* file, const KSMetadata& meta) {
  KMS_TRACE("FileKeyStore::writeKeyStoreMeta");
  writeListToFile(file, meta.attributes());
}

void FileKeyStore::writeKeyStore(KSOutStream& out, const KeyTable& keys, const GroupTable& groups) {
  static const char* const kLabel = "FileKeyStore::writeKeyStore";
  KMS_TRACE(kLabel);
  translateErrors(kLabel, kWriteStoreMap, [&] {
    ReaderWriter::writeRecordTable(out, keys);
    ReaderWriter::writeRecordTable(out, groups);
    out.flush(true);
  });
}

void FileKeyStore::throwFileOpenErrors(const char* function, unsigned int openMask,
                                       const char* file, unsigned long line) {
  KMS_TRACE("FileKeyStore::throwFileOpenErrors");
  if (openMask < sizeof(kOpenErrors) / sizeof(kOpenErrors[0])) {
    raiseKeyStoreError(kOpenErrors[openMask], function, file, line);
  }
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
