#include "kms/client/CtlCommands.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <fstream>
#include <iterator>

#include "kms/client/CtlExportFile.h"
#include "kms/client/PassphraseReader.h"

namespace Vaultrest {
namespace DL {
namespace KMSCtl {

namespace Facets = ::Ardentis::Vaultrest::DL::KMSFacetsV1;
namespace Fw = ::Ardentis::Vaultrest::TL::Framework;

namespace {

// Values of the store's enumerations that the client sets.
constexpr long kKeyInactive = 2;
constexpr long kKeyActive = 1;
constexpr long kKeyPrelive = 4;
constexpr long kKpkLocal = 1;

std::string upper(std::string text) {
  for (char& c : text) {
    c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  }
  return text;
}

std::string lower(std::string text) {
  for (char& c : text) {
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  return text;
}

long parseNumber(const std::string& text, const char* what) {
  errno = 0;
  char* end = nullptr;
  const long number = std::strtol(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || errno != 0) {
    throw UsageError(std::string(what) + " is not a number: " + text);
  }
  return number;
}

}  // namespace

long CtlCommands::parseState(const std::string& text) {
  static const char* const kNames[] = {"ACTIVE", "INACTIVE", "DEPRECATED", "PRELIVE", "TERMINATED"};
  std::string name = upper(text);
  if (name.compare(0, 4, "KEY_") == 0) {
    name = name.substr(4);
  }
  for (long i = 0; i < 5; ++i) {
    if (name == kNames[i]) {
      return i + 1;
    }
  }
  throw UsageError("unknown key state " + text +
                   " (active, inactive, deprecated, prelive, terminated)");
}

long CtlCommands::parseCipher(const std::string& text) {
  const std::string name = upper(text);
  if (name == "AES128" || name == "CT_AES128_CBC") {
    return 1;
  }
  if (name == "AES192" || name == "CT_AES192_CBC") {
    return 2;
  }
  if (name == "AES256" || name == "CT_AES256_CBC") {
    return 3;
  }
  if (name == "BLOWFISH" || name == "CT_BLOW_CBC") {
    return 4;
  }
  throw UsageError("unknown cipher " + text + " (AES128, AES192, AES256, BLOWFISH)");
}

std::string CtlCommands::parseHex(const std::string& text, const char* what) {
  if (text.empty() || text.size() % 2 != 0) {
    throw UsageError(std::string(what) + " is not hexadecimal: " + text);
  }
  std::string bytes;
  for (size_t i = 0; i < text.size(); i += 2) {
    int value = 0;
    for (size_t j = i; j < i + 2; ++j) {
      const char c = static_cast<char>(std::tolower(static_cast<unsigned char>(text[j])));
      const int digit = (c >= '0' && c <= '9')   ? c - '0'
                        : (c >= 'a' && c <= 'f') ? c - 'a' + 10
                                                 : -1;
      if (digit < 0) {
        throw UsageError(std::string(what) + " is not hexadecimal: " + text);
      }
      value = value * 16 + digit;
    }
    bytes.push_back(static_cast<char>(value));
  }
  return bytes;
}

std::pair<std::string, std::string> CtlCommands::parseSelection(const std::string& text) {
  const size_t slash = text.find('/');
  const std::string group = text.substr(0, slash);
  if (group.empty()) {
    throw UsageError("--select names no group: " + text);
  }
  if (slash == std::string::npos) {
    return {group, ""};
  }
  const std::string key = text.substr(slash + 1);
  if (key.empty()) {
    throw UsageError("--select names no key: " + text + " (GROUP alone is the group without keys)");
  }
  return {group, key};
}

std::string CtlCommands::groupTag(const std::string& name) {
  Facets::KeyGroupRecord_var group = m_client.query()->getKeyGroupRecordByName(name.c_str());
  return group->tag.in();
}

bool CtlCommands::run(const CtlCommandLine& line) {
  const std::string& command = line.command();
  const std::vector<std::string>& operands = line.operands();
  if (command == "status") {
    status();
  } else if (command == "group create") {
    groupCreate(line);
  } else if (command == "group list") {
    Facets::KeyGroupRecordSeq_var groups = m_client.query()->getAllKeyGroupRecords();
    m_printer.groups(groups.in());
  } else if (command == "group show") {
    Facets::KeyGroupRecord_var group =
        m_client.query()->getKeyGroupRecordByName(operands[0].c_str());
    m_printer.group(group.in());
  } else if (command == "group delete") {
    groupDelete(line);
  } else if (command == "group update") {
    groupUpdate(line);
  } else if (command == "key create") {
    keyCreate(line);
  } else if (command == "key list") {
    const std::string tag = groupTag(operands[0]);
    Facets::KeyRecordSeq_var keys = m_client.query()->getAllKeyRecordsInGroup(tag.c_str());
    m_printer.keys(keys.in());
  } else if (command == "key show") {
    const std::string tag = groupTag(operands[0]);
    Facets::KeyRecord_var key =
        m_client.query()->getKeyRecordByName(tag.c_str(), operands[1].c_str());
    m_printer.key(key.in());
  } else if (command == "key active") {
    const std::string tag = groupTag(operands[0]);
    Facets::KeyRecord_var key = m_client.query()->getActiveKeyRecord(tag.c_str());
    m_printer.key(key.in());
  } else if (command == "key delete") {
    keyDelete(line);
  } else if (command == "key update") {
    keyUpdate(line);
  } else if (command == "key get") {
    Facets::KeyRecord_var key = m_client.query()->getKey(lower(operands[0]).c_str());
    m_printer.key(key.in());
  } else if (command == "key recover") {
    keyRecover(line);
  } else if (command == "kad get") {
    kadGet(line);
  } else if (command == "kad find") {
    kadFind(line);
  } else if (command == "quiesce") {
    m_printer.quiesceCount(m_client.control()->quiesce());
  } else if (command == "unquiesce") {
    m_printer.quiesceCount(m_client.control()->unquiesce(line.has("--force")));
  } else if (command == "rotate-hmk") {
    rotate(line, true);
  } else if (command == "rotate-kpk") {
    rotate(line, false);
  } else if (command == "export") {
    return exportStore(line);
  } else if (command == "import") {
    return importStore(line);
  } else {
    throw UsageError("unknown command " + command);
  }
  return true;
}

void CtlCommands::status() {
  CtlStatus status;
  status.quiesceCount = m_client.control()->isQuiesced();
  const Facets::KeyStoreStats stats = m_client.query()->getKeyStoreStats();
  status.numKeyGroups = stats.numKeyGroups;
  status.numKeys = stats.numKeys;
  CORBA::String_var hmkId = m_client.control()->getHMKId();
  CORBA::String_var kpkId = m_client.control()->getKPKId();
  status.hmkId = hmkId.in();
  status.kpkId = kpkId.in();
  m_printer.status(status);
}

void CtlCommands::groupCreate(const CtlCommandLine& line) {
  const long cipher = parseCipher(line.value("--cipher"));
  Facets::KeyGroupRecord_var record = m_client.modify()->getNewKeyGroup();
  record->name = line.operands()[0].c_str();
  record->type = cipher;
  record->description = line.value("--description").c_str();
  Facets::KeyGroupRecord_var created = m_client.modify()->createKeyGroup(record.in());
  m_printer.group(created.in());
}

void CtlCommands::groupUpdate(const CtlCommandLine& line) {
  // The record as stored: its times and revision are the lock of the update.
  Facets::KeyGroupRecord_var record =
      m_client.query()->getKeyGroupRecordByName(line.operands()[0].c_str());
  if (line.has("--new-name")) {
    record->name = line.value("--new-name").c_str();
  }
  if (line.has("--description")) {
    record->description = line.value("--description").c_str();
  }
  Facets::KeyGroupRecord_var updated = m_client.modify()->updateKeyGroup(record.in());
  m_printer.group(updated.in());
}

void CtlCommands::groupDelete(const CtlCommandLine& line) {
  const std::string& name = line.operands()[0];
  const std::string tag = groupTag(name);
  m_client.modify()->deleteKeyGroup(tag.c_str(), line.has("--force"));
  m_printer.done("Deleted key group " + name);
}

void CtlCommands::keyCreate(const CtlCommandLine& line) {
  const long state = line.has("--state") ? parseState(line.value("--state")) : kKeyActive;
  if (state != kKeyActive && state != kKeyPrelive) {
    throw UsageError("a new key is active or prelive");
  }
  const Secret passphrase =
      PassphraseReader::read(line.value("--passphrase-file"), PassphraseReader::kOptional,
                             "Passphrase of the key (empty for a random key): ", true);
  const std::string tag = groupTag(line.operands()[0]);
  Facets::KeyRecord_var record = m_client.modify()->getNewKey();
  record->name = line.operands()[1].c_str();
  record->keyGroup = tag.c_str();
  record->state = state;
  record->kpkType = kKpkLocal;
  record->description = line.value("--description").c_str();
  Facets::KeyRecord_var created = m_client.modify()->createKey(passphrase.c_str(), record.in());
  m_printer.key(created.in());
}

void CtlCommands::keyUpdate(const CtlCommandLine& line) {
  const long state = line.has("--state") ? parseState(line.value("--state")) : -1;
  const std::string tag = groupTag(line.operands()[0]);
  // The record as stored: its times and revision are the lock of the update.
  Facets::KeyRecord_var record =
      m_client.query()->getKeyRecordByName(tag.c_str(), line.operands()[1].c_str());
  if (state >= 0) {
    record->state = state;
  }
  if (line.has("--new-name")) {
    record->name = line.value("--new-name").c_str();
  }
  if (line.has("--description")) {
    record->description = line.value("--description").c_str();
  }
  if (line.has("--move-to")) {
    record->keyGroup = groupTag(line.value("--move-to")).c_str();
  }
  Facets::KeyRecord_var updated = m_client.modify()->updateKey(record.in());
  m_printer.key(updated.in());
}

void CtlCommands::keyDelete(const CtlCommandLine& line) {
  const std::string tag = groupTag(line.operands()[0]);
  Facets::KeyRecord_var record =
      m_client.query()->getKeyRecordByName(tag.c_str(), line.operands()[1].c_str());
  m_client.modify()->deleteKey(record->tag.in());
  m_printer.done("Deleted key " + line.operands()[1]);
}

void CtlCommands::keyRecover(const CtlCommandLine& line) {
  const std::string tag = lower(line.value("--tag"));
  parseHex(tag, "--tag");
  std::string salt;
  if (line.has("--salt")) {
    salt = lower(line.value("--salt"));
    parseHex(salt, "--salt");
  }
  const Secret passphrase =
      PassphraseReader::read(line.value("--passphrase-file"), PassphraseReader::kRequired,
                             "Passphrase of the key: ", false);
  const std::string group = groupTag(line.operands()[0]);
  Facets::KeyRecord_var record = m_client.modify()->getNewKey();
  record->name = line.operands()[1].c_str();
  record->keyGroup = group.c_str();
  record->tag = tag.c_str();
  // A key comes back inactive; it is made active by an update.
  record->state = kKeyInactive;
  record->kpkType = kKpkLocal;
  if (!salt.empty()) {
    const CORBA::ULong count = record->attributeList.length();
    record->attributeList.length(count + 1);
    record->attributeList[count].name = "KEY_SALT";
    record->attributeList[count].value = salt.c_str();
  }
  Facets::KeyRecord_var recovered = m_client.modify()->recoverKey(passphrase.c_str(), record.in());
  m_printer.key(recovered.in());
}

void CtlCommands::kadGet(const CtlCommandLine& line) {
  const long length = parseNumber(line.operands()[1], "LENGTH");
  if (length < 0 || length > 4096) {
    throw UsageError("LENGTH must lie between 0 and 4096");
  }
  Facets::KeyRecord_var record;
  Fw::octetSeq_var kad;
  const CORBA::Long result = m_client.query()->getKeyAndKad(
      lower(line.operands()[0]).c_str(), static_cast<CORBA::Long>(length), record.out(), kad.out());
  m_printer.kad(result, kad.in(), record.in());
}

void CtlCommands::kadFind(const CtlCommandLine& line) {
  const std::string bytes = parseHex(line.operands()[0], "KADHEX");
  Fw::octetSeq kad;
  kad.length(static_cast<CORBA::ULong>(bytes.size()));
  for (CORBA::ULong i = 0; i < kad.length(); ++i) {
    kad[i] = static_cast<CORBA::Octet>(bytes[i]);
  }
  Facets::KeyRecordSeq_var records;
  const CORBA::Long result = m_client.query()->getKeyRecordsByKad(kad, records.out());
  m_printer.kadMatches(result, records.in());
}

void CtlCommands::rotate(const CtlCommandLine& line, bool hmk) {
  const std::string id = line.value("--id");
  if (id.empty()) {
    throw UsageError("--id needs a value");
  }
  const Secret passphrase =
      PassphraseReader::read(line.value("--passphrase-file"), PassphraseReader::kOptional,
                             hmk ? "New HMK passphrase (empty for a random key): "
                                 : "New KPK passphrase (empty for a random key): ",
                             true);
  if (hmk) {
    m_client.control()->updateHMK(passphrase.c_str(), id.c_str());
    m_printer.done("HMK changed; its id is " + id);
  } else {
    m_client.control()->updateKPK(passphrase.c_str(), id.c_str());
    m_printer.done("KPK changed; its id is " + id);
  }
}

bool CtlCommands::exportStore(const CtlCommandLine& line) {
  Facets::ExportKeyListSeq selection;
  for (const std::string& text : line.values("--select")) {
    const std::pair<std::string, std::string> pair = parseSelection(text);
    const CORBA::ULong at = selection.length();
    selection.length(at + 1);
    selection[at].kgname = pair.first.c_str();
    selection[at].keyname = pair.second.c_str();
  }
  const Secret passphrase =
      PassphraseReader::read(line.value("--passphrase-file"), PassphraseReader::kRequired,
                             "Passphrase of the export: ", true);
  if (passphrase.str().empty()) {
    throw UsageError("the passphrase of an export must not be empty");
  }
  // Made before the service is asked, so that a directory that cannot take
  // the file costs no export.
  CtlExportFile file(line.operands()[0]);
  Fw::octetSeq_var data;
  Facets::KSOpStatus_var status =
      m_client.query()->exportKS(selection, passphrase.c_str(), data.out());
  if (status->error_code == 0) {
    file.commit(data->get_buffer(), data->length());
  }
  m_printer.opStatus(status.in());
  return status->error_code == 0;
}

bool CtlCommands::importStore(const CtlCommandLine& line) {
  const std::string& path = line.operands()[0];
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    throw UsageError("cannot read the export file " + path + ": " + std::strerror(errno));
  }
  const std::string content((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (in.bad()) {
    throw UsageError("cannot read the export file " + path);
  }
  const Secret passphrase =
      PassphraseReader::read(line.value("--passphrase-file"), PassphraseReader::kRequired,
                             "Passphrase of the export: ", false);
  Fw::octetSeq data;
  data.length(static_cast<CORBA::ULong>(content.size()));
  std::copy(content.begin(), content.end(), data.get_buffer());
  Facets::KSOpStatus_var status =
      m_client.modify()->importKS(data, passphrase.c_str(), line.has("--preserve-names"),
                                  line.has("--preview"), line.value("--description").c_str());
  m_printer.opStatus(status.in());
  return status->error_code == 0;
}

}  // namespace KMSCtl
}  // namespace DL
}  // namespace Vaultrest
