// The flags that follow an administrator option on the command line
// ("-createemptydb -hmkpass secret -hmkid id ..."): which are allowed for
// which operation, which exclude each other, and what they answer in advance.
//
// A value type that owns the passphrases it was given; they are wiped when it
// goes.
#pragma once

#include <ace/Arg_Shifter.h>

#include <optional>
#include <string>

#include "kms/platform/Secret.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

class AdminFlags {
 public:
  enum Operation { kCreateEmptyDB = 1, kResetHmk = 2, kResetKpk = 4 };

  AdminFlags() = default;
  AdminFlags(const AdminFlags&) = delete;
  AdminFlags& operator=(const AdminFlags&) = delete;

  // Consumes every argument left in `shifter` (whole words, case ignored).
  // Returns 0, or 1214 at the first fault, with this object unchanged: an
  // argument that does not begin with "-", a flag the operation does not
  // allow, a second flag of one group ("-overwrite"/"-nooverwrite",
  // "-ignorerandom"/"-noignorerandom", "-hmkpass"/"-randomhmk",
  // "-kpkpass"/"-randomkpk", "-hmkid", "-kpkid"), or a flag whose value is
  // missing or empty. The words after "-hmkpass" and "-kpkpass" are
  // overwritten with NULs where they stand once copied: `shifter` must walk
  // a writable vector (the process's argv).
  int parse(ACE_Arg_Shifter_T<char>& shifter, Operation operation);

  // Answers given in advance: unset when the flag of the group was not given.
  const std::optional<bool>& overwrite() const { return m_overwrite; }
  const std::optional<bool>& ignoreRandom() const { return m_ignoreRandom; }

  // A passphrase given on the command line; "-randomhmk" / "-randomkpk" give
  // the empty one (a random key).
  const std::optional<CmnCrypto::Secret>& hmkPassphrase() const { return m_hmkPassphrase; }
  const std::optional<CmnCrypto::Secret>& kpkPassphrase() const { return m_kpkPassphrase; }
  const std::optional<std::string>& hmkId() const { return m_hmkId; }
  const std::optional<std::string>& kpkId() const { return m_kpkId; }

  // Whether "-randomhmk" or "-randomkpk" was given.
  bool randomRequested() const { return m_randomRequested; }

 private:
  void swap(AdminFlags& other);

  std::optional<bool> m_overwrite;
  std::optional<bool> m_ignoreRandom;
  std::optional<CmnCrypto::Secret> m_hmkPassphrase;
  std::optional<CmnCrypto::Secret> m_kpkPassphrase;
  std::optional<std::string> m_hmkId;
  std::optional<std::string> m_kpkId;
  bool m_randomRequested = false;
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
