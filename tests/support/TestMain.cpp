// Test entry: every test binary runs under a private installation root, so
// nothing a test does can reach the real one.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <memory>

#include "support/TempRoot.h"

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  ::testing::GTEST_FLAG(death_test_style) = "threadsafe";
  // Files the tests write stand in for the store's own, which the store
  // refuses when group or others may write them: whatever umask the caller has, none are.
  ::umask(022);
  // A death-test child is the same binary run again: it keeps its parent's
  // root, which the parent removes.
  std::unique_ptr<TempRoot> root;
  const bool deathTestChild = !::testing::GTEST_FLAG(internal_run_death_test).empty();
  if (!deathTestChild || std::getenv("VREST_ROOT") == nullptr) {
    root = std::make_unique<TempRoot>("vrkms-test");
    root->exportAsVrestRoot();
  }
  return RUN_ALL_TESTS();
}
