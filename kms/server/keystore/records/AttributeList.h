// Name-to-value list of extended attributes, ordered by the bytes of the name.
// Names and values are byte strings of at most 4096 bytes; longer ones are cut
// to their first 4096 bytes without a word, by every operation that takes them.
//
// A list is a handle on an immutable body: the entries and, once known, the
// list's exact bytes on a stream (see encoding()). Copying a list copies the
// handle, so copies share the body and cost no allocation; the empty list
// has no body at all. Every change makes the body this list's own first (a
// copy if another list holds it) and drops the kept bytes, so a list never
// keeps bytes other than those encode() would make of its entries now: a
// write can never put out a list as it was before a change.
//
// Threads: a body never changes while more than one list holds it, so any
// number of threads may read lists that share one, and may copy and drop
// their own lists at any time. One list object is guarded like any value:
// no lock; the owner of the record or block that holds it guards it.
// Iterators, and the references getAttribute returns, are valid while the
// list lives and is not changed.
#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <string_view>

namespace Vaultrest {
namespace DL {
namespace KMS {

class AttributeList {
 public:
  typedef std::map<std::string, std::string, std::less<>> Map;
  typedef Map::const_iterator const_iterator;

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

  // Inserts the pair if the name is new (true); an existing name keeps its
  // value (false).
  bool addAttribute(std::string_view name, std::string_view value);
  // Replaces the value of an existing name (true); an absent name is not
  // inserted (false).
  bool updateAttribute(std::string name, std::string value);
  // True if an entry was removed.
  bool removeAttribute(const std::string& name);
  // Overwrites the value of `name` where this list alone holds it, kept
  // bytes included, and leaves it empty; false if the name is absent. A
  // body shared with other lists is left to them (whoever drops it last
  // wipes it, if it asks to): this list gets a body of its own whose value
  // is empty, never a copy of the bytes. For lists that carry a key.
  bool wipeValue(const std::string& name);

  // The list's bytes on a stream as kept with it, or an empty view if none
  // are kept; the empty list's are one set of bytes shared by all. Valid
  // while the list lives and is not changed.
  std::string_view encoding() const;
  // Makes the list's bytes on a stream into `out`; what it held is
  // replaced, and wiped if it must grow. A failing digest library throws
  // KeyStoreError 1200.
  void encode(std::string& out) const;
  // The number of bytes that encoding() holds or encode() makes.
  size_t encodedSize() const;
  // Starts loading the body, for a walk over many records' lists.
  void prefetch() const { __builtin_prefetch(m_body.get()); }
  // Keeps the list's bytes with it, made by encode() unless some are kept,
  // so that every later write copies them as they stand. A body that other
  // lists hold is not changed: this list gets one of its own. Throws as
  // encode(), leaving the list as it was.
  void keepEncoding();
  // Keeps `bytes` as the list's bytes on a stream: the bytes a reader made
  // this list of, having checked the marker "BB", the count, each entry (in
  // name order, each new) and the SHA-256 digest. A count that is not the
  // list's aborts the process (message 89).
  void adoptEncoding(std::string_view bytes);

  // The value, or a reference to one static empty string if the name is
  // absent. Use find() to tell an absent name from an empty value.
  const std::string& getAttribute(const std::string& name) const;
  const_iterator find(const std::string& name) const;

  size_t size() const { return attrs().size(); }
  const_iterator begin() const { return attrs().begin(); }
  const_iterator end() const { return attrs().end(); }

  // Size, then pair by pair in order.
  bool operator==(const AttributeList& other) const {
    return m_body == other.m_body || attrs() == other.attrs();
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
  // The changes above check the one entry they touch, which keeps this true
  // of the whole list: a list of n entries is built in O(n log n), and read
  // from a file in O(n).
  void testInvariant() const;
  // Console dump of all entries.
  void display() const;

 private:
  // The entries and, if kept, the bytes on a stream (else empty). Changed
  // only through own(), by the one list that holds it.
  struct Body {
    Body() = default;
    explicit Body(const Map& from) : attrs(from) {}
    Body(const Body&) = delete;
    Body& operator=(const Body&) = delete;
    ~Body();  // wipes the kept bytes

    Map attrs;
    std::string encoding;
  };

  const Map& attrs() const { return m_body ? m_body->attrs : emptyMap(); }
  // The entries of a list without a body; made at its first use, so that
  // lists made while statics are initialized find it.
  static const Map& emptyMap();
  // The body to change: made, or copied from the shared one, which `held`
  // then keeps alive for the caller (its arguments may point into it). The
  // kept bytes are wiped and dropped.
  Body& own(std::shared_ptr<const Body>& held);

  // The invariant for one entry, with the texts of testInvariant.
  static void testEntry(const_iterator iter);

  static const std::string m_errorS;
  // Null for the empty list.
  std::shared_ptr<const Body> m_body;
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
