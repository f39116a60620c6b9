// The compiled-in catalogue, and the digests' refusals (their known answers
// are checked against OpenSSL by the store format tests).
#include <gtest/gtest.h>

#include <cstdlib>
#include <set>
#include <string>

#include "kms/platform/CatalogueTexts.h"
#include "kms/platform/CrvnLis.h"
#include "kms/platform/Hash.h"
#include "kms/platform/HashGenerator.h"

namespace {

// Messages of originator 286: 1..98 but 84, 90, 91; 110..112.
bool isProgramMessage(int id) {
  return (id >= 1 && id <= 98 && id != 84 && id != 90 && id != 91) || (id >= 110 && id <= 112);
}
// The status codes the program produces are 1200..1295 but these.
const std::set<int> kNoStatus = {1211, 1213, 1216, 1217, 1226, 1250, 1266, 1273,
                                 1278, 1288, 1289, 1290, 1291, 1292, 1293};

}  // namespace

// Lookups are binary searches: every row found by its own shows the order.
TEST(Catalogue, CompleteEveryRowFoundByItsLookupAndArgumentsBuiltFromAFormat) {
  for (size_t i = 0; i < kCatalogueTextCount; ++i) {
    const CatalogueText& row = kCatalogueTexts[i];
    ASSERT_TRUE(row.text != nullptr && row.text[0] != '\0') << "row " << i;
    EXPECT_EQ(crvnCatalogueText(row.originator, row.id), row.text) << "row " << i;
    EXPECT_TRUE(row.originator != 286 || isProgramMessage(row.id)) << row.id;
  }
  for (size_t i = 0; i < kStatusTextCount; ++i) {
    EXPECT_EQ(getECmsg(kStatusTexts[i].code), kStatusTexts[i].shortText) << "row " << i;
  }
  for (int id = 0; id <= 113; ++id) {
    EXPECT_EQ(crvnCatalogueText(286, id) != nullptr, isProgramMessage(id)) << "message " << id;
  }
  ASSERT_NE(getECmsg(0), nullptr);  // 0 has a short text only
  for (int code = 1199; code <= 1296; ++code) {
    const bool produced = code >= 1200 && code <= 1295 && kNoStatus.count(code) == 0;
    EXPECT_EQ(getECmsg(code) != nullptr, produced) << code;
    EXPECT_EQ(crvnCatalogueText(271, code) != nullptr, produced) << code;
  }
  EXPECT_EQ(kStatusTextCount, 96 - kNoStatus.size() + 1);  // plus the text of 0
  EXPECT_EQ(crvnCatalogueText(999, 1), nullptr);
  // Arguments built from a printf-style format.
  crvnLis lis;
  const auto text = [&](int id) {
    char* out = nullptr;
    EXPECT_EQ(xlatemsg(286, id, &lis, &out), CRVN_LIS_SUCCESS);
    const std::string result = out != nullptr ? out : "";
    std::free(out);
    crvnLisFree(&lis);
    return result;
  };
  ASSERT_EQ(crvnLisBuild(&lis, 47, "%s%d", "/x", -5), CRVN_LIS_SUCCESS);
  EXPECT_EQ(text(47), "The file /x could not be renamed to -5.");
  // Every conversion, with text between them skipped; "%lud" is "%lu" and a "d".
  ASSERT_EQ(
      crvnLisBuild(&lis, 89, "[%hd] %lud %c%%%lf", static_cast<short>(-2), 4000000000UL, 'x', 1.5),
      CRVN_LIS_SUCCESS);
  EXPECT_EQ(text(89), "Assertion failed: (-2) in file 4000000000 at line x1.500000");
  EXPECT_EQ(crvnLisBuild(&lis, 47, "%s%q", "a", 1), CRVN_LIS_BAD_ARG);
  EXPECT_EQ(lis.argCount, 0);
  EXPECT_EQ(crvnLisBuild(&lis, 47, "%"), CRVN_LIS_BAD_ARG);
  EXPECT_EQ(crvnLisBuild(&lis, 47, nullptr), CRVN_LIS_BAD_ARG);
  ASSERT_EQ(crvnLisBuild(&lis, 83, ""), CRVN_LIS_SUCCESS);
  EXPECT_EQ(lis.argCount, 0);
}

TEST(HashGenerator, LengthsAndRefusals) {
  using namespace CmnCrypto;
  EXPECT_EQ(HashGenerator::digestLength(HASH_SHA256), 32u);
  EXPECT_EQ(HashGenerator::digestLength(HASH_SHA1), 20u);
  EXPECT_THROW(HashGenerator(static_cast<_HASH_ALGO>(2)), CmnException);
  EXPECT_THROW(HashGenerator::digestLength(static_cast<_HASH_ALGO>(0)), CmnException);
  HashGenerator sha1(HASH_SHA1);
  sha1.addData("a", 1);
  sha1.addData("", 0);
  EXPECT_EQ(sha1.generateBinaryHash().size(), 20u);
  EXPECT_THROW(sha1.addData("x"), CmnException);
  EXPECT_THROW(sha1.generateBinaryHash(), CmnException);
  std::string digest;
  Hash hash(MANGLE_HASH_SHA1);
  ASSERT_EQ(hash.update("Z", 1), 0);
  ASSERT_EQ(hash.getHash(&digest), 0);
  EXPECT_EQ(digest.size(), 20u);
  EXPECT_TRUE(hash.update("Z", 1) != 0 && hash.getHash(&digest) != 0);  // spent
  Hash unknown(static_cast<mangleHashType>(2));
  digest = "untouched";
  EXPECT_TRUE(unknown.update("Z", 1) != 0 && unknown.getHash(&digest) != 0);
  EXPECT_EQ(digest, "untouched");
}
