// The crypters: what every crypter keeps (types, factory, chunking, the final call), and
// known answers (NIST SP 800-38A F.2.1-F.2.6, McGrew-Viega GCM cases 13, 15, 16) and failures.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "CryptoTestUtil.h"
#include "kms/server/keystore/crypto/CryptFactory.h"
#include "kms/server/keystore/crypto/EVPCrypter.h"
#include "kms/server/keystore/crypto/GCMCrypter.h"
#include "kms/server/keystore/crypto/MangleCrypter.h"

using namespace Vaultrest::DL::KMS;
using namespace cryptotest;

namespace {

KSCrypt::CryptType asType(int v) {
  return static_cast<KSCrypt::CryptType>(v);
}

// The key length of each type; 32 for a type the factory does not know.
std::string keyFor(int type) {
  static const int kLens[] = {0, 0, 32, 24, 16, 32, 32};
  return std::string(type >= 0 && type < 7 ? kLens[type] : 32, '\x5a');
}

std::unique_ptr<KSCrypt> make(int type) {
  return CryptFactory::createCrypter(asType(type), keyFor(type), std::string(16, '\x01'));
}

std::string pattern(size_t n) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) {
    s[i] = static_cast<char>(i * 7 + 3);
  }
  return s;
}

// What a get hands out; "" for an error other than `expected`.
std::string fetch(KSCrypt& c, bool encrypted, int expected = 0) {
  const unsigned char* p = nullptr;
  unsigned long n = 0;
  EXPECT_EQ(encrypted ? c.getEncryptedData(&p, &n) : c.getDecryptedData(&p, &n), expected);
  return expected == 0 ? std::string(reinterpret_cast<const char*>(p), n) : "";
}

// Feeds `in` to one side in pieces, fetching after each; every status must be 0.
std::string pump(KSCrypt& c, bool encrypting, const std::string& in, size_t piece) {
  std::string out;
  for (size_t at = 0; at == 0 || at < in.size(); at += piece) {
    const size_t n = std::min(piece, in.size() - at);
    const bool final = at + n == in.size();
    EXPECT_EQ(encrypting ? c.encrypt(u8(in) + at, n, final) : c.decrypt(u8(in) + at, n, final), 0);
    out += fetch(c, encrypting);
    // GCM lets no plaintext out before the tag has been checked.
    EXPECT_TRUE(final || encrypting || out.empty() || !dynamic_cast<GCMCrypter*>(&c));
  }
  return out;
}

const std::string kCbcIv = unhex("000102030405060708090a0b0c0d0e0f");
const std::string kPlain = unhex(
    "6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"
    "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710");

struct CbcVector {
  mangleCipherType type;
  const char* key;
  const char* cipher;    // the four published blocks
  const char* padBlock;  // encryption of the PKCS#7 block that follows them
};

const CbcVector kVectors[] = {
    {MANGLE_AES_128, "2b7e151628aed2a6abf7158809cf4f3c",
     "7649abac8119b246cee98e9b12e9197d5086cb9b507219ee95db113a917678b2"
     "73bed6b8e3c1743b7116e69e222295163ff1caa1681fac09120eca307586e1a7",
     "8cb82807230e1321d3fae00d18cc2012"},
    {MANGLE_AES_192, "8e73b0f7da0e6452c810f32b809079e562f8ead2522c6b7b",
     "4f021db243bc633d7178183a9fa071e8b4d9ada9ad7dedf4e5e738763f69145a"
     "571b242012fb7ae07fa9baac3df102e008b0e27988598881d920a9e64f5615cd",
     "612ccd79224b350935d45dd6a98f8176"},
    {MANGLE_AES_256, "603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4",
     "f58c4c04d6e5f1ba779eabfb5f7bfbd69cfc4e967edb808d679f777bc6702c7d"
     "39f23369a9d9bacfa530e26304231461b2eb05e2c39be9fcda6c19078c6a9d1b",
     "3f461796d6b0d6b2e0c2a72b4d80e644"},
};

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

}  // namespace

