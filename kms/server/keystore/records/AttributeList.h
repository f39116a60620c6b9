// Name-to-value list of extended attributes, ordered by the bytes of the name.
// Names and values are byte strings of at most 4096 bytes; longer ones are cut
// to their first 4096 bytes without a word, by every operation that takes them.
// No lock: the owner of the record or block that holds the list guards it.
#pragma once

#include <cstddef>
#include <map>
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

  AttributeList() = default;

  // Inserts the pair if the name is new (true); an existing name keeps its
  // value (false).
  bool addAttribute(std::string_view name, std::string_view value);
  // Replaces the value of an existing name (true); an absent name is not
  // inserted (false).
  bool updateAttribute(std::string name, std::string value);
  // True if an entry was removed.
  bool removeAttribute(const std::string& name);

  // The value, or a reference to one static empty string if the name is
  // absent. Use find() to tell an absent name from an empty value.
  const std::string& getAttribute(const std::string& name) const;
  const_iterator find(const std::string& name) const;

  size_t size() const { return m_attrs.size(); }
  const_iterator begin() const { return m_attrs.begin(); }
  const_iterator end() const { return m_attrs.end(); }

  // Size, then pair by pair in order.
  bool operator==(const AttributeList& other) const { return m_attrs == other.m_attrs; }
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
  // The invariant for one entry, with the texts of testInvariant.
  static void testEntry(const_iterator iter);

  static const std::string m_errorS;
  Map m_attrs;
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
