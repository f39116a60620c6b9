// The commit against a crash and a failure at each of its file operations:
// the next init serves exactly the old or the new state, never a mixture.
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <set>

#include "keystore/StoreTestState.h"
#include "kms/server/keystore/files/FileFaults.h"
#include "support/LogCapture.h"

using namespace Vaultrest::DL::KMS;
using storetest::StoreSnapshot;

namespace {

size_t countOf(const std::vector<FileOperation>& ops, FileOp kind) {
  size_t n = 0;
  for (const FileOperation& op : ops) {
    n += op.op == kind ? 1 : 0;
  }
  return n;
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
  struct Fault {
    FileOp kind;
    int error;
  };
  // The recovery states after each failed rename and delete, in order.
  const std::vector<unsigned> afterRename = {0x1b6, 0x0f6, 0x0de, 0x0db, 0x15b, 0x16b};
  const std::vector<unsigned> afterDelete = {0x16d, 0x12d, 0x125};
  for (const Fault& fault :
       {Fault{FileOp::Open, EMFILE}, Fault{FileOp::Fwrite, ENOSPC}, Fault{FileOp::Fsync, EIO},
        Fault{FileOp::Rename, EXDEV}, Fault{FileOp::SyncDir, EIO}, Fault{FileOp::Unlink, EACCES}}) {
    const size_t count = countOf(ops, fault.kind);
    ASSERT_GT(count, 0u);
    for (size_t n = 1; n <= count; ++n) {
      SCOPED_TRACE(std::string(fileOpName(fault.kind)) + " " + std::to_string(n));
      resetToOld();
      FailNthFileOp failure(n, fault.error, fault.kind);
      int code = 0;
      {
        ScopedFileFaultHook hook(&failure);
        code = commitNew();
      }
      ASSERT_TRUE(failure.fired());
      bool expectNew = true;
      if (fault.kind == FileOp::Open || fault.kind == FileOp::Fwrite ||
          fault.kind == FileOp::Fsync) {
        // Before the first rename: the new files are gone, the old whole.
        EXPECT_EQ(code, 1276);
        EXPECT_TRUE(s_old->isOnDiskAsDat(m_root.locator));
        expectNew = false;
      } else {
        EXPECT_EQ(code, 1277);
        // A failed directory sync comes after the renames: changed, not lost.
        const unsigned left = fault.kind == FileOp::Rename    ? afterRename[n - 1]
                              : fault.kind == FileOp::SyncDir ? 0x16du
                                                              : afterDelete[n - 1];
        EXPECT_EQ(storetest::maskOf(m_root.locator), left);
        // After a failed first rename the next start rolls back.
        expectNew = !(fault.kind == FileOp::Rename && n == 1);
      }
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
    EXPECT_EQ(initCode(), code);
  }
}

// Any of the three final files missing, or any other of the nine there.
TEST_F(StorePersistence, ACommitOnLeftoversIsRefusedWithMessage45) {
  for (const storetest::MaskedPath& p : storetest::ninePaths(m_root.locator)) {
    SCOPED_TRACE(p.path);
    resetToOld();
    (p.bit & 0x124) != 0 ? (void)::unlink(p.path.c_str()) : storetest::writeBytes(p.path, "x");
    const std::vector<std::string> before = storetest::contentsOf(m_root.locator);
    LogCapture log(0);
    EXPECT_EQ(commitNew(), 1200);
    EXPECT_EQ(LogCapture::containing(log.appLines(), " 286-45 ").size(), 1u);
    EXPECT_EQ(storetest::contentsOf(m_root.locator), before);
  }
}

}  // namespace
