// Audit entries of key and key-group changes in the application log: one
// catalogued entry per item, at severity 0, under the label of the change.
// Tags go as hexadecimal, names and descriptions through bufferToString,
// states and cipher types by their names. Nothing here ever sees key
// material: the records passed in may hold a wrapped key, which is not
// logged.
//
// The entries are written before the commit, so they also stand for a
// change whose write then fails. Each function may throw KeyStoreError 1269
// if the catalogue cannot render a text (only keyAdded renders one itself).
#pragma once

#include <string>
#include <string_view>

#include "kms/server/keystore/records/KeyGrpRecord_v1.h"
#include "kms/server/keystore/records/KeyRecord_v1.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

class ChangeAudit {
 public:
  // 81; tag, name, state, group tag, description; 92 with "Yes" when the
  // key was made in a FIPS-acceptable way in FIPS mode, else "No".
  static void keyAdded(const char* label, const KeyRecord_v1& rec, bool fipsKey);
  // 76; tag; 67 and name, state, group tag of `before`; 68 and the same of
  // `after`. The description is listed on both sides only if it changed.
  static void keyUpdated(const char* label, const KeyRecord_v1& before, const KeyRecord_v1& after);
  // An active key demoted by another one: 76; tag; 67, old state; 68, new.
  static void keyDemoted(const char* label, const KeyRecord_v1& before, const KeyRecord_v1& after);
  // 75; tag.
  static void keyDeleted(const char* label, std::string_view tag);
  // 70; tag, name, cipher type, description.
  static void groupAdded(const char* label, const KeyGrpRecord_v1& rec);
  // 80; tag; 67 and the name of `before`; 68 and the name of `after`. The
  // description is listed on both sides only if it changed.
  static void groupUpdated(const char* label, const KeyGrpRecord_v1& before,
                           const KeyGrpRecord_v1& after);
  // 79; tag.
  static void groupDeleted(const char* label, std::string_view tag);
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
