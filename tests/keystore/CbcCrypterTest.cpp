// The CBC crypters: the EVP crypter under a caller's IV, and the mangle
// crypter whose stream carries its own IV. Known answers are NIST SP 800-38A
// F.2.1/F.2.3/F.2.5 (encryption) and F.2.6 (decryption).
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "CryptoTestUtil.h"
#include "kms/platform/MangleCipher.h"
#include "kms/server/keystore/crypto/EVPCrypter.h"
#include "kms/server/keystore/crypto/MangleCrypter.h"

using namespace Vaultrest::DL::KMS;
using namespace cryptotest;

namespace {

const std::string kIv = unhex("000102030405060708090a0b0c0d0e0f");
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

}  // namespace

TEST(EVPCrypter, KnownAnswerAndAFailedPaddingCheckLocksTheSide) {
  const CbcVector& v = kVectors[2];
  EVPCrypter enc(EVPCrypter::EVP_AES_256_CBC, unhex(v.key), kIv);
  const auto out = encryptAll(enc, kPlain);
  ASSERT_EQ(out.status, 0);
  EXPECT_EQ(hex(out.bytes), std::string(v.cipher) + v.padBlock);
  // F.2.6: the published blocks and the padding block decrypt to the plaintext.
  EVPCrypter dec(EVPCrypter::EVP_AES_256_CBC, unhex(v.key), kIv);
  EXPECT_EQ(hex(decryptAll(dec, out.bytes).bytes), hex(kPlain));

  const std::string key(32, 'k');
  EXPECT_EQ(KS_STATUS(EVPCrypter(static_cast<EVPCrypter::EVPCryptType>(1), key, kIv)), 1223);
  EXPECT_EQ(KS_STATUS(EVPCrypter(EVPCrypter::EVP_AES_256_CBC, key + "x", kIv)), 1223);
  EXPECT_EQ(KS_STATUS(EVPCrypter(EVPCrypter::EVP_AES_256_CBC, key, kIv + "x")), 1223);
  const std::string stream = out.bytes;
  EVPCrypter wrong(EVPCrypter::EVP_AES_256_CBC, key, kIv);
  EXPECT_EQ(wrong.decrypt(u8(stream), stream.size(), true), 1270);
  const unsigned char* p = nullptr;
  unsigned long n = 0;
  EXPECT_EQ(wrong.getDecryptedData(&p, &n), 1223);
  EXPECT_EQ(wrong.decrypt(u8(stream), stream.size(), true), 1223) << "status before final flag";
  ASSERT_EQ(wrong.decryptReset(), 0);
  EXPECT_EQ(wrong.decrypt(u8(stream), stream.size() - 1, true), 1270) << "not whole blocks";
  EVPCrypter right(EVPCrypter::EVP_AES_256_CBC, unhex(v.key), kIv);
  EXPECT_EQ(right.decrypt(u8(stream), stream.size() - 16, true), 1270) << "padding block cut off";
}

class MangleVectors : public ::testing::TestWithParam<CbcVector> {};

INSTANTIATE_TEST_SUITE_P(Nist, MangleVectors, ::testing::ValuesIn(kVectors),
                         [](const auto& info) { return "type" + std::to_string(info.param.type); });

TEST_P(MangleVectors, StreamIsTheIvFollowedByCbcWithPadding) {
  const CbcVector& v = GetParam();
  {
    // The crypter draws its IV at every encryptReset, the constructor's
    // included; pin it to the vector's.
    ScriptedRandom fixedIv(0, kIv);
    MangleCrypter enc(v.type, unhex(v.key));
    const auto out = encryptAll(enc, kPlain);
    ASSERT_EQ(out.status, 0);
    EXPECT_EQ(hex(out.bytes), hex(kIv) + v.cipher + v.padBlock);
  }
  MangleCrypter dec(v.type, unhex(v.key));
  const auto back = decryptAll(dec, kIv + unhex(std::string(v.cipher) + v.padBlock));
  ASSERT_EQ(back.status, 0);
  EXPECT_EQ(hex(back.bytes), hex(kPlain));
}

TEST(MangleCrypter, ShortStreamsBadPaddingAndRefusals) {
  const std::string key(32, 'k');
  MangleCrypter enc(MANGLE_AES_256, key);
  const std::string stream = encryptAll(enc, "sixteen byte msg").bytes;
  ASSERT_EQ(stream.size(), 48u);
  // Shorter than an IV and one block, whole or split, ends in 1270.
  for (size_t len : {0, 5, 16, 31}) {
    MangleCrypter c(MANGLE_AES_256, key);
    EXPECT_EQ(c.decrypt(u8(stream), len, true), 1270) << len;
    const unsigned char* p = nullptr;
    unsigned long n = 0;
    EXPECT_EQ(c.getDecryptedData(&p, &n), 1223) << len;
    ASSERT_EQ(c.decryptReset(), 0);
    ASSERT_EQ(c.decrypt(u8(stream), len / 2, false), 0);
    EXPECT_EQ(c.decrypt(u8(stream) + len / 2, len - len / 2, true), 1270) << len;
  }
  // The last block decides: dropping it exposes a block whose padding is
  // wrong (the text block's last byte is 'g').
  MangleCrypter c(MANGLE_AES_256, key);
  EXPECT_EQ(c.decrypt(u8(stream), 32, true), 1270);
  // After the final call the library answers MANGLE_ERR_FINISHED, which is
  // not its check failure: 1224, then 1223.
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

TEST(MangleCipher, ContextRulesAndResultCodes) {
  mangleCipherCtx_t ctx;
  std::memset(&ctx, 0, sizeof ctx);
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
  ASSERT_EQ(mangleGetEncryptedData(&out, &len, &ctx), MANGLE_OK);
  EXPECT_EQ(len, 32u);
  EXPECT_EQ(mangleEncrypt(u8("abc"), 3, 1, &ctx), MANGLE_ERR_FINISHED);
  EXPECT_EQ(mangleEncryptFree(&ctx), MANGLE_OK);
  EXPECT_EQ(mangleEncryptFree(&ctx), MANGLE_OK) << "free twice";
}