TEST(CryptType, TableNamesAndColumns) {
  const struct {
    int type;
    const char* name;
    int key, iv;
    bool aad;
  } rows[] = {{1, "CRYPT_NONE", 0, 0, false},        {2, "AES_256_CBC", 32, 16, false},
              {3, "AES_192_CBC", 24, 16, false},     {4, "AES_128_CBC", 16, 16, false},
              {5, "AES_256_CBC_EVP", 32, 16, false}, {6, "AES_256_GCM", 32, 0, true}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(KSCrypt::cryptTypeToString(asType(row.type)), row.name);
    EXPECT_EQ(KSCrypt::stringToCryptType(row.name), row.type);
    EXPECT_EQ(KSCrypt::cryptTypeToKeyLen(asType(row.type)), row.key);
    EXPECT_EQ(KSCrypt::cryptTypeToIVLen(asType(row.type)), row.iv);
    EXPECT_EQ(KSCrypt::cryptTypeSupportsAAD(asType(row.type)), row.aad);
  }
  for (int bad : {0, 7, -1}) {
    SCOPED_TRACE(bad);
    EXPECT_EQ(KSCrypt::cryptTypeToString(asType(bad)), "CRYPT_INVALID");
    EXPECT_EQ(KS_STATUS(KSCrypt::cryptTypeToKeyLen(asType(bad))), 1200);
    EXPECT_EQ(KS_STATUS(KSCrypt::cryptTypeToIVLen(asType(bad))), 1200);
    EXPECT_EQ(KS_STATUS(KSCrypt::cryptTypeSupportsAAD(asType(bad))), 1200);
    EXPECT_EQ(KS_STATUS(make(bad)), 1223);
  }
  for (const char* name : {"aes_256_gcm", "CRYPT_INVALID", "", "AES_256_GCM ", "AES_256"}) {
    EXPECT_EQ(KSCrypt::stringToCryptType(name), KSCrypt::CRYPT_INVALID) << name;
  }
  // The null crypter takes any key and IV (the others' constructors check theirs).
  EXPECT_EQ(KS_STATUS((void)CryptFactory::createCrypter(KSCrypt::CRYPT_NONE, "x", "y")), 0);
}

class EveryCrypter : public ::testing::TestWithParam<int> {};

INSTANTIATE_TEST_SUITE_P(Types, EveryCrypter, ::testing::Range(1, 7), [](const auto& info) {
  return KSCrypt::cryptTypeToString(static_cast<KSCrypt::CryptType>(info.param));
});

TEST_P(EveryCrypter, RoundTripsAnyLengthInAnyChunking) {
  const int type = GetParam();
  for (size_t len : {0, 1, 15, 16, 17, 2047, 2048, 2049, 5000}) {
    const std::string plain = pattern(len);
    const auto whole = encryptAll(*make(type), plain);
    ASSERT_EQ(whole.status, 0) << len;
    // CBC pads to the next whole block (mangle adds its 16-byte IV), GCM adds IV and tag.
    const size_t padded = (len / 16 + 1) * 16;
    const size_t expected[] = {0,           len,    16 + padded,  16 + padded,
                               16 + padded, padded, 12 + len + 16};
    EXPECT_EQ(whole.bytes.size(), expected[type]) << len;
    EXPECT_EQ(whole.bytes == plain, type == KSCrypt::CRYPT_NONE);
    EXPECT_TRUE(decryptAll(*make(type), whole.bytes).bytes == plain) << len;
    for (size_t piece : {1, 5, 16, 700}) {
      SCOPED_TRACE(testing::Message() << "len " << len << " piece " << piece);
      EXPECT_TRUE(pump(*make(type), false, pump(*make(type), true, plain, piece), piece + 3) ==
                  plain);
    }
  }
}

TEST_P(EveryCrypter, OutputIsHandedOutOnceAndTheFinalCallEndsTheSideUntilReset) {
  const KSCrypt::CryptType type = asType(GetParam());
  auto c = make(type);
  const std::string a = pattern(40), b = pattern(9), tail = pattern(23);
  ASSERT_EQ(c->encrypt(u8(a), a.size(), false), 0);
  ASSERT_EQ(c->encrypt(u8(b), b.size(), false), 0);
  std::string stream = fetch(*c, true);
  EXPECT_EQ(fetch(*c, true), "");  // nothing new since the last get
  ASSERT_EQ(c->encrypt(u8(tail), tail.size(), true), 0);
  stream += fetch(*c, true);
  EXPECT_EQ(fetch(*c, true), "");
  EXPECT_EQ(decryptAll(*make(type), stream).bytes, a + b + tail);
  EXPECT_EQ(c->encrypt(u8(a), a.size(), false), 1224);
  EXPECT_EQ(c->encrypt(nullptr, 0, true),
            type == KSCrypt::CRYPT_NONE || type == KSCrypt::AES_256_CBC_EVP ? 1224 : 1223);
  // The other side is untouched, and a reset brings this one back.
  ASSERT_EQ(c->encryptReset(), 0);
  const auto again = encryptAll(*c, a + b + tail);
  // Crypters that carry their IV in the stream draw a new one at each reset.
  const bool ownIv = type != KSCrypt::CRYPT_NONE && type != KSCrypt::AES_256_CBC_EVP;
  EXPECT_EQ(stream != again.bytes, ownIv);
  EXPECT_EQ(decryptAll(*c, again.bytes).bytes, a + b + tail);
  EXPECT_EQ(c->decrypt(u8(again.bytes), again.bytes.size(), true), 1224);
  ASSERT_EQ(c->reset(), 0);
  EXPECT_EQ(decryptAll(*c, again.bytes).bytes, a + b + tail);
  // AAD is refused unless the type supports it; a refusal leaves the crypter usable.
  ASSERT_EQ(c->reset(), 0);
  const int expected = KSCrypt::cryptTypeSupportsAAD(type) ? 0 : 1224;
  EXPECT_EQ(c->add_authenticated_data_encrypt(u8(a), a.size()), expected);
  EXPECT_EQ(c->add_authenticated_data_decrypt(u8(a), a.size()), expected);
  EXPECT_EQ(decryptAll(*c, encryptAll(*c, "payload").bytes).bytes, "payload");
}

