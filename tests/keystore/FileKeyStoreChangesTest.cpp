// Changes of a live store over real files: the rules, every refusal, the
// limits, key material, audit entries, failed commits, export and import.
#include <cerrno>
#include <cstring>
#include <ctime>
#include <functional>
#include <regex>
#include <set>
#include <sstream>
#include <tuple>

#include "keystore/FormatTestUtil.h"
#include "keystore/StoreTestState.h"
#include "kms/platform/Fips.h"
#include "kms/platform/MangleRandom.h"
#include "kms/server/keystore/crypto/KeyGen.h"
#include "kms/server/keystore/files/FileFaults.h"
#include "kms/server/keystore/format/KSEximMetadata.h"
#include "kms/server/keystore/format/KSOutStream.h"
#include "kms/server/keystore/format/ReaderWriter.h"
#include "kms/server/keystore/records/RecordUtils.h"
#include "kms/server/keystore/store/KSOpStatus.h"
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
      KeyRecord_v1 r = store.getKeyRecord(std::string(base.tag()));
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
      KeyGrpRecord_v1 r = store.getKeyGroupRecord(std::string(g1.tag()));
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
      {"delete key: active", 1242, [&] { store.deleteKeyRecord(std::string(k2.tag())); }},
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
    KeyRecord_v1 move = live->getKeyRecord(std::string(c.tag()));
    move.setKeyGroup(full.tag());
    EXPECT_EQ(codeOf([&] { live->updateKeyRecord(move); }), 1263);
    EXPECT_TRUE(snapshotOf(*live) == before);
    // A change inside the full group is no addition to it.
    KeyRecord_v1 described = live->getKeyRecordByName(std::string(full.tag()), "b");
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
  EXPECT_EQ(store.getActiveKeyRecord(std::string(g.tag())).tag(), b.tag());
  KeyRecord_v1 request = store.getKeyRecord(std::string(a.tag()));
  request.setState(KEY_ACTIVE);
  const KeyRecord_v1 aBack = store.updateKeyRecord(request);
  EXPECT_EQ(std::make_tuple(aBack.state(), aBack.rev(), aBack.createTime(), aBack.key()),
            std::make_tuple(KEY_ACTIVE, 3u, a.createTime(), std::string()));
  const KeyRecord_v1 bNow = store.getKeyRecord(std::string(b.tag()));
  EXPECT_EQ(std::make_tuple(bNow.state(), bNow.rev(), bNow.updateTime(), bNow.createTime()),
            std::make_tuple(KEY_INACTIVE, 2u, aBack.updateTime(), b.createTime()));
  EXPECT_EQ(codeOf([&] { store.updateKeyRecord(request); }), 1228);  // stale now
  // (Forced deletion of a group with keys is run with the failed commits.)
  store.deleteKeyGroupRecord(std::string(live.addGroup("empty").tag()), false);
  EXPECT_EQ(store.getStats(), std::make_pair(uint64_t{3}, uint64_t{1}));
}

