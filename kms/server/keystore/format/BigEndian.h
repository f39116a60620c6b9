// Big-endian integers of the store's files, which are never aligned.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Vaultrest {
namespace DL {
namespace KMS {
namespace Utils {

// Writes the low `n` bytes of `value` to `out`, most significant first.
inline void storeBigEndian(unsigned char* out, uint64_t value, size_t n) {
  for (size_t i = n; i > 0; --i) {
    out[i - 1] = static_cast<unsigned char>(value & 0xff);
    value >>= 8;
  }
}

// The `n` bytes at `in` (n <= 8), most significant first.
inline uint64_t loadBigEndian(const unsigned char* in, size_t n) {
  uint64_t value = 0;
  for (size_t i = 0; i < n; ++i) {
    value = (value << 8) | in[i];
  }
  return value;
}

}  // namespace Utils
}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
