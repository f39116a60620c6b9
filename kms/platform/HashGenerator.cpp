#include "kms/platform/HashGenerator.h"

#include <openssl/evp.h>

namespace CmnCrypto {

namespace {

// The digest implementation, fetched once per process: a digest named by
// EVP_sha256() is looked up again at every initialisation, which costs more
// than hashing a record. Fetched with the default properties in force at the
// first digest, after the process has decided its FIPS mode.
const EVP_MD* fetched(const char* name) {
  EVP_MD* md = EVP_MD_fetch(nullptr, name, nullptr);
  if (md == nullptr) {
    throw CmnException(std::string("HashGenerator: no implementation of ") + name);
  }
  return md;
}

const EVP_MD* digestOf(_HASH_ALGO algo) {
  switch (algo) {
    case HASH_SHA256: {
      static const EVP_MD* const sha256 = fetched("SHA256");
      return sha256;
    }
    case HASH_SHA1: {
      static const EVP_MD* const sha1 = fetched("SHA1");
      return sha1;
    }
  }
  throw CmnException("HashGenerator: unknown hash algorithm " + std::to_string(algo));
}

}  // namespace

HashGenerator::HashGenerator(_HASH_ALGO algo) : m_ctx(EVP_MD_CTX_new()), m_algo(algo) {
  const EVP_MD* md = digestOf(algo);
  if (m_ctx == nullptr) {
    throw CmnException("HashGenerator: out of memory");
  }
  if (EVP_DigestInit_ex2(m_ctx.get(), md, nullptr) != 1) {
    throw CmnException("HashGenerator: digest initialisation failed");
  }
}

void HashGenerator::restart() {
  if (EVP_DigestInit_ex2(m_ctx.get(), digestOf(m_algo), nullptr) != 1) {
    throw CmnException("HashGenerator: digest initialisation failed");
  }
  m_finished = false;
}

HashGenerator::~HashGenerator() = default;

void HashGenerator::addData(const void* data, size_t len) {
  if (m_finished) {
    throw CmnException("HashGenerator: data added after the digest was generated");
  }
  if (len > 0 && EVP_DigestUpdate(m_ctx.get(), data, len) != 1) {
    throw CmnException("HashGenerator: digest update failed");
  }
}

std::string HashGenerator::generateBinaryHash() {
  unsigned char out[EVP_MAX_MD_SIZE];
  const size_t len = generateBinaryHash(out);
  return std::string(reinterpret_cast<const char*>(out), len);
}

size_t HashGenerator::generateBinaryHash(unsigned char* out) {
  if (m_finished) {
    throw CmnException("HashGenerator: digest already generated");
  }
  m_finished = true;
  unsigned int len = 0;
  if (EVP_DigestFinal_ex(m_ctx.get(), out, &len) != 1) {
    throw CmnException("HashGenerator: digest finalisation failed");
  }
  return len;
}

size_t HashGenerator::digestLength(_HASH_ALGO algo) {
  return static_cast<size_t>(EVP_MD_get_size(digestOf(algo)));
}

}  // namespace CmnCrypto
