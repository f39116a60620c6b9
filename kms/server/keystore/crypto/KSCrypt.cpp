#include "kms/server/keystore/crypto/KSCrypt.h"

#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/Raise.h"
#include "kms/server/diagnostics/StatusCodes.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

namespace {

struct TypeRow {
  KSCrypt::CryptType type;
  const char* name;
  int keyLen;
  int ivLen;
  bool aad;
};

// Rows for 1..6, in value order. The names are part of the file format.
const TypeRow kTypes[] = {
    {KSCrypt::CRYPT_NONE, "CRYPT_NONE", 0, 0, false},
    {KSCrypt::AES_256_CBC, "AES_256_CBC", 32, 16, false},
    {KSCrypt::AES_192_CBC, "AES_192_CBC", 24, 16, false},
    {KSCrypt::AES_128_CBC, "AES_128_CBC", 16, 16, false},
    {KSCrypt::AES_256_CBC_EVP, "AES_256_CBC_EVP", 32, 16, false},
    // The GCM crypter makes and carries its own 12-byte IV, so the caller
    // supplies none.
    {KSCrypt::AES_256_GCM, "AES_256_GCM", 32, 0, true},
};

const TypeRow* rowOf(KSCrypt::CryptType type) {
  for (const TypeRow& row : kTypes) {
    if (row.type == type) {
      return &row;
    }
  }
  return nullptr;
}

const TypeRow& knownRow(KSCrypt::CryptType type, const char* function) {
  const TypeRow* row = rowOf(type);
  if (row == nullptr) {
    KMS_DEBUG(function, 1, "Unknown crypt type " << static_cast<int>(type));
    KS_THROW(EC_KS_internal_error, function);
  }
  return *row;
}

}  // namespace

const unsigned char KSCrypt::Output::kNoBytes = 0;

KSCrypt::~KSCrypt() = default;

int KSCrypt::add_authenticated_data_encrypt(const unsigned char*, unsigned long) {
  return EC_KS_crypter_failed;
}

int KSCrypt::add_authenticated_data_decrypt(const unsigned char*, unsigned long) {
  return EC_KS_crypter_failed;
}

int KSCrypt::fetchOutput(int status, Output& output, const unsigned char** data,
                         unsigned long* len) {
  if (status != 0) {
    return EC_KS_crypter_not_ready;
  }
  if (data == nullptr || len == nullptr) {
    return EC_KS_crypter_failed;
  }
  output.fetch(data, len);
  return 0;
}

std::string KSCrypt::cryptTypeToString(CryptType type) {
  const TypeRow* row = rowOf(type);
  return row != nullptr ? row->name : "CRYPT_INVALID";
}

KSCrypt::CryptType KSCrypt::stringToCryptType(const std::string& name) {
  for (const TypeRow& row : kTypes) {
    if (name == row.name) {
      return row.type;
    }
  }
  return CRYPT_INVALID;
}

int KSCrypt::cryptTypeToKeyLen(CryptType type) {
  return knownRow(type, "KSCrypt::cryptTypeToKeyLen").keyLen;
}

int KSCrypt::cryptTypeToIVLen(CryptType type) {
  return knownRow(type, "KSCrypt::cryptTypeToIVLen").ivLen;
}

bool KSCrypt::cryptTypeSupportsAAD(CryptType type) {
  return knownRow(type, "KSCrypt::cryptTypeSupportsAAD").aad;
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
