// Entry point of vrkms. With an administrator option the process runs one
// operation on the store files and exits; with no option (or with one of the
// framework's "-console" and "-terminate") it becomes the service, once the
// start gates have let it.
#include <sys/stat.h>

#include <ace/Arg_Shifter.h>

#include <ace/Service_Config.h>

#include <cerrno>
#include <cstdlib>
#include <list>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "kms/platform/Fips.h"
#include "kms/platform/ProcessAccount.h"
#include "kms/platform/Tracer.h"
#include "kms/platform/VRLogFactory.h"
#include "kms/platform/VrConfReader.h"
#include "kms/platform/framework/StartServiceContainer.h"
#include "kms/platform/framework/SystemdNotifier.h"
#include "kms/server/CommandLine.h"
#include "kms/server/KMSMgrService.h"
#include "kms/server/KMSServiceContainer.h"
#include "kms/server/KMSSpecialOps.h"
#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/Messages.h"
#include "kms/server/diagnostics/StatusCodes.h"
#include "kms/server/keystore/store/FileKeyStore.h"

using namespace Vaultrest::DL::KMS;
using Ardentis::Vaultrest::TL::Framework::ServiceContainerOptions;
using Ardentis::Vaultrest::TL::Framework::startServiceContainer;
using Ardentis::Vaultrest::TL::Framework::SystemdNotifier;

