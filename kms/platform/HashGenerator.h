// Message digests of the common crypto library, by selector:
//
//   CmnCrypto::HashGenerator digest(CmnCrypto::HASH_SHA256);
//   digest.addData("Z", 1);
//   digest.addData(name);
//   std::string bytes = digest.generateBinaryHash();
#pragma once

#include <openssl/types.h>

#include <cstddef>
#include <string>

#include "kms/platform/CmnException.h"
#include "kms/platform/OpenSslPtr.h"

namespace CmnCrypto {

// Digest selectors. The values are stored in files: never renumber.
enum _HASH_ALGO : int {
  HASH_SHA256 = 1,
  HASH_SHA1 = 3,
};

// One digest computation. Not copyable; not thread-safe. Every failure throws
// CmnException: an unknown selector (in the constructor), a failure of the
// crypto library, or any use after generateBinaryHash().
class HashGenerator {
 public:
  explicit HashGenerator(_HASH_ALGO algo);
  ~HashGenerator();
  HashGenerator(const HashGenerator&) = delete;
  HashGenerator& operator=(const HashGenerator&) = delete;

  void addData(const void* data, size_t len);
  void addData(const std::string& data) { addData(data.data(), data.size()); }

  // Finishes the digest and returns its raw bytes (32 for SHA-256, 20 for
  // SHA-1). The generator is spent afterwards.
  std::string generateBinaryHash();
  // The same into `out`, which has room for EVP_MAX_MD_SIZE bytes; returns
  // the digest's length.
  size_t generateBinaryHash(unsigned char* out);

  // Begins a new digest with the same selector, keeping the context: the
  // cheap way to compute many digests one after the other.
  void restart();
  _HASH_ALGO algo() const { return m_algo; }

  // Length in bytes of the digest of `algo`; throws CmnException if unknown.
  static size_t digestLength(_HASH_ALGO algo);

 private:
  DigestCtxPtr m_ctx;
  _HASH_ALGO m_algo;
  bool m_finished = false;
};

}  // namespace CmnCrypto
