// The crypter interface as every crypter keeps it: the type table, the
// factory, round trips in any chunking, output buffering and the final call.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "CryptoTestUtil.h"
#include "kms/server/keystore/crypto/CryptFactory.h"

using namespace Vaultrest::DL::KMS;
using namespace cryptotest;

namespace {

KSCrypt::CryptType asType(int v) {
  return static_cast<KSCrypt::CryptType>(v);
}

// The key length of each type; a type the factory does not know gets a
// 32-byte key, so that only the type is wrong.
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

// Feeds `in` through one side in pieces of `piece` bytes, fetching after
// every call, and returns everything fetched (status in `rc`).
std::string pump(KSCrypt& c, bool encrypting, const std::string& in, size_t piece, int& rc) {
  std::string out;
  for (size_t at = 0; at == 0 || at < in.size(); at += piece) {
    const size_t n = std::min(piece, in.size() - at);
    const bool final = at + n == in.size();
    rc = encrypting ? c.encrypt(u8(in) + at, n, final) : c.decrypt(u8(in) + at, n, final);
    const unsigned char* p = nullptr;
    unsigned long len = 0;
    if (rc == 0) {
      rc = encrypting ? c.getEncryptedData(&p, &len) : c.getDecryptedData(&p, &len);
    }
    if (rc != 0) {
      return out;
    }
    out.append(reinterpret_cast<const char*>(p), len);
  }
  return out;
}

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
  // A key one byte short fails in the crypter's constructor; only the EVP
  // crypter looks at the IV. The null crypter takes neither.
  for (int t = 2; t <= 6; ++t) {
    const std::string shortKey(keyFor(t).size() - 1, 'k');
    EXPECT_EQ(KS_STATUS((void)CryptFactory::createCrypter(asType(t), shortKey, keyFor(5))), 1223);
    EXPECT_EQ(KS_STATUS((void)CryptFactory::createCrypter(asType(t), keyFor(t), "short iv")),
              t == 5 ? 1223 : 0)
        << t;
  }
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
    // CBC pads to the next whole block (the mangle stream also carries its
    // 16-byte IV), GCM adds its IV and tag.
    const size_t padded = (len / 16 + 1) * 16;
    const size_t expected[] = {0,           len,    16 + padded,  16 + padded,
                               16 + padded, padded, 12 + len + 16};
    EXPECT_EQ(whole.bytes.size(), expected[type]) << len;
    EXPECT_EQ(whole.bytes == plain, type == KSCrypt::CRYPT_NONE);
    const auto back = decryptAll(*make(type), whole.bytes);
    ASSERT_EQ(back.status, 0) << len;
    EXPECT_TRUE(back.bytes == plain) << len;
    for (size_t piece : {1, 5, 16, 700}) {
      SCOPED_TRACE(testing::Message() << "len " << len << " piece " << piece);
      int rc = -1;
      const std::string stream = pump(*make(type), true, plain, piece, rc);
      ASSERT_EQ(rc, 0);
      EXPECT_TRUE(pump(*make(type), false, stream, piece + 3, rc) == plain);
      EXPECT_EQ(rc, 0);
    }
  }
}

TEST_P(EveryCrypter, OutputIsHandedOutOnceAndTheFinalCallEndsTheSideUntilReset) {
  const KSCrypt::CryptType type = asType(GetParam());
  auto c = make(type);
  const std::string a = pattern(40), b = pattern(9), tail = pattern(23);
  ASSERT_EQ(c->encrypt(u8(a), a.size(), false), 0);
  ASSERT_EQ(c->encrypt(u8(b), b.size(), false), 0);
  const unsigned char* p = nullptr;
  unsigned long n = 0;
  ASSERT_EQ(c->getEncryptedData(&p, &n), 0);
  std::string stream(reinterpret_cast<const char*>(p), n);
  ASSERT_EQ(c->getEncryptedData(&p, &n), 0);
  EXPECT_EQ(n, 0u) << "nothing new since the last get";
  ASSERT_EQ(c->encrypt(u8(tail), tail.size(), true), 0);
  ASSERT_EQ(c->getEncryptedData(&p, &n), 0);
  stream.append(reinterpret_cast<const char*>(p), n);
  ASSERT_EQ(c->getEncryptedData(&p, &n), 0);
  EXPECT_EQ(n, 0u);
  EXPECT_EQ(decryptAll(*make(type), stream).bytes, a + b + tail);

  EXPECT_EQ(c->encrypt(u8(a), a.size(), false), 1224);
  EXPECT_EQ(c->encrypt(nullptr, 0, true),
            type == KSCrypt::CRYPT_NONE || type == KSCrypt::AES_256_CBC_EVP ? 1224 : 1223);
  // The other side is untouched, and a reset brings this one back.
  ASSERT_EQ(c->encryptReset(), 0);
  const auto again = encryptAll(*c, a + b + tail);
  ASSERT_EQ(again.status, 0);
  // Crypters that carry their IV in the stream draw a new one at each reset.
  const bool ownIv = type != KSCrypt::CRYPT_NONE && type != KSCrypt::AES_256_CBC_EVP;
  EXPECT_EQ(stream != again.bytes, ownIv);
  EXPECT_EQ(decryptAll(*c, again.bytes).bytes, a + b + tail);
  EXPECT_EQ(c->decrypt(u8(again.bytes), again.bytes.size(), true), 1224);
  ASSERT_EQ(c->reset(), 0);
  EXPECT_EQ(decryptAll(*c, again.bytes).bytes, a + b + tail);

  // AAD is refused unless the type supports it, and a refusal leaves the
  // crypter usable.
  ASSERT_EQ(c->reset(), 0);
  const int expected = KSCrypt::cryptTypeSupportsAAD(type) ? 0 : 1224;
  EXPECT_EQ(c->add_authenticated_data_encrypt(u8(a), a.size()), expected);
  EXPECT_EQ(c->add_authenticated_data_decrypt(u8(a), a.size()), expected);
  const auto enc = encryptAll(*c, "payload");
  ASSERT_EQ(enc.status, 0);
  EXPECT_EQ(decryptAll(*c, enc.bytes).bytes, "payload");
}
