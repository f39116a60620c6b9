#include "kms/server/keystore/records/KeyRecordBlock.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <cstring>
#include <new>
#include <optional>

#include "kms/platform/HashGenerator.h"
#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/Raise.h"
#include "kms/server/diagnostics/StatusCodes.h"
#include "kms/server/keystore/format/BigEndian.h"
#include "kms/server/keystore/records/RecordFields.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

namespace {

const char* const kLabel = "KeyRecordBlock::make";

// The digest over the seed and the contents, into `out`. One context per
// thread, restarted for every block.
void digestInto(const KeyRecordBlock::Fields& fields, unsigned char* out) {
  try {
    thread_local std::optional<CmnCrypto::HashGenerator> hash;
    if (hash) {
      hash->restart();
    } else {
      hash.emplace(CmnCrypto::HASH_SHA256);
    }
    hash->addData(&KeyRecordBlock::kDigestSeed, 1);
    for (std::string_view content : fields) {
      hash->addData(content.data(), content.size());
    }
    KS_ASSERT(kLabel, hash->generateBinaryHash(out) == KeyRecordBlock::kDigestLength);
  } catch (const CmnCrypto::CmnException& e) {
    KMS_DEBUG(kLabel, 1, "Digest failed: " << e.what());
    KS_THROW(EC_KS_internal_error, kLabel);
  }
}

unsigned char* putField(unsigned char* out, const void* content, size_t size) {
  Utils::storeBigEndian(out, size, 2);
  if (size != 0) {
    std::memcpy(out + 2, content, size);
  }
  return out + 2 + size;
}

}  // namespace

KeyRecordBlock::Ref KeyRecordBlock::make(const Fields& fields) {
  Offsets offsets;
  size_t at = 2 + sizeof kMarker;
  for (unsigned f = 0; f < kFieldCount; ++f) {
    const size_t fixed = width(static_cast<Field>(f));
    KS_ASSERT(kLabel,
              fixed == 0 ? fields[f].size() <= kMaxRecordFieldLength : fields[f].size() == fixed);
    offsets[f] = static_cast<uint16_t>(at);
    at += 2 + fields[f].size();
  }
  const size_t size = at + 2 + kDigestLength;
  unsigned char digest[EVP_MAX_MD_SIZE];
  digestInto(fields, digest);
  KeyRecordBlock* block = allocate(size, offsets);
  unsigned char* out = putField(block->bytes(), kMarker, sizeof kMarker);
  for (unsigned f = 0; f < kFieldCount; ++f) {
    out = putField(out, fields[f].data(), fields[f].size());
  }
  putField(out, digest, kDigestLength);
  return Ref(block);
}

KeyRecordBlock::Ref KeyRecordBlock::adopt(const unsigned char* bytes, size_t size,
                                          const Offsets& offsets) {
  KeyRecordBlock* block = allocate(size, offsets);
  std::memcpy(block->bytes(), bytes, size);
  return Ref(block);
}

KeyRecordBlock* KeyRecordBlock::allocate(size_t size, const Offsets& offsets) {
  return new (::operator new(sizeof(KeyRecordBlock) + size)) KeyRecordBlock(size, offsets);
}

void KeyRecordBlock::release() {
  if (m_refs.fetch_sub(1, std::memory_order_acq_rel) == 1) {
    OPENSSL_cleanse(bytes(), m_size);
    this->~KeyRecordBlock();
    ::operator delete(this);
  }
}

// Kept to the end of the process (never destroyed), so that a record moved
// from during the exit still finds it.
const KeyRecordBlock::Ref& KeyRecordBlock::empty() {
  static const Ref& block = *new Ref([] {
    static const char kZeros[8] = {0};
    Fields fields;
    for (unsigned f = 0; f < kFieldCount; ++f) {
      fields[f] = std::string_view(kZeros, width(static_cast<Field>(f)));
    }
    return make(fields);
  }());
  return block;
}

uint64_t KeyRecordBlock::integer(Field field) const {
  const std::string_view content = this->field(field);
  return Utils::loadBigEndian(reinterpret_cast<const unsigned char*>(content.data()),
                              content.size());
}

KeyRecordBlock::Ref KeyRecordBlock::with(Field field, std::string_view content) const {
  Fields fields;
  for (unsigned f = 0; f < kFieldCount; ++f) {
    fields[f] = this->field(static_cast<Field>(f));
  }
  fields[field] = content;
  return make(fields);
}

KeyRecordBlock::Ref KeyRecordBlock::with(Field field, uint64_t value) const {
  return with(field, Integer(field, value).view());
}

KeyRecordBlock::Integer::Integer(Field field, uint64_t value) : m_width(width(field)) {
  KS_ASSERT(kLabel, m_width != 0);
  Utils::storeBigEndian(m_bytes, value, m_width);
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
