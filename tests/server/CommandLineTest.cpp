// The administrator options' exit statuses and their passphrase dialogue at
// its bound, in this process (the rest is run through a pipe: VrkmsAdminTest).
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "kms/platform/CrvnLis.h"
#include "kms/server/CommandLine.h"
#include "kms/server/KMSSpecialOps.h"
#include "support/LogCapture.h"
#include "support/TempRoot.h"

using namespace Vaultrest::DL::KMS;

// Codes above one byte collapse to 252, and the real code is printed and
// logged; success prints its text and no exit status line.
TEST(KmsStatus, ExitStatusesTextsAndTheLoggedCode) {
  LogCapture log;
  const std::string store1200 = crvnCatalogueText(271, 1200);
  const struct {
    int status, exitStatus;
    std::string err;  // "": only the exit status line is checked
  } rows[] = {{0, 0, "\nOperation successfully completed.\n"},
              {1, 1, ""},
              {255, 255, ""},
              {256, 252, ""},
              {1200, 252, "\n" + store1200 + "\nEXIT STATUS = 1200\n"},
              {1277, 252, ""},
              {-1, 252, "\n\nEXIT STATUS = -1\n"},  // no text of its own
              {-1200, 252, ""}};
  for (const auto& row : rows) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(kmsStatus(row.status), row.exitStatus) << row.status;
    const std::string err = testing::internal::GetCapturedStderr();
    if (!row.err.empty()) {
      EXPECT_EQ(err, row.err);
    } else {
      EXPECT_NE(err.find("EXIT STATUS = " + std::to_string(row.status) + "\n"), std::string::npos);
      EXPECT_EQ(err.rfind("\n", 0), 0u) << err;
    }
    EXPECT_EQ(LogCapture::containing(log.debugLines(),
                                     "Actual Error Code: " + std::to_string(row.status) + " (")
                  .empty(),
              row.exitStatus != 252)
        << row.status;
  }
}

// The longest passphrase that fits, after a pair that differs.
TEST(KMSSpecialOps, PassphraseDialogueTakesTheLongestPassphrase) {
  const auto msg = [](int id) { return std::string(crvnCatalogueText(286, id)); };
  KMSSpecialOps::setIsRandom(false);
  const std::string longest(KMSSpecialOps::KS_MAX_PASS_LEN - 2, 'p');  // line end makes 1023
  TempRoot root{"vrkms-dialogue"};
  std::ofstream(root.file("stdin"), std::ios::binary)
      << "a\nb\n" + longest + "\n" + longest + "\n" + std::string(5000, 'x') + "\nlast";
  ASSERT_NE(std::freopen(root.file("stdin").c_str(), "r", stdin), nullptr);
  testing::internal::CaptureStdout();
  CmnCrypto::Secret out;
  EXPECT_EQ(KMSSpecialOps::getPassphrase(out, 19, false, 0), 0);
  EXPECT_EQ(out.str(), longest);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), msg(19) + "\n" + msg(4) + " : \n" + msg(2) +
                                                        " : \n" + msg(3) + "\n" + msg(4) + " : \n" +
                                                        msg(2) + " : \n");
  EXPECT_FALSE(KMSSpecialOps::getIsRandom());
  // Lines of any length, without the line end.
  EXPECT_EQ(KMSSpecialOps::myGetLine(), std::string(5000, 'x'));
  EXPECT_EQ(KMSSpecialOps::myGetLine(), "last");
  EXPECT_EQ(KMSSpecialOps::myGetLine(), "");
  std::freopen("/dev/null", "r", stdin);
}
