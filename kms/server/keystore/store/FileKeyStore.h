// The key store: the complete store held in memory, guarded by one
// reader-writer lock, written back as three files (store file, HMK file, KPK
// file) on every change.
//
// State. Closed (not initialized) or live (initialized); live with a quiesce
// count above 0 is quiesced. While live, the six owning pointers (HMK file,
// KPK file, KPK manager, metadata, key table, group table) all hold objects;
// while closed, all are null and the quiesce count is 0. init makes the store
// live, shutdown and a commit that may have changed the disk close it.
//
// Locking. m_lock is the one lock of the store. Every public operation of
// KeyStore takes it through StoreReadGuard / StoreWriteGuard (see
// KeyStore.h for read or write) for its whole run. Everything else here
// (statics, filters, deinitialize, readFromFile, the helpers of the change,
// export and import operations) takes no lock: the caller holds the write
// lock, or the read lock for functions that only read the live state, or
// works on tables of its own. clang checks this (-Wthread-safety): the
// state is GUARDED_BY m_lock, the helpers REQUIRE it. The analysis does not
// carry a lock into a lambda, so the lambdas that run at once under their
// caller's guard are marked NO_THREAD_SAFETY_ANALYSIS.
//
// The implementation is split by concern:
//   FileKeyStore.cpp             construction, init, shutdown, quiesce, stats
//   FileKeyStoreLookup.cpp       lookups, filters, tag/key/table checks, display
//   FileKeyStoreVerifiers.cpp    master key verifiers
//   FileKeyStorePersistence.cpp  commit, recovery, reading
//   FileKeyStoreMasterKeys.cpp   creating a store, key files, master key changes
//   FileKeyStoreRewrap.cpp       default algorithms, wrapping every record key
//   FileKeyStoreChanges.cpp      changes of keys and groups
//   FileKeyStoreExport.cpp       export
//   FileKeyStoreImport.cpp       import: reading, validation, commit
//   FileKeyStoreImportClashes.cpp  import: duplicates, names and tags
#pragma once

#include <ace/Thread_Mutex.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "kms/server/keystore/crypto/KPKMgr.h"
#include "kms/server/keystore/crypto/KSCrypt.h"
#include "kms/server/keystore/files/KMSFileLocator.h"
#include "kms/server/keystore/format/KSMetadata.h"
#include "kms/server/keystore/records/KeyGrpRecord_v1.h"
#include "kms/server/keystore/records/KeyRecordTable.h"
#include "kms/server/keystore/records/KeyRecord_v1.h"
#include "kms/server/keystore/records/RecordTable.h"
#include "kms/server/keystore/store/KeyStore.h"
#include "kms/server/keystore/store/KeyStoreTypes.h"
#include "kms/server/keystore/store/StoreLockGuards.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

class KeyFile;
class KSEximMetadata;
class KSInputBuffer;
class KSOutStream;

class FileKeyStore : public KeyStore {
 public:
  typedef KeyRecordTable<KeyRecord_v1> KeyTable;
  typedef RecordTable<KeyGrpRecord_v1> GroupTable;
  // Old group tag to new, looked up by view.
  typedef std::map<std::string, std::string, std::less<>> GroupTagMap;

  // True when this process was not asked to run in FIPS mode. Set once by
  // main before any store exists; false until then.
  static bool g_fips_mode_disabled;

  // The record-format version of everything written new.
  static constexpr ks_version_t kCurrentVersion = KS_VERSION_300;

  // Closed store over the locator's paths (copied). Reads "file_rw_debug",
  // "max_key_groups" and "max_keys_per_group" from the configuration; a
  // failure there is logged and leaves the limits at 0 (no limit). Logs the
  // two limits (messages 53, 52). Never throws for the configuration.
  explicit FileKeyStore(const KMSFileLocator& locator);
  // Takes no lock and writes nothing; key material dies with the members.
  ~FileKeyStore() override;

