// Owning pointers to the OpenSSL objects the program holds, each freed by
// its library call when the pointer goes. A null pointer frees nothing.
#pragma once

#include <openssl/evp.h>

#include <memory>

namespace CmnCrypto {

struct OpenSslFree {
  void operator()(EVP_CIPHER_CTX* ctx) const { EVP_CIPHER_CTX_free(ctx); }
  void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
  void operator()(EVP_CIPHER* cipher) const { EVP_CIPHER_free(cipher); }
};

using CipherCtxPtr = std::unique_ptr<EVP_CIPHER_CTX, OpenSslFree>;
using DigestCtxPtr = std::unique_ptr<EVP_MD_CTX, OpenSslFree>;
using CipherPtr = std::unique_ptr<EVP_CIPHER, OpenSslFree>;

}  // namespace CmnCrypto
