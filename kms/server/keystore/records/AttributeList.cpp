#include "kms/server/keystore/records/AttributeList.h"

#include <openssl/evp.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string_view>

#include "kms/platform/HashGenerator.h"
#include "kms/platform/Secret.h"
#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/Raise.h"
#include "kms/server/diagnostics/StatusCodes.h"
#include "kms/server/keystore/format/BigEndian.h"
#include "kms/server/keystore/records/KeyRecordBlock.h"
#include "kms/server/keystore/records/RecordUtils.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

const std::string AttributeList::m_errorS;

namespace {

// A list's digest is a key record's: the same seed and SHA-256.
constexpr size_t kDigestLength = KeyRecordBlock::kDigestLength;
// Marker, count and digest fields, each with its 2-byte length.
constexpr size_t kFrameBytes = 2 + 2 + 2 + 4 + 2 + kDigestLength;

std::string_view cut(std::string_view text) {
  return text.substr(0, AttributeList::kMaxLength);
}

unsigned char* putField(unsigned char* out, const void* content, size_t size) {
  Utils::storeBigEndian(out, size, 2);
  if (size != 0) {
    std::memcpy(out + 2, content, size);
  }
  return out + 2 + size;
}

}  // namespace

AttributeList::Body::~Body() {
  CmnCrypto::wipeString(encoding);
}

const AttributeList::Map& AttributeList::emptyMap() {
  static const Map empty;
  return empty;
}

AttributeList::Body& AttributeList::own(std::shared_ptr<const Body>& held) {
  if (m_body && m_body.use_count() == 1) {
    // Whatever another list did with the body happened before it let go.
    std::atomic_thread_fence(std::memory_order_acquire);
    // Made as a Body that may change (below), and held by this list alone.
    Body& body = const_cast<Body&>(*m_body);
    if (!body.encoding.empty()) {
      CmnCrypto::wipeString(body.encoding);
    }
    return body;
  }
  held = m_body;
  std::shared_ptr<Body> body =
      held ? std::make_shared<Body>(held->attrs) : std::make_shared<Body>();
  Body& made = *body;
  m_body = std::move(body);
  return made;
}

bool AttributeList::addAttribute(std::string_view name, std::string_view value) {
  KMS_TRACE_THIS("AttributeList::addAttribute");
  const std::string_view key = cut(name);
  // A list is read from a file in the order of its names: each new name
  // then goes behind the last one, without a search.
  const Map& current = attrs();
  const bool last = current.empty() || std::string_view(current.rbegin()->first) < key;
  if (!last && current.find(key) != current.end()) {
    return false;
  }
  std::shared_ptr<const Body> held;
  Map& entries = own(held).attrs;
  testEntry(last ? entries.emplace_hint(entries.end(), key, cut(value))
                 : entries.emplace(key, cut(value)).first);
  return true;
}

bool AttributeList::updateAttribute(std::string name, std::string value) {
  KMS_TRACE_THIS("AttributeList::updateAttribute");
  if (attrs().find(cut(name)) == attrs().end()) {
    return false;
  }
  if (value.size() > kMaxLength) {
    value.resize(kMaxLength);
  }
  std::shared_ptr<const Body> held;
  Map& entries = own(held).attrs;
  const auto iter = entries.find(cut(name));
  iter->second = std::move(value);
  testEntry(iter);
  return true;
}

bool AttributeList::removeAttribute(const std::string& name) {
  KMS_TRACE_THIS("AttributeList::removeAttribute");
  if (attrs().find(cut(name)) == attrs().end()) {
    return false;
  }
  // The empty list has no body.
  if (size() == 1) {
    m_body.reset();
    return true;
  }
  std::shared_ptr<const Body> held;
  Map& entries = own(held).attrs;
  entries.erase(entries.find(cut(name)));
  // What stays was checked when it came in.
  return true;
}

bool AttributeList::wipeValue(const std::string& name) {
  const Map& current = attrs();
  const auto found = current.find(cut(name));
  if (found == current.end()) {
    return false;
  }
  if (m_body.use_count() == 1) {
    std::shared_ptr<const Body> held;
    Map& entries = own(held).attrs;
    CmnCrypto::wipeString(entries.find(cut(name))->second);
    return true;
  }
  auto body = std::make_shared<Body>();
  for (auto iter = current.begin(); iter != current.end(); ++iter) {
    body->attrs.emplace_hint(body->attrs.end(), iter->first,
                             iter == found ? std::string() : iter->second);
  }
  m_body = std::move(body);
  return true;
}

