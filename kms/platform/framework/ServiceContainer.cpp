#include "kms/platform/framework/ServiceContainer.h"

#include <unistd.h>

#include <cctype>

#include "kms/platform/InstallRoot.h"
#include "kms/platform/VrConfReader.h"
#include "kms/platform/framework/FrameworkLog.h"
#include "kms/platform/framework/PeerGrantsFile.h"

namespace Ardentis {
namespace Vaultrest {
namespace TL {
namespace Framework {

namespace {

std::string upperCase(std::string text) {
  for (char& c : text) {
    c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  }
  return text;
}

}  // namespace

std::string ServiceContainer::configKey(const std::string& suffix) const {
  return upperCase(m_serviceName) + "_" + suffix;
}

ServiceContainer::ServiceContainer(bool singleThreaded, const char* serviceName,
                                   unsigned long originator,
                                   const std::list<std::string>& directives, int stopTimeoutSeconds,
                                   ServiceContainerOptions options, const char* endpoint)
    : m_singleThreaded(singleThreaded),
      m_serviceName(serviceName != nullptr ? serviceName : ""),
      m_originator(originator),
      m_directives(directives),
      m_stopTimeoutSeconds(stopTimeoutSeconds),
      m_options(options),
      m_endpoint(endpoint != nullptr ? endpoint : ""),
      m_table(std::make_shared<AuthorizationTable>()) {}

ServiceContainer::~ServiceContainer() = default;

ServiceContainer* ServiceContainer::current() {
  return dynamic_cast<ServiceContainer*>(OrbService::Instance());
}

int ServiceContainer::extraServiceLevelValidation(const char*) {
  return 1;
}

int ServiceContainer::registerAuthorizationTable(const authorization_entry_s* table) {
  ServiceContainer* container = current();
  if (container == nullptr) {
    return -1;
  }
  auto parsed = std::make_shared<const AuthorizationTable>(table);
  FW_DEBUG("ServiceContainer::registerAuthorizationTable", 4,
           "Registered " << parsed->rowCount() << " authorization rows");
  std::lock_guard<std::mutex> lock(container->m_mutex);
  container->m_table = std::move(parsed);
  return 0;
}

std::shared_ptr<PeerGrantsFile> ServiceContainer::grantsFile() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  if (!m_grants) {
    m_grants = std::make_shared<PeerGrantsFile>(VR_master_config_path(), configKey("GRANT"));
  }
  return m_grants;
}

bool ServiceContainer::loadGrants(std::string* error) {
  return grantsFile()->load(error);
}

PeerRights ServiceContainer::peerRights(const PeerIdentity& peer) const {
  return grantsFile()->current()->rightsOf(peer, ::geteuid());
}

bool ServiceContainer::authorizes(const std::string& key, const PeerRights& rights) const {
  std::shared_ptr<const AuthorizationTable> table;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    table = m_table;
  }
  return table->allows(key, rights);
}

std::string ServiceContainer::endpoint() const {
  if (!m_endpoint.empty()) {
    return m_endpoint;
  }
  VR_read_master_config();
  const std::shared_ptr<const VrMasterConfig> config = get_master_config_ptr();
  const std::string configured = config ? config->reader.get(configKey("ENDPOINT")) : "";
  return configured.empty() ? Orb::kDefaultEndpoint : configured;
}

std::string ServiceContainer::runDirectory() const {
  return InstallRoot::path("var/" + m_serviceName);
}

std::string ServiceContainer::localSocketPath() const {
  return runDirectory() + "/" + Orb::kLocalSocket;
}

std::string ServiceContainer::pidFilePath() const {
  return runDirectory() + "/" + m_serviceName + ".pid";
}

}  // namespace Framework
}  // namespace TL
}  // namespace Vaultrest
}  // namespace Ardentis