TEST_F(FileKeyStoreChangesTest, KeysAreRandomOrComeBackFromTheirPassphrase) {
  const KeyGrpRecord_v1 g = live.addGroup("g", CT_AES128_CBC);
  // Random: of the group's key length; a salt sent along is dropped.
  KeyRecord_v1 request = LiveStore::keyRecord(g.tag(), "random", KEY_ACTIVE);
  request.attributes().addAttribute("KEY_SALT", "5302");
  request.attributes().addAttribute("owner", "tests");
  const KeyRecord_v1 random = store.addKey(request, "");
  const AttributeList& attributes = random.attributes();
  EXPECT_EQ(std::make_tuple(store.getKey(std::string(random.tag())).key().size(), attributes.size(),
                            attributes.getAttribute("owner"), attributes.getAttribute("KEY_FIPS")),
            std::make_tuple(size_t{16}, size_t{2}, std::string("tests"),
                            std::string(expectedFipsAttribute())));
  // From a passphrase with a new salt (its whole life and the way back under
  // its tag are run by the process tests).
  const KeyRecord_v1 salted = live.addKey(g.tag(), "salted", KEY_PRELIVE, "several words");
  const std::string saltHex(salted.attributes().getAttribute("KEY_SALT"));
  EXPECT_EQ(saltHex.size(), 48u);
  EXPECT_EQ(saltHex.substr(0, 4), "5302");
  EXPECT_EQ(salted.attributes().getAttribute("KEY_FIPS"), expectedFipsAttribute());
  // A known tag without salt: the older derivation, never FIPS-acceptable.
  KeyRecord_v1 legacy = LiveStore::keyRecord(g.tag(), "legacy", KEY_INACTIVE);
  legacy.setTag(Utils::getRandData(32));
  const KeyRecord_v1 old = store.addKeyWithKnownTag(legacy, "legacy words");
  EXPECT_EQ(store.getKey(std::string(old.tag())).key(),
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
    EXPECT_FALSE(FileKeyStore::isBadKey(live->getKey(std::string(k.tag())).key()));
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
  KeyRecord_v1 request = store.getKeyRecord(std::string(b.tag()));
  request.setDescription("described");
  store.updateKeyRecord(request);
  request = store.getKeyRecord(std::string(a.tag()));
  request.setName("a2");
  store.updateKeyRecord(request);
  const KeyRecord_v1 p = live.addKey(g.tag(), "p", KEY_PRELIVE);
  store.deleteKeyRecord(std::string(p.tag()));
  KeyGrpRecord_v1 group = store.getKeyGroupRecord(std::string(g.tag()));
  group.setName("g2");
  group.setDescription("renamed");
  store.updateKeyGroupRecord(group);
  store.deleteKeyGroupRecord(std::string(g.tag()), true);
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
  EXPECT_EQ(entries[6].second, "Tag: " + Utils::binToHex(a.tag()));
  EXPECT_EQ(entries[7].second, "Name: a(61)");
  EXPECT_EQ(entries[10].second, "Description: key.a(6b65792061)");
  EXPECT_EQ(entries[11].second,
            std::string("FIPS compliant: ") + (FIPS_mode() != 0 ? "Yes" : "No"));
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
  KeyRecord_v1 described = store.getKeyRecord(std::string(a.tag()));
  described.setDescription("described");
  KeyGrpRecord_v1 renamed = store.getKeyGroupRecord(std::string(g.tag()));
  renamed.setName("renamed");
  const std::vector<std::pair<const char*, std::function<void()>>> changes = {
      {"updateKeyRecord", [&] { store.updateKeyRecord(described); }},
      {"addKey", [&] { live.addKey(g.tag(), "n", KEY_ACTIVE); }},
      {"addKeyWithKnownTag", [&] { store.addKeyWithKnownTag(legacy, "words"); }},
      {"deleteKeyRecord", [&] { store.deleteKeyRecord(std::string(p.tag())); }},
      {"addKeyGroup", [&] { live.addGroup("h"); }},
      {"updateKeyGroupRecord", [&] { store.updateKeyGroupRecord(renamed); }},
      {"deleteKeyGroupRecord", [&] { store.deleteKeyGroupRecord(std::string(g.tag()), true); }},
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
    EXPECT_EQ(codeOf([&] { store.getKeyRecord(std::string(a.tag())); }), 1202);
    ASSERT_EQ(store.init(), 0);
    EXPECT_TRUE(FileKeyStore::isDbClean(live.locator()));
    if (failingRename == 1) {
      EXPECT_TRUE(snapshotOf(store) == before);
    } else {
      EXPECT_EQ(
          store.getKey(std::string(store.getActiveKeyRecord(std::string(g.tag())).tag())).name(),
          "new");
    }
  }
}

// Export and import between live stores on real files.
using storetest::StoreContent;
typedef std::list<std::pair<std::string, std::string>> Selection;
const std::string kPassphrase = "export words";

// "<code>" and " <message code>(<args>,...)" for each message.
std::string text(const KSOpStatus& status) {
  std::ostringstream out;
  out << status.errCode();
  for (const KSOpMessage& message : status.messages()) {
    out << " " << message.code() << "(";
    for (size_t i = 0; i < message.args().size(); ++i) {
      out << (i == 0 ? "" : ",") << message.args()[i];
    }
    out << ")";
  }
  return out.str();
}

std::string exportOf(const FileKeyStore& store, const Selection& selection = {}) {
  KSOpStatus status;
  std::string buffer = store.exportToBuffer(selection, kPassphrase, status);
  EXPECT_EQ(text(status), "0");
  EXPECT_FALSE(buffer.empty());
  return buffer;
}

// Imports `buffer` as a preview and then for real; the preview and a refused
// import leave the files as they were, and the preview reports what the import does.
KSOpStatus importChecked(LiveStore& dest, const std::string& buffer, bool preserveNames = false,
                         const std::string& description = std::string()) {
  const std::vector<std::string> before = dest.files();
  KSOpStatus preview;
  dest.store().importFromBuffer(buffer, kPassphrase, preserveNames, description, preview, true);
  EXPECT_EQ(dest.files(), before);
  KSOpStatus status;
  dest.store().importFromBuffer(buffer, kPassphrase, preserveNames, description, status, false);
  EXPECT_EQ(text(status), text(preview));
  if (status.hasErrors()) {
    EXPECT_EQ(dest.files(), before);
  }
  return status;
}

// The plaintext of an export, read with the format's readers alone.
struct ExportContent {
  ks_version_t version = KS_VERSION_100;
  FileKeyStore::KeyTable keys{true};
  FileKeyStore::GroupTable groups;
};

ExportContent openExport(const std::string& buffer) {
  std::string plain;
  KSInputBuffer sealed(buffer);
  ReaderWriter::readDataPasswordSecured(sealed, kPassphrase, plain);
  KSInputBuffer in(plain);
  AttributeList list;
  ReaderWriter::readAttributeList(in, list);
  ExportContent content;
  content.version = KSEximMetadata(list).version();
  FileKeyStore::readKeyStore(in, content.keys, content.groups);
  EXPECT_EQ(in.remaining(), 0u);
  return content;
}

// A buffer sealed by hand around `meta` (an encoded attribute list) and the tables.
std::string sealByHand(const std::string& meta, const FileKeyStore::KeyTable& keys,
                       const FileKeyStore::GroupTable& groups) {
  const std::string plain = meta + formattest::written([&](KSOutStream& out) {
                              FileKeyStore::writeKeyStore(out, keys, groups);
                            });
  return formattest::written(
      [&](KSOutStream& out) { ReaderWriter::writeDataPasswordSecured(out, kPassphrase, plain); });
}

// With the fast passphrase scheme.
class FileKeyStoreEximTest : public FileKeyStoreChangesTest {
  formattest::WeakKdf m_weakKdf;
};

const time_t kNow = 1700000000;

std::string tag(char kind, int n) {
  return std::string(30, kind) + static_cast<char>('0' + n) + '\x01';
}

// Group "g" with keys in every state, an empty group "e", and group "h"
// with one key.
StoreContent sourceContent() {
  StoreContent content;
  content.addGroup(tag('G', 1), "g");
  content.addGroup(tag('G', 2), "e");
  content.addGroup(tag('G', 3), "h");
  const ks_keystate_t states[] = {KEY_ACTIVE, KEY_INACTIVE, KEY_DEPRECATED, KEY_TERMINATED,
                                  KEY_PRELIVE};
  for (int i = 0; i < 5; ++i) {
    content.addKey(tag('K', i + 1), tag('G', 1), std::string(1, "abcdp"[i]), states[i]);
  }
  content.addKey(tag('K', 6), tag('G', 3), "x", KEY_ACTIVE);
  return content;
}

// What each selection exports, and the refusals, which name every unknown
// group and key at once.
TEST_F(FileKeyStoreEximTest, ABufferHoldsTheSelectionWithPlainKeys) {
  const StoreContent content = sourceContent();
  LiveStore source(content);
  const std::vector<std::string> filesBefore = source.files();
  const struct {
    Selection selection;
    std::string status;
    std::set<std::string> names;  // of the groups and keys exported
  } rows[] = {
      {{{"g", "*"}, {"g", "a"}}, "0", {"g", "a", "b", "c", "d", "p"}},
      {{{"g", ""}, {"g", "a"}, {"g", ""}, {"g", "a"}}, "0", {"g", "a"}},
      {{{"h", "x"}, {"g", "d"}, {"g", "p"}}, "0", {"g", "h", "d", "p", "x"}},
      {{{"nogroup", "*"}, {"g", "*"}}, "1214 1(nogroup)", {}},
      {{{"g", "zz"}, {"g", "a"}, {"g", "yy"}}, "1214 8(yy,g) 8(zz,g)", {}},
      {{{"g", "zz"}, {"nogroup", ""}, {"h", "x"}}, "1214 8(zz,g) 1(nogroup)", {}},
      {{{"G", "a"}}, "1214 1(G)", {}},
  };
  for (const auto& row : rows) {
    KSOpStatus status;
    const std::string buffer = source->exportToBuffer(row.selection, kPassphrase, status);
    EXPECT_EQ(text(status), row.status);
    EXPECT_EQ(buffer.empty(), row.names.empty());
    std::set<std::string> names;
    if (!buffer.empty()) {
      const ExportContent exported = openExport(buffer);
      EXPECT_EQ(exported.version, KS_VERSION_200);
      for (const auto& entry : exported.groups) {
        names.emplace(entry.second.name());
      }
      for (const auto& entry : exported.keys) {
        names.emplace(entry.second.name());
        EXPECT_EQ(entry.second.key(), content.plainKey(entry.first));
      }
    }
    EXPECT_EQ(names, row.names);
  }
  // The files never changed; two exports of the same selection are sealed apart.
  EXPECT_EQ(source->getKey(tag('K', 6)).key(), content.plainKey(tag('K', 6)));
  EXPECT_EQ(source.files(), filesBefore);
  EXPECT_NE(exportOf(source.store()), exportOf(source.store()));
  // (A store without groups has nothing to give.) One with groups and no keys has.
  StoreContent groupsOnly;
  groupsOnly.addGroup(tag('G', 1), "lonely");
  EXPECT_EQ(openExport(exportOf(LiveStore(groupsOnly).store())).groups.size(), 1u);
}

// Only a selection is checked for sanity: a whole store is exported as it
// is served.
TEST_F(FileKeyStoreEximTest, ASelectionOfInsaneRecordsIsAnInternalError) {
  StoreContent content;
  content.addGroup(tag('G', 1), "bad", CT_INVALID_CBC);
  content.addKey(tag('K', 1), tag('G', 1), "a", KEY_ACTIVE);
  TempRoot root("vrkms-exim-insane");
  storetest::MemoryStore store{KMSFileLocator(root.path())};
  store.install(content);
  KSOpStatus status;
  EXPECT_EQ(store.exportToBuffer({{"bad", "*"}}, kPassphrase, status), "");
  EXPECT_EQ(text(status), "1200");
  EXPECT_EQ(openExport(exportOf(store)).keys.size(), 1u);
}

// `pattern` with every "$" replaced by the suffix of an import at kNow.
std::string withSuffix(const std::string& pattern) {
  return std::regex_replace(pattern, std::regex("\\$"),
                            "_IMPORTED_" + Utils::getTimestampSuffix(kNow));
}

// Group "alpha" with keys "a1" (active) and "a2", group "beta" with "b1".
StoreContent twoGroups() {
  StoreContent content;
  content.addGroup(tag('G', 1), "alpha");
  content.addGroup(tag('G', 2), "beta");
  content.addKey(tag('K', 1), tag('G', 1), "a1", KEY_ACTIVE);
  content.addKey(tag('K', 2), tag('G', 1), "a2", KEY_INACTIVE);
  content.addKey(tag('K', 3), tag('G', 2), "b1", KEY_ACTIVE);
  return content;
}

// A key of tag K1 in a group "x" of its own, of value `plain`.
void addKeyOfTagK1(StoreContent& dest, const std::string& plain) {
  dest.addGroup(tag('D', 1), "x");
  dest.addRawKey(tag('K', 1), tag('D', 1), "k", KEY_INACTIVE,
                 dest.kpkMgr().encryptKey(plain, KPK_LOCAL, std::string()));
}

TEST_F(FileKeyStoreEximTest, EveryDecisionAndLimitReportsItself) {
  const StoreContent source = twoGroups();
  const std::string plainK1 = source.plainKey(tag('K', 1));
  const std::string buffer = [&] {
    LiveStore root(source);
    return exportOf(root.store());
  }();
  const struct {
    const char* name;
    std::function<void(StoreContent&)> arrange;
    bool preserveNames;
    int maxGroups;
    int maxKeysPerGroup;
    std::string status;
    int importedKeys;
  } rows[] = {
      {"empty store", [](StoreContent&) {}, false, 0, 0,
       "0 4(alpha,alpha$) 4(beta,beta$) 12(a1,alpha$) 12(a2,alpha$) 12(b1,beta$)", 3},
      {"duplicate key", [&](StoreContent& d) { addKeyOfTagK1(d, plainK1); }, false, 0, 0,
       "0 9(a1,alpha,k,x) 4(alpha,alpha$) 4(beta,beta$) 12(a2,alpha$) 12(b1,beta$)", 2},
      {"same tag, other value", [&](StoreContent& d) { addKeyOfTagK1(d, std::string(32, 'v')); },
       false, 0, 0,
       "1283 10(a1,alpha,k,x) 4(alpha,alpha$) 4(beta,beta$) 12(a2,alpha$) 12(b1,beta$)", 0},
      {"group tag taken", [](StoreContent& d) { d.addGroup(tag('G', 1), "x"); }, false, 0, 0,
       "0 4(alpha,alpha$) 4(beta,beta$) 5(alpha$) 11(a1,alpha$) 11(a2,alpha$) 12(b1,beta$)", 3},
      {"group name taken", [](StoreContent& d) { d.addGroup(tag('D', 1), "alpha"); }, false, 0, 0,
       "0 4(alpha,alpha$) 4(beta,beta$) 12(a1,alpha$) 12(a2,alpha$) 12(b1,beta$)", 3},
      {"every suffix taken",
       [](StoreContent& d) {
         d.addGroup(tag('D', 0), withSuffix("beta$"));
         for (int i = 1; i < 10; ++i) {
           d.addGroup(tag('D', i), withSuffix("beta$_") + std::to_string(i));
         }
       },
       false, 0, 0, "1200", 0},
      {"preserved, name taken", [](StoreContent& d) { d.addGroup(tag('D', 1), "alpha"); }, true, 0,
       0, "1283 2(alpha) 6(beta) 12(a1,alpha) 12(a2,alpha) 12(b1,beta)", 0},
      {"preserved, tag taken", [](StoreContent& d) { d.addGroup(tag('G', 1), "x"); }, true, 0, 0,
       "1283 3(alpha,x) 6(beta) 12(a1,alpha) 12(a2,alpha) 12(b1,beta)", 0},
      {"preserved, both taken", [](StoreContent& d) { d.addGroup(tag('G', 1), "alpha"); }, true, 0,
       0, "1283 2(alpha) 3(alpha,alpha) 6(beta) 12(a1,alpha) 12(a2,alpha) 12(b1,beta)", 0},
      {"preserved, neither taken", [](StoreContent& d) { d.addGroup(tag('D', 1), "other"); }, true,
       0, 0, "0 6(alpha) 6(beta) 12(a1,alpha) 12(a2,alpha) 12(b1,beta)", 3},
      {"groups at their limit", [](StoreContent& d) { d.addGroup(tag('D', 1), "d"); }, false, 3, 0,
       "0 4(alpha,alpha$) 4(beta,beta$) 12(a1,alpha$) 12(a2,alpha$) 12(b1,beta$)", 3},
      {"groups over their limit", [](StoreContent& d) { d.addGroup(tag('D', 1), "d"); }, false, 2,
       0, "1262", 0},
      {"keys at their limit", [](StoreContent&) {}, false, 0, 2,
       "0 4(alpha,alpha$) 4(beta,beta$) 12(a1,alpha$) 12(a2,alpha$) 12(b1,beta$)", 3},
      {"keys over their limit", [](StoreContent&) {}, true, 0, 1,
       "1283 6(alpha) 6(beta) 12(a1,alpha) 12(a2,alpha) 12(b1,beta) 7(alpha)", 0},
      {"keys at their limit once duplicates go",
       [&](StoreContent& d) { addKeyOfTagK1(d, plainK1); }, false, 0, 1,
       "0 9(a1,alpha,k,x) 4(alpha,alpha$) 4(beta,beta$) 12(a2,alpha$) 12(b1,beta$)", 2},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const ConfiguredLimits limits(row.maxGroups, row.maxKeysPerGroup);
    StoreContent content;
    row.arrange(content);
    LiveStore dest(content);
    dest.store().setImportClock([] { return kNow; });
    const std::pair<uint64_t, uint64_t> before = dest.store().getStats();
    const KSOpStatus status = importChecked(dest, buffer, row.preserveNames);
    EXPECT_EQ(text(status), withSuffix(row.status));
    const std::pair<uint64_t, uint64_t> after = dest.store().getStats();
    EXPECT_EQ(after.first, before.first + row.importedKeys);
    EXPECT_EQ(after.second, before.second + (status.hasErrors() ? 0 : 2));
  }
}

// (Records arriving as they left are compared by the process tests.) A
// renumbered group takes its keys along, and the import's description
// replaces those of what it brings; the store's own group is not touched.
// Each group and key is audited as added; a key's FIPS entry says whether it
// came with a FIPS decision of any value.
TEST_F(FileKeyStoreEximTest, ARenumberedGroupTakesItsKeysAndTheImportsDescription) {
  StoreContent content = twoGroups();
  content.addGroup(tag('G', 3), "empty");
  LiveStore source(content);
  source.addKey(tag('G', 2), "b2", KEY_PRELIVE);  // with a FIPS decision
  StoreContent other;
  other.addGroup(tag('G', 1), "x");
  LiveStore dest(other);
  dest.store().setImportClock([] { return kNow; });
  const KeyGrpRecord_v1 own = dest.store().getKeyGroupRecord(tag('G', 1));
  LogCapture log(1);
  EXPECT_EQ(importChecked(dest, exportOf(source.store()), false, "moved").errCode(), 0);
  std::multiset<std::string> audited;
  const std::regex entry(" 286-(70|81|92) [^ ]+: (.*)$");
  for (const std::string& line : log.appLines()) {
    std::smatch match;
    if (std::regex_search(line, match, entry)) {
      audited.insert(match[1].str() + (match[1] == "92" ? "=" + match[2].str() : ""));
    }
  }
  EXPECT_EQ(audited,
            (std::multiset<std::string>{"70", "70", "70", "81", "81", "81", "81",
                                        "92=FIPS compliant: Yes", "92=FIPS compliant: No",
                                        "92=FIPS compliant: No", "92=FIPS compliant: No"}));
  const KeyGrpRecord_v1 alpha = dest.store().getKeyGroupRecordByName(withSuffix("alpha$"));
  EXPECT_NE(alpha.tag(), tag('G', 1));
  EXPECT_EQ(alpha.numKeys(), 2u);
  EXPECT_EQ(dest.store().getActiveKeyRecord(std::string(alpha.tag())).tag(), tag('K', 1));
  const storetest::Snapshot arrived = storetest::snapshotOf(dest.store());
  ASSERT_EQ(arrived.groups.size(), 4u);
  for (size_t i = 0; i < arrived.groups.size(); ++i) {
    if (arrived.groups[i].first.tag() == tag('G', 1)) {
      EXPECT_TRUE(arrived.groups[i].first == own);
      EXPECT_EQ(arrived.groups[i].second.first, 0u);
      continue;
    }
    EXPECT_EQ(arrived.groups[i].first.description(), "moved");
    for (const KeyRecord_v1& k : arrived.keys[i]) {
      EXPECT_EQ(k.description(), "moved");
    }
  }
}

// The same buffer again in the same second: the groups come once more, empty,
// under the next suffix.
TEST_F(FileKeyStoreEximTest, AnotherImportInTheSameSecondTakesTheNextSuffix) {
  StoreContent content;
  content.addGroup(tag('G', 1), "alpha");
  content.addGroup(tag('G', 2), "beta");
  content.addKey(tag('K', 1), tag('G', 1), "a1", KEY_ACTIVE);
  content.addKey(tag('K', 2), tag('G', 1), "a2", KEY_INACTIVE);
  LiveStore source(content);
  const std::string buffer = exportOf(source.store());
  LiveStore dest;
  dest.store().setImportClock([] { return kNow; });
  EXPECT_EQ(text(importChecked(dest, buffer)),
            withSuffix("0 4(alpha,alpha$) 4(beta,beta$) 12(a1,alpha$) 12(a2,alpha$)"));
  EXPECT_EQ(text(importChecked(dest, buffer)),
            withSuffix("0 9(a1,alpha,a1,alpha$) 9(a2,alpha,a2,alpha$) 4(alpha,alpha$_1) "
                       "4(beta,beta$_1) 5(alpha$_1) 5(beta$_1)"));
  EXPECT_EQ(text(importChecked(dest, buffer)),
            withSuffix("0 9(a1,alpha,a1,alpha$) 9(a2,alpha,a2,alpha$) 4(alpha,alpha$_2) "
                       "4(beta,beta$_2) 5(alpha$_2) 5(beta$_2)"));
  EXPECT_EQ(dest.store().getStats(), std::make_pair(uint64_t{2}, uint64_t{6}));
  // A name the suffix takes past 4096 bytes keeps what fits, and is found by
  // its whole name; with no room left for another suffix, a second import
  // has none that is unique, and is refused.
  StoreContent longer;
  const std::string longName(4090, 'n');
  longer.addGroup(tag('G', 3), longName);
  const std::string longBuffer = exportOf(LiveStore(longer).store());
  const std::string kept = withSuffix(longName + "$").substr(0, 4096);
  EXPECT_EQ(text(importChecked(dest, longBuffer)), "0 4(" + longName + "," + kept + ")");
  EXPECT_EQ(dest.store().getKeyGroupRecordByName(withSuffix(longName + "$")).name(), kept);
  EXPECT_EQ(text(importChecked(dest, longBuffer)), "1200");
}

// A wrong passphrase, any changed byte and any damaged content refuse the
// import and leave the store exactly as it was.
TEST_F(FileKeyStoreEximTest, WrongAndDamagedBuffersChangeNothing) {
  StoreContent content;
  content.addGroup(tag('G', 1), "alpha");
  content.addKey(tag('K', 1), tag('G', 1), "a1", KEY_ACTIVE);
  LiveStore source(content);
  const std::string buffer = exportOf(source.store());
  LiveStore dest;
  const std::vector<std::string> files = dest.files();
  auto importStatus = [&](const std::string& bytes, const std::string& passphrase) {
    KSOpStatus status;
    dest.store().importFromBuffer(bytes, passphrase, false, "", status, false);
    EXPECT_TRUE(status.messages().empty());
    return status.errCode();
  };
  EXPECT_EQ(importStatus(buffer, "other words"), 1284);
  EXPECT_EQ(importStatus(buffer, ""), 1284);
  EXPECT_EQ(importStatus(buffer.substr(0, buffer.size() - 1), kPassphrase), 1208);
  EXPECT_EQ(importStatus("", kPassphrase), 1208);
  std::set<int> seen;
  for (size_t i = 0; i < buffer.size(); ++i) {
    std::string flipped = buffer;
    flipped[i] = static_cast<char>(flipped[i] ^ 0x01);
    const int code = importStatus(flipped, kPassphrase);
    EXPECT_TRUE(code == 1284 || code == 1208) << "byte " << i << ": " << code;
    seen.insert(code);
  }
  EXPECT_EQ(seen, (std::set<int>{1208, 1284}));
  // Sealed properly around content that is not right.
  FileKeyStore::KeyTable keys(true);
  FileKeyStore::GroupTable groups;
  std::string meta;
  FileKeyStore::writeEximMeta(meta, KSEximMetadata(KS_VERSION_200));
  EXPECT_EQ(importStatus(sealByHand(meta, keys, groups), kPassphrase), 1214);
  for (const std::string& badMeta :
       {formattest::handList({{"VERSION", formattest::be(0x300, 4)}}),
        formattest::handList({{"EXTRA", "x"}, {"VERSION", formattest::be(0x200, 4)}}),
        std::string("junk")}) {
    EXPECT_EQ(importStatus(sealByHand(badMeta, keys, groups), kPassphrase), 1207);
  }
  KeyGrpRecord_v1 insane;
  insane.setFields(tag('G', 1), "insane", CT_INVALID_CBC, 1, 1, "", 1);
  groups.addRecord(insane);
  EXPECT_EQ(importStatus(sealByHand(meta, keys, groups), kPassphrase), 1208);
  EXPECT_EQ(dest.files(), files);
  EXPECT_EQ(dest.store().getStats(), std::make_pair(uint64_t{0}, uint64_t{0}));
}

}  // namespace
