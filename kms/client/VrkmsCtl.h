// The vrkmsctl program from its arguments to its exit status:
//   0  the command succeeded
//   1  the service refused it: "error CODE: TEXT" on standard error, or
//      {"error": CODE, "message": TEXT} on standard output with --json.
//      CODE is the store's status, or the name of the ORB's exception when
//      the refusal came from the ORB (NO_PERMISSION for a peer without the
//      right), or FILE when the export file could not be written. An export
//      or import that the service answers with a non-zero code prints its
//      status as any other result and ends with 1 too.
//   2  a usage error (message and usage on standard error)
//   3  the service cannot be reached, or its reply is not to be trusted
//      (it cannot be read as the service writes it)
#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace Vaultrest {
namespace DL {
namespace KMSCtl {

class VrkmsCtl {
 public:
  enum ExitStatus { kSuccess = 0, kServiceError = 1, kUsageError = 2, kUnreachable = 3 };

  VrkmsCtl(std::ostream& out, std::ostream& err) : m_out(out), m_err(err) {}

  // Runs the command of `args` (the arguments after the program name).
  int run(const std::vector<std::string>& args);

 private:
  std::ostream& m_out;
  std::ostream& m_err;
};

}  // namespace KMSCtl
}  // namespace DL
}  // namespace Vaultrest
