// Changes of keys and key groups on a live store over real files: the
// validity rules, every refusal, the limits, where key material comes from,
// the audit entries and failed commits.
#include <cerrno>
#include <cstring>
#include <functional>
#include <regex>
#include <set>
#include <tuple>

#include "keystore/StoreTestState.h"
#include "kms/platform/Fips.h"
#include "kms/platform/MangleRandom.h"
#include "kms/server/keystore/crypto/KeyGen.h"
#include "kms/server/keystore/files/FileFaults.h"
#include "kms/server/keystore/records/RecordUtils.h"
#include "support/LogCapture.h"

using namespace Vaultrest::DL::KMS;

namespace {

using storetest::codeOf;
using storetest::ConfiguredLimits;
using storetest::FipsDecision;
using storetest::LiveStore;
using storetest::Snapshot;
using storetest::snapshotOf;

const char* expectedFipsAttribute() {
  return FIPS_mode() != 0 ? "true" : "false";
}

TEST(KeyChangeRulesTest, KeysMoveOneStepAlongTheLineAndNeverBackToPrelive) {
  const std::set<std::pair<int, int>> steps = {
      {KEY_PRELIVE, KEY_ACTIVE},        {KEY_ACTIVE, KEY_INACTIVE},
      {KEY_INACTIVE, KEY_ACTIVE},       {KEY_INACTIVE, KEY_DEPRECATED},
      {KEY_DEPRECATED, KEY_INACTIVE},   {KEY_DEPRECATED, KEY_TERMINATED},
      {KEY_TERMINATED, KEY_DEPRECATED},
  };
  const int values[] = {-1, 0, 1, 2, 3, 4, 5, 6, 99};
  for (int from : values) {
    for (int to : values) {
      const bool expected = from == to || steps.count({from, to}) != 0;
      EXPECT_EQ(FileKeyStore::isValidKeyStateChange(static_cast<ks_keystate_t>(from),
                                                    static_cast<ks_keystate_t>(to)),
                expected)
          << from << " -> " << to;
    }
  }
  for (int v : values) {
    EXPECT_EQ(FileKeyStore::isValidKeyState(static_cast<ks_keystate_t>(v)), v >= 1 && v <= 5) << v;
    EXPECT_EQ(FileKeyStore::isValidCipherType(static_cast<ks_ciphertype_t>(v)), v >= 1 && v <= 4)
        << v;
  }
}

TEST(KeyChangeRulesTest, NamesBeginAlphanumericAndUseFewMarks) {
  const std::pair<std::string, bool> cases[] = {
      {"a b", true},        {" ab", false},
      {"a/b", false},       {"ab\n", true},
      {"", false},          {"a.:-_", true},
      {"9", true},          {"a\tb ", true},
      {"_a", false},        {".a", false},
      {"a\xc3\xa9", false}, {"\xc3\xa9t\xc3\xa9", false},
      {"a,b", false},       {std::string("a\0b", 3), false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(FileKeyStore::IsValidName(c.first), c.second) << '"' << c.first << '"';
  }
}

// A live store over real files.
class FileKeyStoreChangesTest : public ::testing::Test {
 protected:
  FipsDecision m_fips;
  LiveStore live;
  FileKeyStore& store = *live;
};

// Every refusal of a change, each reported by its code, none changing what
// the store serves or what is on disk.
TEST_F(FileKeyStoreChangesTest, EveryRefusalLeavesTablesAndFilesAsTheyWere) {
  const KeyGrpRecord_v1 g1 = live.addGroup("g1");
  const KeyGrpRecord_v1 g2 = live.addGroup("g2", CT_AES128_CBC);
  live.addGroup("g3");
  const KeyRecord_v1 k1 = live.addKey(g1.tag(), "k1", KEY_ACTIVE);
  const KeyRecord_v1 k2 = live.addKey(g1.tag(), "k2", KEY_ACTIVE);  // k1 now inactive
  live.addKey(g2.tag(), "q1", KEY_ACTIVE);
  const std::string unknown(32, 'u');
  using KeyEdit = std::function<void(KeyRecord_v1&)>;
  using GroupEdit = std::function<void(KeyGrpRecord_v1&)>;
  // Calls handing over an edited record: a new active key "x" in g1; a new
  // inactive key "x" of an unused known tag; the record of `base` as read
  // now; a new group "x"; g1 as read now.
  const auto add = [&](KeyEdit edit) {
    return [&, edit] {
      KeyRecord_v1 r = LiveStore::keyRecord(g1.tag(), "x", KEY_ACTIVE);
      edit(r);
      store.addKey(r, "");
    };
  };
  const auto known = [&](KeyEdit edit, std::string pass = "pass") {
    return [&, edit, pass] {
      KeyRecord_v1 r = LiveStore::keyRecord(g1.tag(), "x", KEY_INACTIVE);
      r.setTag(unknown);
      edit(r);
      store.addKeyWithKnownTag(r, pass);
    };
  };
  const auto update = [&](const KeyRecord_v1& base, KeyEdit edit) {
    return [&, base, edit] {
      KeyRecord_v1 r = store.getKeyRecord(base.tag());
      edit(r);
      store.updateKeyRecord(r);
    };
  };
  const auto addGroup = [&](GroupEdit edit) {
    return [&, edit] {
      KeyGrpRecord_v1 r;
      r.setName("x");
      r.setCipherType(CT_AES256_CBC);
      edit(r);
      store.addKeyGroup(r);
    };
  };
  const auto updateGroup = [&](GroupEdit edit) {
    return [&, edit] {
      KeyGrpRecord_v1 r = store.getKeyGroupRecord(g1.tag());
      edit(r);
      store.updateKeyGroupRecord(r);
    };
  };
  // `count` attributes of `bytes` bytes each, beyond a record's bounds.
  const auto crowd = [](AttributeList& list, int count, size_t bytes) {
    for (int i = 0; i < count; ++i) {
      list.addAttribute("a" + std::to_string(i), std::string(bytes, 'v'));
    }
  };
  const auto none = [](auto&) {};
  // (The process tests also run a bad key name, a stale update, a move to
  // another cipher type, the deletion of an inactive key, a group name taken,
  // a group update of nothing and the deletion of a group with keys.)
  const std::vector<std::tuple<const char*, int, std::function<void()>>> cases = {
      // addKey and addKeyWithKnownTag, in the order of their checks.
      {"add: empty name", 1214, add([](auto& r) { r.setName(""); })},
      {"add: 65 attributes", 1214, add([&](auto& r) { crowd(r.attributes(), 65, 1); })},
      {"add: inactive", 1214, add([](auto& r) { r.setState(KEY_INACTIVE); })},
      {"add: terminated", 1214, add([](auto& r) { r.setState(KEY_TERMINATED); })},
      {"known: no passphrase", 1212, known(none, "")},
      {"known: active", 1214, known([](auto& r) { r.setState(KEY_ACTIVE); })},
      {"known: empty tag", 1215, known([](auto& r) { r.setTag(""); })},
      {"add: unknown group", 1229, add([&](auto& r) { r.setKeyGroup(unknown); })},
      {"add: name taken", 1231, add([](auto& r) { r.setName("k1"); })},
      {"known: tag taken", 1233, known([&](auto& r) { r.setTag(k1.tag()); })},
      {"add: no KPK to wrap with", 1200, add([](auto& r) { r.setKpkType(KPK_INVALID); })},
      // updateKeyRecord.
      {"update: empty name", 1214, update(k1, [](auto& r) { r.setName(""); })},
      {"update: state 0", 1214, update(k1, [](auto& r) { r.setState(KEY_INVALID); })},
      {"update: bad name", 1287, update(k1, [](auto& r) { r.setName("k/1"); })},
      {"update: 64 KiB of attributes", 1214,
       update(k1, [&](auto& r) { crowd(r.attributes(), 16, 4096); })},
      {"update: unknown tag", 1260, update(k1, [&](auto& r) { r.setTag(unknown); })},
      {"update: nothing", 1241, update(k1, none)},
      {"update: only another key value", 1241,
       update(k1, [](auto& r) { r.setKey(std::string(32, 'K')); })},
      {"update: old update time", 1228,
       update(k1,
              [](auto& r) {
                r.setUpdateTime(r.updateTime() - 1);
                r.setDescription("changed");
              })},
      {"update: other create time", 1228,
       update(k1, [](auto& r) { r.setCreateTime(r.createTime() + 1); })},
      {"update: KPK tag", 1253, update(k1, [](auto& r) { r.setKpkTag("other"); })},
      {"update: active to deprecated", 1240,
       update(k2, [](auto& r) { r.setState(KEY_DEPRECATED); })},
      {"update: to unknown group", 1229, update(k1, [&](auto& r) { r.setKeyGroup(unknown); })},
      {"update: rename onto a sibling", 1231, update(k1, [](auto& r) { r.setName("k2"); })},
      // deleteKeyRecord: only the two ends of the line.
      {"delete key: unknown", 1260, [&] { store.deleteKeyRecord(unknown); }},
      {"delete key: active", 1242, [&] { store.deleteKeyRecord(k2.tag()); }},
      // Groups.
      {"add group: empty name", 1214, addGroup([](auto& r) { r.setName(""); })},
      {"add group: cipher type 0", 1214,
       addGroup([](auto& r) { r.setCipherType(CT_INVALID_CBC); })},
      {"add group: bad name", 1287, addGroup([](auto& r) { r.setName("x/y"); })},
      {"add group: 65 attributes", 1214, addGroup([&](auto& r) { crowd(r.attributes(), 65, 1); })},
      {"update group: 64 KiB of attributes", 1214,
       updateGroup([&](auto& r) { crowd(r.attributes(), 16, 4096); })},
      {"update group: empty name", 1214, updateGroup([](auto& r) { r.setName(""); })},
      {"update group: bad name", 1287, updateGroup([](auto& r) { r.setName("-g1"); })},
      {"update group: unknown", 1229, updateGroup([&](auto& r) { r.setTag(unknown); })},
      {"update group: old revision", 1228, updateGroup([](auto& r) {
         r.setRev(r.rev() - 1);
         r.setDescription("changed");
       })},
      {"update group: cipher type", 1228,
       updateGroup([](auto& r) { r.setCipherType(CT_AES128_CBC); })},
      {"delete group: unknown", 1229, [&] { store.deleteKeyGroupRecord(unknown, true); }},
  };
  const Snapshot before = snapshotOf(store);
  const std::vector<std::string> filesBefore = live.files();
  ASSERT_EQ(before.groups.size(), 3u);
  for (const auto& [what, expected, call] : cases) {
    SCOPED_TRACE(what);
    EXPECT_EQ(codeOf(call), expected);
    EXPECT_TRUE(snapshotOf(store) == before);
    EXPECT_EQ(live.files(), filesBefore);
  }
}

TEST_F(FileKeyStoreChangesTest, LimitsComeFromTheConfigurationAndZeroMeansNone) {
  const auto limitsOf = [](LiveStore& s) {
    return std::make_pair(s.store().maxKeyGroups(), s.store().maxKeysPerGroup());
  };
  EXPECT_EQ(limitsOf(live), std::make_pair(100L, 30L));
  {
    // One limit alone, which keeps its sign.
    const storetest::ServiceConfFile conf("[KMSConfig]\n\"max_keys_per_group\"=dword:ffffffff\n");
    LiveStore partial;
    EXPECT_EQ(limitsOf(partial), std::make_pair(100L, -1L));
  }
  {
    const ConfiguredLimits limits(2, 2);
    LiveStore live;
    const KeyGrpRecord_v1 full = live.addGroup("full");
    const KeyGrpRecord_v1 other = live.addGroup("other");
    live.addKey(full.tag(), "a", KEY_ACTIVE);
    live.addKey(full.tag(), "b", KEY_PRELIVE);
    const KeyRecord_v1 c = live.addKey(other.tag(), "c", KEY_ACTIVE);
    const Snapshot before = snapshotOf(*live);
    EXPECT_EQ(codeOf([&] { live.addGroup("third"); }), 1262);
    EXPECT_EQ(codeOf([&] { live.addKey(full.tag(), "third", KEY_PRELIVE); }), 1263);
    KeyRecord_v1 move = live->getKeyRecord(c.tag());
    move.setKeyGroup(full.tag());
    EXPECT_EQ(codeOf([&] { live->updateKeyRecord(move); }), 1263);
    EXPECT_TRUE(snapshotOf(*live) == before);
    // A change inside the full group is no addition to it.
    KeyRecord_v1 described = live->getKeyRecordByName(full.tag(), "b");
    described.setDescription("still two");
    EXPECT_EQ(live->updateKeyRecord(described).description(), "still two");
  }
  {
    const ConfiguredLimits limits(0, 0);
    LiveStore live;
    const KeyGrpRecord_v1 g = live.addGroup("g");
    // One more than the default limit of 30.
    for (int i = 0; i < 31; ++i) {
      live.addKey(g.tag(), "k" + std::to_string(i), KEY_PRELIVE);
    }
    EXPECT_EQ(live->getStats().first, 31u);
  }
}

// (Demotion by an added key and by a move is run by the process tests.)
TEST_F(FileKeyStoreChangesTest, AReactivatedKeyDemotesTheActiveOne) {
  const KeyGrpRecord_v1 g = live.addGroup("g");
  const KeyRecord_v1 a = live.addKey(g.tag(), "a", KEY_ACTIVE);
  const KeyRecord_v1 b = live.addKey(g.tag(), "b", KEY_ACTIVE);
  live.addKey(g.tag(), "p", KEY_PRELIVE);  // demotes nothing
  EXPECT_EQ(store.getActiveKeyRecord(g.tag()).tag(), b.tag());
  KeyRecord_v1 request = store.getKeyRecord(a.tag());
  request.setState(KEY_ACTIVE);
  const KeyRecord_v1 aBack = store.updateKeyRecord(request);
  EXPECT_EQ(std::make_tuple(aBack.state(), aBack.rev(), aBack.createTime(), aBack.key()),
            std::make_tuple(KEY_ACTIVE, 3u, a.createTime(), std::string()));
  const KeyRecord_v1 bNow = store.getKeyRecord(b.tag());
  EXPECT_EQ(std::make_tuple(bNow.state(), bNow.rev(), bNow.updateTime(), bNow.createTime()),
            std::make_tuple(KEY_INACTIVE, 2u, aBack.updateTime(), b.createTime()));
  EXPECT_EQ(codeOf([&] { store.updateKeyRecord(request); }), 1228);  // stale now
  // (Forced deletion of a group with keys is run with the failed commits.)
  store.deleteKeyGroupRecord(live.addGroup("empty").tag(), false);
  EXPECT_EQ(store.getStats(), std::make_pair(uint64_t{3}, uint64_t{1}));
}

TEST_F(FileKeyStoreChangesTest, KeysAreRandomOrComeBackFromTheirPassphrase) {
  const KeyGrpRecord_v1 g = live.addGroup("g", CT_AES128_CBC);
  // Random: of the group's key length; a salt sent along is dropped.
  KeyRecord_v1 request = LiveStore::keyRecord(g.tag(), "random", KEY_ACTIVE);
  request.attributes().addAttribute("KEY_SALT", "5302");
  request.attributes().addAttribute("owner", "tests");
  const KeyRecord_v1 random = store.addKey(request, "");
  EXPECT_EQ(store.getKey(random.tag()).key().size(), 16u);
  EXPECT_TRUE(random.attributes().find("KEY_SALT") == random.attributes().end());
  EXPECT_EQ(random.attributes().getAttribute("owner"), "tests");
  EXPECT_EQ(random.attributes().getAttribute("KEY_FIPS"), expectedFipsAttribute());
  // From a passphrase with a new salt (its whole life and the way back under
  // its tag are run by the process tests).
  const KeyRecord_v1 salted = live.addKey(g.tag(), "salted", KEY_PRELIVE, "several words");
  const std::string saltHex = salted.attributes().getAttribute("KEY_SALT");
  EXPECT_EQ(saltHex.size(), 48u);
  EXPECT_EQ(saltHex.substr(0, 4), "5302");
  EXPECT_EQ(salted.attributes().getAttribute("KEY_FIPS"), expectedFipsAttribute());
  // A known tag without salt: the older derivation, never FIPS-acceptable.
  KeyRecord_v1 legacy = LiveStore::keyRecord(g.tag(), "legacy", KEY_INACTIVE);
  legacy.setTag(Utils::getRandData(32));
  const KeyRecord_v1 old = store.addKeyWithKnownTag(legacy, "legacy words");
  EXPECT_EQ(store.getKey(old.tag()).key(),
            KeyGen::passphraseToKey_deprecated("legacy words", CT_AES128_CBC));
  EXPECT_EQ(old.attributes().getAttribute("KEY_FIPS"), "false");
  EXPECT_TRUE(old.attributes().find("KEY_SALT") == old.attributes().end());
}

// A random source giving zero bytes (a bad tag or key) `g_times` times (-1:
// always; -2: failing instead) for requests of `g_length` bytes; the system
// generator for all others.
size_t g_length = 0;
int g_times = 0;

int badForOneLength(unsigned char* buf, size_t len) {
  if (len == g_length && g_times == -2) {
    return 1;
  }
  if (len == g_length && g_times != 0) {
    g_times -= g_times > 0 ? 1 : 0;
    std::memset(buf, 0, len);
    return 0;
  }
  const MangleRandomSource installed = mangleSetRandomSource(nullptr);
  const int rc = mangleGetRandom(buf, len);
  mangleSetRandomSource(installed);
  return rc;
}

struct RandomSource {
  RandomSource(size_t length, int times) {
    g_length = length;
    g_times = times;
    mangleSetRandomSource(&badForOneLength);
  }
  ~RandomSource() { mangleSetRandomSource(nullptr); }
};

TEST_F(FileKeyStoreChangesTest, WithoutGoodRandomBytesNothingIsAdded) {
  const KeyGrpRecord_v1 g = live.addGroup("g", CT_AES128_CBC);
  const Snapshot before = snapshotOf(*live);
  LogCapture log;
  {
    const RandomSource badTags(32, -1);
    EXPECT_EQ(codeOf([&] { live.addGroup("h"); }), 1200);
  }
  {
    const RandomSource badKeys(16, -1);
    EXPECT_EQ(codeOf([&] { live.addKey(g.tag(), "k", KEY_ACTIVE); }), 1200);
  }
  EXPECT_EQ(LogCapture::containing(log.appLines(), " 286-50 ").size(), 1u);
  {
    const RandomSource noSalt(22, -2);
    EXPECT_EQ(codeOf([&] { live.addKey(g.tag(), "k", KEY_ACTIVE, "words"); }), 1200);
  }
  EXPECT_TRUE(snapshotOf(*live) == before);
  {
    // Bad keys are drawn again: 19 bad ones and then a good one will do.
    const RandomSource nineteenBad(16, 19);
    const KeyRecord_v1 k = live.addKey(g.tag(), "k", KEY_ACTIVE);
    EXPECT_EQ(g_times, 0);
    EXPECT_FALSE(FileKeyStore::isBadKey(live->getKey(k.tag()).key()));
  }
}

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

// What a change leaves outside its tables: the audit entries (no secret in
// any log is run by the process tests), and the store's fate when its commit fails.
TEST_F(FileKeyStoreChangesTest, AuditEntriesFollowEachChange) {
  LogCapture log(6);
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
TEST_F(FileKeyStoreChangesTest, AWriteThatChangedNothingLeavesTheStoreServing) {
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
TEST_F(FileKeyStoreChangesTest, AWriteThatMayHaveChangedTheDiskClosesTheStore) {
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
