// A KSOutDest that appends to a SecureBytes buffer, for output that holds
// secrets in the clear (the plaintext of an export): every block the buffer
// lets go of as it grows is wiped. The buffer is borrowed and must outlive
// the destination.
#pragma once

#include "kms/server/keystore/crypto/SecureBytes.h"
#include "kms/server/keystore/format/KSOutDest.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

class SecureBytesOutDest : public KSOutDest {
 public:
  explicit SecureBytesOutDest(SecureBytes& out) : m_out(out) {}

  // Appends the bytes; never fails (short of memory).
  void write(const void* data, unsigned long len) override;
  bool inMemory() const override { return true; }
  void expect(unsigned long len) override { m_out.reserve(m_out.size() + len); }

 private:
  SecureBytes& m_out;
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
