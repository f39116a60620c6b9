#include "kms/server/CommandLine.h"

#include <gtest/gtest.h>

#include <string>

#include "kms/platform/CrvnLis.h"
#include "support/LogCapture.h"

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
