// The metadata at the start of an export's plaintext: an AttributeList with
// the one attribute "VERSION", which must be 0x200. A plain value with no
// lock.
#pragma once

#include "kms/server/keystore/records/AttributeList.h"
#include "kms/server/keystore/store/KeyStoreTypes.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

class KSEximMetadata {
 public:
  // Throws KeyStoreError 1218 for any version but 0x200.
  explicit KSEximMetadata(ks_version_t version);
  // Validates and copies `list`: 1208 without "VERSION", 1218 for a version
  // other than 0x200, 1208 for any other attribute.
  explicit KSEximMetadata(const AttributeList& list);

  ks_version_t version() const { return m_version; }
  // Nothing but the version to clear: the list is made anew.
  void clear();
  // The list to write. Valid until the next change of this object.
  const AttributeList& attributes() const;

 private:
  ks_version_t m_version;
  mutable AttributeList m_attrs;
  mutable bool m_outOfDate;
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
