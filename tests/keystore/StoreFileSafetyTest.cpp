// The store's files against what others can plant in or around them: a
// symlink swapped in while a commit writes, FIFOs and devices in place of a
// file, directories and files that others own or may write.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "keystore/StoreTestState.h"
#include "kms/server/keystore/files/FileFaults.h"
#include "support/LogCapture.h"

using namespace Vaultrest::DL::KMS;

namespace {

bool logged(const LogCapture& log, const std::string& text) {
  return !LogCapture::containing(log.appLines(), text).empty();
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
  // An empty file anyone may write, as the other user would plant it.
  std::string plantTarget() {
    const std::string path = m_root.root.file("planted");
    storetest::writeBytes(path, "");
    ::chmod(path.c_str(), 0666);
    return path;
  }

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
  const std::string planted = plantTarget();
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
  struct Row {
    std::string path;
    mode_t unsafe;
    mode_t safe;
  };
  const std::vector<Row> rows = {{locator.rootDir(), 0777, 0700},
                                 {locator.dbDir(), 0777, 0700},
                                 {locator.keyDir(), 0770, 0700},
                                 {locator.hmkPath(), 0666, 0600},
                                 {locator.ksPath(), 0620, 0600}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.path);
    resetToOld();
    ::chmod(row.path.c_str(), row.unsafe);
    {
      LogCapture log(0);
      FileKeyStore store(locator);
      EXPECT_EQ(store.init(), 1295);
      EXPECT_TRUE(logged(log, row.path + " was not used: it is writable by group or others"));
    }
    ::chmod(row.path.c_str(), row.safe);
  }
  resetToOld();
  FileKeyStore store(locator);
  EXPECT_EQ(store.init(), 0);
  if (::geteuid() != 0) {
    GTEST_SKIP() << "files of another owner need root to make";
  }
  ASSERT_EQ(::chown(locator.kpkPath().c_str(), 65534, 65534), 0);
  LogCapture log(0);
  FileKeyStore foreign(locator);
  EXPECT_EQ(foreign.init(), 1295);
  EXPECT_TRUE(logged(log, locator.kpkPath() + " was not used: it is owned by user 65534"));
}

}  // namespace
