// What a change leaves outside its tables: the audit entries, and the store's
// fate when its commit fails. (No secret in any log is run by the process tests.)
#include <cerrno>
#include <functional>
#include <regex>
#include <set>

#include "keystore/StoreTestState.h"
#include "kms/platform/Fips.h"
#include "kms/server/keystore/files/FileFaults.h"
#include "kms/server/keystore/records/RecordUtils.h"
#include "support/LogCapture.h"

using namespace Vaultrest::DL::KMS;

namespace {

using storetest::codeOf;
using storetest::FipsDecision;
using storetest::LiveStore;
using storetest::Snapshot;
using storetest::snapshotOf;

// The audit entries of the application log, as (message id, text).
std::vector<std::pair<int, std::string>> auditEntries(const LogCapture& log) {
  static const std::set<int> kAuditIds = {67, 68, 70, 71, 72, 73, 74, 75,
                                          76, 77, 78, 79, 80, 81, 92};
  static const std::regex kEntry(" 286-([0-9]+) [^ ]+: (.*)$");
  std::vector<std::pair<int, std::string>> entries;
  for (const std::string& line : log.appLines()) {
    std::smatch match;
    if (std::regex_search(line, match, kEntry)) {
      const int id = std::stoi(match[1]);
      if (kAuditIds.count(id) != 0) {
        entries.emplace_back(id, match[2]);
      }
    }
  }
  return entries;
}

// The ids of the entries, space-separated.
std::string idsOf(const std::vector<std::pair<int, std::string>>& entries) {
  std::string ids;
  for (const auto& entry : entries) {
    ids += (ids.empty() ? "" : " ") + std::to_string(entry.first);
  }
  return ids;
}

class FileKeyStoreChangeCommitTest : public ::testing::Test {
 protected:
  FipsDecision m_fips;
};

TEST_F(FileKeyStoreChangeCommitTest, AuditEntriesFollowEachChange) {
  LogCapture log(6);
  LiveStore live;
  FileKeyStore& store = *live;
  const KeyGrpRecord_v1 g = live.addGroup("g");
  const KeyRecord_v1 a = live.addKey(g.tag(), "a", KEY_ACTIVE, "words");
  const KeyRecord_v1 b = live.addKey(g.tag(), "b", KEY_ACTIVE);
  KeyRecord_v1 request = store.getKeyRecord(b.tag());
  request.setDescription("described");
  store.updateKeyRecord(request);
  request = store.getKeyRecord(a.tag());
  request.setName("a2");
  store.updateKeyRecord(request);
  const KeyRecord_v1 p = live.addKey(g.tag(), "p", KEY_PRELIVE);
  store.deleteKeyRecord(p.tag());
  KeyGrpRecord_v1 group = store.getKeyGroupRecord(g.tag());
  group.setName("g2");
  group.setDescription("renamed");
  store.updateKeyGroupRecord(group);
  store.deleteKeyGroupRecord(g.tag(), true);
  const std::string keyAdded = " 81 71 72 77 78 74 92";
  const std::string expected = "70 71 72 73 74" + keyAdded +            // group, a added
                               " 76 71 67 77 68 77" + keyAdded +        // a demoted, b added
                               " 76 71 67 72 77 78 74 68 72 77 78 74"   // b described
                               " 76 71 67 72 77 78 68 72 77 78" +       // a renamed
                               keyAdded +                               // p added
                               " 75 71 80 71 67 72 74 68 72 74 79 71";  // p, g, g
  const auto entries = auditEntries(log);
  ASSERT_EQ(idsOf(entries), expected);
  // Spot checks of the texts: the first key added, then demoted.
  const std::string fips = FIPS_mode() != 0 ? "Yes" : "No";
  EXPECT_EQ(entries[6].second, "Tag: " + Utils::binToHex(a.tag()));
  EXPECT_EQ(entries[7].second, "Name: a(61)");
  EXPECT_EQ(entries[10].second, "Description: key.a(6b65792061)");
  EXPECT_EQ(entries[11].second, "FIPS compliant: " + fips);
  EXPECT_EQ(entries[15].second, "State: KEY_ACTIVE");
  EXPECT_EQ(entries[17].second, "State: KEY_INACTIVE");
  EXPECT_EQ(entries[5 + 7 + 6 + 2].second, "Name: b(62)");
  EXPECT_EQ(entries.back().second, "Tag: " + Utils::binToHex(g.tag()));
}

// A commit that fails before the first rename changed nothing on disk: the
// store serves on as it did, and takes the next change.
TEST_F(FileKeyStoreChangeCommitTest, AWriteThatChangedNothingLeavesTheStoreServing) {
  LiveStore live;
  FileKeyStore& store = *live;
  const KeyGrpRecord_v1 g = live.addGroup("g");
  const KeyRecord_v1 a = live.addKey(g.tag(), "a", KEY_ACTIVE);
  for (const char* name : {"k1", "k2", "k3", "k4", "k5", "k6"}) {
    live.addKey(g.tag(), name, KEY_PRELIVE);  // random tags: out of tag order
  }
  const KeyRecord_v1 p = live.addKey(g.tag(), "p", KEY_PRELIVE);
  KeyRecord_v1 legacy = LiveStore::keyRecord(g.tag(), "legacy", KEY_INACTIVE);
  legacy.setTag(std::string(32, 'L'));
  KeyRecord_v1 described = store.getKeyRecord(a.tag());
  described.setDescription("described");
  KeyGrpRecord_v1 renamed = store.getKeyGroupRecord(g.tag());
  renamed.setName("renamed");
  const std::vector<std::pair<const char*, std::function<void()>>> changes = {
      {"updateKeyRecord", [&] { store.updateKeyRecord(described); }},
      {"addKey", [&] { live.addKey(g.tag(), "n", KEY_ACTIVE); }},
      {"addKeyWithKnownTag", [&] { store.addKeyWithKnownTag(legacy, "words"); }},
      {"deleteKeyRecord", [&] { store.deleteKeyRecord(p.tag()); }},
      {"addKeyGroup", [&] { live.addGroup("h"); }},
      {"updateKeyGroupRecord", [&] { store.updateKeyGroupRecord(renamed); }},
      {"deleteKeyGroupRecord", [&] { store.deleteKeyGroupRecord(g.tag(), true); }},
  };
  const Snapshot before = snapshotOf(store);
  const std::vector<std::string> filesBefore = live.files();
  for (const auto& [name, change] : changes) {
    SCOPED_TRACE(name);
    LogCapture log;
    {
      FailNthFileOp fullDisk(1, ENOSPC, FileOp::Fwrite);
      const ScopedFileFaultHook installed(&fullDisk);
      EXPECT_EQ(codeOf(change), 1276);
      EXPECT_TRUE(fullDisk.fired());
    }
    EXPECT_TRUE(store.isInitialized());
    EXPECT_TRUE(snapshotOf(store) == before);
    EXPECT_EQ(live.files(), filesBefore);
    EXPECT_FALSE(auditEntries(log).empty());  // written before the write
  }
  for (const auto& [name, change] : changes) {
    EXPECT_EQ(codeOf(change), 0) << name;
  }
  // "h" alone: "g" went with its keys in every state.
  EXPECT_EQ(store.getStats(), std::make_pair(uint64_t{0}, uint64_t{1}));
}

// A commit failing from the first rename on closes the store; the next init
// finishes the commit (or rolls back a failed first rename).
TEST_F(FileKeyStoreChangeCommitTest, AWriteThatMayHaveChangedTheDiskClosesTheStore) {
  for (size_t failingRename = 1; failingRename <= 6; ++failingRename) {
    SCOPED_TRACE("failing rename " + std::to_string(failingRename));
    LiveStore live;
    FileKeyStore& store = *live;
    const KeyGrpRecord_v1 g = live.addGroup("g");
    const KeyRecord_v1 a = live.addKey(g.tag(), "a", KEY_ACTIVE);
    const Snapshot before = snapshotOf(store);
    {
      FailNthFileOp crossDevice(failingRename, EXDEV, FileOp::Rename);
      const ScopedFileFaultHook installed(&crossDevice);
      EXPECT_EQ(codeOf([&] { live.addKey(g.tag(), "new", KEY_ACTIVE); }), 1277);
    }
    EXPECT_FALSE(store.isInitialized());
    EXPECT_EQ(codeOf([&] { store.getKeyRecord(a.tag()); }), 1202);
    ASSERT_EQ(store.init(), 0);
    EXPECT_TRUE(FileKeyStore::isDbClean(live.locator()));
    if (failingRename == 1) {
      EXPECT_TRUE(snapshotOf(store) == before);
    } else {
      EXPECT_EQ(store.getKey(store.getActiveKeyRecord(g.tag()).tag()).name(), "new");
    }
  }
}

}  // namespace
