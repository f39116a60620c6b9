// Fuzzes GCMCrypter::decrypt with streams split at points taken from the
// input. Layout of an input:
//
//   byte 0     flags: bit 7 authenticates the AAD of the reference vector,
//              bit 6 seals the payload first (so the success path is
//              reached), bits 0-2 the number n of piece sizes
//   bytes 1-n  piece sizes for the non-final calls (0-255 each)
//   the rest   the payload: a stream to open, or the plaintext to seal
//
// Checks: the split decryption agrees with a one-shot decryption (status and
// plaintext), results are only 0, 1223, 1224 or 1270, nothing is released
// after a failure, and a sealed payload always comes back.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "kms/server/keystore/crypto/GCMCrypter.h"

using Vaultrest::DL::KMS::GCMCrypter;

namespace {

// The key and AAD of the published AES-256 GCM test cases 15 and 16, so
// that those vectors are valid seeds.
const unsigned char kKeyBytes[32] = {
    0xfe, 0xff, 0xe9, 0x92, 0x86, 0x65, 0x73, 0x1c, 0x6d, 0x6a, 0x8f, 0x94, 0x67, 0x30, 0x83, 0x08,
    0xfe, 0xff, 0xe9, 0x92, 0x86, 0x65, 0x73, 0x1c, 0x6d, 0x6a, 0x8f, 0x94, 0x67, 0x30, 0x83, 0x08};
const unsigned char kAad[20] = {0xfe, 0xed, 0xfa, 0xce, 0xde, 0xad, 0xbe, 0xef, 0xfe, 0xed,
                                0xfa, 0xce, 0xde, 0xad, 0xbe, 0xef, 0xab, 0xad, 0xda, 0xd2};

const std::string& key() {
  static const std::string k(reinterpret_cast<const char*>(kKeyBytes), sizeof kKeyBytes);
  return k;
}

void check(bool ok) {
  if (!ok) {
    std::abort();
  }
}

struct Outcome {
  int status;
  std::string plain;
};

Outcome finish(GCMCrypter& c, int status) {
  const unsigned char* p = nullptr;
  unsigned long n = 0;
  const int got = c.getDecryptedData(&p, &n);
  if (status != 0) {
    check(got == 1223);
    return {status, std::string()};
  }
  check(got == 0);
  return {0, std::string(reinterpret_cast<const char*>(p), n)};
}

Outcome openWhole(const std::string& stream, bool aad) {
  GCMCrypter c(key());
  if (aad) {
    check(c.add_authenticated_data_decrypt(kAad, sizeof kAad) == 0);
  }
  const int rc =
      c.decrypt(reinterpret_cast<const unsigned char*>(stream.data()), stream.size(), true);
  return finish(c, rc);
}

Outcome openInPieces(const std::string& stream, bool aad, const std::vector<size_t>& pieces) {
  GCMCrypter c(key());
  if (aad) {
    check(c.add_authenticated_data_decrypt(kAad, sizeof kAad) == 0);
  }
  const unsigned char* at = reinterpret_cast<const unsigned char*>(stream.data());
  size_t left = stream.size();
  for (size_t piece : pieces) {
    const size_t n = piece < left ? piece : left;
    const int rc = c.decrypt(at, n, false);
    if (rc != 0) {
      return finish(c, rc);
    }
    // No plaintext before the final call.
    const unsigned char* p = nullptr;
    unsigned long got = 1;
    check(c.getDecryptedData(&p, &got) == 0 && got == 0);
    at += n;
    left -= n;
  }
  return finish(c, c.decrypt(at, left, true));
}

std::string seal(const std::string& plain, bool aad) {
  GCMCrypter c(key());
  if (aad) {
    check(c.add_authenticated_data_encrypt(kAad, sizeof kAad) == 0);
  }
  check(c.encrypt(reinterpret_cast<const unsigned char*>(plain.data()), plain.size(), true) == 0);
  const unsigned char* p = nullptr;
  unsigned long n = 0;
  check(c.getEncryptedData(&p, &n) == 0);
  check(n == plain.size() + 28);
  return std::string(reinterpret_cast<const char*>(p), n);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) {
    return 0;
  }
  const uint8_t flags = data[0];
  const bool aad = (flags & 0x80) != 0;
  const bool sealFirst = (flags & 0x40) != 0;
  size_t count = flags & 0x07;
  if (count > size - 1) {
    count = size - 1;
  }
  std::vector<size_t> pieces(data + 1, data + 1 + count);
  std::string payload(reinterpret_cast<const char*>(data + 1 + count), size - 1 - count);

  const std::string stream = sealFirst ? seal(payload, aad) : payload;
  const Outcome whole = openWhole(stream, aad);
  const Outcome split = openInPieces(stream, aad, pieces);
  check(whole.status == 0 || whole.status == 1224 || whole.status == 1270);
  check(split.status == whole.status);
  check(split.plain == whole.plain);
  if (whole.status == 0) {
    check(stream.size() >= 28 && whole.plain.size() == stream.size() - 28);
  }
  if (stream.size() < 28) {
    check(whole.status == 1224);
  }
  if (sealFirst) {
    check(whole.status == 0 && whole.plain == payload);
  }
  return 0;
}
