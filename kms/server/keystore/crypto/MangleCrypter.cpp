#include "kms/server/keystore/crypto/MangleCrypter.h"

#include <cstring>

#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/Raise.h"
#include "kms/server/diagnostics/StatusCodes.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

MangleCrypter::MangleCrypter(mangleCipherType type, const std::string& key)
    : m_key(toSecureBytes(key)), m_type(type) {
  KMS_TRACE_THIS("MangleCrypter::MangleCrypter");
  std::memset(&m_encCtx, 0, sizeof m_encCtx);
  std::memset(&m_decCtx, 0, sizeof m_decCtx);
  if (reset() != 0) {
    mangleEncryptFree(&m_encCtx);
    mangleDecryptFree(&m_decCtx);
    KS_THROW(EC_KS_crypter_not_ready, "MangleCrypter::MangleCrypter");
  }
}

MangleCrypter::~MangleCrypter() {
  mangleEncryptFree(&m_encCtx);
  mangleDecryptFree(&m_decCtx);
}

int MangleCrypter::reset() {
  const int enc = encryptReset();
  const int dec = decryptReset();
  return enc != 0 || dec != 0 ? 1223 : 0;
}

int MangleCrypter::encryptReset() {
  static const char* const kLabel = "MangleCrypter::encryptReset";
  KMS_TRACE_THIS(kLabel);
  m_encOutput.reset();
  mangleEncryptFree(&m_encCtx);
  std::memset(&m_encCtx, 0, sizeof m_encCtx);
  const int rc = mangleEncryptSetup(m_key.data(), m_key.size(), m_type, &m_encCtx);
  if (rc == 0) {
    m_encStatus = 0;
  } else {
    KMS_DEBUG(kLabel, 1, "mangleEncryptSetup returned FAILURE : " << rc);
    m_encStatus = 1223;
  }
  return m_encStatus;
}

int MangleCrypter::decryptReset() {
  static const char* const kLabel = "MangleCrypter::decryptReset";
  KMS_TRACE_THIS(kLabel);
  m_decOutput.reset();
  mangleDecryptFree(&m_decCtx);
  std::memset(&m_decCtx, 0, sizeof m_decCtx);
  const int rc = mangleDecryptSetup(m_key.data(), m_key.size(), m_type, &m_decCtx);
  if (rc == 0) {
    m_decStatus = 0;
  } else {
    KMS_DEBUG(kLabel, 1, "mangleDecryptSetup returned FAILURE : " << rc);
    m_decStatus = 1223;
  }
  return m_decStatus;
}

int MangleCrypter::encrypt(const unsigned char* data, unsigned long len, bool final) {
  static const char* const kLabel = "MangleCrypter::encrypt";
  KMS_TRACE_THIS(kLabel);
  if (m_encStatus != 0) {
    return EC_KS_crypter_not_ready;
  }
  m_encOutput.beginCall();
  int rc = mangleEncrypt(data, len, final ? 1 : 0, &m_encCtx);
  if (rc != 0) {
    KMS_DEBUG(kLabel, 1, "mangleEncrypt returned FAILURE : " << rc);
    m_encStatus = 1223;
    return EC_KS_crypter_failed;
  }
  const unsigned char* out = nullptr;
  unsigned long outLen = 0;
  rc = mangleGetEncryptedData(&out, &outLen, &m_encCtx);
  if (rc != 0) {
    KMS_DEBUG(kLabel, 1, "mangleGetEncryptedData returned FAILURE : " << rc);
    m_encStatus = 1223;
    return EC_KS_crypter_failed;
  }
  m_encOutput.append(out, outLen);
  m_encOutput.endCall();
  return 0;
}

int MangleCrypter::getEncryptedData(const unsigned char** data, unsigned long* len) {
  return fetchOutput(m_encStatus, m_encOutput, data, len);
}

int MangleCrypter::decrypt(const unsigned char* data, unsigned long len, bool final) {
  static const char* const kLabel = "MangleCrypter::decrypt";
  KMS_TRACE_THIS(kLabel);
  if (m_decStatus != 0) {
    return EC_KS_crypter_not_ready;
  }
  m_decOutput.beginCall();
  int rc = mangleDecrypt(data, len, final ? 1 : 0, &m_decCtx);
  if (rc != 0) {
    KMS_DEBUG(kLabel, 1, "mangleDecrypt returned FAILURE : " << rc);
    m_decStatus = 1223;
    return rc == MANGLE_ERR_CHECK ? 1270 : 1224;
  }
  const unsigned char* out = nullptr;
  unsigned long outLen = 0;
  rc = mangleGetDecryptedData(&out, &outLen, &m_decCtx);
  if (rc != 0) {
    KMS_DEBUG(kLabel, 1, "mangleGetDecryptedData returned FAILURE : " << rc);
    m_decStatus = 1223;
    return EC_KS_crypter_failed;
  }
  m_decOutput.append(out, outLen);
  m_decOutput.endCall();
  return 0;
}

int MangleCrypter::getDecryptedData(const unsigned char** data, unsigned long* len) {
  return fetchOutput(m_decStatus, m_decOutput, data, len);
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
