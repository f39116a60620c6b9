#include "kms/server/diagnostics/Messages.h"

#include <gtest/gtest.h>

#include "kms/server/diagnostics/KeyStoreError.h"
#include "support/LogCapture.h"

using Vaultrest::DL::KMS::GetConversion;
using Vaultrest::DL::KMS::GetCxULMessageBottom;
using Vaultrest::DL::KMS::GetCxULMessageEx;
using Vaultrest::DL::KMS::KeyStoreError;

namespace {

// Runs `body`, expecting KeyStoreError 1269 raised under GetCxULMessageBottom.
template <typename Body>
void expectCatalogueFailure(Body body) {
  try {
    body();
    ADD_FAILURE() << "no exception";
  } catch (const KeyStoreError& e) {
    EXPECT_EQ(e.status(), 1269);
    EXPECT_EQ(e.function(), "GetCxULMessageBottom");
    EXPECT_NE(e.line(), 0u);
  }
}

}  // namespace

TEST(Messages, RendersCataloguedTextsOfBothOriginators) {
  EXPECT_EQ(GetCxULMessageEx(286, 83), "Operation successfully completed.");
  EXPECT_EQ(GetCxULMessageEx(271, 1276),
            "Writing the key store failed. The key store files were not changed.");
  // Placeholders without arguments render empty.
  EXPECT_EQ(GetCxULMessageEx(286, 92), "FIPS compliant: ");

  crvnLis lis;
  ASSERT_EQ(crvnLisBuild(&lis, 92, "%s", GetCxULMessageEx(286, 25).c_str()), CRVN_LIS_SUCCESS);
  EXPECT_EQ(GetCxULMessageBottom(286, 92, CRVN_LIS_SUCCESS, &lis), "FIPS compliant: Yes");
  EXPECT_EQ(lis.argCount, 0);  // released
  EXPECT_EQ(GetCxULMessageBottom(286, 83, CRVN_LIS_SUCCESS, nullptr),
            "Operation successfully completed.");
}

TEST(Messages, UnknownMessageThrows1269AndLogsTheCatalogueFailure) {
  LogCapture log;
  expectCatalogueFailure([] { GetCxULMessageEx(286, 9999); });
  expectCatalogueFailure([] { GetCxULMessageEx(271, 1211); });
  const auto lines = log.debugLines();
  EXPECT_EQ(LogCapture::containing(lines,
                                   "message catalog failure: xlatemsg(orgId=286, "
                                   "mssgId=9999) returned status 2 (message not found "
                                   "in catalogue) (Messages.cpp:")
                .size(),
            1u);
  EXPECT_EQ(
      LogCapture::containing(lines, "xlatemsg(orgId=271, mssgId=1211) returned status 2").size(),
      1u);
  // Each throw is announced with the error's long text.
  EXPECT_EQ(LogCapture::containing(lines, "Throwing Exception: Status=1269 (").size(), 2u);
}

TEST(Messages, FailedBuildThrows1269AndNamesTheResult) {
  LogCapture log;
  crvnLis lis;
  ASSERT_EQ(crvnLisBuild(&lis, 47, "%s", "left over"), CRVN_LIS_SUCCESS);
  expectCatalogueFailure([&] { GetCxULMessageBottom(286, 47, CRVN_LIS_NO_MEMORY, &lis); });
  EXPECT_EQ(lis.argCount, 0);  // released on the failure path too
  expectCatalogueFailure([] { GetCxULMessageBottom(286, 83, 42, nullptr); });

  const auto lines = log.debugLines();
  EXPECT_EQ(LogCapture::containing(lines,
                                   "message catalog failure: crvnLis(mssgId=47) returned "
                                   "status -3 (out of memory) (")
                .size(),
            1u);
  // A result without a text leaves out the part in brackets.
  EXPECT_EQ(LogCapture::containing(lines,
                                   "message catalog failure: crvnLis(mssgId=83) returned "
                                   "status 42 (Messages.cpp:")
                .size(),
            1u);
}

TEST(Messages, ConversionsBuildAnArgumentFormat) {
  // The historical table, quirks included, drives the argument builder.
  const std::string format = GetConversion(static_cast<short>(-3)) + GetConversion(7UL) +
                             GetConversion('c') + GetConversion(std::string("s"));
  EXPECT_EQ(format, "%hd%lud%c%s");
  crvnLis lis;
  ASSERT_EQ(crvnLisBuild(&lis, 89, format.c_str(), static_cast<short>(-3), 7UL, 'c', "s"),
            CRVN_LIS_SUCCESS);
  EXPECT_EQ(GetCxULMessageBottom(286, 89, CRVN_LIS_SUCCESS, &lis),
            "Assertion failed: (-3) in file 7 at line cs");

  EXPECT_EQ(GetConversion(1.0), "%f");
  EXPECT_EQ(GetConversion(1.0f), "%lf");
  EXPECT_EQ(GetConversion("x"), "%s");
  EXPECT_EQ(GetConversion(1L), "%ld");
  EXPECT_EQ(GetConversion(1U), "%u");
  EXPECT_EQ(GetConversion(1), "%d");
}
