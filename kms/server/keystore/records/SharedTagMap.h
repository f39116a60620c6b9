// An ordered set of values keyed by their own tag (a byte string,
// `std::string_view V::tag() const`), whose copies share what neither of
// them has changed since the copy. The tag lives once, in the value: the
// set keeps no copy of it.
//
// The entries are spread over 256 shards by the first byte of the tag (the
// empty tag goes to the first), each shard a vector sorted by tag, so that
// walks and loads in tag order run through memory in order; walking the shards
// in order walks the entries in the order of the tags' bytes, as one set
// would. A copy copies the 256 shard pointers only. A change makes its shard
// private first: a table changes a shard in place only if it made that shard
// itself and has not been copied since; otherwise it copies that one shard.
// Tags are random, so a change of one entry copies about 1/256 of the map.
//
// Iterators show each entry as a pair (tag, value) of a view of the tag and
// a reference to the value, as a map's would. A value reached for a change
// must keep its tag. Values move when an entry enters or leaves their
// shard: references to values, like views of their tags, are valid until
// the next change of the map.
//
// Shards are never changed while another map can see them, so maps that
// share shards may be read from different threads at once while one of them
// changes (each map itself is guarded like a std::map: one writer or any
// number of readers). An iterator holds its shard, so it stays usable when
// its map makes that shard private (it then shows the entries as they were)
// and when an entry is changed in place; an insertion into or erasure from
// its shard invalidates it.
#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <bitset>
#include <cstddef>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Vaultrest {
namespace DL {
namespace KMS {

template <typename V>
class SharedTagMap {
 public:
  typedef std::vector<V> Shard;
  typedef std::pair<std::string_view, const V&> value_type;
  static constexpr size_t kShards = 256;
  typedef std::array<std::shared_ptr<Shard>, kShards> Shards;

  class const_iterator {
   public:
    typedef std::forward_iterator_tag iterator_category;
    typedef SharedTagMap::value_type value_type;
    typedef std::ptrdiff_t difference_type;
    typedef value_type reference;
    // What operator-> returns: the pair, kept alive for the expression.
    struct pointer {
      value_type entry;
      const value_type* operator->() const { return &entry; }
    };

    const_iterator() = default;
    reference operator*() const { return reference(m_it->tag(), *m_it); }
    pointer operator->() const { return pointer{**this}; }
    const_iterator& operator++() {
      if (++m_it == m_shard->end()) {
        settle(m_index + 1);
      }
      return *this;
    }
    const_iterator operator++(int) {
      const_iterator before = *this;
      ++*this;
      return before;
    }
    bool operator==(const const_iterator& other) const {
      return m_index == other.m_index && (m_index == kShards || m_it == other.m_it);
    }
    bool operator!=(const const_iterator& other) const { return !(*this == other); }

   private:
    friend class SharedTagMap;
    const_iterator(const Shards* shards, size_t index) : m_shards(shards) { settle(index); }
    const_iterator(const Shards* shards, size_t index, typename Shard::const_iterator it)
        : m_shards(shards), m_index(index), m_shard((*shards)[index]), m_it(it) {
      if (m_it == m_shard->end()) {
        settle(index + 1);
      }
    }
    // Moves to the first entry of the first non-empty shard from `index` on.
    void settle(size_t index) {
      for (m_index = index; m_index < kShards; ++m_index) {
        const std::shared_ptr<Shard>& shard = (*m_shards)[m_index];
        if (shard && !shard->empty()) {
          m_shard = shard;
          m_it = m_shard->cbegin();
          return;
        }
      }
      m_shard.reset();
      m_it = typename Shard::const_iterator();
    }

    const Shards* m_shards = nullptr;
    size_t m_index = kShards;
    std::shared_ptr<const Shard> m_shard;
    typename Shard::const_iterator m_it;
  };
  typedef const_iterator iterator;

  SharedTagMap() = default;
  SharedTagMap(const SharedTagMap& other) : m_shards(other.m_shards), m_size(other.m_size) {
    other.m_lent.store(true, std::memory_order_relaxed);
  }
  SharedTagMap& operator=(const SharedTagMap& other) {
    if (this != &other) {
      m_shards = other.m_shards;
      m_size = other.m_size;
      m_owned.reset();
      other.m_lent.store(true, std::memory_order_relaxed);
    }
    return *this;
  }
  SharedTagMap(SharedTagMap&& other) noexcept
      : m_shards(std::move(other.m_shards)),
        m_owned(other.m_owned),
        m_lent(other.m_lent.load(std::memory_order_relaxed)),
        m_size(other.m_size) {
    other.clear();
  }
  SharedTagMap& operator=(SharedTagMap&& other) noexcept {
    if (this != &other) {
      m_shards = std::move(other.m_shards);
      m_owned = other.m_owned;
      m_lent.store(other.m_lent.load(std::memory_order_relaxed), std::memory_order_relaxed);
      m_size = other.m_size;
      other.clear();
    }
    return *this;
  }