  // ---- KeyStore, in slot order; locks and failure forms in KeyStore.h ----
  [[nodiscard]] int init() override;
  bool isInitialized() override;
  [[nodiscard]] int shutdown() override;
  [[nodiscard]] int display() const override;
  [[nodiscard]] int dbExists(bool& exists) override;
  [[nodiscard]] int createEmpty(const std::string& hmkPassphrase, const std::string& hmkId,
                                const std::string& kpkPassphrase, const std::string& kpkId,
                                bool overwrite) override;
  std::pair<uint64_t, uint64_t> getStats() override;
  std::string getHMKId() override;
  KeyInfo getHMKInfo() override;
  bool goodHMKFileExists() override;
  std::string getKPKId() override;
  KeyInfo getKPKInfo() override;
  bool goodKPKFileExists() override;
  [[nodiscard]] int createHMKFile(const std::string& passphrase, bool overwrite,
                                  bool refuseRandom) override;
  [[nodiscard]] int createKPKFile(const std::string& passphrase, bool overwrite,
                                  bool refuseRandom) override;
  [[nodiscard]] int updateHMK(const std::string& passphrase, const std::string& hmkId) override;
  [[nodiscard]] int updateKPK(const std::string& passphrase, const std::string& kpkId) override;
  KeyRecord_v1 addKeyWithKnownTag(const KeyRecord_v1& rec, const std::string& passphrase) override;
  KeyRecord_v1 addKey(const KeyRecord_v1& rec, const std::string& passphrase) override;
  KeyGrpRecord_v1 addKeyGroup(const KeyGrpRecord_v1& rec) override;
  KeyRecord_v1 getKey(const std::string& tag) const override;
  KeyRecord_v1 getKeyRecord(const std::string& tag) const override;
  KeyGrpRecord_v1 getKeyGroupRecord(const std::string& tag) const override;
  KeyGrpRecord_v1 getKeyGroupRecordByName(const std::string& name) const override;
  KeyRecord_v1 getKeyRecordByName(const std::string& group, const std::string& name) const override;
  KeyRecord_v1 getActiveKeyRecord(const std::string& group) const override;
  KeyRecord_v1 updateKeyRecord(const KeyRecord_v1& rec) override;
  KeyGrpRecord_v1 updateKeyGroupRecord(const KeyGrpRecord_v1& rec) override;
  void deleteKeyRecord(const std::string& tag) override;
  void deleteKeyGroupRecord(const std::string& tag, bool force) override;
  void getAllKeyGroupRecords(std::list<KeyGrpRecord_v1>& out) const override;
  void getAllKeyRecordsInGroup(const std::string& group,
                               std::list<KeyRecord_v1>& out) const override;
  [[nodiscard]] int getKad(const std::string& tag, unsigned long kadlength,
                           std::string& kad) const override;
  [[nodiscard]] int getKeyRecordsByKad(const std::string& kad,
                                       std::list<KeyRecord_v1>& out) const override;
  uint64_t quiesce() override;
  uint64_t unquiesce(bool force) override;
  uint64_t isQuiesced() override;
  std::string exportToBuffer(const std::list<std::pair<std::string, std::string>>& selection,
                             const std::string& passphrase, KSOpStatus& status) const override;
  void importFromBuffer(const std::string& buffer, std::string passphrase, bool preserveNames,
                        const std::string& description, KSOpStatus& status,
                        bool previewOnly) override;

  // ---- State ----

  // True when the store, HMK and KPK files exist under their final names and
  // none of the six "new"/"bak" files does. No lock (called inside a commit);
  // throws 1200 when a path cannot be tested.
  static bool isDbClean(const KMSFileLocator& locator);
  // True exactly when the process asked for FIPS mode and the crypto library
  // is not in it. No lock.
  bool fipsEnableFailed() const;
  // Nothing to set on this platform; returns 0.
  [[nodiscard]] int setMyDACLs();

  // ---- Persistence (FileKeyStorePersistence.cpp). No lock; throw ----

  // Settles whatever an interrupted commit left on disk: rolls back, rolls
  // forward or refuses (1275); 1274 when a rename or delete fails.
  static void recoverDB(const KMSFileLocator& locator);
  // The commit: writes the three files anew and only then replaces the old
  // ones. 1276: nothing on disk changed; 1277: the disk may hold a half-done
  // commit that the next init finishes.
  static void writeToFile(const KeyFile& hmk, const KeyFile& kpk, const KSMetadata& meta,
                          const KeyTable& keys, const GroupTable& groups,
                          const KMSFileLocator& locator);
  static KeyFile readKeyFile(KSInputBuffer& buffer);
  static KSMetadata readKeyStoreMeta(KSInputBuffer& buffer);
  static void readKeyStore(const KSInputBuffer& buffer, KSCrypt& crypter, KeyTable& keys,
                           GroupTable& groups);
  static void readKeyStore(KSInputBuffer& buffer, KeyTable& keys, GroupTable& groups);
  static void writeKeyFile(FILE* file, const KeyFile& keyFile);
  static void writeKeyStoreMeta(FILE* file, const KSMetadata& meta);
  static void writeKeyStore(KSOutStream& out, const KeyTable& keys, const GroupTable& groups);
  // Throws by the mask of opened files (1 store, 2 HMK, 4 KPK); 7 and above
  // throw nothing.
  static void throwFileOpenErrors(const char* function, unsigned int openMask, const char* file,
                                  unsigned long line);

