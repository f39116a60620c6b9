// Where vrkmsctl finds the service: the object "KMS.KMSMgr" at a corbaloc
// address, given on the command line or built from the service's own
// endpoint in the master configuration.
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
  // "corbaloc:ssliop:HOST:PORT/KMS.KMSMgr". A listening address that names no
  // single host (empty, 0.0.0.0, ::) becomes the loopback address. Throws
  // UsageError for a text it cannot use (no port, another transport).
  static std::string toReference(const std::string& given);

  // toReference of VRKMS_ENDPOINT in $VREST_ROOT/etc/vr.conf, or of the
  // service's fixed default when the file or the line is missing.
  static std::string configuredReference();
};

}  // namespace KMSCtl
}  // namespace DL
}  // namespace Vaultrest
