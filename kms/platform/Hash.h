// Digests of the mangle library. Status-returning, C style:
//
//   Hash hash(MANGLE_HASH_SHA1);
//   hash.update("Z", 1);
//   hash.update(key.data(), key.size());
//   std::string digest;
//   if (hash.getHash(&digest) != 0) { ...failed... }
#pragma once

#include <openssl/types.h>

#include <cstddef>
#include <string>

#include "kms/platform/OpenSslPtr.h"

// Digest types. Type 1 is SHA-1 (20 bytes).
enum mangleHashType {
  MANGLE_HASH_SHA1 = 1,
};

// One digest computation. Not copyable; not thread-safe. A failure (unknown
// type, crypto library error, use after getHash) is remembered: every later
// call returns non-zero too.
class Hash {
 public:
  explicit Hash(mangleHashType type);
  ~Hash();
  Hash(const Hash&) = delete;
  Hash& operator=(const Hash&) = delete;

  // Feeds `len` bytes. Returns 0, or non-zero on failure.
  int update(const void* data, size_t len);
  // Finishes the digest into *out. Returns 0, or non-zero on failure (*out is
  // then untouched). The object is spent afterwards.
  int getHash(std::string* out);

 private:
  CmnCrypto::DigestCtxPtr m_ctx;
  int m_status;  // 0 while usable
};
