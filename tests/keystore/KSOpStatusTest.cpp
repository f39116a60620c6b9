#include "kms/server/keystore/KSOpStatus.h"

#include <gtest/gtest.h>

using namespace Vaultrest::DL::KMS;

TEST(KSOpStatus, MessagesKeepTheirOrderAndDecideEquality) {
  const KSOpMessage renamed(KSMSG_KEYGROUP_RENAMED, "g", "g_IMPORTED_20240101000000");
  const KSOpMessage dup(KSMSG_KEY_DUPLICATE, "k", "g", "k2", "g2");
  KSOpStatus a;
  a.addMessage(renamed);
  a.addMessage(dup);
  EXPECT_FALSE(a.hasErrors());  // messages without an error, as a clean preview has
  ASSERT_EQ(a.messages().size(), 2u);
  EXPECT_EQ(a.messages()[0].code(), KSMSG_KEYGROUP_RENAMED);
  EXPECT_EQ(a.messages()[1].args(), KSOpMessage::ArgList({"k", "g", "k2", "g2"}));

  KSOpStatus b;
  b.addMessage(dup);
  b.addMessage(renamed);
  EXPECT_NE(a, b);  // same messages, other order

  KSOpStatus c = a;
  EXPECT_EQ(a, c);
  c.setErrCode(1283);
  c.setErrCode(1262);  // replaced, not accumulated
  EXPECT_TRUE(c.hasErrors());
  EXPECT_EQ(c.errCode(), 1262);
  EXPECT_NE(a, c);

  EXPECT_EQ(KSOpMessage(), KSOpMessage());
  EXPECT_NE(KSOpMessage(KSMSG_KEYGROUP_NEW_TAG, "a"), KSOpMessage(KSMSG_KEYGROUP_NEW_TAG, "b"));
  EXPECT_NE(KSOpMessage(KSMSG_KEYGROUP_NEW_TAG, "a"), KSOpMessage(KSMSG_KEYGROUP_IMPORTED, "a"));
  EXPECT_EQ(KSOpMessage(KSMSG_KEY_IMPORTED, "a", "b", "c").args().size(), 3u);
}
