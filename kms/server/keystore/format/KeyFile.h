// The content of the HMK file and of the KPK file: a typed view of an
// AttributeList of exactly two attributes, "VERSION" and "THEKEY". The key is
// the HMK in the clear, or the KPK wrapped under the HMK. Both copies of the
// key, the object's own and the list's, are wiped when they are replaced and
// when the object goes. A plain value with no lock.
#pragma once

#include <string>

#include "kms/server/keystore/records/AttributeList.h"
#include "kms/server/keystore/store/KeyStoreTypes.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

class KeyFile {
 public:
  // An empty key. Throws KeyStoreError 1218 for a version other than 0x100,
  // 0x200 and 0x300.
  explicit KeyFile(ks_version_t version);
  // Validates and copies `list`: 1208 without "VERSION", 1218 for an illegal
  // version, 1208 without "THEKEY" or with any other attribute.
  explicit KeyFile(const AttributeList& list);
  KeyFile(const KeyFile&) = default;
  KeyFile& operator=(const KeyFile& other);
  ~KeyFile();

  // Lets go of `list`'s body, for lists read from a key file: its bytes, the
  // key among them, are wiped by whichever list lets go of them last. No
  // allocation, so destructors may call it.
  static void wipeKey(AttributeList& list);

  ks_version_t version() const { return m_version; }
  const std::string& key() const { return m_key; }
  // Throws 1214, with the key unchanged, for a key of more than 4096 bytes.
  void setKey(const std::string& key);
  // Empties the key.
  void clear();

  // The list to write, brought up to date first if the key changed. Valid
  // until the next change of this object.
  const AttributeList& attributes() const;

 private:
  ks_version_t m_version;
  std::string m_key;
  mutable AttributeList m_attrs;
  mutable bool m_outOfDate;
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
