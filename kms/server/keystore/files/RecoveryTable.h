// What recovery does about the files it finds. The state of the store on
// disk is a 9-bit mask, one bit per path, three bits per file in the order
// HMK, KPK, store:
//
//   0x100 HMK "dat"   0x080 HMK "new"   0x040 HMK "bak"
//   0x020 KPK "dat"   0x010 KPK "new"   0x008 KPK "bak"
//   0x004 store "dat" 0x002 store "new" 0x001 store "bak"
//
// 35 masks are states that a commit (in any order of its renames and
// deletes) or an interrupted recovery can leave; each has its action. Every
// other mask is refused. The table is data: the rows are listed once, in
// RecoveryTable.cpp. A plain lookup with no state and no lock.
#pragma once

#include <array>

namespace Vaultrest {
namespace DL {
namespace KMS {

class RecoveryTable {
 public:
  enum Action {
    // The three "dat" files and nothing else: nothing to do.
    Clean,
    // Only "dat" files, not all three: nothing is changed; the read that
    // follows reports the gap.
    FilesMissing,
    // The new files of a commit that had not yet given up an old file:
    // delete every "new".
    RollBack,
    // The first renames (dat to bak) were under way: finish them, then go on
    // as RollForwardFromSecondRenames.
    RollForwardFromFirstRenames,
    // The second renames (new to dat) were under way: finish them, then go
    // on as Finish.
    RollForwardFromSecondRenames,
    // The new state is in place: delete the "bak" files.
    Finish,
    // No commit leaves this state: refuse to touch it.
    Refuse,
  };

  // The bits of one file's three names.
  struct FileBits {
    unsigned dat;
    unsigned fresh;  // "new"
    unsigned bak;
  };
  // HMK, KPK, store.
  static constexpr std::array<FileBits, 3> kFiles = {{
      {0x100, 0x080, 0x040},
      {0x020, 0x010, 0x008},
      {0x004, 0x002, 0x001},
  }};
  static constexpr unsigned kMaskCount = 0x200;

  // The action for `mask`; Refuse for anything outside the 35 masks of the
  // table, bits above 0x1ff included.
  static Action actionFor(unsigned mask);

  // "Clean", "RollBack", ... for logs and test output.
  static const char* actionName(Action action);
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
