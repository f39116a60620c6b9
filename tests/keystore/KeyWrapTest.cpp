// Wrapping one key under another in the three forms, and the KPK manager that
// applies it to key records.
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>

#include "CryptoTestUtil.h"
#include "kms/server/keystore/crypto/CryptFactory.h"
#include "kms/server/keystore/crypto/GCMCrypter.h"
#include "kms/server/keystore/crypto/KPKMgr.h"
#include "kms/server/keystore/crypto/KeyWrap.h"
#include "kms/server/keystore/crypto/MangleCrypter.h"

using namespace Vaultrest::DL::KMS;
using namespace cryptotest;

namespace {

const std::string kKek(32, '\x42');
const std::string kKey = unhex("00112233445566778899aabbccddeeff0f1e2d3c4b5a69788796a5b4c3d2e1f0");

struct Form {
  ks_version_t version;
  KSCrypt::CryptType type;
  size_t wrappedLen;  // for the 32-byte key
};

// 0x100: mangle stream (IV 16 + 64 + padding 16); 0x200: caller's IV plus
// the cipher's stream; 0x300 and anything newer: GCM (12 + 64 + 16).
const Form kForms[] = {
    {KS_VERSION_100, KSCrypt::AES_256_CBC, 96}, {KS_VERSION_200, KSCrypt::AES_256_CBC_EVP, 96},
    {KS_VERSION_200, KSCrypt::AES_256_GCM, 92}, {KS_VERSION_200, KSCrypt::AES_256_CBC, 16 + 96},
    {KS_VERSION_300, KSCrypt::AES_256_GCM, 92}, {0x400, KSCrypt::AES_256_GCM, 92},
};

std::string gcmOpen(const std::string& key, const std::string& stream) {
  GCMCrypter c(key);
  return decryptAll(c, stream).bytes;
}

}  // namespace

TEST(KeyWrap, EveryFormRoundTripsAndNeverRepeats) {
  for (const Form& f : kForms) {
    SCOPED_TRACE(testing::Message() << std::hex << f.version << " type " << std::dec << f.type);
    const std::string wrapped = Utils::encryptKeyWithKey(kKey, kKek, f.type, f.version);
    EXPECT_EQ(wrapped.size(), f.wrappedLen);
    EXPECT_EQ(wrapped.find(kKey), std::string::npos);
    EXPECT_EQ(Utils::decryptKeyWithKey(wrapped, kKek, f.type, f.version), kKey);
    EXPECT_NE(Utils::encryptKeyWithKey(kKey, kKek, f.type, f.version), wrapped);
    for (size_t len : {1, 16, 64}) {
      const std::string key(len, '\x7e');
      EXPECT_EQ(Utils::decryptKeyWithKey(Utils::encryptKeyWithKey(key, kKek, f.type, f.version),
                                         kKek, f.type, f.version),
                key);
    }
  }
}

TEST(KeyWrap, CallersTypeCountsOnlyUnderVersion200) {
  // 0x300: GCM whatever the caller says; the stream opens with a plain GCM
  // crypter and holds a random half followed by the key.
  const std::string gcm = Utils::encryptKeyWithKey(kKey, kKek, KSCrypt::CRYPT_NONE, KS_VERSION_300);
  ASSERT_EQ(gcm.size(), 92u);
  const std::string inner = gcmOpen(kKek, gcm);
  ASSERT_EQ(inner.size(), 64u);
  EXPECT_EQ(inner.substr(32), kKey);
  EXPECT_NE(inner.substr(0, 32), kKey);
  EXPECT_EQ(Utils::decryptKeyWithKey(gcm, kKek, KSCrypt::AES_256_CBC_EVP, KS_VERSION_300), kKey);

  // 0x100: the mangle AES-256 stream whatever the caller says.
  const std::string cbc =
      Utils::encryptKeyWithKey(kKey, kKek, KSCrypt::AES_256_GCM, KS_VERSION_100);
  MangleCrypter m(MANGLE_AES_256, kKek);
  EXPECT_EQ(decryptAll(m, cbc).bytes.substr(32), kKey);
  EXPECT_EQ(Utils::decryptKeyWithKey(cbc, kKek, KSCrypt::CRYPT_NONE, KS_VERSION_100), kKey);

  // 0x200 honours the type, even the null one: the random half and the key
  // in the clear.
  const std::string none =
      Utils::encryptKeyWithKey(kKey, kKek, KSCrypt::CRYPT_NONE, KS_VERSION_200);
  EXPECT_EQ(none.size(), 64u);
  EXPECT_EQ(none.substr(32), kKey);
}

