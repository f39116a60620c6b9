// The key tags of one group in the order of its list, packed one after the
// other into one buffer with the length of each beside it: a list of n tags
// of t bytes costs about n * (t + 2) bytes, where a vector of strings would
// cost a string and a heap block per tag.
//
// Tags are records' tags, so at most kMaxRecordFieldLength bytes each. They
// are shown as views into the buffer, valid until the next change of the
// list. The list is walked from the front; inserting or erasing moves the
// tags behind the place, as a vector would. A value type; no lock (its
// table's owner guards it).
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include "kms/server/keystore/records/RecordFields.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

class GroupTags {
 public:
  class const_iterator {
   public:
    typedef std::forward_iterator_tag iterator_category;
    typedef std::string_view value_type;
    typedef std::ptrdiff_t difference_type;
    typedef const std::string_view* pointer;
    typedef std::string_view reference;

    std::string_view operator*() const {
      return std::string_view(m_tags->m_bytes).substr(m_offset, m_tags->m_lengths[m_index]);
    }
    const_iterator& operator++() {
      m_offset += m_tags->m_lengths[m_index++];
      return *this;
    }
    bool operator==(const const_iterator& other) const { return m_index == other.m_index; }
    bool operator!=(const const_iterator& other) const { return m_index != other.m_index; }
    difference_type operator-(const const_iterator& other) const {
      return static_cast<difference_type>(m_index) - static_cast<difference_type>(other.m_index);
    }

   private:
    friend class GroupTags;
    const_iterator(const GroupTags* tags, size_t index, size_t offset)
        : m_tags(tags), m_index(index), m_offset(offset) {}
    const GroupTags* m_tags;
    size_t m_index;
    size_t m_offset;
  };

  size_t size() const { return m_lengths.size(); }
  bool empty() const { return m_lengths.empty(); }
  const_iterator begin() const { return const_iterator(this, 0, 0); }
  const_iterator end() const { return const_iterator(this, size(), m_bytes.size()); }
  // Of a list that is not empty.
  std::string_view front() const { return *begin(); }
  std::string_view back() const {
    return std::string_view(m_bytes).substr(m_bytes.size() - m_lengths.back());
  }

  // The place of `tag`, or end() if it is not listed.
  const_iterator find(std::string_view tag) const {
    const_iterator it = begin();
    while (it != end() && *it != tag) {
      ++it;
    }
    return it;
  }

  // Puts `tag` before `at`.
  void insert(const_iterator at, std::string_view tag) {
    static_assert(kMaxRecordFieldLength <= UINT16_MAX, "a tag's length fits its slot");
    m_bytes.insert(at.m_offset, tag);
    m_lengths.insert(m_lengths.begin() + static_cast<std::ptrdiff_t>(at.m_index),
                     static_cast<uint16_t>(tag.size()));
  }
  void push_back(std::string_view tag) { insert(end(), tag); }
  void erase(const_iterator at) {
    m_bytes.erase(at.m_offset, m_lengths[at.m_index]);
    m_lengths.erase(m_lengths.begin() + static_cast<std::ptrdiff_t>(at.m_index));
  }

  // The tags as strings of their own.
  std::vector<std::string> strings() const { return std::vector<std::string>(begin(), end()); }

 private:
  std::string m_bytes;
  std::vector<uint16_t> m_lengths;
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
