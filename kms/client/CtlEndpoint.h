// Where vrkmsctl finds the service: the object "KMS.KMSMgr" at a corbaloc
// address, given on the command line, or by default on the service's local
// endpoint, its Unix-domain socket under $VREST_ROOT/var/vrkms, where the
// service knows the caller by its uid.
#pragma once

#include <string>

namespace Vaultrest {
namespace DL {
namespace KMSCtl {

class CtlEndpoint {
 public:
  // The object id under which the service advertises its manager.
  static constexpr const char* kObjectId = "KMS.KMSMgr";

  // The reference text for `given`: a "corbaloc:", "corbaname:" or "IOR:"
  // text as it stands; an ORB endpoint ("giop:tcp:HOST:PORT") or "HOST:PORT"
  // as "corbaloc::HOST:PORT/KMS.KMSMgr", a TLS one ("giop:ssl:HOST:PORT") as
  // "corbaloc:ssliop:HOST:PORT/KMS.KMSMgr"; a local endpoint
  // ("giop:unix:PATH") as "corbaloc:omniunix:PATH:/KMS.KMSMgr". A listening
  // address that names no single host (empty, 0.0.0.0, ::) becomes the
  // loopback address. Throws UsageError for a text it cannot use (no port,
  // another transport).
  static std::string toReference(const std::string& given);

  // The service's local endpoint under $VREST_ROOT.
  static std::string configuredReference();

  // Whether `reference` reaches the service on its local endpoint.
  static bool isLocal(const std::string& reference);
};

}  // namespace KMSCtl
}  // namespace DL
}  // namespace Vaultrest
