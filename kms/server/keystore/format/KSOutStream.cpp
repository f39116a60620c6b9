#include "kms/server/keystore/format/KSOutStream.h"

#include <cstring>

#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/Raise.h"
#include "kms/server/diagnostics/StatusCodes.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

namespace {

// What an empty buffer hands to a crypter, which wants a valid pointer.
const unsigned char kNoBytes = 0;

}  // namespace

KSOutStream::KSOutStream(KSOutDest& dest, KSCrypt* crypter, unsigned long bufsize)
    : m_dest(dest), m_crypter(crypter) {
  KMS_TRACE_THIS("KSOutStream::KSOutStream");
  m_buf.reserve(bufsize);
  KMS_DEBUG("KSOutStream::KSOutStream", 1,
            "Created " << (crypter != nullptr ? "encrypting" : "non-encrypting")
                       << " output stream with a " << bufsize << " byte buffer");
}

KSOutStream::~KSOutStream() {
  KMS_TRACE_THIS("KSOutStream::~KSOutStream");
  KS_ASSERT("KSOutStream::~KSOutStream", m_buf.empty());
}

void KSOutStream::write(const void* data, unsigned long len) {
  if (!m_buf.empty() && m_buf.size() + len > m_buf.capacity()) {
    flush(false);
  }
  if (len == 0) {
    return;
  }
  // Within the reserved room: no reallocation, one copy.
  const size_t used = m_buf.size();
  m_buf.resize(used + len);
  std::memcpy(m_buf.data() + used, data, len);
}

void KSOutStream::flush(bool final) {
  KMS_TRACE_THIS("KSOutStream::flush");
  static const char* const kLabel = "KSOutStream::flush";
  if (m_crypter == nullptr) {
    m_dest.write(m_buf.data(), m_buf.size());
  } else {
    const unsigned char* plain = m_buf.empty() ? &kNoBytes : m_buf.data();
    int rc = m_crypter->encrypt(plain, m_buf.size(), final);
    if (rc != 0) {
      KMS_DEBUG(kLabel, 1, "encrypt() failed with " << rc);
      KS_THROW(EC_KS_crypter_failed, kLabel);
    }
    const unsigned char* encrypted = nullptr;
    unsigned long encryptedLen = 0;
    rc = m_crypter->getEncryptedData(&encrypted, &encryptedLen);
    if (rc != 0) {
      KMS_DEBUG(kLabel, 1, "getEncryptedData() failed with " << rc);
      KS_THROW(EC_KS_crypter_failed, kLabel);
    }
    m_dest.write(encrypted, encryptedLen);
  }
  wipeBytes(m_buf);
}

void KSOutStream::discard() {
  KMS_TRACE_THIS("KSOutStream::discard");
  wipeBytes(m_buf);
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
