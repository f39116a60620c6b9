// The administrator options' exit statuses and their passphrase dialogue at
// its bound, in this process (the rest is run through a pipe: VrkmsAdminTest).
#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "kms/platform/CrvnLis.h"
#include "kms/server/CommandLine.h"
#include "kms/server/KMSSpecialOps.h"
#include "support/LogCapture.h"
#include "support/TempRoot.h"

using namespace Vaultrest::DL::KMS;

// Codes above one byte collapse to 252, and the real code is printed and
// logged. (Success and 1200 with its text: VrkmsAdminTest.)
TEST(KmsStatus, ExitStatusesAndTheLoggedCode) {
  LogCapture log;
  const std::pair<int, int> rows[] = {{1, 1},      {255, 255}, {256, 252},  {1200, 252},
                                      {1277, 252}, {-1, 252},  {-1200, 252}};
  for (const auto& [status, exitStatus] : rows) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(kmsStatus(status), exitStatus) << status;
    const std::string err = testing::internal::GetCapturedStderr(), code = std::to_string(status);
    EXPECT_EQ(err.rfind("\n", 0), 0u) << err;
    EXPECT_EQ(err.find("\nEXIT STATUS = " + code + "\n"), err.size() - 16 - code.size()) << err;
    EXPECT_EQ(LogCapture::containing(log.debugLines(), "Actual Error Code: " + code + " (").empty(),
              exitStatus != 252)
        << status;
  }
}

// The longest passphrase that fits, after a pair that differs. (The
// dialogue's texts: VrkmsAdminTest.)
TEST(KMSSpecialOps, PassphraseDialogueTakesTheLongestPassphrase) {
  KMSSpecialOps::setIsRandom(false);
  const std::string longest(KMSSpecialOps::KS_MAX_PASS_LEN - 2, 'p');  // line end makes 1023
  TempRoot root{"vrkms-dialogue"};
  writeFile(root.file("stdin"),
            "a\nb\n" + longest + "\n" + longest + "\n" + std::string(5000, 'x') + "\nlast");
  ASSERT_NE(std::freopen(root.file("stdin").c_str(), "r", stdin), nullptr);
  testing::internal::CaptureStdout();
  CmnCrypto::Secret out;
  EXPECT_EQ(KMSSpecialOps::getPassphrase(out, 19, false, 0), 0);
  EXPECT_EQ(out.str(), longest);
  EXPECT_EQ(
      testing::internal::GetCapturedStdout().find(std::string(crvnCatalogueText(286, 19)) + "\n"),
      0u);
  // Lines of any length, without the line end.
  EXPECT_EQ(KMSSpecialOps::myGetLine(), std::string(5000, 'x'));
  EXPECT_EQ(KMSSpecialOps::myGetLine(), "last");
  EXPECT_EQ(KMSSpecialOps::myGetLine(), "");
  std::freopen("/dev/null", "r", stdin);
}
