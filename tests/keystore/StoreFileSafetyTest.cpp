// The store's files against what others can plant in or around them: a
// symlink swapped in while a commit writes, FIFOs and devices in place of a
// file, directories and files that others own or may write.
#include <sys/wait.h>

#include "keystore/StoreTestState.h"
#include "kms/server/keystore/files/FileFaults.h"
#include "support/LogCapture.h"

using namespace Vaultrest::DL::KMS;

namespace {

size_t logged(const LogCapture& log, const std::string& text) {
  return LogCapture::containing(log.appLines(), text).size();
}

// Puts a symlink to `target` in place of `path` at the first file operation
// after the one that created `path`, as another user could.
class SwapAfterCreate : public FileOpRecorder {
 public:
  SwapAfterCreate(std::string path, std::string target)
      : m_path(std::move(path)), m_target(std::move(target)) {}
  FileFaultDecision onFileOp(const FileOperation& operation) override {
    record(operation, std::nullopt);
    if (m_created && !m_swapped) {
      m_swapped = true;
      ::unlink(m_path.c_str());
      EXPECT_EQ(::symlink(m_target.c_str(), m_path.c_str()), 0);
    }
    m_created = m_created || (operation.op == FileOp::Open && operation.path == m_path);
    return FileFaultDecision{};
  }
  bool swapped() const { return m_swapped; }

 private:
  const std::string m_path;
  const std::string m_target;
  bool m_created = false;
  bool m_swapped = false;
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
  storetest::writeBytes(planted, "");
  ::chmod(planted.c_str(), 0666);
  for (const std::string& path :
       {m_root.locator.hmkNewPath(), m_root.locator.kpkNewPath(), m_root.locator.ksNewPath()}) {
    SCOPED_TRACE(path);
    resetToOld();
    SwapAfterCreate swap(path, planted);
    int code = 0;
    {
      ScopedFileFaultHook hook(&swap);
      code = commitNew();
    }
    ASSERT_TRUE(swap.swapped());
    EXPECT_EQ(storetest::readBytes(planted), "");
    EXPECT_EQ(code, 1276);
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

}  // namespace
