#include "kms/server/keystore/FileUtils.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <iterator>
#include <string>

#include "kms/platform/Lis.h"
#include "kms/server/diagnostics/KeyStoreError.h"
#include "kms/server/keystore/FileFaults.h"
#include "support/LogCapture.h"
#include "support/TempRoot.h"

using namespace Vaultrest::DL::KMS;

namespace {

// Sets the process umask for one test, so that a mode left to the umask shows.
class ScopedUmask {
 public:
  explicit ScopedUmask(mode_t mask) : m_previous(::umask(mask)) {}
  ~ScopedUmask() { ::umask(m_previous); }

 private:
  mode_t m_previous;
};

void writeFile(const std::string& path, const std::string& content, mode_t mode = 0644) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
  ::chmod(path.c_str(), mode);
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

bool exists(const std::string& path) {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0;
}

mode_t modeOf(const std::string& path) {
  struct stat st;
  EXPECT_EQ(::stat(path.c_str(), &st), 0) << path;
  return st.st_mode & 07777;
}

int openDescriptorCount() {
  int count = 0;
  DIR* dir = ::opendir("/proc/self/fd");
  while (dirent* entry = ::readdir(dir)) {
    count += entry->d_name[0] != '.';
  }
  ::closedir(dir);
  return count;
}

// Runs `body`, which must throw KeyStoreError, and gives the error.
template <typename Body>
KeyStoreError thrownBy(Body&& body) {
  try {
    body();
  } catch (const KeyStoreError& error) {
    return error;
  }
  ADD_FAILURE() << "no KeyStoreError was thrown";
  return KeyStoreError(0, "", "", 0);
}

bool anyLineHas(const std::vector<std::string>& lines, const std::string& part) {
  return !LogCapture::containing(lines, part).empty();
}

std::string pieceOf(size_t size) {
  std::string s(size, '\0');
  for (size_t i = 0; i < size; ++i) {
    s[i] = static_cast<char>((i * 131) & 0xff);  // zero bytes included
  }
  return s;
}

}  // namespace

TEST(FileUtils, CreateFileGivesAnEmptyPrivateFileUnlessAskedToKeepIt) {
  TempRoot dir;
  LogCapture log;
  ScopedUmask noMask(0);
  const std::string path = dir.file("KMS_HMKF.new");

  writeFile(path, "previous content", 0644);
  Utils::createFile("Test::create", path.c_str(), __LINE__, true, __FILE__);
  EXPECT_EQ(readFile(path), "previous content");

  Utils::createFile("Test::create", path.c_str(), __LINE__, false, __FILE__);
  EXPECT_EQ(readFile(path), "");
  EXPECT_EQ(modeOf(path), 0600u);

  const std::string fresh = dir.file("fresh");
  Utils::createFile("Test::create", fresh.c_str(), __LINE__, true, __FILE__);
  EXPECT_TRUE(exists(fresh));
  EXPECT_EQ(modeOf(fresh), 0600u);

  const std::string nowhere = dir.file("missing/dir/file");
  KeyStoreError error = thrownBy(
      [&] { Utils::createFile("Test::create", nowhere.c_str(), 4711, false, "Caller.cpp"); });
  EXPECT_EQ(error.status(), 1237);
  EXPECT_EQ(error.function(), "Test::create");
  EXPECT_EQ(error.file(), "Caller.cpp");
  EXPECT_EQ(error.line(), 4711u);
  EXPECT_TRUE(anyLineHas(log.debugLines(), "ACE_OS::open failed: errno = 2, "));
  EXPECT_TRUE(anyLineHas(log.appLines(), "286-44 Test::create: The file " + nowhere));

  // The old file that cannot be removed stays as it was.
  writeFile(path, "x");
  FailNthFileOp failUnlink(1, EBUSY, FileOp::Unlink);
  ScopedFileFaultHook hook(&failUnlink);
  EXPECT_EQ(Utils::CreateFileWithRootAccessOnly(path.c_str()), 1237);
  EXPECT_EQ(readFile(path), "x");
  EXPECT_TRUE(anyLineHas(log.debugLines(), "ACE_OS::unlink() failed: errno = 16, "));
}

