// A live key store on real files for the tests of key and group changes: an
// empty state is committed with writeToFile under a private root and brought
// up by init, so every change runs the real commit.
//
//   FipsDecisionOff fips;                 // before init: this process asks no FIPS
//   LiveStore live;                       // empty, live
//   KeyGrpRecord_v1 g = live.addGroup("g1");
//   KeyRecord_v1 k = live.addKey(g.tag(), "k1", KEY_ACTIVE);
//   Snapshot before = snapshotOf(*live);
//   std::vector<std::string> files = live.files();   // the nine paths' bytes
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "keystore/StoreFilesTestUtil.h"
#include "keystore/StoreTestState.h"
#include "kms/platform/InstallRoot.h"
#include "kms/server/keystore/files/KMSConfig.h"
#include "kms/server/keystore/files/KMSFileLocator.h"
#include "kms/server/keystore/store/FileKeyStore.h"
#include "support/TempRoot.h"

namespace changetest {

using namespace Vaultrest::DL::KMS;

using FipsDecisionOff = storetest::FipsDecision;

// Serves `text` as the service's configuration file while it lives; a store
// reads its limits when it is constructed.
class ServiceConfFile {
 public:
  explicit ServiceConfFile(const std::string& text) : m_path(InstallRoot::path("kms/vrkms.conf")) {
    std::filesystem::create_directories(std::filesystem::path(m_path).parent_path());
    std::ofstream(m_path, std::ios::trunc) << text;
    reload();
  }
  ~ServiceConfFile() {
    std::filesystem::remove(m_path);
    reload();
  }
  ServiceConfFile(const ServiceConfFile&) = delete;
  ServiceConfFile& operator=(const ServiceConfFile&) = delete;

 private:
  // Only the central back end may fail here (when another test of this
  // process left a master configuration behind); the file has been read.
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
  ConfiguredLimits(int maxKeyGroups, int maxKeysPerGroup)
      : ServiceConfFile("[KMSConfig]\n\"max_key_groups\"=dword:" + hex8(maxKeyGroups) +
                        "\n\"max_keys_per_group\"=dword:" + hex8(maxKeysPerGroup) + "\n") {}

 private:
  static std::string hex8(int value) {
    char text[16];
    std::snprintf(text, sizeof text, "%08x", static_cast<unsigned>(value));
    return text;
  }
};

// A store whose import clock a test may fix.
class ClockedStore : public FileKeyStore {
 public:
  explicit ClockedStore(const KMSFileLocator& locator) : FileKeyStore(locator) {}
  using FileKeyStore::setImportClock;
};

// A store under a root of its own, made by committing `content` (by default
// random master keys, no groups, no keys) and brought up by init. The
// configured limits are those in force when it is made.
class LiveStore {
 public:
  explicit LiveStore(const storetest::StoreContent& content = storetest::StoreContent())
      : m_locator(m_root.path()) {
    m_locator.createMissingDirectories();
    // A first commit needs the three final names to exist.
    storefiles::StoreSnapshot::placeEmptyDat(m_locator);
    storefiles::CommitInput(content).commit(m_locator);
    m_store = std::make_unique<ClockedStore>(m_locator);
    EXPECT_EQ(m_store->init(), 0);
  }

  ClockedStore& store() { return *m_store; }
  FileKeyStore& operator*() { return *m_store; }
  FileKeyStore* operator->() { return m_store.get(); }
  const KMSFileLocator& locator() const { return m_locator; }
  // The bytes of the store's nine paths.
  std::vector<std::string> files() const { return storefiles::contentsOf(m_locator); }

  KeyGrpRecord_v1 addGroup(const std::string& name, ks_ciphertype_t cipher = CT_AES256_CBC) {
    KeyGrpRecord_v1 rec;
    rec.setName(name);
    rec.setCipherType(cipher);
    rec.setDescription("group " + name);
    return m_store->addKeyGroup(rec);
  }

  KeyRecord_v1 addKey(const std::string& group, const std::string& name, ks_keystate_t state,
                      const std::string& passphrase = std::string()) {
    return m_store->addKey(keyRecord(group, name, state), passphrase);
  }

  // A record as a client sends it to addKey.
  static KeyRecord_v1 keyRecord(const std::string& group, const std::string& name,
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
  std::unique_ptr<ClockedStore> m_store;
};

// Everything a store serves, as its readers see it: the groups with their
// derived fields, and the keys of each group (without keys).
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
    // In the store's order, which a reload keeps.
    store.getAllKeyRecordsInGroup(group.tag(), snap.keys.back());
  }
  return snap;
}

}  // namespace changetest