std::string_view AttributeList::encoding() const {
  if (m_body) {
    return m_body->encoding;
  }
  // Most records have no attributes: their bytes are made once, and kept
  // to the end of the process.
  static const std::string* const empty = [] {
    auto* bytes = new std::string;
    AttributeList().encode(*bytes);
    return bytes;
  }();
  return *empty;
}

size_t AttributeList::encodedSize() const {
  if (m_body && !m_body->encoding.empty()) {
    return m_body->encoding.size();
  }
  size_t bytes = kFrameBytes;
  for (const auto& entry : attrs()) {
    bytes += 2 + entry.first.size() + 2 + entry.second.size();
  }
  return bytes;
}

void AttributeList::encode(std::string& out) const {
  static const char* const kLabel = "AttributeList::encode";
  const Map& entries = attrs();
  size_t size = kFrameBytes;
  for (const auto& entry : entries) {
    size += 2 + entry.first.size() + 2 + entry.second.size();
  }
  if (out.capacity() < size) {
    CmnCrypto::wipeString(out);
    out.reserve(size);
  }
  out.resize(size);
  unsigned char* at = reinterpret_cast<unsigned char*>(&out[0]);
  at = putField(at, kMarker, sizeof kMarker);
  unsigned char count[4];
  Utils::storeBigEndian(count, entries.size(), sizeof count);
  at = putField(at, count, sizeof count);
  unsigned char digest[EVP_MAX_MD_SIZE];
  try {
    // One context per thread, restarted for every list.
    thread_local std::optional<CmnCrypto::HashGenerator> hash;
    if (hash) {
      hash->restart();
    } else {
      hash.emplace(CmnCrypto::HASH_SHA256);
    }
    hash->addData(&KeyRecordBlock::kDigestSeed, 1);
    for (const auto& entry : entries) {
      at = putField(at, entry.first.data(), entry.first.size());
      at = putField(at, entry.second.data(), entry.second.size());
      hash->addData(entry.first.data(), entry.first.size());
      hash->addData(entry.second.data(), entry.second.size());
    }
    KS_ASSERT(kLabel, hash->generateBinaryHash(digest) == kDigestLength);
  } catch (const CmnCrypto::CmnException& e) {
    KMS_DEBUG(kLabel, 1, "Digest failed: " << e.what());
    KS_THROW(EC_KS_internal_error, kLabel);
  }
  putField(at, digest, kDigestLength);
}

void AttributeList::keepEncoding() {
  if (!m_body || !m_body->encoding.empty()) {
    return;
  }
  std::string bytes;
  encode(bytes);
  std::shared_ptr<const Body> held;
  own(held).encoding = std::move(bytes);
}

void AttributeList::adoptEncoding(std::string_view bytes) {
  // The marker and count fields lead, and the count is this list's.
  KS_ASSERT("AttributeList::adoptEncoding",
            bytes.size() >= kFrameBytes &&
                Utils::loadBigEndian(reinterpret_cast<const unsigned char*>(bytes.data()) + 6, 4) ==
                    size());
  if (m_body) {
    std::shared_ptr<const Body> held;
    own(held).encoding.assign(bytes);
  }
}

const std::string& AttributeList::getAttribute(const std::string& name) const {
  const auto iter = attrs().find(cut(name));
  return iter != attrs().end() ? iter->second : m_errorS;
}

AttributeList::const_iterator AttributeList::find(const std::string& name) const {
  return attrs().find(cut(name));
}

void AttributeList::testInvariant() const {
  for (auto iter = begin(); iter != end(); ++iter) {
    testEntry(iter);
  }
}

void AttributeList::testEntry(const_iterator iter) {
  KS_ASSERT("AttributeList::testInvariant", (iter->first).size() <= 4096);
  KS_ASSERT("AttributeList::testInvariant", (iter->second).size() <= 4096);
}

void AttributeList::display() const {
  KMS_TRACE_THIS("AttributeList::display");
  std::printf("\n%lu Attributes\n", static_cast<unsigned long>(size()));
  for (const auto& entry : *this) {
    std::printf("\tName : ");
    Utils::displayBuffer(entry.first, true, "", false);
    std::printf("\t             ");
    Utils::displayBuffer(entry.second, true, "", false);
  }
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
