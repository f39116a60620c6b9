#include "kms/server/keystore/crypto/EVPCrypter.h"

#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/OpenSSLErrors.h"
#include "kms/server/diagnostics/Raise.h"
#include "kms/server/diagnostics/StatusCodes.h"
#include "kms/server/keystore/crypto/FetchedCipher.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

namespace {
constexpr unsigned long kChunk = 2048;
}  // namespace

EVPCrypter::EVPCrypter(EVPCryptType type, const std::string& key, const std::string& iv) {
  static const char* const kLabel = "EVPCrypter::EVPCrypter";
  KMS_TRACE_THIS(kLabel);
  if (type == EVP_AES_256_CBC) {
    m_cipher = FetchedCipher::aes256Cbc();
  }
  if (m_cipher == nullptr) {
    KMS_DEBUG(kLabel, 1, "EVPCryptType specified was incorrect " << static_cast<int>(type));
    KS_THROW(EC_KS_crypter_not_ready, kLabel);
  }
  const size_t keyLen = static_cast<size_t>(EVP_CIPHER_get_key_length(m_cipher));
  const size_t ivLen = static_cast<size_t>(EVP_CIPHER_get_iv_length(m_cipher));
  if (key.size() != keyLen || iv.size() != ivLen) {
    KMS_DEBUG(kLabel, 1,
              "Key len: expected " << keyLen << ", got " << key.size() << ". IV len: expected "
                                   << ivLen << ", got " << iv.size());
    KS_THROW(EC_KS_crypter_not_ready, kLabel);
  }
  m_key = toSecureBytes(key);
  m_iv = iv;
  m_work.resize(static_cast<size_t>(EVP_CIPHER_get_block_size(m_cipher)) + kChunk);
  m_enc.ctx.reset(EVP_CIPHER_CTX_new());
  m_dec.ctx.reset(EVP_CIPHER_CTX_new());
  if (!m_enc.ctx || !m_dec.ctx || reset() != 0) {
    KS_THROW(EC_KS_crypter_not_ready, kLabel);
  }
}

EVPCrypter::~EVPCrypter() = default;

int EVPCrypter::sideReset(Side& side, int enc, const char* function) {
  side.output.reset();
  side.finalDone = false;
  if (side.ctx == nullptr) {
    side.status = 1223;
    return side.status;
  }
  EVP_CIPHER_CTX_reset(side.ctx.get());
  if (EVP_CipherInit_ex2(side.ctx.get(), m_cipher, m_key.data(),
                         reinterpret_cast<const unsigned char*>(m_iv.data()), enc, nullptr) == 1) {
    side.status = 0;
  } else {
    KMS_DEBUG(function, 1, "EVP_CipherInit_ex returned FAILURE ");
    logOpenSSLErrors(function);
    side.status = 1223;
  }
  return side.status;
}

int EVPCrypter::encryptReset() {
  KMS_TRACE_THIS("EVPCrypter::encryptReset");
  return sideReset(m_enc, 1, "EVPCrypter::encryptReset");
}

int EVPCrypter::decryptReset() {
  KMS_TRACE_THIS("EVPCrypter::decryptReset");
  return sideReset(m_dec, 0, "EVPCrypter::decryptReset");
}

int EVPCrypter::reset() {
  const int enc = encryptReset();
  const int dec = decryptReset();
  return enc != 0 || dec != 0 ? 1223 : 0;
}

int EVPCrypter::run(Side& side, const unsigned char* data, unsigned long len, bool final,
                    bool decrypting, const char* function) {
  if (side.status != 0) {
    return EC_KS_crypter_not_ready;
  }
  if (side.finalDone) {
    return EC_KS_crypter_failed;
  }
  side.output.beginCall();
  while (len > 0) {
    const unsigned long chunk = len < kChunk ? len : kChunk;
    int produced = 0;
    if (EVP_CipherUpdate(side.ctx.get(), m_work.data(), &produced, data, static_cast<int>(chunk)) !=
        1) {
      KMS_DEBUG(function, 1, "EVP_CipherUpdate returned FAILURE");
      logOpenSSLErrors(function);
      side.status = 1223;
      return EC_KS_crypter_failed;
    }
    side.output.append(m_work.data(), static_cast<unsigned long>(produced));
    data += chunk;
    len -= chunk;
  }
  if (final) {
    side.finalDone = true;
    int produced = 0;
    if (EVP_CipherFinal_ex(side.ctx.get(), m_work.data(), &produced) != 1) {
      KMS_DEBUG(function, 1, "EVP_CipherFinal_ex returned FAILURE");
      logOpenSSLErrors(function);
      // On the decrypt side this is the padding check: a wrong key or a
      // damaged last block.
      side.status = decrypting ? 1270 : 1223;
      return decrypting ? 1270 : 1224;
    }
    side.output.append(m_work.data(), static_cast<unsigned long>(produced));
  }
  side.output.endCall();
  return 0;
}

int EVPCrypter::encrypt(const unsigned char* data, unsigned long len, bool final) {
  KMS_TRACE_THIS("EVPCrypter::encrypt");
  return run(m_enc, data, len, final, false, "EVPCrypter::encrypt");
}

int EVPCrypter::getEncryptedData(const unsigned char** data, unsigned long* len) {
  return fetchOutput(m_enc.status, m_enc.output, data, len);
}

int EVPCrypter::decrypt(const unsigned char* data, unsigned long len, bool final) {
  KMS_TRACE_THIS("EVPCrypter::decrypt");
  return run(m_dec, data, len, final, true, "EVPCrypter::decrypt");
}

int EVPCrypter::getDecryptedData(const unsigned char** data, unsigned long* len) {
  return fetchOutput(m_dec.status, m_dec.output, data, len);
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
