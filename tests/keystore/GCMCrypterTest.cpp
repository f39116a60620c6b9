// The GCM crypter: known answers (McGrew-Viega test cases 13, 15 and 16,
// AES-256 with a 96-bit IV), streams split anywhere, every bit flip refused,
// AAD rules and the short-stream results.
#include <gtest/gtest.h>

#include <string>

#include "CryptoTestUtil.h"
#include "kms/server/keystore/crypto/GCMCrypter.h"

using namespace Vaultrest::DL::KMS;
using namespace cryptotest;

namespace {

const std::string kKey = unhex("feffe9928665731c6d6a8f9467308308feffe9928665731c6d6a8f9467308308");
const std::string kIv = unhex("cafebabefacedbaddecaf888");
const std::string kAad = unhex("feedfacedeadbeeffeedfacedeadbeefabaddad2");
// Test case 15: 64 bytes, no AAD.
const std::string kPlain15 = unhex(
    "d9313225f88406e5a55909c5aff5269a86a7a9531534f7da2e4c303d8a318a72"
    "1c3c0c95956809532fcf0e2449a6b525b16aedf5aa0de657ba637b391aafd255");
const std::string kCipher15 = unhex(
    "522dc1f099567d07f47f37a32a84427d643a8cdcbfe5c0c97598a2bd2555d1aa"
    "8cb08e48590dbb3da7b08b1056828838c5f61e6393ba7a0abcc9f662898015ad");
const std::string kTag15 = unhex("b094dac5d93471bdec1a502270e3cc6c");
// Test case 16: the same key and IV, 60 bytes of plaintext, 20 bytes of AAD.
const std::string kPlain16 = kPlain15.substr(0, 60);
const std::string kCipher16 = kCipher15.substr(0, 60);
const std::string kTag16 = unhex("76fc6ece0f4e1768cddf8853bb2d551b");

const std::string kStream15 = kIv + kCipher15 + kTag15;

int fetchDecrypted(GCMCrypter& c, std::string& out) {
  const unsigned char* p = nullptr;
  unsigned long n = 0;
  const int rc = c.getDecryptedData(&p, &n);
  out.assign(reinterpret_cast<const char*>(p), rc == 0 ? n : 0);
  return rc;
}

}  // namespace

TEST(GCMCrypter, KnownAnswers) {
  const std::string zeroStream = unhex(std::string(24, '0') + "530f8afbc74536b9a963b4f1c4cb738b");
  {
    ScriptedRandom fixedIv(0, kIv);
    GCMCrypter c(kKey);
    EXPECT_EQ(hex(encryptAll(c, kPlain15).bytes), hex(kStream15));
    ASSERT_EQ(c.encryptReset(), 0);
    ASSERT_EQ(c.add_authenticated_data_encrypt(u8(kAad), 10), 0);
    ASSERT_EQ(c.add_authenticated_data_encrypt(u8(kAad) + 10, kAad.size() - 10), 0);
    EXPECT_EQ(hex(encryptAll(c, kPlain16).bytes), hex(kIv + kCipher16 + kTag16));
    // Test case 13: the zero key, the zero IV and no plaintext: IV and tag only.
    ScriptedRandom zeroIv(0, std::string(1, '\0'));
    GCMCrypter zero(std::string(32, '\0'));
    EXPECT_EQ(hex(encryptAll(zero, "").bytes), hex(zeroStream));
  }
  GCMCrypter c(kKey);
  const auto plain = decryptAll(c, kStream15);
  ASSERT_EQ(plain.status, 0);
  EXPECT_EQ(hex(plain.bytes), hex(kPlain15));
  ASSERT_EQ(c.decryptReset(), 0);
  ASSERT_EQ(c.add_authenticated_data_decrypt(u8(kAad), kAad.size()), 0);
  const auto withAad = decryptAll(c, kIv + kCipher16 + kTag16);
  ASSERT_EQ(withAad.status, 0);
  EXPECT_EQ(hex(withAad.bytes), hex(kPlain16));
  GCMCrypter zero(std::string(32, '\0'));
  const auto empty = decryptAll(zero, zeroStream);
  EXPECT_EQ(empty.status, 0);
  EXPECT_EQ(empty.bytes, "");
}

