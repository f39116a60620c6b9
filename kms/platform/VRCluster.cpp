#include "kms/platform/VRCluster.h"

#include <unistd.h>

#include <sstream>

#include "kms/platform/ChildProgram.h"
#include "kms/platform/InstallRoot.h"

namespace {

// One run of the utility: `ran` is false when it could not be started or
// did not exit normally.
ChildProgramResult runUtility(const std::vector<std::string>& args) {
  const std::string program = VRCluster::utilityPath();
  if (access(program.c_str(), X_OK) != 0) {
    return ChildProgramResult{};
  }
  std::vector<std::string> argv{program};
  argv.insert(argv.end(), args.begin(), args.end());
  return ChildProgram::run(argv);
}

}  // namespace

VRCluster::VRCluster(int /*flags*/) {}

std::string VRCluster::utilityPath() {
  return InstallRoot::path("vaultrest/bin/vrclusterutil");
}

bool VRCluster::isClustered() const {
  const ChildProgramResult result = runUtility({"-np", "-iscluster"});
  return result.ran && result.exitStatus != 0;
}

bool VRCluster::isNodeClustered() const {
  const ChildProgramResult result = runUtility({"-np", "-isnodeclustered"});
  return result.ran && result.exitStatus != 0;
}

int VRCluster::getClusterData(ClusterGroupInfo& info, void* /*reserved*/) const {
  const ChildProgramResult result = runUtility({"-np", "-listmonitored"});
  if (!result.ran || result.exitStatus != 0) {
    return result.ran ? result.exitStatus : -1;
  }
  ClusterGroupInfo fresh;
  std::istringstream lines(result.output);
  std::string line;
  while (std::getline(lines, line)) {
    if (!line.empty() && line.back() == '\r') {
      line.pop_back();
    }
    if (!line.empty()) {
      fresh.monitoredServices.push_back(line);
    }
  }
  info = std::move(fresh);
  return 0;
}

int VRCluster::enableServiceMonitoring(const char* name) const {
  if (name == nullptr || name[0] == '\0') {
    return -1;
  }
  const ChildProgramResult result = runUtility({"-np", "-monitor", name});
  if (!result.ran) {
    return -1;
  }
  return result.exitStatus;
}
