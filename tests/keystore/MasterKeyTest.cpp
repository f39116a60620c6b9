// The master keys on real files: making a store, remaking a key file, changing
// the HMK and the KPK (a crash at every file operation), and older stores.
#include <openssl/evp.h>
#include <sys/wait.h>
#include <algorithm>
#include <cerrno>
#include <tuple>

#include "keystore/CryptoTestUtil.h"
#include "keystore/FormatTestUtil.h"
#include "keystore/StoreTestState.h"
#include "kms/platform/Fips.h"
#include "kms/server/keystore/crypto/CryptFactory.h"
#include "kms/server/keystore/crypto/KeyGen.h"
#include "kms/server/keystore/files/FileFaults.h"

namespace {

using namespace Vaultrest::DL::KMS;
using formattest::be;
using formattest::field;
using formattest::handList;
using formattest::handRecord;
using storetest::codeOf;
using storetest::contentsOf;
using storetest::maskOf;
using storetest::StoreRoot;

const std::string kHmkPass = "hmk secret words";
const std::string kKpkPass = "kpk secret words";
const std::string kNewPass = "the new words";

// The three files of a store, read with the store's own readers.
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
      out[std::string(it->first)] = it->second.key();
    }
    return out;
  }
};

KeyFile readKeyFileBytes(const std::string& bytes) {
  KSInputBuffer buffer(bytes);
  return FileKeyStore::readKeyFile(buffer);
}

DiskState readDisk(const KMSFileLocator& locator) {
  DiskState disk;
  disk.hmk = std::make_unique<KeyFile>(readKeyFileBytes(readFile(locator.hmkPath())));
  disk.kpk = std::make_unique<KeyFile>(readKeyFileBytes(readFile(locator.kpkPath())));
  KSInputBuffer store(readFile(locator.ksPath()));
  disk.meta = std::make_unique<KSMetadata>(FileKeyStore::readKeyStoreMeta(store));
  disk.plainKpk = Utils::decryptKeyWithKey(disk.kpk->key(), disk.hmk->key(),
                                           disk.meta->masterEncAlgo(), disk.kpk->version());
  std::unique_ptr<KSCrypt> crypter(CryptFactory::createCrypter(
      disk.meta->masterEncAlgo(), disk.hmk->key(), disk.meta->masterIV()));
  FileKeyStore::readKeyStore(store, *crypter, disk.keys, disk.groups);
  return disk;
}

// The live store serves exactly these keys with these values.
void expectServes(FileKeyStore& store, const std::map<std::string, std::string>& plain) {
  EXPECT_EQ(store.getStats().first, plain.size());
  for (const auto& entry : plain) {
    EXPECT_EQ(store.getKey(entry.first).key(), entry.second);
  }
}

