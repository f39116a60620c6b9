// Helpers of the master key tests: a store root under which this process
// asks no FIPS mode and passphrases are stretched by the fast scheme; stores
// made by createEmpty and given keys under their own master keys; and what
// the three files hold, read back without a live store.
//
//   MasterKeyRoot root;
//   ASSERT_EQ(root.store().createEmpty("h", "hmk-1", "k", "kpk-1", false), 0);
//   std::map<std::string, std::string> plain = seedKeys(root.locator(), 3);
//   DiskState disk = readDisk(root.locator());   // keys as stored (wrapped)
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>

#include "keystore/FormatTestUtil.h"
#include "keystore/StoreFilesTestUtil.h"
#include "kms/server/keystore/crypto/CryptFactory.h"
#include "kms/server/keystore/crypto/KPKMgr.h"
#include "kms/server/keystore/crypto/KeyWrap.h"
#include "kms/server/keystore/crypto/RandData.h"
#include "kms/server/keystore/files/KMSFileLocator.h"
#include "kms/server/keystore/format/KSInputBuffer.h"
#include "kms/server/keystore/format/KSMetadata.h"
#include "kms/server/keystore/format/KeyFile.h"
#include "kms/server/keystore/store/FileKeyStore.h"
#include "support/TempRoot.h"

namespace masterkeytest {

using namespace Vaultrest::DL::KMS;

// This process was not asked for FIPS mode, for the scope.
using NoFipsRequest = storetest::FipsDecision;

// What the three files of a store hold, read with the store's own readers:
// both key files, the metadata, the plain KPK and the tables with every key
// as stored (wrapped under the KPK).
struct DiskState {
  std::unique_ptr<KeyFile> hmk;
  std::unique_ptr<KeyFile> kpk;
  std::unique_ptr<KSMetadata> meta;
  std::string plainKpk;
  FileKeyStore::KeyTable keys{true};
  FileKeyStore::GroupTable groups;

  // Tag to wrapped key, for every key record.
  std::map<std::string, std::string> wrappedKeys() const {
    std::map<std::string, std::string> out;
    for (auto it = keys.begin(); it != keys.end(); ++it) {
      out[it->first] = it->second.key();
    }
    return out;
  }
};

inline KeyFile readKeyFileBytes(const std::string& bytes) {
  KSInputBuffer buffer(bytes);
  return FileKeyStore::readKeyFile(buffer);
}

inline DiskState readDisk(const KMSFileLocator& locator) {
  DiskState disk;
  disk.hmk = std::make_unique<KeyFile>(readKeyFileBytes(storefiles::readBytes(locator.hmkPath())));
  disk.kpk = std::make_unique<KeyFile>(readKeyFileBytes(storefiles::readBytes(locator.kpkPath())));
  KSInputBuffer store(storefiles::readBytes(locator.ksPath()));
  disk.meta = std::make_unique<KSMetadata>(FileKeyStore::readKeyStoreMeta(store));
  disk.plainKpk = Utils::decryptKeyWithKey(disk.kpk->key(), disk.hmk->key(),
                                           disk.meta->masterEncAlgo(), disk.kpk->version());
  std::unique_ptr<KSCrypt> crypter(CryptFactory::createCrypter(
      disk.meta->masterEncAlgo(), disk.hmk->key(), disk.meta->masterIV()));
  FileKeyStore::readKeyStore(store, *crypter, disk.keys, disk.groups);
  return disk;
}

// Adds one group and `count` keys (the first active) to the store on disk,
// each key wrapped under the store's own KPK, and commits them with
// writeToFile. Gives the plain key of each tag.
inline std::map<std::string, std::string> seedKeys(const KMSFileLocator& locator, int count) {
  DiskState disk = readDisk(locator);
  const KPKMgr kpkMgr(disk.plainKpk, disk.meta->keyEncAlgo(), disk.meta->version(), true);
  const std::string group = Utils::getRandData(32);
  KeyGrpRecord_v1 grp;
  grp.setFields(group, "group", CT_AES256_CBC, 1000, 1000, "the group", 1);
  EXPECT_TRUE(disk.groups.addRecord(grp));
  std::map<std::string, std::string> plain;
  for (int i = 0; i < count; ++i) {
    const std::string tag = Utils::getRandData(32);
    const std::string key = Utils::getRandData(32);
    KeyRecord_v1 rec;
    rec.setFields(tag, "key-" + std::to_string(i), group, i == 0 ? KEY_ACTIVE : KEY_INACTIVE, 2000,
                  2000, "a key", 1, KPK_LOCAL, std::string(),
                  kpkMgr.encryptKey(key, KPK_LOCAL, std::string()));
    EXPECT_TRUE(disk.keys.addRecord(rec));
    plain[tag] = key;
  }
  FileKeyStore::writeToFile(*disk.hmk, *disk.kpk, *disk.meta, disk.keys, disk.groups, locator);
  return plain;
}

// The live store serves exactly these keys with these values.
inline void expectServes(FileKeyStore& store, const std::map<std::string, std::string>& plain) {
  ASSERT_TRUE(store.isInitialized());
  EXPECT_EQ(store.getStats().first, plain.size());
  for (const auto& entry : plain) {
    EXPECT_EQ(store.getKey(entry.first).key(), entry.second);
  }
}

// The key that a passphrase stretches to with a stored salt (32 bytes, for
// the GCM type of everything new).
inline std::string stretched(const std::string& passphrase, const std::string& salt) {
  return KeyGen::passphraseToKey(passphrase, salt, 32);
}

// A private root with the FIPS decision off and the fast passphrase scheme.
class MasterKeyRoot {
 public:
  MasterKeyRoot() : m_locator(m_root.path()), m_store(std::make_unique<FileKeyStore>(m_locator)) {}

  const KMSFileLocator& locator() const { return m_locator; }
  FileKeyStore& store() { return *m_store; }
  // A new store object over the same files, as after a restart.
  FileKeyStore& restart() {
    m_store = std::make_unique<FileKeyStore>(m_locator);
    return *m_store;
  }

 private:
  NoFipsRequest m_fips;
  formattest::WeakKdf m_weakKdf;
  TempRoot m_root{"vrkms-masterkeys"};
  KMSFileLocator m_locator;
  std::unique_ptr<FileKeyStore> m_store;
};

}  // namespace masterkeytest