  // ---- Master keys (FileKeyStoreMasterKeys.cpp). No lock ----

  // Whether `path` holds a key file of the right form (its key is not
  // tested). A missing or malformed file is false; throws 1252 when the file
  // cannot be opened, 1210 when it cannot be read, 1200 otherwise.
  static bool isGoodKeyFile(const std::string& path);
  // (FileKeyStoreRewrap.cpp) 0x100 gives AES_256_CBC, 0x200 AES_256_CBC_EVP,
  // anything else AES_256_GCM.
  static KSCrypt::CryptType getDefaultEncAlgos(ks_version_t version);
  // Wrap, unwrap, or move from one KPK to another, the key of every record,
  // in table order. Any failure throws 1200 and may leave the table half
  // done: callers work on a copy.
  static void encryptKeyRecords(KeyTable& table, const KPKMgr& kpkMgr);
  static void decryptKeyRecords(KeyTable& table, const KPKMgr& kpkMgr);
  static void reencryptKeyRecords(KeyTable& table, const KPKMgr& oldKpkMgr,
                                  const KPKMgr& newKpkMgr);

  // ---- Validity rules of changes (FileKeyStoreChanges.cpp). Pure ----

  static bool isValidKeyStateChange(ks_keystate_t from, ks_keystate_t to);
  static bool isValidKeyState(ks_keystate_t state);
  static bool isValidCipherType(ks_ciphertype_t type);
  static bool IsValidName(std::string_view name);

  // ---- Lookup and sanity (FileKeyStoreLookup.cpp). No lock ----

  // The key of that name (compared byte for byte, after the cut the name's
  // setter makes) in the group, or kr.end(). A group list naming a tag the
  // table lacks aborts the process.
  static KeyTable::const_iterator findKeyByName(const KeyTable& kr, std::string_view group,
                                                std::string_view name);
  // The group of that name (cut as by its setter), or kg.end(); a linear
  // walk.
  static GroupTable::const_iterator findKeyGroupByName(const GroupTable& kg, std::string_view name);
  // The first 12 bytes (or the whole of a shorter tag) are all 0x00 or all
  // 0xFF. A tag of under 12 bytes is never bad.
  static bool isBadTag(const std::string& tag);
  // The key is all 0x00 or all 0xFF; the empty key is bad.
  static bool isBadKey(std::string_view key);
  // No group with cipher type 0, no key with state 0 or KPK type 0, no key
  // of a group missing from `kg`. Logs every finding before answering.
  static bool isKeyStoreSane(const KeyTable& kr, const GroupTable& kg);

  // ---- Master key verifiers (FileKeyStoreVerifiers.cpp). No lock ----

  // `prefix` (4 bytes: "HMKV" or "KPKV") and 28 random bytes, wrapped under
  // `key`. Throws 1200 when no random bytes can be had, and what the
  // wrapping throws.
  static std::string generateVerifier(const char* prefix, const std::string& key,
                                      KSCrypt::CryptType type, ks_version_t version);
  // Whether `verifier` unwraps under `key` to a text that begins with
  // `prefix`. A wrong key is false; any failure but a failed unwrap (1270)
  // throws 1200.
  static bool isVerifierValid(const char* prefix, const std::string& key,
                              const std::string& verifier, KSCrypt::CryptType type,
                              ks_version_t version);
  // Prove a master key against the metadata: by the stored hash for
  // versions 0x100 and 0x200, by the verifier for 0x300. A wrong key throws
  // 1221 (HMK) or 1249 (KPK); a hash that cannot be made throws 1225.
  static void verifyHmk(const std::string& key, const KSMetadata& meta);
  static void verifyKpk(const std::string& key, const KSMetadata& meta);
  // The fields of a master key at the current version: a fresh verifier of
  // `key` under `algorithm`, the rest as given. Throws as generateVerifier.
  static KSMetadata::MasterFields currentMasterFields(KSMetadata::Master which,
                                                      const std::string& key, const std::string& id,
                                                      KSCrypt::CryptType algorithm, bool random,
                                                      bool fips, const std::string& salt);

  // ---- Export (FileKeyStoreExport.cpp). No lock ----

  // Appends the export metadata's attribute list to `out`.
  static void writeEximMeta(std::string& out, const KSEximMetadata& meta);

 protected:
  // Closes the store: drops the six objects and the quiesce count. Writes
  // nothing. The caller holds the write lock.
  void deinitialize() REQUIRES(m_lock);

