// Helpers of the store file format tests: a hand encoder of fields and lists
// independent of the code under test, digests, and records to put in tables.
#pragma once

#include <openssl/evp.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "kms/platform/VRLogger.h"
#include "kms/server/keystore/crypto/KeyGen.h"
#include "kms/server/keystore/format/KSInputBuffer.h"
#include "kms/server/keystore/format/KSOutStream.h"
#include "kms/server/keystore/format/StringOutDest.h"
#include "kms/server/keystore/records/KeyRecord_v1.h"

namespace formattest {

// `value` as `len` big-endian bytes.
inline std::string be(uint64_t value, size_t len) {
  std::string out(len, '\0');
  for (size_t i = len; i > 0; --i, value >>= 8) {
    out[i - 1] = static_cast<char>(value & 0xff);
  }
  return out;
}

// A field: 2-byte length and content.
inline std::string field(const std::string& content) {
  return be(content.size(), 2) + content;
}

inline std::string digest(const EVP_MD* md, const std::string& bytes) {
  unsigned char out[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  EVP_Digest(bytes.data(), bytes.size(), out, &len, md, nullptr);
  return std::string(reinterpret_cast<const char*>(out), len);
}

// An attribute list in the order given, with marker "BB" and SHA-256 or "BA" and SHA-1.
inline std::string handList(const std::vector<std::pair<std::string, std::string>>& attrs,
                            bool old = false) {
  std::string out = field(old ? "BA" : "BB") + field(be(attrs.size(), 4));
  std::string covered = "Z";
  for (const auto& attr : attrs) {
    out += field(attr.first) + field(attr.second);
    covered += attr.first + attr.second;
  }
  return out + field(digest(old ? EVP_sha1() : EVP_sha256(), covered));
}

// A record's digested fields with marker and digest, then `attrs` (encoded).
inline std::string handRecord(const std::vector<std::string>& contents, const std::string& attrs,
                              bool old = false) {
  std::string out = field(old ? "BR" : "BS");
  std::string covered = "Z";
  for (const std::string& content : contents) {
    out += field(content);
    covered += content;
  }
  return out + field(digest(old ? EVP_sha1() : EVP_sha256(), covered)) + attrs;
}

// What `write(stream)` puts through a non-encrypting stream, flushed.
template <typename Write>
std::string written(Write&& write) {
  std::string bytes;
  Vaultrest::DL::KMS::StringOutDest dest(bytes);
  Vaultrest::DL::KMS::KSOutStream out(dest, nullptr, Vaultrest::DL::KMS::KSOutStream::kBufferSize);
  write(out);
  out.flush(true);
  return bytes;
}

// Makes KeyGen choose the fast salt scheme 3 while alive (2 iterations, not 500000).
class WeakKdf {
 public:
  WeakKdf() : m_saved(Vaultrest::DL::KMS::KeyGen::s_use_weak_kdf) {
    Vaultrest::DL::KMS::KeyGen::s_use_weak_kdf = true;
  }
  ~WeakKdf() { Vaultrest::DL::KMS::KeyGen::s_use_weak_kdf = m_saved; }
  WeakKdf(const WeakKdf&) = delete;
  WeakKdf& operator=(const WeakKdf&) = delete;

 private:
  bool m_saved;
};

// A 32-byte tag made from `n`, with zero bytes in it (no C string on the way).
inline std::string tagOf(unsigned n, char first = 'T') {
  std::string tag(32, '\0');
  tag[0] = first;
  tag[12] = static_cast<char>(n & 0xff);
  tag[13] = static_cast<char>((n >> 8) & 0xff);
  return tag.replace(31, 1, 1, '\xff');
}

inline Vaultrest::DL::KMS::KeyRecord_v1 keyRecord(const std::string& tag, const std::string& group,
                                                  Vaultrest::DL::KMS::ks_keystate_t state) {
  Vaultrest::DL::KMS::KeyRecord_v1 rec;
  rec.setTag(tag);
  rec.setKeyGroup(group);
  rec.setState(state);
  rec.setKpkType(Vaultrest::DL::KMS::KPK_LOCAL);
  rec.setName("key");
  return rec;
}

// In a death test's child: application messages (assertions too) go to stderr.
inline void logAppToStderr() {
  static VRLogger logger(286, "/dev/null", "/dev/stderr", 0);
  VRLogger::s_default = &logger;
}

}  // namespace formattest
