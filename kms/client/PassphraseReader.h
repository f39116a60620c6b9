// Where vrkmsctl takes a passphrase from: a file named on the command line,
// or, when none is named and standard input is a terminal, a prompt on
// standard error read without echo. Never from the command line itself.
//
// The text is held in a Secret (kms/platform/Secret.h), which wipes it when
// it goes.
#pragma once

#include <string>

#include "kms/platform/Secret.h"

namespace Vaultrest {
namespace DL {
namespace KMSCtl {

using CmnCrypto::Secret;

class PassphraseReader {
 public:
  enum Need {
    kOptional,  // none at all (no file, no terminal) is the empty passphrase
    kRequired,  // none at all is a usage error
  };

  // With `file` not empty: the file's content up to its first line end
  // (a missing or unreadable file is a UsageError). Otherwise, on a
  // terminal, asks with `prompt` (and, when `confirm`, a second time; two
  // different answers ask again). Otherwise the empty passphrase for
  // kOptional, a UsageError for kRequired.
  static Secret read(const std::string& file, Need need, const std::string& prompt, bool confirm);
};

}  // namespace KMSCtl
}  // namespace DL
}  // namespace Vaultrest
