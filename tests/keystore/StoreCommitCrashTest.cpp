// The commit against a crash or failure at each file operation, recovery over
// every state of the nine files, and the files against what others plant.
#include <sys/wait.h>
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

size_t countOf(const std::vector<FileOperation>& ops, FileOp kind) {
  return std::count_if(ops.begin(), ops.end(),
                       [&](const FileOperation& op) { return op.op == kind; });
}

class StoreCommitCrash : public storetest::TwoStatesTest {
 protected:
  // The file operations of one commit from the old state to the new one.
  std::vector<FileOperation> commitOperations() {
    resetToOld();
    FileOpRecorder recorder;
    {
      ScopedFileFaultHook hook(&recorder);
      commitNew();
    }
    return recorder.operations();
  }

  // The wait status of a child committing that ends just before operation `n`.
  int commitInChildCrashingAt(size_t n) {
    const pid_t pid = ::fork();
    if (pid == 0) {
      CrashAtNthFileOp crash(n);
      FileFaults::install(&crash);
      ::_exit(commitNew() == 0 ? 0 : 1);
    }
    int status = -1;
    ::waitpid(pid, &status, 0);
    return status;
  }
};

TEST_F(StoreCommitCrash, ACrashAtAnyOperationLeavesTheOldOrTheNewStateWhole) {
  const std::vector<FileOperation> ops = commitOperations();
  ASSERT_TRUE(s_new->isOnDiskAsDat(m_root.locator));
  // Three new files made, flushed, synced; six renames, then both
  // directories synced before three deletes.
  const std::set<FileOp> counted = {FileOp::Open,    FileOp::Fopen,  FileOp::Fflush,
                                    FileOp::Fsync,   FileOp::Fclose, FileOp::Rename,
                                    FileOp::SyncDir, FileOp::Unlink};
  std::vector<FileOp> kinds;
  for (const FileOperation& op : ops) {
    if (counted.count(op.op) != 0) {
      kinds.push_back(op.op);
    }
  }
  ASSERT_EQ(kinds.size(), 23u);
  const std::multiset<FileOp> files(kinds.begin(), kinds.begin() + 12);
  for (const FileOp kind : {FileOp::Open, FileOp::Fflush, FileOp::Fsync, FileOp::Fclose}) {
    EXPECT_EQ(files.count(kind), 3u);
  }
  EXPECT_EQ(std::vector<FileOp>(kinds.begin() + 12, kinds.end()),
            std::vector<FileOp>({FileOp::Rename, FileOp::Rename, FileOp::Rename, FileOp::Rename,
                                 FileOp::Rename, FileOp::Rename, FileOp::SyncDir, FileOp::SyncDir,
                                 FileOp::Unlink, FileOp::Unlink, FileOp::Unlink}));
  EXPECT_GE(countOf(ops, FileOp::Fwrite), 4u);
  const size_t firstRename =
      std::find_if(ops.begin(), ops.end(),
                   [](const FileOperation& op) { return op.op == FileOp::Rename; }) -
      ops.begin() + 1;
  // One more than the count: the child that is never stopped.
  for (size_t n = 1; n <= ops.size() + 1; ++n) {
    const bool crashes = n <= ops.size();
    SCOPED_TRACE(crashes ? std::to_string(n) + " " + fileOpName(ops[n - 1].op) : "no crash");
    resetToOld();
    const int status = commitInChildCrashingAt(n);
    ASSERT_TRUE(WIFEXITED(status));
    ASSERT_EQ(WEXITSTATUS(status), crashes ? FileFaults::kCrashExitStatus : 0);
    // Ended up to the first rename: the old state; after it, the new one.
    const StoreSnapshot& expected = (crashes && n <= firstRename) ? *s_old : *s_new;
    FileKeyStore store(m_root.locator);
    ASSERT_EQ(store.init(), 0);
    EXPECT_TRUE(expected.isServedBy(store));
    EXPECT_TRUE(expected.isOnDiskAsDat(m_root.locator));
  }
}