TEST(FileUtils, CreateDirMakesPrivateDirectoriesAndAcceptsExistingOnes) {
  TempRoot dir;
  LogCapture log;
  ScopedUmask noMask(0);
  const std::string path = dir.file("db");

  Utils::createDir("Test::dir", path.c_str(), __LINE__, __FILE__);
  EXPECT_EQ(modeOf(path), 0700u);

  // An existing directory is success, and its mode stays as it is.
  ::chmod(path.c_str(), 0755);
  Utils::createDir("Test::dir", path.c_str(), __LINE__, __FILE__);
  EXPECT_EQ(modeOf(path), 0755u);
  EXPECT_TRUE(anyLineHas(log.debugLines(), "The directory already exists. Returning Success"));

  // mkdir racing with another creator: EEXIST counts as success.
  FailNthFileOp raced(1, EEXIST, FileOp::Mkdir);
  {
    ScopedFileFaultHook hook(&raced);
    EXPECT_EQ(Utils::CreateDirWithRootAccessOnly(dir.file("raced").c_str()), 0);
  }

  const std::string orphan = dir.file("no/parent");
  EXPECT_EQ(thrownBy([&] { Utils::createDir("Test::dir", orphan.c_str(), 1, "f"); }).status(),
            1236);
  EXPECT_TRUE(anyLineHas(log.debugLines(), "ACE_OS::mkdir() failed: errno = 2, "));
  EXPECT_TRUE(anyLineHas(log.appLines(), "286-43 Test::dir: The directory " + orphan));
}

TEST(FileUtils, DeleteAndRenameReportTheirOwnCodes) {
  TempRoot dir;
  LogCapture log;
  const std::string a = dir.file("a");
  const std::string b = dir.file("b");

  EXPECT_EQ(thrownBy([&] { Utils::deleteFile("Test::del", a.c_str(), 1, false, "f"); }).status(),
            1239);
  EXPECT_TRUE(anyLineHas(log.debugLines(), "Failed to unlink file: errno = 2, "));
  EXPECT_TRUE(anyLineHas(log.appLines(), "286-48 Test::del: The file " + a));
  Utils::deleteFile("Test::del", a.c_str(), 1, true, "f");  // missing is fine here

  EXPECT_EQ(
      thrownBy([&] { Utils::renameFile("Test::ren", a.c_str(), b.c_str(), 1, "f"); }).status(),
      1238);
  EXPECT_TRUE(anyLineHas(log.debugLines(), "Failed to rename file: errno = 2, "));
  EXPECT_TRUE(anyLineHas(log.appLines(), "The file " + a + " could not be renamed to " + b));

  writeFile(a, "payload");
  Utils::renameFile("Test::ren", a.c_str(), b.c_str(), 1, "f");
  EXPECT_FALSE(exists(a));
  EXPECT_EQ(readFile(b), "payload");
  Utils::deleteFile("Test::del", b.c_str(), 1, false, "f");
  EXPECT_FALSE(exists(b));
}

TEST(FileUtils, FileExistsThrowsForAnyFailureButAMissingFile) {
  TempRoot dir;
  LogCapture log;
  // A path through a plain file: ENOTDIR, which is no answer to "exists?".
  const std::string plain = dir.file("plain");
  writeFile(plain, "");
  const std::string through = plain + "/child";
  EXPECT_EQ(
      thrownBy([&] { Utils::fileExists(through.c_str(), Utils::LOG_NEITHER, "Test::e"); }).status(),
      1200);
  EXPECT_TRUE(anyLineHas(log.debugLines(), "access( " + through + ") failed: errno = 20, "));

  FailNthFileOp denied(1, EACCES, FileOp::Access);
  ScopedFileFaultHook hook(&denied);
  EXPECT_EQ(
      thrownBy([&] { Utils::fileExists(plain.c_str(), Utils::LOG_NEITHER, "Test::e"); }).status(),
      1200);
}

