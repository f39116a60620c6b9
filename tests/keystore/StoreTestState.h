// Stores for tests: states built in memory, whole stores on disk placed by
// copying bytes, and live stores on real files.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "kms/platform/InstallRoot.h"
#include "kms/server/diagnostics/KeyStoreError.h"
#include "kms/server/keystore/crypto/KPKMgr.h"
#include "kms/server/keystore/crypto/KeyWrap.h"
#include "kms/server/keystore/crypto/RandData.h"
#include "kms/server/keystore/files/FileUtils.h"
#include "kms/server/keystore/files/KMSConfig.h"
#include "kms/server/keystore/files/KMSFileLocator.h"
#include "kms/server/keystore/format/KSInputBuffer.h"
#include "kms/server/keystore/format/KSMetadata.h"
#include "kms/server/keystore/format/KeyFile.h"
#include "kms/server/keystore/store/FileKeyStore.h"
#include "support/TempRoot.h"

namespace storetest {

using namespace Vaultrest::DL::KMS;

// The status a store call returns or throws (0 for none).
template <typename F>
int codeOf(F&& call) {
  try {
    if constexpr (std::is_same_v<decltype(call()), int>) {
      return call();
    } else {
      call();
      return 0;
    }
  } catch (const KeyStoreError& error) {
    return error.status();
  }
}

// The process's FIPS decision for the scope; by default not asked for.
class FipsDecision {
 public:
  explicit FipsDecision(bool disabled = true) : m_saved(FileKeyStore::g_fips_mode_disabled) {
    FileKeyStore::g_fips_mode_disabled = disabled;
  }
  ~FipsDecision() { FileKeyStore::g_fips_mode_disabled = m_saved; }

 private:
  bool m_saved;
};

// Tables and master keys of a store in the making, keys wrapped under the
// KPK; plainKey(tag) tells what each must unwrap to.
class StoreContent {
 public:
  StoreContent()
      : m_hmk(Utils::getRandData(32)),
        m_kpk(Utils::getRandData(32)),
        m_kpkMgr(m_kpk, KSCrypt::AES_256_GCM, FileKeyStore::kCurrentVersion, true),
        m_keys(true) {}

  void addGroup(const std::string& tag, const std::string& name,
                ks_ciphertype_t cipher = CT_AES256_CBC) {
    KeyGrpRecord_v1 rec;
    rec.setFields(tag, name, cipher, 1000, 1000, "group " + name, 1);
    EXPECT_TRUE(m_groups.addRecord(rec));
  }

  // Adds a key with a fresh random plain key, wrapped under the KPK.
  void addKey(const std::string& tag, const std::string& group, const std::string& name,
              ks_keystate_t state) {
    const std::string plain = Utils::getRandData(32);
    addRawKey(tag, group, name, state, m_kpkMgr.encryptKey(plain, KPK_LOCAL, std::string()));
    m_plain[tag] = plain;
  }

  // Adds a key whose stored (wrapped) form is `stored` as given.
  void addRawKey(const std::string& tag, const std::string& group, const std::string& name,
                 ks_keystate_t state, const std::string& stored) {
    KeyRecord_v1 rec;
    rec.setFields(tag, name, group, state, 2000, 2000, "key " + name, 1, KPK_LOCAL, std::string(),
                  stored);
    EXPECT_TRUE(m_keys.addRecord(rec));
  }

  const std::string& plainKey(std::string_view tag) const { return m_plain.at(std::string(tag)); }
  const KPKMgr& kpkMgr() const { return m_kpkMgr; }
  const FileKeyStore::KeyTable& keys() const { return m_keys; }
  const FileKeyStore::GroupTable& groups() const { return m_groups; }

