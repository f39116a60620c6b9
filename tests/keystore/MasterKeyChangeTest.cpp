// Changing the HMK and the KPK of a live store on real files.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <string>
#include <vector>

#include "keystore/MasterKeyTestUtil.h"
#include "keystore/StoreTestState.h"
#include "kms/platform/Fips.h"
#include "kms/server/keystore/files/FileFaults.h"

namespace masterkeytest {
namespace {

using storefiles::contentsOf;
using storefiles::maskOf;
using storefiles::readBytes;
using storefiles::writeBytes;
using storetest::codeOf;

const std::string kHmkPass = "first hmk words";
const std::string kKpkPass = "first kpk words";
const std::string kNewPass = "the new words";

enum class Rekey { Hmk, Kpk };

std::string nameOf(const ::testing::TestParamInfo<Rekey>& info) {
  return info.param == Rekey::Hmk ? "Hmk" : "Kpk";
}

int rekey(FileKeyStore& store, Rekey which, const std::string& passphrase, const std::string& id) {
  return which == Rekey::Hmk ? store.updateHMK(passphrase, id) : store.updateKPK(passphrase, id);
}

// The facts of one master key as one text.
std::string describe(const KeyInfo& info) {
  return info.id + "/" + std::to_string(static_cast<int>(info.algorithm)) +
         (info.random ? "/random" : "/passphrase") + (info.fips ? "/fips" : "/no-fips");
}

// A live store made from passphrases, holding three keys.
class MasterKeyChange : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(store().createEmpty(kHmkPass, "hmk-1", kKpkPass, "kpk-1", false), 0);
    m_plain = seedKeys(locator(), 3);
    ASSERT_EQ(store().init(), 0);
  }

  FileKeyStore& store() { return m_root.store(); }
  const KMSFileLocator& locator() const { return m_root.locator(); }

  // Everything a client can see of the live state.
  std::vector<std::string> liveView() {
    std::vector<std::string> view{describe(store().getHMKInfo()), describe(store().getKPKInfo())};
    view.push_back(std::to_string(store().getStats().first));
    for (const auto& entry : m_plain) {
      view.push_back(store().getKey(entry.first).key());
    }
    return view;
  }

  MasterKeyRoot m_root;
  std::map<std::string, std::string> m_plain;
};

class MasterKeyRekey : public MasterKeyChange, public ::testing::WithParamInterface<Rekey> {
 protected:
  int change(const std::string& passphrase, const std::string& id) {
    return rekey(store(), GetParam(), passphrase, id);
  }
  std::string changedId(FileKeyStore& s) {
    return GetParam() == Rekey::Hmk ? s.getHMKId() : s.getKPKId();
  }
};

TEST_P(MasterKeyRekey, TheNewKeyComesBackFromTheNewPassphraseAndNoneGivesARandomKey) {
  const bool hmk = GetParam() == Rekey::Hmk;
  const std::string& path = hmk ? locator().hmkPath() : locator().kpkPath();
  const auto remake = [&](const std::string& passphrase) {
    return hmk ? store().createHMKFile(passphrase, false, true)
               : store().createKPKFile(passphrase, false, true);
  };
  const std::vector<std::string> before = liveView();
  ASSERT_EQ(change(kNewPass, "new-id"), 0);
  // Live at once: the new id and facts, the same keys, the other key as it was.
  std::vector<std::string> after = liveView();
  EXPECT_EQ(after[hmk ? 1 : 0], before[hmk ? 1 : 0]);
  EXPECT_EQ(after[hmk ? 0 : 1], std::string("new-id/") + std::to_string(KSCrypt::AES_256_GCM) +
                                    "/passphrase" + (FIPS_mode() != 0 ? "/fips" : "/no-fips"));
  after.erase(after.begin(), after.begin() + 2);
  EXPECT_EQ(after, std::vector<std::string>(before.begin() + 2, before.end()));
  ASSERT_EQ(store().shutdown(), 0);
  ASSERT_EQ(::unlink(path.c_str()), 0);
  EXPECT_EQ(remake(hmk ? kHmkPass : kKpkPass), hmk ? 1221 : 1249);
  ASSERT_EQ(remake(kNewPass), 0);
  ASSERT_EQ(store().init(), 0);
  expectServes(store(), m_plain);

  ASSERT_EQ(change("", "random-id"), 0);
  const auto random = [&](FileKeyStore& s) {
    return (hmk ? s.getHMKInfo() : s.getKPKInfo()).random;
  };
  EXPECT_TRUE(random(store()));
  const DiskState disk = readDisk(locator());
  EXPECT_TRUE((hmk ? disk.meta->hmkSalt() : disk.meta->kpkSalt()).empty());
  FileKeyStore& again = m_root.restart();
  ASSERT_EQ(again.init(), 0);
  EXPECT_TRUE(random(again));
  expectServes(again, m_plain);
}

