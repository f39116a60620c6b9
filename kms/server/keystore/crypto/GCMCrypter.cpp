#include "kms/server/keystore/crypto/GCMCrypter.h"

#include <openssl/crypto.h>

#include <algorithm>

#include "kms/platform/MangleRandom.h"
#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/OpenSSLErrors.h"
#include "kms/server/diagnostics/Raise.h"
#include "kms/server/diagnostics/StatusCodes.h"
#include "kms/server/keystore/crypto/FetchedCipher.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

namespace {

// The most that one cipher call takes (its length is an int).
constexpr size_t kMaxUpdate = size_t{1} << 30;

const unsigned char* bytes(const std::string& s) {
  return reinterpret_cast<const unsigned char*>(s.data());
}

// GCM gives as many bytes as it takes, so `out` receives exactly `length`
// bytes; false when the cipher fails.
bool updateAll(EVP_CIPHER_CTX* ctx, unsigned char* out, const unsigned char* in, size_t length) {
  for (size_t at = 0; at < length; at += kMaxUpdate) {
    const int piece = static_cast<int>(std::min(length - at, kMaxUpdate));
    int produced = 0;
    if (EVP_CipherUpdate(ctx, out + at, &produced, in + at, piece) != 1 || produced != piece) {
      return false;
    }
  }
  return true;
}

}  // namespace

GCMCrypter::GCMCrypter(const std::string& key) {
  static const char* const kLabel = "GCMCrypter::GCMCrypter";
  KMS_TRACE_THIS(kLabel);
  m_cipher = FetchedCipher::aes256Gcm();
  if (m_cipher == nullptr) {
    KMS_DEBUG(kLabel, 1, "Failed to obtain cipher function EVP_aes_256_gcm");
    KS_THROW(EC_KS_crypter_not_ready, kLabel);
  }
  const size_t keyLen = static_cast<size_t>(EVP_CIPHER_get_key_length(m_cipher));
  if (key.size() != keyLen) {
    KMS_DEBUG(kLabel, 1, "Key len: expected " << keyLen << ", got " << key.size());
    KS_THROW(EC_KS_crypter_not_ready, kLabel);
  }
  m_key = toSecureBytes(key);
  m_work.resize(static_cast<size_t>(EVP_CIPHER_get_block_size(m_cipher)));
  m_encCtx.reset(EVP_CIPHER_CTX_new());
  m_decCtx.reset(EVP_CIPHER_CTX_new());
  if (!m_encCtx || !m_decCtx || reset() != 0) {
    KS_THROW(EC_KS_crypter_not_ready, kLabel);
  }
}

GCMCrypter::~GCMCrypter() = default;

int GCMCrypter::reset() {
  const int enc = encryptReset();
  const int dec = decryptReset();
  return enc != 0 || dec != 0 ? 1223 : 0;
}

int GCMCrypter::encryptReset() {
  static const char* const kLabel = "GCMCrypter::encryptReset";
  KMS_TRACE_THIS(kLabel);
  m_encOutput.reset();
  m_encStatus = 0;
  m_encState = NOT_READY;
  EVP_CIPHER_CTX* ctx = m_encCtx.get();
  if (!m_encKeyed) {
    EVP_CIPHER_CTX_reset(ctx);
    if (EVP_EncryptInit_ex2(ctx, m_cipher, nullptr, nullptr, nullptr) != 1) {
      KMS_DEBUG(kLabel, 1, "EVP_EncryptInit_ex returned FAILURE");
      logOpenSSLErrors(kLabel);
      return encryptFailed(1223);
    }
    if (EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_GCM_SET_IVLEN, GCM_IV_LEN, nullptr) != 1) {
      KMS_DEBUG(kLabel, 1, "EVP_CIPHER_CTX_ctrl returned FAILURE");
      return encryptFailed(1223);
    }
  }
  // A keyed context takes the new IV alone; the IV restarts the counter and
  // the authentication state.
  unsigned char iv[GCM_IV_LEN];
  if (mangleGetRandom(iv, sizeof iv) != 0 ||
      EVP_EncryptInit_ex2(ctx, nullptr, m_encKeyed ? nullptr : m_key.data(), iv, nullptr) != 1) {
    KMS_DEBUG(kLabel, 1, "mangleGetRandom returned FAILURE");
    logOpenSSLErrors(kLabel);
    return encryptFailed(1223);
  }
  m_encKeyed = true;
  // The IV heads the stream and leaves with the first get.
  m_encOutput.append(iv, sizeof iv);
  m_encState = RESET_DONE;
  return m_encStatus;
}

int GCMCrypter::encryptFailed(int status) {
  m_encStatus = status;
  m_encKeyed = false;
  return status;
}

int GCMCrypter::decryptFailed(int status) {
  m_decStatus = status;
  m_decKeyed = false;
  return status;
}