namespace {

constexpr int kOriginator = 286;
constexpr int kLibraryOriginator = 137;

constexpr int kMsgNotMasterServer = 30;
constexpr int kMsgAlreadyRunning = 31;
constexpr int kMsgInactiveClusterNode = 86;
constexpr int kMsgNoServiceContainer = 88;

// How long "-terminate" waits for the running service to end.
constexpr int kStopTimeoutSeconds = 10;

constexpr int kMsgCreatedWithPassphrases = 95;
constexpr int kMsgHmkReset = 96;
constexpr int kMsgKpkReset = 97;
constexpr int kMsgCreatedFromRandomKeys = 98;

// Whole-word, case-ignoring match of the current argument.
bool isOption(ACE_Arg_Shifter_T<char>& shifter, const char* option) {
  return shifter.cur_arg_strncasecmp(option) == 0;
}

// Reports the result of a changing operation, prints `advice` when it
// succeeded, and ends the process.
template <typename Advice>
[[noreturn]] void finishOperation(int result, Advice&& advice) {
  const int exitStatus = kmsStatus(result);
  if (exitStatus == 0) {
    advice();
  }
  kmsExit(exitStatus);
}

// A start gate's refusal: logged, and no failure of the process. Under
// systemd the message is also the unit's status line, so that `systemctl
// status` says why the service is not running.
void logStartRefused(int messageId) {
  logAppMessage("vrkms_main", CRVN_SEV_ERROR, messageId);
  try {
    SystemdNotifier::status(GetCxULMessageEx(kOriginator, messageId));
  } catch (...) {
    SystemdNotifier::status("vrkms: start refused (" + std::to_string(kOriginator) + "-" +
                            std::to_string(messageId) + ")");
  }
}

// Sets up the loggers, the process's protections, the configuration and the FIPS flag.
void prepareProcess(int argc, char** argv) {
  // Both lives of the process hold master keys and passphrases in memory
  // (and a passphrase may stand in argv until the operation has read it):
  // no core file and no dumping, before anything else is looked at.
  if (protect_process_memory() != 0) {
    KMS_DEBUG("vrkms_main", 1, "Cannot keep the process from being dumped, errno " << errno);
  }

  {
    // The shifter rearranges the vector it walks; argv stays untouched for
    // the real one below.
    std::vector<char*> scratch(argv, argv + argc);
    scratch.push_back(nullptr);
    logCommand(argc, scratch.data());
  }

  VRLogger::RedirectLegacyLogToVRLogger();
  VR_read_master_config();

  // The flag follows the configuration; the log line reports the library's
  // own state. The library's mode is never switched here.
  FileKeyStore::g_fips_mode_disabled = getFIPSModeForProcess("vrkms") == 0;
  if (FIPS_mode() != 0) {
    KMS_DEBUG("vrkms_main", 1, "FIPS mode ENABLED");
  } else {
    KMS_DEBUG("vrkms_main", 1, "FIPS mode DISABLED in configuration");
  }

  umask(077);
  enable_process_for_service_account();
}

// Runs the administrator operation the first argument names (and ends the process), or
// keeps a framework option for the service; returns whether to check for a running service.
bool runOptionOrKeepFrameworkOption(ACE_Arg_Shifter_T<char>& shifter) {
  // Only the first argument is looked at. Whatever follows it is left to the
  // operation that reads it, or dropped: the shifter keeps only what it is
  // told to keep.
  if (!shifter.is_anything_left()) {
    return true;
  }
  if (shifter.get_current()[0] != '-') {
    printKmsUsage();
    std::exit(0);
  } else if (isOption(shifter, "-terminate")) {
    shifter.ignore_arg(1);
    return false;
  } else if (isOption(shifter, "-console")) {
    shifter.ignore_arg(1);
  } else if (isOption(shifter, "-createemptydb")) {
    shifter.consume_arg(1);
    finishOperation(KMSSpecialOps::createEmptyDB(shifter), [] {
      kmsPromptCheckMessage();
      printOperationAdvice(KMSSpecialOps::getIsRandom() ? kMsgCreatedFromRandomKeys
                                                        : kMsgCreatedWithPassphrases);
    });
  } else if (isOption(shifter, "-resethmk")) {
    shifter.consume_arg(1);
    finishOperation(KMSSpecialOps::resetHmk(shifter), [] { printOperationAdvice(kMsgHmkReset); });
  } else if (isOption(shifter, "-resetkpk")) {
    shifter.consume_arg(1);
    finishOperation(KMSSpecialOps::resetKpk(shifter), [] { printOperationAdvice(kMsgKpkReset); });
  } else if (isOption(shifter, "-info")) {
    // Words after "-info" are not looked at.
    finishOperation(KMSSpecialOps::info(), [] {});
  } else if (isOption(shifter, "-help") || isOption(shifter, "-h")) {
    printKmsUsage();
    std::exit(0);
  } else {
    // An unknown option is taken as a request for help.
    printKmsUsage();
    std::exit(0);
  }
  return true;
}

// Whether the start gates let the service start; a refusal is logged.
bool startAllowed(bool checkRunningService) {
  if (checkRunningService && KMSSpecialOps::serviceAlreadyRunning()) {
    logStartRefused(kMsgAlreadyRunning);
    return false;
  }
  if (KMSSpecialOps::onInactiveClusterNode()) {
    logStartRefused(kMsgInactiveClusterNode);
    return false;
  }
  if (!KMSSpecialOps::onMasterServer()) {
    logStartRefused(kMsgNotMasterServer);
    return false;
  }
  return true;
}

// Runs the service in its container until it stops; returns the process's exit status.
int runService(int argc, char** argv) {
  // The service. The framework processes the directive once its ORB runs;
  // the descriptor must be known to the service configurator before that.
  // (There is no ORB resource factory descriptor to process on this ORB:
  // omniORB configures itself, so only the service's own descriptor is.)
  std::list<std::string> directives{"static KMSMgrService"};
  ACE_Service_Config::current()->process_directive(ace_svc_desc_KMSMgrService, false);

  std::unique_ptr<KMSServiceContainer> container(
      new (std::nothrow) KMSServiceContainer(false, "vrkms", kOriginator, directives,
                                             kStopTimeoutSeconds, ServiceContainerOptions{0}, ""));
  if (container == nullptr) {
    logAppMessage("vrkms_main", CRVN_SEV_ERROR, kMsgNoServiceContainer);
    return 1;
  }
  // The manager reads the version each peer sends from the per-thread
  // record of its request.
  container->getOrb()->m_useTSSResources = true;

  // argc is what the shifter kept: the program name and a framework option.
  const int result =
      startServiceContainer(container.get(), argc, argv, kOriginator, false, false, "");
  KMS_DEBUG("vrkms_main", 1, "startServiceContainer returned " << result);
  return result;
}

}  // namespace

int main(int argc, char** argv) {
  VRLogFactory* factory = VRLogFactory::Instance();
  VRLogger::s_default = factory->getLogger(kOriginator, true);
  VRLogger::s_defaultLib = factory->getLogger(kLibraryOriginator, false);

  Tracer tracer(VRLogger::s_default, nullptr, "vrkms_main", __FILE__, __LINE__);
  prepareProcess(argc, argv);

  ACE_Arg_Shifter_T<char> shifter(argc, argv);
  shifter.ignore_arg(1);
  const bool checkRunningService = runOptionOrKeepFrameworkOption(shifter);
  if (!startAllowed(checkRunningService)) {
    return 0;
  }
  return runService(argc, argv);
}