TEST(FileHolder, ClosesOnceAndStillReleasesTheFileWhenCloseFails) {
  TempRoot dir;
  LogCapture log;
  const std::string path = dir.file("f");
  writeFile(path, "abc");
  // The logger opens its files on first use; open them before counting.
  log.logger().logDebug("prime", 1, "opens the debug log");
  log.logger().logApp("prime", CRVN_SEV_INFO, Corvane::L10N::Lis(83));
  const int baseline = openDescriptorCount();

  Utils::FileHolder holder = Utils::openFile(path.c_str(), "rb");
  ASSERT_NE(holder.get(), nullptr);
  EXPECT_EQ(openDescriptorCount(), baseline + 1);
  holder.close();
  EXPECT_EQ(holder.get(), nullptr);
  holder.close();  // a second close does nothing
  EXPECT_EQ(openDescriptorCount(), baseline);

  FailNthFileOp failClose(1, EIO, FileOp::Fclose);
  ScopedFileFaultHook hook(&failClose);
  Utils::FileHolder failing = Utils::openFile(path.c_str(), "rb");
  EXPECT_EQ(thrownBy([&] { failing.close(); }).status(), 1210);
  EXPECT_EQ(failing.get(), nullptr);
  EXPECT_EQ(openDescriptorCount(), baseline);
  EXPECT_TRUE(anyLineHas(log.debugLines(), "Failed to close file: errno = 5, "));
  EXPECT_TRUE(anyLineHas(log.appLines(), "286-60"));

  // The destructor swallows the failure.
  FailNthFileOp failAgain(1, EIO, FileOp::Fclose);
  ScopedFileFaultHook inner(&failAgain);
  { Utils::FileHolder dying = Utils::openFile(path.c_str(), "rb"); }
  EXPECT_TRUE(failAgain.fired());
  EXPECT_TRUE(anyLineHas(log.debugLines(), "Exception Caught in Destructor!! Ignoring"));
  EXPECT_EQ(openDescriptorCount(), baseline);

  EXPECT_EQ(Utils::openFile(dir.file("absent").c_str(), "rb").get(), nullptr);
  EXPECT_EQ(errno, ENOENT);
}

TEST(FileUtils, ReadFileIntoStringReadsPiecesUntilOneComesShort) {
  TempRoot dir;
  struct Case {
    size_t size;
    size_t reads;
  };
  // A file of exactly one piece takes a second, empty read to see its end.
  for (const Case& c :
       {Case{0, 1}, Case{4095, 1}, Case{4096, 2}, Case{4097, 2}, Case{100000, 25}}) {
    const std::string path = dir.file("r" + std::to_string(c.size));
    const std::string content = pieceOf(c.size);
    {
      Utils::FileHolder out = Utils::openFile(path.c_str(), "wb");
      Utils::writeStringIntoFile(content, out);
      out.close();
    }
    FileOpRecorder recorder;
    std::string read = "kept:";
    {
      ScopedFileFaultHook hook(&recorder);
      Utils::FileHolder in = Utils::openFile(path.c_str(), "rb");
      Utils::readFileIntoString(in, read);
    }
    EXPECT_EQ(read, "kept:" + content) << c.size;
    size_t reads = 0;
    for (FileOp op : recorder.kinds()) {
      reads += op == FileOp::Fread;
    }
    EXPECT_EQ(reads, c.reads) << c.size;
  }
}

TEST(FileUtils, ReadAndWriteFailuresReturnMinusOneAndThrow1210) {
  TempRoot dir;
  LogCapture log;
  const std::string path = dir.file("rw");
  writeFile(path, pieceOf(5000));
  char buffer[16];

  // Real failures: reading a stream opened for writing and the other way round.
  {
    Utils::FileHolder out = Utils::openFile(path.c_str(), "ab");
    EXPECT_EQ(Utils::freadall(out, buffer, sizeof(buffer)), -1);
    EXPECT_EQ(std::ferror(out.get()), 0);  // cleared after logging
    Utils::FileHolder in = Utils::openFile(path.c_str(), "rb");
    EXPECT_EQ(Utils::fwriteall(in, "abc", 3), -1);
    EXPECT_EQ(std::ferror(in.get()), 0);
  }
  EXPECT_TRUE(anyLineHas(log.debugLines(), "fread() failed: ferror = 1"));
  EXPECT_TRUE(anyLineHas(log.debugLines(), "fwrite() failed: ferror = 1"));

  // A read failing after the first piece.
  {
    FailNthFileOp failRead(2, EIO, FileOp::Fread);
    ScopedFileFaultHook hook(&failRead);
    Utils::FileHolder in = Utils::openFile(path.c_str(), "rb");
    std::string read;
    EXPECT_EQ(thrownBy([&] { Utils::readFileIntoString(in, read); }).status(), 1210);
  }
  EXPECT_TRUE(anyLineHas(log.appLines(), "286-61"));

  // A full disk.
  {
    FailNthFileOp full(1, ENOSPC, FileOp::Fwrite);
    ScopedFileFaultHook hook(&full);
    Utils::FileHolder out = Utils::openFile(path.c_str(), "wb");
    EXPECT_EQ(thrownBy([&] { Utils::writeStringIntoFile("data", out); }).status(), 1210);
  }
  EXPECT_TRUE(anyLineHas(log.appLines(), "286-62"));
}