// The mangle stream is the IV, then CBC with padding; the EVP crypter leaves the IV out.
TEST(CbcCrypters, KnownAnswersAndAFailedEvpPaddingCheckLocksTheSide) {
  for (const CbcVector& v : kVectors) {
    SCOPED_TRACE(v.type);
    const std::string cipher = unhex(std::string(v.cipher) + v.padBlock);
    {
      ScriptedRandom fixedIv(0, kCbcIv);  // every encryptReset, the constructor's too, draws it
      MangleCrypter enc(v.type, unhex(v.key));
      EXPECT_EQ(hex(encryptAll(enc, kPlain).bytes), hex(kCbcIv + cipher));
    }
    MangleCrypter dec(v.type, unhex(v.key));
    EXPECT_EQ(hex(decryptAll(dec, kCbcIv + cipher).bytes), hex(kPlain));
    if (v.type == MANGLE_AES_256) {
      EVPCrypter enc(EVPCrypter::EVP_AES_256_CBC, unhex(v.key), kCbcIv);
      EXPECT_EQ(hex(encryptAll(enc, kPlain).bytes), hex(cipher));
      EVPCrypter dec(EVPCrypter::EVP_AES_256_CBC, unhex(v.key), kCbcIv);
      EXPECT_EQ(hex(decryptAll(dec, cipher).bytes), hex(kPlain));
    }
  }
  // A failed padding check locks the EVP crypter's side.
  const std::string key(32, 'k'),
      stream = unhex(std::string(kVectors[2].cipher) + kVectors[2].padBlock);
  EXPECT_EQ(KS_STATUS(EVPCrypter(static_cast<EVPCrypter::EVPCryptType>(1), key, kCbcIv)), 1223);
  EXPECT_EQ(KS_STATUS(EVPCrypter(EVPCrypter::EVP_AES_256_CBC, key + "x", kCbcIv)), 1223);
  EXPECT_EQ(KS_STATUS(EVPCrypter(EVPCrypter::EVP_AES_256_CBC, key, kCbcIv + "x")), 1223);
  EVPCrypter wrong(EVPCrypter::EVP_AES_256_CBC, key, kCbcIv);
  EXPECT_EQ(wrong.decrypt(u8(stream), stream.size(), true), 1270);
  fetch(wrong, false, 1223);
  EXPECT_EQ(wrong.decrypt(u8(stream), stream.size(), true), 1223) << "status before final flag";
  ASSERT_EQ(wrong.decryptReset(), 0);
  EXPECT_EQ(wrong.decrypt(u8(stream), stream.size() - 1, true), 1270) << "not whole blocks";
  EVPCrypter right(EVPCrypter::EVP_AES_256_CBC, unhex(kVectors[2].key), kCbcIv);
  EXPECT_EQ(right.decrypt(u8(stream), stream.size() - 16, true), 1270) << "padding block cut off";
}