  // The key files and the metadata (ids "hmk-id" and "kpk-id").
  std::unique_ptr<KeyFile> hmkFile() const {
    auto file = std::make_unique<KeyFile>(FileKeyStore::kCurrentVersion);
    file->setKey(m_hmk);
    return file;
  }
  std::unique_ptr<KeyFile> kpkFile() const {
    auto file = std::make_unique<KeyFile>(FileKeyStore::kCurrentVersion);
    file->setKey(Utils::encryptKeyWithKey(m_kpk, m_hmk, KSCrypt::AES_256_GCM,
                                          FileKeyStore::kCurrentVersion));
    return file;
  }
  std::unique_ptr<KSMetadata> metadata() const {
    auto meta = std::make_unique<KSMetadata>(FileKeyStore::kCurrentVersion);
    meta->setHmkID("hmk-id");
    meta->setKpkID("kpk-id");
    meta->setHmkVerifier(FileKeyStore::generateVerifier("HMKV", m_hmk, KSCrypt::AES_256_GCM,
                                                        FileKeyStore::kCurrentVersion));
    meta->setKpkVerifier(FileKeyStore::generateVerifier("KPKV", m_kpk, KSCrypt::AES_256_GCM,
                                                        FileKeyStore::kCurrentVersion));
    meta->setMasterEncAlgo(KSCrypt::AES_256_GCM);
    meta->setKeyEncAlgo(KSCrypt::AES_256_GCM);
    meta->setHmkRandom(true);  // and not FIPS; the KPK the opposite
    meta->setKpkFips(true);
    return meta;
  }

 private:
  std::string m_hmk;
  std::string m_kpk;
  KPKMgr m_kpkMgr;
  FileKeyStore::KeyTable m_keys;
  FileKeyStore::GroupTable m_groups;
  std::map<std::string, std::string> m_plain;
};

// A FileKeyStore that a test can make live from a StoreContent, and whose
// import clock it may fix.
class MemoryStore : public FileKeyStore {
 public:
  explicit MemoryStore(const KMSFileLocator& locator) : FileKeyStore(locator) {}

  void install(const StoreContent& content) {
    installState(content.hmkFile(), content.kpkFile(), std::make_unique<KPKMgr>(content.kpkMgr()),
                 content.metadata(), std::make_unique<KeyTable>(content.keys()),
                 std::make_unique<GroupTable>(content.groups()));
  }

  using FileKeyStore::maxKeyGroups;
  using FileKeyStore::maxKeysPerGroup;
  using FileKeyStore::setImportClock;
};

// One of the nine paths with its bit of the recovery mask.
struct MaskedPath {
  std::string path;
  unsigned bit;
};

// HMK, KPK, store; each "dat", "new", "bak".
inline std::vector<MaskedPath> ninePaths(const KMSFileLocator& locator) {
  return {
      {locator.hmkPath(), 0x100}, {locator.hmkNewPath(), 0x080}, {locator.hmkBakPath(), 0x040},
      {locator.kpkPath(), 0x020}, {locator.kpkNewPath(), 0x010}, {locator.kpkBakPath(), 0x008},
      {locator.ksPath(), 0x004},  {locator.ksNewPath(), 0x002},  {locator.ksBakPath(), 0x001},
  };
}

// The mask of the files that exist now.
inline unsigned maskOf(const KMSFileLocator& locator) {
  unsigned mask = 0;
  for (const MaskedPath& p : ninePaths(locator)) {
    if (exists(p.path)) {
      mask |= p.bit;
    }
  }
  return mask;
}

// The bytes of all nine paths ("" for a missing one).
inline std::vector<std::string> contentsOf(const KMSFileLocator& locator) {
  std::vector<std::string> out;
  for (const MaskedPath& p : ninePaths(locator)) {
    out.push_back(exists(p.path) ? "+" + readFile(p.path) : std::string());
  }
  return out;
}

inline void removeAll(const KMSFileLocator& locator) {
  for (const MaskedPath& p : ninePaths(locator)) {
    ::unlink(p.path.c_str());
  }
}

// A root with the "db" and "key" directories, in a process not asked for FIPS.
struct StoreRoot {
  TempRoot root{"vrkms-persist"};
  KMSFileLocator locator{root.path()};
  FipsDecision fipsDecision;

  StoreRoot() { locator.createMissingDirectories(); }
};

// The three files of one store.
struct StoreBytes {
  std::string hmk;
  std::string kpk;
  std::string store;
};

inline void placeDat(const KMSFileLocator& locator, const StoreBytes& bytes) {
  writeFile(locator.hmkPath(), bytes.hmk);
  writeFile(locator.kpkPath(), bytes.kpk);
  writeFile(locator.ksPath(), bytes.store);
}

struct CommitInput {
  std::unique_ptr<KeyFile> hmk;
  std::unique_ptr<KeyFile> kpk;
  std::unique_ptr<KSMetadata> meta;
  const FileKeyStore::KeyTable* keys;
  const FileKeyStore::GroupTable* groups;

