// The password-secured envelope of an export: encrypt-then-MAC under two
// keys drawn from one PBKDF2 output. AES-256-CBC gives secrecy, HMAC-SHA-256
// over the header and the ciphertext gives authenticity. The HMAC's digest
// and PBKDF2's digest (named by the salt) differ on purpose.
#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <cstdint>
#include <memory>

#include "kms/server/diagnostics/ErrorMapping.h"
#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/Raise.h"
#include "kms/server/diagnostics/StatusCodes.h"
#include "kms/server/keystore/crypto/CryptFactory.h"
#include "kms/server/keystore/crypto/Hmac.h"
#include "kms/server/keystore/crypto/KeyGen.h"
#include "kms/server/keystore/crypto/RandData.h"
#include "kms/server/keystore/crypto/SecureBytes.h"
#include "kms/server/keystore/format/BigEndian.h"
#include "kms/server/keystore/format/ReaderWriter.h"
#include "kms/server/keystore/format/SecuredDataHeader.h"
#include "kms/server/keystore/format/StringOutDest.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

namespace {

const KSCrypt::CryptType enc_algo = KSCrypt::AES_256_CBC_EVP;
const ks_version_t VERSION_2_0 = KS_VERSION_200;
const unsigned long kHmacKeyLen = 32;
const unsigned long kMaxHmacLen = 64;

// A KeyStoreError 1282 (malformed salt) from the derivation is malformed
// input; anything else an internal failure.
const ErrorMap kDeriveMap{{}, {{{1282}, 1208}}};
// Every failure around the crypter is an internal one.
const ErrorMap kCrypterMap{{}, {}};

void writeLengthField(KSOutStream& out, uint64_t length) {
  unsigned char be[4];
  Utils::storeBigEndian(be, length, 4);
  ReaderWriter::writeRecordField(out, be, 4);
}

// A 4-byte length field, or KeyStoreError 1208.
uint32_t readLengthField(KSInputBuffer& in, const char* function) {
  unsigned char be[4];
  if (ReaderWriter::readRecordField(in, be, sizeof be) != 4) {
    KMS_DEBUG(function, 1, "Length field is not 4 bytes long");
    KS_THROW(EC_KS_malformed, function);
  }
  return static_cast<uint32_t>(Utils::loadBigEndian(be, 4));
}

std::unique_ptr<KSCrypt> makeCrypter(const char* function, const std::string& key,
                                     const std::string& iv) {
  return translateErrors(function, kCrypterMap,
                         [&] { return CryptFactory::createCrypter(enc_algo, key, iv); });
}

// The encryption key and the HMAC key, wiped when they go.
struct EnvelopeKeys {
  std::string enc_key;
  std::string hmac_key;
  ~EnvelopeKeys() {
    wipeString(enc_key);
    wipeString(hmac_key);
  }
};

// Splits the derived bytes, which must be `derivedLen` long (else 1200),
// and wipes them.
void splitDerived(std::string& derived, unsigned long derivedLen, EnvelopeKeys& keys,
                  const char* function) {
  Secret::Guard wipeDerived(derived);
  if (derived.size() != derivedLen) {
    KMS_DEBUG(function, 1, "Derived " << derived.size() << " bytes, not " << derivedLen);
    KS_THROW(EC_KS_internal_error, function);
  }
  const unsigned long encLen = derivedLen - kHmacKeyLen;
  keys.enc_key.assign(derived, 0, encLen);
  keys.hmac_key.assign(derived, encLen, kHmacKeyLen);
}

}  // namespace

void ReaderWriter::writeDataPasswordSecured(KSOutStream& out, const std::string& passphrase,
                                            const std::string& data) {
  KMS_TRACE("ReaderWriter::writeDataPasswordSecured");
  static const char* const kLabel = "ReaderWriter::writeDataPasswordSecured";

  const unsigned long derivedLen = KSCrypt::cryptTypeToKeyLen(enc_algo) + kHmacKeyLen;
  const std::string salt = KeyGen::generateSalt();
  if (salt.empty()) {
    KMS_DEBUG(kLabel, 1, "No salt could be made");
    KS_THROW(EC_KS_internal_error, kLabel);
  }
  std::string derived = KeyGen::passphraseToKey(passphrase, salt, derivedLen);
  EnvelopeKeys keys;
  splitDerived(derived, derivedLen, keys, kLabel);
  const std::string& enc_key = keys.enc_key;
  const std::string& hmac_key = keys.hmac_key;
  KS_ASSERT(kLabel, !salt.empty() && !enc_key.empty() && !hmac_key.empty());

  const std::string iv = Utils::getRandData(KSCrypt::cryptTypeToIVLen(enc_algo));
  if (iv.empty()) {
    KMS_DEBUG(kLabel, 1, "No IV could be made");
    KS_THROW(EC_KS_internal_error, kLabel);
  }

  std::string encrypted_data;
  {
    std::unique_ptr<KSCrypt> crypter = makeCrypter(kLabel, enc_key, iv);
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(data.data());
    int rc = crypter->encrypt(bytes, data.size(), true);
    const unsigned char* encrypted = nullptr;
    unsigned long encryptedLen = 0;
    if (rc == 0) {
      rc = crypter->getEncryptedData(&encrypted, &encryptedLen);
    }
    if (rc != 0) {
      KMS_DEBUG(kLabel, 1, "Encryption failed with " << rc);
      KS_THROW(EC_KS_internal_error, kLabel);
    }
    encrypted_data.assign(reinterpret_cast<const char*>(encrypted), encryptedLen);
  }
  KS_ASSERT(kLabel, !iv.empty() && !encrypted_data.empty());
  if (encrypted_data.size() > UINT32_MAX) {
    KMS_DEBUG(kLabel, 1, "Ciphertext of " << encrypted_data.size() << " bytes is too long");
    KS_THROW(EC_KS_internal_error, kLabel);
  }

  SecuredDataHeader header(KS_VERSION_200);
  header.setSalt(salt);
  header.setIV(iv);

  std::string bufForHmac;
  {
    StringOutDest dest(bufForHmac);
    KSOutStream region(dest, nullptr, KSOutStream::kBufferSize);
    writeAttributeList(region, header.attributes());
    writeLengthField(region, encrypted_data.size());
    region.write(encrypted_data.data(), encrypted_data.size());
    region.flush(true);
  }
  KS_ASSERT(kLabel, !bufForHmac.empty());
  if (bufForHmac.size() > UINT32_MAX) {
    KMS_DEBUG(kLabel, 1, "Block of " << bufForHmac.size() << " bytes is too long");
    KS_THROW(EC_KS_internal_error, kLabel);
  }

  const std::string hmac =
      Utils::hmac(EVP_sha256(), hmac_key, reinterpret_cast<const unsigned char*>(bufForHmac.data()),
                  bufForHmac.size());
  if (hmac.empty()) {
    KS_THROW(EC_KS_internal_error, kLabel);
  }
  const size_t hmac_len = hmac.size();
  KS_ASSERT(kLabel, hmac_len != 0 && hmac_len <= 64);

  writeRecordField(out, hmac.data(), hmac.size());
  writeLengthField(out, bufForHmac.size());
  out.write(bufForHmac.data(), bufForHmac.size());
}

