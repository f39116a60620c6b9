// The file primitives of the store (failed through the FileFaults seam), and the paths of
// the store's files (KMSFileLocator).
#include "kms/server/keystore/files/FileUtils.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "CryptoTestUtil.h"
#include "kms/platform/Lis.h"
#include "kms/server/keystore/files/FileFaults.h"
#include "kms/server/keystore/files/KMSFileLocator.h"
#include "support/LogCapture.h"
#include "support/TempRoot.h"

using namespace Vaultrest::DL::KMS;

namespace {

// The permission bits, with the directory bit as 01000000 (-1: missing).
long modeOf(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) != 0
             ? -1L
             : (st.st_mode & 07777) | (S_ISDIR(st.st_mode) ? 01000000 : 0);
}

long openDescriptorCount() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

}  // namespace

TEST(FileUtils, CreateDeleteRenameAndExistsWithTheirModesAndCodes) {
  TempRoot dir;
  LogCapture log;
  const mode_t previousMask = ::umask(0);  // a mode left to the umask shows
  const std::string path = dir.file("KMS_HMKF.new");
  writeFile(path, "previous content", 0644);
  Utils::createFile("Test::create", path.c_str(), __LINE__, true, __FILE__);
  EXPECT_EQ(readFile(path), "previous content");
  Utils::createFile("Test::create", path.c_str(), __LINE__, false, __FILE__);
  EXPECT_EQ(readFile(path), "");
  EXPECT_EQ(modeOf(path), 0600);
  const std::string fresh = dir.file("fresh");
  Utils::createFile("Test::create", fresh.c_str(), __LINE__, true, __FILE__);
  EXPECT_EQ(modeOf(fresh), 0600);
  {
    // The old file that cannot be removed stays as it was.
    writeFile(path, "x");
    FailNthFileOp failUnlink(1, EBUSY, FileOp::Unlink);
    ScopedFileFaultHook hook(&failUnlink);
    EXPECT_EQ(Utils::CreateFileWithRootAccessOnly(path.c_str()), 1237);
    EXPECT_EQ(readFile(path), "x");
  }
  // Directories: private; an existing (or racing) one is success and keeps its mode.
  const std::string db = dir.file("db");
  Utils::createDir("Test::dir", db.c_str(), __LINE__, __FILE__);
  EXPECT_EQ(modeOf(db), 01000700);
  ::chmod(db.c_str(), 0755);
  Utils::createDir("Test::dir", db.c_str(), __LINE__, __FILE__);
  EXPECT_EQ(modeOf(db), 01000755);
  ::umask(previousMask);
  {
    FailNthFileOp raced(1, EEXIST, FileOp::Mkdir);
    ScopedFileFaultHook hook(&raced);
    EXPECT_EQ(Utils::CreateDirWithRootAccessOnly(dir.file("raced").c_str()), 0);
  }
  const std::string a = dir.file("a"), b = dir.file("b"), nowhere = dir.file("missing/dir/file");
  const std::string through = path + "/child";  // ENOTDIR
  const std::pair<std::function<void()>, int> failures[] = {
      {[&] { Utils::createFile("T", nowhere.c_str(), 1, false, "f"); }, 1237},
      {[&] { Utils::createDir("T", dir.file("no/parent").c_str(), 1, "f"); }, 1236},
      {[&] { Utils::deleteFile("T", a.c_str(), 1, false, "f"); }, 1239},
      {[&] { Utils::deleteFile("T", a.c_str(), 1, true, "f"); }, 0},  // missing is fine here
      {[&] { Utils::renameFile("T", a.c_str(), b.c_str(), 1, "f"); }, 1238},
      {[&] { EXPECT_FALSE(Utils::fileExists(b.c_str(), Utils::LOG_NEITHER, "T")); }, 0},
      {[&] { Utils::fileExists(through.c_str(), Utils::LOG_NEITHER, "T"); }, 1200},
  };
  for (size_t i = 0; i < std::size(failures); ++i) {
    EXPECT_EQ(cryptotest::ksStatus(failures[i].first), failures[i].second) << i;
  }
  FailNthFileOp denied(1, EACCES, FileOp::Access);
  ScopedFileFaultHook hook(&denied);
  EXPECT_EQ(KS_STATUS(Utils::fileExists(path.c_str(), Utils::LOG_NEITHER, "Test::e")), 1200);
}

