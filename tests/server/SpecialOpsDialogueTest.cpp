// The passphrase dialogue of the administrator options at its bound, in this
// process (the rest of it is run through a pipe: VrkmsAdminTest.cpp).
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "kms/platform/CrvnLis.h"
#include "kms/server/KMSSpecialOps.h"
#include "support/TempRoot.h"

using namespace Vaultrest::DL::KMS;

// The longest passphrase that fits, after a pair that differs.
TEST(KMSSpecialOps, PassphraseDialogueTakesTheLongestPassphrase) {
  const auto msg = [](int id) { return std::string(crvnCatalogueText(286, id)); };
  KMSSpecialOps::setIsRandom(false);
  const std::string longest(KMSSpecialOps::KS_MAX_PASS_LEN - 2, 'p');  // line end makes 1023
  TempRoot root{"vrkms-dialogue"};
  std::ofstream(root.file("stdin"), std::ios::binary)
      << "a\nb\n" + longest + "\n" + longest + "\n" + std::string(5000, 'x') + "\nlast";
  ASSERT_NE(std::freopen(root.file("stdin").c_str(), "r", stdin), nullptr);
  testing::internal::CaptureStdout();
  CmnCrypto::Secret out;
  EXPECT_EQ(KMSSpecialOps::getPassphrase(out, 19, false, 0), 0);
  EXPECT_EQ(out.str(), longest);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), msg(19) + "\n" + msg(4) + " : \n" + msg(2) +
                                                        " : \n" + msg(3) + "\n" + msg(4) + " : \n" +
                                                        msg(2) + " : \n");
  EXPECT_FALSE(KMSSpecialOps::getIsRandom());
  // Lines of any length, without the line end.
  EXPECT_EQ(KMSSpecialOps::myGetLine(), std::string(5000, 'x'));
  EXPECT_EQ(KMSSpecialOps::myGetLine(), "last");
  EXPECT_EQ(KMSSpecialOps::myGetLine(), "");
  std::freopen("/dev/null", "r", stdin);
}
