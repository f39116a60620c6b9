// Keys: generation, passphrase derivations (pinned to an independent PBKDF2), HMAC (RFC 4231),
// wrapping one key under another, and the crypter pool and KPK manager from many threads.
#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "CryptoTestUtil.h"
#include "kms/server/keystore/crypto/CrypterPool.h"
#include "kms/server/keystore/crypto/GCMCrypter.h"
#include "kms/server/keystore/crypto/Hmac.h"
#include "kms/server/keystore/crypto/KPKMgr.h"
#include "kms/server/keystore/crypto/KeyGen.h"
#include "kms/server/keystore/crypto/KeyWrap.h"
#include "kms/server/keystore/crypto/RandData.h"
#include "kms/server/keystore/crypto/TagGen.h"

using namespace Vaultrest::DL::KMS;
using namespace cryptotest;

namespace {

// 'S', the scheme, then 22 bytes 00 01 .. 15.
std::string saltWithScheme(unsigned char scheme) {
  return "S" + std::string(1, static_cast<char>(scheme)) +
         unhex("000102030405060708090a0b0c0d0e0f101112131415");
}

const std::string kKek(32, '\x42');
const std::string kKey = unhex("00112233445566778899aabbccddeeff0f1e2d3c4b5a69788796a5b4c3d2e1f0");

struct Form {
  ks_version_t version;
  KSCrypt::CryptType type;
  size_t wrappedLen;  // for the 32-byte key
};

// 0x100: mangle (IV 16 + 64 + padding 16); 0x200: IV and the type's stream; later: GCM.
const Form kForms[] = {
    {KS_VERSION_100, KSCrypt::AES_256_CBC, 96}, {KS_VERSION_200, KSCrypt::AES_256_CBC_EVP, 96},
    {KS_VERSION_200, KSCrypt::AES_256_GCM, 92}, {KS_VERSION_200, KSCrypt::AES_256_CBC, 16 + 96},
    {KS_VERSION_300, KSCrypt::AES_256_GCM, 92}, {0x400, KSCrypt::AES_256_GCM, 92},
};

const std::string kKeyA(32, 'a'), kKeyB(32, 'b');

// `in` sealed under `key` by a GCM crypter of its own.
std::string gcm(const std::string& key, const std::string& in) {
  GCMCrypter c(key);
  return encryptAll(c, in).bytes;
}

}  // namespace

