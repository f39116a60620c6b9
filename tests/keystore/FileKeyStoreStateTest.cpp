// Which operation refuses with which code in which state of the store, and
// the store's lock.
#include <openssl/evp.h>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <thread>

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

StoreContent smallContent() {
  StoreContent content;
  content.addGroup(kGroup, "group");
  content.addKey(kKey, kGroup, "key", KEY_ACTIVE);
  return content;
}

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
  FileKeyStoreStateTest() : m_fips(true), m_locator(m_root.path()), m_store(m_locator) {}

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
  StoreContent m_content = smallContent();
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
  EXPECT_FALSE(store.isInitialized());
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
  ASSERT_TRUE(m_store.isInitialized());
  FipsDecision askedForFips(false);
  EXPECT_EQ(codeOf([&] { m_store.install(m_content); }), 1201);
  EXPECT_EQ(m_store.init(), 1201);
  EXPECT_EQ(m_store.createEmpty("a", "hmk", "b", "kpk", true), 1201);
  EXPECT_EQ(m_store.createHMKFile("a", true, false), 1201);
  EXPECT_EQ(m_store.createKPKFile("a", true, false), 1201);
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
  EXPECT_TRUE(m_store.goodHMKFileExists());
  EXPECT_TRUE(m_store.goodKPKFileExists());
  EXPECT_EQ(m_store.shutdown(), 0);
  EXPECT_FALSE(m_store.isInitialized());
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
  // Not refused where the library is in FIPS mode or FIPS was not asked for.
  for (const auto& [asked, libraryFips] : {std::pair{false, false}, {false, true}, {true, true}}) {
    FipsDecision decision(!asked);
    std::optional<LibraryFipsMode> libraryInFips;
    if (libraryFips) {
      libraryInFips.emplace();
    }
    EXPECT_FALSE(m_store.fipsEnableFailed());
    for (const int code : fipsCodes()) {
      EXPECT_NE(code, 1286) << asked << libraryFips;
    }
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

}  // namespace
