// The selection of an export, folded from the caller's list of (group name,
// key name) pairs into one entry per group:
//
//   (g, "*")   the group with all its keys      -> {"*"}
//   (g, k)     the group with key k             -> {..., k}
//   (g, "")    the group alone, without keys    -> {} (nothing added)
//   no pairs   the whole store                  -> empty map
//
// "*" wins over single names in whichever order they come: once a group's
// set is {"*"}, names are no longer added, and a later "*" replaces the
// names gathered so far. Names are byte strings compared byte for byte.
// A plain value; no lock.
#pragma once

#include <list>
#include <map>
#include <set>
#include <string>
#include <utility>

namespace Vaultrest {
namespace DL {
namespace KMS {

class ExportSelection {
 public:
  typedef std::list<std::pair<std::string, std::string>> PairList;
  // Group name to the key names of that group, both in byte order.
  typedef std::map<std::string, std::set<std::string>> GroupMap;

  // The key name that stands for every key of a group.
  static const char* const kAllKeys;

  // Folds `pairs` in order. Never throws (short of memory).
  static GroupMap fold(const PairList& pairs);

  // Whether `keys` is exactly {"*"}.
  static bool isAllKeys(const std::set<std::string>& keys);
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