TEST(GCMCrypter, StreamMaySplitAnywhereAndNoPlaintextComesBeforeTheTag) {
  // Every two-piece split of the 92-byte stream, inside IV and tag included.
  for (size_t i = 0; i <= kStream15.size(); ++i) {
    GCMCrypter c(kKey);
    ASSERT_EQ(c.decrypt(u8(kStream15), i, false), 0);
    std::string before;
    ASSERT_EQ(fetchDecrypted(c, before), 0);
    ASSERT_EQ(before, "") << "no plaintext before the final call";
    ASSERT_EQ(c.decrypt(u8(kStream15) + i, kStream15.size() - i, true), 0) << i;
    std::string plain;
    ASSERT_EQ(fetchDecrypted(c, plain), 0);
    ASSERT_EQ(hex(plain), hex(kPlain15)) << i;
  }
  // One byte at a time, then a final call with no data.
  GCMCrypter c(kKey);
  for (char byte : kStream15) {
    ASSERT_EQ(c.decrypt(reinterpret_cast<const unsigned char*>(&byte), 1, false), 0);
  }
  ASSERT_EQ(c.decrypt(nullptr, 0, true), 0);
  std::string plain;
  ASSERT_EQ(fetchDecrypted(c, plain), 0);
  EXPECT_EQ(hex(plain), hex(kPlain15));
}

TEST(GCMCrypter, EveryFlippedBitIsRefusedAndNoPlaintextEscapes) {
  GCMCrypter enc(std::string(32, 'k'));
  const std::string stream = encryptAll(enc, "a key record of some forty bytes").bytes;
  ASSERT_EQ(stream.size(), 12u + 32u + 16u);
  for (size_t at = 0; at < stream.size(); ++at) {
    for (int bit = 0; bit < 8; ++bit) {
      std::string bad = stream;
      bad[at] = static_cast<char>(bad[at] ^ (1 << bit));
      GCMCrypter c(std::string(32, 'k'));
      ASSERT_EQ(c.decrypt(u8(bad), bad.size(), true), 1270) << at << "/" << bit;
      std::string plain;
      ASSERT_EQ(fetchDecrypted(c, plain), 1223);
    }
  }
}

TEST(GCMCrypter, ShortStreamsWrongKeyAndCallsAfterTheEnd) {
  GCMCrypter enc(std::string(32, 'k'));
  const std::string empty = encryptAll(enc, "").bytes;
  ASSERT_EQ(empty.size(), 28u);
  GCMCrypter ok(std::string(32, 'k'));
  const auto nothing = decryptAll(ok, empty);
  EXPECT_EQ(nothing.status, 0);
  EXPECT_EQ(nothing.bytes, "");

  // Too short to hold an IV and a tag: 1224, not an authentication failure.
  for (size_t len : {0, 5, 12, 27}) {
    GCMCrypter c(std::string(32, 'k'));
    EXPECT_EQ(c.decrypt(u8(empty), len, true), 1224) << len;
    EXPECT_EQ(c.decrypt(u8(empty), len, true), 1223) << len;
  }

  GCMCrypter wrong(std::string(32, 'K'));
  EXPECT_EQ(wrong.decrypt(u8(empty), empty.size(), true), 1270);
  std::string plain;
  EXPECT_EQ(fetchDecrypted(wrong, plain), 1223);

  GCMCrypter done(std::string(32, 'k'));
  ASSERT_EQ(decryptAll(done, empty).status, 0);
  EXPECT_EQ(done.decrypt(u8(empty), 1, false), 1224);
  EXPECT_EQ(done.decrypt(u8(empty), 1, false), 1223);
}

TEST(GCMCrypter, AadMustMatchAndComeBeforeTheData) {
  const std::string key(32, 'k');
  const std::string aad = "record header";
  GCMCrypter c(key);
  ASSERT_EQ(c.add_authenticated_data_encrypt(u8(aad), aad.size()), 0);
  const std::string sealed = encryptAll(c, "secret").bytes;
  ASSERT_EQ(c.encryptReset(), 0);
  const std::string plainSealed = encryptAll(c, "secret").bytes;

  auto open = [&](const std::string& stream, const std::string& withAad) {
    GCMCrypter d(key);
    if (!withAad.empty()) {
      EXPECT_EQ(d.add_authenticated_data_decrypt(u8(withAad), withAad.size()), 0);
    }
    return decryptAll(d, stream);
  };
  EXPECT_EQ(open(sealed, aad).bytes, "secret");
  EXPECT_EQ(open(sealed, "").status, 1270) << "AAD only on encryption";
  EXPECT_EQ(open(plainSealed, aad).status, 1270) << "AAD only on decryption";
  EXPECT_EQ(open(sealed, "record headex").status, 1270);

  // After the first data, AAD is refused and the side stays unusable until
  // it is reset.
  GCMCrypter late(key);
  ASSERT_EQ(late.encrypt(u8(aad), 3, false), 0);
  EXPECT_EQ(late.add_authenticated_data_encrypt(u8(aad), aad.size()), 1224);
  EXPECT_EQ(late.encrypt(u8(aad), 3, true), 1223);
  ASSERT_EQ(late.encryptReset(), 0);
  EXPECT_EQ(late.add_authenticated_data_encrypt(u8(aad), aad.size()), 0);
  ASSERT_EQ(late.decrypt(u8(sealed), 4, false), 0);
  EXPECT_EQ(late.add_authenticated_data_decrypt(u8(aad), aad.size()), 1224);
  EXPECT_EQ(late.decrypt(u8(sealed) + 4, sealed.size() - 4, true), 1223);
}

