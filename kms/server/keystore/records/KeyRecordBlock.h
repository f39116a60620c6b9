// A key record's fields as the key table's stream holds them, in one block:
//
//   "BS" marker field | tag | name | update time (8) | create time (8) |
//   description | revision (4) | group tag | state (2) | KPK type (2) |
//   KPK tag | key | SHA-256 digest field
//
// each field a 2-byte big-endian length and its content, the digest over
// the seed byte "Z" and the fields' contents. A table write copies the block
// as it stands, and a table read keeps the bytes it verified, so neither
// computes a digest for a record that has not changed.
//
// A block never changes once made: records share it by reference (copying a
// record copies no bytes) and any number of threads may read it. A change
// makes a new block. The bytes are wiped when the last record lets go of
// them, as they hold the key field.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include "kms/server/keystore/crypto/SecureBytes.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

class KeyRecordBlock {
 public:
  // The fields in stream order.
  enum Field : unsigned {
    kTag,
    kName,
    kUpdateTime,
    kCreateTime,
    kDescription,
    kRev,
    kKeyGroup,
    kState,
    kKpkType,
    kKpkTag,
    kKey,
    kFieldCount
  };
  using Fields = std::array<std::string_view, kFieldCount>;
  using Offsets = std::array<uint16_t, kFieldCount>;

  // The record marker, the digest's seed and the digest's length.
  static constexpr char kMarker[2] = {'B', 'S'};
  static constexpr unsigned char kDigestSeed = 'Z';
  static constexpr size_t kDigestLength = 32;
  // Width of an integer field; 0 for a byte string.
  static constexpr size_t width(Field field) {
    return field == kUpdateTime || field == kCreateTime ? 8
           : field == kRev                              ? 4
           : field == kState || field == kKpkType       ? 2
                                                        : 0;
  }

  // A block of the given contents with its digest. Every byte string has at
  // most 4096 bytes and every integer its width: anything else is a fault of
  // the caller and aborts the process. A failing digest library throws
  // KeyStoreError 1200.
  static std::shared_ptr<const KeyRecordBlock> make(const Fields& fields);
  // A block of `size` bytes read from a stream, marker to digest field, that
  // the reader has checked: the marker is "BS", the digest matches, and
  // `offsets` holds where each field's length begins.
  static std::shared_ptr<const KeyRecordBlock> adopt(const unsigned char* bytes, size_t size,
                                                     const Offsets& offsets);
  // The block of a record with empty strings and zero integers, shared by
  // every such record.
  static const std::shared_ptr<const KeyRecordBlock>& empty();

  // A field's content; a view into the block.
  std::string_view field(Field field) const {
    const unsigned char* length = m_bytes.data() + m_offsets[field];
    return std::string_view(reinterpret_cast<const char*>(length) + 2,
                            static_cast<size_t>(length[0]) << 8 | length[1]);
  }
  // An integer field's value.
  uint64_t integer(Field field) const;
  // A copy of this block with one field's content replaced (an integer in
  // its width, big-endian), under the same conditions as make().
  std::shared_ptr<const KeyRecordBlock> with(Field field, std::string_view content) const;
  std::shared_ptr<const KeyRecordBlock> with(Field field, uint64_t value) const;

  // The whole block, as it goes to the stream.
  const unsigned char* data() const { return m_bytes.data(); }
  size_t size() const { return m_bytes.size(); }

  KeyRecordBlock(SecureBytes bytes, const Offsets& offsets)
      : m_bytes(std::move(bytes)), m_offsets(offsets) {}

 private:
  SecureBytes m_bytes;
  Offsets m_offsets;
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