TEST(FileUtils, HoldersReadsWritesFlushesAndSyncsReportFailuresAs1210) {
  TempRoot dir;
  LogCapture log;
  {
    // A holder closes once, and releases the file also when the close fails.
    const std::string path = dir.file("f");
    writeFile(path, "abc");
    // The logger opens its files on first use: before counting.
    log.logger().logDebug("prime", 1, "opens the debug log");
    log.logger().logApp("prime", CRVN_SEV_INFO, Corvane::L10N::Lis(83));
    const int baseline = openDescriptorCount();
    Utils::FileHolder holder = Utils::openFile(path.c_str(), "rb");
    EXPECT_EQ(openDescriptorCount(), baseline + 1);
    holder.close();
    holder.close();  // a second close does nothing
    EXPECT_EQ(holder.get(), nullptr);
    EXPECT_EQ(openDescriptorCount(), baseline);
    FailNthFileOp failClose(1, EIO, FileOp::Fclose);
    ScopedFileFaultHook hook(&failClose);
    Utils::FileHolder failing = Utils::openFile(path.c_str(), "rb");
    EXPECT_EQ(KS_STATUS(failing.close()), 1210);
    EXPECT_EQ(failing.get(), nullptr);
    EXPECT_EQ(openDescriptorCount(), baseline);
    // The destructor swallows the failure.
    FailNthFileOp failAgain(1, EIO, FileOp::Fclose);
    ScopedFileFaultHook inner(&failAgain);
    { Utils::FileHolder dying = Utils::openFile(path.c_str(), "rb"); }
    EXPECT_TRUE(failAgain.fired());
    EXPECT_EQ(openDescriptorCount(), baseline);
    EXPECT_EQ(Utils::openFile(dir.file("absent").c_str(), "rb").get(), nullptr);
    EXPECT_EQ(errno, ENOENT);
  }
  // Pieces of 4096 are read until one comes short: one more, empty read at a multiple.
  for (const auto& [size, reads] : std::vector<std::pair<size_t, size_t>>{
           {0, 1}, {4095, 1}, {4096, 2}, {4097, 2}, {100000, 25}}) {
    const std::string path = dir.file("r" + std::to_string(size));
    std::string content(size, '\0');
    for (size_t i = 0; i < size; ++i) {
      content[i] = static_cast<char>((i * 131) & 0xff);  // zero bytes included
    }
    Utils::writeStringIntoFile(content, Utils::openFile(path.c_str(), "wb"));
    FileOpRecorder recorder;
    std::string read = "kept:";
    {
      ScopedFileFaultHook hook(&recorder);
      Utils::FileHolder in = Utils::openFile(path.c_str(), "rb");
      Utils::readFileIntoString(in, read);
    }
    EXPECT_EQ(read, "kept:" + content) << size;
    const std::vector<FileOp> kinds = recorder.kinds();
    EXPECT_EQ(static_cast<size_t>(std::count(kinds.begin(), kinds.end(), FileOp::Fread)), reads)
        << size;
  }
  const std::string path = dir.file("rw");
  writeFile(path, std::string(5000, 'x'));
  {
    // Reading a stream opened for writing and the other way round.
    char buffer[16];
    Utils::FileHolder out = Utils::openFile(path.c_str(), "ab");
    EXPECT_EQ(Utils::freadall(out, buffer, sizeof(buffer)), -1);
    EXPECT_EQ(std::ferror(out.get()), 0);  // cleared after logging
    Utils::FileHolder in = Utils::openFile(path.c_str(), "rb");
    EXPECT_EQ(Utils::fwriteall(in, "abc", 3), -1);
  }
  {
    FailNthFileOp failRead(2, EIO, FileOp::Fread);
    ScopedFileFaultHook hook(&failRead);
    Utils::FileHolder in = Utils::openFile(path.c_str(), "rb");
    std::string read;
    EXPECT_EQ(KS_STATUS(Utils::readFileIntoString(in, read)), 1210);
  }
  {
    // A real flush failure: the device that is always full.
    Utils::FileHolder full = Utils::openFile("/dev/full", "wb");
    ASSERT_NE(full.get(), nullptr);
    Utils::writeStringIntoFile("lost", full);
    EXPECT_EQ(KS_STATUS(Utils::flushFileToDisk("T", full, "f", 1)), 1210);
    std::clearerr(full.get());
  }
  // syncDirectory closes the directory also when the sync fails.
  const int baseline = openDescriptorCount();
  EXPECT_EQ(KS_STATUS(Utils::syncDirectory("T", dir.file("missing").c_str(), 1, "f")), 1210);
  FailNthFileOp failSync(1, EIO, FileOp::SyncDir);
  ScopedFileFaultHook hook(&failSync);
  EXPECT_EQ(KS_STATUS(Utils::syncDirectory("T", dir.path().c_str(), 1, "f")), 1210);
  EXPECT_EQ(failSync.kinds().back(), FileOp::Close);
  EXPECT_EQ(openDescriptorCount(), baseline);
}

TEST(KMSFileLocator, MakesDirectoriesAndFindsAndDeletesEachOfTheNineFiles) {
  TempRoot dir;
  const std::string r = dir.file("store");
  const mode_t previousMask = ::umask(0);
  const KMSFileLocator l(r);
  l.createMissingDirectories();
  l.createMissingDirectories();
  ::umask(previousMask);
  EXPECT_EQ(std::vector<long>({modeOf(l.rootDir()), modeOf(l.dbDir()), modeOf(l.keyDir())}),
            std::vector<long>(3, 01000700));
  EXPECT_EQ(l.dbDir() + l.keyDir(), r + "/db" + r + "/key");
  EXPECT_FALSE(l.anyFileExists());
  std::vector<std::string> expected;
  for (const char* suffix : {".dat", ".new", ".bak"}) {
    for (const char* file : {"/key/KMS_HMKF", "/db/KMS_DATA", "/key/KMS_KPKF"}) {
      expected.push_back(r + file + suffix);
    }
  }
  EXPECT_EQ(
      std::vector<std::string>({l.hmkPath(), l.ksPath(), l.kpkPath(), l.hmkNewPath(), l.ksNewPath(),
                                l.kpkNewPath(), l.hmkBakPath(), l.ksBakPath(), l.kpkBakPath()}),
      expected);
  for (const std::string& path : expected) {
    std::ofstream(path) << "x";
    EXPECT_TRUE(l.anyFileExists()) << path;
    l.deleteAllFiles();
    EXPECT_FALSE(exists(path));
    EXPECT_FALSE(l.anyFileExists());
  }
  EXPECT_TRUE(exists(l.dbDir()) && exists(l.keyDir()));
  FailNthFileOp failMkdir(1, ENOSPC, FileOp::Mkdir);
  ScopedFileFaultHook hook(&failMkdir);
  EXPECT_EQ(KS_STATUS(KMSFileLocator(dir.file("other")).createMissingDirectories()), 1236);
}
