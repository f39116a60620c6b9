#include "kms/server/keystore/FileFaults.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <iterator>

#include "kms/server/diagnostics/KeyStoreError.h"
#include "kms/server/keystore/FileUtils.h"
#include "support/TempRoot.h"

using namespace Vaultrest::DL::KMS;

namespace {

bool exists(const std::string& path) {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0;
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// A small commit-like sequence: make a new file, fill it, make it durable,
// then put it in place of the old one.
void replaceFile(const std::string& dir) {
  const std::string next = dir + "/data.new";
  const std::string live = dir + "/data.dat";
  Utils::createFile("Test::replace", next.c_str(), __LINE__, false, __FILE__);
  Utils::FileHolder out = Utils::openFile(next.c_str(), "wb");
  Utils::writeStringIntoFile("new state", out);
  Utils::flushFileToDisk("Test::replace", out, __FILE__, __LINE__);
  out.close();
  Utils::renameFile("Test::replace", next.c_str(), live.c_str(), __LINE__, __FILE__);
  Utils::syncDirectory("Test::replace", dir.c_str(), __LINE__, __FILE__);
}

// Runs replaceFile in a forked child that crashes at the `n`th operation (of
// `kind` when given) and gives the child's wait status.
int crashChildAt(const std::string& dir, size_t n, std::optional<FileOp> kind) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    CrashAtNthFileOp crash(n, kind);
    FileFaults::install(&crash);
    try {
      replaceFile(dir);
    } catch (...) {
      ::_exit(2);
    }
    ::_exit(0);
  }
  int status = 0;
  ::waitpid(pid, &status, 0);
  return status;
}

}  // namespace

TEST(FileFaults, RecorderListsEveryOperationInOrderWithItsPaths) {
  TempRoot dir;
  FileOpRecorder recorder;
  {
    ScopedFileFaultHook hook(&recorder);
    EXPECT_EQ(FileFaults::installed(), &recorder);
    replaceFile(dir.path());
  }
  EXPECT_EQ(FileFaults::installed(), nullptr);

  const std::string next = dir.file("data.new");
  const std::string live = dir.file("data.dat");
  const std::vector<FileOperation> ops = recorder.operations();
  const std::vector<std::pair<FileOp, std::string>> expected = {
      {FileOp::Access, next},        {FileOp::Open, next},          {FileOp::Close, next},
      {FileOp::Fopen, next},         {FileOp::Fwrite, next},        {FileOp::Fflush, next},
      {FileOp::Fsync, next},         {FileOp::Fclose, next},        {FileOp::Rename, next},
      {FileOp::OpenDir, dir.path()}, {FileOp::SyncDir, dir.path()}, {FileOp::Close, dir.path()},
  };
  ASSERT_EQ(ops.size(), expected.size());
  for (size_t i = 0; i < ops.size(); ++i) {
    EXPECT_EQ(ops[i].op, expected[i].first) << i << " " << fileOpName(ops[i].op);
    EXPECT_EQ(ops[i].path, expected[i].second) << i;
  }
  EXPECT_EQ(ops[8].target, live);
  EXPECT_EQ(readFile(live), "new state");
}

TEST(FileFaults, FailsTheNthOperationOnlyCountingItsKind) {
  TempRoot dir;
  const std::string path = dir.file("f");
  std::ofstream(path) << "x";

  FailNthFileOp secondAccess(2, EACCES, FileOp::Access);
  {
    ScopedFileFaultHook hook(&secondAccess);
    EXPECT_TRUE(Utils::fileExists(path.c_str(), Utils::LOG_NEITHER, "Test"));
    EXPECT_FALSE(secondAccess.fired());
    Utils::FileHolder in = Utils::openFile(path.c_str(), "rb");  // not an Access: not counted
    in.close();
    EXPECT_THROW(Utils::fileExists(path.c_str(), Utils::LOG_NEITHER, "Test"), KeyStoreError);
    EXPECT_TRUE(secondAccess.fired());
    EXPECT_TRUE(Utils::fileExists(path.c_str(), Utils::LOG_NEITHER, "Test"));  // once only
  }

  // Without a kind every operation counts: creating a new file is Access,
  // Open and Close, so the fourth operation is the fopen after it.
  const std::string fresh = dir.file("fresh");
  FailNthFileOp fourth(4, EMFILE);
  {
    ScopedFileFaultHook hook(&fourth);
    Utils::createFile("Test", fresh.c_str(), __LINE__, false, __FILE__);
    Utils::FileHolder out = Utils::openFile(fresh.c_str(), "wb");
    EXPECT_EQ(out.get(), nullptr);
    EXPECT_EQ(errno, EMFILE);
  }
  EXPECT_TRUE(fourth.fired());
  EXPECT_EQ(fourth.kinds().back(), FileOp::Fopen);

  // An error of 0 becomes EIO.
  FailNthFileOp noErrno(1, 0, FileOp::Unlink);
  ScopedFileFaultHook hook(&noErrno);
  EXPECT_EQ(FileFaults::unlinkPath(path.c_str()), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_TRUE(exists(path));
}

TEST(FileFaults, CrashEndsAForkedChildJustBeforeTheOperation) {
  const struct {
    size_t n;
    std::optional<FileOp> kind;
    bool crashes;
    const char* dat;  // nullptr: missing
    const char* next;
  } rows[] = {
      // Before the rename: the new file is complete, the old name untouched.
      {1, FileOp::Rename, true, "old state", "new state"},
      // Before the flush: what sat in the stream's buffer is lost.
      {1, FileOp::Fflush, true, nullptr, ""},
      // Counting all operations: the second is the open that creates the file.
      {2, std::nullopt, true, nullptr, nullptr},
      // A crash point past the end is never reached.
      {13, std::nullopt, false, "new state", nullptr},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.n);
    TempRoot dir;
    if (row.kind == FileOp::Rename) {
      std::ofstream(dir.file("data.dat")) << "old state";
    }
    const int status = crashChildAt(dir.path(), row.n, row.kind);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), row.crashes ? FileFaults::kCrashExitStatus : 0);
    EXPECT_EQ(exists(dir.file("data.dat")), row.dat != nullptr);
    EXPECT_EQ(exists(dir.file("data.new")), row.next != nullptr);
    EXPECT_EQ(readFile(dir.file("data.dat")), row.dat ? row.dat : "");
    EXPECT_EQ(readFile(dir.file("data.new")), row.next ? row.next : "");
  }
}
