#include "kms/server/keystore/RecordUtils.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>

using namespace Vaultrest::DL::KMS;

TEST(RecordUtils, UnknownEnumerationValuesAndKeyLengths) {
  EXPECT_EQ(Utils::keystateToString(static_cast<ks_keystate_t>(6)), "* UNKNOWN STATE *");
  EXPECT_EQ(Utils::kpkTypeToString(static_cast<ks_kpktype_t>(2)), "* UNKNOWN KPKTYPE *");
  EXPECT_EQ(Utils::cipherTypeToString(static_cast<ks_ciphertype_t>(5)), "* UNKNOWN CIPHERTYPE *");
  EXPECT_EQ(Utils::cipherTypeToKeyLen(CT_AES192_CBC), 24u);
  EXPECT_EQ(Utils::cipherTypeToKeyLen(CT_BLOW_CBC), 16u);  // not an AES cipher, still 16
  EXPECT_EQ(Utils::cipherTypeToKeyLen(CT_INVALID_CBC), 0u);
  EXPECT_EQ(Utils::cipherTypeToKeyLen(static_cast<ks_ciphertype_t>(5)), 0u);
}

TEST(RecordUtils, HexRoundTripsEveryByteValue) {
  std::string all;
  for (int b = 0; b < 256; ++b) {
    all.push_back(static_cast<char>(b));
  }
  const std::string hex = Utils::binToHex(all);
  ASSERT_EQ(hex.size(), 512u);
  EXPECT_EQ(hex.substr(0, 6), "000102");
  EXPECT_EQ(hex.substr(20, 4), "0a0b");  // lower case
  EXPECT_EQ(hex.substr(508), "feff");
  EXPECT_EQ(Utils::hexToBin(hex), all);
  EXPECT_EQ(Utils::toAscii(9), '9');
  EXPECT_EQ(Utils::toAscii(15), 'f');
}

TEST(RecordUtils, HexToBinIsStrict) {
  EXPECT_EQ(Utils::hexToBin("ab"), std::string(1, '\xab'));
  EXPECT_EQ(Utils::hexToBin("00"), std::string(1, '\0'));
  EXPECT_EQ(Utils::hexToBin(""), "");
  EXPECT_EQ(Utils::hexToBin("AB"), "");    // upper case refused
  EXPECT_EQ(Utils::hexToBin("abc"), "");   // odd length
  EXPECT_EQ(Utils::hexToBin("abcg"), "");  // bad character after good ones
  EXPECT_EQ(Utils::hexToBin("0x12"), "");  // no prefix
  EXPECT_EQ(Utils::hexToBin("a b "), "");  // no blanks
  EXPECT_EQ(Utils::hexToBin(std::string("a\0", 2)), "");
}

TEST(RecordUtils, BufferToStringShowsPrintablesAndHex) {
  EXPECT_EQ(Utils::bufferToString(std::string("a \0Z", 4)), "a..Z(6120005a)");
  EXPECT_EQ(Utils::bufferToString(""), "()");
}

TEST(RecordUtils, TimestampSuffixIsLocalTimeDigits) {
  const char* savedTz = getenv("TZ");
  const std::string saved = savedTz != nullptr ? savedTz : "";
  setenv("TZ", "UTC", 1);
  tzset();
  EXPECT_EQ(Utils::getTimestampSuffix(0), "19700101000000");
  EXPECT_EQ(Utils::getTimestampSuffix(1700000000), "20231114221320");
  if (savedTz != nullptr) {
    setenv("TZ", saved.c_str(), 1);
  } else {
    unsetenv("TZ");
  }
  tzset();
}

TEST(RecordUtils, DisplayBufferRowsOf32WithOffsets) {
  std::string bytes(33, 'x');
  bytes[1] = '\0';
  testing::internal::CaptureStdout();
  Utils::displayBuffer(bytes, true, ">", true);
  const std::string out = testing::internal::GetCapturedStdout();

  std::string row1Offsets = ">\t      ";
  for (int i = 0; i < 32; ++i) {
    char buf[8];
    snprintf(buf, sizeof(buf), "%02d ", i);
    row1Offsets += buf;
  }
  const std::string head = ">(33 bytes) : HEX(78007878";
  EXPECT_EQ(out.rfind(head, 0), 0u) << out;
  EXPECT_NE(out.find(")\n" + row1Offsets + "\n>\tASC : x  .  x  "), std::string::npos) << out;
  EXPECT_NE(out.find(">\tHEX : 78 00 78 "), std::string::npos) << out;
  // The 33rd byte starts a second row at offset 32.
  EXPECT_NE(out.find("\n\n>\t      32 \n>\tASC : x  \n>\tHEX : 78 \n\n"), std::string::npos) << out;

  testing::internal::CaptureStdout();
  Utils::displayBuffer("", true, "", true);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "(0 bytes)\n");

  testing::internal::CaptureStdout();
  Utils::displayBuffer("a\x01", true, "", false);
  EXPECT_EQ(testing::internal::GetCapturedStdout().rfind("(2 bytes) : ASC(a.)\n", 0), 0u);
}
