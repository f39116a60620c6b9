// The passphrase dialogue of the administrator options at its bounds, in this
// process (the process-level runs are in VrkmsAdminTest.cpp).
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "kms/platform/CrvnLis.h"
#include "kms/server/KMSSpecialOps.h"
#include "support/TempRoot.h"

using namespace Vaultrest::DL::KMS;

namespace {

std::string msg(int id) {
  return crvnCatalogueText(286, id);
}

// Standard input reads `text` for the scope; standard output is captured.
class Dialogue {
 public:
  explicit Dialogue(const std::string& text) {
    std::ofstream(m_root.file("stdin"), std::ios::binary) << text;
    EXPECT_NE(std::freopen(m_root.file("stdin").c_str(), "r", stdin), nullptr);
    testing::internal::CaptureStdout();
  }
  ~Dialogue() { std::freopen("/dev/null", "r", stdin); }
  std::string output() { return testing::internal::GetCapturedStdout(); }

 private:
  TempRoot m_root{"vrkms-dialogue"};
};

}  // namespace

// The longest passphrase that fits, after a pair that differs. (The rest of
// the dialogue is run through a pipe: VrkmsAdmin.CreateInteractivelyThroughAPipe.)
TEST(KMSSpecialOps, PassphraseDialogueTakesTheLongestPassphrase) {
  KMSSpecialOps::setIsRandom(false);
  const std::string longest(KMSSpecialOps::KS_MAX_PASS_LEN - 2, 'p');  // line end makes 1023
  {
    Dialogue dialogue("a\nb\n" + longest + "\n" + longest + "\n");
    CmnCrypto::Secret out;
    EXPECT_EQ(KMSSpecialOps::getPassphrase(out, 19, false, 0), 0);
    EXPECT_EQ(out.str(), longest);
    EXPECT_EQ(dialogue.output(), msg(19) + "\n" + msg(4) + " : \n" + msg(2) + " : \n" + msg(3) +
                                     "\n" + msg(4) + " : \n" + msg(2) + " : \n");
  }
  EXPECT_FALSE(KMSSpecialOps::getIsRandom());
  KMSSpecialOps::setIsRandom(false);
}

TEST(KMSSpecialOps, GetLineReadsAnyLengthWithoutTheLineEnd) {
  const std::string longLine(5000, 'x');
  Dialogue dialogue(longLine + "\nlast");
  EXPECT_EQ(KMSSpecialOps::myGetLine(), longLine);
  EXPECT_EQ(KMSSpecialOps::myGetLine(), "last");
  EXPECT_EQ(KMSSpecialOps::myGetLine(), "");
  dialogue.output();
}
