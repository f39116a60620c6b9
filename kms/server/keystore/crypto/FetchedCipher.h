// The OpenSSL ciphers of the crypters, fetched once per process from the
// default library context with the default properties in force at the first
// call. A cipher handed to an init as EVP_aes_256_gcm() and the like is
// looked up again in the provider store, under its lock, at every init; a
// fetched one is not.
//
// Any thread. The ciphers live until the process ends; null when no provider
// offers the algorithm (the caller reports it).
#pragma once

#include <openssl/evp.h>

namespace Vaultrest {
namespace DL {
namespace KMS {

class FetchedCipher {
 public:
  static const EVP_CIPHER* aes256Gcm();
  static const EVP_CIPHER* aes256Cbc();
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
