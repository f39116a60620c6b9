#include "kms/platform/Hash.h"

#include <openssl/evp.h>

namespace {

constexpr int kFailed = -1;

}  // namespace

Hash::Hash(mangleHashType type) : m_status(kFailed) {
  if (type != MANGLE_HASH_SHA1) {
    return;
  }
  m_ctx.reset(EVP_MD_CTX_new());
  if (m_ctx != nullptr && EVP_DigestInit_ex2(m_ctx.get(), EVP_sha1(), nullptr) == 1) {
    m_status = 0;
  }
}

Hash::~Hash() = default;

int Hash::update(const void* data, size_t len) {
  if (m_status == 0 && len > 0 && EVP_DigestUpdate(m_ctx.get(), data, len) != 1) {
    m_status = kFailed;
  }
  return m_status;
}

int Hash::getHash(std::string* out) {
  if (m_status != 0 || out == nullptr) {
    return kFailed;
  }
  m_status = kFailed;  // spent
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  if (EVP_DigestFinal_ex(m_ctx.get(), digest, &len) != 1) {
    return kFailed;
  }
  out->assign(reinterpret_cast<const char*>(digest), len);
  return 0;
}