TEST(KeyWrap, FailuresByFormAndEveryFlippedByte) {
  const std::string gcm =
      Utils::encryptKeyWithKey(kKey, kKek, KSCrypt::AES_256_GCM, KS_VERSION_300);
  // A sound stream whose plaintext has odd length is no wrapped key.
  GCMCrypter c(kKek);
  const std::string odd = encryptAll(c, std::string(33, 'o')).bytes;
  const KSCrypt::CryptType kGcm = KSCrypt::AES_256_GCM, kEvp = KSCrypt::AES_256_CBC_EVP;
  const std::pair<std::function<void()>, int> rows[] = {
      // No random half for an empty key; a wrapping key of the wrong length.
      {[] { Utils::encryptKeyWithKey("", kKek, kGcm, KS_VERSION_300); }, 1200},
      {[] { Utils::encryptKeyWithKey(kKey, kKek.substr(1), kGcm, KS_VERSION_300); }, 1223},
      {[&] { Utils::decryptKeyWithKey(gcm, std::string(32, 'x'), kGcm, KS_VERSION_300); }, 1270},
      {[&] { Utils::decryptKeyWithKey(gcm.substr(0, 27), kKek, kGcm, KS_VERSION_300); }, 1224},
      {[&] { Utils::decryptKeyWithKey(odd, kKek, kGcm, KS_VERSION_300); }, 1270},
      // No room behind the IV under 0x200.
      {[] { Utils::decryptKeyWithKey("", kKek, kEvp, KS_VERSION_200); }, 1200},
      {[] { Utils::decryptKeyWithKey(std::string(15, 'x'), kKek, kEvp, KS_VERSION_200); }, 1200},
      {[] { Utils::decryptKeyWithKey(std::string(16, 'x'), kKek, kEvp, KS_VERSION_200); }, 1200},
      {[] { Utils::decryptKeyWithKey("", kKek, kGcm, KS_VERSION_200); }, 1200},
  };
  for (size_t i = 0; i < std::size(rows); ++i) {
    EXPECT_EQ(cryptotest::ksStatus(rows[i].first), rows[i].second) << i;
  }
  {
    ScriptedRandom broken(20);
    EXPECT_EQ(KS_STATUS(Utils::encryptKeyWithKey(kKey, kKek, kGcm, KS_VERSION_200)), 1200);
  }
  const KPKMgr mgr(kKek, kGcm, KS_VERSION_300, true);
  for (size_t at = 0; at < gcm.size(); ++at) {
    std::string bad = gcm;
    bad[at] = static_cast<char>(bad[at] ^ 0x01);
    ASSERT_EQ(KS_STATUS(Utils::decryptKeyWithKey(bad, kKek, kGcm, KS_VERSION_300)), 1270) << at;
    ASSERT_EQ(KS_STATUS(mgr.decryptKey(bad, KPK_LOCAL, "")), 1200) << at;
  }
}

TEST(KPKMgr, WrapsUnderTheHeldKpkAndReportsEveryFailureAsInternal) {
  const KPKMgr empty;
  EXPECT_FALSE(empty.isSetUp());
  EXPECT_EQ(KS_STATUS(empty.encryptKey(kKey, KPK_LOCAL, "")), 1254);
  EXPECT_EQ(KS_STATUS(empty.decryptKey(kKey, KPK_LOCAL, "")), 1254);
  KPKMgr mgr;
  mgr.set(kKek, KSCrypt::AES_256_CBC_EVP, KS_VERSION_200, true);
  EXPECT_EQ(mgr.encryptKey(kKey, KPK_LOCAL, "").size(), 96u);
  mgr.set(kKek, KSCrypt::AES_256_GCM, KS_VERSION_300, true);
  EXPECT_TRUE(mgr.isSetUp());
  EXPECT_EQ(KS_STATUS(mgr.encryptKey(kKey, KPK_INVALID, "")), 1255);
  EXPECT_EQ(KS_STATUS(mgr.decryptKey(kKey, static_cast<ks_kpktype_t>(2), "")), 1255);
  const std::string wrapped = mgr.encryptKey(kKey, KPK_LOCAL, "any tag");
  EXPECT_EQ(wrapped.size(), 92u);
  EXPECT_EQ(mgr.decryptKey(wrapped, KPK_LOCAL, "another tag"), kKey);
  const KPKMgr other(std::string(32, 'o'), KSCrypt::AES_256_GCM, KS_VERSION_300, true);
  EXPECT_EQ(KS_STATUS(other.decryptKey(wrapped, KPK_LOCAL, "")), 1200) << "wrong KPK";
  EXPECT_EQ(KS_STATUS(mgr.encryptKey("", KPK_LOCAL, "")), 1200) << "passed on as is";
  const KPKMgr shortKpk(std::string(16, 's'), KSCrypt::AES_256_GCM, KS_VERSION_300, true);
  EXPECT_EQ(KS_STATUS(shortKpk.encryptKey(kKey, KPK_LOCAL, "")), 1200) << "1223 mapped";
  KPKMgr assigned;
  assigned = mgr;
  EXPECT_EQ(assigned.decryptKey(wrapped, KPK_LOCAL, ""), kKey);
  // A sound GCM stream of nothing under the KPK unwraps to an empty key.
  GCMCrypter c(kKek);
  const std::string emptyWrap = encryptAll(c, "").bytes;
  EXPECT_DEATH(mgr.decryptKey(emptyWrap, KPK_LOCAL, ""), "");
}
