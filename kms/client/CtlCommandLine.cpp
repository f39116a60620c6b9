#include "kms/client/CtlCommandLine.h"

#include <algorithm>
#include <initializer_list>

namespace Vaultrest {
namespace DL {
namespace KMSCtl {

namespace {

struct OptionForm {
  const char* name;
  bool takesValue;
  bool required;
  bool repeatable = false;  // each use adds a value
};

struct CommandForm {
  const char* words;     // "group create"
  size_t operandCount;   // exactly this many operands
  const char* operands;  // their names, for messages
  std::vector<OptionForm> options;
};

const std::vector<CommandForm>& commands() {
  static const std::vector<CommandForm> table = {
      {"status", 0, "", {}},
      {"group create", 1, "NAME", {{"--cipher", true, true}, {"--description", true, false}}},
      {"group list", 0, "", {}},
      {"group show", 1, "NAME", {}},
      {"group delete", 1, "NAME", {{"--force", false, false}}},
      {"group update", 1, "NAME", {{"--new-name", true, false}, {"--description", true, false}}},
      {"key create",
       2,
       "GROUP NAME",
       {{"--state", true, false},
        {"--description", true, false},
        {"--passphrase-file", true, false}}},
      {"key list", 1, "GROUP", {}},
      {"key show", 2, "GROUP NAME", {}},
      {"key active", 1, "GROUP", {}},
      {"key delete", 2, "GROUP NAME", {}},
      {"key update",
       2,
       "GROUP NAME",
       {{"--state", true, false},
        {"--new-name", true, false},
        {"--description", true, false},
        {"--move-to", true, false}}},
      {"key get", 1, "TAG", {}},
      {"key recover",
       2,
       "GROUP NAME",
       {{"--tag", true, true}, {"--passphrase-file", true, false}, {"--salt", true, false}}},
      {"kad get", 2, "TAG LENGTH", {}},
      {"kad find", 1, "KADHEX", {}},
      {"quiesce", 0, "", {}},
      {"unquiesce", 0, "", {{"--force", false, false}}},
      {"rotate-hmk", 0, "", {{"--id", true, true}, {"--passphrase-file", true, false}}},
      {"rotate-kpk", 0, "", {{"--id", true, true}, {"--passphrase-file", true, false}}},
      {"export", 1, "FILE", {{"--passphrase-file", true, false}, {"--select", true, false, true}}},
      {"import",
       1,
       "FILE",
       {{"--passphrase-file", true, false},
        {"--preserve-names", false, false},
        {"--preview", false, false},
        {"--description", true, false}}},
  };
  return table;
}

// The command whose words begin `args` at `at`; null when none does.
// Sets *wordCount to the number of words it took.
const CommandForm* findCommand(const std::vector<std::string>& args, size_t at, size_t* wordCount) {
  for (const CommandForm& form : commands()) {
    const std::string words = form.words;
    const size_t blank = words.find(' ');
    if (blank == std::string::npos) {
      if (args[at] == words) {
        *wordCount = 1;
        return &form;
      }
    } else if (args[at] == words.substr(0, blank) && at + 1 < args.size() &&
               args[at + 1] == words.substr(blank + 1)) {
      *wordCount = 2;
      return &form;
    }
  }
  return nullptr;
}

bool isCommandGroup(const std::string& word) {
  return word == "group" || word == "key" || word == "kad";
}

const OptionForm* findOption(const CommandForm& form, const std::string& name) {
  for (const OptionForm& option : form.options) {
    if (name == option.name) {
      return &option;
    }
  }
  return nullptr;
}

bool startsWith(const std::string& text, const char* prefix) {
  return text.compare(0, std::char_traits<char>::length(prefix), prefix) == 0;
}

// Sets *value to what follows the '=' of args[*at], else to the next argument (moving *at on
// to it); false, with *value untouched, when there is neither.
bool takeValue(const std::vector<std::string>& args, size_t* at, std::string* value) {
  const std::string& arg = args[*at];
  const size_t equals = arg.find('=');
  if (equals != std::string::npos) {
    *value = arg.substr(equals + 1);
  } else if (*at + 1 < args.size()) {
    *value = args[++*at];
  } else {
    return false;
  }
  return true;
}

// The command whose words begin `args` at `at`; an unknown one is a usage error.
const CommandForm& commandAt(const std::vector<std::string>& args, size_t at, size_t* wordCount) {
  const CommandForm* form = findCommand(args, at, wordCount);
  if (form == nullptr) {
    if (isCommandGroup(args[at])) {
      throw UsageError("unknown command " + args[at] +
                       (at + 1 < args.size() ? " " + args[at + 1] : std::string()));
    }
    throw UsageError("unknown command " + args[at]);
  }
  return *form;
}

// Throws a usage error unless the command has its operands and required options.
void checkComplete(const CommandForm& form, const std::string& command,
                   const std::vector<std::string>& operands,
                   const std::map<std::string, std::vector<std::string>>& options) {
  if (operands.size() != form.operandCount) {
    throw UsageError(command + (form.operandCount == 0 ? std::string(" takes no operands")
                                                       : std::string(" takes ") + form.operands));
  }
  for (const OptionForm& option : form.options) {
    if (option.required && options.count(option.name) == 0) {
      throw UsageError(command + " needs " + option.name);
    }
  }
}

}  // namespace

const char* CtlCommandLine::usage() {
  return "usage: vrkmsctl [--endpoint CORBALOC] [--json] [--tls-cert PEM --tls-key PEM "
         "--tls-ca PEM] COMMAND\n"
         "  status                      quiesce count, numbers of keys and groups, HMK and KPK "
         "ids\n"
         "  group create NAME --cipher AES128|AES192|AES256|BLOWFISH [--description TEXT]\n"
         "  group list | group show NAME | group delete NAME [--force]\n"
         "  group update NAME [--new-name NAME] [--description TEXT]\n"
         "  key create GROUP NAME [--state active|prelive] [--description TEXT] "
         "[--passphrase-file FILE]\n"
         "  key list GROUP | key show GROUP NAME | key active GROUP | key delete GROUP NAME\n"
         "  key update GROUP NAME [--state STATE] [--new-name NAME] [--description TEXT] "
         "[--move-to GROUP]\n"
         "  key get TAG                 the key in the clear\n"
         "  key recover GROUP NAME --tag HEX --passphrase-file FILE [--salt HEX]\n"
         "  kad get TAG LENGTH | kad find KADHEX\n"
         "  quiesce | unquiesce [--force]\n"
         "  rotate-hmk --id ID [--passphrase-file FILE] | rotate-kpk --id ID "
         "[--passphrase-file FILE]\n"
         "  export FILE --passphrase-file FILE [--select GROUP | --select GROUP/KEY |\n"
         "              --select GROUP/*]...   no --select: the whole store\n"
         "  import FILE --passphrase-file FILE [--preserve-names] [--preview] "
         "[--description TEXT]\n"
         "\n"
         "The endpoint defaults to the service's local socket\n"
         "($VREST_ROOT/var/vrkms/local/vrkms.sock), where the service knows the caller\n"
         "by its uid: root and the service's user hold every right. --endpoint\n"
         "giop:tcp:HOST:PORT (or corbaloc::HOST:PORT/KMS.KMSMgr) calls over TCP, where\n"
         "the caller holds only what a grant names. Grants are lines of\n"
         "$VREST_ROOT/etc/vr.conf: VRKMS_GRANT = uid:USER|cert:SUBJECT|ADDRESS RIGHTS.\n"
         "A TLS endpoint (giop:ssl:HOST:PORT) needs --tls-ca, the CA of the service's\n"
         "certificate, and --tls-cert and --tls-key, this client's; nothing, a passphrase\n"
         "least of all, is sent before the service's certificate is verified.\n"
         "Passphrases come from a\n"
         "file or, on a terminal, from a prompt; an empty one makes a random key. Exit\n"
         "status: 0 success, 1 the service refused (\"error CODE: TEXT\"; export and\n"
         "import print \"status CODE: TEXT\" after their messages), 2 usage, 3 service\n"
         "not reached or its reply not to be trusted.\n";
}

std::string* CtlCommandLine::programOption(const std::string& arg) {
  const std::string name = arg.substr(0, arg.find('='));
  if (name == "--endpoint") {
    return &m_endpoint;
  }
  if (name == "--tls-cert") {
    return &m_tls.certificate;
  }
  if (name == "--tls-key") {
    return &m_tls.key;
  }
  if (name == "--tls-ca") {
    return &m_tls.ca;
  }
  return nullptr;
}

size_t CtlCommandLine::parseProgramOptions(const std::vector<std::string>& args) {
  size_t at = 0;
  for (; at < args.size() && startsWith(args[at], "--"); ++at) {
    const std::string& arg = args[at];
    if (arg == "--json") {
      m_json = true;
    } else if (arg == "--help") {
      m_help = true;
    } else if (std::string* value = programOption(arg)) {
      takeValue(args, &at, value);
      if (value->empty()) {
        throw UsageError(arg.substr(0, arg.find('=')) + " needs a value");
      }
    } else {
      throw UsageError("unknown option " + arg);
    }
  }
  return at;
}

CtlCommandLine CtlCommandLine::parse(const std::vector<std::string>& args) {
  CtlCommandLine line;
  size_t at = line.parseProgramOptions(args);
  if (at >= args.size()) {
    if (line.m_help) {
      return line;
    }
    throw UsageError("no command given");
  }
  size_t wordCount = 0;
  const CommandForm& form = commandAt(args, at, &wordCount);
  line.m_command = form.words;
  for (at += wordCount; at < args.size(); ++at) {
    const std::string& arg = args[at];
    if (!startsWith(arg, "--")) {
      line.m_operands.push_back(arg);
      continue;
    }
    if (arg == "--help") {
      line.m_help = true;
      continue;
    }
    const size_t equals = arg.find('=');
    const std::string name = arg.substr(0, equals);
    const OptionForm* option = findOption(form, name);
    if (option == nullptr) {
      throw UsageError("unknown option " + name + " for " + line.m_command);
    }
    if (line.m_options.count(name) != 0 && !option->repeatable) {
      throw UsageError(name + " given twice");
    }
    std::string value;
    if (!option->takesValue) {
      if (equals != std::string::npos) {
        throw UsageError(name + " takes no value");
      }
    } else if (!takeValue(args, &at, &value)) {
      throw UsageError(name + " needs a value");
    }
    line.m_options[name].push_back(value);
  }
  if (!line.m_help) {
    checkComplete(form, line.m_command, line.m_operands, line.m_options);
  }
  return line;
}

bool CtlCommandLine::has(const std::string& option) const {
  return m_options.count(option) != 0;
}

std::string CtlCommandLine::value(const std::string& option, const std::string& fallback) const {
  const auto it = m_options.find(option);
  return it == m_options.end() ? fallback : it->second.back();
}

std::vector<std::string> CtlCommandLine::values(const std::string& option) const {
  const auto it = m_options.find(option);
  return it == m_options.end() ? std::vector<std::string>() : it->second;
}

}  // namespace KMSCtl
}  // namespace DL
}  // namespace Vaultrest
