#include "kms/cluster/PacemakerCluster.h"

#include <sys/utsname.h>

#include <cctype>

#include "kms/cluster/PacemakerXml.h"
#include "kms/platform/ChildProgram.h"
#include "kms/platform/VrConfReader.h"

namespace {

// The standard output of a Pacemaker tool that succeeded, or "" (its
// errors are not shown: "not a cluster" is an answer, not a fault).
std::string toolOutput(const std::vector<std::string>& argv) {
  const ChildProgramResult result = ChildProgram::run(argv, true);
  return result.ran && result.exitStatus == 0 ? result.output : std::string();
}

std::string statusXml() {
  return toolOutput({"crm_mon", "--one-shot", "--output-as=xml"});
}

std::string trimmed(const std::string& text) {
  size_t begin = 0;
  size_t end = text.size();
  while (begin < end && std::isspace(static_cast<unsigned char>(text[begin]))) {
    ++begin;
  }
  while (end > begin && std::isspace(static_cast<unsigned char>(text[end - 1]))) {
    --end;
  }
  return text.substr(begin, end - begin);
}

// An operation interval ("30s", "1min", "10000") that is not zero.
bool recurring(const std::string& interval) {
  for (char c : interval) {
    if (c >= '1' && c <= '9') {
      return true;
    }
    if (c != '0') {
      return false;
    }
  }
  return false;
}

// A name that is safe inside an XML attribute and valid as a CIB id.
bool plainName(const std::string& name) {
  if (name.empty() || !std::isalpha(static_cast<unsigned char>(name[0]))) {
    return false;
  }
  for (char c : name) {
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '.' && c != '_' && c != '-') {
      return false;
    }
  }
  return true;
}

}  // namespace

PacemakerCluster::PacemakerCluster(std::string group, std::string node)
    : m_group(std::move(group)), m_node(std::move(node)) {}

PacemakerCluster PacemakerCluster::fromConfiguration() {
  VrConfReader conf;
  // Without a readable file every setting takes its default.
  (void)conf.read(VR_master_config_path());
  std::string node = conf.get("VRKMS_CLUSTER_NODE");
  if (node.empty()) {
    node = trimmed(toolOutput({"crm_node", "-n"}));
  }
  if (node.empty()) {
    utsname host{};
    if (uname(&host) == 0) {
      node = host.nodename;
    }
  }
  return PacemakerCluster(conf.get("VRKMS_CLUSTER_GROUP", "vrkms"), node);
}

bool PacemakerCluster::nodeClustered() const {
  const PacemakerXml status(statusXml());
  return status.count("/pacemaker-result/nodes/node[@name=" + PacemakerXml::literal(m_node) + "]") >
         0;
}

bool PacemakerCluster::groupClustered() const {
  const PacemakerXml status(statusXml());
  return status.count("/pacemaker-result/nodes/node[@name=" + PacemakerXml::literal(m_node) + "]") >
             0 &&
         status.count("/pacemaker-result/resources/group[@id=" + PacemakerXml::literal(m_group) +
                      "]") > 0;
}

bool PacemakerCluster::activeHere() const {
  const PacemakerXml status(statusXml());
  const std::string node = PacemakerXml::literal(m_node);
  const std::string placed =
      "/pacemaker-result/resources/group[@id=" + PacemakerXml::literal(m_group) + "]/resource/node";
  return status.count("/pacemaker-result/nodes/node[@name=" + node + "]") > 0 &&
         status.count(placed + "[@name=" + node + "]") > 0 &&
         status.count(placed + "[@name!=" + node + "]") == 0;
}

bool PacemakerCluster::monitoredServices(std::vector<std::string>* services) const {
  const PacemakerXml cib(toolOutput({"cibadmin", "--query", "--scope", "resources"}));
  if (!cib.ok()) {
    return false;
  }
  std::vector<std::string> found;
  const std::string primitive = "//primitive[@class='systemd']";
  const std::vector<std::string> types = cib.values(primitive + "/@type");
  for (size_t i = 0; i < types.size(); ++i) {
    const std::string monitors = "(" + primitive + ")[" + std::to_string(i + 1) +
                                 "]/operations/op[@name='monitor']/@interval";
    for (const std::string& interval : cib.values(monitors)) {
      if (recurring(interval)) {
        found.push_back(types[i]);
        break;
      }
    }
  }
  *services = std::move(found);
  return true;
}

int PacemakerCluster::monitor(const std::string& service, std::string* error) const {
  std::vector<std::string> monitored;
  if (!monitoredServices(&monitored)) {
    *error = "cannot read the cluster configuration";
    return 1;
  }
  for (const std::string& name : monitored) {
    if (name == service) {
      return 0;
    }
  }
  const std::string id = service + "-service";
  if (!plainName(service) || !plainName(m_group)) {
    *error = "a unit or group name of letters, digits, '.', '_' and '-' is needed";
    return 1;
  }
  // Added at the group's end: a group starts its members in order, so the
  // service starts after the shared store and the address it listens on.
  const std::string xml = "<group id=" + PacemakerXml::literal(m_group) +
                          "><primitive id=" + PacemakerXml::literal(id) +
                          " class='systemd' type=" + PacemakerXml::literal(service) +
                          "><operations><op id=" + PacemakerXml::literal(id + "-monitor-30s") +
                          " name='monitor' interval='30s' timeout='100s'/>"
                          "</operations></primitive></group>";
  const ChildProgramResult result =
      ChildProgram::run({"cibadmin", "--modify", "--xml-text", xml}, false);
  if (!result.ran || result.exitStatus != 0) {
    *error = "cibadmin could not add the resource " + id + " to the group " + m_group;
    return 1;
  }
  return 0;
}
