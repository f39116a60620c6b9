// Stores of versions 0x100 and 0x200, laid out byte by byte here from their
// formats: upgraded once by init, and read as 0x300 with every key unchanged.
#include <openssl/evp.h>

#include <algorithm>
#include <tuple>

#include "keystore/CryptoTestUtil.h"
#include "keystore/FormatTestUtil.h"
#include "keystore/StoreTestState.h"
#include "kms/server/keystore/crypto/CryptFactory.h"
#include "kms/server/keystore/files/FileFaults.h"

using namespace Vaultrest::DL::KMS;
using formattest::be;
using formattest::field;
using formattest::handList;
using formattest::handRecord;
using storetest::StoreRoot;

namespace {

typedef std::vector<std::pair<std::string, std::string>> Attrs;

struct OldKey {
  std::string tag;
  std::string name;
  ks_keystate_t state;
  std::string plain;
};

// A store of an older version with one group and three keys, and the bytes
// of its three files.
struct OldStore {
  ks_version_t version;
  KSCrypt::CryptType type;  // of the body, the KPK file and the record keys
  bool oldMarkers;          // "BA"/"BR" with SHA-1, as the oldest writers made them
  std::string hmk = Utils::getRandData(32);
  std::string kpk = Utils::getRandData(32);
  std::string hmkSalt;
  std::string kpkSalt;
  std::string masterIV;
  std::string groupTag = Utils::getRandData(32);
  std::vector<OldKey> keys;
  storetest::StoreBytes bytes;

  explicit OldStore(ks_version_t v)
      : version(v),
        type(v == KS_VERSION_100 ? KSCrypt::AES_256_CBC : KSCrypt::AES_256_CBC_EVP),
        oldMarkers(v == KS_VERSION_100) {
    if (version == KS_VERSION_200) {
      hmkSalt = Utils::getRandData(24);
      masterIV = Utils::getRandData(16);
    }
    keys = {{Utils::getRandData(32), "active", KEY_ACTIVE, Utils::getRandData(32)},
            {Utils::getRandData(32), "inactive", KEY_INACTIVE, Utils::getRandData(32)},
            {Utils::getRandData(32), "other", KEY_INACTIVE, Utils::getRandData(16)}};
    bytes.hmk = list({{"THEKEY", hmk}, {"VERSION", be(version, 4)}});
    bytes.kpk = list({{"THEKEY", Utils::encryptKeyWithKey(kpk, hmk, type, version)},
                      {"VERSION", be(version, 4)}});
    bytes.store = list(metadata()) + body();
  }

  // An attribute list in the list's sorted order.
  std::string list(Attrs attrs) const {
    std::sort(attrs.begin(), attrs.end());
    return handList(attrs, oldMarkers);
  }

  Attrs metadata() const {
    const std::string algo = KSCrypt::cryptTypeToString(type);
    Attrs attrs = {{"VERSION", be(version, 4)},
                   {"HMKID", "old-hmk"},
                   {"HMKHASH", formattest::digest(EVP_sha1(), "Z" + hmk)},
                   {"KPKID", "old-kpk"},
                   {"KPKHASH", formattest::digest(EVP_sha1(), "Z" + kpk)},
                   {"MENCALG", algo},
                   {"KENCALG", algo},
                   {"HMKRAND", hmkSalt.empty() ? "true" : "false"},
                   {"KPKRAND", "true"}};
    if (version == KS_VERSION_200) {
      // The oldest stores have no FIPS flags, salts or IV.
      attrs.insert(attrs.end(), {{"HMKFIPS", "true"},
                                 {"KPKFIPS", "false"},
                                 {"HMKSALT", hmkSalt},
                                 {"KPKSALT", kpkSalt},
                                 {"MASTERIV", masterIV}});
    }
    return attrs;
  }

