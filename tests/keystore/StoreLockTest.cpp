// The store's lock: a waiting writer is not starved by readers that keep
// overlapping.
#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

#include <gtest/gtest.h>

#include "kms/server/keystore/store/StoreLockGuards.h"

using namespace Vaultrest::DL::KMS;

namespace {

// Waits until some other thread holds `turnstile`: a writer is then queued.
void waitForQueuedWriter(ACE_Thread_Mutex& turnstile) {
  while (turnstile.tryacquire() == 0) {
    turnstile.release();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

TEST(StoreLockTest, AWaitingWriterGoesBeforeReadersThatCameAfterIt) {
  StoreLock lock;
  ACE_Thread_Mutex turnstile;
  std::atomic<int> entries{0};
  int writerEntry = 0;
  int lateReaderEntry = 0;
  auto firstReader = std::make_unique<StoreReadGuard>(lock, turnstile);
  ASSERT_TRUE(firstReader->locked());
  std::thread writer([&] {
    StoreWriteGuard guard(lock, turnstile);
    EXPECT_TRUE(guard.locked());
    writerEntry = ++entries;
  });
  waitForQueuedWriter(turnstile);
  std::thread lateReader([&] {
    StoreReadGuard guard(lock, turnstile);
    lateReaderEntry = ++entries;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(entries.load(), 0) << "nobody enters while the first reader holds the lock";
  firstReader.reset();
  writer.join();
  lateReader.join();
  EXPECT_EQ(writerEntry, 1);
  EXPECT_EQ(lateReaderEntry, 2);
}

}  // namespace
