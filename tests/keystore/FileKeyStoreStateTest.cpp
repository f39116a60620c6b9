// Which operation refuses with which code in which state of the store, the
// store's lock, lookups, and the tag, key, table and master key checks.
#include <openssl/evp.h>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <thread>
#include <tuple>

#include "keystore/StoreTestState.h"
#include "kms/platform/Fips.h"
#include "kms/server/keystore/store/StoreLockGuards.h"

using namespace Vaultrest::DL::KMS;

namespace {

using storetest::codeOf;
using storetest::FipsDecision;
using storetest::MemoryStore;
using storetest::StoreContent;

const std::string kGroup(32, 'g');
const std::string kKey(32, 'k');

// A returned code as a thrown one, for tables of calls of either kind.
void raise(int code) {
  throw KeyStoreError(code, "test", __FILE__, __LINE__);
}

// Puts the crypto library's default properties into FIPS mode for the scope
// (no FIPS provider is needed to set the property; no crypto may run inside).
class LibraryFipsMode {
 public:
  LibraryFipsMode() { EXPECT_EQ(EVP_default_properties_enable_fips(nullptr, 1), 1); }
  ~LibraryFipsMode() { EVP_default_properties_enable_fips(nullptr, 0); }
};

class FileKeyStoreStateTest : public ::testing::Test {
 protected:
  FileKeyStoreStateTest() : m_fips(true), m_locator(m_root.path()), m_store(m_locator) {
    m_content.addGroup(kGroup, "group");
    m_content.addKey(kKey, kGroup, "key", KEY_ACTIVE);
  }

  // The nine operations that change the store.
  std::vector<std::function<void()>> changes() {
    const KeyRecord_v1 rec = m_content.keys().getRecord(kKey);
    const KeyGrpRecord_v1 grp = m_content.groups().getRecord(kGroup);
    return {
        [=] { raise(m_store.updateHMK("pass", "id")); },
        [=] { raise(m_store.updateKPK("pass", "id")); },
        [=] { m_store.addKeyWithKnownTag(rec, "p"); },
        [=] { m_store.addKey(rec, ""); },
        [=] { m_store.addKeyGroup(grp); },
        [=] { m_store.updateKeyRecord(rec); },
        [=] { m_store.updateKeyGroupRecord(grp); },
        [=] { m_store.deleteKeyRecord(kKey); },
        [=] { m_store.deleteKeyGroupRecord(kGroup, true); },
    };
  }

