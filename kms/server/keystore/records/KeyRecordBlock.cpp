#include "kms/server/keystore/records/KeyRecordBlock.h"

#include <openssl/crypto.h>

#include <cstring>
#include <new>

#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/Raise.h"
#include "kms/server/diagnostics/StatusCodes.h"
#include "kms/server/keystore/format/BigEndian.h"
#include "kms/server/keystore/records/FieldDigest.h"
#include "kms/server/keystore/records/RecordFields.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

namespace {

const char* const kLabel = "KeyRecordBlock::make";

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
  unsigned char digest[kDigestLength];
  FieldDigest digester(kLabel);
  for (std::string_view content : fields) {
    digester.add(content);
  }
  digester.finish(digest);
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