  // Reads the three files into the given objects after recovery, checks
  // them, and upgrades an older store in memory (raising `needsRewrite`).
  // The caller holds the write lock. Throws.
  void readFromFile(KeyFile& hmk, KeyFile& kpk, KPKMgr& kpkMgr, KSMetadata& meta, KeyTable& keys,
                    GroupTable& groups, const KMSFileLocator& locator, bool& needsRewrite)
      REQUIRES(m_lock);

  // Test seam: makes the six objects the live state exactly as init does
  // once it has read the files (both go through goLive), and leaves the store
  // live with quiesce count 0. Only init and tests (and benchmarks) use it,
  // to serve a state built in memory. Takes the write lock; throws 1201 on a
  // live store and 1200 if an object is missing.
  void installState(std::unique_ptr<KeyFile> hmkFile, std::unique_ptr<KeyFile> kpkFile,
                    std::unique_ptr<KPKMgr> kpkMgr, std::unique_ptr<KSMetadata> metadata,
                    std::unique_ptr<KeyTable> keyTable, std::unique_ptr<GroupTable> groupTable);

  // Test seam: the clock that getUniqueKGNameSuffix reads (seconds since
  // the Epoch). Empty, the default, is the real time. Set it before the
  // store serves imports; it is read under the write lock. Takes no lock.
  void setImportClock(std::function<time_t()> clock);

  int64_t maxKeyGroups() const { return m_maxKeyGroups; }
  int64_t maxKeysPerGroup() const { return m_maxKeysPerGroup; }
  const KMSFileLocator& locator() const { return m_locator; }

 private:
  // Step of init that makes the store live. The caller holds the write lock.
  void goLive(std::unique_ptr<KeyFile> hmkFile, std::unique_ptr<KeyFile> kpkFile,
              std::unique_ptr<KPKMgr> kpkMgr, std::unique_ptr<KSMetadata> metadata,
              std::unique_ptr<KeyTable> keyTable, std::unique_ptr<GroupTable> groupTable)
      REQUIRES(m_lock);

  // Master key files (FileKeyStoreMasterKeys.cpp): what differs between the
  // HMK's and the KPK's, and the one body of goodHMKFileExists /
  // goodKPKFileExists and of createHMKFile / createKPKFile. Both take the
  // lock themselves.
  struct MasterKeyKind;
  static const MasterKeyKind kHmkKind;
  static const MasterKeyKind kKpkKind;
  bool goodKeyFileExists(const MasterKeyKind& kind);
  // The one body of getHMKId / getHMKInfo and the KPK's; `label` names the
  // caller in the trace and in errors.
  KeyInfo masterKeyInfo(const MasterKeyKind& kind, const char* label);
  [[nodiscard]] int createKeyFile(const MasterKeyKind& kind, const std::string& passphrase,
                                  bool overwrite, bool refuseRandom);

  // Changes (FileKeyStoreChanges.cpp); write lock held.
  KeyRecord_v1 addKeyWithOrWithout(const KeyRecord_v1& rec, const std::string& passphrase,
                                   bool withTag) REQUIRES(m_lock);
  std::string getNewTag() const REQUIRES(m_lock);
  std::string getNewTag(const KeyTable& kr, const GroupTable& kg) const REQUIRES(m_lock);
  // Commits the live files and metadata with `keys` and `groups`; a failure
  // closes the store unless the disk is unchanged (1276), then throws.
  void commitChange(const char* label, const KeyTable& keys, const GroupTable& groups)
      REQUIRES(m_lock);

  // One lookup (FileKeyStoreLookup.cpp): takes the read lock, then gives the
  // record at the iterator that `find` picks from the live table, passed
  // through its filter. A closed store throws 1202, end() throws 1260 (key)
  // or 1229 (group). With `unwrap` the key goes out unwrapped and a key that
  // is neither KEY_ACTIVE nor KEY_INACTIVE throws 1242; without, it goes out
  // empty.
  template <typename Find>
  KeyRecord_v1 lookUpKey(const char* label, bool unwrap, Find&& find) const;
  template <typename Find>
  KeyGrpRecord_v1 lookUpGroup(const char* label, Find&& find) const;

  // Filters through which every record leaves the store (read or write
  // lock held). keyRecordFilter empties the key (`strip`) or unwraps it;
  // a failed unwrap throws 1200. keyGroupRecordFilter fills the number of
  // keys and whether one is active from the live key table.
  void keyRecordFilter(KeyRecord_v1& rec, bool strip) const REQUIRES_SHARED(m_lock);
  void keyGroupRecordFilter(KeyGrpRecord_v1& rec) const REQUIRES_SHARED(m_lock);
  void filterKeyGroupRecords(GroupTable& table) const REQUIRES_SHARED(m_lock);