int GCMCrypter::add_authenticated_data_encrypt(const unsigned char* data, unsigned long len) {
  static const char* const kLabel = "GCMCrypter::add_authenticated_data_encrypt";
  KMS_TRACE_THIS(kLabel);
  if (m_encStatus != 0) {
    return EC_KS_crypter_not_ready;
  }
  if (m_encState != RESET_DONE) {
    KMS_DEBUG(kLabel, 1, "Attempted to add AAD when it is not allowed");
    return encryptFailed(1224);
  }
  int produced = 0;
  if (EVP_EncryptUpdate(m_encCtx.get(), nullptr, &produced, data, static_cast<int>(len)) != 1) {
    KMS_DEBUG(kLabel, 1, "EVP_EncryptUpdate returned FAILURE");
    logOpenSSLErrors(kLabel);
    return encryptFailed(1224);
  }
  return m_encStatus;
}

int GCMCrypter::encrypt(const unsigned char* data, unsigned long len, bool final) {
  static const char* const kLabel = "GCMCrypter::encrypt";
  KMS_TRACE_THIS(kLabel);
  if (m_encStatus != 0) {
    return EC_KS_crypter_not_ready;
  }
  m_encOutput.beginCall();
  if (m_encState == RESET_DONE) {
    m_encState = ENCRYPTING;
  } else if (m_encState != ENCRYPTING) {
    return encryptFailed(1224);
  }
  EVP_CIPHER_CTX* ctx = m_encCtx.get();
  // Straight into the output, which the ciphertext (as long as the
  // plaintext) fills.
  if (!updateAll(ctx, m_encOutput.extend(len), data, len)) {
    KMS_DEBUG(kLabel, 1, "EVP_EncryptUpdate returned FAILURE");
    logOpenSSLErrors(kLabel);
    return encryptFailed(1224);
  }
  if (final) {
    m_encState = FINAL_DONE;
    int produced = 0;
    bool ok = EVP_EncryptFinal_ex(ctx, m_work.data(), &produced) == 1;
    unsigned char tag[GCM_TAG_LEN];
    if (ok) {
      m_encOutput.append(m_work.data(), static_cast<unsigned long>(produced));
      ok = EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_GCM_GET_TAG, GCM_TAG_LEN, tag) == 1;
    }
    if (!ok) {
      KMS_DEBUG(kLabel, 1, "EVP_EncryptFinal_ex returned FAILURE");
      logOpenSSLErrors(kLabel);
      return encryptFailed(1224);
    }
    m_encOutput.append(tag, GCM_TAG_LEN);
  }
  m_encOutput.endCall();
  return 0;
}

int GCMCrypter::getEncryptedData(const unsigned char** data, unsigned long* len) {
  return fetchOutput(m_encStatus, m_encOutput, data, len);
}

int GCMCrypter::decryptReset() {
  static const char* const kLabel = "GCMCrypter::decryptReset";
  KMS_TRACE_THIS(kLabel);
  m_decOutput.reset();
  m_iv.clear();
  m_aad.clear();
  m_cached_tag.clear();
  m_pending.clear();
  m_decStatus = 0;
  m_decState = NOT_READY;
  // A keyed context is left as it is: the next stream's IV restarts it.
  EVP_CIPHER_CTX* ctx = m_decCtx.get();
  if (!m_decKeyed) {
    EVP_CIPHER_CTX_reset(ctx);
    if (EVP_DecryptInit_ex2(ctx, m_cipher, nullptr, nullptr, nullptr) == 0) {
      KMS_DEBUG(kLabel, 1, "EVP_DecryptInit_ex returned FAILURE");
      logOpenSSLErrors(kLabel);
      return decryptFailed(1223);
    }
    if (EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_GCM_SET_IVLEN, GCM_IV_LEN, nullptr) != 1) {
      KMS_DEBUG(kLabel, 1, "EVP_CIPHER_CTX_ctrl returned FAILURE");
      logOpenSSLErrors(kLabel);
      return decryptFailed(1223);
    }
  }
  m_decState = RESET_DONE;
  return m_decStatus;
}

int GCMCrypter::add_authenticated_data_decrypt(const unsigned char* data, unsigned long len) {
  static const char* const kLabel = "GCMCrypter::add_authenticated_data_decrypt";
  KMS_TRACE_THIS(kLabel);
  if (m_decStatus != 0) {
    return EC_KS_crypter_not_ready;
  }
  if (m_decState != RESET_DONE) {
    KMS_DEBUG(kLabel, 1, "Attempted to add AAD when it is not allowed");
    return decryptFailed(1224);
  }
  m_aad.append(reinterpret_cast<const char*>(data), len);
  return 0;
}

void GCMCrypter::collect(const unsigned char* data, unsigned long len) {
  static const char* const kLabel = "GCMCrypter::decrypt";
  const size_t cached_tag_size = m_cached_tag.size();
  KS_ASSERT(kLabel, cached_tag_size <= (size_t)GCM_TAG_LEN);
  const size_t total = len + cached_tag_size;
  KMS_DEBUG(kLabel, 6, "Total data available = " << total);
  const char* in = reinterpret_cast<const char*>(data);
  if (total <= static_cast<size_t>(GCM_TAG_LEN)) {
    m_cached_tag.append(in, len);
    return;
  }
  // Exactly GCM_TAG_LEN bytes stay in the cache; what precedes them is
  // ciphertext, cached bytes first.
  if (len > static_cast<unsigned long>(GCM_TAG_LEN)) {
    const size_t fromInput = len - GCM_TAG_LEN;
    m_pending.append(m_cached_tag);
    m_pending.append(in, fromInput);
    m_cached_tag.assign(in + fromInput, GCM_TAG_LEN);
  } else {
    const size_t fromCache = total - GCM_TAG_LEN;
    m_pending.append(m_cached_tag, 0, fromCache);
    m_cached_tag.erase(0, fromCache);
    m_cached_tag.append(in, len);
  }
  KS_ASSERT(kLabel, m_cached_tag.size() == (size_t)GCM_TAG_LEN);
}

