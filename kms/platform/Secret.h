// Secrets in memory: passphrases, keys, plaintext key material.
//
// A Secret owns its bytes and overwrites them (the string's whole storage,
// spare capacity included) when it is destroyed, assigned to or moved from;
// a moved-from Secret is empty. It cannot be copied. Read it through str(),
// data() and size(); whoever copies the bytes out answers for the copy.
//
// Where an interface hands a secret out as a plain std::string that cannot be
// a Secret from the start, a Secret::Guard wipes that string when its scope
// ends, and wipeString wipes it at once. Not thread-safe; only Secret(length)
// allocates (and may throw std::bad_alloc).
#pragma once

#include <openssl/crypto.h>

#include <cstddef>
#include <string>
#include <utility>

namespace CmnCrypto {

// Overwrites all of `s`'s storage and empties it (no allocation: the size
// never passes the capacity).
inline void wipeString(std::string& s) noexcept {
  s.resize(s.capacity());
  OPENSSL_cleanse(&s[0], s.size());
  s.clear();
}

class Secret {
 public:
  Secret() = default;
  // Takes `text` over; what `text` still holds afterwards is wiped.
  explicit Secret(std::string&& text) noexcept : m_text(std::move(text)) { wipeString(text); }
  // `length` zero bytes, to be filled through data().
  explicit Secret(std::size_t length) : m_text(length, '\0') {}
  ~Secret() { wipeString(m_text); }
  Secret(Secret&& other) noexcept : Secret(std::move(other.m_text)) {}
  Secret& operator=(Secret&& other) noexcept {
    if (this != &other) {
      wipeString(m_text);
      m_text = std::move(other.m_text);
      wipeString(other.m_text);
    }
    return *this;
  }
  Secret(const Secret&) = delete;
  Secret& operator=(const Secret&) = delete;

  const std::string& str() const { return m_text; }
  const char* c_str() const { return m_text.c_str(); }
  const char* data() const { return m_text.data(); }
  char* data() { return &m_text[0]; }
  std::size_t size() const { return m_text.size(); }
  bool empty() const { return m_text.empty(); }

  // Wipes `s` when the scope ends, on every path.
  class Guard {
   public:
    explicit Guard(std::string& s) : m_s(s) {}
    ~Guard() { wipeString(m_s); }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

   private:
    std::string& m_s;
  };

 private:
  std::string m_text;
};

}  // namespace CmnCrypto
