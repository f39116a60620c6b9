// Helpers of the persistence tests: whole stores on disk, made once and
// placed again by copying bytes, and the recovery mask of a directory as seen
// without the code under test.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "keystore/StoreTestState.h"
#include "kms/server/keystore/crypto/RandData.h"
#include "kms/server/keystore/files/FileUtils.h"
#include "kms/server/keystore/files/KMSFileLocator.h"
#include "kms/server/keystore/format/KSInputBuffer.h"
#include "kms/server/keystore/format/KSMetadata.h"
#include "kms/server/keystore/format/KeyFile.h"
#include "kms/server/keystore/store/FileKeyStore.h"
#include "support/TempRoot.h"

namespace storefiles {

using namespace Vaultrest::DL::KMS;

inline bool exists(const std::string& path) {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0;
}

inline std::string readBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void writeBytes(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

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
    out.push_back(exists(p.path) ? "+" + readBytes(p.path) : std::string());
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
  storetest::FipsDecision fipsDecision;

  StoreRoot() { locator.createMissingDirectories(); }
  StoreRoot(const StoreRoot&) = delete;
  StoreRoot& operator=(const StoreRoot&) = delete;
};

// The three files of one store.
struct StoreBytes {
  std::string hmk;
  std::string kpk;
  std::string store;
};

inline void placeDat(const KMSFileLocator& locator, const StoreBytes& bytes) {
  writeBytes(locator.hmkPath(), bytes.hmk);
  writeBytes(locator.kpkPath(), bytes.kpk);
  writeBytes(locator.ksPath(), bytes.store);
}

struct CommitInput {
  std::unique_ptr<KeyFile> hmk;
  std::unique_ptr<KeyFile> kpk;
  std::unique_ptr<KSMetadata> meta;
  const FileKeyStore::KeyTable* keys;
  const FileKeyStore::GroupTable* groups;

  explicit CommitInput(const storetest::StoreContent& content)
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
  explicit StoreSnapshot(int keyCount) : m_group(Utils::getRandData(32)) {
    m_content.addGroup(m_group, "group");
    for (int i = 0; i < keyCount; ++i) {
      const std::string tag = Utils::getRandData(32);
      m_content.addKey(tag, m_group, "key-" + std::to_string(i),
                       i == 0 ? KEY_ACTIVE : KEY_INACTIVE);
      m_tags.push_back(tag);
    }
    m_input = std::make_unique<CommitInput>(m_content);
    StoreRoot scratch;
    placeEmptyDat(scratch.locator);
    m_input->commit(scratch.locator);
    m_bytes.hmk = readBytes(scratch.locator.hmkPath());
    m_bytes.kpk = readBytes(scratch.locator.kpkPath());
    m_bytes.store = readBytes(scratch.locator.ksPath());
    KSInputBuffer store(m_bytes.store);
    FileKeyStore::readKeyStoreMeta(store);
    m_metadataLength = m_bytes.store.size() - store.remaining();
  }

  StoreSnapshot(const StoreSnapshot&) = delete;
  StoreSnapshot& operator=(const StoreSnapshot&) = delete;

  const storetest::StoreContent& content() const { return m_content; }
  const CommitInput& input() const { return *m_input; }
  const StoreBytes& bytes() const { return m_bytes; }
  const std::vector<std::string>& tags() const { return m_tags; }

  void placeAsDat(const KMSFileLocator& locator) const { placeDat(locator, m_bytes); }

  // This state's file under each path of `mask` whose bit is in `which`.
  void placeMasked(const KMSFileLocator& locator, unsigned mask, unsigned which) const {
    const std::string* bytes[3] = {&m_bytes.hmk, &m_bytes.kpk, &m_bytes.store};
    const std::vector<MaskedPath> paths = ninePaths(locator);
    for (size_t i = 0; i < paths.size(); ++i) {
      if ((mask & which & paths[i].bit) != 0) {
        writeBytes(paths[i].path, *bytes[i / 3]);
      }
    }
  }

  // The files are this state under their final names and nothing else (the
  // record stream only by length: each commit seals it under a fresh IV).
  bool isOnDiskAsDat(const KMSFileLocator& locator) const {
    const std::string store = readBytes(locator.ksPath());
    return maskOf(locator) == 0x124 && readBytes(locator.hmkPath()) == m_bytes.hmk &&
           readBytes(locator.kpkPath()) == m_bytes.kpk && store.size() == m_bytes.store.size() &&
           store.compare(0, m_metadataLength, m_bytes.store, 0, m_metadataLength) == 0;
  }

  // Whether the live store serves this state (same keys, same values).
  bool isServedBy(FileKeyStore& store) const {
    if (store.getStats() != std::make_pair(uint64_t{m_tags.size()}, uint64_t{1})) {
      return false;
    }
    for (const std::string& tag : m_tags) {
      try {
        if (store.getKey(tag).key() != m_content.plainKey(tag)) {
          return false;
        }
      } catch (const KeyStoreError&) {
        return false;
      }
    }
    return true;
  }

  // Empty "dat" files, which make a root clean for a first commit.
  static void placeEmptyDat(const KMSFileLocator& locator) { placeDat(locator, StoreBytes()); }

 private:
  storetest::StoreContent m_content;
  std::string m_group;
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
    s_old = new StoreSnapshot(2);
    s_new = new StoreSnapshot(3);
  }
  static void TearDownTestSuite() {
    delete s_old;
    delete s_new;
    s_old = s_new = nullptr;
  }

  void resetToOld() {
    removeAll(m_root.locator);
    s_old->placeAsDat(m_root.locator);
  }
  int commitNew() {
    return storetest::codeOf([&] { s_new->input().commit(m_root.locator); });
  }
  int initCode() {
    FileKeyStore store(m_root.locator);
    const int code = store.init();
    EXPECT_EQ(store.isInitialized(), code == 0);
    return code;
  }

  static inline StoreSnapshot* s_old = nullptr;
  static inline StoreSnapshot* s_new = nullptr;
  StoreRoot m_root;
};

}  // namespace storefiles
