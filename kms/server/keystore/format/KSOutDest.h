// Where the bytes of a KSOutStream go: a file (FileOutDest) or a string in
// memory (StringOutDest). A destination does not own what it writes to, and
// the caller keeps that alive for the life of the destination.
#pragma once

namespace Vaultrest {
namespace DL {
namespace KMS {

class KSOutDest {
 public:
  // Writes all `len` bytes or throws KeyStoreError (1210 for a file).
  virtual void write(const void* data, unsigned long len) = 0;
  // A destination in memory grows as it is written: it can make room at
  // once for `len` more bytes (a hint, for one allocation in place of many).
  // Files do neither.
  virtual bool inMemory() const;
  virtual void expect(unsigned long len);
  virtual ~KSOutDest();

 protected:
  KSOutDest() = default;
  KSOutDest(const KSOutDest&) = default;
  KSOutDest& operator=(const KSOutDest&) = default;
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
