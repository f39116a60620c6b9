// Helpers of the crypto tests: hex, a crypter run to the end, a scripted random source.
#pragma once

#include <openssl/rand.h>

#include <string>
#include <utility>

#include "kms/platform/MangleRandom.h"
#include "kms/server/diagnostics/KeyStoreError.h"
#include "kms/server/keystore/crypto/KSCrypt.h"

// The status of the KeyStoreError that the statement throws, or 0.
#define KS_STATUS(...) ::cryptotest::ksStatus([&] { __VA_ARGS__; })

namespace cryptotest {

inline std::string unhex(const std::string& hex) {
  std::string out;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) {
    out.push_back(static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
  }
  return out;
}

inline std::string hex(const std::string& bytes) {
  std::string out;
  for (unsigned char c : bytes) {
    out.push_back("0123456789abcdef"[c >> 4]);
    out.push_back("0123456789abcdef"[c & 15]);
  }
  return out;
}

inline const unsigned char* u8(const std::string& s) {
  return reinterpret_cast<const unsigned char*>(s.data());
}

template <typename F>
int ksStatus(F&& f) {
  try {
    f();
  } catch (const Vaultrest::DL::KMS::KeyStoreError& e) {
    return e.status();
  }
  return 0;
}

struct Result {
  int status = -1;
  std::string bytes;
};

// Feeds `in` to one side in one final call and fetches the output (first non-zero status).
inline Result runAll(Vaultrest::DL::KMS::KSCrypt& c, const std::string& in, bool encrypting) {
  Result r;
  r.status = encrypting ? c.encrypt(u8(in), in.size(), true) : c.decrypt(u8(in), in.size(), true);
  const unsigned char* p = nullptr;
  unsigned long n = 0;
  if (r.status == 0 &&
      (r.status = encrypting ? c.getEncryptedData(&p, &n) : c.getDecryptedData(&p, &n)) == 0) {
    r.bytes.assign(reinterpret_cast<const char*>(p), n);
  }
  return r;
}
inline Result encryptAll(Vaultrest::DL::KMS::KSCrypt& c, const std::string& s) {
  return runAll(c, s, true);
}
inline Result decryptAll(Vaultrest::DL::KMS::KSCrypt& c, const std::string& s) {
  return runAll(c, s, false);
}

// The process's random source while alive: `failures` requests fail, then the bytes
// come from `fixed` (repeated) or, if it is empty, from OpenSSL.
class ScriptedRandom {
 public:
  explicit ScriptedRandom(int failures, std::string fixed = std::string()) {
    s_failures = failures, s_fixed = std::move(fixed), s_calls = 0;
    m_previous = mangleSetRandomSource(&ScriptedRandom::draw);
  }
  ~ScriptedRandom() { mangleSetRandomSource(m_previous); }
  ScriptedRandom(const ScriptedRandom&) = delete;
  ScriptedRandom& operator=(const ScriptedRandom&) = delete;
  static int calls() { return s_calls; }  // failed ones included

 private:
  static int draw(unsigned char* buf, size_t len) {
    ++s_calls;
    if (s_failures > 0) {
      return --s_failures, -1;
    }
    for (size_t i = 0; i < len && !s_fixed.empty(); ++i) {
      buf[i] = static_cast<unsigned char>(s_fixed[i % s_fixed.size()]);
    }
    return s_fixed.empty() && RAND_bytes(buf, static_cast<int>(len)) != 1 ? -1 : 0;
  }
  static inline int s_failures = 0;
  static inline int s_calls = 0;
  static inline std::string s_fixed;
  MangleRandomSource m_previous;
};

}  // namespace cryptotest
