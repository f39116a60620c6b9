// The service's ORB: initialisation on one endpoint, activation of servants
// in the root POA, advertisement of an object under a fixed object id, and
// the per-thread record of the current request's peer.
//
// Advertised objects are activated a second time in the omniINSPOA under
// their id, so a client reaches them as corbaloc::HOST:PORT/<id>; the
// stringified reference is also written to "<runDir>/<id>.ior".
//
// Threads: init, shutdown and destroy belong to the framework's control
// thread. activateServant, advertiseObject and destroyObjectRef may be
// called from any thread once init has returned 0; they throw what the POA
// throws (CORBA exceptions) except where stated.
#pragma once

#include <omniORB4/CORBA.h>

#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "kms/platform/framework/PeerTSSResources.h"

namespace Ardentis {
namespace Vaultrest {
namespace TL {
namespace Framework {

class Orb {
 public:
  // Listen only on the loopback interface, on the service's fixed port.
  static constexpr const char* kDefaultEndpoint = "giop:tcp:127.0.0.1:7790";

  // The largest GIOP message, in bytes, that the service and its clients
  // send or accept (the ORB's option "giopMaxMsgSize"). A whole store
  // travels in one exportKS or importKS buffer, and with the group limits
  // at 0 a store has no bound of its own. An export takes about 250 bytes a
  // key: 256 MiB holds about a million keys, where the ORB's own default of
  // 2 MiB stops near 8,000.
  static constexpr const char* kMaxMessageSize = "268435456";

  Orb() = default;
  Orb(const Orb&) = delete;
  Orb& operator=(const Orb&) = delete;

  // Where the local (Unix-domain) endpoint's socket lives, relative to the
  // run directory. Its directory is private to the service's user: it keeps
  // out every other user that has no right to pass closed directories.
  static constexpr const char* kLocalSocket = "local/vrkms.sock";

  // Starts the ORB listening on `endpoint` (an omniORB endpoint URI; empty
  // means kDefaultEndpoint) and, when `localSocket` is not empty, on a
  // Unix-domain socket at that path (any file there is replaced; its
  // directory is made, or made again, mode 0700 and must belong to this
  // process's user), and activates the POAs. IOR files go to `runDir`
  // (created if missing). Returns 0, or -1 (logged) when the ORB cannot
  // start, for instance because the port is taken.
  int init(int argc, char** argv, const std::string& endpoint, const std::string& runDir,
           const std::string& localSocket = "");
  // Adds an ORB option (e.g. a second "endPoint") that init passes on after
  // its own. Call before init.
  void addOption(const std::string& name, const std::string& value);
  bool isInitialized() const { return !CORBA::is_nil(m_orb.in()); }

  // The ORB, borrowed; nil before init.
  CORBA::ORB_ptr orb() const { return m_orb.in(); }

  // Activates `servant` in the root POA. Returns a new reference, which the
  // caller releases.
  CORBA::Object_ptr activateServant(PortableServer::Servant servant);

  // Makes the object of `ref` (activated by activateServant) reachable under
  // `objectId` and writes its IOR file. Returns 0, or -1 (logged) when the
  // object is not active here or the id is taken.
  int advertiseObject(const char* objectId, CORBA::Object_ptr ref);

  // Deactivates the object of `ref` in the root POA, and under its
  // advertised id if it has one (removing the IOR file). The POAs give up
  // their references on the servant; it dies with its owner's last one.
  // Call it before shutdown: afterwards nothing is deactivated. Returns 0,
  // or -1 when the object is not active or the ORB is shut down. Never
  // throws.
  int destroyObjectRef(CORBA::Object_ptr ref);

  // The record of the request that the calling thread serves, or null when
  // per-thread records are off or the thread serves no remote request.
  PeerTSSResources* getTSSResources() const;

  // Per-thread peer records are kept only when this is true (off by
  // default). Set it before the service starts.
  bool m_useTSSResources = false;

  // Stops serving; with `wait`, returns once every request in progress has
  // ended. Objects are etherealised; servants are not deleted.
  void shutdown(bool wait);
  // Releases the ORB after shutdown. The Orb may not be used again.
  void destroy();

  // "<runDir>/<objectId>.ior".
  std::string iorFilePath(const std::string& objectId) const;

  // The self-check of a running service: true when an advertised object
  // answers a call (_non_existent) through the ORB and its POA. False with
  // nothing advertised, or after shutdown. A held or stuck POA blocks the
  // call. Any thread; never throws.
  bool answers();

 private:
  // Owned; released in reverse order (INS POA, root POA, ORB) when the Orb
  // goes or is destroyed.
  CORBA::ORB_var m_orb;
  PortableServer::POA_var m_rootPoa;
  PortableServer::POA_var m_insPoa;
  std::string m_runDir;
  bool m_shutDown = false;
  std::mutex m_mutex;  // guards m_advertised
  // The servants are only named here, not owned.
  std::map<std::string, PortableServer::Servant> m_advertised;
  std::vector<std::pair<std::string, std::string>> m_options;  // added by addOption
};

}  // namespace Framework
}  // namespace TL
}  // namespace Vaultrest
}  // namespace Ardentis