TEST(MangleCipher, ContextRulesResultCodesAndTheCryptersRefusals) {
  mangleCipherCtx_t ctx{};
  const unsigned char* out = nullptr;
  unsigned long len = 0;
  EXPECT_EQ(mangleEncryptFree(&ctx), MANGLE_OK) << "free of a zeroed context";
  EXPECT_EQ(mangleGetEncryptedData(&out, &len, &ctx), MANGLE_ERR_NOT_READY);
  EXPECT_EQ(mangleEncrypt(u8("x"), 1, 1, &ctx), MANGLE_ERR_NOT_READY);
  const std::string key(32, 'k');
  EXPECT_EQ(mangleEncryptSetup(u8(key), 31, MANGLE_AES_256, &ctx), MANGLE_ERR_ARGUMENT);
  EXPECT_EQ(mangleEncryptSetup(u8(key), 32, 7, &ctx), MANGLE_ERR_ARGUMENT);
  ASSERT_EQ(mangleEncryptSetup(u8(key), 32, MANGLE_AES_256, &ctx), MANGLE_OK);
  EXPECT_EQ(mangleDecrypt(u8("x"), 1, 0, &ctx), MANGLE_ERR_NOT_READY) << "not a decrypt context";
  ASSERT_EQ(mangleEncrypt(u8("abc"), 3, 1, &ctx), MANGLE_OK);
  EXPECT_EQ(mangleGetEncryptedData(&out, &len, &ctx) + len, MANGLE_OK + 32u);
  EXPECT_EQ(mangleEncrypt(u8("abc"), 3, 1, &ctx), MANGLE_ERR_FINISHED);
  EXPECT_EQ(mangleEncryptFree(&ctx), MANGLE_OK);
  EXPECT_EQ(mangleEncryptFree(&ctx), MANGLE_OK) << "free twice";
  // The crypter over it: short streams, bad padding and refusals.
  MangleCrypter enc(MANGLE_AES_256, key);
  const std::string stream = encryptAll(enc, "sixteen byte msg").bytes;
  ASSERT_EQ(stream.size(), 48u);
  // Shorter than an IV and one block, whole or split, ends in 1270.
  for (size_t len : {0, 5, 16, 31}) {
    MangleCrypter c(MANGLE_AES_256, key);
    EXPECT_EQ(c.decrypt(u8(stream), len, true), 1270) << len;
    fetch(c, false, 1223);
    ASSERT_EQ(c.decryptReset(), 0);
    ASSERT_EQ(c.decrypt(u8(stream), len / 2, false), 0);
    EXPECT_EQ(c.decrypt(u8(stream) + len / 2, len - len / 2, true), 1270) << len;
  }
  // Dropping the last block exposes one whose padding is wrong (its last byte is 'g').
  MangleCrypter c(MANGLE_AES_256, key);
  EXPECT_EQ(c.decrypt(u8(stream), 32, true), 1270);
  // After the final call the library answers MANGLE_ERR_FINISHED: 1224, then 1223.
  ASSERT_EQ(c.decryptReset(), 0);
  ASSERT_EQ(decryptAll(c, stream).status, 0);
  EXPECT_EQ(c.decrypt(u8(stream), stream.size(), true), 1224);
  EXPECT_EQ(c.decrypt(u8(stream), stream.size(), true), 1223);
  ASSERT_EQ(c.decryptReset(), 0);
  EXPECT_EQ(decryptAll(c, stream).bytes, "sixteen byte msg");
  EXPECT_EQ(KS_STATUS(MangleCrypter(MANGLE_AES_256, std::string(24, 'k'))), 1223);
  EXPECT_EQ(KS_STATUS(MangleCrypter(MANGLE_AES_128, std::string(32, 'k'))), 1223);
  EXPECT_EQ(KS_STATUS(MangleCrypter(static_cast<mangleCipherType>(4), "k")), 1223);
  ScriptedRandom broken(1000);  // the encrypt side's setup fails
  EXPECT_EQ(KS_STATUS(MangleCrypter(MANGLE_AES_256, key)), 1223);
}

TEST(GCMCrypter, KnownAnswersAadRulesAndRandomFailures) {
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
    EXPECT_EQ(hex(decryptAll(c, kStream16).bytes), hex(kPlain15.substr(0, 60)));
    ASSERT_EQ(c.decryptReset(), 0);
  }
  GCMCrypter zero(std::string(32, '\0'));
  const auto empty = decryptAll(zero, kStream13);
  EXPECT_EQ(empty.status, 0);
  EXPECT_EQ(empty.bytes, "");
  // A final call with no data after the whole stream.
  ASSERT_EQ(c.decrypt(u8(kStream15), kStream15.size(), false), 0);
  ASSERT_EQ(c.decrypt(nullptr, 0, true), 0);
  EXPECT_EQ(hex(fetch(c, false)), hex(kPlain15));
  // AAD must match and come before the data.
  const std::string key(32, 'k'), aad = "record header";
  GCMCrypter g(key);
  ASSERT_EQ(g.add_authenticated_data_encrypt(u8(aad), aad.size()), 0);
  const std::string sealed = encryptAll(g, "secret").bytes;
  ASSERT_EQ(g.encryptReset(), 0);
  const std::string plainSealed = encryptAll(g, "secret").bytes;
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
  GCMCrypter noAad(key);  // a failed tag check lets no plaintext out
  EXPECT_EQ(noAad.decrypt(u8(sealed), sealed.size(), true), 1270);
  fetch(noAad, false, 1223);
  // After the first data, AAD is refused and the side is unusable until reset.
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
  // A failing random source fails the reset and the constructor.
  ScriptedRandom broken(1);
  EXPECT_EQ(late.encryptReset(), 1223);
  EXPECT_EQ(late.encrypt(u8("x"), 1, true), 1223);
  ScriptedRandom brokenAgain(1);
  EXPECT_EQ(KS_STATUS(GCMCrypter(std::string(32, 'k'))), 1223);
  EXPECT_EQ(KS_STATUS(GCMCrypter(std::string(31, 'k'))), 1223);
}