  explicit CommitInput(const StoreContent& content)
      : hmk(content.hmkFile()),
        kpk(content.kpkFile()),
        meta(content.metadata()),
        keys(&content.keys()),
        groups(&content.groups()) {}

  void commit(const KMSFileLocator& locator) const {
    FileKeyStore::writeToFile(*hmk, *kpk, *meta, *keys, *groups, locator);
  }
};

// One store state: random master keys, one group, `keyCount` keys (the first
// active), and the bytes of its three files as a commit writes them.
class StoreSnapshot {
 public:
  explicit StoreSnapshot(int keyCount) {
    const std::string group = Utils::getRandData(32);
    m_content.addGroup(group, "group");
    for (int i = 0; i < keyCount; ++i) {
      const std::string tag = Utils::getRandData(32);
      m_content.addKey(tag, group, "key-" + std::to_string(i), i == 0 ? KEY_ACTIVE : KEY_INACTIVE);
      m_tags.push_back(tag);
    }
    m_input = std::make_unique<CommitInput>(m_content);
    StoreRoot scratch;
    placeEmptyDat(scratch.locator);
    m_input->commit(scratch.locator);
    m_bytes = {readFile(scratch.locator.hmkPath()), readFile(scratch.locator.kpkPath()),
               readFile(scratch.locator.ksPath())};
    KSInputBuffer store(m_bytes.store);
    FileKeyStore::readKeyStoreMeta(store);
    m_metadataLength = m_bytes.store.size() - store.remaining();
  }

  void commit(const KMSFileLocator& locator) const { m_input->commit(locator); }
  const StoreBytes& bytes() const { return m_bytes; }

  // This state's file under each path of `mask` whose bit is in `which`.
  void placeMasked(const KMSFileLocator& locator, unsigned mask, unsigned which) const {
    const std::string* bytes[3] = {&m_bytes.hmk, &m_bytes.kpk, &m_bytes.store};
    const std::vector<MaskedPath> paths = ninePaths(locator);
    for (size_t i = 0; i < paths.size(); ++i) {
      if ((mask & which & paths[i].bit) != 0) {
        writeFile(paths[i].path, *bytes[i / 3]);
      }
    }
  }

  // The files are this state under their final names and nothing else (the
  // record stream only by length: each commit seals it under a fresh IV).
  bool isOnDiskAsDat(const KMSFileLocator& locator) const {
    const std::string store = readFile(locator.ksPath());
    return maskOf(locator) == 0x124 && readFile(locator.hmkPath()) == m_bytes.hmk &&
           readFile(locator.kpkPath()) == m_bytes.kpk && store.size() == m_bytes.store.size() &&
           store.compare(0, m_metadataLength, m_bytes.store, 0, m_metadataLength) == 0;
  }

  // Whether the live store serves this state (same keys, same values).
  bool isServedBy(FileKeyStore& store) const {
    int bad = store.getStats() == std::make_pair(uint64_t{m_tags.size()}, uint64_t{1}) ? 0 : 1;
    for (const std::string& tag : m_tags) {
      bad += codeOf([&] { return int{store.getKey(tag).key() != m_content.plainKey(tag)}; });
    }
    return bad == 0;
  }

  // Empty "dat" files, which make a root clean for a first commit.
  static void placeEmptyDat(const KMSFileLocator& locator) { placeDat(locator, StoreBytes()); }

 private:
  StoreContent m_content;
  std::vector<std::string> m_tags;
  std::unique_ptr<CommitInput> m_input;
  StoreBytes m_bytes;
  size_t m_metadataLength = 0;
};

// Fixture of the persistence tests: a root and two states made once per
// suite, old (two keys) and new (three keys), whose master keys differ so
// that any mixture of the two fails to read.
class TwoStatesTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    s_old = std::make_unique<StoreSnapshot>(2);
    s_new = std::make_unique<StoreSnapshot>(3);
  }

  void resetToOld() {
    removeAll(m_root.locator);
    placeDat(m_root.locator, s_old->bytes());
  }
  int commitNew() {
    return codeOf([&] { s_new->commit(m_root.locator); });
  }

  static inline std::unique_ptr<StoreSnapshot> s_old, s_new;
  StoreRoot m_root;
};