TEST_P(MasterKeyRekey, RefusalsAndFailedCommitsKeepTheOldKeysLiveOrTakeTheStoreDown) {
  const std::vector<std::string> view = liveView();
  const std::vector<std::string> files = contentsOf(locator());
  EXPECT_EQ(change(kNewPass, ""), 1214);

  {
    FailNthFileOp failFsync(1, EIO, FileOp::Fsync);
    ScopedFileFaultHook hook(&failFsync);
    EXPECT_EQ(change(kNewPass, "new-id"), 1276);
    EXPECT_TRUE(failFsync.fired());
  }
  EXPECT_TRUE(store().isInitialized());
  EXPECT_EQ(liveView(), view);
  EXPECT_EQ(contentsOf(locator()), files);

  // Leftovers of an unfinished commit: refused, the store down.
  writeBytes(locator().kpkNewPath(), "leftover");
  EXPECT_EQ(change(kNewPass, "new-id"), 1200);
  EXPECT_FALSE(store().isInitialized());
  ASSERT_EQ(::unlink(locator().kpkNewPath().c_str()), 0);
  EXPECT_EQ(contentsOf(locator()), files);
  ASSERT_EQ(store().init(), 0);
  EXPECT_EQ(liveView(), view);

  {
    FailNthFileOp failRename(2, EIO, FileOp::Rename);
    ScopedFileFaultHook hook(&failRename);
    EXPECT_EQ(change(kNewPass, "new-id"), 1277);
  }
  EXPECT_FALSE(store().isInitialized());
  ASSERT_EQ(store().init(), 0);
  EXPECT_EQ(changedId(store()), "new-id");
  expectServes(store(), m_plain);

  EXPECT_EQ(change("", "third-id"), 0);
  EXPECT_EQ(changedId(store()), "third-id");
}

TEST_P(MasterKeyRekey, ACrashAtAnyFileOperationLeavesTheOldOrTheNewKeysWhole) {
  const storefiles::StoreBytes old{readBytes(locator().hmkPath()), readBytes(locator().kpkPath()),
                                   readBytes(locator().ksPath())};
  const std::vector<std::string> oldFiles = contentsOf(locator());
  const DiskState oldDisk = readDisk(locator());
  const std::string oldId = changedId(store());
  ASSERT_EQ(store().shutdown(), 0);

  size_t crashes = 0;
  size_t oldSeen = 0;
  size_t newSeen = 0;
  for (size_t n = 1;; ++n) {
    ASSERT_LT(n, 1000u) << "the change never completed";
    storefiles::removeAll(locator());
    storefiles::placeDat(locator(), old);

    const pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      FileKeyStore child(locator());
      if (child.init() != 0) {
        ::_exit(3);
      }
      CrashAtNthFileOp crash(n);
      FileFaults::install(&crash);
      const int rc = rekey(child, GetParam(), kNewPass, "new-id");
      FileFaults::install(nullptr);
      ::_exit(rc == 0 ? 0 : 4);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    const int code = WEXITSTATUS(status);
    ASSERT_TRUE(code == 0 || code == FileFaults::kCrashExitStatus)
        << "crash at " << n << ": exit " << code;
    SCOPED_TRACE("crash at file operation " + std::to_string(n));

    FileKeyStore& after = m_root.restart();
    ASSERT_EQ(after.init(), 0);
    EXPECT_EQ(maskOf(locator()), 0x124u);
    expectServes(after, m_plain);
    const DiskState disk = readDisk(locator());
    const bool changed = changedId(after) != oldId;
    if (!changed) {
      ++oldSeen;
      EXPECT_EQ(contentsOf(locator()), oldFiles);
    } else {
      ++newSeen;
      EXPECT_EQ(changedId(after), "new-id");
      if (GetParam() == Rekey::Hmk) {
        EXPECT_EQ(disk.hmk->key(), stretched(kNewPass, disk.meta->hmkSalt()));
        EXPECT_EQ(disk.plainKpk, oldDisk.plainKpk);
        EXPECT_EQ(disk.wrappedKeys(), oldDisk.wrappedKeys());
      } else {
        EXPECT_EQ(readBytes(locator().hmkPath()), old.hmk);
        EXPECT_EQ(disk.plainKpk, stretched(kNewPass, disk.meta->kpkSalt()));
        for (const auto& entry : disk.wrappedKeys()) {
          EXPECT_NE(entry.second, oldDisk.wrappedKeys().at(entry.first));
        }
      }
    }
    ASSERT_EQ(after.shutdown(), 0);
    if (code == 0) {
      EXPECT_TRUE(changed) << "a completed change must leave the new keys";
      break;
    }
    ++crashes;
  }
  EXPECT_GT(crashes, 20u);
  EXPECT_GT(oldSeen, 0u);
  EXPECT_GT(newSeen, 0u);
}

INSTANTIATE_TEST_SUITE_P(BothMasterKeys, MasterKeyRekey, ::testing::Values(Rekey::Hmk, Rekey::Kpk),
                         nameOf);

}  // namespace
}  // namespace masterkeytest