TEST_F(StoreCommitCrash, AFailureAtAnyOperationReportsWhetherTheDiskChanged) {
  const std::vector<FileOperation> ops = commitOperations();
  // The operation failing, its error, and the recovery state each failure of
  // that kind leaves (none before the first rename: the old files whole).
  const std::tuple<FileOp, int, std::vector<unsigned>> faults[] = {
      {FileOp::Open, EMFILE, {}},
      {FileOp::Fwrite, ENOSPC, {}},
      {FileOp::Fsync, EIO, {}},
      {FileOp::Rename, EXDEV, {0x1b6, 0x0f6, 0x0de, 0x0db, 0x15b, 0x16b}},
      {FileOp::SyncDir, EIO, {0x16d, 0x16d}},  // after the renames: changed, not lost
      {FileOp::Unlink, EACCES, {0x16d, 0x12d, 0x125}}};
  for (const auto& [kind, error, left] : faults) {
    const size_t count = countOf(ops, kind);
    ASSERT_EQ(count, left.empty() ? std::max<size_t>(count, 1) : left.size());
    for (size_t n = 1; n <= count; ++n) {
      SCOPED_TRACE(std::string(fileOpName(kind)) + " " + std::to_string(n));
      resetToOld();
      FailNthFileOp failure(n, error, kind);
      {
        ScopedFileFaultHook hook(&failure);
        EXPECT_EQ(commitNew(), left.empty() ? 1276 : 1277);
      }
      ASSERT_TRUE(failure.fired());
      if (!left.empty()) {
        EXPECT_EQ(storetest::maskOf(m_root.locator), left[n - 1]);
      }
      // After a failed first rename the next start rolls back.
      const bool expectNew = !left.empty() && !(kind == FileOp::Rename && n == 1);
      FileKeyStore store(m_root.locator);
      ASSERT_EQ(store.init(), 0);
      EXPECT_TRUE((expectNew ? s_new : s_old)->isServedBy(store));
      EXPECT_TRUE((expectNew ? s_new : s_old)->isOnDiskAsDat(m_root.locator));
    }
  }
}

// Reading damaged files and committing over leftovers.
class StorePersistence : public storetest::TwoStatesTest {};

TEST_F(StorePersistence, DamagedOrMismatchedFilesGiveTheirCodes) {
  const storetest::StoreBytes& a = s_old->bytes();
  const storetest::StoreBytes& b = s_new->bytes();
  std::string kpkFlipped = a.kpk, storeFlipped = a.store;
  kpkFlipped[20] ^= 0x01;
  storeFlipped.back() ^= 0x80;  // the GCM tag's last byte
  // Bytes after a key file's list, a changed byte, a store cut short in its
  // metadata; files of another store (the HMK does not prove itself, the KPK
  // does not unwrap); all of one store.
  const std::pair<storetest::StoreBytes, int> rows[] = {
      {{a.hmk + '\0', a.kpk, a.store}, 1206},
      {{a.hmk, a.kpk + 'x', a.store}, 1256},
      {{a.hmk, kpkFlipped, a.store}, 1256},
      {{a.hmk, a.kpk, storeFlipped}, 1207},
      {{a.hmk, a.kpk, a.store.substr(0, 40)}, 1207},
      {{b.hmk, a.kpk, a.store}, 1221},
      {{a.hmk, b.kpk, a.store}, 1249},
      {b, 0}};
  for (const auto& [files, code] : rows) {
    storetest::placeDat(m_root.locator, files);
    FileKeyStore store(m_root.locator);
    EXPECT_EQ(store.init(), code);
    EXPECT_EQ(store.isInitialized(), code == 0);
  }
}

// Any of the three final files missing, or any other of the nine there.
TEST_F(StorePersistence, ACommitOnLeftoversIsRefusedWithMessage45) {
  for (const storetest::MaskedPath& p : storetest::ninePaths(m_root.locator)) {
    SCOPED_TRACE(p.path);
    resetToOld();
    (p.bit & 0x124) != 0 ? (void)::unlink(p.path.c_str()) : writeFile(p.path, "x");
    const std::vector<std::string> before = storetest::contentsOf(m_root.locator);
    LogCapture log(0);
    EXPECT_EQ(commitNew(), 1200);
    EXPECT_EQ(LogCapture::containing(log.appLines(), " 286-45 ").size(), 1u);
    EXPECT_EQ(storetest::contentsOf(m_root.locator), before);
  }
}

size_t logged(const LogCapture& log, const std::string& text) {
  return LogCapture::containing(log.appLines(), text).size();
}

