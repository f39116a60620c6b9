// Making a store, remaking a lost key file from its passphrase, and what the
// files tell of the master keys without opening the store. Everything runs
// on real files under a private root; file failures come from the fault seam.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <tuple>
#include <vector>

#include "keystore/MasterKeyTestUtil.h"
#include "keystore/StoreTestState.h"
#include "kms/platform/Fips.h"
#include "kms/server/keystore/crypto/KeyGen.h"
#include "kms/server/keystore/files/FileFaults.h"

namespace masterkeytest {
namespace {

using storefiles::contentsOf;
using storefiles::exists;
using storefiles::maskOf;
using storefiles::readBytes;
using storefiles::writeBytes;
using storetest::codeOf;

const std::string kHmkPass = "hmk secret words";
const std::string kKpkPass = "kpk secret words";

mode_t modeOf(const std::string& path) {
  struct stat st;
  EXPECT_EQ(::stat(path.c_str(), &st), 0) << path;
  return st.st_mode & 0777;
}

// The HMK of the oldest stores: EVP_BytesToKey for AES-256-CBC with SHA-1, no
// salt and 1000 rounds, computed here without the code under test.
std::string unsaltedKey(const std::string& passphrase) {
  unsigned char key[EVP_MAX_KEY_LENGTH];
  unsigned char iv[EVP_MAX_IV_LENGTH];
  const int n = EVP_BytesToKey(EVP_aes_256_cbc(), EVP_sha1(), nullptr,
                               reinterpret_cast<const unsigned char*>(passphrase.data()),
                               static_cast<int>(passphrase.size()), 1000, key, iv);
  return std::string(reinterpret_cast<const char*>(key), static_cast<size_t>(n));
}

class MasterKeyFiles : public ::testing::Test {
 protected:
  FileKeyStore& store() { return m_root.store(); }
  const KMSFileLocator& locator() const { return m_root.locator(); }

  // A store made from the two passphrases, holding three keys.
  std::map<std::string, std::string> makePassphraseStore() {
    EXPECT_EQ(store().createEmpty(kHmkPass, "hmk-1", kKpkPass, "kpk-1", false), 0);
    return seedKeys(locator(), 3);
  }

