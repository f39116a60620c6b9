// A KSOutDest that appends to a byte string in memory. The string is
// borrowed and must outlive the destination.
#pragma once

#include <string>

#include "kms/server/keystore/format/KSOutDest.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

class StringOutDest : public KSOutDest {
 public:
  explicit StringOutDest(std::string& out) : m_out(out) {}

  // Appends the bytes; never fails (short of memory).
  void write(const void* data, unsigned long len) override;
  bool inMemory() const override { return true; }
  void expect(unsigned long len) override { m_out.reserve(m_out.size() + len); }

 private:
  std::string& m_out;
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