// Puts a symlink to `target` in place of `path` at the first file operation
// after the one that created `path`, as another user could.
struct SwapAfterCreate : FileOpRecorder {
  SwapAfterCreate(std::string p, std::string t) : path(std::move(p)), target(std::move(t)) {}
  FileFaultDecision onFileOp(const FileOperation& operation) override {
    if (created && !swapped) {
      swapped = true;
      ::unlink(path.c_str());
      EXPECT_EQ(::symlink(target.c_str(), path.c_str()), 0);
    }
    created = created || (operation.op == FileOp::Open && operation.path == path);
    return FileFaultDecision{};
  }
  const std::string path, target;
  bool created = false, swapped = false;
};

class StoreFileSafety : public storetest::TwoStatesTest {
 protected:
  // init of a store over the root in a child, which a hang cannot outlast:
  // the child's code less 1200, or -1 when it had to be killed.
  int initInChild() {
    const pid_t pid = ::fork();
    if (pid == 0) {
      ::alarm(60);
      FileKeyStore store(m_root.locator);
      ::_exit(store.init() - 1200);
    }
    int status = -1;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
};

TEST_F(StoreFileSafety, ASymlinkSwappedInWhileACommitWritesGetsNoByte) {
  // An empty file anyone may write, as the other user would plant it.
  const std::string planted = m_root.root.file("planted");
  writeFile(planted, "");
  ::chmod(planted.c_str(), 0666);
  for (const std::string& path :
       {m_root.locator.hmkNewPath(), m_root.locator.kpkNewPath(), m_root.locator.ksNewPath()}) {
    SCOPED_TRACE(path);
    resetToOld();
    SwapAfterCreate swap(path, planted);
    {
      ScopedFileFaultHook hook(&swap);
      EXPECT_EQ(commitNew(), 1276);
    }
    ASSERT_TRUE(swap.swapped);
    EXPECT_EQ(readFile(planted), "");
    EXPECT_TRUE(s_old->isOnDiskAsDat(m_root.locator));
  }
}

TEST_F(StoreFileSafety, AFifoOrADeviceInPlaceOfAStoreFileIsRefusedAtOnce) {
  const KMSFileLocator& locator = m_root.locator;
  for (const std::string* path : {&locator.hmkPath(), &locator.kpkPath(), &locator.ksPath()}) {
    for (const bool fifo : {true, false}) {
      SCOPED_TRACE(*path + (fifo ? " as a FIFO" : " as a symlink to /dev/zero"));
      resetToOld();
      ::unlink(path->c_str());
      ASSERT_EQ(fifo ? ::mkfifo(path->c_str(), 0600) : ::symlink("/dev/zero", path->c_str()), 0);
      EXPECT_EQ(initInChild(), 95);
      // The readers that need no start refuse it too, rather than block.
      FileKeyStore store(locator);
      EXPECT_EQ(storetest::codeOf([&] { store.getHMKInfo(); }),
                path == &locator.ksPath() ? 1204 : 0);
    }
  }
}

TEST_F(StoreFileSafety, DirectoriesAndFilesOthersMayChangeRefuseTheStart) {
  const KMSFileLocator& locator = m_root.locator;
  const std::pair<std::string, mode_t> rows[] = {{locator.rootDir(), 0777},
                                                 {locator.dbDir(), 0777},
                                                 {locator.keyDir(), 0770},
                                                 {locator.hmkPath(), 0666},
                                                 {locator.ksPath(), 0620}};
  for (const auto& [path, unsafe] : rows) {
    SCOPED_TRACE(path);
    resetToOld();
    ::chmod(path.c_str(), unsafe);
    {
      LogCapture log(0);
      EXPECT_EQ(FileKeyStore(locator).init(), 1295);
      EXPECT_EQ(logged(log, path + " was not used: it is writable by group or others"), 1u);
    }
    ::chmod(path.c_str(), unsafe & 0700);
  }
  resetToOld();
  EXPECT_EQ(FileKeyStore(locator).init(), 0);
  if (::geteuid() != 0) {
    GTEST_SKIP() << "files of another owner need root to make";
  }
  ASSERT_EQ(::chown(locator.kpkPath().c_str(), 65534, 65534), 0);
  LogCapture log(0);
  EXPECT_EQ(FileKeyStore(locator).init(), 1295);
  EXPECT_EQ(logged(log, locator.kpkPath() + " was not used: it is owned by user 65534"), 1u);
}

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
    std::string bytes = readFile(path);
    truncateStore ? bytes.resize(bytes.size() / 2) : (void)(bytes.back() ^= 0x01);
    writeFile(path, bytes);
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
