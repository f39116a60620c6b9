#include "kms/server/KMSSpecialOps.h"

#include <strings.h>

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "kms/platform/CrvnLis.h"
#include "kms/platform/HostCheck.h"
#include "kms/platform/InstallRoot.h"
#include "kms/platform/ProcessAccount.h"
#include "kms/platform/ProcessHandler.h"
#include "kms/platform/Secret.h"
#include "kms/platform/SecureFGets.h"
#include "kms/platform/VrConfReader.h"
#include "kms/server/AdminFlags.h"
#include "kms/server/diagnostics/ErrorMapping.h"
#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/Messages.h"
#include "kms/server/diagnostics/StatusCodes.h"
#include "kms/server/keystore/files/KMSFileLocator.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

namespace {

using CmnCrypto::Secret;

// A passphrase given on the command line, copied into a Secret of its own;
// empty when none was given.
Secret copyOf(const std::optional<Secret>& given) {
  return Secret(given ? std::string(given->str()) : std::string());
}

constexpr int kThisProgram = 286;

// Refusals of setupEnv.

// Refusals of the operations.

// Messages of this program.
constexpr int kMsgPassphraseAgain = 2;
constexpr int kMsgPassphrasesDiffer = 3;
constexpr int kMsgPassphrase = 4;
constexpr int kMsgAboutHmk = 5;
constexpr int kMsgEmptyHmkId = 6;
constexpr int kMsgKpkPassphrasePrompt = 7;
constexpr int kMsgAboutKpk = 8;
constexpr int kMsgEmptyKpkId = 9;
constexpr int kMsgRandomKpkQuestion = 10;
constexpr int kMsgAnswerYesOrNo = 11;
constexpr int kMsgHmkPassphrasePrompt = 1;
constexpr int kMsgRandomHmkQuestion = 12;
constexpr int kMsgOverwriteStore = 13;
constexpr int kMsgHmkIdPrompt = 14;
constexpr int kMsgKpkIdPrompt = 15;
constexpr int kMsgHmkIsRandom = 16;
constexpr int kMsgOverwriteHmkFile = 17;
constexpr int kMsgEmptyPassphrase = 18;
constexpr int kMsgHmkResetPrompt = 19;
constexpr int kMsgKpkIsRandom = 20;
constexpr int kMsgOverwriteKpkFile = 21;
constexpr int kMsgKpkResetPrompt = 22;
constexpr int kMsgKeyInfoHeading = 23;
constexpr int kMsgKeyId = 24;
constexpr int kMsgYes = 25;
constexpr int kMsgNo = 26;
constexpr int kMsgAlgorithm = 27;
constexpr int kMsgHmkHeading = 28;
constexpr int kMsgKpkHeading = 29;
constexpr int kMsgNoMasterServer = 32;
constexpr int kMsgStoreNotCreated = 37;
constexpr int kMsgKeyRandom = 65;
constexpr int kMsgNoGoodHmkFile = 85;
constexpr int kMsgKeyFips = 92;
constexpr int kMsgFipsUnavailable = 93;

// The store refuses every operation in a process asked for FIPS mode that
// the crypto library cannot give.

// Codes each operation passes on unchanged; every other failure is 1200.
const ErrorMap kSetupErrors{{1295}, {}};
const ErrorMap kCreateErrors{{1269}, {}};
const ErrorMap kResetHmkErrors{{1269, 1204, 1203, 1210, 1207}, {}};
const ErrorMap kResetKpkErrors{{1269, 1204, 1203, 1210, 1207, 1248}, {}};
const ErrorMap kInfoErrors{{1269, 1204, 1210, 1207}, {}};

// --- Terminal dialogue. Throws 1269 when the catalogue fails. ---

std::string text(int messageId) {
  return GetCxULMessageEx(kThisProgram, messageId);
}

// Message `messageId` with one text argument.
std::string text(int messageId, const std::string& argument) {
  crvnLis lis;
  const crvnLisResult_t result = crvnLisBuild(&lis, messageId, "%s", argument.c_str());
  return GetCxULMessageBottom(kThisProgram, messageId, result, &lis);
}

std::string yesNo(bool value) {
  return text(value ? kMsgYes : kMsgNo);
}

// A message on a line of its own.
void say(int messageId) {
  std::cout << text(messageId) << std::endl;
}

// A prompt; the answer follows on the same line.
void prompt(int messageId) {
  std::cout << text(messageId) << " : " << std::flush;
}

// Whether the standard input has nothing more to give.
bool inputEnded() {
  return std::feof(stdin) != 0 || std::ferror(stdin) != 0;
}

int inputEndedStatus(const char* label) {
  KMS_DEBUG(label, 1, "Standard input ended before an answer was given");
  return EC_KS_internal_error;
}

// Asks question `questionId` until the answer is "yes" or "no" (any case).
// 0 with `yes` set, or 1200 when the input ends.
int askYesNo(int questionId, bool& yes) {
  for (;;) {
    prompt(questionId);
    const std::string answer = KMSSpecialOps::myGetLine();
    if (strcasecmp(answer.c_str(), "yes") == 0 || strcasecmp(answer.c_str(), "no") == 0) {
      yes = strcasecmp(answer.c_str(), "yes") == 0;
      return EC_KS_success;
    }
    if (inputEnded()) {
      return inputEndedStatus("KMSSpecialOps::askYesNo");
    }
    say(kMsgAnswerYesOrNo);
  }
}

// The answer given in advance by a flag, or else the operator's.
int decide(const std::optional<bool>& given, int questionId, bool& yes) {
  if (given) {
    yes = *given;
    return EC_KS_success;
  }
  return askYesNo(questionId, yes);
}

// Asks for a master key id until one is given (message `emptyId` after an
// empty answer). 0, or 1200 when the input ends.
int askId(int promptId, int emptyId, std::string& id) {
  for (;;) {
    prompt(promptId);
    id = KMSSpecialOps::myGetLine();
    if (!id.empty()) {
      return EC_KS_success;
    }
    if (inputEnded()) {
      return inputEndedStatus("KMSSpecialOps::askId");
    }
    say(emptyId);
  }
}

// One entry of a passphrase into `buffer` (KS_MAX_PASS_LEN bytes), without
// its line end. False when the input ends.
bool readPassphrase(int promptId, char* buffer) {
  prompt(promptId);
  if (SecureFGets(buffer, KMSSpecialOps::KS_MAX_PASS_LEN - 1, stdin) == nullptr) {
    return false;
  }
  std::cout << std::endl;  // the reader does not echo the line end
  const size_t length = std::strlen(buffer);
  if (length > 0 && buffer[length - 1] == '\n') {
    buffer[length - 1] = '\0';
  }
  return true;
}

// An operation that does not pass 1286 on reports it as the internal error,
// whose text says nothing of the cause: the operator is told it here.
void explainFipsRefusal(const ErrorMap& errors, int status) {
  if (status != EC_KS_fips_unavailable || translatedCode(errors, status) == status) {
    return;
  }
  try {
    say(kMsgFipsUnavailable);
  } catch (const KeyStoreError&) {
    // No catalogue: the status text alone.
  }
}

// Runs `body` on a store made by setupEnv, as the operation `label`.
template <typename Body>
int runOperation(const char* label, const ErrorMap& errors, Body&& body) {
  const int status = KMSSpecialOps::setupEnv();
  if (status != EC_KS_success) {
    return status;
  }
  return statusOf(label, errors, [&] {
    try {
      return body();
    } catch (const KeyStoreError& error) {
      explainFipsRefusal(errors, error.status());
      throw;
    }
  });
}

}  // namespace

