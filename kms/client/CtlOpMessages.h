// The text of the coded messages that export and import report: the service
// sends only a code and string arguments, and the client words them. The
// words are those of the service's own log lines for the same decisions, so
// what an administrator reads here can be found again in the service's log.
//
//   CtlOpMessages::text(4, {"g", "g_IMPORTED_20261121180102"})
//     == "Changing key group [g] to [g_IMPORTED_20261121180102]"
//
// A code the table does not know, or arguments that do not fit the code's
// form, are shown as they came: "message 99: a, b".
#pragma once

#include <string>
#include <vector>

namespace Vaultrest {
namespace DL {
namespace KMSCtl {

class CtlOpMessages {
 public:
  // The form of `code`, with "%1" to "%4" for its arguments in order; null
  // for a code the table does not know.
  static const char* form(long code);

  // The message as text (see above). Any thread.
  static std::string text(long code, const std::vector<std::string>& args);
};

}  // namespace KMSCtl
}  // namespace DL
}  // namespace Vaultrest
