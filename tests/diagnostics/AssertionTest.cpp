#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>

#include "kms/server/diagnostics/Raise.h"
#include "support/LogCapture.h"

TEST(AssertionDeathTest, LogsTheCataloguedTextAndAborts) {
  // The dying statement runs in a new process of this binary, which gets a
  // root of its own; this variable makes both write to the same log.
  const char* kDirVariable = "VRKMS_TEST_ASSERTION_LOG";
  std::optional<TempRoot> own;
  if (std::getenv(kDirVariable) == nullptr) {
    own.emplace("vrkms-assert");
    setenv(kDirVariable, own->path().c_str(), 1);
  }
  LogCapture log(1, std::getenv(kDirVariable));
  const int line = __LINE__ + 1;
  EXPECT_DEATH(KS_ASSERT("RecordTable::addRecord", 1 + 1 == 3), "");
  unsetenv(kDirVariable);

  const auto lines = LogCapture::containing(log.appLines(), "286-89 RecordTable::addRecord: ");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("Assertion failed: (1 + 1 == 3) in file AssertionTest.cpp at line " +
                          std::to_string(line)),
            std::string::npos)
      << lines[0];
}
