// The digest that closes a key record or an attribute list in its stream
// form: SHA-256 over the seed byte (KeyRecordBlock::kDigestSeed) and the
// contents of the fields it covers, in order, without their lengths.
//
// Uses the calling thread's one digest context, which each FieldDigest
// restarts: one at a time per thread. A failing digest library throws
// KeyStoreError 1200 under the label given.
#pragma once

#include <string_view>

namespace CmnCrypto {
class HashGenerator;
}

namespace Vaultrest {
namespace DL {
namespace KMS {

class FieldDigest {
 public:
  explicit FieldDigest(const char* label);
  FieldDigest(const FieldDigest&) = delete;
  FieldDigest& operator=(const FieldDigest&) = delete;

  void add(std::string_view content);
  // The digest into `out` (KeyRecordBlock::kDigestLength bytes).
  void finish(unsigned char* out);

 private:
  const char* m_label;
  CmnCrypto::HashGenerator* m_hash = nullptr;
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
