#include "kms/server/keystore/crypto/NullCrypter.h"

#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/Raise.h"
#include "kms/server/diagnostics/StatusCodes.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

NullCrypter::NullCrypter() {
  KMS_TRACE_THIS("NullCrypter::NullCrypter");
  if (reset() != 0) {
    KS_THROW(EC_KS_crypter_not_ready, "NullCrypter::NullCrypter");
  }
}

NullCrypter::~NullCrypter() = default;

int NullCrypter::copy(Side& side, const unsigned char* data, unsigned long len, bool final) {
  if (side.finalDone) {
    return EC_KS_crypter_failed;
  }
  if (side.status != 0) {
    return EC_KS_crypter_not_ready;
  }
  side.output.beginCall();
  if (final) {
    side.finalDone = true;
  }
  if (len > 0) {
    side.output.append(data, len);
  }
  side.output.endCall();
  return 0;
}

int NullCrypter::encrypt(const unsigned char* data, unsigned long len, bool final) {
  KMS_TRACE_THIS("NullCrypter::encrypt");
  return copy(m_enc, data, len, final);
}

int NullCrypter::getEncryptedData(const unsigned char** data, unsigned long* len) {
  return fetchOutput(m_enc.status, m_enc.output, data, len);
}

int NullCrypter::decrypt(const unsigned char* data, unsigned long len, bool final) {
  KMS_TRACE_THIS("NullCrypter::decrypt");
  return copy(m_dec, data, len, final);
}

int NullCrypter::getDecryptedData(const unsigned char** data, unsigned long* len) {
  return fetchOutput(m_dec.status, m_dec.output, data, len);
}

int NullCrypter::reset() {
  const int enc = encryptReset();
  const int dec = decryptReset();
  return enc != 0 || dec != 0 ? 1223 : 0;
}

int NullCrypter::encryptReset() {
  m_enc.output.reset();
  m_enc.finalDone = false;
  m_enc.status = 0;
  return 0;
}

int NullCrypter::decryptReset() {
  m_dec.output.reset();
  m_dec.finalDone = false;
  m_dec.status = 0;
  return 0;
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
