// The store's lock under load: a waiting writer is not starved by readers
// that keep overlapping, and lookups and quiesce changes run side by side
// without a data race (this binary is also run under ThreadSanitizer).
#include <atomic>
#include <chrono>
#include <list>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "keystore/StoreTestState.h"
#include "kms/server/keystore/store/StoreLockGuards.h"
#include "support/TempRoot.h"

namespace Vaultrest {
namespace DL {
namespace KMS {
namespace {

using Clock = std::chrono::steady_clock;
using storetest::codeOf;
using storetest::MemoryStore;
using storetest::StoreContent;

long long millis(Clock::duration d) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(d).count();
}

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

TEST(StoreLockTest, LookupsAndQuiesceRunTogetherAndTheWriterIsNotHeldOff) {
  TempRoot root("vrkms-lock");
  StoreContent content;
  const std::string group(32, 'g');
  content.addGroup(group, "group");
  std::vector<std::string> tags;
  for (char k = 'a'; k < 'a' + 12; ++k) {
    tags.push_back(std::string(32, k));
    content.addKey(tags.back(), group, std::string(1, k), k == 'a' ? KEY_ACTIVE : KEY_INACTIVE);
  }
  MemoryStore store{KMSFileLocator(root.path())};
  store.install(content);

  std::atomic<bool> stop{false};
  std::atomic<long> lookups{0};
  std::atomic<long> failures{0};
  const auto giveUp = Clock::now() + std::chrono::seconds(60);
  std::vector<std::thread> readers;
  for (int r = 0; r < 4; ++r) {
    readers.emplace_back([&, r] {
      std::list<KeyRecord_v1> out;
      for (size_t i = r; !stop && Clock::now() < giveUp; ++i) {
        const std::string& tag = tags[i % tags.size()];
        store.getAllKeyRecordsInGroup(group, out);
        if (store.getKey(tag).key() != content.plainKey(tag) || out.size() != 12 ||
            store.isQuiesced() > 1) {
          ++failures;
        }
        ++lookups;
      }
    });
  }

  // The writer starts once the readers are busy and goes on until they have
  // done another 2,000 lookups alongside it (at least 200 rounds).
  while (lookups < 40) {
    std::this_thread::yield();
  }
  const long target = lookups + 2000;
  Clock::duration longestChange{};
  for (int rounds = 0; (rounds < 200 || lookups < target) && Clock::now() < giveUp; ++rounds) {
    const auto asked = Clock::now();
    EXPECT_EQ(store.quiesce(), 1u);
    longestChange = std::max(longestChange, Clock::now() - asked);
    EXPECT_EQ(codeOf([&] { store.deleteKeyRecord(tags[0]); }), 1279);
    EXPECT_EQ(store.unquiesce(false), 0u);
  }
  stop = true;
  for (std::thread& reader : readers) {
    reader.join();
  }
  EXPECT_EQ(failures.load(), 0);
  EXPECT_GE(lookups.load(), target);
  // Each change waits at most for the lookups already running; behind the
  // reader-preferring lock alone a single change waits for seconds.
  EXPECT_LT(millis(longestChange), 1000);
}

}  // namespace
}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