  const_iterator begin() const { return const_iterator(&m_shards, 0); }
  const_iterator end() const { return const_iterator(); }
  size_t size() const { return m_size; }

  const_iterator find(std::string_view tag) const {
    const size_t index = shardOf(tag);
    const size_t at = placeOf(index, tag);
    return at == kAbsent ? end() : const_iterator(&m_shards, index, m_shards[index]->begin() + at);
  }

  // The first entry whose tag is not less than `tag`.
  const_iterator lower_bound(std::string_view tag) const {
    const size_t index = shardOf(tag);
    const Shard* shard = m_shards[index].get();
    if (shard == nullptr) {
      return const_iterator(&m_shards, index + 1);
    }
    return const_iterator(&m_shards, index, position(*shard, tag));
  }

  // Inserts `value` if its tag is new and returns the stored value, valid
  // until the next change of the map; null, and neither the entry nor
  // `value` touched, if the tag is taken. A tag above all others of its
  // shard (as when a table is loaded in order) goes behind them without a
  // search.
  V* emplace(V&& value) {
    // A view into `value`: not used once `value` has moved.
    const std::string_view tag = value.tag();
    const size_t index = shardOf(tag);
    const Shard* shard = m_shards[index].get();
    const bool last = shard == nullptr || shard->empty() || shard->back().tag() < tag;
    const size_t at = last ? (shard == nullptr ? 0 : shard->size())
                           : static_cast<size_t>(position(*shard, tag) - shard->begin());
    // Not last: a tag not less than `tag` stands at `at`.
    if (!last && (*shard)[at].tag() == tag) {
      return nullptr;
    }
    Shard& writable = writableShard(index);
    V* stored =
        &*writable.insert(writable.begin() + static_cast<std::ptrdiff_t>(at), std::move(value));
    ++m_size;
    return stored;
  }

  // The entry's value, made private to this map for a change; null if the
  // tag is absent. Valid until the next change of the map.
  V* findForChange(std::string_view tag) {
    const size_t index = shardOf(tag);
    const size_t at = placeOf(index, tag);
    return at == kAbsent ? nullptr : &writableShard(index)[at];
  }

  // True if an entry was erased.
  bool erase(std::string_view tag) {
    const size_t index = shardOf(tag);
    const size_t at = placeOf(index, tag);
    if (at == kAbsent) {
      return false;
    }
    Shard& writable = writableShard(index);
    writable.erase(writable.begin() + static_cast<std::ptrdiff_t>(at));
    --m_size;
    return true;
  }

  // Calls `change(tag, value&)` for every entry in tag order, each made
  // private to this map first. `change` must not touch the map.
  template <typename Change>
  void changeEach(Change&& change) {
    for (size_t index = 0; index < kShards; ++index) {
      if (m_shards[index] && !m_shards[index]->empty()) {
        Shard& writable = writableShard(index);
        for (V& value : writable) {
          change(value.tag(), value);
        }
      }
    }
  }

  void clear() {
    m_shards = Shards();
    m_owned.reset();
    m_lent.store(false, std::memory_order_relaxed);
    m_size = 0;
  }

 private:
  // The first value of the shard whose tag is not less than `tag`.
  static typename Shard::const_iterator position(const Shard& shard, std::string_view tag) {
    return std::lower_bound(shard.begin(), shard.end(), tag,
                            [](const V& value, std::string_view t) { return value.tag() < t; });
  }

  static size_t shardOf(std::string_view tag) {
    return tag.empty() ? 0 : static_cast<unsigned char>(tag[0]);
  }

  static constexpr size_t kAbsent = static_cast<size_t>(-1);
  // The place of `tag` in shard `index`, or kAbsent.
  size_t placeOf(size_t index, std::string_view tag) const {
    const Shard* shard = m_shards[index].get();
    if (shard == nullptr) {
      return kAbsent;
    }
    const auto it = position(*shard, tag);
    return it != shard->end() && it->tag() == tag ? static_cast<size_t>(it - shard->begin())
                                                  : kAbsent;
  }

  // The shard, copied first unless this map made it and has not been copied
  // since.
  Shard& writableShard(size_t index) {
    if (m_lent.exchange(false, std::memory_order_relaxed)) {
      m_owned.reset();
    }
    if (!m_owned[index]) {
      auto copy = std::make_shared<Shard>();
      if (m_shards[index]) {
        // Room for the entry that a change most often adds.
        copy->reserve(m_shards[index]->size() + 1);
        copy->assign(m_shards[index]->begin(), m_shards[index]->end());
      }
      m_shards[index] = std::move(copy);
      m_owned.set(index);
    }
    return *m_shards[index];
  }

  Shards m_shards;
  // Shards that only this map can see.
  std::bitset<kShards> m_owned;
  // Set when the map is copied: every shard is shared from then on.
  mutable std::atomic<bool> m_lent{false};
  size_t m_size = 0;
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