  MasterKeyRoot m_root;
};

TEST_F(MasterKeyFiles, CreateEmptyMakesAClosedStoreOfPassphraseKeysThatInitOpens) {
  ASSERT_EQ(store().createEmpty(kHmkPass, "hmk-1", kKpkPass, "kpk-1", false), 0);
  EXPECT_FALSE(store().isInitialized());
  EXPECT_EQ(maskOf(locator()), 0x124u);
  for (const std::string& path : {locator().hmkPath(), locator().kpkPath(), locator().ksPath()}) {
    EXPECT_EQ(modeOf(path), 0600u) << path;
  }

  const DiskState disk = readDisk(locator());
  EXPECT_EQ(disk.kpk->version(), KS_VERSION_300);
  EXPECT_EQ(disk.meta->masterEncAlgo(), KSCrypt::AES_256_GCM);
  EXPECT_EQ(disk.meta->keyEncAlgo(), KSCrypt::AES_256_GCM);
  EXPECT_FALSE(disk.meta->hmkRandom());
  EXPECT_FALSE(disk.meta->kpkRandom());
  EXPECT_EQ(disk.meta->hmkFips(), FIPS_mode() != 0);
  // Each key is the stretch of its own passphrase with its own fresh salt.
  ASSERT_EQ(disk.meta->hmkSalt().size(), KeyGen::SALT_LEN);
  ASSERT_EQ(disk.meta->kpkSalt().size(), KeyGen::SALT_LEN);
  EXPECT_NE(disk.meta->hmkSalt(), disk.meta->kpkSalt());
  EXPECT_EQ(disk.hmk->key(), stretched(kHmkPass, disk.meta->hmkSalt()));
  EXPECT_EQ(disk.plainKpk, stretched(kKpkPass, disk.meta->kpkSalt()));
  // The verifiers prove each key, and only that one.
  EXPECT_TRUE(FileKeyStore::isVerifierValid("HMKV", disk.hmk->key(), disk.meta->hmkVerifier(),
                                            KSCrypt::AES_256_GCM, KS_VERSION_300));
  EXPECT_TRUE(FileKeyStore::isVerifierValid("KPKV", disk.plainKpk, disk.meta->kpkVerifier(),
                                            KSCrypt::AES_256_GCM, KS_VERSION_300));
  EXPECT_EQ(disk.keys.size(), 0u);
  EXPECT_EQ(disk.groups.size(), 0u);

  ASSERT_EQ(store().init(), 0);
  EXPECT_EQ(store().getStats(), std::make_pair(uint64_t{0}, uint64_t{0}));
  EXPECT_EQ(store().getHMKId(), "hmk-1");
  EXPECT_EQ(store().getKPKId(), "kpk-1");
}

TEST_F(MasterKeyFiles, CreateEmptyRefusals) {
  EXPECT_EQ(store().createEmpty(kHmkPass, "", kKpkPass, "kpk", true), 1214);
  EXPECT_EQ(store().createEmpty(kHmkPass, "hmk", kKpkPass, "", true), 1214);
  EXPECT_EQ(maskOf(locator()), 0u);
  EXPECT_EQ(store().createHMKFile("", true, false), 1212);
  EXPECT_EQ(store().createKPKFile("", true, false), 1212);

  makePassphraseStore();

  // Overwriting replaces the store with an empty one of random keys, which
  // no passphrase remakes.
  ASSERT_EQ(store().createEmpty("", "hmk-2", "", "kpk-2", true), 0);
  EXPECT_EQ(store().getHMKId(), "hmk-2");
  EXPECT_TRUE(store().getHMKInfo().random);
  EXPECT_TRUE(store().getKPKInfo().random);
  const DiskState disk = readDisk(locator());
  EXPECT_TRUE(disk.meta->hmkSalt().empty());
  EXPECT_TRUE(disk.meta->kpkSalt().empty());
  EXPECT_EQ(disk.plainKpk.size(), 32u);
  EXPECT_EQ(store().createHMKFile("any", true, true), 1264);
  EXPECT_EQ(store().createKPKFile("any", true, true), 1265);
  EXPECT_EQ(store().createKPKFile("any", true, false), 1249);
  ASSERT_EQ(store().init(), 0);
  EXPECT_EQ(store().getStats().first, 0u);
  ASSERT_EQ(store().shutdown(), 0);

  // Refusing to overwrite still deletes the store that was found: the refusal
  // is raised inside the part whose failures clean up.
  EXPECT_EQ(store().createEmpty("", "hmk-3", "", "kpk-3", false), 1268);
  EXPECT_EQ(maskOf(locator()), 0u);
}

TEST_F(MasterKeyFiles, AFailedCreateEmptyLeavesNoFilesBehind) {
  {
    // The commit fails before its renames (1276), yet the store that was
    // about to be made is gone: reported as a change.
    FailNthFileOp failFsync(1, EIO, FileOp::Fsync);
    ScopedFileFaultHook hook(&failFsync);
    EXPECT_EQ(store().createEmpty("", "hmk", "", "kpk", false), 1277);
    EXPECT_TRUE(failFsync.fired());
  }
  EXPECT_EQ(maskOf(locator()), 0u);

  makePassphraseStore();
  {
    // The first empty "dat" file cannot be made (1237), after the old store
    // was deleted.
    FailNthFileOp failCreate(1, EACCES, FileOp::Open);
    ScopedFileFaultHook hook(&failCreate);
    EXPECT_EQ(store().createEmpty("", "hmk", "", "kpk", true), 1277);
    EXPECT_TRUE(failCreate.fired());
  }
  EXPECT_EQ(maskOf(locator()), 0u);
}

TEST_F(MasterKeyFiles, AKpkFileIsRemadeOnlyBesideAGoodHmkAndStoreFile) {
  makePassphraseStore();
  const std::vector<std::string> files = contentsOf(locator());
  KeyFile otherHmk(KS_VERSION_300);
  otherHmk.setKey(Utils::getRandData(32));
  std::string otherHmkBytes;
  {
    Utils::FileHolder out = Utils::openFile(locator().hmkNewPath().c_str(), "wb");
    FileKeyStore::writeKeyFile(out, otherHmk);
  }
  otherHmkBytes = readBytes(locator().hmkNewPath());
  ::unlink(locator().hmkNewPath().c_str());
  const struct {
    const std::string& path;
    std::string bytes;  // "-" for no file
    int kpkCode;
    int hmkCode;  // 0: not asked
  } rows[] = {
      {locator().hmkPath(), "-", 1203, 0},
      {locator().hmkPath(), otherHmkBytes, 1221, 0},
      {locator().hmkPath(), files[0].substr(1) + "x", 1206, 0},
      {locator().ksPath(), "-", 1204, 1204},
      {locator().ksPath(), "no metadata here", 1207, 1207},
  };
  for (const auto& row : rows) {
    const std::string kept = readBytes(row.path);
    row.bytes == "-" ? (void)::unlink(row.path.c_str()) : writeBytes(row.path, row.bytes);
    EXPECT_EQ(store().createKPKFile(kKpkPass, true, false), row.kpkCode) << row.bytes.size();
    if (row.hmkCode != 0) {
      EXPECT_EQ(store().createHMKFile(kHmkPass, true, false), row.hmkCode);
    }
    writeBytes(row.path, kept);
  }
  EXPECT_EQ(contentsOf(locator()), files);
  EXPECT_EQ(store().createKPKFile(kKpkPass, true, false), 0);
}

TEST_F(MasterKeyFiles, AFailedRewriteOfAKeyFileTellsWhetherAFileWasLost) {
  const std::map<std::string, std::string> plain = makePassphraseStore();
  const std::string storeBytes = readBytes(locator().ksPath());
  for (const bool hmk : {true, false}) {
    const std::string& path = hmk ? locator().hmkPath() : locator().kpkPath();
    auto remake = [&] {
      return hmk ? store().createHMKFile(kHmkPass, true, false)
                 : store().createKPKFile(kKpkPass, true, false);
    };
    const std::string before = readBytes(path);
    for (const bool fileThere : {true, false}) {
      SCOPED_TRACE(std::string(hmk ? "HMK" : "KPK") + (fileThere ? " file there" : " no file"));
      if (!fileThere) {
        ::unlink(path.c_str());
      }
      {
        // Before the rename: the old file, or none, stays as it was.
        FailNthFileOp failFsync(1, EIO, FileOp::Fsync);
        ScopedFileFaultHook hook(&failFsync);
        EXPECT_EQ(remake(), 1276);
      }
      EXPECT_EQ(exists(path), fileThere);
      EXPECT_EQ(fileThere ? readBytes(path) : "", fileThere ? before : "");
      EXPECT_FALSE(exists(path + ".tmp"));
    }
    {
      // After it: the new file is in place, its directory not synced.
      FailNthFileOp failSync(1, EIO, FileOp::SyncDir);
      ScopedFileFaultHook hook(&failSync);
      EXPECT_EQ(remake(), 1277);
    }
    EXPECT_TRUE(exists(path));
    ::unlink(path.c_str());
    // The creation of the key file, which is then written through the
    // descriptor that created it.
    FailNthFileOp failOpen(1, EACCES, FileOp::Open);
    {
      ScopedFileFaultHook hook(&failOpen);
      EXPECT_EQ(remake(), 1276);
    }
    EXPECT_TRUE(failOpen.fired());
    EXPECT_FALSE(exists(path));
    EXPECT_EQ(readBytes(locator().ksPath()), storeBytes);
    ASSERT_EQ(remake(), 0);
  }
  ASSERT_EQ(store().init(), 0);
  expectServes(store(), plain);
}

TEST_F(MasterKeyFiles, TheHmkOfTheOldestStoresComesBackWithoutSalt) {
  // A store of version 0x100 keeps no salt and proves its HMK by the digest
  // of "Z" and the key. Only the metadata block is needed to remake the file.
  const std::string hmk = unsaltedKey(kHmkPass);
  ASSERT_EQ(hmk.size(), 32u);
  KSMetadata meta(KS_VERSION_100);
  meta.setHmkID("old-hmk");
  meta.setKpkID("old-kpk");
  meta.setMasterEncAlgo(KSCrypt::AES_256_CBC);
  meta.setKeyEncAlgo(KSCrypt::AES_256_CBC);
  meta.setHmkHash(formattest::digest(EVP_sha1(), "Z" + hmk));
  meta.setKpkHash(formattest::digest(EVP_sha1(), "Z" + Utils::getRandData(32)));
  locator().createMissingDirectories();
  {
    Utils::FileHolder out = Utils::openFile(locator().ksPath().c_str(), "wb");
    FileKeyStore::writeKeyStoreMeta(out, meta);
  }

  EXPECT_EQ(store().createHMKFile("wrong passphrase", false, false), 1221);
  EXPECT_FALSE(exists(locator().hmkPath()));
  ASSERT_EQ(store().createHMKFile(kHmkPass, false, false), 0);
  const KeyFile written = readKeyFileBytes(readBytes(locator().hmkPath()));
  EXPECT_EQ(written.version(), KS_VERSION_100);
  EXPECT_EQ(written.key(), hmk);
}

// A closed store tells the facts of its keys from the store file alone.
TEST_F(MasterKeyFiles, TheFactsOfTheKeysOfAClosedStoreComeFromTheStoreFile) {
  storetest::StoreContent content;  // HMK random and not FIPS, KPK the opposite
  locator().createMissingDirectories();
  storefiles::StoreSnapshot::placeEmptyDat(locator());
  storefiles::CommitInput(content).commit(locator());
  ASSERT_EQ(::unlink(locator().hmkPath().c_str()), 0);
  ASSERT_EQ(::unlink(locator().kpkPath().c_str()), 0);
  const KeyInfo hmk = store().getHMKInfo();
  const KeyInfo kpk = store().getKPKInfo();
  EXPECT_EQ(std::make_tuple(store().getHMKId(), hmk.id, hmk.algorithm, hmk.random, hmk.fips),
            std::make_tuple(std::string("hmk-id"), std::string("hmk-id"), KSCrypt::AES_256_GCM,
                            true, false));
  EXPECT_EQ(std::make_tuple(store().getKPKId(), kpk.id, kpk.algorithm, kpk.random, kpk.fips),
            std::make_tuple(std::string("kpk-id"), std::string("kpk-id"), KSCrypt::AES_256_GCM,
                            false, true));
  auto codes = [&] {
    return std::vector<int>{
        codeOf([&] { store().getHMKId(); }), codeOf([&] { store().getKPKId(); }),
        codeOf([&] { store().getHMKInfo(); }), codeOf([&] { store().getKPKInfo(); })};
  };
  {
    FailNthFileOp failRead(1, EIO, FileOp::Fread);
    ScopedFileFaultHook hook(&failRead);
    EXPECT_EQ(codeOf([&] { store().getHMKInfo(); }), 1210);
  }
  writeBytes(locator().ksPath(), readBytes(locator().ksPath()).substr(0, 20));
  EXPECT_EQ(codes(), std::vector<int>(4, 1207));
  ASSERT_EQ(::unlink(locator().ksPath().c_str()), 0);
  EXPECT_EQ(codes(), std::vector<int>(4, 1204));
}

TEST_F(MasterKeyFiles, AGoodKeyFileIsOneOfTheRightFormWhateverItsKey) {
  makePassphraseStore();
  const std::string hmkPath = locator().hmkPath();
  const std::string hmkBytes = readBytes(hmkPath);
  const std::string kpkBytes = readBytes(locator().kpkPath());
  EXPECT_TRUE(FileKeyStore::isGoodKeyFile(hmkPath));
  EXPECT_TRUE(FileKeyStore::isGoodKeyFile(locator().kpkPath()));
  EXPECT_TRUE(store().goodHMKFileExists());
  EXPECT_TRUE(store().goodKPKFileExists());

  // Form only: a KPK file in the HMK's place is a good key file.
  writeBytes(hmkPath, kpkBytes);
  EXPECT_TRUE(FileKeyStore::isGoodKeyFile(hmkPath));
  for (const std::string& bad : {hmkBytes + "x", hmkBytes.substr(0, hmkBytes.size() - 1)}) {
    writeBytes(hmkPath, bad);
    EXPECT_FALSE(FileKeyStore::isGoodKeyFile(hmkPath)) << bad.size() << " bytes";
    EXPECT_FALSE(store().goodHMKFileExists());
  }
  ASSERT_EQ(::unlink(hmkPath.c_str()), 0);
  EXPECT_FALSE(store().goodHMKFileExists());
  // A file that is there but cannot be opened is an error, named by file.
  writeBytes(hmkPath, hmkBytes);
  auto withFailedOpen = [](auto call) {
    FailNthFileOp failOpen(1, EACCES, FileOp::Fopen);
    ScopedFileFaultHook hook(&failOpen);
    return codeOf(call);
  };
  EXPECT_EQ(withFailedOpen([&] { FileKeyStore::isGoodKeyFile(hmkPath); }), 1252);
  EXPECT_EQ(withFailedOpen([&] { store().goodHMKFileExists(); }), 1203);
  EXPECT_EQ(withFailedOpen([&] { store().goodKPKFileExists(); }), 1248);
  EXPECT_EQ(withFailedOpen([&] { return store().createHMKFile(kHmkPass, false, false); }), 1203);
  EXPECT_EQ(withFailedOpen([&] { return store().createKPKFile(kKpkPass, false, false); }), 1248);
}

}  // namespace
}  // namespace masterkeytest