TEST(FileUtils, FlushFileToDiskFlushesThenSyncsAndReportsEither) {
  TempRoot dir;
  LogCapture log;
  const std::string path = dir.file("flush");

  FileOpRecorder recorder;
  {
    ScopedFileFaultHook hook(&recorder);
    Utils::FileHolder out = Utils::openFile(path.c_str(), "wb");
    Utils::writeStringIntoFile("durable", out);
    Utils::flushFileToDisk("Test::flush", out, __FILE__, __LINE__);
    EXPECT_EQ(readFile(path), "durable");  // before the close
  }
  EXPECT_EQ(recorder.kinds(), (std::vector<FileOp>{FileOp::Fopen, FileOp::Fwrite, FileOp::Fflush,
                                                   FileOp::Fsync, FileOp::Fclose}));

  // A real flush failure: the device that is always full.
  {
    Utils::FileHolder full = Utils::openFile("/dev/full", "wb");
    ASSERT_NE(full.get(), nullptr);
    Utils::writeStringIntoFile("lost", full);
    KeyStoreError error =
        thrownBy([&] { Utils::flushFileToDisk("Test::flush", full, "Caller.cpp", 77); });
    EXPECT_EQ(error.status(), 1210);
    EXPECT_EQ(error.line(), 77u);
    std::clearerr(full.get());
  }
  EXPECT_TRUE(anyLineHas(log.debugLines(), "Failed to flush file: errno = 28, "));

  FailNthFileOp failSync(1, EIO, FileOp::Fsync);
  ScopedFileFaultHook hook(&failSync);
  Utils::FileHolder out = Utils::openFile(path.c_str(), "wb");
  EXPECT_EQ(thrownBy([&] { Utils::flushFileToDisk("Test::flush", out, "f", 1); }).status(), 1210);
  EXPECT_TRUE(anyLineHas(log.debugLines(), "Failed to sync file: errno = 5, "));
  EXPECT_TRUE(anyLineHas(log.appLines(), "286-59"));
}

TEST(FileUtils, SyncDirectoryOpensSyncsAndClosesTheDirectory) {
  TempRoot dir;
  const int baseline = openDescriptorCount();
  FileOpRecorder recorder;
  {
    ScopedFileFaultHook hook(&recorder);
    Utils::syncDirectory("Test::sync", dir.path().c_str(), __LINE__, __FILE__);
  }
  EXPECT_EQ(recorder.kinds(),
            (std::vector<FileOp>{FileOp::OpenDir, FileOp::SyncDir, FileOp::Close}));
  EXPECT_EQ(recorder.operations()[1].path, dir.path());

  EXPECT_EQ(thrownBy([&] {
              Utils::syncDirectory("Test::sync", dir.file("missing").c_str(), 1, "f");
            }).status(),
            1210);

  FailNthFileOp failSync(1, EIO, FileOp::SyncDir);
  ScopedFileFaultHook hook(&failSync);
  EXPECT_EQ(
      thrownBy([&] { Utils::syncDirectory("Test::sync", dir.path().c_str(), 1, "f"); }).status(),
      1210);
  EXPECT_EQ(failSync.kinds().back(), FileOp::Close);
  EXPECT_EQ(openDescriptorCount(), baseline);
}
