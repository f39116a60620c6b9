// Byte buffers for secrets. SecureBytes wipes every block it gives back to the
// heap (growth included), so keys and plaintext do not linger in freed memory.
// Strings that hold secrets are Secrets (kms/platform/Secret.h).
#pragma once

#include <openssl/crypto.h>

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "kms/platform/Secret.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

template <typename T>
struct WipingAllocator {
  using value_type = T;
  WipingAllocator() = default;
  template <typename U>
  WipingAllocator(const WipingAllocator<U>&) {}
  T* allocate(std::size_t n) { return std::allocator<T>().allocate(n); }
  void deallocate(T* p, std::size_t n) {
    OPENSSL_cleanse(p, n * sizeof(T));
    std::allocator<T>().deallocate(p, n);
  }
  template <typename U>
  bool operator==(const WipingAllocator<U>&) const {
    return true;
  }
  template <typename U>
  bool operator!=(const WipingAllocator<U>&) const {
    return false;
  }
};

using SecureBytes = std::vector<unsigned char, WipingAllocator<unsigned char>>;

inline SecureBytes toSecureBytes(const std::string& s) {
  return SecureBytes(s.begin(), s.end());
}

// Overwrites the buffer's bytes and empties it (the capacity is kept).
inline void wipeBytes(SecureBytes& b) {
  if (!b.empty()) {
    OPENSSL_cleanse(b.data(), b.size());
  }
  b.clear();
}

using CmnCrypto::Secret;
using CmnCrypto::wipeString;

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
