// Test entry: every test binary runs under a private installation root, so
// nothing a test does can reach the real one.
#include <gtest/gtest.h>

#include "support/TempRoot.h"

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  ::testing::GTEST_FLAG(death_test_style) = "threadsafe";
  TempRoot root("vrkms-test");
  root.exportAsVrestRoot();
  return RUN_ALL_TESTS();
}
