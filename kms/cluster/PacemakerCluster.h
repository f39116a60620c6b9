// What a Pacemaker cluster says of this node and of the resource group that
// holds the service. Every answer comes from Pacemaker's own tools, run
// anew for each call and found in PATH: crm_mon (status), cibadmin (the
// configuration and its changes) and crm_node (this node's name). With
// CIB_file in the environment those tools read and write that file instead
// of asking the cluster's daemons. Nothing is cached or kept on disk here.
//
// A host where the tools are missing, or where no CIB can be read, is no
// cluster: every query answers "no".
#pragma once

#include <string>
#include <vector>

class PacemakerCluster {
 public:
  // `group`: the id of the resource group that holds the service; `node`:
  // this node's name as the cluster knows it.
  PacemakerCluster(std::string group, std::string node);

  // The cluster as the master configuration ($VREST_ROOT/etc/vr.conf) names
  // it: the group VRKMS_CLUSTER_GROUP (default "vrkms") and the node
  // VRKMS_CLUSTER_NODE, by default what `crm_node -n` says, or the host's
  // name when crm_node cannot ask the cluster (as with CIB_file).
  static PacemakerCluster fromConfiguration();

  const std::string& group() const { return m_group; }
  const std::string& node() const { return m_node; }

  // The cluster's status lists this node.
  bool nodeClustered() const;
  // This node is clustered and the cluster configures the group.
  bool groupClustered() const;
  // The group is clustered and runs on this node: some of its resources are
  // placed here and none elsewhere.
  bool activeHere() const;

  // Fills `services` with the systemd unit names (without ".service") of
  // the CIB's systemd resources that have a recurring monitor operation.
  // False when the CIB cannot be read (`services` then untouched).
  bool monitoredServices(std::vector<std::string>* services) const;

  // Makes sure the unit `service` is monitored: when no resource monitors
  // it yet, adds a systemd resource "<service>-service" with a recurring
  // monitor operation at the end of the group, through cibadmin. A second
  // call changes nothing. Returns 0, or 1 with `error` filled.
  int monitor(const std::string& service, std::string* error) const;

 private:
  std::string m_group;
  std::string m_node;
};
