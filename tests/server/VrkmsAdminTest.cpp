// The administrator options of the built vrkms: answers fed through a pipe,
// output and exit status read back, the store files opened here afterwards.
#include <gtest/gtest.h>

#include "kms/platform/CrvnLis.h"
#include "kms/platform/Fips.h"
#include "kms/server/keystore/files/KMSFileLocator.h"
#include "kms/server/keystore/store/FileKeyStore.h"
#include "server/ServiceSandbox.h"

using namespace Vaultrest::DL::KMS;

namespace {

using CtlOutput::contains;

std::string msg(int id) {
  return crvnCatalogueText(286, id);
}  // vrkms's message `id`
std::string exitLine(int status) {
  return "\nEXIT STATUS = " + std::to_string(status) + "\n";
}

class VrkmsAdmin : public ::testing::Test {
 protected:
  void SetUp() override {
    m_savedFips = FileKeyStore::g_fips_mode_disabled;
    FileKeyStore::g_fips_mode_disabled = true;  // as vrkms decides without VRKMS_FIPS
  }
  void TearDown() override { FileKeyStore::g_fips_mode_disabled = m_savedFips; }

  const std::string& kmsDir() const { return m_box.kmsDir(); }
  std::string hmkFile() const { return kmsDir() + "/key/KMS_HMKF.dat"; }
  std::string kpkFile() const { return kmsDir() + "/key/KMS_KPKF.dat"; }
  std::string storeFile() const { return kmsDir() + "/db/KMS_DATA.dat"; }
  ProcessResult run(const std::vector<std::string>& a, const std::string& in = "") const {
    return m_box.run(a, in);
  }
  void writeConf(const std::string& text) const { m_box.writePrivate("etc/vr.conf", text); }
  std::string logs() const { return m_box.debugLog() + m_box.appLog(); }
  // "-info" names each key `id` as made from random data (`random`) or not.
  void expectInfo(std::vector<std::pair<std::string, bool>> keys) const {
    const ProcessResult info = run({"-info"});
    EXPECT_EQ(info.exitStatus, 0) << info.err;
    for (const auto& [id, random] : keys) {
      EXPECT_TRUE(contains(info.out, "\tKey ID: " + id + "\n\tGenerated from random data: " +
                                         (random ? "Yes\n" : "No\n")))
          << info.out;
    }
  }
  // The store on disk opens and reads in this process.
  void expectStoreReads() const {
    FileKeyStore store{KMSFileLocator(kmsDir())};
    ASSERT_EQ(store.init(), 0);
    EXPECT_EQ(store.getStats(), std::make_pair(uint64_t{0}, uint64_t{0}));
    EXPECT_EQ(store.shutdown(), 0);
  }
  // Runs `args`, which must fail with `status`.
  void expectRefused(const std::vector<std::string>& args, int status,
                     const std::string& input = "") const {
    const ProcessResult r = run(args, input);
    EXPECT_EQ(r.exitStatus, 252) << args[0] << " " << status;
    EXPECT_TRUE(contains(r.err, exitLine(status))) << args[0] << " " << r.err;
    EXPECT_FALSE(contains(r.err, msg(83)));
  }

