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
// A block never changes once made: records share it by a counted reference
// (copying a record copies no bytes) and any number of threads may read it.
// A change makes a new block. The counts, the field offsets and the bytes lie
// in one allocation, so a record reaches its fields in one step; a table of
// many records is walked and searched at the speed of that step. The bytes
// are wiped when the last reference goes, as they hold the key field.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <utility>

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

  // A counted reference to a block; never null once made by one of the
  // functions below. Copies share the block; the last one to go wipes and
  // frees it. Safe to copy and destroy from any thread.
  class Ref {
   public:
    // No move: a moved-from reference would be null.
    Ref(const Ref& other) noexcept : m_block(other.m_block) { m_block->hold(); }
    Ref& operator=(const Ref& other) noexcept {
      Ref copy(other);
      std::swap(m_block, copy.m_block);
      return *this;
    }
    ~Ref() { m_block->release(); }
    const KeyRecordBlock& operator*() const { return *m_block; }
    const KeyRecordBlock* operator->() const { return m_block; }

   private:
    friend class KeyRecordBlock;
    explicit Ref(KeyRecordBlock* block) : m_block(block) {}
    KeyRecordBlock* m_block;
  };

  // An integer field's content: `value` big-endian in the field's width.
  class Integer {
   public:
    Integer(Field field, uint64_t value);
    std::string_view view() const {
      return std::string_view(reinterpret_cast<const char*>(m_bytes), m_width);
    }

   private:
    unsigned char m_bytes[8];
    size_t m_width;
  };

  // A block of the given contents with its digest. Every byte string has at
  // most 4096 bytes and every integer its width: anything else is a fault of
  // the caller and aborts the process. A failing digest library throws
  // KeyStoreError 1200.
  static Ref make(const Fields& fields);
  // A block of `size` bytes read from a stream, marker to digest field, that
  // the reader has checked: the marker is "BS", the digest matches, and
  // `offsets` holds where each field's length begins.
  static Ref adopt(const unsigned char* bytes, size_t size, const Offsets& offsets);
  // The block of a record with empty strings and zero integers, shared by
  // every such record.
  static const Ref& empty();

  // A field's content; a view into the block.
  std::string_view field(Field field) const {
    const unsigned char* length = data() + m_offsets[field];
    return std::string_view(reinterpret_cast<const char*>(length) + 2,
                            static_cast<size_t>(length[0]) << 8 | length[1]);
  }
  // An integer field's value.
  uint64_t integer(Field field) const;
  // A copy of this block with one field's content replaced (an integer in
  // its width, big-endian), under the same conditions as make().
  Ref with(Field field, std::string_view content) const;
  Ref with(Field field, uint64_t value) const;

  // The whole block, as it goes to the stream: it follows the header.
  const unsigned char* data() const { return reinterpret_cast<const unsigned char*>(this + 1); }
  size_t size() const { return m_size; }

  KeyRecordBlock(const KeyRecordBlock&) = delete;
  KeyRecordBlock& operator=(const KeyRecordBlock&) = delete;

 private:
  KeyRecordBlock(size_t size, const Offsets& offsets)
      : m_size(static_cast<uint32_t>(size)), m_offsets(offsets) {}
  // A block of `size` bytes, not yet written, with one reference.
  static KeyRecordBlock* allocate(size_t size, const Offsets& offsets);
  unsigned char* bytes() { return reinterpret_cast<unsigned char*>(this + 1); }
  void hold() { m_refs.fetch_add(1, std::memory_order_relaxed); }
  void release();

  std::atomic<uint32_t> m_refs{1};
  uint32_t m_size;
  Offsets m_offsets;
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
