// Name-to-value list of extended attributes, ordered by the bytes of the name.
// Names and values are byte strings of at most 4096 bytes; longer ones are cut
// to their first 4096 bytes without a word, by every operation that takes them.
//
// A list is a handle on an immutable body: one allocation holding a reference
// count, an index of the entries in name order, and the list's exact bytes on
// a stream (see encoding()), which are the one copy of the names and values.
// Copying a list copies the handle, so copies share the body and cost no
// allocation; the empty list has no body at all. Every change builds a new
// body (the entries, the change, the bytes with their digest) and lets go of
// the old one; so a change costs O(n) in the list's bytes, fine for the small
// lists callers build, and a reader builds a long list at once
// (adoptEncoding, assignEntries). A body's bytes are wiped when the last list
// holding it lets go.
//
// Threads: a body never changes once built, so any number of threads may
// read lists that share one, and may copy and drop their own lists at any
// time (the count is atomic). One list object is guarded like any value:
// no lock; the owner of the record or block that holds it guards it.
// Iterators, and the views that iterators, getAttribute and encoding() give,
// are valid while the list lives and is not changed (or while a copy of it
// lives unchanged).
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Vaultrest {
namespace DL {
namespace KMS {

class AttributeList {
 private:
  struct Entry;

 public:
  typedef std::pair<std::string_view, std::string_view> value_type;

  // Yields (name, value) pairs of views into the list's bytes, in name order.
  class const_iterator {
   public:
    typedef std::input_iterator_tag iterator_category;
    typedef AttributeList::value_type value_type;
    typedef std::ptrdiff_t difference_type;
    typedef value_type reference;
    struct pointer {
      value_type pair;
      const value_type* operator->() const { return &pair; }
    };

    const_iterator() = default;
    value_type operator*() const;
    pointer operator->() const { return {**this}; }
    const_iterator& operator++() {
      ++m_at;
      return *this;
    }
    const_iterator operator++(int) {
      const_iterator was = *this;
      ++m_at;
      return was;
    }
    bool operator==(const const_iterator& other) const { return m_at == other.m_at; }
    bool operator!=(const const_iterator& other) const { return m_at != other.m_at; }

   private:
    friend class AttributeList;
    const_iterator(const char* bytes, const Entry* at) : m_bytes(bytes), m_at(at) {}
    const char* m_bytes = nullptr;
    const Entry* m_at = nullptr;
  };

  static constexpr size_t kMaxLength = 4096;

  // Bounds of the extended attributes a caller may give a key or group record
  // (the list itself, which also carries the store's file metadata, has
  // none): 64 entries, and 64 KiB of names and values together. Real records
  // carry a handful of short attributes, and the store adds a few of its
  // own on top; the bounds keep one caller from making every commit, which
  // rewrites all records, carry megabytes.
  static constexpr size_t kMaxRecordAttributes = 64;
  static constexpr size_t kMaxRecordAttributeBytes = 64 * 1024;

  // The list's marker on a stream. The whole form, each part a field of a
  // 2-byte big-endian length and its content (format/ReaderWriter.h):
  //   "BB" | count (4) | name, value ... in name order | SHA-256 digest
  // the digest over the seed byte "Z" and the names' and values' contents.
  static constexpr char kMarker[2] = {'B', 'B'};

  AttributeList() = default;
  AttributeList(const AttributeList& other) noexcept : m_body(other.m_body) { retain(m_body); }
  AttributeList(AttributeList&& other) noexcept : m_body(other.m_body) { other.m_body = nullptr; }
  AttributeList& operator=(AttributeList other) noexcept {
    std::swap(m_body, other.m_body);
    return *this;
  }
  ~AttributeList() { release(m_body); }

  // Inserts the pair if the name is new (true); an existing name keeps its
  // value (false).
  bool addAttribute(std::string_view name, std::string_view value);
  // Replaces the value of an existing name (true); an absent name is not
  // inserted (false).
  bool updateAttribute(std::string_view name, std::string_view value);
  // True if an entry was removed.
  bool removeAttribute(std::string_view name);
  // Makes the list of `entries`, in any order (sorted here), in place of
  // what it held: O(n log n) for n entries. A name given twice leaves the
  // list as it was (false). Each change above, and this, throw
  // KeyStoreError 1200 where the digest library fails, leaving the list as
  // it was.
  bool assignEntries(std::vector<value_type>& entries);

  // The list's bytes on a stream; the empty list's are one set of bytes
  // shared by all. Valid while the list lives and is not changed.
  std::string_view encoding() const;
  // The number of bytes of encoding().
  size_t encodedSize() const;
  // Starts loading the body, for a walk over many records' lists.
  void prefetch() const { __builtin_prefetch(m_body); }
  // Makes the list, which must be empty, of `bytes`: the bytes a reader
  // has checked (the marker "BB", the count, each entry of at most 4096
  // bytes, the names strictly increasing, and the SHA-256 digest), kept as
  // they are, in O(n). `entries` are the reader's views of the names and
  // values inside `bytes`, in order; entries that are not the fields of
  // `bytes`, or a list that is not empty, abort the process (message 89).
  void adoptEncoding(std::string_view bytes, const std::vector<value_type>& entries);

  // The value, or an empty view if the name is absent. Use find() to tell
  // an absent name from an empty value.
  std::string_view getAttribute(std::string_view name) const;
  const_iterator find(std::string_view name) const;

  size_t size() const { return m_body ? m_body->count : 0; }
  const_iterator begin() const;
  const_iterator end() const;

  // The same pairs in the same order: the same bytes.
  bool operator==(const AttributeList& other) const {
    return m_body == other.m_body || encoding() == other.encoding();
  }
  bool operator!=(const AttributeList& other) const { return !(*this == other); }

  // Whether the list keeps within the two bounds of a record's attributes.
  bool withinRecordBounds() const {
    size_t bytes = 0;
    for (const auto& entry : *this) {
      bytes += entry.first.size() + entry.second.size();
    }
    return size() <= kMaxRecordAttributes && bytes <= kMaxRecordAttributeBytes;
  }

  // Aborts the process (message 89) if a name or value exceeds 4096 bytes.
  // Every body is built of cut entries or of checked bytes, which keeps this
  // true of the whole list.
  void testInvariant() const;
  // Console dump of all entries.
  void display() const;

 private:
  // One entry of the index: where its name's content starts in the bytes,
  // and the lengths of its name and value; the value's field follows the
  // name's.
  struct Entry {
    uint32_t name;
    uint16_t nameLength;
    uint16_t valueLength;
  };
  // Laid out in one allocation as the header, `count` entries in name
  // order, then `size` bytes of the list's encoding.
  struct Body {
    std::atomic<uint32_t> refs;
    uint32_t count;
    uint32_t size;

    const Entry* entries() const { return reinterpret_cast<const Entry*>(this + 1); }
    Entry* entries() { return reinterpret_cast<Entry*>(this + 1); }
    const char* bytes() const { return reinterpret_cast<const char*>(entries() + count); }
    char* bytes() { return reinterpret_cast<char*>(entries() + count); }
  };

  static void retain(Body* body) noexcept {
    if (body) {
      body->refs.fetch_add(1, std::memory_order_relaxed);
    }
  }
  // Drops one hold on `body`; the last one wipes its bytes and frees it.
  static void release(Body* body) noexcept;
  // A body of `count` entries and `size` bytes, held once.
  static Body* allocate(size_t count, size_t size);
  // A body of `entries` (in name order, each new, each cut) with their
  // bytes and digest; null for none. Throws 1200 as the changes.
  static Body* build(const std::vector<value_type>& entries);
  // Makes this list's body of `entries`, then lets go of the old one
  // (which the views in `entries` may point into).
  void rebuild(const std::vector<value_type>& entries);
  // The entries as views into this list's bytes.
  std::vector<value_type> views() const;
  // The index of the entry named `name` (cut), or size() if absent.
  size_t indexOf(std::string_view name) const;

  static value_type pairAt(const char* bytes, const Entry& entry) {
    return {std::string_view(bytes + entry.name, entry.nameLength),
            std::string_view(bytes + entry.name + entry.nameLength + 2, entry.valueLength)};
  }

  // Null for the empty list. Never changed while another list holds it.
  Body* m_body = nullptr;
};

inline AttributeList::value_type AttributeList::const_iterator::operator*() const {
  return pairAt(m_bytes, *m_at);
}

inline AttributeList::const_iterator AttributeList::begin() const {
  return m_body ? const_iterator(m_body->bytes(), m_body->entries()) : const_iterator();
}

inline AttributeList::const_iterator AttributeList::end() const {
  return m_body ? const_iterator(m_body->bytes(), m_body->entries() + m_body->count)
                : const_iterator();
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
