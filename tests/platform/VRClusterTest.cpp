#include "kms/platform/VRCluster.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "kms/platform/InstallRoot.h"
#include "support/PlatformTestRoot.h"

namespace {

// Installs a stand-in for the cluster utility that answers by its arguments
// and appends each call to "calls" beside itself.
void installUtility(const std::string& answers) {
  const std::string bin = InstallRoot::path("vaultrest/bin");
  ::mkdir(InstallRoot::path("vaultrest").c_str(), 0755);
  ::mkdir(bin.c_str(), 0755);
  const std::string path = bin + "/vrclusterutil";
  std::ofstream(path) << "#!/bin/sh\n"
                      << "echo \"$*\" >> '" << bin << "/calls'\n"
                      << "case \"$*\" in\n"
                      << answers << "esac\n"
                      << "exit 99\n";
  ::chmod(path.c_str(), 0755);
}

std::string calls() {
  std::ifstream in(InstallRoot::path("vaultrest/bin/calls"));
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace

TEST(VRCluster, WithoutTheUtilityTheHostIsNoClusterAndQueriesFail) {
  PlatformTestRoot root;
  const VRCluster cluster(0);
  EXPECT_FALSE(cluster.isClustered());
  EXPECT_FALSE(cluster.isNodeClustered());
  ClusterGroupInfo info;
  info.monitoredServices = {"kept"};
  EXPECT_NE(cluster.getClusterData(info, nullptr), 0);
  EXPECT_EQ(info.monitoredServices, std::vector<std::string>{"kept"});
  EXPECT_NE(cluster.enableServiceMonitoring("vrkms"), 0);
}

TEST(VRCluster, RunsTheUtilityAndReadsItsAnswers) {
  PlatformTestRoot root;
  installUtility(
      "'-np -iscluster') exit 1 ;;\n"
      "'-np -isnodeclustered') exit 3 ;;\n"
      "'-np -listmonitored') printf 'vrpem\\nvrkms\\r\\n\\nvrdb\\n'; exit 0 ;;\n"
      "'-np -monitor vrkms') exit 0 ;;\n");
  const VRCluster cluster(0);
  EXPECT_TRUE(cluster.isClustered());
  EXPECT_TRUE(cluster.isNodeClustered());
  ClusterGroupInfo info;
  info.monitoredServices = {"stale"};
  EXPECT_EQ(cluster.getClusterData(info, nullptr), 0);
  EXPECT_EQ(info.monitoredServices, (std::vector<std::string>{"vrpem", "vrkms", "vrdb"}));
  EXPECT_EQ(cluster.enableServiceMonitoring("vrkms"), 0);
  EXPECT_EQ(cluster.enableServiceMonitoring("other"), 99);
  EXPECT_EQ(calls(),
            "-np -iscluster\n-np -isnodeclustered\n-np -listmonitored\n-np -monitor vrkms\n"
            "-np -monitor other\n");
}
