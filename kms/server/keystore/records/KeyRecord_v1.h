// The in-store record of one key: a plain value (copyable, comparable). In
// the store's tables the key field holds the wrapped key; copies that leave
// the store hold the plain key or nothing.
//
// Limits: tag, key group, KPK tag and key are at most 4096 bytes and their
// setters throw KeyStoreError 1214 for a longer value, leaving the field as it
// was; name and description are cut to 4096 bytes without an error. The
// enumeration setters refuse values outside the enumeration with 1214 (the
// zero values are accepted here; the store refuses them). Every setter ends
// with testInvariant, whose failure aborts the process. The key bytes are
// wiped when a record lets go of them.
#pragma once

#include <openssl/crypto.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include "kms/server/keystore/records/AttributeList.h"
#include "kms/server/keystore/records/SharedRecordFields.h"
#include "kms/server/keystore/store/KeyStoreTypes.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

class KeyRecord_v1 : public SharedRecordFields<KeyRecord_v1> {
 public:
  // Tag, name, times, description, revision and attributes, with their
  // accessors, come from SharedRecordFields.
  static constexpr const char* kClassName = "KeyRecord_v1";

  // Empty strings, zero times, revision 0, KEY_INVALID, KPK_INVALID.
  KeyRecord_v1();
  KeyRecord_v1(const KeyRecord_v1&) = default;
  KeyRecord_v1(KeyRecord_v1&&) = default;
  KeyRecord_v1& operator=(const KeyRecord_v1&) = default;
  KeyRecord_v1& operator=(KeyRecord_v1&&) = default;

  // Views, valid while the record lives and is not changed.
  std::string_view keyGroup() const { return m_kgroup; }
  ks_keystate_t state() const { return m_state; }
  ks_kpktype_t kpkType() const { return m_kpktype; }
  std::string_view kpkTag() const { return m_kpktag; }
  std::string_view key() const { return m_key.bytes(); }

  void setKeyGroup(std::string_view groupTag);  // throws 1214
  void setState(ks_keystate_t state);           // throws 1214
  void setKpkType(ks_kpktype_t type);           // throws 1214
  void setKpkTag(std::string_view kpkTag);      // throws 1214
  void setKey(std::string_view key);            // throws 1214

  // Sets tag, name, update time, create time, description, revision, key
  // group, state, KPK type, KPK tag and key, in that order, each through its
  // setter; a refused value throws 1214 and leaves the later fields as they
  // were. The attributes are not touched.
  void setFields(std::string_view tag, std::string_view name, std::string_view keyGroup,
                 ks_keystate_t state, uint64_t updateTime, uint64_t createTime,
                 std::string_view description, uint32_t rev, ks_kpktype_t kpkType,
                 std::string_view kpkTag, std::string_view key);

  // Adds the attribute, or replaces the value of an existing one. Throws 1200
  // only if neither works.
  void addOrUpdateKRAttribute(std::string name, std::string value);

  // All fields, the attribute lists by size and then pair by pair.
  bool operator==(const KeyRecord_v1& other) const;
  bool operator!=(const KeyRecord_v1& other) const { return !(*this == other); }

  // Aborts the process (message 89) if a bound or an enumeration is broken.
  void testInvariant() const;
  // Console dump of the record, headed by `number`.
  void display(int number) const;

 private:
  // The key field. A record may carry a plain key on its way out of the store,
  // so the bytes are overwritten before their memory is released or reused.
  class KeyBytes {
   public:
    KeyBytes() = default;
    KeyBytes(const KeyBytes& other) : m_bytes(other.m_bytes) {}
    KeyBytes(KeyBytes&& other) noexcept : m_bytes(std::move(other.m_bytes)) { other.wipe(); }
    KeyBytes& operator=(const KeyBytes& other) {
      if (this != &other) {
        assign(other.m_bytes);
      }
      return *this;
    }
    KeyBytes& operator=(KeyBytes&& other) noexcept {
      if (this != &other) {
        wipe();
        m_bytes = std::move(other.m_bytes);
        other.wipe();
      }
      return *this;
    }
    ~KeyBytes() { wipe(); }

    const std::string& bytes() const { return m_bytes; }
    size_t size() const { return m_bytes.size(); }
    void assign(std::string_view bytes) {
      wipe();
      m_bytes.assign(bytes.data(), bytes.size());
    }
    bool operator==(const KeyBytes& other) const { return m_bytes == other.m_bytes; }

   private:
    // Overwrites the whole buffer, bytes left behind by a longer earlier
    // value or by a move included, and empties the string.
    void wipe() noexcept {
      m_bytes.resize(m_bytes.capacity());
      OPENSSL_cleanse(&m_bytes[0], m_bytes.size());
      m_bytes.clear();
    }
    std::string m_bytes;
  };

  std::string m_kgroup;
  ks_keystate_t m_state;
  ks_kpktype_t m_kpktype;
  std::string m_kpktag;
  KeyBytes m_key;
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
