// Master key verifiers of version 0x300 stores and the key digests of older
// ones.
#include <openssl/evp.h>

#include <string>

#include <gtest/gtest.h>

#include "keystore/StoreTestState.h"
#include "kms/server/keystore/FileKeyStore.h"
#include "kms/server/keystore/KSMetadata.h"
#include "kms/server/keystore/RandData.h"

namespace Vaultrest {
namespace DL {
namespace KMS {
namespace {

using storetest::codeOf;

// SHA-1 of the byte "Z" and the key, made here without the store's code.
std::string zDigest(const std::string& key) {
  const std::string input = "Z" + key;
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  EXPECT_EQ(EVP_Digest(input.data(), input.size(), md, &len, EVP_sha1(), nullptr), 1);
  return std::string(reinterpret_cast<const char*>(md), len);
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
  EXPECT_EQ(verifier.size(), 92u) << "32 bytes of text wrapped under GCM";
  EXPECT_TRUE(valid("HMKV", key, verifier));
  EXPECT_FALSE(valid("KPKV", key, verifier)) << "same key, other prefix";
  EXPECT_FALSE(valid("HMKV", other, verifier));

  // Any flipped bit makes the verifier fail, never pass.
  for (size_t byte = 0; byte < verifier.size(); byte += 7) {
    std::string flipped = verifier;
    flipped[byte] = static_cast<char>(flipped[byte] ^ 0x10);
    EXPECT_FALSE(valid("HMKV", key, flipped)) << "byte " << byte;
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

TEST(FileKeyStoreVerifierTest, OlderStoresProveKeysByTheDigestOfZAndTheKey) {
  const std::string hmk = Utils::getRandData(32);
  const std::string kpk = Utils::getRandData(32);
  for (const ks_version_t version : {KS_VERSION_100, KS_VERSION_200}) {
    KSMetadata meta(version);
    meta.setHmkHash(zDigest(hmk));
    meta.setKpkHash(zDigest(kpk));
    EXPECT_EQ(codeOf([&] { FileKeyStore::verifyHmk(hmk, meta); }), 0) << version;
    EXPECT_EQ(codeOf([&] { FileKeyStore::verifyKpk(kpk, meta); }), 0) << version;
    EXPECT_EQ(codeOf([&] { FileKeyStore::verifyHmk(kpk, meta); }), 1221) << version;
    EXPECT_EQ(codeOf([&] { FileKeyStore::verifyKpk(hmk, meta); }), 1249) << version;

    // Without the leading "Z", or cut short, the digest no longer matches.
    std::string plain(20, '\0');
    unsigned int len = 0;
    EVP_Digest(hmk.data(), hmk.size(), reinterpret_cast<unsigned char*>(&plain[0]), &len,
               EVP_sha1(), nullptr);
    meta.setHmkHash(plain);
    EXPECT_EQ(codeOf([&] { FileKeyStore::verifyHmk(hmk, meta); }), 1221) << version;
    meta.setHmkHash(zDigest(hmk).substr(0, 19));
    EXPECT_EQ(codeOf([&] { FileKeyStore::verifyHmk(hmk, meta); }), 1221) << version;
  }
}

}  // namespace
}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