TEST(GCMCrypter, EveryResetDrawsAFreshIvThatLeadsTheFirstOutput) {
  GCMCrypter c(std::string(32, 'k'));
  const std::string part = "first part of the data";
  ASSERT_EQ(c.encrypt(u8(part), part.size(), false), 0);
  const unsigned char* p = nullptr;
  unsigned long n = 0;
  ASSERT_EQ(c.getEncryptedData(&p, &n), 0);
  EXPECT_EQ(n, 12u + part.size());
  const std::string firstIv(reinterpret_cast<const char*>(p), 12);

  ASSERT_EQ(c.encryptReset(), 0);
  const std::string again = encryptAll(c, part).bytes;
  EXPECT_NE(again.substr(0, 12), firstIv);

  // A random source that fails makes the reset, and so the constructor, fail.
  ScriptedRandom broken(1);
  EXPECT_EQ(c.encryptReset(), 1223);
  EXPECT_EQ(c.encrypt(u8(part), part.size(), true), 1223);
  ScriptedRandom brokenAgain(1);
  EXPECT_EQ(ksStatus([] { GCMCrypter g(std::string(32, 'k')); }), 1223);
  EXPECT_EQ(ksStatus([] { GCMCrypter g(std::string(31, 'k')); }), 1223);
}

TEST(GCMCrypter, AReusedCrypterAgreesWithFreshOnesAcrossStreamsAndFailures) {
  // One crypter of each side serves many streams, with a failure of some
  // kind between them; fresh crypters check every result.
  const std::string key(32, 'r');
  GCMCrypter sealer(key);
  GCMCrypter opener(key);
  for (int round = 0; round < 40; ++round) {
    const std::string plain(static_cast<size_t>(round * 37 % 3000), static_cast<char>(round));
    const std::string aad = round % 3 == 0 ? "header " + std::to_string(round) : "";
    ASSERT_EQ(sealer.encryptReset(), 0);
    ASSERT_EQ(opener.decryptReset(), 0);
    GCMCrypter fresh(key);
    if (!aad.empty()) {
      ASSERT_EQ(sealer.add_authenticated_data_encrypt(u8(aad), aad.size()), 0);
      ASSERT_EQ(opener.add_authenticated_data_decrypt(u8(aad), aad.size()), 0);
      ASSERT_EQ(fresh.add_authenticated_data_decrypt(u8(aad), aad.size()), 0);
    }
    const std::string stream = encryptAll(sealer, plain).bytes;
    ASSERT_EQ(stream.size(), plain.size() + 28) << round;
    ASSERT_TRUE(decryptAll(fresh, stream).bytes == plain) << round;
    const auto opened = decryptAll(opener, stream);
    ASSERT_EQ(opened.status, 0) << round;
    ASSERT_TRUE(opened.bytes == plain) << round;

    std::string bad = stream;
    bad[bad.size() / 2] ^= 0x10;
    ASSERT_EQ(opener.decryptReset(), 0);
    switch (round % 4) {
      case 0:  // a failed tag check
        ASSERT_EQ(opener.decrypt(u8(bad), bad.size(), true), 1270);
        break;
      case 1:  // a stream too short for its tag
        ASSERT_EQ(opener.decrypt(u8(stream), 27, true), 1224);
        break;
      case 2:  // a stream left halfway, without a final call
        ASSERT_EQ(opener.decrypt(u8(stream), stream.size() / 2, false), 0);
        break;
      default:  // AAD after the data on both sides
        ASSERT_EQ(sealer.encryptReset(), 0);
        ASSERT_EQ(sealer.encrypt(u8(plain), plain.size(), false), 0);
        ASSERT_EQ(sealer.add_authenticated_data_encrypt(u8(key), 4), 1224);
        ASSERT_EQ(opener.decrypt(u8(stream), 20, false), 0);
        ASSERT_EQ(opener.add_authenticated_data_decrypt(u8(key), 4), 1224);
        break;
    }
  }
  // After all that, a reused crypter still gives the known answers.
  ScriptedRandom fixedIv(0, kIv);
  GCMCrypter c(kKey);
  for (int i = 0; i < 2; ++i) {
    ASSERT_EQ(c.encryptReset(), 0);
    EXPECT_EQ(hex(encryptAll(c, kPlain15).bytes), hex(kStream15)) << i;
    ASSERT_EQ(c.decryptReset(), 0);
    EXPECT_EQ(hex(decryptAll(c, kStream15).bytes), hex(kPlain15)) << i;
  }
}
