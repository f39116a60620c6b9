// Byte buffers for secrets. SecureBytes wipes every block it gives back to the
// heap (growth included), and ScopedWipe wipes a std::string when the scope
// ends, so keys and plaintext do not linger in freed memory.
#pragma once

#include <openssl/crypto.h>

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

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

// Overwrites the string's bytes and empties it.
inline void wipeString(std::string& s) {
  if (!s.empty()) {
    OPENSSL_cleanse(&s[0], s.size());
  }
  s.clear();
}

// Wipes `s` when the scope ends, on every path.
class ScopedWipe {
 public:
  explicit ScopedWipe(std::string& s) : m_s(s) {}
  ~ScopedWipe() { wipeString(m_s); }
  ScopedWipe(const ScopedWipe&) = delete;
  ScopedWipe& operator=(const ScopedWipe&) = delete;

 private:
  std::string& m_s;
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
