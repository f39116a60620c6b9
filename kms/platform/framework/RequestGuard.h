// The framework's checks on every remote request, run by two ORB
// interceptors:
//
//  - as a request arrives, the peer's address, its identity (PeerIdentity:
//    uid, certificate subject or address, by the connection's transport) and
//    the version it sent (the kPeerVersionContextId service context) are put
//    in the record of the thread that serves it (PeerTSSResources);
//  - as the servant is about to be called, the process's ServiceContainer
//    judges the peer: first extraServiceLevelValidation(peer host), then the
//    registered authorization table, with the rights of the peer's identity
//    by the grants of the master configuration (PeerGrants). A refusal is logged with the peer and
//    the operation and answered with CORBA::NO_PERMISSION (COMPLETED_NO).
//
// The ORB's built-in operations ("_is_a", "_non_existent", ...) are judged
// by the peer check only. Calls within the process are not judged.
#pragma once

#include <string>

#include "kms/platform/framework/PeerTSSResources.h"

namespace Ardentis {
namespace Vaultrest {
namespace TL {
namespace Framework {

class ServiceContainer;

class RequestGuard {
 public:
  // Adds the two interceptors to the ORB just initialised, and takes them
  // away again before it is destroyed. Control thread only.
  static void install();
  static void remove();

  // The record of the remote request that the calling thread serves, or
  // null.
  static PeerTSSResources* currentRequest();

  // "IDL:Module/Path/Interface:1.0" and "op" give "Module/Path/Interface_op".
  static std::string operationKey(const char* repositoryId, const char* operation);

  // Whether `container` lets `peer` call `operation` (a key as above, or a
  // built-in operation's name). Logs a refusal.
  static bool admit(ServiceContainer& container, const PeerTSSResources& peer,
                    const std::string& operation, bool builtIn);
};

}  // namespace Framework
}  // namespace TL
}  // namespace Vaultrest
}  // namespace Ardentis
