// Key, salt and tag generation, the passphrase derivations and the HMAC
// helper. Published vectors: RFC 6070 (PBKDF2-HMAC-SHA1), the widely used
// PBKDF2-HMAC-SHA512 vector for "password"/"salt", RFC 4231 case 2
// (HMAC-SHA-256). The salt-driven derivations are pinned to values computed
// with an independent PBKDF2 implementation.
#include <gtest/gtest.h>

#include <openssl/evp.h>

#include <string>

#include "CryptoTestUtil.h"
#include "kms/server/keystore/crypto/Hmac.h"
#include "kms/server/keystore/crypto/KeyGen.h"
#include "kms/server/keystore/crypto/RandData.h"
#include "kms/server/keystore/crypto/TagGen.h"

using namespace Vaultrest::DL::KMS;
using namespace cryptotest;

namespace {

// 'S', the scheme, then 22 bytes 00 01 .. 15.
std::string saltWithScheme(unsigned char scheme) {
  std::string salt = "S";
  salt.push_back(static_cast<char>(scheme));
  for (int i = 0; i < 22; ++i) {
    salt.push_back(static_cast<char>(i));
  }
  return salt;
}

}  // namespace

TEST(KeyGen, Pbkdf2PublishedVectors) {
  EXPECT_EQ(hex(KeyGen::pbkdf2("password", "salt", 1, EVP_sha1(), 20)),
            "0c60c80f961f0e71f3a9b524af6012062fe037a6");
  EXPECT_EQ(hex(KeyGen::pbkdf2("password", "salt", 2, EVP_sha1(), 20)),
            "ea6c014dc72d6f8ccd1ed92ace1d41f0d8de8957");
  EXPECT_EQ(hex(KeyGen::pbkdf2("password", "salt", 1, EVP_sha512(), 64)),
            "867f70cf1ade02cff3752599a3a53dc4af34c7a669815ae5d513554e1c8cf252"
            "c02d470a285a0501bad999bfe943c08f050235d7d68b1da55e63f73b60a57fce");
  EXPECT_EQ(KeyGen::pbkdf2("password", "salt", 0, EVP_sha512(), 64), "");
  EXPECT_EQ(KeyGen::pbkdf2("password", "salt", 1, nullptr, 64), "");
}

TEST(KeyGen, PassphraseToKeyFollowsTheSchemeInTheSalt) {
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
}

TEST(KeyGen, PassphraseToKeyRefusesMalformedSalts) {
  std::string otherLetter = saltWithScheme(3);
  otherLetter[0] = 'T';
  for (const std::string& salt :
       {saltWithScheme(3).substr(0, 23), saltWithScheme(3) + "x", otherLetter, saltWithScheme(0),
        saltWithScheme(4), saltWithScheme(0xff), std::string()}) {
    EXPECT_EQ(KS_STATUS(KeyGen::passphraseToKey("pw", salt, 32)), 1282) << hex(salt);
  }
}

TEST(KeyGen, DeprecatedDerivationIsUnsaltedBytesToKey) {
  // EVP_BytesToKey with SHA-1 and 1000 rounds: the key is the start of the
  // iterated digest chain, so the AES-128 key is a prefix of the AES-256 key.
  const std::string k256 = KeyGen::passphraseToKey_deprecated("correct horse", CT_AES256_CBC);
  EXPECT_EQ(hex(k256), "8986daaf375f64d5c346deac63eb675d86dd9bc0bea0c6d4de15974704b3543e");
  EXPECT_EQ(KeyGen::passphraseToKey_deprecated("correct horse", CT_AES128_CBC), k256.substr(0, 16));
  EXPECT_EQ(KeyGen::passphraseToKey_deprecated("correct horse", CT_AES192_CBC).size(), 24u);
  EXPECT_EQ(KeyGen::passphraseToKey_deprecated("correct horse", CT_INVALID_CBC), "");
  EXPECT_EQ(KeyGen::passphraseToKey_deprecated("correct horse", static_cast<ks_ciphertype_t>(5)),
            "");
  const EVP_CIPHER* cipher = nullptr;
  EXPECT_EQ(KeyGen::ksLoadCipher(CT_BLOW_CBC, nullptr), 1214);
  ASSERT_EQ(KeyGen::ksLoadCipher(CT_BLOW_CBC, &cipher), 0);
  EXPECT_EQ(KeyGen::passphraseToKey_deprecated("correct horse", CT_BLOW_CBC).size(),
            static_cast<size_t>(EVP_CIPHER_get_key_length(cipher)));
}

TEST(KeyGen, KeysSaltsAndTagsAreFreshOrNothingAfterTwentyFailedDraws) {
  EXPECT_EQ(KeyGen::generateRandomKey(0) + KeyGen::generateRandomKey(65), "");
  EXPECT_EQ(KeyGen::generateRandomKey(64).size(), 64u);
  EXPECT_EQ(KeyGen::generateRandomKey(1).size(), 1u);
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
  {
    ScriptedRandom oneFailure(1);  // a random key is made in one attempt
    EXPECT_EQ(KeyGen::generateRandomKey(32), "");
    EXPECT_EQ(ScriptedRandom::calls(), 1);
  }
  {
    ScriptedRandom nineteenFailures(19, "r");
    EXPECT_EQ(Utils::getRandData(5), "rrrrr");
    EXPECT_EQ(ScriptedRandom::calls(), 20);
  }
  {
    ScriptedRandom lastChance(19);
    EXPECT_EQ(KeyGen::generateSalt().size(), 24u);
  }
  ScriptedRandom twentyFailures(20, "r");
  EXPECT_EQ(Utils::getRandData(5), "");
  EXPECT_EQ(ScriptedRandom::calls(), 20);
  ScriptedRandom again(20);
  EXPECT_EQ(KeyGen::generateSalt(), "");
  ScriptedRandom andAgain(20);
  EXPECT_EQ(TagGen::newTag(), "");
}

TEST(Hmac, HmacSha256Rfc4231) {
  const std::string data = "what do ya want for nothing?";
  EXPECT_EQ(hex(Utils::hmac(EVP_sha256(), "Jefe", u8(data), data.size())),
            "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
  EXPECT_EQ(Utils::hmac(nullptr, "Jefe", u8(data), data.size()), "");
}
