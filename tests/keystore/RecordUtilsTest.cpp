#include "kms/server/keystore/records/RecordUtils.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>

using namespace Vaultrest::DL::KMS;

TEST(RecordUtils, HexKeyLengthsTimestampsAndDisplay) {
  std::string all;
  for (int b = 0; b < 256; ++b) {
    all.push_back(static_cast<char>(b));
  }
  const std::string hex = Utils::binToHex(all);
  EXPECT_EQ(hex.substr(0, 24) + hex.substr(508), "000102030405060708090a0bfeff");  // lower case
  EXPECT_EQ(Utils::hexToBin(hex), all);
  for (const std::string& bad :
       {std::string("AB"), std::string("abc"), std::string("abcg"), std::string("0x12"),
        std::string("a b "), std::string("a\0", 2), std::string("/0"), std::string(":0"),
        std::string("`0"), std::string("0g")}) {
    EXPECT_EQ(Utils::hexToBin(bad), "") << bad;
  }
  // Blowfish is no AES cipher, and still 16.
  const size_t lens[] = {0, 16, 24, 32, 16, 0};
  for (int type = 0; type < 6; ++type) {
    EXPECT_EQ(Utils::cipherTypeToKeyLen(static_cast<ks_ciphertype_t>(type)), lens[type]) << type;
  }
  const char* savedTz = getenv("TZ");
  const std::string saved = savedTz != nullptr ? savedTz : "";
  setenv("TZ", "UTC", 1);
  tzset();
  EXPECT_EQ(Utils::getTimestampSuffix(1700000000), "20231114221320");
  savedTz != nullptr ? setenv("TZ", saved.c_str(), 1) : unsetenv("TZ");
  tzset();

  EXPECT_EQ(Utils::bufferToString(std::string("a \0Z~", 5)), "a..Z~(6120005a7e)");
  std::string bytes(33, 'x');
  bytes[1] = '\0';
  testing::internal::CaptureStdout();
  Utils::displayBuffer(bytes, true, ">", true);
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(out.rfind(">(33 bytes) : HEX(78007878", 0), 0u) << out;
  EXPECT_NE(out.find(")\n>\t      00 01 02 "), std::string::npos) << out;
  EXPECT_NE(out.find(" 31 \n>\tASC : x  .  x  "), std::string::npos) << out;
  EXPECT_NE(out.find(">\tHEX : 78 00 78 "), std::string::npos) << out;
  // The 33rd byte starts a second row at offset 32.
  EXPECT_NE(out.find("\n\n>\t      32 \n>\tASC : x  \n>\tHEX : 78 \n\n"), std::string::npos) << out;
  testing::internal::CaptureStdout();
  Utils::displayBuffer("a\x01", true, "", false);
  EXPECT_EQ(testing::internal::GetCapturedStdout().rfind("(2 bytes) : ASC(a.)\n", 0), 0u);
}
