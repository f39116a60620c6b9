// The service ORB's transports and the bounds on what a peer may make it
// hold before (or without) being authorized:
//
//  - the TLS endpoint, when the master configuration names one
//    (TlsContext::fromConfig);
//  - at accept time, a TCP connection from an address that no grant names
//    is closed before anything is read from it; connections are bounded per
//    peer address or local user (kMaxConnectionsPerPeer) and in total, the total staying
//    kReservedDescriptors below the descriptor limit, so that reading the
//    configuration and committing the store always find descriptors;
//  - a request is judged by the peer check as soon as its header is read,
//    before its arguments: a peer without the operation's rights makes the
//    service allocate nothing for them (the ORB's message limit is one for
//    all operations, and the import of a whole store needs a large one);
//  - idle connections are closed after kIdleSeconds, and a request that has
//    begun must arrive whole within kRequestArrivalMs;
//  - the soft descriptor limit is raised to the hard one at start.
//
// Threads: configure runs on the control thread before Orb::init; the
// accept check then runs on the ORB's accept threads at once (it takes its
// own lock).
#pragma once

#include <string>

namespace Ardentis {
namespace Vaultrest {
namespace TL {
namespace Framework {

class Orb;
class ServiceContainer;

class OrbTransports {
 public:
  static constexpr int kMaxConnectionsPerPeer = 32;
  static constexpr int kReservedDescriptors = 64;
  static constexpr int kIdleSeconds = 60;
  static constexpr int kRequestArrivalMs = 120000;  // a whole store to import, on a slow link
  // Server threads a single connection may use for multiplexed calls.
  static constexpr int kThreadsPerConnection = 4;

  // Adds the TLS endpoint and the bounds to `orb`, before its init. Returns
  // "" or why the service cannot start (TLS settings that cannot be used).
  static std::string configure(ServiceContainer& container, Orb& orb);
  // Installs the accept and request-header checks once the ORB runs, and takes it away again
  // before the ORB is destroyed.
  static void install();
  static void remove();

  // The most connections the service keeps open at once: the descriptor
  // limit less kReservedDescriptors (at least 16).
  static int connectionLimit();
};

}  // namespace Framework
}  // namespace TL
}  // namespace Vaultrest
}  // namespace Ardentis
