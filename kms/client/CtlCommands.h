// The commands of vrkmsctl: each one reads what it needs from the service,
// makes one change or query, and prints the result. Names of groups and keys
// are resolved to tags through the query facet first, so a name the store
// does not know is the store's own error (1229, 1260).
//
// Operands the client can check itself (a state or cipher name, a number,
// hex, a selection, the files of export and import) and passphrases are
// settled before anything is sent; a fault there throws UsageError. What the
// service throws is passed on; an export file that cannot be written after
// the service answered throws FileError (CtlExportFile.h).
#pragma once

#include <string>
#include <utility>

#include "kms/client/CtlCommandLine.h"
#include "kms/client/CtlPrinter.h"
#include "kms/client/KmsClient.h"

namespace Vaultrest {
namespace DL {
namespace KMSCtl {

class CtlCommands {
 public:
  CtlCommands(KmsClient& client, CtlPrinter& printer) : m_client(client), m_printer(printer) {}

  // Runs line.command(). False when the service answered an export or
  // import with a non-zero status (already printed); every other refusal is
  // thrown.
  bool run(const CtlCommandLine& line);

  // "active", "KEY_ACTIVE" (any case) and so on to the state's number.
  static long parseState(const std::string& text);
  // "AES128", "AES192", "AES256", "BLOWFISH" (any case; also the store's
  // names such as "CT_AES256_CBC") to the cipher type's number.
  static long parseCipher(const std::string& text);
  // Hex of either case to bytes; throws UsageError naming `what`.
  static std::string parseHex(const std::string& text, const char* what);
  // A --select of export: "GROUP" is the group alone (GROUP, ""),
  // "GROUP/KEY" one key of it, "GROUP/*" the group with all its keys. The
  // group name ends at the first '/'. An empty group or key name is a
  // UsageError.
  static std::pair<std::string, std::string> parseSelection(const std::string& text);

 private:
  void status();
  void groupCreate(const CtlCommandLine& line);
  void groupUpdate(const CtlCommandLine& line);
  void groupDelete(const CtlCommandLine& line);
  void keyCreate(const CtlCommandLine& line);
  void keyUpdate(const CtlCommandLine& line);
  void keyDelete(const CtlCommandLine& line);
  void keyRecover(const CtlCommandLine& line);
  void kadGet(const CtlCommandLine& line);
  void kadFind(const CtlCommandLine& line);
  void rotate(const CtlCommandLine& line, bool hmk);
  bool exportStore(const CtlCommandLine& line);
  bool importStore(const CtlCommandLine& line);

  // The tag (hex) of the group of that name.
  std::string groupTag(const std::string& name);

  KmsClient& m_client;
  CtlPrinter& m_printer;
};

}  // namespace KMSCtl
}  // namespace DL
}  // namespace Vaultrest