  // The key table and the group table, encrypted under the HMK.
  std::string body() const {
    const std::string noAttrs = handList({}, oldMarkers);
    std::string plain = field("BT") + field(be(keys.size(), 4));
    for (const OldKey& key : keys) {
      const std::string wrapped = Utils::encryptKeyWithKey(key.plain, kpk, type, version);
      plain += handRecord(
          {key.tag, key.name, be(1600000100, 8), be(1600000000, 8), "description of " + key.name,
           be(7, 4), groupTag, be(key.state, 2), be(KPK_LOCAL, 2), "", wrapped},
          key.name == "other" ? handList({{"color", "blue"}}, oldMarkers) : noAttrs, oldMarkers);
    }
    plain += field("BT") + field(be(1, 4));
    plain += handRecord({groupTag, "old group", be(1600000100, 8), be(1600000000, 8), "", be(2, 4),
                         be(CT_AES256_CBC, 2)},
                        noAttrs, oldMarkers);

    std::unique_ptr<KSCrypt> crypter(CryptFactory::createCrypter(type, hmk, masterIV));
    const cryptotest::Result sealed = cryptotest::encryptAll(*crypter, plain);
    EXPECT_EQ(sealed.status, 0);
    return sealed.bytes;
  }

  // The live store serves every key with its old value and record.
  void expectServedBy(FileKeyStore& store) const {
    EXPECT_EQ(store.getStats(), std::make_pair(uint64_t{3}, uint64_t{1}));
    for (const OldKey& key : keys) {
      const KeyRecord_v1 rec = store.getKey(key.tag);
      EXPECT_EQ(std::make_tuple(rec.key(), rec.name(), rec.state(), rec.createTime(), rec.rev(),
                                rec.attributes().size()),
                std::make_tuple(key.plain, key.name, key.state, uint64_t{1600000000}, 7u,
                                size_t{key.name == "other" ? 1u : 0u}));
    }
    EXPECT_EQ(store.getKeyGroupRecord(groupTag).name(), "old group");
    const KeyInfo hmk = store.getHMKInfo();
    const KeyInfo kpk = store.getKPKInfo();
    EXPECT_EQ(std::make_tuple(hmk.id, hmk.random, hmk.fips, kpk.id, kpk.random, kpk.fips),
              std::make_tuple(std::string("old-hmk"), hmkSalt.empty(), version == KS_VERSION_200,
                              std::string("old-kpk"), true, false));
  }
};

class StoreUpgrade : public ::testing::TestWithParam<ks_version_t> {};

TEST_P(StoreUpgrade, AnOlderStoreIsUpgradedOnceAndReadsAsCurrentWithItsKeys) {
  const OldStore old(GetParam());
  StoreRoot root;
  storetest::placeDat(root.locator, old.bytes);
  // init commits the upgrade before it serves.
  {
    FileKeyStore store(root.locator);
    ASSERT_EQ(store.init(), 0);
    old.expectServedBy(store);
  }
  EXPECT_EQ(storetest::maskOf(root.locator), 0x124u);
  for (const std::string& path : {root.locator.hmkPath(), root.locator.kpkPath()}) {
    KSInputBuffer file(storetest::readBytes(path));
    EXPECT_EQ(FileKeyStore::readKeyFile(file).version(), KS_VERSION_300);
  }
  const std::vector<std::string> upgraded = storetest::contentsOf(root.locator);
  KSInputBuffer storeFile(storetest::readBytes(root.locator.ksPath()));
  const KSMetadata meta = FileKeyStore::readKeyStoreMeta(storeFile);
  EXPECT_EQ(
      std::make_tuple(meta.version(), meta.masterEncAlgo(), meta.keyEncAlgo(), meta.hmkSalt()),
      std::make_tuple(KS_VERSION_300, KSCrypt::AES_256_GCM, KSCrypt::AES_256_GCM, old.hmkSalt));
  // The next start reads the current form and writes nothing.
  FileOpRecorder recorder;
  {
    ScopedFileFaultHook hook(&recorder);
    FileKeyStore store(root.locator);
    ASSERT_EQ(store.init(), 0);
    old.expectServedBy(store);
  }
  for (const FileOperation& op : recorder.operations()) {
    EXPECT_NE(op.op, FileOp::Fwrite) << op.path;
    EXPECT_NE(op.op, FileOp::Rename) << op.path;
  }
  EXPECT_EQ(storetest::contentsOf(root.locator), upgraded);
}

INSTANTIATE_TEST_SUITE_P(Versions, StoreUpgrade, ::testing::Values(KS_VERSION_100, KS_VERSION_200),
                         [](const ::testing::TestParamInfo<ks_version_t>& info) {
                           return info.param == KS_VERSION_100 ? "v100" : "v200";
                         });

}  // namespace
