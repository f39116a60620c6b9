// What is known of one master key without opening the store: the result of
// KeyStore::getHMKInfo and KeyStore::getKPKInfo, filled from the metadata
// block of the store file. A plain value.
#pragma once

#include <string>

#include "kms/server/keystore/crypto/KSCrypt.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

struct KeyInfo {
  std::string id;                                         // the key's identifier, text
  KSCrypt::CryptType algorithm = KSCrypt::CRYPT_INVALID;  // what the key is used with
  bool random = false;                                    // made from random data, no passphrase
  bool fips = false;                                      // made while FIPS mode was on
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