TEST(KeyGen, PassphrasesSaltsHmacAndFreshKeysOrNothingAfterTwentyFailedDraws) {
  EXPECT_EQ(KeyGen::pbkdf2("password", "salt", 0, EVP_sha512(), 64), "");
  EXPECT_EQ(KeyGen::pbkdf2("password", "salt", 1, nullptr, 64), "");
  // All 24 salt bytes, marker and scheme included, are the PBKDF2 salt.
  EXPECT_EQ(hex(KeyGen::passphraseToKey("correct horse", saltWithScheme(3), 32)),
            "369392d084ca601f8bbbcc36c737346f797e4ebb01a54e3b12d5fccced7ceeba");
  const std::string strong = KeyGen::passphraseToKey("correct horse", saltWithScheme(2), 64);
  EXPECT_EQ(hex(strong),
            "b4bead4ef3c301f53015ec392878fb24ca6965d0bcabfef4e63d80ada06a6253"
            "623b20f01bd4cbfb299f616e8d614a47bfcdf2b73d5722b48111522eb633a23e");
  const std::string legacy = KeyGen::passphraseToKey("correct horse", saltWithScheme(1), 32);
  EXPECT_EQ(hex(legacy), "5a178aa608c1f4eaf55e4581eb960e45182abf295318149328aaf5b039b658be");
  EXPECT_NE(legacy, strong.substr(0, 32));
  std::string otherLetter = saltWithScheme(3);
  otherLetter[0] = 'T';
  for (const std::string& salt :
       {saltWithScheme(3).substr(0, 23), saltWithScheme(3) + "x", otherLetter, saltWithScheme(0),
        saltWithScheme(4), saltWithScheme(0xff), std::string()}) {
    EXPECT_EQ(KS_STATUS(KeyGen::passphraseToKey("pw", salt, 32)), 1282) << hex(salt);
  }
  // HMAC-SHA-256 of RFC 4231 case 2.
  const std::string data = "what do ya want for nothing?";
  EXPECT_EQ(hex(Utils::hmac(EVP_sha256(), "Jefe", u8(data), data.size())),
            "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
  EXPECT_EQ(Utils::hmac(nullptr, "Jefe", u8(data), data.size()), "");
  // EVP_BytesToKey with SHA-1 and 1000 rounds: the AES-128 key is a prefix of the AES-256 one.
  const std::string k256 = KeyGen::passphraseToKey_deprecated("correct horse", CT_AES256_CBC);
  EXPECT_EQ(hex(k256), "8986daaf375f64d5c346deac63eb675d86dd9bc0bea0c6d4de15974704b3543e");
  EXPECT_EQ(KeyGen::passphraseToKey_deprecated("correct horse", CT_AES128_CBC), k256.substr(0, 16));
  EXPECT_EQ(KeyGen::passphraseToKey_deprecated("correct horse", CT_AES192_CBC).size(), 24u);
  EXPECT_EQ(KeyGen::passphraseToKey_deprecated("pw", CT_INVALID_CBC) +
                KeyGen::passphraseToKey_deprecated("pw", static_cast<ks_ciphertype_t>(5)),
            "");
  const EVP_CIPHER* cipher = nullptr;
  EXPECT_EQ(KeyGen::ksLoadCipher(CT_BLOW_CBC, nullptr), 1214);
  ASSERT_EQ(KeyGen::ksLoadCipher(CT_BLOW_CBC, &cipher), 0);
  EXPECT_EQ(KeyGen::passphraseToKey_deprecated("correct horse", CT_BLOW_CBC).size(),
            static_cast<size_t>(EVP_CIPHER_get_key_length(cipher)));
  // Keys, salts and tags are fresh, or nothing after twenty failed draws.
  EXPECT_EQ(KeyGen::generateRandomKey(0) + KeyGen::generateRandomKey(65), "");
  EXPECT_EQ(KeyGen::generateRandomKey(64).size() + KeyGen::generateRandomKey(1).size(), 65u);
  EXPECT_NE(KeyGen::generateRandomKey(32), KeyGen::generateRandomKey(32));
  const std::string salt = KeyGen::generateSalt();
  ASSERT_EQ(salt.size(), 24u);
  EXPECT_EQ(salt.substr(0, 2), "S\x02");
  EXPECT_NE(KeyGen::generateSalt(), salt);
  KeyGen::s_use_weak_kdf = true;
  const std::string weak = KeyGen::generateSalt();
  KeyGen::s_use_weak_kdf = false;
  EXPECT_EQ(weak[1], 3);
  // A weak salt is honoured when read back.
  EXPECT_EQ(KeyGen::passphraseToKey("pw", weak, 32),
            KeyGen::pbkdf2("pw", weak, KeyGen::WEAK_ITERATIONS, EVP_sha1(), 32));
  const std::string tag = TagGen::newTag();
  EXPECT_EQ(tag.size(), 32u);
  EXPECT_NE(TagGen::newTag(), tag);
  EXPECT_EQ(Utils::getRandData(0), "");
  ScriptedRandom oneFailure(1);  // a random key is made in one attempt
  EXPECT_EQ(KeyGen::generateRandomKey(32), "");
  EXPECT_EQ(ScriptedRandom::calls(), 1);
  ScriptedRandom nineteenFailures(19, "r");
  EXPECT_EQ(Utils::getRandData(5), "rrrrr");
  EXPECT_EQ(ScriptedRandom::calls(), 20);
  ScriptedRandom lastChance(19);
  EXPECT_EQ(KeyGen::generateSalt().size(), 24u);
  ScriptedRandom twentyFailures(20, "r");
  EXPECT_EQ(Utils::getRandData(5), "");
  EXPECT_EQ(ScriptedRandom::calls(), 20);
  ScriptedRandom again(20);
  EXPECT_EQ(KeyGen::generateSalt(), "");
  ScriptedRandom andAgain(20);
  EXPECT_EQ(TagGen::newTag(), "");
}

TEST(KeyWrap, EveryFormRoundTripsFailuresAndTheKpkManager) {
  for (const Form& f : kForms) {
    SCOPED_TRACE(testing::Message() << std::hex << f.version << " type " << std::dec << f.type);
    const std::string wrapped = Utils::encryptKeyWithKey(kKey, kKek, f.type, f.version);
    EXPECT_EQ(wrapped.size(), f.wrappedLen);
    EXPECT_EQ(wrapped.find(kKey), std::string::npos);
    EXPECT_EQ(Utils::decryptKeyWithKey(wrapped, kKek, f.type, f.version), kKey);
    EXPECT_NE(Utils::encryptKeyWithKey(kKey, kKek, f.type, f.version), wrapped);
  }
  const std::string sealed =
      Utils::encryptKeyWithKey(kKey, kKek, KSCrypt::AES_256_GCM, KS_VERSION_300);
  // A sound stream whose plaintext has odd length is no wrapped key.
  const std::string odd = gcm(kKek, std::string(33, 'o'));
  const KSCrypt::CryptType kGcm = KSCrypt::AES_256_GCM, kEvp = KSCrypt::AES_256_CBC_EVP;
  const std::pair<std::function<void()>, int> rows[] = {
      // No random half for an empty key; a wrapping key of the wrong length.
      {[] { Utils::encryptKeyWithKey("", kKek, kGcm, KS_VERSION_300); }, 1200},
      {[] { Utils::encryptKeyWithKey(kKey, kKek.substr(1), kGcm, KS_VERSION_300); }, 1223},
      {[&] { Utils::decryptKeyWithKey(sealed, std::string(32, 'x'), kGcm, KS_VERSION_300); }, 1270},
      {[&] { Utils::decryptKeyWithKey(sealed.substr(0, 27), kKek, kGcm, KS_VERSION_300); }, 1224},
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
  for (size_t at = 0; at < sealed.size(); ++at) {
    std::string bad = sealed;
    bad[at] = static_cast<char>(bad[at] ^ 0x01);
    ASSERT_EQ(KS_STATUS(Utils::decryptKeyWithKey(bad, kKek, kGcm, KS_VERSION_300)), 1270) << at;
    ASSERT_EQ(KS_STATUS(mgr.decryptKey(bad, KPK_LOCAL, "")), 1200) << at;
  }
  // The manager wraps under the KPK it holds and reports every failure as internal.
  KPKMgr held;
  EXPECT_FALSE(held.isSetUp());
  EXPECT_EQ(KS_STATUS(held.encryptKey(kKey, KPK_LOCAL, "")), 1254);
  EXPECT_EQ(KS_STATUS(held.decryptKey(kKey, KPK_LOCAL, "")), 1254);
  held.set(kKek, KSCrypt::AES_256_CBC_EVP, KS_VERSION_200, true);
  EXPECT_EQ(held.encryptKey(kKey, KPK_LOCAL, "").size(), 96u);
  held.set(kKek, KSCrypt::AES_256_GCM, KS_VERSION_300, true);
  EXPECT_TRUE(held.isSetUp());
  EXPECT_EQ(KS_STATUS(held.encryptKey(kKey, KPK_INVALID, "")), 1255);
  EXPECT_EQ(KS_STATUS(held.decryptKey(kKey, static_cast<ks_kpktype_t>(2), "")), 1255);
  const std::string wrapped = held.encryptKey(kKey, KPK_LOCAL, "any tag");
  EXPECT_EQ(wrapped.size(), 92u);
  EXPECT_EQ(held.decryptKey(wrapped, KPK_LOCAL, "another tag"), kKey);
  const KPKMgr other(std::string(32, 'o'), KSCrypt::AES_256_GCM, KS_VERSION_300, true);
  EXPECT_EQ(KS_STATUS(other.decryptKey(wrapped, KPK_LOCAL, "")), 1200) << "wrong KPK";
  EXPECT_EQ(KS_STATUS(held.encryptKey("", KPK_LOCAL, "")), 1200) << "passed on as is";
  const KPKMgr shortKpk(std::string(16, 's'), KSCrypt::AES_256_GCM, KS_VERSION_300, true);
  EXPECT_EQ(KS_STATUS(shortKpk.encryptKey(kKey, KPK_LOCAL, "")), 1200) << "1223 mapped";
  KPKMgr assigned;
  assigned = held;
  EXPECT_EQ(assigned.decryptKey(wrapped, KPK_LOCAL, ""), kKey);
}

TEST(KPKMgrDeathTest, EmptyUnwrappedKeyAborts) {
  // A sound GCM stream of nothing under the KPK unwraps to an empty key.
  const std::string emptyWrap = gcm(kKek, "");
  const KPKMgr mgr(kKek, KSCrypt::AES_256_GCM, KS_VERSION_300, true);
  EXPECT_DEATH(mgr.decryptKey(emptyWrap, KPK_LOCAL, ""), "");
}

TEST(CrypterPool, LeasesComeBackResetAndTheManagerWorksFromManyThreads) {
  CrypterPool pool;
  EXPECT_EQ(KS_STATUS(pool.lease(CrypterPool::DECRYPT)), 1223) << "no key yet";
  pool.setKey(KSCrypt::AES_256_GCM, kKeyA);
  // A decryption that nobody fetched leaves no plaintext for the next lease.
  const std::string secretA = gcm(kKeyA, "plaintext left behind");
  ASSERT_EQ(pool.lease(CrypterPool::DECRYPT)->decrypt(u8(secretA), secretA.size(), true), 0);
  {
    CrypterPool::Lease c = pool.lease(CrypterPool::DECRYPT);
    const unsigned char* p = nullptr;
    unsigned long n = 99;
    EXPECT_EQ(c->getDecryptedData(&p, &n) + n, 0u);
    EXPECT_EQ(decryptAll(*c, secretA).bytes, "plaintext left behind");
  }
  // An encrypt side comes back with a fresh IV, ready for the next stream.
  const std::string first = encryptAll(*pool.lease(CrypterPool::ENCRYPT), "same").bytes;
  const std::string second = encryptAll(*pool.lease(CrypterPool::ENCRYPT), "same").bytes;
  EXPECT_NE(first.substr(0, 12), second.substr(0, 12));
  EXPECT_EQ(decryptAll(*pool.lease(CrypterPool::DECRYPT), second).bytes, "same");
  // A crypter leased under the old key does not return to serve the new one.
  const std::string secretB = gcm(kKeyB, "under b");
  {
    CrypterPool::Lease old = pool.lease(CrypterPool::DECRYPT);
    pool.setKey(KSCrypt::AES_256_GCM, kKeyB);
  }
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(decryptAll(*pool.lease(CrypterPool::DECRYPT), secretB).bytes, "under b") << i;
  }
  pool.clear();
  EXPECT_EQ(KS_STATUS(pool.lease(CrypterPool::ENCRYPT)), 1223);
  pool.setKey(KSCrypt::AES_256_GCM, std::string(31, 'x'));  // the factory's error
  EXPECT_EQ(KS_STATUS(pool.lease(CrypterPool::ENCRYPT)), 1223);
  // The manager wraps and unwraps from many threads and follows refills.
  for (ks_version_t version : {KS_VERSION_100, KS_VERSION_300}) {
    KPKMgr mgr(kKeyA, KSCrypt::AES_256_GCM, version, true);
    std::atomic<int> bad{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([&] {
        for (int i = 0; i < 150; ++i) {
          const std::string key = Utils::getRandData(32);
          std::string wrapped = mgr.encryptKey(key, KPK_LOCAL, "");
          if (mgr.decryptKey(wrapped, KPK_LOCAL, "") != key) {
            ++bad;
          }
          // A damaged wrap between good ones fails alone.
          if (i % 7 == 0) {
            wrapped[wrapped.size() - 1] ^= 0x01;
            if (KS_STATUS(mgr.decryptKey(wrapped, KPK_LOCAL, "")) != 1200) {
              ++bad;
            }
          }
        }
      });
    }
    std::for_each(threads.begin(), threads.end(), [](std::thread& t) { t.join(); });
    EXPECT_EQ(bad.load(), 0) << version;
    // After a refill, the crypters of the old KPK are gone.
    const std::string underA = mgr.encryptKey(kKeyB, KPK_LOCAL, "");
    mgr.set(kKeyB, KSCrypt::AES_256_GCM, version, true);
    EXPECT_EQ(KS_STATUS(mgr.decryptKey(underA, KPK_LOCAL, "")), 1200) << version;
    const std::string underB = mgr.encryptKey(kKeyA, KPK_LOCAL, "");
    EXPECT_EQ(Utils::decryptKeyWithKey(underB, kKeyB, KSCrypt::AES_256_GCM, version), kKeyA);
    const KPKMgr copy(mgr);
    EXPECT_EQ(copy.decryptKey(underB, KPK_LOCAL, ""), kKeyA) << version;
  }
}
