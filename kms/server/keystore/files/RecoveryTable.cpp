#include "kms/server/keystore/files/RecoveryTable.h"

#include <cstddef>
#include <initializer_list>

namespace Vaultrest {
namespace DL {
namespace KMS {

namespace {

struct Row {
  RecoveryTable::Action action;
  std::initializer_list<unsigned> masks;
};

// The roll-back row is kept as it has always stood: all three "dat" with some
// "new" and no "bak", except that HMK "new" with store "new" and without KPK
// "new" (0x1a6) is missing and 0x196 stands in its place. 0x196 has HMK "dat"
// and "new", KPK "new" alone and store "dat" and "new", so rolling it back
// deletes the only copy of the KPK file. No commit in its normal order can
// leave either of the two.
const Row kRows[] = {
    {RecoveryTable::Clean, {0x124}},
    {RecoveryTable::FilesMissing, {0x000, 0x004, 0x020, 0x024, 0x100, 0x104, 0x120}},
    {RecoveryTable::RollBack, {0x126, 0x134, 0x136, 0x196, 0x1a4, 0x1b4, 0x1b6}},
    {RecoveryTable::RollForwardFromFirstRenames, {0x0de, 0x0f3, 0x0f6, 0x19b, 0x19e, 0x1b3}},
    {RecoveryTable::RollForwardFromSecondRenames,
     {0x0db, 0x0dd, 0x0eb, 0x0ed, 0x15b, 0x15d, 0x16b}},
    {RecoveryTable::Finish, {0x125, 0x12c, 0x12d, 0x164, 0x165, 0x16c, 0x16d}},
};

}  // namespace

RecoveryTable::Action RecoveryTable::actionFor(unsigned mask) {
  for (const Row& row : kRows) {
    for (unsigned listed : row.masks) {
      if (listed == mask) {
        return row.action;
      }
    }
  }
  return Refuse;
}

const char* RecoveryTable::actionName(Action action) {
  switch (action) {
    case Clean:
      return "Clean";
    case FilesMissing:
      return "FilesMissing";
    case RollBack:
      return "RollBack";
    case RollForwardFromFirstRenames:
      return "RollForwardFromFirstRenames";
    case RollForwardFromSecondRenames:
      return "RollForwardFromSecondRenames";
    case Finish:
      return "Finish";
    case Refuse:
      return "Refuse";
  }
  return "Unknown";
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
