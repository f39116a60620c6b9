#include "kms/platform/VRCluster.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "kms/platform/InstallRoot.h"
#include "support/PlatformTestRoot.h"

// The cluster utility run with its arguments (here a stand-in that answers by
// them and notes each call), and no cluster and failing queries without it.
TEST(VRCluster, RunsTheUtilityAndReadsItsAnswers) {
  PlatformTestRoot root;
  const VRCluster cluster(0);
  ClusterGroupInfo info;
  info.monitoredServices = {"kept"};
  EXPECT_FALSE(cluster.isClustered());
  EXPECT_FALSE(cluster.isNodeClustered());
  EXPECT_NE(cluster.getClusterData(info, nullptr), 0);
  EXPECT_EQ(info.monitoredServices, std::vector<std::string>{"kept"});
  EXPECT_NE(cluster.enableServiceMonitoring("vrkms"), 0);

  const std::string bin = InstallRoot::path("vaultrest/bin");
  ::mkdir(InstallRoot::path("vaultrest").c_str(), 0755);
  ::mkdir(bin.c_str(), 0755);
  std::ofstream(bin + "/vrclusterutil")
      << "#!/bin/sh\necho \"$*\" >> '" << bin << "/calls'\ncase \"$*\" in\n"
      << "'-np -iscluster') exit 1 ;;\n'-np -isnodeclustered') exit 3 ;;\n"
      << "'-np -listmonitored') printf 'vrpem\\nvrkms\\r\\n\\nvrdb\\n'; exit 0 ;;\n"
      << "'-np -monitor vrkms') exit 0 ;;\nesac\nexit 99\n";
  ::chmod((bin + "/vrclusterutil").c_str(), 0755);
  EXPECT_TRUE(cluster.isClustered());
  EXPECT_TRUE(cluster.isNodeClustered());
  EXPECT_EQ(cluster.getClusterData(info, nullptr), 0);
  EXPECT_EQ(info.monitoredServices, (std::vector<std::string>{"vrpem", "vrkms", "vrdb"}));
  EXPECT_EQ(cluster.enableServiceMonitoring("vrkms"), 0);
  EXPECT_EQ(cluster.enableServiceMonitoring("other"), 99);
  std::ifstream calls(bin + "/calls");
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(calls), std::istreambuf_iterator<char>()),
            "-np -iscluster\n-np -isnodeclustered\n-np -listmonitored\n-np -monitor vrkms\n"
            "-np -monitor other\n");
}
