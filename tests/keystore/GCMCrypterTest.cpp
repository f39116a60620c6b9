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
const std::string kStream15 =
    kIv + unhex(
              "522dc1f099567d07f47f37a32a84427d643a8cdcbfe5c0c97598a2bd2555d1aa"
              "8cb08e48590dbb3da7b08b1056828838c5f61e6393ba7a0abcc9f662898015ad"
              "b094dac5d93471bdec1a502270e3cc6c");
// Test case 16: the same key and IV, 60 bytes of plaintext, 20 bytes of AAD.
const std::string kStream16 = kStream15.substr(0, 72) + unhex("76fc6ece0f4e1768cddf8853bb2d551b");
// Test case 13: the zero key, the zero IV and no plaintext: IV and tag only.
const std::string kStream13 = unhex(std::string(24, '0') + "530f8afbc74536b9a963b4f1c4cb738b");

std::string fetchDecrypted(GCMCrypter& c, int expected = 0) {
  const unsigned char* p = nullptr;
  unsigned long n = 0;
  EXPECT_EQ(c.getDecryptedData(&p, &n), expected);
  return expected == 0 ? std::string(reinterpret_cast<const char*>(p), n) : "";
}

}  // namespace

TEST(GCMCrypter, KnownAnswersAlsoFromAReusedCrypter) {
  {
    ScriptedRandom fixedIv(0, kIv);
    GCMCrypter c(kKey);
    for (int round = 0; round < 2; ++round) {
      EXPECT_EQ(hex(encryptAll(c, kPlain15).bytes), hex(kStream15));
      ASSERT_EQ(c.encryptReset(), 0);
      ASSERT_EQ(c.add_authenticated_data_encrypt(u8(kAad), 10), 0);
      ASSERT_EQ(c.add_authenticated_data_encrypt(u8(kAad) + 10, kAad.size() - 10), 0);
      EXPECT_EQ(hex(encryptAll(c, kPlain15.substr(0, 60)).bytes), hex(kStream16));
      ASSERT_EQ(c.encryptReset(), 0);
    }
    ScriptedRandom zeroIv(0, std::string(1, '\0'));
    GCMCrypter zero(std::string(32, '\0'));
    EXPECT_EQ(hex(encryptAll(zero, "").bytes), hex(kStream13));
  }
  GCMCrypter c(kKey);
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(hex(decryptAll(c, kStream15).bytes), hex(kPlain15));
    ASSERT_EQ(c.decryptReset(), 0);
    ASSERT_EQ(c.add_authenticated_data_decrypt(u8(kAad), kAad.size()), 0);
    const auto withAad = decryptAll(c, kStream16);
    ASSERT_EQ(withAad.status, 0);
    EXPECT_EQ(hex(withAad.bytes), hex(kPlain15.substr(0, 60)));
    ASSERT_EQ(c.decryptReset(), 0);
  }
  GCMCrypter zero(std::string(32, '\0'));
  const auto empty = decryptAll(zero, kStream13);
  EXPECT_EQ(empty.status, 0);
  EXPECT_EQ(empty.bytes, "");
}

TEST(GCMCrypter, StreamMaySplitAnywhereAndNoPlaintextComesBeforeTheTag) {
  // Every two-piece split of the 92-byte stream, inside IV and tag included.
  for (size_t i = 0; i <= kStream15.size(); ++i) {
    GCMCrypter c(kKey);
    ASSERT_EQ(c.decrypt(u8(kStream15), i, false), 0);
    ASSERT_EQ(fetchDecrypted(c), "") << "no plaintext before the final call";
    ASSERT_EQ(c.decrypt(u8(kStream15) + i, kStream15.size() - i, true), 0) << i;
    ASSERT_EQ(hex(fetchDecrypted(c)), hex(kPlain15)) << i;
  }
  // One byte at a time, then a final call with no data.
  GCMCrypter c(kKey);
  for (size_t i = 0; i < kStream15.size(); ++i) {
    ASSERT_EQ(c.decrypt(u8(kStream15) + i, 1, false), 0);
  }
  ASSERT_EQ(c.decrypt(nullptr, 0, true), 0);
  EXPECT_EQ(hex(fetchDecrypted(c)), hex(kPlain15));
}

TEST(GCMCrypter, EveryFlippedBitIsRefusedAndNoPlaintextEscapes) {
  GCMCrypter enc(std::string(32, 'k'));
  const std::string stream = encryptAll(enc, "a key record of some forty bytes").bytes;
  ASSERT_EQ(stream.size(), 12u + 32u + 16u);
  GCMCrypter c(std::string(32, 'k'));  // one crypter, reset between streams
  for (size_t at = 0; at < stream.size(); ++at) {
    for (int bit = 0; bit < 8; ++bit) {
      std::string bad = stream;
      bad[at] = static_cast<char>(bad[at] ^ (1 << bit));
      ASSERT_EQ(c.decryptReset(), 0);
      ASSERT_EQ(c.decrypt(u8(bad), bad.size(), true), 1270) << at << "/" << bit;
      fetchDecrypted(c, 1223);
    }
  }
  ASSERT_EQ(c.decryptReset(), 0);
  EXPECT_EQ(decryptAll(c, stream).bytes, "a key record of some forty bytes");
}

TEST(GCMCrypter, ShortStreamsWrongKeyAndCallsAfterTheEnd) {
  GCMCrypter enc(std::string(32, 'k'));
  const std::string empty = encryptAll(enc, "").bytes;
  ASSERT_EQ(empty.size(), 28u);
  // Too short to hold an IV and a tag: 1224, not an authentication failure.
  for (size_t len : {0, 5, 12, 27}) {
    GCMCrypter c(std::string(32, 'k'));
    EXPECT_EQ(c.decrypt(u8(empty), len, true), 1224) << len;
    EXPECT_EQ(c.decrypt(u8(empty), len, true), 1223) << len;
  }
  GCMCrypter wrong(std::string(32, 'K'));
  EXPECT_EQ(wrong.decrypt(u8(empty), empty.size(), true), 1270);
  fetchDecrypted(wrong, 1223);
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
  // A reset after a failure or a stream left halfway opens the next one.
  ASSERT_EQ(late.decryptReset(), 0);
  ASSERT_EQ(late.add_authenticated_data_decrypt(u8(aad), aad.size()), 0);
  EXPECT_EQ(decryptAll(late, sealed).bytes, "secret");
  ASSERT_EQ(late.decryptReset(), 0);
  ASSERT_EQ(late.decrypt(u8(plainSealed), 20, false), 0);
  ASSERT_EQ(late.decryptReset(), 0);
  EXPECT_EQ(decryptAll(late, plainSealed).bytes, "secret");
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
  EXPECT_NE(encryptAll(c, part).bytes.substr(0, 12), firstIv);
  // A random source that fails makes the reset, and so the constructor, fail.
  ScriptedRandom broken(1);
  EXPECT_EQ(c.encryptReset(), 1223);
  EXPECT_EQ(c.encrypt(u8(part), part.size(), true), 1223);
  ScriptedRandom brokenAgain(1);
  EXPECT_EQ(KS_STATUS(GCMCrypter(std::string(32, 'k'))), 1223);
  EXPECT_EQ(KS_STATUS(GCMCrypter(std::string(31, 'k'))), 1223);
}