bool KMSSpecialOps::isRandomPassphrase = false;
std::unique_ptr<FileKeyStore> KMSSpecialOps::m_ks;

int KMSSpecialOps::setupEnv() {
  static const char* const kLabel = "KMSSpecialOps::setupEnv";
  KMS_TRACE(kLabel);
  std::setlocale(LC_ALL, "");
  if (!is_user_admin()) {
    KMS_DEBUG(kLabel, 1, "The caller is no administrator");
    return EC_KS_not_administrator;
  }
  if (serviceAlreadyRunning()) {
    KMS_DEBUG(kLabel, 1, "The key management service is running");
    return EC_KS_service_running;
  }
  if (onInactiveClusterNode()) {
    KMS_DEBUG(kLabel, 1, "This host is an inactive cluster node");
    return EC_KS_inactive_cluster_node;
  }
  if (!onMasterServer()) {
    KMS_DEBUG(kLabel, 1, "This host is not the master server");
    return EC_KS_not_master_server;
  }
  const int status = statusOf(kLabel, kSetupErrors, [] {
    const KMSFileLocator locator;
    // A store that others could change is refused before any operation
    // reads or writes it.
    locator.requireTrusted();
    m_ks.reset(new FileKeyStore(locator));
    return EC_KS_success;
  });
  if (status != EC_KS_success) {
    logAppMessage(kLabel, CRVN_SEV_ERROR, kMsgStoreNotCreated);
  }
  return status;
}

