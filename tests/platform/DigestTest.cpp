// Both digest front ends refuse unknown selectors and any use once spent.
// (Their known answers are checked by the store format tests, which digest
// with OpenSSL directly.)
#include <gtest/gtest.h>

#include <string>

#include "kms/platform/Hash.h"
#include "kms/platform/HashGenerator.h"

TEST(HashGenerator, LengthsAndRefusals) {
  using CmnCrypto::HashGenerator;
  EXPECT_EQ(HashGenerator::digestLength(CmnCrypto::HASH_SHA256), 32u);
  EXPECT_EQ(HashGenerator::digestLength(CmnCrypto::HASH_SHA1), 20u);
  EXPECT_THROW(HashGenerator(static_cast<CmnCrypto::_HASH_ALGO>(2)), CmnCrypto::CmnException);
  EXPECT_THROW(HashGenerator::digestLength(static_cast<CmnCrypto::_HASH_ALGO>(0)),
               CmnCrypto::CmnException);
  HashGenerator sha1(CmnCrypto::HASH_SHA1);
  sha1.addData("a", 1);
  sha1.addData("", 0);
  sha1.addData("bc", 2);
  EXPECT_EQ(sha1.generateBinaryHash().size(), 20u);
  EXPECT_THROW(sha1.addData("x"), CmnCrypto::CmnException);
  EXPECT_THROW(sha1.generateBinaryHash(), CmnCrypto::CmnException);

  std::string digest;
  Hash hash(MANGLE_HASH_SHA1);
  ASSERT_EQ(hash.update("Z", 1), 0);
  ASSERT_EQ(hash.getHash(&digest), 0);
  EXPECT_EQ(digest.size(), 20u);
  EXPECT_NE(hash.update("Z", 1), 0);
  EXPECT_NE(hash.getHash(&digest), 0);
  Hash unknown(static_cast<mangleHashType>(2));
  EXPECT_NE(unknown.update("Z", 1), 0);
  digest = "untouched";
  EXPECT_NE(unknown.getHash(&digest), 0);
  EXPECT_EQ(digest, "untouched");
}
