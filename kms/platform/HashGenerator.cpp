#include "kms/platform/HashGenerator.h"

#include <openssl/evp.h>

namespace CmnCrypto {

namespace {

const EVP_MD* digestOf(_HASH_ALGO algo) {
  switch (algo) {
    case HASH_SHA256:
      return EVP_sha256();
    case HASH_SHA1:
      return EVP_sha1();
  }
  throw CmnException("HashGenerator: unknown hash algorithm " + std::to_string(algo));
}

}  // namespace

HashGenerator::HashGenerator(_HASH_ALGO algo) : m_ctx(nullptr) {
  const EVP_MD* md = digestOf(algo);
  m_ctx = EVP_MD_CTX_new();
  if (m_ctx == nullptr) {
    throw CmnException("HashGenerator: out of memory");
  }
  if (EVP_DigestInit_ex2(m_ctx, md, nullptr) != 1) {
    EVP_MD_CTX_free(m_ctx);
    throw CmnException("HashGenerator: digest initialisation failed");
  }
}

HashGenerator::~HashGenerator() {
  EVP_MD_CTX_free(m_ctx);
}

void HashGenerator::addData(const void* data, size_t len) {
  if (m_finished) {
    throw CmnException("HashGenerator: data added after the digest was generated");
  }
  if (len > 0 && EVP_DigestUpdate(m_ctx, data, len) != 1) {
    throw CmnException("HashGenerator: digest update failed");
  }
}

std::string HashGenerator::generateBinaryHash() {
  if (m_finished) {
    throw CmnException("HashGenerator: digest already generated");
  }
  m_finished = true;
  unsigned char out[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  if (EVP_DigestFinal_ex(m_ctx, out, &len) != 1) {
    throw CmnException("HashGenerator: digest finalisation failed");
  }
  return std::string(reinterpret_cast<const char*>(out), len);
}

size_t HashGenerator::digestLength(_HASH_ALGO algo) {
  return static_cast<size_t>(EVP_MD_get_size(digestOf(algo)));
}

}  // namespace CmnCrypto
