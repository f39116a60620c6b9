#include "kms/server/keystore/format/KSInputBuffer.h"

#include <utility>

#include "kms/server/diagnostics/Raise.h"
#include "kms/server/keystore/crypto/SecureBytes.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

KSInputBuffer::KSInputBuffer(std::string bytes)
    : m_bytes(std::move(bytes)),
      m_remaining(m_bytes.size()),
      m_cursor(reinterpret_cast<const unsigned char*>(m_bytes.data())) {}

KSInputBuffer::KSInputBuffer(const unsigned char* bytes, unsigned long length)
    : m_remaining(length), m_cursor(bytes) {}

KSInputBuffer::~KSInputBuffer() {
  wipeString(m_bytes);
}

void KSInputBuffer::advance(unsigned long n) {
  KS_ASSERT("KSInputBuffer::advance", n <= m_remaining);
  m_cursor += n;
  m_remaining -= n;
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