  FipsDecision m_fips;
  StoreContent m_content;
  TempRoot m_root{"vrkms-state"};
  KMSFileLocator m_locator;
  MemoryStore m_store;
};

TEST_F(FileKeyStoreStateTest, AClosedStoreRefusesEverythingButItsOwnOperations) {
  FileKeyStore& store = m_store;
  std::list<KeyRecord_v1> keys;
  std::list<KeyGrpRecord_v1> groups;
  std::string kad = "untouched";
  KSOpStatus status;
  std::vector<std::function<void()>> closedRefusals = changes();
  closedRefusals.insert(closedRefusals.end(),
                        {
                            [&] { raise(store.shutdown()); },
                            [&] { raise(store.display()); },
                            [&] { store.getStats(); },
                            [&] { store.getKey(kKey); },
                            [&] { store.getKeyRecord(kKey); },
                            [&] { store.getKeyGroupRecord(kGroup); },
                            [&] { store.getKeyGroupRecordByName("group"); },
                            [&] { store.getKeyRecordByName(kGroup, "key"); },
                            [&] { store.getActiveKeyRecord(kGroup); },
                            [&] { store.getAllKeyGroupRecords(groups); },
                            [&] { store.getAllKeyRecordsInGroup(kGroup, keys); },
                            [&] { raise(store.getKad(kKey, 12, kad)); },
                            [&] { raise(store.getKeyRecordsByKad(kKey, keys)); },
                            [&] { store.quiesce(); },
                            [&] { store.unquiesce(false); },
                            [&] { store.unquiesce(true); },
                            [&] { store.isQuiesced(); },
                            [&] { store.exportToBuffer({}, "pass", status); },
                            [&] { store.importFromBuffer("x", "pass", false, "", status, true); },
                        });
  for (size_t i = 0; i < closedRefusals.size(); ++i) {
    EXPECT_EQ(codeOf(closedRefusals[i]), 1202) << i;
  }
  EXPECT_EQ(kad, "untouched");
  EXPECT_EQ(status.errCode(), 0);
  // The operations meant for a closed store go past the state check. Init
  // finds no store here and stays closed.
  EXPECT_NE(store.init(), 0);
  EXPECT_FALSE(store.isInitialized());
  bool exists = true;
  EXPECT_EQ(store.dbExists(exists), 0);
  EXPECT_FALSE(exists);
  EXPECT_EQ(store.setMyDACLs(), 0);
  // A leftover of a commit counts as a store.
  std::filesystem::create_directories(m_locator.keyDir());
  std::ofstream(m_locator.kpkBakPath());
  EXPECT_EQ(store.dbExists(exists), 0);
  EXPECT_TRUE(exists);
}

// Before any FIPS check, and with the key facts from memory.
TEST_F(FileKeyStoreStateTest, ALiveStoreRefusesTheOperationsOfAClosedOne) {
  m_store.install(m_content);
  FipsDecision askedForFips(false);
  EXPECT_EQ(codeOf([&] { m_store.install(m_content); }), 1201);
  EXPECT_EQ(std::make_tuple(m_store.init(), m_store.createEmpty("a", "hmk", "b", "kpk", true),
                            m_store.createHMKFile("a", true, false),
                            m_store.createKPKFile("a", true, false)),
            std::make_tuple(1201, 1201, 1201, 1201));
  // dbExists refuses without telling whether there are files.
  bool exists = true;
  EXPECT_EQ(m_store.dbExists(exists), 1201);
  EXPECT_TRUE(exists);
  exists = false;
  std::filesystem::create_directories(m_locator.keyDir());
  std::ofstream(m_locator.hmkPath()).put('x');
  EXPECT_EQ(m_store.dbExists(exists), 1201);
  EXPECT_FALSE(exists);
  // The refused init left the store as it was; the key facts come from memory.
  EXPECT_EQ(m_store.getStats(), std::make_pair(uint64_t{1}, uint64_t{1}));
  const KeyInfo hmk = m_store.getHMKInfo();
  const KeyInfo kpk = m_store.getKPKInfo();
  EXPECT_EQ(m_store.getHMKId() + m_store.getKPKId() + hmk.id + kpk.id, "hmk-idkpk-idhmk-idkpk-id");
  EXPECT_TRUE(hmk.random && !hmk.fips && !kpk.random && kpk.fips);
  EXPECT_TRUE(m_store.goodHMKFileExists() && m_store.goodKPKFileExists());
  EXPECT_EQ(m_store.shutdown(), 0);
  EXPECT_EQ(codeOf([&] { m_store.getKey(kKey); }), 1202);
}

// (The counting is run by the process tests.)
TEST_F(FileKeyStoreStateTest, QuiesceRefusesEveryChangeAndNothingElse) {
  m_store.install(m_content);
  EXPECT_EQ(m_store.quiesce(), 1u);
  for (const auto& change : changes()) {
    EXPECT_EQ(codeOf(change), 1279);
  }
  // Export and import go on while quiesced.
  KSOpStatus exported, imported;
  m_store.exportToBuffer({}, "pass", exported);
  m_store.importFromBuffer("x", "pass", false, "", imported, true);
  EXPECT_NE(exported.errCode(), 1279);
  EXPECT_NE(imported.errCode(), 1279);
  EXPECT_EQ(m_store.unquiesce(true), 0u);
  EXPECT_EQ(codeOf([&] { m_store.unquiesce(true); }), 1280);
  // Fails on its argument after the quiesce check.
  EXPECT_EQ(codeOf([&] { m_store.deleteKeyRecord("no such tag"); }), 1260);
  // A quiesced store shuts down and comes back with the count at zero.
  m_store.quiesce();
  EXPECT_EQ(m_store.shutdown(), 0);
  EXPECT_EQ(codeOf([&] { m_store.isQuiesced(); }), 1202);
  m_store.install(m_content);
  EXPECT_EQ(m_store.isQuiesced(), 0u);
}

TEST_F(FileKeyStoreStateTest, FipsRefusalOnlyWhereFipsWasAskedForAndIsMissing) {
  // A closed store refuses with 1286 where FIPS was asked for and is missing.
  auto fipsCodes = [&] {
    bool exists = false;
    return std::vector<int>{m_store.dbExists(exists),
                            m_store.createEmpty("a", "hmk", "b", "kpk", false),
                            m_store.createHMKFile("a", false, false),
                            m_store.createKPKFile("a", false, false),
                            codeOf([&] { m_store.getHMKId(); }),
                            codeOf([&] { m_store.getHMKInfo(); }),
                            codeOf([&] { m_store.goodHMKFileExists(); }),
                            codeOf([&] { m_store.getKPKId(); }),
                            codeOf([&] { m_store.getKPKInfo(); }),
                            codeOf([&] { m_store.goodKPKFileExists(); })};
  };
  {
    FipsDecision askedForFips(false);
    ASSERT_EQ(FIPS_mode(), 0);
    EXPECT_TRUE(m_store.fipsEnableFailed());
    EXPECT_EQ(fipsCodes(), std::vector<int>(10, 1286));
    EXPECT_NE(m_store.init(), 0);
    EXPECT_FALSE(m_store.isInitialized());
  }
  // Not refused where the library is in FIPS mode (nor where FIPS was not
  // asked for, as in every other test).
  FipsDecision askedForFips(false);
  LibraryFipsMode libraryInFips;
  EXPECT_FALSE(m_store.fipsEnableFailed());
  for (const int code : fipsCodes()) {
    EXPECT_NE(code, 1286);
  }
}

// Waits until some other thread holds `turnstile`: a writer is then queued.
void waitForQueuedWriter(ACE_Thread_Mutex& turnstile) {
  while (turnstile.tryacquire() == 0) {
    turnstile.release();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

TEST(StoreLockTest, AWaitingWriterGoesBeforeReadersThatCameAfterIt) {
  StoreLock lock;
  ACE_Thread_Mutex turnstile;
  std::atomic<int> entries{0};
  int writerEntry = 0;
  int lateReaderEntry = 0;
  auto firstReader = std::make_unique<StoreReadGuard>(lock, turnstile);
  ASSERT_TRUE(firstReader->locked());
  std::thread writer([&] {
    StoreWriteGuard guard(lock, turnstile);
    EXPECT_TRUE(guard.locked());
    writerEntry = ++entries;
  });
  waitForQueuedWriter(turnstile);
  std::thread lateReader([&] {
    StoreReadGuard guard(lock, turnstile);
    lateReaderEntry = ++entries;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(entries.load(), 0) << "nobody enters while the first reader holds the lock";
  firstReader.reset();
  writer.join();
  lateReader.join();
  EXPECT_EQ(writerEntry, 1);
  EXPECT_EQ(lateReaderEntry, 2);
}

// A tag of 32 bytes: `kad` (12 bytes) followed by 20 of `rest`.
std::string tagOf(char kad, char rest) {
  return std::string(12, kad) + std::string(20, rest);
}

// Group 1: a key in every state (active and terminated share a KAD) and one
// of an 11-byte tag. Group 2: two inactive keys of one KAD. Group 3: empty.
// Group 4: a key whose stored form does not unwrap.
const std::string kG1 = tagOf('1', 'g');
const std::string kG2 = tagOf('2', 'g');
const std::string kG3 = tagOf('3', 'g');
const std::string kG4 = tagOf('4', 'g');
const std::string kActive = tagOf('M', 'a');
const std::string kTerminated = tagOf('M', 't');
const std::string kInactive = tagOf('I', 'i');
const std::string kDeprecated = tagOf('D', 'd');
const std::string kPrelive = tagOf('P', 'p');
const std::string kShort(11, 'h');
const std::string kTwin1 = tagOf('S', '1');
const std::string kTwin2 = tagOf('S', '2');
const std::string kBroken = tagOf('B', 'b');

StoreContent lookupContent() {
  StoreContent content;
  content.addGroup(kG1, "one");
  content.addGroup(kG2, "two");
  content.addGroup(kG3, "three");
  content.addGroup(kG4, "four");
  content.addKey(kActive, kG1, "active", KEY_ACTIVE);
  content.addKey(kInactive, kG1, "inactive", KEY_INACTIVE);
  content.addKey(kDeprecated, kG1, "deprecated", KEY_DEPRECATED);
  content.addKey(kTerminated, kG1, "terminated", KEY_TERMINATED);
  content.addKey(kPrelive, kG1, "prelive", KEY_PRELIVE);
  content.addKey(kShort, kG1, "short", KEY_INACTIVE);
  content.addKey(kTwin1, kG2, "twin", KEY_INACTIVE);
  content.addKey(kTwin2, kG2, "other twin", KEY_INACTIVE);
  content.addRawKey(kBroken, kG4, "broken", KEY_INACTIVE, std::string(92, 'x'));
  return content;
}

class FileKeyStoreLookupTest : public ::testing::Test {
 protected:
  FileKeyStoreLookupTest() : m_store(KMSFileLocator(m_root.path())) { m_store.install(m_content); }

  // A record without key material, of a known tag.
  void expectNoKey(const KeyRecord_v1& rec) {
    EXPECT_EQ(rec.key(), "");
    EXPECT_TRUE(m_content.keys().find(rec.tag()) != m_content.keys().end());
  }
  void expectPlainKey(const KeyRecord_v1& rec) {
    EXPECT_EQ(rec.key(), m_content.plainKey(rec.tag()));
  }

  StoreContent m_content = lookupContent();
  TempRoot m_root{"vrkms-lookup"};
  MemoryStore m_store;
};

TEST_F(FileKeyStoreLookupTest, GetKeyUnwrapsOnlyUsableKeys) {
  for (const std::string& tag : {kActive, kInactive, kShort}) {
    expectPlainKey(m_store.getKey(tag));
    EXPECT_EQ(m_store.getKey(tag).name(), m_content.keys().getRecord(tag).name());
  }
  // The stored record keeps its wrapped key: a second unwrap gives the same.
  expectPlainKey(m_store.getKey(kActive));
  for (const std::string& tag : {kDeprecated, kTerminated, kPrelive}) {
    EXPECT_EQ(codeOf([&] { m_store.getKey(tag); }), 1242);
    expectNoKey(m_store.getKeyRecord(tag));
  }
  EXPECT_EQ(codeOf([&] { m_store.getKeyRecord(tagOf('?', '?')); }), 1260);
  EXPECT_EQ(codeOf([&] { m_store.getKey(kG1); }), 1260);  // a group tag is no key
  // A key that does not unwrap tells the caller only that unwrapping failed.
  EXPECT_EQ(codeOf([&] { m_store.getKey(kBroken); }), 1200);
  expectNoKey(m_store.getKeyRecord(kBroken));
}

TEST_F(FileKeyStoreLookupTest, LookupsByGroupAndNameGiveNoKeys) {
  expectNoKey(m_store.getActiveKeyRecord(kG1));
  EXPECT_TRUE(m_store.getKeyGroupRecord(kG1).hasActiveKey() &&
              !m_store.getKeyGroupRecordByName("two").hasActiveKey());
  EXPECT_EQ(codeOf([&] { m_store.getActiveKeyRecord(kG2); }), 1227);  // keys, none active
  EXPECT_EQ(codeOf([&] { m_store.getActiveKeyRecord(kG3); }), 1227);
  EXPECT_EQ(codeOf([&] { m_store.getActiveKeyRecord(tagOf('?', 'g')); }), 1229);
  expectNoKey(m_store.getKeyRecordByName(kG1, "inactive"));
  EXPECT_EQ(m_store.getKeyRecordByName(kG2, "twin").tag(), kTwin1);
  for (const char* other : {"twin", "Inactive", "inactiv"}) {
    EXPECT_EQ(codeOf([&] { m_store.getKeyRecordByName(kG1, other); }), 1260);
  }
  EXPECT_EQ(codeOf([&] { m_store.getKeyRecordByName(tagOf('?', 'g'), "inactive"); }), 1229);
  std::list<KeyRecord_v1> keys(3);
  m_store.getAllKeyRecordsInGroup(kG1, keys);
  ASSERT_EQ(keys.size(), 6u);
  EXPECT_EQ(keys.front().tag(), kActive);
  for (const KeyRecord_v1& rec : keys) {
    EXPECT_EQ(rec.keyGroup(), kG1);
    expectNoKey(rec);
  }
  m_store.getAllKeyRecordsInGroup(kG3, keys);
  EXPECT_TRUE(keys.empty());
  keys.resize(2);
  EXPECT_EQ(codeOf([&] { m_store.getAllKeyRecordsInGroup(tagOf('?', 'g'), keys); }), 1229);
  EXPECT_TRUE(keys.empty());  // cleared before the lookup
}

// KADs (their common cases are run by the process tests): an 11-byte tag, a
// KAD longer than a tag, the terminated twin of an active key.
TEST_F(FileKeyStoreLookupTest, KadLookups) {
  std::string kad;
  EXPECT_EQ(m_store.getKad(kInactive, 12, kad), 1234);
  EXPECT_EQ(kad, kInactive.substr(0, 12));
  EXPECT_EQ(m_store.getKad(kInactive, 11, kad), 1220);
  EXPECT_EQ(m_store.getKad(kActive, 12, kad), 1235);
  EXPECT_EQ(m_store.getKad(kActive, 13, kad), 1234);
  EXPECT_EQ(m_store.getKad(kActive, 40, kad), 1234);  // padded with '0', still found
  EXPECT_EQ(kad, kActive + std::string(8, '0'));
  EXPECT_EQ(m_store.getKad(kShort, 12, kad), 1260);  // indexed under its 11 bytes
  EXPECT_EQ(kad, kShort + "0");
  EXPECT_EQ(m_store.getKad(kG1, 12, kad), 1260);
  std::list<KeyRecord_v1> keys;
  EXPECT_EQ(m_store.getKeyRecordsByKad(kActive.substr(0, 12), keys), 1244);
  ASSERT_EQ(keys.size(), 1u);  // the terminated key is left out
  expectPlainKey(keys.front());
  EXPECT_EQ(m_store.getKeyRecordsByKad(kTwin1.substr(0, 12), keys), 1243);
  ASSERT_EQ(keys.size(), 2u);
  expectPlainKey(keys.back());
  EXPECT_EQ(m_store.getKeyRecordsByKad(kTwin2, keys), 1243);
  ASSERT_EQ(keys.size(), 1u);
  EXPECT_EQ(m_store.getKeyRecordsByKad(kDeprecated, keys), 1244);
  EXPECT_TRUE(keys.empty());
  keys.resize(2);
  EXPECT_EQ(m_store.getKeyRecordsByKad(tagOf('?', '?'), keys), 1261);
  EXPECT_TRUE(keys.empty());
  EXPECT_EQ(codeOf([&] { (void)m_store.getKeyRecordsByKad(kBroken, keys); }), 1200);
}

TEST(FileKeyStoreChecksTest, BadTagsAndBadKeys) {
  const std::string zeros12(12, '\0'), ones12(12, '\xff');
  std::string byte12 = zeros12 + std::string(20, '\0'), byte1 = ones12, key(32, '\0');
  byte12[11] = 1;  // the 12th byte counts
  byte1[0] = '\xfe';
  key[31] = 1;
  const std::pair<std::string, bool> tags[] = {
      {zeros12 + "rest of the tag....", true},
      {ones12 + std::string(20, 'x'), true},
      {zeros12, true},
      {std::string(32, '\xff'), true},
      {std::string(11, '\0'), false},
      {std::string(11, '\xff'), false},
      {"", false},
      {byte12, false},
      {byte1, false},
      {std::string(6, '\0') + std::string(6, '\xff'), false}};
  for (const auto& [tag, bad] : tags) {
    EXPECT_EQ(FileKeyStore::isBadTag(tag), bad);
  }
  const std::pair<std::string, bool> keys[] = {
      {std::string(16, '\xff'), true},
      {std::string(32, '\0'), true},
      {"", true},
      {key, false},
      {std::string(16, '\0') + std::string(16, '\xff'), false}};
  for (const auto& [value, bad] : keys) {
    EXPECT_EQ(FileKeyStore::isBadKey(value), bad);
  }
}

TEST(FileKeyStoreChecksTest, SanityFailsOnEachFault) {
  const StoreContent content = lookupContent();
  EXPECT_TRUE(FileKeyStore::isKeyStoreSane(content.keys(), content.groups()));
  for (int fault = 0; fault < 4; ++fault) {
    StoreContent bad = lookupContent();
    FileKeyStore::KeyTable keys = bad.keys();
    KeyRecord_v1 rec = keys.getRecord(kInactive);
    if (fault == 0) {
      bad.addGroup(tagOf('Z', 'g'), "bad cipher", CT_INVALID_CBC);
    } else if (fault == 1) {
      bad.addKey(tagOf('O', 'o'), tagOf('O', 'g'), "orphan", KEY_INACTIVE);
      keys = bad.keys();
    } else {
      fault == 2 ? rec.setState(KEY_INVALID) : rec.setKpkType(KPK_INVALID);
      ASSERT_TRUE(keys.updateRecord(rec));
    }
    EXPECT_FALSE(FileKeyStore::isKeyStoreSane(keys, bad.groups())) << fault;
  }
}

bool valid(const char* prefix, const std::string& key, const std::string& verifier,
           KSCrypt::CryptType type = KSCrypt::AES_256_GCM, ks_version_t version = KS_VERSION_300) {
  return FileKeyStore::isVerifierValid(prefix, key, verifier, type, version);
}

TEST(FileKeyStoreVerifierTest, AVerifierProvesOnlyItsOwnKeyAndPrefix) {
  const std::string key = Utils::getRandData(32);
  const std::string other = Utils::getRandData(32);
  const std::string verifier =
      FileKeyStore::generateVerifier("HMKV", key, KSCrypt::AES_256_GCM, KS_VERSION_300);
  EXPECT_EQ(verifier.size(), 92u);  // 32 bytes of text wrapped under GCM
  EXPECT_TRUE(valid("HMKV", key, verifier));
  EXPECT_FALSE(valid("KPKV", key, verifier));
  EXPECT_FALSE(valid("HMKV", other, verifier));
  // Any flipped bit makes the verifier fail, never pass.
  for (size_t byte = 0; byte < verifier.size(); byte += 7) {
    std::string flipped = verifier;
    flipped[byte] = static_cast<char>(flipped[byte] ^ 0x10);
    EXPECT_FALSE(valid("HMKV", key, flipped));
  }
  // Version 0x200 wraps under the CBC type the caller names.
  const std::string cbc =
      FileKeyStore::generateVerifier("KPKV", key, KSCrypt::AES_256_CBC_EVP, KS_VERSION_200);
  EXPECT_TRUE(valid("KPKV", key, cbc, KSCrypt::AES_256_CBC_EVP, KS_VERSION_200));
  EXPECT_FALSE(valid("HMKV", key, cbc, KSCrypt::AES_256_CBC_EVP, KS_VERSION_200));
  EXPECT_FALSE(valid("KPKV", other, cbc, KSCrypt::AES_256_CBC_EVP, KS_VERSION_200));
  // A failure that is no wrong key is an internal error, not "invalid".
  EXPECT_EQ(codeOf([&] { valid("HMKV", std::string(5, 'k'), verifier); }), 1200);
  EXPECT_EQ(codeOf([&] {
              FileKeyStore::generateVerifier("HMKV", std::string(5, 'k'), KSCrypt::AES_256_GCM,
                                             KS_VERSION_300);
            }),
            1223);
}

}  // namespace
