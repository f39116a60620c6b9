// Message authentication for the store's sealed blocks.
#pragma once

#include <openssl/evp.h>

#include <cstddef>
#include <string>

namespace Vaultrest {
namespace DL {
namespace KMS {
namespace Utils {

// HMAC of `len` bytes at `data` under `key` with `digest` (at most 64 bytes).
// Empty on failure, after the OpenSSL errors have been logged.
std::string hmac(const EVP_MD* digest, const std::string& key, const unsigned char* data,
                 size_t len);

}  // namespace Utils
}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