int GCMCrypter::decrypt(const unsigned char* data, unsigned long len, bool final) {
  static const char* const kLabel = "GCMCrypter::decrypt";
  KMS_TRACE_THIS(kLabel);
  if (m_decStatus != 0) {
    return EC_KS_crypter_not_ready;
  }
  m_decOutput.beginCall();
  if (m_decState == RESET_DONE) {
    m_decState = READING_IV;
  } else if (m_decState != READING_IV && m_decState != IV_COMPLETE) {
    return decryptFailed(1224);
  }
  if (m_decState == READING_IV) {
    const unsigned long want = static_cast<unsigned long>(GCM_IV_LEN) - m_iv.size();
    const unsigned long take = len < want ? len : want;
    m_iv.append(reinterpret_cast<const char*>(data), take);
    data += take;
    len -= take;
    if (m_iv.size() == static_cast<size_t>(GCM_IV_LEN)) {
      if (EVP_DecryptInit_ex2(m_decCtx.get(), nullptr, m_decKeyed ? nullptr : m_key.data(),
                              bytes(m_iv), nullptr) != 1) {
        KMS_DEBUG(kLabel, 1, "EVP_DecryptInit_ex returned FAILURE");
        logOpenSSLErrors(kLabel);
        return decryptFailed(1224);
      }
      m_decKeyed = true;
      m_iv.clear();
      m_decState = IV_COMPLETE;
    }
  }
  if (m_decState == IV_COMPLETE) {
    if (final && m_pending.empty() && m_cached_tag.empty() &&
        len >= static_cast<unsigned long>(GCM_TAG_LEN)) {
      // The rest of the stream in one call: decrypted where it lies.
      m_cached_tag.assign(reinterpret_cast<const char*>(data) + len - GCM_TAG_LEN, GCM_TAG_LEN);
      return finishDecrypt(data, len - GCM_TAG_LEN);
    }
    collect(data, len);
  }
  if (!final) {
    m_decOutput.endCall();
    return 0;
  }
  return finishDecrypt(bytes(m_pending), m_pending.size());
}

int GCMCrypter::finishDecrypt(const unsigned char* ciphertext, size_t length) {
  static const char* const kLabel = "GCMCrypter::decrypt";
  // Also covers a stream that ended inside its IV.
  if (m_cached_tag.size() != static_cast<size_t>(GCM_TAG_LEN)) {
    KMS_DEBUG(kLabel, 1, "sufficient tag size was not accumulated");
    return decryptFailed(1224);
  }
  m_decState = FINAL_DONE;
  EVP_CIPHER_CTX* ctx = m_decCtx.get();
  if (EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_GCM_SET_TAG, GCM_TAG_LEN, &m_cached_tag[0]) <= 0) {
    KMS_DEBUG(kLabel, 1, "EVP_CIPHER_CTX_ctrl returned FAILURE");
    return decryptFailed(1224);
  }
  m_cached_tag.clear();
  int produced = 0;
  if (!m_aad.empty()) {
    const int ok =
        EVP_DecryptUpdate(ctx, nullptr, &produced, bytes(m_aad), static_cast<int>(m_aad.size()));
    m_aad.clear();
    if (ok != 1) {
      KMS_DEBUG(kLabel, 1, "EVP_DecryptUpdate returned FAILURE");
      logOpenSSLErrors(kLabel);
      return decryptFailed(1224);
    }
  } else {
    KMS_DEBUG(kLabel, 5, "No AAD was provided");
  }
  // GCM gives as many bytes as it takes: the plaintext goes straight into
  // the output, grown once.
  if (!updateAll(ctx, m_decOutput.extend(length), ciphertext, length)) {
    KMS_DEBUG(kLabel, 1, "EVP_DecryptUpdate returned FAILURE");
    logOpenSSLErrors(kLabel);
    return decryptFailed(1224);
  }
  m_pending.clear();
  if (EVP_DecryptFinal_ex(ctx, m_work.data(), &produced) == 0) {
    // The authentication failure: wrong key, changed byte or different AAD.
    KMS_DEBUG(kLabel, 1, "EVP_DecryptFinal_ex returned FAILURE");
    logOpenSSLErrors(kLabel);
    return decryptFailed(1270);
  }
  m_decOutput.append(m_work.data(), static_cast<unsigned long>(produced));
  m_decOutput.endCall();
  return 0;
}

int GCMCrypter::getDecryptedData(const unsigned char** data, unsigned long* len) {
  return fetchOutput(m_decStatus, m_decOutput, data, len);
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
