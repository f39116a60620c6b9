// Changes of keys and key groups on a live store over real files: the
// validity rules, every refusal, the limits, the rule of one active key per
// group, the optimistic lock and where key material comes from.
#include <cstring>
#include <functional>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "keystore/StoreTestState.h"
#include "kms/platform/Fips.h"
#include "kms/platform/MangleRandom.h"
#include "kms/server/keystore/crypto/KeyGen.h"
#include "kms/server/keystore/crypto/RandData.h"
#include "kms/server/keystore/records/RecordUtils.h"
#include "support/LogCapture.h"

namespace Vaultrest {
namespace DL {
namespace KMS {
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

class FileKeyStoreChangesTest : public ::testing::Test {
 protected:
  FipsDecision m_fips;
};

// Every refusal of a change, each reported by its code, none changing what
// the store serves or what is on disk.
TEST_F(FileKeyStoreChangesTest, EveryRefusalLeavesTablesAndFilesAsTheyWere) {
  LiveStore live;
  FileKeyStore& store = *live;
  const KeyGrpRecord_v1 g1 = live.addGroup("g1");
  const KeyGrpRecord_v1 g2 = live.addGroup("g2", CT_AES128_CBC);
  live.addGroup("g3");
  const KeyRecord_v1 k1 = live.addKey(g1.tag(), "k1", KEY_ACTIVE);
  const KeyRecord_v1 k2 = live.addKey(g1.tag(), "k2", KEY_ACTIVE);  // k1 now inactive
  live.addKey(g2.tag(), "q1", KEY_ACTIVE);
  const std::string unknown(32, 'u');
  const auto request = &LiveStore::keyRecord;
  const auto known = [&](const std::string& tag, const std::string& name, ks_keystate_t state) {
    KeyRecord_v1 rec = request(g1.tag(), name, state);
    rec.setTag(tag);
    return rec;
  };
  // A call updating the record of `base` as read now, edited by `edit`.
  const auto updateKey = [&](const KeyRecord_v1& base, std::function<void(KeyRecord_v1&)> edit) {
    return [&, base, edit] {
      KeyRecord_v1 rec = store.getKeyRecord(base.tag());
      edit(rec);
      store.updateKeyRecord(rec);
    };
  };
  const auto updateGroup = [&](const KeyGrpRecord_v1& base,
                               std::function<void(KeyGrpRecord_v1&)> edit) {
    return [&, base, edit] {
      KeyGrpRecord_v1 rec = store.getKeyGroupRecord(base.tag());
      edit(rec);
      store.updateKeyGroupRecord(rec);
    };
  };
  const auto addGroup = [&](const std::string& name, ks_ciphertype_t cipher) {
    return [&, name, cipher] {
      KeyGrpRecord_v1 rec;
      rec.setName(name);
      rec.setCipherType(cipher);
      store.addKeyGroup(rec);
    };
  };
  // `count` attributes of `bytes` bytes each, beyond a record's bounds.
  const auto crowd = [](AttributeList& list, int count, size_t bytes) {
    for (int i = 0; i < count; ++i) {
      list.addAttribute("a" + std::to_string(i), std::string(bytes, 'v'));
    }
  };
  // (The process tests also run a bad key name, a stale update, a move to
  // another cipher type, the deletion of an inactive key, a group name taken,
  // a group update of nothing and the deletion of a group with keys.)
  struct Case {
    const char* what;
    int expected;
    std::function<void()> call;
  };
  const std::vector<Case> cases = {
      // addKey and addKeyWithKnownTag, in the order of their checks.
      {"add: empty name", 1214, [&] { store.addKey(request(g1.tag(), "", KEY_ACTIVE), ""); }},
      {"add: 65 attributes", 1214,
       [&] {
         KeyRecord_v1 rec = request(g1.tag(), "x", KEY_ACTIVE);
         crowd(rec.attributes(), 65, 1);
         store.addKey(rec, "");
       }},
      {"add: inactive", 1214, [&] { store.addKey(request(g1.tag(), "x", KEY_INACTIVE), ""); }},
      {"add: terminated", 1214, [&] { store.addKey(request(g1.tag(), "x", KEY_TERMINATED), ""); }},
      {"known: no passphrase", 1212,
       [&] { store.addKeyWithKnownTag(known(unknown, "x", KEY_INACTIVE), ""); }},
      {"known: active", 1214,
       [&] { store.addKeyWithKnownTag(known(unknown, "x", KEY_ACTIVE), "pass"); }},
      {"known: empty tag", 1215,
       [&] { store.addKeyWithKnownTag(known("", "x", KEY_INACTIVE), "pass"); }},
      {"add: unknown group", 1229, [&] { store.addKey(request(unknown, "x", KEY_ACTIVE), ""); }},
      {"add: name taken", 1231, [&] { store.addKey(request(g1.tag(), "k1", KEY_PRELIVE), ""); }},
      {"known: tag taken", 1233,
       [&] { store.addKeyWithKnownTag(known(k1.tag(), "x", KEY_INACTIVE), "pass"); }},
      {"add: no KPK to wrap with", 1200,
       [&] {
         KeyRecord_v1 rec = request(g1.tag(), "x", KEY_ACTIVE);
         rec.setKpkType(KPK_INVALID);
         store.addKey(rec, "");
       }},
      // updateKeyRecord.
      {"update: empty name", 1214, updateKey(k1, [](KeyRecord_v1& r) { r.setName(""); })},
      {"update: state 0", 1214, updateKey(k1, [](KeyRecord_v1& r) { r.setState(KEY_INVALID); })},
      {"update: bad name", 1287, updateKey(k1, [](KeyRecord_v1& r) { r.setName("k/1"); })},
      {"update: 64 KiB of attributes and more", 1214,
       updateKey(k1, [&](KeyRecord_v1& r) { crowd(r.attributes(), 16, 4096); })},
      {"update: unknown tag", 1260, updateKey(k1, [&](KeyRecord_v1& r) { r.setTag(unknown); })},
      {"update: nothing", 1241, updateKey(k1, [](KeyRecord_v1&) {})},
      {"update: only another key value", 1241,
       updateKey(k1, [](KeyRecord_v1& r) { r.setKey(std::string(32, 'K')); })},
      {"update: old update time", 1228,
       updateKey(k1,
                 [](KeyRecord_v1& r) {
                   r.setUpdateTime(r.updateTime() - 1);
                   r.setDescription("changed");
                 })},
      {"update: other create time", 1228,
       updateKey(k1, [](KeyRecord_v1& r) { r.setCreateTime(r.createTime() + 1); })},
      {"update: KPK tag", 1253, updateKey(k1, [](KeyRecord_v1& r) { r.setKpkTag("other"); })},
      {"update: active to deprecated", 1240,
       updateKey(k2, [](KeyRecord_v1& r) { r.setState(KEY_DEPRECATED); })},
      {"update: to unknown group", 1229,
       updateKey(k1, [&](KeyRecord_v1& r) { r.setKeyGroup(unknown); })},
      {"update: rename onto a sibling", 1231,
       updateKey(k1, [](KeyRecord_v1& r) { r.setName("k2"); })},
      // deleteKeyRecord: only the two ends of the line.
      {"delete key: unknown", 1260, [&] { store.deleteKeyRecord(unknown); }},
      {"delete key: active", 1242, [&] { store.deleteKeyRecord(k2.tag()); }},
      // Groups.
      {"add group: empty name", 1214, addGroup("", CT_AES256_CBC)},
      {"add group: cipher type 0", 1214, addGroup("x", CT_INVALID_CBC)},
      {"add group: bad name", 1287, addGroup("x/y", CT_AES256_CBC)},
      {"add group: 65 attributes", 1214,
       [&] {
         KeyGrpRecord_v1 rec;
         rec.setName("x");
         rec.setCipherType(CT_AES256_CBC);
         crowd(rec.attributes(), 65, 1);
         store.addKeyGroup(rec);
       }},
      {"update group: 64 KiB of attributes and more", 1214,
       updateGroup(g1, [&](KeyGrpRecord_v1& r) { crowd(r.attributes(), 16, 4096); })},
      {"update group: empty name", 1214,
       updateGroup(g1, [](KeyGrpRecord_v1& r) { r.setName(""); })},
      {"update group: bad name", 1287,
       updateGroup(g1, [](KeyGrpRecord_v1& r) { r.setName("-g1"); })},
      {"update group: unknown", 1229,
       updateGroup(g1, [&](KeyGrpRecord_v1& r) { r.setTag(unknown); })},
      {"update group: old revision", 1228,
       updateGroup(g1,
                   [](KeyGrpRecord_v1& r) {
                     r.setRev(r.rev() - 1);
                     r.setDescription("changed");
                   })},
      {"update group: cipher type", 1228,
       updateGroup(g1, [](KeyGrpRecord_v1& r) { r.setCipherType(CT_AES128_CBC); })},
      {"delete group: unknown", 1229, [&] { store.deleteKeyGroupRecord(unknown, true); }},
  };
  const Snapshot before = snapshotOf(store);
  const std::vector<std::string> filesBefore = live.files();
  ASSERT_EQ(before.groups.size(), 3u);
  for (const Case& c : cases) {
    EXPECT_EQ(codeOf(c.call), c.expected) << c.what;
    EXPECT_TRUE(snapshotOf(store) == before) << c.what;
    EXPECT_EQ(live.files(), filesBefore) << c.what;
  }
}

TEST_F(FileKeyStoreChangesTest, LimitsComeFromTheConfigurationAndZeroMeansNone) {
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

TEST_F(FileKeyStoreChangesTest, ANewActiveKeyDemotesTheOldOneInsteadOfBeingRefused) {
  LiveStore live;
  FileKeyStore& store = *live;
  const KeyGrpRecord_v1 g = live.addGroup("g");
  const KeyGrpRecord_v1 h = live.addGroup("h");
  // `demoted` is inactive now, at its second revision, changed with `by`.
  const auto expectDemoted = [&](const KeyRecord_v1& demoted, const KeyRecord_v1& by) {
    const KeyRecord_v1 now = store.getKeyRecord(demoted.tag());
    EXPECT_EQ(std::make_tuple(now.state(), now.rev(), now.updateTime(), now.createTime()),
              std::make_tuple(KEY_INACTIVE, 2u, by.updateTime(), demoted.createTime()));
  };
  const KeyRecord_v1 a = live.addKey(g.tag(), "a", KEY_ACTIVE);
  EXPECT_EQ(a.rev(), 1u);
  EXPECT_EQ(a.createTime(), a.updateTime());
  EXPECT_TRUE(a.key().empty());
  const KeyRecord_v1 b = live.addKey(g.tag(), "b", KEY_ACTIVE);
  expectDemoted(a, b);
  live.addKey(g.tag(), "p", KEY_PRELIVE);  // demotes nothing
  EXPECT_EQ(store.getActiveKeyRecord(g.tag()).tag(), b.tag());
  // Re-activating the old key demotes the new one.
  KeyRecord_v1 request = store.getKeyRecord(a.tag());
  request.setState(KEY_ACTIVE);
  const KeyRecord_v1 aBack = store.updateKeyRecord(request);
  EXPECT_EQ(std::make_tuple(aBack.state(), aBack.rev(), aBack.createTime()),
            std::make_tuple(KEY_ACTIVE, 3u, a.createTime()));
  EXPECT_TRUE(aBack.key().empty());
  expectDemoted(b, aBack);
  // Moving the active key into a group with an active key demotes that
  // group's key, though the moving key's state stays.
  const KeyRecord_v1 c = live.addKey(h.tag(), "c", KEY_ACTIVE);
  KeyRecord_v1 move = store.getKeyRecord(a.tag());
  move.setKeyGroup(h.tag());
  const KeyRecord_v1 moved = store.updateKeyRecord(move);
  EXPECT_EQ(moved.state(), KEY_ACTIVE);
  expectDemoted(c, moved);
  EXPECT_EQ(store.getActiveKeyRecord(h.tag()).tag(), a.tag());
  EXPECT_EQ(codeOf([&] { store.getActiveKeyRecord(g.tag()); }), 1227);
  EXPECT_EQ(codeOf([&] { store.updateKeyRecord(request); }), 1228);  // stale now
  const Snapshot before = snapshotOf(store);
  ASSERT_EQ(store.shutdown(), 0);
  ASSERT_EQ(store.init(), 0);
  EXPECT_TRUE(snapshotOf(store) == before);
}

TEST_F(FileKeyStoreChangesTest, KeysAreRandomOrComeBackFromTheirPassphrase) {
  LiveStore live;
  FileKeyStore& store = *live;
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
  LiveStore live;
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

TEST_F(FileKeyStoreChangesTest, ForcedGroupDeletionTakesKeysInAnyState) {
  LiveStore live;
  FileKeyStore& store = *live;
  const KeyGrpRecord_v1 g = live.addGroup("g");
  const KeyGrpRecord_v1 h = live.addGroup("h");
  const KeyRecord_v1 a = live.addKey(g.tag(), "a", KEY_ACTIVE);
  const KeyRecord_v1 b = live.addKey(g.tag(), "b", KEY_ACTIVE);
  store.deleteKeyRecord(live.addKey(g.tag(), "p", KEY_PRELIVE).tag());
  const KeyRecord_v1 other = live.addKey(h.tag(), "other", KEY_ACTIVE);
  EXPECT_EQ(store.getStats(), std::make_pair(uint64_t{3}, uint64_t{2}));
  store.deleteKeyGroupRecord(g.tag(), true);
  EXPECT_EQ(store.getStats(), std::make_pair(uint64_t{1}, uint64_t{1}));
  EXPECT_EQ(codeOf([&] { store.getKeyRecord(a.tag()); }), 1260);
  EXPECT_EQ(codeOf([&] { store.getKeyRecord(b.tag()); }), 1260);
  EXPECT_EQ(store.getKey(other.tag()).tag(), other.tag());
  // An empty group goes without force.
  KeyGrpRecord_v1 e = live.addGroup("e");
  e.setName("empty");
  const KeyGrpRecord_v1 updated = store.updateKeyGroupRecord(e);
  EXPECT_EQ(std::make_tuple(updated.rev(), updated.name(), updated.createTime()),
            std::make_tuple(2u, std::string("empty"), e.createTime()));
  store.deleteKeyGroupRecord(e.tag(), false);
  const Snapshot before = snapshotOf(store);
  ASSERT_EQ(before.groups.size(), 1u);
  ASSERT_EQ(store.shutdown(), 0);
  ASSERT_EQ(store.init(), 0);
  EXPECT_TRUE(snapshotOf(store) == before);
}

}  // namespace
}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
