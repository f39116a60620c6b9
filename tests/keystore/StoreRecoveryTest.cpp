// Recovery over every state of the nine store files: the 35 states that a
// commit can leave and the 477 that none can.

#include <algorithm>
#include <cerrno>
#include <regex>
#include <set>

#include "keystore/StoreTestState.h"
#include "kms/server/keystore/files/FileFaults.h"
#include "support/LogCapture.h"

using namespace Vaultrest::DL::KMS;
using storetest::StoreSnapshot;

namespace {

enum class Row { Clean, Missing, RollBack, FromFirstRenames, FromSecondRenames, Finish };

// The recovery table as the commit protocol defines it.
const std::map<unsigned, Row>& recoveryRows() {
  static const std::map<unsigned, Row> rows = [] {
    std::map<unsigned, Row> m;
    const auto add = [&m](Row row, std::initializer_list<unsigned> masks) {
      for (unsigned mask : masks) {
        m[mask] = row;
      }
    };
    add(Row::Clean, {0x124});
    add(Row::Missing, {0x000, 0x004, 0x020, 0x024, 0x100, 0x104, 0x120});
    add(Row::RollBack, {0x126, 0x134, 0x136, 0x196, 0x1a4, 0x1b4, 0x1b6});
    add(Row::FromFirstRenames, {0x0de, 0x0f3, 0x0f6, 0x19b, 0x19e, 0x1b3});
    add(Row::FromSecondRenames, {0x0db, 0x0dd, 0x0eb, 0x0ed, 0x15b, 0x15d, 0x16b});
    add(Row::Finish, {0x125, 0x12c, 0x12d, 0x164, 0x165, 0x16c, 0x16d});
    return m;
  }();
  return rows;
}

constexpr unsigned kDatBits = 0x124;
constexpr unsigned kNewBits = 0x092;
constexpr unsigned kBakBits = 0x049;

// What init reports on the files of a "files missing" state, by which of
// the three opened (store 1, HMK 2, KPK 4).
int openFailureOf(unsigned mask) {
  const unsigned opened =
      ((mask & 0x004) ? 1u : 0u) | ((mask & 0x100) ? 2u : 0u) | ((mask & 0x020) ? 4u : 0u);
  static const int codes[7] = {1245, 1246, 1247, 1248, 1205, 1203, 1204};
  return codes[opened];
}

// The ids of the catalogued messages in the application log, in order.
std::vector<int> appMessageIds(const LogCapture& log) {
  static const std::regex id(" 286-([0-9]+) ");
  std::vector<int> ids;
  for (const std::string& line : log.appLines()) {
    std::smatch m;
    if (std::regex_search(line, m, id)) {
      ids.push_back(std::stoi(m[1]));
    }
  }
  return ids;
}

class StoreRecovery : public storetest::TwoStatesTest {
 protected:
  // Lays out `mask` as a commit would have left it ("dat" files new once the
  // second renames have begun).
  void place(unsigned mask, bool datIsNew) {
    storetest::removeAll(m_root.locator);
    s_new->placeMasked(m_root.locator, mask, kNewBits);
    s_old->placeMasked(m_root.locator, mask, kBakBits);
    (datIsNew ? s_new : s_old)->placeMasked(m_root.locator, mask, kDatBits);
  }
};

TEST_F(StoreRecovery, EveryMaskGetsTheActionOfItsRowOrIsRefusedUntouched) {
  const KMSFileLocator& locator = m_root.locator;
  std::set<unsigned> acted;
  for (unsigned mask = 0; mask < 0x200; ++mask) {
    SCOPED_TRACE(::testing::Message() << std::hex << mask);
    const auto row = recoveryRows().find(mask);
    if (row == recoveryRows().end()) {
      // Refused by init with message 54, nothing touched.
      place(mask, false);
      const std::vector<std::string> before = storetest::contentsOf(locator);
      LogCapture log(0);
      EXPECT_EQ(FileKeyStore(locator).init(), 1275);
      const std::vector<int> ids = appMessageIds(log);
      EXPECT_EQ(std::count(ids.begin(), ids.end(), 54), 1);
      EXPECT_EQ(storetest::contentsOf(locator), before);
      continue;
    }
    acted.insert(mask);
    const Row action = row->second;
    const bool datIsNew = action == Row::FromSecondRenames || action == Row::Finish;
    place(mask, datIsNew);
    const std::vector<std::string> before = storetest::contentsOf(locator);
    std::vector<int> logged;
    {
      LogCapture log(0);
      FileKeyStore::recoverDB(locator);
      logged = appMessageIds(log);
    }
    FileKeyStore store(locator);
    switch (action) {
      case Row::Clean:
        EXPECT_EQ(logged, std::vector<int>({40}));
        EXPECT_TRUE(s_old->isOnDiskAsDat(locator));
        ASSERT_EQ(store.init(), 0);
        EXPECT_TRUE(s_old->isServedBy(store));
        break;
      case Row::Missing: {
        // One message 39 for each missing "dat"; nothing changes, and the
        // read names the gap.
        const size_t missing =
            3 - (((mask & 0x100) != 0) + ((mask & 0x020) != 0) + ((mask & 0x004) != 0));
        EXPECT_EQ(logged, std::vector<int>(missing, 39));
        EXPECT_EQ(storetest::contentsOf(locator), before);
        EXPECT_EQ(store.init(), openFailureOf(mask));
        EXPECT_FALSE(store.isInitialized());
        break;
      }
      case Row::RollBack:
        EXPECT_EQ(logged, std::vector<int>({41, 55, 42}));
        EXPECT_EQ(storetest::maskOf(locator), mask & kDatBits);
        if (mask == 0x196) {
          // The odd member: its only KPK file was a "new" one, and rolling
          // back deleted it.
          EXPECT_EQ(storetest::maskOf(locator), 0x104u);
          EXPECT_EQ(store.init(), 1248);
        } else {
          EXPECT_TRUE(s_old->isOnDiskAsDat(locator));
          ASSERT_EQ(store.init(), 0);
          EXPECT_TRUE(s_old->isServedBy(store));
        }
        break;
      case Row::FromFirstRenames:
      case Row::FromSecondRenames:
      case Row::Finish:
        // Message 41 once, however far the recovery had to go.
        EXPECT_EQ(logged, std::vector<int>({41, 56, 42}));
        EXPECT_TRUE(s_new->isOnDiskAsDat(locator));
        ASSERT_EQ(store.init(), 0);
        EXPECT_TRUE(s_new->isServedBy(store));
        break;
    }
  }
  EXPECT_EQ(acted.size(), 35u);
}

// A failed rename (the roll forward of 0x0f6 renames KPK "dat" first), a
// failed delete (of HMK "bak" when 0x16d finishes) and a failed directory
// sync: 1274, and the next start finishes.
TEST_F(StoreRecovery, AFailedRenameOrDeleteIs1274AndTheNextStartFinishes) {
  const std::pair<unsigned, FileOp> rows[] = {
      {0x0f6, FileOp::Rename}, {0x16d, FileOp::Unlink}, {0x16d, FileOp::SyncDir}};
  for (const auto& [mask, op] : rows) {
    place(mask, mask == 0x16d);
    {
      FailNthFileOp failure(1, EACCES, op);
      ScopedFileFaultHook hook(&failure);
      EXPECT_EQ(storetest::codeOf([&] { FileKeyStore::recoverDB(m_root.locator); }), 1274);
    }
    if (op != FileOp::SyncDir) {  // the sync follows a change
      EXPECT_EQ(storetest::maskOf(m_root.locator), mask);
    }
    FileKeyStore store(m_root.locator);
    ASSERT_EQ(store.init(), 0);
    EXPECT_TRUE(s_new->isServedBy(store));
  }
}

TEST_F(StoreRecovery, KeptFilesThatDoNotVerifyStopRecoveryAndRemakesWithNothingTouched) {
  const KMSFileLocator& locator = m_root.locator;
  // 0x0f6 goes forward to the "new" files: a damaged one would leave nothing.
  for (const bool truncateStore : {true, false}) {
    SCOPED_TRACE(truncateStore ? "store \"new\" truncated" : "HMK \"new\" with a bit flipped");
    place(0x0f6, false);
    const std::string& path = truncateStore ? locator.ksNewPath() : locator.hmkNewPath();
    std::string bytes = storetest::readBytes(path);
    truncateStore ? bytes.resize(bytes.size() / 2) : (void)(bytes.back() ^= 0x01);
    storetest::writeBytes(path, bytes);
    const std::vector<std::string> before = storetest::contentsOf(locator);
    {
      LogCapture log(0);
      EXPECT_EQ(storetest::codeOf([&] { FileKeyStore::recoverDB(locator); }), 1275);
      EXPECT_EQ(appMessageIds(log), std::vector<int>({111}));
    }
    EXPECT_EQ(storetest::contentsOf(locator), before);
    FileKeyStore store(locator);
    EXPECT_EQ(std::make_tuple(store.createHMKFile("passphrase", true, false),
                              store.createKPKFile("passphrase", true, false),
                              store.createEmpty("", "hmk", "", "kpk", true)),
              std::make_tuple(1275, 1275, 1275));
    EXPECT_EQ(storetest::contentsOf(locator), before);
  }
  // Undamaged, a remake recovers first (and then finds the passphrase
  // wrong for the random HMK): no key file lands beside "new" and "bak".
  place(0x0f6, false);
  FileKeyStore store(locator);
  EXPECT_EQ(store.createHMKFile("passphrase", true, false), 1221);
  EXPECT_TRUE(s_new->isOnDiskAsDat(locator));
}

TEST_F(StoreRecovery, EveryRenameAndDeleteIsFollowedBySyncsOfBothDirectories) {
  place(0x0f6, false);
  FileOpRecorder recorder;
  {
    ScopedFileFaultHook hook(&recorder);
    FileKeyStore::recoverDB(m_root.locator);
  }
  const std::vector<FileOperation> ops = recorder.operations();
  size_t changes = 0;
  for (size_t i = 0; i < ops.size(); ++i) {
    if (ops[i].op != FileOp::Rename && ops[i].op != FileOp::Unlink) {
      continue;
    }
    ++changes;
    // OpenDir, SyncDir, Close for "key", then for "db".
    ASSERT_GE(ops.size(), i + 7);
    EXPECT_EQ(std::make_tuple(ops[i + 1].op, ops[i + 1].path, ops[i + 2].op, ops[i + 4].op,
                              ops[i + 4].path, ops[i + 5].op),
              std::make_tuple(FileOp::OpenDir, m_root.locator.keyDir(), FileOp::SyncDir,
                              FileOp::OpenDir, m_root.locator.dbDir(), FileOp::SyncDir));
  }
  // Two "dat" to "bak", three "new" to "dat", three "bak" deleted.
  EXPECT_EQ(changes, 8u);
  EXPECT_TRUE(s_new->isOnDiskAsDat(m_root.locator));
}

}  // namespace
