// One coded message of an export or import: a code and its string arguments.
// It carries no text; whoever shows it words it from the code.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Vaultrest {
namespace DL {
namespace KMS {

// What a message says, with its arguments.
enum ks_opmessage_t : int32_t {
  KSMSG_NONE = 0,
  KSMSG_KEYGROUP_NOT_FOUND = 1,      // group name (export)
  KSMSG_KEYGROUP_EXISTS = 2,         // group name
  KSMSG_KEYGROUP_TAG_CONFLICT = 3,   // group name, name of the store's group
  KSMSG_KEYGROUP_RENAMED = 4,        // old group name, new group name
  KSMSG_KEYGROUP_NEW_TAG = 5,        // group name
  KSMSG_KEYGROUP_IMPORTED = 6,       // group name
  KSMSG_KEYGROUP_KEY_LIMIT = 7,      // group name
  KSMSG_KEY_NOT_FOUND = 8,           // key name, group name (export)
  KSMSG_KEY_DUPLICATE = 9,           // key, group, store's key, store's group
  KSMSG_KEY_TAG_CONFLICT = 10,       // key, group, store's key, store's group
  KSMSG_KEY_GROUP_TAG_UPDATED = 11,  // key name, group name
  KSMSG_KEY_IMPORTED = 12,           // key name, group name
};

class KSOpMessage {
 public:
  typedef std::vector<std::string> ArgList;

  // Code 0, no arguments.
  KSOpMessage();
  KSOpMessage(ks_opmessage_t code, std::string_view arg1);
  KSOpMessage(ks_opmessage_t code, std::string_view arg1, std::string_view arg2);
  KSOpMessage(ks_opmessage_t code, std::string_view arg1, std::string_view arg2,
              std::string_view arg3);
  KSOpMessage(ks_opmessage_t code, std::string_view arg1, std::string_view arg2,
              std::string_view arg3, std::string_view arg4);

  ks_opmessage_t code() const { return m_code; }
  const ArgList& args() const { return m_args; }

  // Equal codes and equal argument lists.
  bool operator==(const KSOpMessage& other) const;
  bool operator!=(const KSOpMessage& other) const { return !(*this == other); }

 private:
  ks_opmessage_t m_code;
  ArgList m_args;
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
