// The command line of vrkmsctl, parsed and checked against the table of
// commands before anything reaches the service:
//
//   vrkmsctl [--endpoint CORBALOC] [--json] COMMAND [OPERANDS] [OPTIONS]
//
// A command is one or two words ("status", "group create"); its operands
// and options may come in any order after it. An option's value is the next
// argument, whatever it looks like, or follows "=" ("--state=active").
// Only a repeatable option ("--select" of export) may be given more than
// once. Every fault (unknown command, a missing or extra operand, an unknown,
// repeated or value-less option, a missing required option) throws
// UsageError; the program then exits with status 2.
#pragma once

#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace Vaultrest {
namespace DL {
namespace KMSCtl {

class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class CtlCommandLine {
 public:
  // Parses the arguments after the program name. Throws UsageError.
  static CtlCommandLine parse(const std::vector<std::string>& args);

  // The usage text (ends with a line end).
  static const char* usage();

  // "--help" (or no command at all with "--help"): print the usage, exit 0.
  bool helpRequested() const { return m_help; }
  // The --endpoint value, or "" for the configured default.
  const std::string& endpoint() const { return m_endpoint; }
  bool json() const { return m_json; }
  // --tls-cert, --tls-key and --tls-ca: this client's certificate and key
  // and the CA of the service's certificate (PEM files); empty when not
  // given.
  struct TlsFiles {
    std::string certificate;
    std::string key;
    std::string ca;
  };
  const TlsFiles& tls() const { return m_tls; }
  // The command's words joined by one blank: "group create".
  const std::string& command() const { return m_command; }
  // The operands, in order; as many as the command takes.
  const std::vector<std::string>& operands() const { return m_operands; }
  // Whether the option ("--force") was given.
  bool has(const std::string& option) const;
  // The option's value (the last one of a repeatable option), or `fallback`
  // when it was not given.
  std::string value(const std::string& option, const std::string& fallback = "") const;
  // Every value of the option, in the order given; empty when not given.
  std::vector<std::string> values(const std::string& option) const;

 private:
  // The member that the program option `arg` ("--endpoint" or
  // "--endpoint=VALUE") sets, or null for no such option.
  std::string* programOption(const std::string& arg);
  // Reads the program's own options at the start of `args`; returns where the command begins.
  size_t parseProgramOptions(const std::vector<std::string>& args);

  bool m_help = false;
  bool m_json = false;
  std::string m_endpoint;
  TlsFiles m_tls;
  std::string m_command;
  std::vector<std::string> m_operands;
  std::map<std::string, std::vector<std::string>> m_options;
};

}  // namespace KMSCtl
}  // namespace DL
}  // namespace Vaultrest
