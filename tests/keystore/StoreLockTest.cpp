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
#include "kms/server/keystore/StoreLockGuards.h"
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
  ACE_RW_Thread_Mutex lock;
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

// 8 groups of 12 keys: the first key of each group active, the rest
// inactive, every second one a KAD twin of its predecessor.
StoreContent busyContent(std::vector<std::string>& groupTags, std::vector<std::string>& keyTags) {
  StoreContent content;
  for (int g = 0; g < 8; ++g) {
    const std::string group = std::string(12, static_cast<char>('A' + g)) + std::string(20, 'g');
    content.addGroup(group, "group " + std::to_string(g));
    groupTags.push_back(group);
    for (int k = 0; k < 12; ++k) {
      std::string tag(32, static_cast<char>('a' + k / 2));
      tag[0] = static_cast<char>('A' + g);
      tag[31] = static_cast<char>('0' + k);
      content.addKey(tag, group, "key " + std::to_string(k), k == 0 ? KEY_ACTIVE : KEY_INACTIVE);
      keyTags.push_back(tag);
    }
  }
  return content;
}

TEST(StoreLockTest, LookupsAndQuiesceRunTogetherAndTheWriterIsNotHeldOff) {
  TempRoot root("vrkms-lock");
  std::vector<std::string> groupTags;
  std::vector<std::string> keyTags;
  const StoreContent content = busyContent(groupTags, keyTags);
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
        const std::string& tag = keyTags[i % keyTags.size()];
        const std::string& group = groupTags[i % groupTags.size()];
        bool ok = store.getKey(tag).key() == content.plainKey(tag);
        ok = ok && store.getKeyRecordsByKad(tag.substr(0, 12), out) == 1243 && out.size() == 2;
        for (const KeyRecord_v1& rec : out) {
          ok = ok && rec.key() == content.plainKey(rec.tag());
        }
        store.getAllKeyRecordsInGroup(group, out);
        ok = ok && out.size() == 12 && out.front().state() == KEY_ACTIVE &&
             out.front().key().empty();
        ok = ok && store.getKeyGroupRecord(group).numKeys() == 12;
        ok = ok && store.isQuiesced() <= 1;
        if (!ok) {
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
  int rounds = 0;
  for (; (rounds < 200 || lookups < target) && Clock::now() < giveUp; ++rounds) {
    const auto asked = Clock::now();
    EXPECT_EQ(store.quiesce(), 1u);
    longestChange = std::max(longestChange, Clock::now() - asked);
    EXPECT_EQ(codeOf([&] { store.deleteKeyRecord(keyTags[0]); }), 1279);
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
  EXPECT_EQ(store.getStats(), std::make_pair(uint64_t{96}, uint64_t{8}));
}

}  // namespace
}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
