// Known answers of both digest front ends, and their refusals once spent.
#include <gtest/gtest.h>

#include <string>

#include "kms/platform/Hash.h"
#include "kms/platform/HashGenerator.h"

namespace {

std::string hex(const std::string& bytes) {
  std::string out;
  for (unsigned char c : bytes) {
    out += "0123456789abcdef"[c >> 4];
    out += "0123456789abcdef"[c & 15];
  }
  return out;
}

}  // namespace

TEST(HashGenerator, KnownAnswersPiecewiseInputAndRefusals) {
  using CmnCrypto::HashGenerator;
  HashGenerator sha256(CmnCrypto::HASH_SHA256);
  sha256.addData("abc");
  EXPECT_EQ(hex(sha256.generateBinaryHash()),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  HashGenerator sha1(CmnCrypto::HASH_SHA1);
  sha1.addData("a", 1);
  sha1.addData("", 0);
  sha1.addData("bc", 2);
  EXPECT_EQ(hex(sha1.generateBinaryHash()), "a9993e364706816aba3e25717850c26c9cd0d89d");
  EXPECT_EQ(HashGenerator::digestLength(CmnCrypto::HASH_SHA256), 32u);
  EXPECT_EQ(HashGenerator::digestLength(CmnCrypto::HASH_SHA1), 20u);

  EXPECT_THROW(HashGenerator(static_cast<CmnCrypto::_HASH_ALGO>(2)), CmnCrypto::CmnException);
  EXPECT_THROW(HashGenerator::digestLength(static_cast<CmnCrypto::_HASH_ALGO>(0)),
               CmnCrypto::CmnException);
  EXPECT_THROW(sha256.addData("x"), CmnCrypto::CmnException);
  EXPECT_THROW(sha256.generateBinaryHash(), CmnCrypto::CmnException);
}

TEST(MangleHash, TypeOneIsSha1OfWhatIsFedAndFailuresAreSticky) {
  // SHA-1 of "Z" followed by the bytes 00..1f, computed outside this code.
  std::string key;
  for (int i = 0; i < 32; ++i) {
    key += static_cast<char>(i);
  }
  Hash hash(MANGLE_HASH_SHA1);
  ASSERT_EQ(hash.update("Z", 1), 0);
  ASSERT_EQ(hash.update(key.data(), key.size()), 0);
  std::string digest;
  ASSERT_EQ(hash.getHash(&digest), 0);
  EXPECT_EQ(hex(digest), "0f93fa2deacddc99ed9ba7cdc87f5f5cd5b3a479");
  EXPECT_NE(hash.update("Z", 1), 0);
  EXPECT_NE(hash.getHash(&digest), 0);

  Hash unknown(static_cast<mangleHashType>(2));
  EXPECT_NE(unknown.update("Z", 1), 0);
  digest = "untouched";
  EXPECT_NE(unknown.getHash(&digest), 0);
  EXPECT_EQ(digest, "untouched");
}