int KMSSpecialOps::createEmptyDB(ACE_Arg_Shifter_T<char>& shifter) {
  static const char* const kLabel = "KMSSpecialOps::createEmptyDB";
  KMS_TRACE(kLabel);
  return runOperation(kLabel, kCreateErrors, [&shifter]() -> int {
    AdminFlags flags;
    int status = flags.parse(shifter, AdminFlags::kCreateEmptyDB);
    if (status != EC_KS_success) {
      return status;
    }
    if (flags.randomRequested()) {
      setIsRandom(true);
    }
    KeyStore& store = *m_ks;

    // createEmpty would delete an existing store before refusing it: ask
    // first.
    bool exists = false;
    status = store.dbExists(exists);
    if (status != EC_KS_success) {
      return status;
    }
    if (exists) {
      bool overwrite = false;
      status = decide(flags.overwrite(), kMsgOverwriteStore, overwrite);
      if (status != EC_KS_success) {
        return status;
      }
      if (!overwrite) {
        return EC_KS_store_exists;
      }
    }

    Secret hmkPassphrase(copyOf(flags.hmkPassphrase()));
    Secret kpkPassphrase(copyOf(flags.kpkPassphrase()));
    std::string hmkId = flags.hmkId().value_or("");
    std::string kpkId = flags.kpkId().value_or("");

    if (!flags.hmkPassphrase() || !flags.hmkId()) {
      say(kMsgAboutHmk);
    }
    if (!flags.hmkPassphrase()) {
      status = getPassphrase(hmkPassphrase, kMsgHmkPassphrasePrompt, true, kMsgRandomHmkQuestion);
      if (status != EC_KS_success) {
        return status;
      }
    }
    if (!flags.hmkId()) {
      status = askId(kMsgHmkIdPrompt, kMsgEmptyHmkId, hmkId);
      if (status != EC_KS_success) {
        return status;
      }
    }
    if (!flags.kpkPassphrase() || !flags.kpkId()) {
      say(kMsgAboutKpk);
    }
    if (!flags.kpkPassphrase()) {
      status = getPassphrase(kpkPassphrase, kMsgKpkPassphrasePrompt, true, kMsgRandomKpkQuestion);
      if (status != EC_KS_success) {
        return status;
      }
    }
    if (!flags.kpkId()) {
      status = askId(kMsgKpkIdPrompt, kMsgEmptyKpkId, kpkId);
      if (status != EC_KS_success) {
        return status;
      }
    }
    return store.createEmpty(hmkPassphrase.str(), hmkId, kpkPassphrase.str(), kpkId, true);
  });
}

