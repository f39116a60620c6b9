// Lookups of keys and groups on a live store, and the tag, key, table and
// master key checks.
#include <tuple>

#include "keystore/StoreTestState.h"

using namespace Vaultrest::DL::KMS;

namespace {

using storetest::codeOf;
using storetest::MemoryStore;
using storetest::StoreContent;

// A tag of 32 bytes: `kad` (12 bytes) followed by 20 of `rest`.
std::string tagOf(char kad, char rest) {
  return std::string(12, kad) + std::string(20, rest);
}

// Group 1: a key in every state (active and terminated share a KAD) and one
// of an 11-byte tag. Group 2: two inactive keys of one KAD. Group 3: empty.
// Group 4: a key whose stored form does not unwrap.
const std::string kG1 = tagOf('1', 'g');
const std::string kG2 = tagOf('2', 'g');
const std::string kG3 = tagOf('3', 'g');
const std::string kG4 = tagOf('4', 'g');
const std::string kActive = tagOf('M', 'a');
const std::string kTerminated = tagOf('M', 't');
const std::string kInactive = tagOf('I', 'i');
const std::string kDeprecated = tagOf('D', 'd');
const std::string kPrelive = tagOf('P', 'p');
const std::string kShort(11, 'h');
const std::string kTwin1 = tagOf('S', '1');
const std::string kTwin2 = tagOf('S', '2');
const std::string kBroken = tagOf('B', 'b');

StoreContent lookupContent() {
  StoreContent content;
  content.addGroup(kG1, "one");
  content.addGroup(kG2, "two");
  content.addGroup(kG3, "three");
  content.addGroup(kG4, "four");
  content.addKey(kActive, kG1, "active", KEY_ACTIVE);
  content.addKey(kInactive, kG1, "inactive", KEY_INACTIVE);
  content.addKey(kDeprecated, kG1, "deprecated", KEY_DEPRECATED);
  content.addKey(kTerminated, kG1, "terminated", KEY_TERMINATED);
  content.addKey(kPrelive, kG1, "prelive", KEY_PRELIVE);
  content.addKey(kShort, kG1, "short", KEY_INACTIVE);
  content.addKey(kTwin1, kG2, "twin", KEY_INACTIVE);
  content.addKey(kTwin2, kG2, "other twin", KEY_INACTIVE);
  content.addRawKey(kBroken, kG4, "broken", KEY_INACTIVE, std::string(92, 'x'));
  return content;
}

class FileKeyStoreLookupTest : public ::testing::Test {
 protected:
  FileKeyStoreLookupTest() : m_store(KMSFileLocator(m_root.path())) { m_store.install(m_content); }

  // A record without key material, of a known tag.
  void expectNoKey(const KeyRecord_v1& rec) {
    EXPECT_EQ(rec.key(), "");
    EXPECT_TRUE(m_content.keys().find(rec.tag()) != m_content.keys().end());
  }
  void expectPlainKey(const KeyRecord_v1& rec) {
    EXPECT_EQ(rec.key(), m_content.plainKey(rec.tag()));
  }

