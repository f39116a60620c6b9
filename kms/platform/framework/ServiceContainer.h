// The container of one service process: its name, the service directives
// it runs, its ORB (through OrbService), and the rules of who may call.
//
// startServiceContainer (StartServiceContainer.h) runs the process's life
// with it. A service derives from it to add a peer rule
// (extraServiceLevelValidation) and registers its authorization table with
// registerAuthorizationTable.
//
// Threads: made and destroyed on the main thread; extraServiceLevelValidation,
// peerRights and authorizes run on ORB threads at once.
#pragma once

#include <list>
#include <memory>
#include <mutex>
#include <string>

#include "kms/platform/framework/AuthorizationTable.h"
#include "kms/platform/framework/OrbService.h"
#include "kms/platform/framework/PeerIdentity.h"

namespace Ardentis {
namespace Vaultrest {
namespace TL {
namespace Framework {

// Options of a container. No flag is defined yet; pass 0.
struct ServiceContainerOptions {
  unsigned char flags;
};

class PeerGrantsFile;

class ServiceContainer : public OrbService {
 public:
  // `singleThreaded`: serve one request at a time (not supported: false).
  // `serviceName`: the process's name ("vrkms"): names the pid file, the IOR
  //   directory and the master configuration keys <NAME>_ENDPOINT and
  //   <NAME>_GRANT.
  // `originator`: the logging originator of the service.
  // `directives`: service configurator directives ("static <Service>"),
  //   processed in order once the ORB runs.
  // `stopTimeoutSeconds`: how long "-terminate" waits for the service to end.
  // `endpoint`: the ORB endpoint; empty takes <NAME>_ENDPOINT from the master
  //   configuration, or Orb::kDefaultEndpoint.
  ServiceContainer(bool singleThreaded, const char* serviceName, unsigned long originator,
                   const std::list<std::string>& directives, int stopTimeoutSeconds,
                   ServiceContainerOptions options, const char* endpoint);
  ~ServiceContainer() override;

  // The process's container, or null.
  static ServiceContainer* current();

  // A service's own rule on the peer (a numeric host) of a request: 1
  // allows, 0 refuses. The default allows every peer.
  virtual int extraServiceLevelValidation(const char* peer);

  // Registers the operations' rights for the process's container (copied).
  // Returns 0, or -1 when there is no container.
  static int registerAuthorizationTable(const authorization_entry_s* table);

  // Reads the <NAME>_GRANT lines of the master configuration. False, with
  // *error naming the file or the line, when they cannot be read whole: the
  // service then refuses to start.
  bool loadGrants(std::string* error);

  // The rights `peer` holds by the <NAME>_GRANT lines of the master
  // configuration last read whole (PeerGrantsFile.h, PeerGrants.h).
  PeerRights peerRights(const PeerIdentity& peer) const;
  // Whether the registered table lets a peer with `rights` call `key`.
  bool authorizes(const std::string& key, const PeerRights& rights) const;

  const std::string& serviceName() const { return m_serviceName; }
  // The master configuration key <NAME>_`suffix` of this service
  // ("VRKMS_GRANT" for the suffix "GRANT").
  std::string configKey(const std::string& suffix) const;
  unsigned long originator() const { return m_originator; }
  const std::list<std::string>& directives() const { return m_directives; }
  int stopTimeoutSeconds() const { return m_stopTimeoutSeconds; }
  bool singleThreaded() const { return m_singleThreaded; }
  ServiceContainerOptions options() const { return m_options; }
  // The endpoint to listen on, as the constructor and configuration say.
  std::string endpoint() const;
  // "$VREST_ROOT/var/<name>": pid file and IOR files.
  std::string runDirectory() const;
  std::string pidFilePath() const;
  // The socket of the local (Unix-domain) endpoint, under runDirectory().
  std::string localSocketPath() const;

 private:
  const bool m_singleThreaded;
  const std::string m_serviceName;
  const unsigned long m_originator;
  const std::list<std::string> m_directives;
  const int m_stopTimeoutSeconds;
  const ServiceContainerOptions m_options;
  const std::string m_endpoint;
  mutable std::mutex m_mutex;  // guards m_table and m_grants (the pointer)
  std::shared_ptr<const AuthorizationTable> m_table;
  mutable std::shared_ptr<PeerGrantsFile> m_grants;  // made on first use

  std::shared_ptr<PeerGrantsFile> grantsFile() const;
};

}  // namespace Framework
}  // namespace TL
}  // namespace Vaultrest
}  // namespace Ardentis
