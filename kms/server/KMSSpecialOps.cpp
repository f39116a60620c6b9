#include "kms/server/KMSSpecialOps.h"

#include <cstdlib>
#include <string>
#include <vector>

#include "kms/platform/HostCheck.h"
#include "kms/platform/InstallRoot.h"
#include "kms/platform/ProcessHandler.h"
#include "kms/platform/VrConfReader.h"
#include "kms/server/diagnostics/Log.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

namespace {

constexpr int kMsgNoMasterServer = 32;

// Runs `command` through the shell and logs its raw result.
int runLogged(const std::string& command) {
  const int rc = std::system(command.c_str());
  KMS_DEBUG("KMSSpecialOps::onInactiveClusterNode", 1,
            "COMMAND (" << command << ") returned " << rc);
  return rc;
}

}  // namespace

bool KMSSpecialOps::isRandomPassphrase = false;

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
  if (runLogged(utility + " -np -iscluster" + redirect) <= 0) {
    return false;
  }
  return runLogged(utility + " -np -isactive" + redirect) == 0;
}

bool KMSSpecialOps::onMasterServer() {
  KMS_TRACE("KMSSpecialOps::onMasterServer");
  VrConfReader reader;
  reader.read(VR_master_config_path());
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