  // Import (FileKeyStoreImport.cpp, FileKeyStoreImportClashes.cpp). `kr`
  // and `kg` are the import's own tables, read from the buffer; their keys
  // are plain until importFromBuffer wraps them just before the commit.
  // Everything but readEximMeta runs under the write lock and reads the
  // live tables; only importKeysAndKeyGroups changes them. Decisions and
  // findings go to `status` as messages; a finding that fails the import
  // sets 1283 there and the walk goes on, so one run lists them all.
  //
  // The export metadata at the cursor: 1207 for a damaged or unknown one,
  // 1200 for anything else.
  static KSEximMetadata readEximMeta(KSInputBuffer& buffer);
  // Settles every clash of `kr` and `kg` with the store, changing names,
  // tags and group references in the two tables. Throws 1262 for too many
  // groups, 1208 for tables that are not sane, 1200 when no unique suffix
  // can be had.
  void validateImport(KeyTable& kr, GroupTable& kg, bool preserveNames, KSOpStatus& status) const
      REQUIRES(m_lock);
  // Drops every key whose tag the store holds (messages 9 and 10; 1283 when
  // the values differ). Throws what the unwrapping of a store key throws.
  void removeDuplicateKeyRecords(KeyTable& kr, GroupTable& kg, KSOpStatus& status) const
      REQUIRES(m_lock);
  // "_IMPORTED_" and the local time (14 digits), with "_1", "_2"... on the
  // later of `retries` tries, such that no group of `kg` with it behind its
  // name clashes with a store group. Throws 1200 when every try clashes.
  std::string getUniqueKGNameSuffix(GroupTable& kg, int retries) const REQUIRES(m_lock);
  // Puts `suffix` behind every group's name (message 4).
  void addKGNameSuffix(GroupTable& kg, const std::string& suffix, KSOpStatus& status) const
      REQUIRES(m_lock);
  // Gives every group whose tag the store holds a new tag (message 5) and
  // returns the old-to-new map. Throws 1200 when no tag can be had.
  GroupTagMap regenerateKeyGroupTags(GroupTable& kg, KeyTable& kr, KSOpStatus& status) const
      REQUIRES(m_lock);
  // Moves the keys of renumbered groups to their new tags (message 11) and
  // reports the others as they are (message 12). Throws 1200 for a key
  // whose group is not in `kg`.
  void updateTags(KeyTable& kr, GroupTable& kg, const GroupTagMap& tagMap, KSOpStatus& status) const
      REQUIRES(m_lock);
  void updateDescription(KeyTable& kr, GroupTable& kg, const std::string& description) const
      REQUIRES(m_lock);
  // Adds the tables (keys wrapped by now) to copies of the live ones,
  // audits, commits and swaps. Throws 1200 for tables that are not sane;
  // a failed commit as the changes of keys and groups do: 1276 keeps the
  // old state, anything else closes the store.
  void importKeysAndKeyGroups(GroupTable& kg, KeyTable& kr) REQUIRES(m_lock);

  // The one lock of the store (see StoreLockGuards.h).
  mutable StoreLock m_lock;
  std::unique_ptr<KeyFile> m_hmkFile GUARDED_BY(m_lock);
  std::unique_ptr<KeyFile> m_kpkFile GUARDED_BY(m_lock);
  std::unique_ptr<KPKMgr> m_kpkMgr GUARDED_BY(m_lock);
  std::unique_ptr<KSMetadata> m_metadata GUARDED_BY(m_lock);
  std::unique_ptr<KeyTable> m_keyTable GUARDED_BY(m_lock);
  std::unique_ptr<GroupTable> m_groupTable GUARDED_BY(m_lock);
  // Written under the write lock only. Atomic because import tests it
  // before taking the lock.
  std::atomic<bool> m_initialized;
  uint64_t m_quiesceCount GUARDED_BY(m_lock);
  int64_t m_maxKeyGroups;
  int64_t m_maxKeysPerGroup;
  const KSCrypt::CryptType m_masterEncAlgo;
  const KSCrypt::CryptType m_keyEncAlgo;
  const KMSFileLocator m_locator;
  // See setImportClock.
  std::function<time_t()> m_importClock;
  // Orders writers before readers that come after them (StoreLockGuards.h).
  // Not a lock of the state: nothing is guarded by it.
  mutable ACE_Thread_Mutex m_writerTurnstile;
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
