// The header of a password-secured block: an AttributeList of exactly
// "VERSION" (0x200 only), "SALT" (the passphrase's salt) and "IV" (the
// cipher's IV). A plain value with no lock.
#pragma once

#include <string>

#include "kms/server/keystore/records/AttributeList.h"
#include "kms/server/keystore/store/KeyStoreTypes.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

class SecuredDataHeader {
 public:
  // Empty salt and IV. Throws KeyStoreError 1218 for any version but 0x200.
  explicit SecuredDataHeader(ks_version_t version);
  // Validates and copies `list`: 1208 without "VERSION", 1218 for a version
  // other than 0x200, 1208 without "SALT" or "IV" or with any other
  // attribute. The lengths of salt and IV are not checked here.
  explicit SecuredDataHeader(const AttributeList& list);

  ks_version_t version() const { return m_version; }
  const std::string& salt() const { return m_salt; }
  const std::string& iv() const { return m_iv; }
  void setSalt(const std::string& salt);
  void setIV(const std::string& iv);
  // Empties salt and IV.
  void clear();

  // The list to write, brought up to date first after a change. Valid until
  // the next change of this object.
  const AttributeList& attributes() const;

 private:
  ks_version_t m_version;
  std::string m_salt;
  std::string m_iv;
  mutable AttributeList m_attrs;
  mutable bool m_outOfDate;
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
