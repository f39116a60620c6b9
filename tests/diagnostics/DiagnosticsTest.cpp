// Errors, the message catalogue front end, the tracer holder and the OpenSSL
// error queue. (Assertions are run to their end by the key table tests.)
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/evp.h>

#include "kms/server/diagnostics/KMSTracer.h"
#include "kms/server/diagnostics/KeyStoreError.h"
#include "kms/server/diagnostics/Messages.h"
#include "kms/server/diagnostics/OpenSSLErrors.h"
#include "support/LogCapture.h"

using namespace Vaultrest::DL::KMS;

// The verbose text names the origin only when a line was recorded.
TEST(Diagnostics, ErrorTextsAndCatalogueFailuresThrow1269ReleaseTheArgumentsAndAreLogged) {
  const KeyStoreError error(1200, "FileKeyStore::quiesce", "FileKeyStore", 10);
  const std::string plain = error.str(false);
  EXPECT_EQ(plain.rfind("Status=1200 (", 0), 0u) << plain;
  EXPECT_EQ(error.str(true), plain + ", Origin: FileKeyStore::quiesce [FileKeyStore:10]");
  EXPECT_EQ(KeyStoreError(1200, "f", "file", 0).str(true), plain);
  EXPECT_EQ(KeyStoreError(99999, "f", "file", 3).str(true), "Status=99999 (");
  LogCapture log;
  crvnLis lis;
  ASSERT_EQ(crvnLisBuild(&lis, 92, "%s", GetCxULMessageEx(286, 25).c_str()), CRVN_LIS_SUCCESS);
  EXPECT_EQ(GetCxULMessageBottom(286, 92, CRVN_LIS_SUCCESS, &lis), "FIPS compliant: Yes");
  EXPECT_EQ(lis.argCount, 0);                                // released
  EXPECT_THROW(GetCxULMessageEx(286, 9999), KeyStoreError);  // no such message
  ASSERT_EQ(crvnLisBuild(&lis, 47, "%s", "left over"), CRVN_LIS_SUCCESS);
  EXPECT_THROW(GetCxULMessageBottom(286, 47, CRVN_LIS_NO_MEMORY, &lis), KeyStoreError);
  EXPECT_EQ(lis.argCount, 0);  // released on the failure path too
  EXPECT_THROW(GetCxULMessageBottom(286, 83, 42, nullptr), KeyStoreError);  // no text for 42
  EXPECT_EQ(LogCapture::containing(log.debugLines(), "Throwing Exception: Status=1269 (").size(),
            3u);
}

TEST(Diagnostics, TheHeldTracerLeavesWithItsHolderAndEachQueuedOpenSSLErrorIsLogged) {
  LogCapture log(Tracer::kLevel);
  const auto logged = [&](const std::string& part) {
    return LogCapture::containing(log.debugLines(), part);
  };
  {
    Utils::KMSTracer none;  // holding nothing is fine
    Utils::KMSTracer held(new Tracer(&log.logger(), nullptr, "first", __FILE__, __LINE__));
    held.reset(new Tracer(&log.logger(), nullptr, "second", __FILE__, __LINE__));
    EXPECT_EQ(logged("Leaving first").size(), 1u);
    EXPECT_TRUE(logged("Leaving second").empty());
  }
  EXPECT_EQ(logged("Leaving second").size(), 1u);
  ERR_clear_error();
  ERR_raise(ERR_LIB_EVP, EVP_R_BAD_DECRYPT);
  ERR_raise(ERR_LIB_EVP, EVP_R_INVALID_KEY_LENGTH);
  logOpenSSLErrors("EVPCrypter::decrypt");
  EXPECT_EQ(ERR_peek_error(), 0u);
  const auto lines = logged("OpenSSL error EVPCrypter::decrypt: ");
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_NE(lines[0].find("bad decrypt"), std::string::npos) << lines[0];
  EXPECT_NE(lines[1].find("invalid key length"), std::string::npos) << lines[1];
}