  StoreContent m_content = lookupContent();
  TempRoot m_root{"vrkms-lookup"};
  MemoryStore m_store;
};

TEST_F(FileKeyStoreLookupTest, GetKeyUnwrapsOnlyUsableKeys) {
  for (const std::string& tag : {kActive, kInactive, kShort}) {
    expectPlainKey(m_store.getKey(tag));
    EXPECT_EQ(m_store.getKey(tag).name(), m_content.keys().getRecord(tag).name());
  }
  // The stored record keeps its wrapped key: a second unwrap gives the same.
  expectPlainKey(m_store.getKey(kActive));
  for (const std::string& tag : {kDeprecated, kTerminated, kPrelive}) {
    EXPECT_EQ(codeOf([&] { m_store.getKey(tag); }), 1242);
    expectNoKey(m_store.getKeyRecord(tag));
  }
  EXPECT_EQ(codeOf([&] { m_store.getKeyRecord(tagOf('?', '?')); }), 1260);
  EXPECT_EQ(codeOf([&] { m_store.getKey(kG1); }), 1260);  // a group tag is no key
  // A key that does not unwrap tells the caller only that unwrapping failed.
  EXPECT_EQ(codeOf([&] { m_store.getKey(kBroken); }), 1200);
  expectNoKey(m_store.getKeyRecord(kBroken));
  EXPECT_EQ(m_store.getStats(), std::make_pair(uint64_t{9}, uint64_t{4}));
}

TEST_F(FileKeyStoreLookupTest, LookupsByGroupAndNameGiveNoKeys) {
  expectNoKey(m_store.getActiveKeyRecord(kG1));
  EXPECT_EQ(codeOf([&] { m_store.getActiveKeyRecord(kG2); }), 1227);  // keys, none active
  EXPECT_EQ(codeOf([&] { m_store.getActiveKeyRecord(kG3); }), 1227);
  EXPECT_EQ(codeOf([&] { m_store.getActiveKeyRecord(tagOf('?', 'g')); }), 1229);
  expectNoKey(m_store.getKeyRecordByName(kG1, "inactive"));
  EXPECT_EQ(m_store.getKeyRecordByName(kG2, "twin").tag(), kTwin1);
  for (const char* other : {"twin", "Inactive", "inactiv"}) {
    EXPECT_EQ(codeOf([&] { m_store.getKeyRecordByName(kG1, other); }), 1260);
  }
  EXPECT_EQ(codeOf([&] { m_store.getKeyRecordByName(tagOf('?', 'g'), "inactive"); }), 1229);
  std::list<KeyRecord_v1> keys(3);
  m_store.getAllKeyRecordsInGroup(kG1, keys);
  ASSERT_EQ(keys.size(), 6u);
  EXPECT_EQ(keys.front().tag(), kActive);
  for (const KeyRecord_v1& rec : keys) {
    EXPECT_EQ(rec.keyGroup(), kG1);
    expectNoKey(rec);
  }
  m_store.getAllKeyRecordsInGroup(kG3, keys);
  EXPECT_TRUE(keys.empty());
  keys.resize(2);
  EXPECT_EQ(codeOf([&] { m_store.getAllKeyRecordsInGroup(tagOf('?', 'g'), keys); }), 1229);
  EXPECT_TRUE(keys.empty());  // cleared before the lookup
}

// KADs (their common cases are run by the process tests): an 11-byte tag, a
// KAD longer than a tag, the terminated twin of an active key.
TEST_F(FileKeyStoreLookupTest, KadLookups) {
  std::string kad;
  EXPECT_EQ(m_store.getKad(kInactive, 12, kad), 1234);
  EXPECT_EQ(kad, kInactive.substr(0, 12));
  EXPECT_EQ(m_store.getKad(kInactive, 11, kad), 1220);
  EXPECT_EQ(m_store.getKad(kActive, 12, kad), 1235);
  EXPECT_EQ(m_store.getKad(kActive, 13, kad), 1234);
  EXPECT_EQ(m_store.getKad(kActive, 40, kad), 1234);  // padded with '0', still found
  EXPECT_EQ(kad, kActive + std::string(8, '0'));
  EXPECT_EQ(m_store.getKad(kShort, 12, kad), 1260);  // indexed under its 11 bytes
  EXPECT_EQ(kad, kShort + "0");
  EXPECT_EQ(m_store.getKad(kG1, 12, kad), 1260);
  std::list<KeyRecord_v1> keys;
  EXPECT_EQ(m_store.getKeyRecordsByKad(kActive.substr(0, 12), keys), 1244);
  ASSERT_EQ(keys.size(), 1u);  // the terminated key is left out
  expectPlainKey(keys.front());
  EXPECT_EQ(m_store.getKeyRecordsByKad(kTwin1.substr(0, 12), keys), 1243);
  ASSERT_EQ(keys.size(), 2u);
  expectPlainKey(keys.back());
  EXPECT_EQ(m_store.getKeyRecordsByKad(kTwin2, keys), 1243);
  ASSERT_EQ(keys.size(), 1u);
  EXPECT_EQ(m_store.getKeyRecordsByKad(kDeprecated, keys), 1244);
  EXPECT_TRUE(keys.empty());
  keys.resize(2);
  EXPECT_EQ(m_store.getKeyRecordsByKad(tagOf('?', '?'), keys), 1261);
  EXPECT_TRUE(keys.empty());
  EXPECT_EQ(codeOf([&] { (void)m_store.getKeyRecordsByKad(kBroken, keys); }), 1200);
}

TEST(FileKeyStoreChecksTest, BadTagsAndBadKeys) {
  const std::string zeros12(12, '\0'), ones12(12, '\xff');
  std::string byte12 = zeros12 + std::string(20, '\0'), byte1 = ones12, key(32, '\0');
  byte12[11] = 1;  // the 12th byte counts
  byte1[0] = '\xfe';
  key[31] = 1;
  const std::pair<std::string, bool> tags[] = {
      {zeros12 + "rest of the tag....", true},
      {ones12 + std::string(20, 'x'), true},
      {zeros12, true},
      {std::string(32, '\xff'), true},
      {std::string(11, '\0'), false},
      {std::string(11, '\xff'), false},
      {"", false},
      {byte12, false},
      {byte1, false},
      {std::string(6, '\0') + std::string(6, '\xff'), false}};
  for (const auto& [tag, bad] : tags) {
    EXPECT_EQ(FileKeyStore::isBadTag(tag), bad);
  }
  const std::pair<std::string, bool> keys[] = {
      {std::string(16, '\xff'), true},
      {std::string(32, '\0'), true},
      {"", true},
      {key, false},
      {std::string(16, '\0') + std::string(16, '\xff'), false}};
  for (const auto& [value, bad] : keys) {
    EXPECT_EQ(FileKeyStore::isBadKey(value), bad);
  }
}

TEST(FileKeyStoreChecksTest, SanityFailsOnEachFault) {
  const StoreContent content = lookupContent();
  EXPECT_TRUE(FileKeyStore::isKeyStoreSane(content.keys(), content.groups()));
  for (int fault = 0; fault < 4; ++fault) {
    StoreContent bad = lookupContent();
    FileKeyStore::KeyTable keys = bad.keys();
    KeyRecord_v1 rec = keys.getRecord(kInactive);
    if (fault == 0) {
      bad.addGroup(tagOf('Z', 'g'), "bad cipher", CT_INVALID_CBC);
    } else if (fault == 1) {
      bad.addKey(tagOf('O', 'o'), tagOf('O', 'g'), "orphan", KEY_INACTIVE);
      keys = bad.keys();
    } else {
      fault == 2 ? rec.setState(KEY_INVALID) : rec.setKpkType(KPK_INVALID);
      ASSERT_TRUE(keys.updateRecord(rec));
    }
    EXPECT_FALSE(FileKeyStore::isKeyStoreSane(keys, bad.groups())) << fault;
  }
}

bool valid(const char* prefix, const std::string& key, const std::string& verifier,
           KSCrypt::CryptType type = KSCrypt::AES_256_GCM, ks_version_t version = KS_VERSION_300) {
  return FileKeyStore::isVerifierValid(prefix, key, verifier, type, version);
}

TEST(FileKeyStoreVerifierTest, AVerifierProvesOnlyItsOwnKeyAndPrefix) {
  const std::string key = Utils::getRandData(32);
  const std::string other = Utils::getRandData(32);
  const std::string verifier =
      FileKeyStore::generateVerifier("HMKV", key, KSCrypt::AES_256_GCM, KS_VERSION_300);
  EXPECT_EQ(verifier.size(), 92u);  // 32 bytes of text wrapped under GCM
  EXPECT_TRUE(valid("HMKV", key, verifier));
  EXPECT_FALSE(valid("KPKV", key, verifier));
  EXPECT_FALSE(valid("HMKV", other, verifier));
  // Any flipped bit makes the verifier fail, never pass.
  for (size_t byte = 0; byte < verifier.size(); byte += 7) {
    std::string flipped = verifier;
    flipped[byte] = static_cast<char>(flipped[byte] ^ 0x10);
    EXPECT_FALSE(valid("HMKV", key, flipped));
  }
  // Version 0x200 wraps under the CBC type the caller names.
  const std::string cbc =
      FileKeyStore::generateVerifier("KPKV", key, KSCrypt::AES_256_CBC_EVP, KS_VERSION_200);
  EXPECT_TRUE(valid("KPKV", key, cbc, KSCrypt::AES_256_CBC_EVP, KS_VERSION_200));
  EXPECT_FALSE(valid("HMKV", key, cbc, KSCrypt::AES_256_CBC_EVP, KS_VERSION_200));
  EXPECT_FALSE(valid("KPKV", other, cbc, KSCrypt::AES_256_CBC_EVP, KS_VERSION_200));
  // A failure that is no wrong key is an internal error, not "invalid".
  EXPECT_EQ(codeOf([&] { valid("HMKV", std::string(5, 'k'), verifier); }), 1200);
  EXPECT_EQ(codeOf([&] {
              FileKeyStore::generateVerifier("HMKV", std::string(5, 'k'), KSCrypt::AES_256_GCM,
                                             KS_VERSION_300);
            }),
            1223);
}

}  // namespace