std::string stretched(const std::string& passphrase, const std::string& salt) {
  return KeyGen::passphraseToKey(passphrase, salt, 32);
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

// The facts of one master key as one text.
std::string describe(const KeyInfo& info) {
  return info.id + "/" + std::to_string(static_cast<int>(info.algorithm)) +
         (info.random ? "/random" : "/passphrase") + (info.fips ? "/fips" : "/no-fips");
}

// A private root with the FIPS decision off and the fast passphrase scheme.
class MasterKeyFiles : public ::testing::Test {
 protected:
  FileKeyStore& store() { return *m_store; }
  const KMSFileLocator& locator() const { return m_locator; }
  // A closed store made from the two passphrases, holding three keys; gives
  // the plain key of each tag.
  std::map<std::string, std::string> makePassphraseStore() {
    EXPECT_EQ(store().createEmpty(kHmkPass, "hmk-1", kKpkPass, "kpk-1", false), 0);
    EXPECT_EQ(store().init(), 0);
    KeyGrpRecord_v1 group;
    group.setName("group");
    group.setCipherType(CT_AES256_CBC);
    group = store().addKeyGroup(group);
    std::map<std::string, std::string> plain;
    for (const char* name : {"a", "b", "c"}) {
      const KeyRecord_v1 rec =
          store().addKey(storetest::LiveStore::keyRecord(group.tag(), name, KEY_ACTIVE), "");
      plain[std::string(rec.tag())] = store().getKey(std::string(rec.tag())).key();
    }
    EXPECT_EQ(store().shutdown(), 0);
    return plain;
  }

  storetest::FipsDecision m_fips;
  formattest::WeakKdf m_weakKdf;
  TempRoot m_root{"vrkms-masterkeys"};
  KMSFileLocator m_locator{m_root.path()};
  std::unique_ptr<FileKeyStore> m_store = std::make_unique<FileKeyStore>(m_locator);
};

TEST_F(MasterKeyFiles, CreateEmptyMakesAClosedStoreOfStretchedPassphrasesOrRefuses) {
  EXPECT_EQ(store().createEmpty(kHmkPass, "", kKpkPass, "kpk", true), 1214);
  EXPECT_EQ(store().createEmpty(kHmkPass, "hmk", kKpkPass, "", true), 1214);
  EXPECT_EQ(store().createHMKFile("", true, false), 1212);
  EXPECT_EQ(store().createKPKFile("", true, false), 1212);
  EXPECT_EQ(maskOf(locator()), 0u);
  makePassphraseStore();
  EXPECT_EQ(maskOf(locator()), 0x124u);
  DiskState disk = readDisk(locator());
  EXPECT_EQ(std::make_tuple(disk.kpk->version(), disk.meta->hmkRandom(), disk.meta->kpkRandom(),
                            disk.meta->hmkFips()),
            std::make_tuple(KS_VERSION_300, false, false, FIPS_mode() != 0));
  // Each key is the stretch of its own passphrase with its own fresh salt.
  ASSERT_EQ(disk.meta->hmkSalt().size(), KeyGen::SALT_LEN);
  EXPECT_NE(disk.meta->hmkSalt(), disk.meta->kpkSalt());
  EXPECT_EQ(disk.hmk->key(), stretched(kHmkPass, disk.meta->hmkSalt()));
  EXPECT_EQ(disk.plainKpk, stretched(kKpkPass, disk.meta->kpkSalt()));
  // Overwriting gives an empty store of random keys, which no passphrase remakes.
  ASSERT_EQ(store().createEmpty("", "hmk-2", "", "kpk-2", true), 0);
  EXPECT_TRUE(store().getHMKInfo().random && store().getKPKInfo().random);
  disk = readDisk(locator());
  EXPECT_TRUE(disk.meta->hmkSalt().empty() && disk.meta->kpkSalt().empty());
  EXPECT_EQ(disk.plainKpk.size(), 32u);
  EXPECT_EQ(store().createHMKFile("any", true, true), 1264);
  EXPECT_EQ(store().createKPKFile("any", true, true), 1265);
  EXPECT_EQ(store().createKPKFile("any", true, false), 1249);
  ASSERT_EQ(store().init(), 0);
  EXPECT_EQ(store().getStats().first, 0u);
  ASSERT_EQ(store().shutdown(), 0);
  // Refusing to overwrite still deletes the store that was found; so does a
  // commit failing before its renames, on a fresh root too, or at the first file.
  EXPECT_EQ(store().createEmpty("", "hmk-3", "", "kpk-3", false), 1268);
  EXPECT_EQ(maskOf(locator()), 0u);
  for (const auto& [op, error] : {std::pair{FileOp::Fsync, EIO}, {FileOp::Open, EACCES}}) {
    if (op == FileOp::Open) {
      makePassphraseStore();
    }
    FailNthFileOp failure(1, error, op);
    {
      ScopedFileFaultHook hook(&failure);
      EXPECT_EQ(store().createEmpty("", "hmk", "", "kpk", true), 1277);
    }
    EXPECT_TRUE(failure.fired());
    EXPECT_EQ(maskOf(locator()), 0u);
  }
}

TEST_F(MasterKeyFiles, AFailedRewriteOfAKeyFileTellsWhetherAFileWasLost) {
  const std::map<std::string, std::string> plain = makePassphraseStore();
  const std::string storeBytes = readFile(locator().ksPath());
  // Before the rename (1276) the old file, or none, stays; after it (1277)
  // the new file is in place.
  const std::tuple<FileOp, bool, int> rows[] = {{FileOp::Fsync, true, 1276},
                                                {FileOp::Fsync, false, 1276},
                                                {FileOp::SyncDir, false, 1277},
                                                {FileOp::Open, false, 1276}};
  for (const bool hmk : {true, false}) {
    const std::string& path = hmk ? locator().hmkPath() : locator().kpkPath();
    auto remake = [&] {
      return hmk ? store().createHMKFile(kHmkPass, true, false)
                 : store().createKPKFile(kKpkPass, true, false);
    };
    const std::string before = readFile(path);
    for (const auto& [op, fileThere, code] : rows) {
      SCOPED_TRACE(std::string(hmk ? "HMK " : "KPK ") + fileOpName(op));
      fileThere ? writeFile(path, before) : (void)::unlink(path.c_str());
      FailNthFileOp failure(1, EIO, op);
      {
        ScopedFileFaultHook hook(&failure);
        EXPECT_EQ(remake(), code);
      }
      EXPECT_TRUE(failure.fired());
      EXPECT_EQ(exists(path), fileThere || code == 1277);
      if (fileThere) {
        EXPECT_EQ(readFile(path), before);
      }
      EXPECT_FALSE(exists(path + ".tmp"));
      EXPECT_EQ(readFile(locator().ksPath()), storeBytes);
    }
    ASSERT_EQ(remake(), 0);
  }
  ASSERT_EQ(store().init(), 0);
  expectServes(store(), plain);
}

// A closed store tells the facts of its keys from the store file alone.
TEST_F(MasterKeyFiles, TheFactsOfTheKeysOfAClosedStoreComeFromTheStoreFile) {
  storetest::StoreContent content;  // HMK random and not FIPS, KPK the opposite
  locator().createMissingDirectories();
  storetest::StoreSnapshot::placeEmptyDat(locator());
  storetest::CommitInput(content).commit(locator());
  ASSERT_EQ(::unlink(locator().hmkPath().c_str()), 0);
  ASSERT_EQ(::unlink(locator().kpkPath().c_str()), 0);
  EXPECT_EQ(store().getHMKId() + " " + describe(store().getHMKInfo()),
            "hmk-id hmk-id/" + std::to_string(KSCrypt::AES_256_GCM) + "/random/no-fips");
  EXPECT_EQ(store().getKPKId() + " " + describe(store().getKPKInfo()),
            "kpk-id kpk-id/" + std::to_string(KSCrypt::AES_256_GCM) + "/passphrase/fips");
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
  writeFile(locator().ksPath(), readFile(locator().ksPath()).substr(0, 20));
  EXPECT_EQ(codes(), std::vector<int>(4, 1207));
  ASSERT_EQ(::unlink(locator().ksPath().c_str()), 0);
  EXPECT_EQ(codes(), std::vector<int>(4, 1204));
}

TEST_F(MasterKeyFiles, AGoodKeyFileIsOneOfTheRightFormWhateverItsKey) {
  makePassphraseStore();
  const std::string hmkPath = locator().hmkPath();
  const std::string hmkBytes = readFile(hmkPath);
  const std::string kpkBytes = readFile(locator().kpkPath());
  EXPECT_TRUE(store().goodHMKFileExists() && store().goodKPKFileExists());
  // Form only: a KPK file in the HMK's place is a good key file.
  writeFile(hmkPath, kpkBytes);
  EXPECT_TRUE(FileKeyStore::isGoodKeyFile(hmkPath));
  for (const std::string& bad : {hmkBytes + "x", hmkBytes.substr(0, hmkBytes.size() - 1)}) {
    writeFile(hmkPath, bad);
    EXPECT_FALSE(FileKeyStore::isGoodKeyFile(hmkPath) || store().goodHMKFileExists());
  }
  ASSERT_EQ(::unlink(hmkPath.c_str()), 0);
  EXPECT_FALSE(store().goodHMKFileExists());
  // A file that is there but cannot be opened is an error, named by file.
  writeFile(hmkPath, hmkBytes);
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

enum class Rekey { Hmk, Kpk };

int rekey(FileKeyStore& store, Rekey which, const std::string& passphrase, const std::string& id) {
  return which == Rekey::Hmk ? store.updateHMK(passphrase, id) : store.updateKPK(passphrase, id);
}

// A live store made from passphrases, holding three keys.
class MasterKeyRekey : public MasterKeyFiles, public ::testing::WithParamInterface<Rekey> {
 protected:
  void SetUp() override {
    m_plain = makePassphraseStore();
    ASSERT_EQ(store().init(), 0);
  }
  // Everything a client can see of the live state.
  std::vector<std::string> liveView() {
    std::vector<std::string> view{describe(store().getHMKInfo()), describe(store().getKPKInfo())};
    view.push_back(std::to_string(store().getStats().first));
    for (const auto& entry : m_plain) {
      view.emplace_back(store().getKey(entry.first).key());
    }
    return view;
  }
  int change(const std::string& passphrase, const std::string& id) {
    return rekey(store(), GetParam(), passphrase, id);
  }
  std::string changedId(FileKeyStore& s) {
    return GetParam() == Rekey::Hmk ? s.getHMKId() : s.getKPKId();
  }

  std::map<std::string, std::string> m_plain;
};

// (Rotations serving the same keys after a restart, and a key file remade
// from the new passphrase, are run by the process tests; the new key's
// stretch by the crash test below.) No passphrase gives a random key.
TEST_P(MasterKeyRekey, TheOtherKeyStaysAndNoPassphraseGivesARandomKey) {
  const bool hmk = GetParam() == Rekey::Hmk;
  const std::vector<std::string> before = liveView();
  ASSERT_EQ(change(kNewPass, "new-id"), 0);
  EXPECT_EQ(liveView()[hmk ? 1 : 0], before[hmk ? 1 : 0]);
  EXPECT_EQ(liveView()[hmk ? 0 : 1], std::string("new-id/") + std::to_string(KSCrypt::AES_256_GCM) +
                                         "/passphrase" + (FIPS_mode() != 0 ? "/fips" : "/no-fips"));
  ASSERT_EQ(change("", "random-id"), 0);
  EXPECT_TRUE((hmk ? store().getHMKInfo() : store().getKPKInfo()).random);
  const DiskState disk = readDisk(locator());
  EXPECT_TRUE((hmk ? disk.meta->hmkSalt() : disk.meta->kpkSalt()).empty());
  expectServes(store(), m_plain);
}

TEST_P(MasterKeyRekey, RefusalsAndFailedCommitsKeepTheOldKeysLiveOrTakeTheStoreDown) {
  const std::vector<std::string> view = liveView();
  const std::vector<std::string> files = contentsOf(locator());
  EXPECT_EQ(change(kNewPass, ""), 1214);
  {
    FailNthFileOp failFsync(1, EIO, FileOp::Fsync);
    ScopedFileFaultHook hook(&failFsync);
    EXPECT_EQ(change(kNewPass, "new-id"), 1276);
    EXPECT_TRUE(failFsync.fired());
  }
  EXPECT_EQ(liveView(), view);  // and live
  EXPECT_EQ(contentsOf(locator()), files);
  // Leftovers of an unfinished commit: refused, the store down.
  writeFile(locator().kpkNewPath(), "leftover");
  EXPECT_EQ(change(kNewPass, "new-id"), 1200);
  ASSERT_EQ(::unlink(locator().kpkNewPath().c_str()), 0);
  EXPECT_EQ(contentsOf(locator()), files);
  ASSERT_EQ(store().init(), 0);
  EXPECT_EQ(liveView(), view);
  {
    FailNthFileOp failRename(2, EIO, FileOp::Rename);
    ScopedFileFaultHook hook(&failRename);
    EXPECT_EQ(change(kNewPass, "new-id"), 1277);
  }
  ASSERT_EQ(store().init(), 0);
  EXPECT_EQ(changedId(store()), "new-id");
  expectServes(store(), m_plain);
  EXPECT_EQ(change("", "third-id"), 0);
  EXPECT_EQ(changedId(store()), "third-id");
}

TEST_P(MasterKeyRekey, ACrashAtAnyFileOperationLeavesTheOldOrTheNewKeysWhole) {
  const storetest::StoreBytes old{readFile(locator().hmkPath()), readFile(locator().kpkPath()),
                                  readFile(locator().ksPath())};
  const std::vector<std::string> oldFiles = contentsOf(locator());
  const DiskState oldDisk = readDisk(locator());
  const std::string oldId = changedId(store());
  ASSERT_EQ(store().shutdown(), 0);
  size_t crashes = 0, oldSeen = 0, newSeen = 0;
  for (size_t n = 1;; ++n) {
    ASSERT_LT(n, 1000u);
    storetest::removeAll(locator());
    storetest::placeDat(locator(), old);
    const pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      FileKeyStore child(locator());
      if (child.init() != 0) {
        ::_exit(3);
      }
      CrashAtNthFileOp crash(n);
      FileFaults::install(&crash);
      const int rc = rekey(child, GetParam(), kNewPass, "new-id");
      FileFaults::install(nullptr);
      ::_exit(rc == 0 ? 0 : 4);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    const int code = WEXITSTATUS(status);
    SCOPED_TRACE("crash at file operation " + std::to_string(n));
    ASSERT_TRUE(code == 0 || code == FileFaults::kCrashExitStatus) << code;
    FileKeyStore after(locator());  // as after a restart
    ASSERT_EQ(after.init(), 0);
    EXPECT_EQ(maskOf(locator()), 0x124u);
    expectServes(after, m_plain);
    const DiskState disk = readDisk(locator());
    const bool changed = changedId(after) != oldId;
    if (!changed) {
      ++oldSeen;
      EXPECT_EQ(contentsOf(locator()), oldFiles);
    } else {
      ++newSeen;
      EXPECT_EQ(changedId(after), "new-id");
      if (GetParam() == Rekey::Hmk) {
        EXPECT_EQ(disk.hmk->key(), stretched(kNewPass, disk.meta->hmkSalt()));
        EXPECT_EQ(disk.plainKpk, oldDisk.plainKpk);
        EXPECT_EQ(disk.wrappedKeys(), oldDisk.wrappedKeys());
      } else {
        EXPECT_EQ(readFile(locator().hmkPath()), old.hmk);
        EXPECT_EQ(disk.plainKpk, stretched(kNewPass, disk.meta->kpkSalt()));
        EXPECT_NE(disk.wrappedKeys(), oldDisk.wrappedKeys());
      }
    }
    ASSERT_EQ(after.shutdown(), 0);
    if (code == 0) {
      EXPECT_TRUE(changed);
      break;
    }
    ++crashes;
  }
  EXPECT_GT(crashes, 20u);
  EXPECT_GT(oldSeen, 0u);
  EXPECT_GT(newSeen, 0u);
}

INSTANTIATE_TEST_SUITE_P(BothMasterKeys, MasterKeyRekey, ::testing::Values(Rekey::Hmk, Rekey::Kpk),
                         [](const auto& info) { return info.param == Rekey::Hmk ? "Hmk" : "Kpk"; });

typedef std::vector<std::pair<std::string, std::string>> Attrs;

struct OldKey {
  std::string tag;
  std::string name;
  ks_keystate_t state;
  std::string plain;
};

// A store of an older version with one group and three keys, and the bytes
// of its three files.
struct OldStore {
  ks_version_t version;
  KSCrypt::CryptType type;  // of the body, the KPK file and the record keys
  bool oldMarkers;          // "BA"/"BR" with SHA-1, as the oldest writers made them
  std::string hmk = Utils::getRandData(32);
  std::string kpk = Utils::getRandData(32);
  std::string hmkSalt, masterIV;
  std::string groupTag = Utils::getRandData(32);
  std::vector<OldKey> keys;
  storetest::StoreBytes bytes;

  explicit OldStore(ks_version_t v)
      : version(v),
        type(v == KS_VERSION_100 ? KSCrypt::AES_256_CBC : KSCrypt::AES_256_CBC_EVP),
        oldMarkers(v == KS_VERSION_100) {
    if (version == KS_VERSION_200) {
      hmkSalt = Utils::getRandData(24);
      masterIV = Utils::getRandData(16);
    } else {
      hmk = unsaltedKey(kHmkPass);
    }
    keys = {{Utils::getRandData(32), "active", KEY_ACTIVE, Utils::getRandData(32)},
            {Utils::getRandData(32), "inactive", KEY_INACTIVE, Utils::getRandData(32)},
            {Utils::getRandData(32), "other", KEY_INACTIVE, Utils::getRandData(16)}};
    bytes.hmk = list({{"THEKEY", hmk}, {"VERSION", be(version, 4)}});
    bytes.kpk = list({{"THEKEY", Utils::encryptKeyWithKey(kpk, hmk, type, version)},
                      {"VERSION", be(version, 4)}});
    bytes.store = list(metadata()) + body();
  }

  // An attribute list in the list's sorted order.
  std::string list(Attrs attrs) const {
    std::sort(attrs.begin(), attrs.end());
    return handList(attrs, oldMarkers);
  }

  Attrs metadata() const {
    const std::string algo = KSCrypt::cryptTypeToString(type);
    const auto z = [](const std::string& key) { return formattest::digest(EVP_sha1(), "Z" + key); };
    Attrs attrs = {{"VERSION", be(version, 4)}, {"HMKID", "old-hmk"},
                   {"HMKHASH", z(hmk)},         {"KPKID", "old-kpk"},
                   {"KPKHASH", z(kpk)},         {"MENCALG", algo},
                   {"KENCALG", algo},           {"HMKRAND", hmkSalt.empty() ? "true" : "false"},
                   {"KPKRAND", "true"}};
    if (version == KS_VERSION_200) {
      // The oldest stores have no FIPS flags, salts or IV.
      attrs.insert(attrs.end(), {{"HMKFIPS", "true"},
                                 {"KPKFIPS", "false"},
                                 {"HMKSALT", hmkSalt},
                                 {"KPKSALT", ""},
                                 {"MASTERIV", masterIV}});
    }
    return attrs;
  }

  // The key table and the group table, encrypted under the HMK.
  std::string body() const {
    const std::string noAttrs = handList({}, oldMarkers);
    std::string plain = field("BT") + field(be(keys.size(), 4));
    for (const OldKey& key : keys) {
      const std::string wrapped = Utils::encryptKeyWithKey(key.plain, kpk, type, version);
      plain += handRecord(
          {key.tag, key.name, be(1600000100, 8), be(1600000000, 8), "description of " + key.name,
           be(7, 4), groupTag, be(key.state, 2), be(KPK_LOCAL, 2), "", wrapped},
          key.name == "other" ? handList({{"color", "blue"}}, oldMarkers) : noAttrs, oldMarkers);
    }
    plain += field("BT") + field(be(1, 4));
    plain += handRecord({groupTag, "old group", be(1600000100, 8), be(1600000000, 8), "", be(2, 4),
                         be(CT_AES256_CBC, 2)},
                        noAttrs, oldMarkers);

    std::unique_ptr<KSCrypt> crypter(CryptFactory::createCrypter(type, hmk, masterIV));
    const cryptotest::Result sealed = cryptotest::encryptAll(*crypter, plain);
    EXPECT_EQ(sealed.status, 0);
    return sealed.bytes;
  }

  // The live store serves every key with its old value and record.
  void expectServedBy(FileKeyStore& store) const {
    EXPECT_EQ(store.getStats(), std::make_pair(uint64_t{3}, uint64_t{1}));
    for (const OldKey& key : keys) {
      const KeyRecord_v1 rec = store.getKey(key.tag);
      EXPECT_EQ(std::make_tuple(rec.key(), rec.name(), rec.state(), rec.createTime(), rec.rev(),
                                rec.attributes().size()),
                std::make_tuple(key.plain, key.name, key.state, uint64_t{1600000000}, 7u,
                                size_t{key.name == "other" ? 1u : 0u}));
    }
    EXPECT_EQ(store.getKeyGroupRecord(groupTag).name(), "old group");
    const KeyInfo hmk = store.getHMKInfo(), kpk = store.getKPKInfo();
    EXPECT_EQ(std::make_tuple(hmk.id, hmk.random, hmk.fips, kpk.id, kpk.random, kpk.fips),
              std::make_tuple(std::string("old-hmk"), hmkSalt.empty(), version == KS_VERSION_200,
                              std::string("old-kpk"), true, false));
  }
};

class StoreUpgrade : public ::testing::TestWithParam<ks_version_t> {};

TEST_P(StoreUpgrade, AnOlderStoreIsUpgradedOnceAndReadsAsCurrentWithItsKeys) {
  const OldStore old(GetParam());
  StoreRoot root;
  storetest::placeDat(root.locator, old.bytes);
  if (GetParam() == KS_VERSION_100) {
    // The oldest stores keep no salt and prove the HMK by the digest of "Z"
    // and the key: its file comes back from the passphrase alone.
    ASSERT_EQ(::unlink(root.locator.hmkPath().c_str()), 0);
    FileKeyStore remaking(root.locator);
    EXPECT_EQ(remaking.createHMKFile("wrong passphrase", false, false), 1221);
    EXPECT_FALSE(exists(root.locator.hmkPath()));
    ASSERT_EQ(remaking.createHMKFile(kHmkPass, false, false), 0);
    const KeyFile written = readKeyFileBytes(readFile(root.locator.hmkPath()));
    EXPECT_EQ(std::make_pair(written.version(), written.key()),
              std::make_pair(KS_VERSION_100, old.hmk));
  }
  // init commits the upgrade before it serves.
  {
    FileKeyStore store(root.locator);
    ASSERT_EQ(store.init(), 0);
    old.expectServedBy(store);
  }
  EXPECT_EQ(storetest::maskOf(root.locator), 0x124u);
  for (const std::string& path : {root.locator.hmkPath(), root.locator.kpkPath()}) {
    EXPECT_EQ(readKeyFileBytes(readFile(path)).version(), KS_VERSION_300);
  }
  const std::vector<std::string> upgraded = storetest::contentsOf(root.locator);
  KSInputBuffer storeFile(readFile(root.locator.ksPath()));
  const KSMetadata meta = FileKeyStore::readKeyStoreMeta(storeFile);
  EXPECT_EQ(
      std::make_tuple(meta.version(), meta.masterEncAlgo(), meta.keyEncAlgo(), meta.hmkSalt()),
      std::make_tuple(KS_VERSION_300, KSCrypt::AES_256_GCM, KSCrypt::AES_256_GCM, old.hmkSalt));
  // The next start reads the current form and writes nothing (a commit
  // would seal the records under a fresh IV).
  {
    FileKeyStore store(root.locator);
    ASSERT_EQ(store.init(), 0);
    old.expectServedBy(store);
  }
  EXPECT_EQ(storetest::contentsOf(root.locator), upgraded);
}

INSTANTIATE_TEST_SUITE_P(Versions, StoreUpgrade, ::testing::Values(KS_VERSION_100, KS_VERSION_200),
                         [](const ::testing::TestParamInfo<ks_version_t>& info) {
                           return info.param == KS_VERSION_100 ? "v100" : "v200";
                         });

}  // namespace
