#include "kms/server/diagnostics/OpenSSLErrors.h"

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/evp.h>

#include "support/LogCapture.h"

using Vaultrest::DL::KMS::logOpenSSLErrors;

TEST(OpenSSLErrors, EachQueuedErrorGivesOneLineAndTheQueueEmpties) {
  LogCapture log;
  ERR_clear_error();
  ERR_raise(ERR_LIB_EVP, EVP_R_BAD_DECRYPT);
  ERR_raise(ERR_LIB_EVP, EVP_R_INVALID_KEY_LENGTH);
  ERR_raise(ERR_LIB_EVP, EVP_R_UNSUPPORTED_CIPHER);
  logOpenSSLErrors("EVPCrypter::decrypt");
  EXPECT_EQ(ERR_peek_error(), 0u);

  const auto lines =
      LogCapture::containing(log.debugLines(), "OpenSSL error EVPCrypter::decrypt: ");
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_NE(lines[0].find("bad decrypt"), std::string::npos) << lines[0];
  EXPECT_NE(lines[1].find("invalid key length"), std::string::npos) << lines[1];
  EXPECT_NE(lines[2].find("unsupported cipher"), std::string::npos) << lines[2];

  logOpenSSLErrors("again");  // an empty queue logs nothing
  EXPECT_TRUE(LogCapture::containing(log.debugLines(), "OpenSSL error again").empty());
}

TEST(OpenSSLErrors, QueueEmptiesAlsoWithTheLoggerOffOrAbsent) {
  {
    LogCapture log(0);
    ERR_raise(ERR_LIB_EVP, EVP_R_BAD_DECRYPT);
    ERR_raise(ERR_LIB_EVP, EVP_R_BAD_DECRYPT);
    logOpenSSLErrors("off");
    EXPECT_EQ(ERR_peek_error(), 0u);
    EXPECT_TRUE(log.debugLines().empty());
  }
  VRLogger* saved = VRLogger::s_default;
  VRLogger::s_default = nullptr;
  ERR_raise(ERR_LIB_EVP, EVP_R_BAD_DECRYPT);
  logOpenSSLErrors(nullptr);
  VRLogger::s_default = saved;
  EXPECT_EQ(ERR_peek_error(), 0u);
}