// Serves `text` as the service's configuration file while it lives.
class ServiceConfFile {
 public:
  explicit ServiceConfFile(const std::string& text) : m_path(InstallRoot::path("kms/vrkms.conf")) {
    std::filesystem::create_directories(std::filesystem::path(m_path).parent_path());
    writeFile(m_path, text);
    reload();
  }
  ~ServiceConfFile() {
    std::filesystem::remove(m_path);
    reload();
  }

 private:
  // Only the central back end may fail here; the file has been read.
  static void reload() {
    try {
      KMSConfig::instance()->reload();
    } catch (const KeyStoreError& error) {
      EXPECT_EQ(error.status(), 1257);
    }
  }
  std::string m_path;
};

// The two limits, as a configuration file.
class ConfiguredLimits : public ServiceConfFile {
 public:
  ConfiguredLimits(int groups, int keysPerGroup) : ServiceConfFile(text(groups, keysPerGroup)) {}

 private:
  static std::string text(int groups, int keysPerGroup) {
    char text[96];
    std::snprintf(text, sizeof text,
                  "[KMSConfig]\n\"max_key_groups\"=dword:%08x\n\"max_keys_per_group\"=dword:%08x\n",
                  static_cast<unsigned>(groups), static_cast<unsigned>(keysPerGroup));
    return text;
  }
};

// A store under a root of its own, made by committing `content` and brought
// up by init.
class LiveStore {
 public:
  explicit LiveStore(const StoreContent& content = StoreContent()) : m_locator(m_root.path()) {
    m_locator.createMissingDirectories();
    StoreSnapshot::placeEmptyDat(m_locator);
    CommitInput(content).commit(m_locator);
    m_store = std::make_unique<MemoryStore>(m_locator);
    EXPECT_EQ(m_store->init(), 0);
  }

  MemoryStore& store() { return *m_store; }
  FileKeyStore& operator*() { return *m_store; }
  FileKeyStore* operator->() { return m_store.get(); }
  const KMSFileLocator& locator() const { return m_locator; }
  std::vector<std::string> files() const { return contentsOf(m_locator); }

  KeyGrpRecord_v1 addGroup(const std::string& name, ks_ciphertype_t cipher = CT_AES256_CBC) {
    KeyGrpRecord_v1 rec;
    rec.setName(name);
    rec.setCipherType(cipher);
    rec.setDescription("group " + name);
    return m_store->addKeyGroup(rec);
  }

  KeyRecord_v1 addKey(std::string_view group, const std::string& name, ks_keystate_t state,
                      const std::string& passphrase = std::string()) {
    return m_store->addKey(keyRecord(group, name, state), passphrase);
  }

  // A record as a client sends it to addKey.
  static KeyRecord_v1 keyRecord(std::string_view group, const std::string& name,
                                ks_keystate_t state) {
    KeyRecord_v1 rec;
    rec.setKeyGroup(group);
    rec.setName(name);
    rec.setState(state);
    rec.setDescription("key " + name);
    rec.setKpkType(KPK_LOCAL);
    return rec;
  }

 private:
  TempRoot m_root{"vrkms-changes"};
  KMSFileLocator m_locator;
  std::unique_ptr<MemoryStore> m_store;
};

// Everything a store serves: the groups with their derived fields, and the
// keys of each group in the store's order.
struct Snapshot {
  std::vector<std::pair<KeyGrpRecord_v1, std::pair<uint64_t, bool>>> groups;
  std::vector<std::list<KeyRecord_v1>> keys;
  bool operator==(const Snapshot& other) const {
    return groups == other.groups && keys == other.keys;
  }
};

inline Snapshot snapshotOf(FileKeyStore& store) {
  Snapshot snap;
  std::list<KeyGrpRecord_v1> groups;
  store.getAllKeyGroupRecords(groups);
  for (const KeyGrpRecord_v1& group : groups) {
    snap.groups.push_back({group, {group.numKeys(), group.hasActiveKey()}});
    snap.keys.emplace_back();
    store.getAllKeyRecordsInGroup(std::string(group.tag()), snap.keys.back());
  }
  return snap;
}

}  // namespace storetest