// What differs between resetting the HMK file and the KPK file.
struct KMSSpecialOps::MasterKeyReset {
  const char* label;
  const ErrorMap& errors;
  AdminFlags::Operation operation;
  // The KPK file is remade under the HMK, so that one must be there.
  bool needsHmkFile;
  KeyInfo (KeyStore::*info)();
  int randomQuestion;
  int randomRefused;
  bool (KeyStore::*goodFileExists)();
  int overwriteQuestion;
  int overwriteRefused;
  const std::optional<Secret>& (AdminFlags::*passphrase)() const;
  int prompt;
  int (KeyStore::*createFile)(const std::string& passphrase, bool overwrite, bool refuseRandom);
};

const KMSSpecialOps::MasterKeyReset KMSSpecialOps::kHmkReset = {
    "KMSSpecialOps::resetHmk",  kResetHmkErrors,
    AdminFlags::kResetHmk,      false,
    &KeyStore::getHMKInfo,      kMsgHmkIsRandom,
    EC_KS_random_hmk,           &KeyStore::goodHMKFileExists,
    kMsgOverwriteHmkFile,       EC_KS_hmk_file_exists,
    &AdminFlags::hmkPassphrase, kMsgHmkResetPrompt,
    &KeyStore::createHMKFile};

const KMSSpecialOps::MasterKeyReset KMSSpecialOps::kKpkReset = {
    "KMSSpecialOps::resetKpk",  kResetKpkErrors,
    AdminFlags::kResetKpk,      true,
    &KeyStore::getKPKInfo,      kMsgKpkIsRandom,
    EC_KS_random_kpk,           &KeyStore::goodKPKFileExists,
    kMsgOverwriteKpkFile,       EC_KS_kpk_file_exists,
    &AdminFlags::kpkPassphrase, kMsgKpkResetPrompt,
    &KeyStore::createKPKFile};

int KMSSpecialOps::resetHmk(ACE_Arg_Shifter_T<char>& shifter) {
  return resetMasterKey(shifter, kHmkReset);
}

int KMSSpecialOps::resetKpk(ACE_Arg_Shifter_T<char>& shifter) {
  return resetMasterKey(shifter, kKpkReset);
}

int KMSSpecialOps::resetMasterKey(ACE_Arg_Shifter_T<char>& shifter, const MasterKeyReset& kind) {
  KMS_TRACE(kind.label);
  return runOperation(kind.label, kind.errors, [&shifter, &kind]() -> int {
    AdminFlags flags;
    int status = flags.parse(shifter, kind.operation);
    if (status != EC_KS_success) {
      return status;
    }
    KeyStore& store = *m_ks;

    if (kind.needsHmkFile && !store.goodHMKFileExists()) {
      say(kMsgNoGoodHmkFile);
      return EC_KS_wrong_hmk;
    }
    bool goOn = true;
    if ((store.*kind.info)().random) {
      status = decide(flags.ignoreRandom(), kind.randomQuestion, goOn);
      if (status != EC_KS_success) {
        return status;
      }
      if (!goOn) {
        return kind.randomRefused;
      }
    }
    if ((store.*kind.goodFileExists)()) {
      status = decide(flags.overwrite(), kind.overwriteQuestion, goOn);
      if (status != EC_KS_success) {
        return status;
      }
      if (!goOn) {
        return kind.overwriteRefused;
      }
    }

    const std::optional<Secret>& given = (flags.*kind.passphrase)();
    Secret passphrase(copyOf(given));
    if (!given) {
      status = getPassphrase(passphrase, kind.prompt, false, 0);
      if (status != EC_KS_success) {
        return status;
      }
    }
    return (store.*kind.createFile)(passphrase.str(), true, false);
  });
}

int KMSSpecialOps::info() {
  static const char* const kLabel = "KMSSpecialOps::info";
  KMS_TRACE(kLabel);
  return runOperation(kLabel, kInfoErrors, []() -> int {
    KeyStore& store = *m_ks;
    const KeyInfo hmk = store.getHMKInfo();
    const KeyInfo kpk = store.getKPKInfo();
    say(kMsgHmkHeading);
    displayKeyInfo(hmk);
    say(kMsgKpkHeading);
    displayKeyInfo(kpk);
    return EC_KS_success;
  });
}

