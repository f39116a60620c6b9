#include "kms/server/keystore/store/ExportSelection.h"

#include "kms/server/diagnostics/Log.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

const char* const ExportSelection::kAllKeys = "*";

ExportSelection::GroupMap ExportSelection::fold(const PairList& pairs) {
  KMS_TRACE("ExportSelection::fold");
  GroupMap groups;
  for (const auto& pair : pairs) {
    std::set<std::string>& keys = groups[pair.first];
    if (pair.second == kAllKeys) {
      keys.clear();
      keys.insert(kAllKeys);
    } else if (!pair.second.empty() && !isAllKeys(keys)) {
      keys.insert(pair.second);
    }
  }
  return groups;
}

bool ExportSelection::isAllKeys(const std::set<std::string>& keys) {
  return keys.size() == 1 && *keys.begin() == kAllKeys;
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
