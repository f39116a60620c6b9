// vrclusterutil: the product's cluster program over Pacemaker. The service
// asks it whether this host is a cluster node, whether the node holds the
// service's resource group, and to put the service under the cluster's
// monitoring. Exit statuses, by command ("-np", no prompting, is accepted
// before the command and changes nothing: nothing here prompts):
//
//   -iscluster        1: the cluster configures the service's group; 0: not
//   -isnodeclustered  1: this node is a member of a cluster; 0: not
//   -isactive         0: the group is clustered and does not run on this
//                        node (an inactive node); 1: anything else
//   -listmonitored    0 and one monitored unit a line; 1: no cluster
//   -monitor NAME     0: unit NAME is monitored; 1: no cluster, or the
//                        change failed
//   anything else     2, with the usage on standard error
//
// The senses are the callers': a cluster is reported by a non-zero status,
// an inactive node by 0. A node of a cluster that does not configure the
// group is no cluster installation of the service: the service runs there
// as on a plain host, neither gated nor monitored.
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "kms/cluster/PacemakerCluster.h"

namespace {

int usage() {
  std::cerr << "USAGE: vrclusterutil [-np] -iscluster | -isnodeclustered | -isactive |"
               " -listmonitored | -monitor NAME\n";
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  if (!args.empty() && args.front() == "-np") {
    args.erase(args.begin());
  }
  if (args.empty() || (args.front() == "-monitor") != (args.size() == 2) || args.size() > 2) {
    return usage();
  }
  const std::string& command = args.front();
  // Pacemaker's tools live in the system directories, which the PATH of
  // an unprivileged caller may lack.
  const char* path = std::getenv("PATH");
  setenv("PATH",
         (std::string(path != nullptr ? path : "/usr/bin:/bin") + ":/usr/sbin:/sbin").c_str(), 1);
  const PacemakerCluster cluster = PacemakerCluster::fromConfiguration();
  if (command == "-iscluster") {
    return cluster.groupClustered() ? 1 : 0;
  }
  if (command == "-isnodeclustered") {
    return cluster.nodeClustered() ? 1 : 0;
  }
  if (command == "-isactive") {
    return cluster.groupClustered() && !cluster.activeHere() ? 0 : 1;
  }
  if (command == "-listmonitored") {
    std::vector<std::string> services;
    if (!cluster.nodeClustered() || !cluster.monitoredServices(&services)) {
      return 1;
    }
    for (const std::string& service : services) {
      std::cout << service << "\n";
    }
    return 0;
  }
  if (command == "-monitor") {
    if (!cluster.groupClustered()) {
      std::cerr << "vrclusterutil: this node holds no cluster group " << cluster.group() << "\n";
      return 1;
    }
    std::string error;
    const int status = cluster.monitor(args[1], &error);
    if (status != 0) {
      std::cerr << "vrclusterutil: " << error << "\n";
    }
    return status;
  }
  return usage();
}
