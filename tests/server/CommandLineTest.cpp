#include "kms/server/CommandLine.h"

#include <gtest/gtest.h>

#include <string>

#include "kms/platform/CrvnLis.h"
#include "support/LogCapture.h"

using namespace Vaultrest::DL::KMS;

namespace {

struct Reported {
  int exitStatus;
  std::string err;
};

Reported report(int status) {
  testing::internal::CaptureStderr();
  const int exitStatus = kmsStatus(status);
  return Reported{exitStatus, testing::internal::GetCapturedStderr()};
}

}  // namespace

TEST(KmsStatus, SuccessPrintsTheSuccessTextAndNoExitStatusLine) {
  const Reported r = report(0);
  EXPECT_EQ(r.exitStatus, 0);
  EXPECT_EQ(r.err, "\nOperation successfully completed.\n");
}

TEST(KmsStatus, CodesAboveOneByteCollapseTo252AndTheRealCodeIsPrintedAndLogged) {
  LogCapture log;
  struct Case {
    int status;
    int exitStatus;
  };
  for (const Case& c : {Case{1, 1}, Case{255, 255}, Case{256, 252}, Case{1200, 252},
                        Case{1277, 252}, Case{-1, 252}, Case{-1200, 252}}) {
    const Reported r = report(c.status);
    EXPECT_EQ(r.exitStatus, c.exitStatus) << c.status;
    const std::string exitLine = "EXIT STATUS = " + std::to_string(c.status) + "\n";
    EXPECT_NE(r.err.find(exitLine), std::string::npos) << r.err;
    EXPECT_EQ(r.err.rfind("\n", 0), 0u) << r.err;
    EXPECT_EQ(LogCapture::containing(log.debugLines(),
                                     "Actual Error Code: " + std::to_string(c.status) + " (")
                  .empty(),
              c.exitStatus != 252)
        << c.status;
  }
  // The long text of a store code comes from the shared status catalogue; a
  // code it does not know falls back to the short text, here none.
  EXPECT_EQ(report(1200).err,
            "\n" + std::string(crvnCatalogueText(271, 1200)) + "\nEXIT STATUS = 1200\n");
  EXPECT_EQ(report(-1).err, "\n\nEXIT STATUS = -1\n");
}