void ReaderWriter::readDataPasswordSecured(KSInputBuffer& in, const std::string& passphrase,
                                           std::string& data) {
  KMS_TRACE("ReaderWriter::readDataPasswordSecured");
  static const char* const kLabel = "ReaderWriter::readDataPasswordSecured";

  unsigned char storedHmac[kMaxHmacLen] = {};
  const unsigned long storedHmacLen = readRecordField(in, storedHmac, sizeof storedHmac);
  const uint32_t regionLen = readLengthField(in, kLabel);
  if (in.remaining() < regionLen) {
    KMS_DEBUG(kLabel, 1, "Block of " << regionLen << " bytes with " << in.remaining() << " left");
    KS_THROW(EC_KS_malformed, kLabel);
  }
  const unsigned char* const region = in.cursor();
  const unsigned long remainingAtRegion = in.remaining();

  // The header is read from bytes not yet authenticated: the salt that gives
  // the HMAC key is in it. Its own digest and bounds checks guard this read.
  AttributeList headerList;
  readAttributeList(in, headerList);
  const SecuredDataHeader header(headerList);
  const ks_version_t secured_format_version = header.version();
  // The header refuses every other version, so no input gets here.
  KS_ASSERT(kLabel, secured_format_version == VERSION_2_0);

  const unsigned long derivedLen = KSCrypt::cryptTypeToKeyLen(enc_algo) + kHmacKeyLen;
  std::string derived = translateErrors(kLabel, kDeriveMap, [&] {
    return KeyGen::passphraseToKey(passphrase, header.salt(), derivedLen);
  });
  EnvelopeKeys keys;
  splitDerived(derived, derivedLen, keys, kLabel);

  const std::string hmac = Utils::hmac(EVP_sha256(), keys.hmac_key, region, regionLen);
  if (hmac.empty()) {
    KS_THROW(EC_KS_internal_error, kLabel);
  }
  if (hmac.size() != storedHmacLen || CRYPTO_memcmp(hmac.data(), storedHmac, hmac.size()) != 0) {
    KMS_DEBUG(kLabel, 1, "HMAC mismatch: wrong passphrase or changed data");
    KS_THROW(EC_KS_wrong_export_passphrase, kLabel);
  }

  // Authenticated from here on, as far as the region reaches: the length
  // field and the ciphertext must lie inside it, not merely inside the buffer.
  const uint32_t encryptedLen = readLengthField(in, kLabel);
  const unsigned long consumed = remainingAtRegion - in.remaining();
  if (consumed > regionLen || encryptedLen > regionLen - consumed) {
    KMS_DEBUG(kLabel, 1, "Ciphertext of " << encryptedLen << " bytes runs past the block");
    KS_THROW(EC_KS_malformed, kLabel);
  }
  // The HMAC vouches for the header, so only a block sealed with this
  // passphrase but built wrongly gets here with an IV of another length.
  if (header.iv().size() != static_cast<size_t>(KSCrypt::cryptTypeToIVLen(enc_algo))) {
    KMS_DEBUG(kLabel, 1, "IV of " << header.iv().size() << " bytes");
    KS_THROW(EC_KS_malformed, kLabel);
  }

  std::unique_ptr<KSCrypt> crypter = makeCrypter(kLabel, keys.enc_key, header.iv());
  int rc = crypter->decrypt(in.cursor(), encryptedLen, true);
  if (rc != 0) {
    KMS_DEBUG(kLabel, 1, "Decryption failed with " << rc);
    KS_THROW(EC_KS_internal_error, kLabel);
  }
  in.advance(encryptedLen);
  const unsigned char* plain = nullptr;
  unsigned long plainLen = 0;
  rc = crypter->getDecryptedData(&plain, &plainLen);
  if (rc != 0) {
    KMS_DEBUG(kLabel, 1, "getDecryptedData() failed with " << rc);
    KS_THROW(EC_KS_internal_error, kLabel);
  }
  data.assign(reinterpret_cast<const char*>(plain), plainLen);
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