int KMSSpecialOps::getPassphrase(Secret& out, int promptId, bool allowEmpty, int emptyQuestionId) {
  static const char* const kLabel = "KMSSpecialOps::getPassphrase";
  KMS_TRACE(kLabel);
  Secret firstEntry(KS_MAX_PASS_LEN);
  Secret secondEntry(KS_MAX_PASS_LEN);
  char* const first = firstEntry.data();
  char* const second = secondEntry.data();

  say(promptId);
  for (;;) {
    if (!readPassphrase(kMsgPassphrase, first) || !readPassphrase(kMsgPassphraseAgain, second)) {
      return inputEndedStatus(kLabel);
    }
    const size_t length = std::strlen(first);
    if (length != std::strlen(second) || std::strncmp(first, second, length) != 0) {
      say(kMsgPassphrasesDiffer);
      continue;
    }
    if (length > 0) {
      out = Secret(std::string(first, length));
      return EC_KS_success;
    }
    if (!allowEmpty) {
      say(kMsgEmptyPassphrase);
      continue;
    }
    bool useRandom = false;
    const int status = askYesNo(emptyQuestionId, useRandom);
    if (status != EC_KS_success) {
      return status;
    }
    // Either answer counts: a "no" followed by a real passphrase still
    // leaves the keys reported as random.
    setIsRandom(true);
    if (useRandom) {
      out = Secret();
      return EC_KS_success;
    }
  }
}

void KMSSpecialOps::displayKeyInfo(const KeyInfo& info) {
  KMS_TRACE("KMSSpecialOps::displayKeyInfo");
  std::cout << "\t" << text(kMsgKeyInfoHeading) << "\n"
            << "\t" << text(kMsgKeyId) << info.id << "\n"
            << "\t" << text(kMsgKeyRandom, yesNo(info.random)) << "\n"
            << "\t" << text(kMsgAlgorithm) << KSCrypt::cryptTypeToString(info.algorithm) << "\n"
            << "\t" << text(kMsgKeyFips, yesNo(info.fips)) << std::endl;
}

std::string KMSSpecialOps::myGetLine() {
  std::string line;
  for (int c = std::getchar(); c != EOF && c != '\n'; c = std::getchar()) {
    line.push_back(static_cast<char>(c));
  }
  return line;
}

int KMSSpecialOps::createMyDACL() {
  return EC_KS_success;
}

bool KMSSpecialOps::serviceAlreadyRunning() {
  KMS_TRACE("KMSSpecialOps::serviceAlreadyRunning");
  ProcessHandler handler("vrkms");
  return !handler.getProcessIDs().empty();
}

bool KMSSpecialOps::onInactiveClusterNode() {
  KMS_TRACE("KMSSpecialOps::onInactiveClusterNode");
  const std::string utility = InstallRoot::path("vaultrest/bin") + "/" + "vrclusterutil";
  const std::string redirect = " 1>/dev/null 2>&1";
  // The raw results are used on purpose: the first command answers "cluster"
  // with a non-zero result, the second answers "inactive" with 0. A missing
  // utility makes both non-zero: a cluster whose node is not inactive.
  const auto runLogged = [](const std::string& command) {
    const int rc = std::system(command.c_str());
    KMS_DEBUG("KMSSpecialOps::onInactiveClusterNode", 1,
              "COMMAND (" << command << ") returned " << rc);
    return rc;
  };
  if (runLogged(utility + " -np -iscluster" + redirect) <= 0) {
    return false;
  }
  return runLogged(utility + " -np -isactive" + redirect) == 0;
}

bool KMSSpecialOps::onMasterServer() {
  KMS_TRACE("KMSSpecialOps::onMasterServer");
  VrConfReader reader;
  // A file that cannot be read names no server, which is refused below.
  (void)reader.read(VR_master_config_path());
  const std::vector<std::string> servers = reader.servers();
  if (!servers.empty()) {
    return vrnet_is_local_host(servers.front().c_str());
  }
  logAppMessage("KMSSpecialOps::onMasterServer", CRVN_SEV_ERROR, kMsgNoMasterServer);
  return false;
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