  ServiceSandbox m_box;
  bool m_savedFips = false;
};

TEST_F(VrkmsAdmin, CreateWithAllFlagsThenInfoThenResetsFromThePassphrases) {
  ProcessResult r = run({"-CreateEmptyDB", "-hmkpass", "hmk-secret", "-HMKID", "HMK-1", "-kpkpass",
                         "kpk-secret", "-kpkid", "KPK-1"});
  EXPECT_EQ(r.exitStatus, 0) << r.err;
  // Nothing asked; only the registration advice on standard output.
  EXPECT_EQ(r.out, "\n" + msg(94) + "\n");
  EXPECT_EQ(r.err, "\n" + msg(83) + "\n\n" + msg(95) + "\n");

  const ProcessResult info = run({"-info", "ignored", "words"});
  EXPECT_EQ(info.exitStatus, 0) << info.err;
  const std::string key = "\tMaster key information:\n\tKey ID: ",
                    kind =
                        "\n\tGenerated from random data: No\n\tEncryption algorithm: "
                        "AES_256_GCM\n\tFIPS compliant: No\n";
  EXPECT_EQ(info.out,
            msg(28) + "\n" + key + "HMK-1" + kind + msg(29) + "\n" + key + "KPK-1" + kind);
  EXPECT_EQ(info.err, "\n" + msg(83) + "\n");

  expectStoreReads();
  EXPECT_TRUE(contains(logs(), "-hmkpass ****** -HMKID HMK-1 -kpkpass ****** "));
  // Resets: with the file in place the operator is asked first; "no" keeps it.
  expectRefused({"-resethmk", "-hmkpass", "hmk-secret"}, 1209, "no\n");
  expectRefused({"-resetkpk", "-kpkpass", "kpk-secret", "-nooverwrite"}, 1251);
  // Wrong passphrases change nothing.
  expectRefused({"-resethmk", "-overwrite", "-hmkpass", "wrong"}, 1221);
  expectRefused({"-resetkpk", "-overwrite", "-kpkpass", "wrong"}, 1249);
  expectStoreReads();
  // No HMK file: the KPK file cannot be made beside it.
  ASSERT_EQ(::unlink(hmkFile().c_str()), 0);
  r = run({"-resetkpk", "-kpkpass", "kpk-secret"});
  EXPECT_EQ(r.exitStatus, 252);
  EXPECT_TRUE(contains(r.out, msg(85))) << r.out;
  EXPECT_TRUE(contains(r.err, exitLine(1221))) << r.err;

  r = run({"-resethmk", "-hmkpass", "hmk-secret"});
  EXPECT_EQ(r.exitStatus, 0) << r.err;
  EXPECT_EQ(r.err, "\n" + msg(83) + "\n\n" + msg(96) + "\n");
  expectStoreReads();
  // The KPK, asked for on the pipe: an empty entry is refused here.
  ASSERT_EQ(::unlink(kpkFile().c_str()), 0);
  r = run({"-resetkpk"}, "\n\nkpk-secret\nkpk-secret\n");
  EXPECT_EQ(r.exitStatus, 0) << r.err << r.out;
  EXPECT_EQ(r.out, msg(22) + "\n" + msg(4) + " : \n" + msg(2) + " : \n" + msg(18) + "\n" + msg(4) +
                       " : \n" + msg(2) + " : \n");
  EXPECT_EQ(r.err, "\n" + msg(83) + "\n\n" + msg(97) + "\n");
  expectStoreReads();
  // Overwriting a good file with the right passphrase is allowed too.
  r = run({"-resethmk", "-overwrite"}, "hmk-secret\nhmk-secret\n");
  EXPECT_EQ(r.exitStatus, 0) << r.err;
  expectStoreReads();
  EXPECT_FALSE(contains(logs(), "secret")) << logs();
}

TEST_F(VrkmsAdmin, RandomKeysAreReportedAndCannotBeRebuiltFromAPassphrase) {
  const ProcessResult r =
      run({"-createemptydb", "-randomhmk", "-randomkpk", "-hmkid", "h", "-kpkid", "k"});
  EXPECT_EQ(r.exitStatus, 0) << r.err;
  EXPECT_EQ(r.err, "\n" + msg(83) + "\n\n" + msg(98) + "\n");
  EXPECT_FALSE(contains(r.out, msg(1))) << r.out;  // no passphrase asked

  expectInfo({{"h", true}, {"k", true}});
  expectStoreReads();

  expectRefused({"-resethmk", "-noignorerandom", "-hmkpass", "p"}, 1264);
  expectRefused({"-resetkpk", "-kpkpass", "p", "-NOIGNORERANDOM"}, 1265);
  // Asked instead of answered in advance: "no" refuses as the flag does.
  expectRefused({"-resethmk"}, 1264, "No\n");
  // Going on anyway cannot help: no passphrase makes the random key.
  expectRefused({"-resethmk", "-ignorerandom", "-overwrite", "-hmkpass", "p"}, 1221);
  expectStoreReads();
}

TEST_F(VrkmsAdmin, CreateInteractivelyThroughAPipe) {
  // A second entry that differs, an empty id, an empty KPK passphrase whose
  // question is answered wrongly, then accepted.
  const ProcessResult r = run({"-createemptydb"},
                              "alpha-pass\nalpha-pasX\nalpha-pass\nalpha-pass\n\nHMK-I\n\n\nmaybe\n"
                              "YES\nKPK-I\n");
  EXPECT_EQ(r.exitStatus, 0) << r.err << r.out;
  const std::string expectedDialogue =
      msg(5) + "\n" + msg(1) + "\n" +                                        //
      msg(4) + " : \n" + msg(2) + " : \n" + msg(3) + "\n" +                  // mismatch
      msg(4) + " : \n" + msg(2) + " : \n" +                                  //
      msg(14) + " : " + msg(6) + "\n" + msg(14) + " : " +                    // empty id
      msg(8) + "\n" + msg(7) + "\n" + msg(4) + " : \n" + msg(2) + " : \n" +  //
      msg(10) + " : " + msg(11) + "\n" + msg(10) + " : " +                   // yes/no
      msg(15) + " : " + "\n" + msg(94) + "\n";
  EXPECT_EQ(r.out, expectedDialogue);
  EXPECT_TRUE(contains(r.err, msg(98))) << r.err;

  expectInfo({{"HMK-I", false}, {"KPK-I", true}});
  expectStoreReads();
  // Over the existing store: refusing the overwrite keeps it.
  expectRefused({"-createemptydb"}, 1268, "nO\n");
  expectRefused({"-createemptydb", "-nooverwrite", "-randomhmk", "-randomkpk"}, 1268);
  expectInfo({{"HMK-I", false}});
  // Accepted; the empty HMK passphrase declined for a real one still counts
  // as random for the advice.
  const ProcessResult again =
      run({"-createemptydb", "-hmkid", "H2", "-kpkpass", "k", "-kpkid", "K2"},
          "yes\n\n\nno\nbeta\nbeta\n");
  EXPECT_EQ(again.exitStatus, 0) << again.err << again.out;
  EXPECT_TRUE(contains(again.out, msg(13) + " : " + msg(5))) << again.out;
  EXPECT_TRUE(contains(again.err, msg(98))) << again.err;
  expectInfo({{"H2", false}});
  expectStoreReads();

  EXPECT_FALSE(contains(logs(), "alpha-pass") || contains(logs(), "beta")) << logs();
}

TEST_F(VrkmsAdmin, EveryGrammarFaultIs1214AndChangesNothing) {
  const std::vector<std::vector<std::string>> faults{
      {"-createemptydb", "-overwrite", "-nooverwrite"},
      {"-createemptydb", "-hmkpass", "p", "-randomhmk"},
      {"-createemptydb", "-RANDOMKPK", "-kpkpass", "p"},
      {"-createemptydb", "-hmkid", "a", "-hmkid", "b"},
      {"-createemptydb", "-hmkpass"},
      {"-createemptydb", "-kpkid", ""},
      {"-createemptydb", "-randomhmk", "word"},
      {"-createemptydb", "-ignorerandom"},
      {"-createemptydb", "-hmkpassword", "p"},
      {"-resethmk", "-kpkpass", "p"},
      {"-resethmk", "-randomhmk"},
      {"-resethmk", "-ignorerandom", "-noignorerandom"},
      {"-resetkpk", "-hmkpass", "p"},
      {"-resetkpk", "-kpkid", "k"}};
  for (const std::vector<std::string>& args : faults) {
    expectRefused(args, 1214);
  }
  EXPECT_FALSE(exists(kmsDir()));
}

TEST_F(VrkmsAdmin, RefusedWithoutAStoreDirectoryInFipsModeAndOnShortInput) {
  // The store cannot be located: the internal error, its text and code, 252.
  writeConf("SERVER = localhost\n");
  const ProcessResult r = run({"-info"});
  EXPECT_EQ(r.exitStatus, 252);
  EXPECT_EQ(r.err,
            "\n" + std::string(crvnCatalogueText(271, 1200)) + "\n" + exitLine(1200).substr(1));
  EXPECT_TRUE(contains(logs(), "Actual Error Code: 1200 (") && contains(logs(), "286-37 "));
  // FIPS mode asked for where the library has none: the internal error, and why.
  if (FIPS_mode() == 0) {
    writeConf("SERVER = localhost\nKMS_DIR = " + kmsDir() + "\nVRKMS_FIPS = TRUE\n");
    const ProcessResult fips = run({"-info"});
    EXPECT_TRUE(contains(fips.err, exitLine(1200))) << fips.err;
    EXPECT_EQ(fips.out, msg(93) + "\n");
  }
  // Input that ends before the dialogue does is the same internal error.
  writeConf("SERVER = localhost\nKMS_DIR = " + kmsDir() + "\n");
  expectRefused({"-createemptydb"}, 1200, "pass\npass\n");
  expectRefused({"-createemptydb", "-randomhmk", "-randomkpk"}, 1200, "h\n");
  EXPECT_FALSE(exists(storeFile()));
}

TEST_F(VrkmsAdmin, RefusedToAnotherUser) {
  if (::geteuid() != 0) {
    // Not root: this process already is "another user".
    expectRefused({"-info"}, 1267);
    return;
  }
  if (::access("/usr/bin/setpriv", X_OK) != 0) {
    GTEST_SKIP() << "setpriv is needed to run vrkms as another user";
  }
  // As nobody: refused before anything is read from the root, closed to it.
  const ProcessResult r =
      ProcessRunner("/usr/bin/setpriv")
          .args({"--reuid=nobody", "--regid=nogroup", "--clear-groups", VRKMS_BINARY,
                 "-createemptydb", "-randomhmk", "-randomkpk", "-hmkid", "h", "-kpkid", "k"})
          .env("VREST_ROOT", m_box.root().path())
          .run();
  EXPECT_EQ(r.exitStatus, 252) << r.err;
  EXPECT_TRUE(contains(r.err, exitLine(1267))) << r.err;
  EXPECT_FALSE(exists(kmsDir()));
}

}  // namespace
