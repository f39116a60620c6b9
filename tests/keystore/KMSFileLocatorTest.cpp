#include "kms/server/keystore/KMSFileLocator.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "kms/server/diagnostics/KeyStoreError.h"
#include "kms/server/keystore/FileFaults.h"
#include "support/LogCapture.h"
#include "support/PlatformTestRoot.h"
#include "support/TempRoot.h"

using namespace Vaultrest::DL::KMS;

namespace {

bool exists(const std::string& path) {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0;
}

bool isDirectoryWithMode(const std::string& path, mode_t mode) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode) && (st.st_mode & 07777) == mode;
}

// The nine files in the order the locator tests them.
std::vector<std::string> nineFiles(const KMSFileLocator& l) {
  return {l.hmkPath(),    l.ksPath(),     l.kpkPath(),   l.hmkNewPath(), l.ksNewPath(),
          l.kpkNewPath(), l.hmkBakPath(), l.ksBakPath(), l.kpkBakPath()};
}

int statusOfDefaultLocator() {
  try {
    KMSFileLocator locator;
  } catch (const KeyStoreError& error) {
    return error.status();
  }
  return 0;
}

}  // namespace

TEST(KMSFileLocator, FormsTheTwelvePathsUnderTheRoot) {
  const KMSFileLocator l("/srv/kms");
  EXPECT_EQ(std::vector<std::string>({l.rootDir(), l.dbDir(), l.keyDir()}),
            std::vector<std::string>({"/srv/kms", "/srv/kms/db", "/srv/kms/key"}));
  EXPECT_EQ(
      nineFiles(l),
      std::vector<std::string>(
          {"/srv/kms/key/KMS_HMKF.dat", "/srv/kms/db/KMS_DATA.dat", "/srv/kms/key/KMS_KPKF.dat",
           "/srv/kms/key/KMS_HMKF.new", "/srv/kms/db/KMS_DATA.new", "/srv/kms/key/KMS_KPKF.new",
           "/srv/kms/key/KMS_HMKF.bak", "/srv/kms/db/KMS_DATA.bak", "/srv/kms/key/KMS_KPKF.bak"}));
  EXPECT_EQ(
      KMSFileLocator::ksFileName() + KMSFileLocator::hmkFileName() + KMSFileLocator::kpkFileName(),
      "KMS_DATA.datKMS_HMKF.datKMS_KPKF.dat");
}

TEST(KMSFileLocator, DefaultRootComesFromTheMasterConfiguration) {
  PlatformTestRoot root;
  LogCapture log;

  EXPECT_EQ(statusOfDefaultLocator(), 1200);  // no configuration at all
  EXPECT_EQ(LogCapture::containing(log.appLines(), "286-32 ").size(), 1u);

  root.writeConf("SERVER = master\n");
  EXPECT_EQ(statusOfDefaultLocator(), 1200);  // no KMS_DIR
  EXPECT_EQ(LogCapture::containing(log.appLines(), "286-33 ").size(), 1u);

  root.writeConf("SERVER = master\nKMS_DIR = /var/lib/kms\n");
  const KMSFileLocator l;
  EXPECT_EQ(l.rootDir(), "/var/lib/kms");
  EXPECT_EQ(l.kpkBakPath(), "/var/lib/kms/key/KMS_KPKF.bak");
  EXPECT_FALSE(LogCapture::containing(log.appLines(),
                                      "286-51 KMSFileLocator::initPathVariables: "
                                      "Key store directory: /var/lib/kms")
                   .empty());
}

TEST(KMSFileLocator, MakesDirectoriesAndFindsAndDeletesEachOfTheNineFiles) {
  TempRoot dir;
  const mode_t previousMask = ::umask(0);
  const KMSFileLocator l(dir.file("store"));
  l.createMissingDirectories();
  l.createMissingDirectories();
  ::umask(previousMask);
  EXPECT_TRUE(isDirectoryWithMode(l.rootDir(), 0700));
  EXPECT_TRUE(isDirectoryWithMode(l.dbDir(), 0700));
  EXPECT_TRUE(isDirectoryWithMode(l.keyDir(), 0700));

  FileOpRecorder recorder;
  {
    ScopedFileFaultHook hook(&recorder);
    EXPECT_FALSE(l.anyFileExists());
  }
  std::vector<std::string> tested;
  for (const FileOperation& op : recorder.operations()) {
    tested.push_back(op.path);
  }
  EXPECT_EQ(tested, nineFiles(l));

  for (const std::string& path : nineFiles(l)) {
    std::ofstream(path) << "x";
    EXPECT_TRUE(l.anyFileExists()) << path;
    l.deleteAllFiles();
    EXPECT_FALSE(exists(path));
    EXPECT_FALSE(l.anyFileExists());
  }

  EXPECT_TRUE(exists(l.dbDir()));
  EXPECT_TRUE(exists(l.keyDir()));

  FailNthFileOp failMkdir(1, ENOSPC, FileOp::Mkdir);
  ScopedFileFaultHook hook(&failMkdir);
  const KMSFileLocator fresh(dir.file("other"));
  try {
    fresh.createMissingDirectories();
    ADD_FAILURE() << "no error";
  } catch (const KeyStoreError& error) {
    EXPECT_EQ(error.status(), 1236);
    EXPECT_EQ(error.function(), "KMSFileLocator::createMissingDirectories");
  }
}
