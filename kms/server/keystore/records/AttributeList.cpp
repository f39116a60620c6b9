#include "kms/server/keystore/records/AttributeList.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <new>
#include <string_view>
#include <vector>

#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/Raise.h"
#include "kms/server/diagnostics/StatusCodes.h"
#include "kms/server/keystore/format/BigEndian.h"
#include "kms/server/keystore/records/FieldDigest.h"
#include "kms/server/keystore/records/KeyRecordBlock.h"
#include "kms/server/keystore/records/RecordFields.h"
#include "kms/server/keystore/records/RecordUtils.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

namespace {

// A list's digest is a key record's: the same seed and SHA-256.
constexpr size_t kDigestLength = KeyRecordBlock::kDigestLength;
// Marker, count and digest fields, each with its 2-byte length.
constexpr size_t kFrameBytes = 2 + 2 + 2 + 4 + 2 + kDigestLength;
// Where the first entry's field starts.
constexpr size_t kEntriesStart = 2 + 2 + 2 + 4;

std::string_view cut(std::string_view text) {
  return text.substr(0, AttributeList::kMaxLength);
}

size_t encodedBytes(const std::vector<AttributeList::value_type>& entries) {
  size_t bytes = kFrameBytes;
  for (const auto& entry : entries) {
    bytes += 2 + entry.first.size() + 2 + entry.second.size();
  }
  return bytes;
}

// Writes the bytes of `entries` to `out` (encodedBytes of them), and the
// offset of each name's content to `names` if given.
void writeEncoding(const std::vector<AttributeList::value_type>& entries, unsigned char* out,
                   uint32_t* names) {
  static const char* const kLabel = "AttributeList::encode";
  unsigned char* const start = out;
  unsigned char* at = putField(out, AttributeList::kMarker, sizeof AttributeList::kMarker);
  unsigned char count[4];
  Utils::storeBigEndian(count, entries.size(), sizeof count);
  at = putField(at, count, sizeof count);
  FieldDigest digester(kLabel);
  for (const auto& entry : entries) {
    if (names) {
      *names++ = static_cast<uint32_t>(at + 2 - start);
    }
    at = putField(at, entry.first.data(), entry.first.size());
    at = putField(at, entry.second.data(), entry.second.size());
    digester.add(entry.first);
    digester.add(entry.second);
  }
  unsigned char digest[kDigestLength];
  digester.finish(digest);
  putField(at, digest, kDigestLength);
}

bool byName(const AttributeList::value_type& a, const AttributeList::value_type& b) {
  return a.first < b.first;
}

}  // namespace

void AttributeList::release(Body* body) noexcept {
  if (body && body->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) {
    OPENSSL_cleanse(body->bytes(), body->size);
    body->~Body();
    ::operator delete(body);
  }
}

AttributeList::Body* AttributeList::allocate(size_t count, size_t size) {
  static_assert(alignof(Entry) <= alignof(Body) && sizeof(Body) % alignof(Entry) == 0,
                "entries follow the header");
  void* memory = ::operator new(sizeof(Body) + count * sizeof(Entry) + size);
  Body* body = new (memory) Body;
  body->refs.store(1, std::memory_order_relaxed);
  body->count = static_cast<uint32_t>(count);
  body->size = static_cast<uint32_t>(size);
  return body;
}

AttributeList::Body* AttributeList::build(const std::vector<value_type>& entries) {
  if (entries.empty()) {
    return nullptr;
  }
  const size_t size = encodedBytes(entries);
  KS_ASSERT("AttributeList::testInvariant", size <= UINT32_MAX);
  Body* body = allocate(entries.size(), size);
  std::vector<uint32_t> names(entries.size());
  try {
    writeEncoding(entries, reinterpret_cast<unsigned char*>(body->bytes()), names.data());
  } catch (...) {
    release(body);
    throw;
  }
  Entry* index = body->entries();
  for (size_t i = 0; i < entries.size(); ++i) {
    KS_ASSERT("AttributeList::testInvariant",
              entries[i].first.size() <= kMaxLength && entries[i].second.size() <= kMaxLength);
    index[i] = Entry{names[i], static_cast<uint16_t>(entries[i].first.size()),
                     static_cast<uint16_t>(entries[i].second.size())};
  }
  return body;
}

void AttributeList::rebuild(const std::vector<value_type>& entries) {
  Body* made = build(entries);
  std::swap(m_body, made);
  release(made);
}

std::vector<AttributeList::value_type> AttributeList::views() const {
  std::vector<value_type> entries;
  entries.reserve(size() + 1);
  entries.assign(begin(), end());
  return entries;
}

