// The product's cluster interface, over the program
// "$VREST_ROOT/vaultrest/bin/vrclusterutil". Each call runs the program once
// and waits for it; nothing is cached.
//
// The program's contract, as used here:
//   -np -iscluster         exit status non-zero: the installation is clustered
//   -np -isnodeclustered   exit status non-zero: this node belongs to a cluster
//   -np -listmonitored     exit status 0, one monitored service name a line
//   -np -monitor <name>    exit status 0: the service is now monitored
// Without the program (or when it cannot be run) the host is no cluster and
// every query fails.
#pragma once

#include <string>
#include <vector>

// What the cluster knows of this node's group.
struct ClusterGroupInfo {
  std::vector<std::string> monitoredServices;
};

class VRCluster {
 public:
  // `flags` is reserved and ignored; callers pass 0.
  explicit VRCluster(int flags);

  bool isClustered() const;
  bool isNodeClustered() const;
  // Fills `info` (replacing what it held). `reserved` is ignored. Returns 0,
  // or non-zero when the program is missing or fails (`info` then untouched).
  int getClusterData(ClusterGroupInfo& info, void* reserved) const;
  // Puts service `name` under the cluster's monitoring. Returns 0 or non-zero.
  int enableServiceMonitoring(const char* name) const;

  // "$VREST_ROOT/vaultrest/bin/vrclusterutil".
  static std::string utilityPath();
};
