#include "kms/server/diagnostics/KeyStoreError.h"

#include <gtest/gtest.h>

using Vaultrest::DL::KMS::KeyStoreError;

TEST(KeyStoreError, VerboseTextNamesTheOriginOnlyWhenALineWasRecorded) {
  KeyStoreError e(1200, "FileKeyStore::quiesce", "FileKeyStore", 10);
  const std::string plain = e.str(false);
  EXPECT_EQ(plain.rfind("Status=1200 (", 0), 0u) << plain;
  EXPECT_EQ(plain.back(), ')');
  EXPECT_EQ(e.str(true), plain + ", Origin: FileKeyStore::quiesce [FileKeyStore:10]");

  KeyStoreError noOrigin(1200, "FileKeyStore::quiesce", "FileKeyStore", 0);
  EXPECT_EQ(noOrigin.str(true), noOrigin.str(false));
}

TEST(KeyStoreError, UnknownCodeLosesTheRestOfTheText) {
  KeyStoreError e(99999, "f", "file", 3);
  EXPECT_EQ(e.str(true), "Status=99999 (");
}