size_t AttributeList::indexOf(std::string_view name) const {
  if (!m_body) {
    return 0;
  }
  const std::string_view key = cut(name);
  const char* const bytes = m_body->bytes();
  const Entry* const first = m_body->entries();
  const Entry* const last = first + m_body->count;
  const Entry* found =
      std::lower_bound(first, last, key, [bytes](const Entry& e, std::string_view k) {
        return std::string_view(bytes + e.name, e.nameLength) < k;
      });
  if (found != last && std::string_view(bytes + found->name, found->nameLength) == key) {
    return static_cast<size_t>(found - first);
  }
  return m_body->count;
}

bool AttributeList::addAttribute(std::string_view name, std::string_view value) {
  KMS_TRACE_THIS("AttributeList::addAttribute");
  const std::string_view key = cut(name);
  std::vector<value_type> entries = views();
  const auto at = std::lower_bound(entries.begin(), entries.end(), value_type(key, {}), byName);
  if (at != entries.end() && at->first == key) {
    return false;
  }
  entries.emplace(at, key, cut(value));
  rebuild(entries);
  return true;
}

bool AttributeList::updateAttribute(std::string_view name, std::string_view value) {
  KMS_TRACE_THIS("AttributeList::updateAttribute");
  const size_t at = indexOf(name);
  if (at == size()) {
    return false;
  }
  std::vector<value_type> entries = views();
  entries[at].second = cut(value);
  rebuild(entries);
  return true;
}

bool AttributeList::removeAttribute(std::string_view name) {
  KMS_TRACE_THIS("AttributeList::removeAttribute");
  const size_t at = indexOf(name);
  if (at == size()) {
    return false;
  }
  std::vector<value_type> entries = views();
  entries.erase(entries.begin() + static_cast<std::ptrdiff_t>(at));
  rebuild(entries);
  return true;
}

bool AttributeList::assignEntries(std::vector<value_type>& entries) {
  for (auto& entry : entries) {
    entry.first = cut(entry.first);
    entry.second = cut(entry.second);
  }
  std::sort(entries.begin(), entries.end(), byName);
  for (size_t i = 1; i < entries.size(); ++i) {
    if (entries[i - 1].first == entries[i].first) {
      return false;
    }
  }
  rebuild(entries);
  return true;
}

std::string_view AttributeList::encoding() const {
  if (m_body) {
    return std::string_view(m_body->bytes(), m_body->size);
  }
  // Most records have no attributes: their bytes are made once, and kept
  // to the end of the process.
  static const std::string* const empty = [] {
    auto* bytes = new std::string(kFrameBytes, '\0');
    writeEncoding({}, reinterpret_cast<unsigned char*>(&(*bytes)[0]), nullptr);
    return bytes;
  }();
  return *empty;
}

size_t AttributeList::encodedSize() const {
  return m_body ? m_body->size : kFrameBytes;
}

void AttributeList::adoptEncoding(std::string_view bytes, const std::vector<value_type>& entries) {
  static const char* const kLabel = "AttributeList::adoptEncoding";
  KS_ASSERT(kLabel, !m_body && bytes.size() == encodedBytes(entries) && bytes.size() <= UINT32_MAX);
  if (entries.empty()) {
    return;
  }
  // Each name's field follows the one before it, and its value's field
  // follows the name.
  size_t at = kEntriesStart;
  for (const auto& entry : entries) {
    KS_ASSERT(kLabel, entry.first.data() == bytes.data() + at + 2 &&
                          entry.second.data() == entry.first.data() + entry.first.size() + 2 &&
                          entry.first.size() <= kMaxLength && entry.second.size() <= kMaxLength);
    at += 2 + entry.first.size() + 2 + entry.second.size();
  }
  Body* body = allocate(entries.size(), bytes.size());
  std::memcpy(body->bytes(), bytes.data(), bytes.size());
  Entry* index = body->entries();
  for (size_t i = 0; i < entries.size(); ++i) {
    index[i] = Entry{static_cast<uint32_t>(entries[i].first.data() - bytes.data()),
                     static_cast<uint16_t>(entries[i].first.size()),
                     static_cast<uint16_t>(entries[i].second.size())};
  }
  m_body = body;
}

std::string_view AttributeList::getAttribute(std::string_view name) const {
  const size_t at = indexOf(name);
  return at != size() ? pairAt(m_body->bytes(), m_body->entries()[at]).second : std::string_view();
}

AttributeList::const_iterator AttributeList::find(std::string_view name) const {
  const size_t at = indexOf(name);
  return at != size() ? const_iterator(m_body->bytes(), m_body->entries() + at) : end();
}

void AttributeList::testInvariant() const {
  for (const auto& entry : *this) {
    KS_ASSERT("AttributeList::testInvariant", entry.first.size() <= kMaxLength);
    KS_ASSERT("AttributeList::testInvariant", entry.second.size() <= kMaxLength);
  }
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
