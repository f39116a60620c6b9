// Which rights a calling peer holds, by the grant lines of the master
// configuration, one line a grant:
//
//   VRKMS_GRANT = uid:<user name or number> <rights>   a local user
//   VRKMS_GRANT = cert:<subject> <rights>              a TLS client
//   VRKMS_GRANT = <numeric address> <rights>           a plain TCP peer
//   VRKMS_GRANT = * <rights>                           every plain TCP peer
//
// <rights> is a list of right numbers joined by commas ("1,3" or "1, 3").
// A subject is the certificate's subject as the TLS transport gives it
// (e.g. "CN=media01"), written without spaces. A user name is looked up
// when the lines are read.
//
// A peer holds the rights of every line that names it, and nothing else:
// no line names a peer of another kind, and there is no default. Only a
// local peer running as root or as the service's own user holds every
// right without a line. A line that cannot be read makes the whole set of
// lines unreadable (read() fails naming it); there is no partial reading.
//
// A value type, immutable once read: shared between threads freely.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "kms/platform/framework/AuthorizationTable.h"
#include "kms/platform/framework/PeerIdentity.h"

class VrConfReader;

namespace Ardentis {
namespace Vaultrest {
namespace TL {
namespace Framework {

class PeerGrants {
 public:
  struct Grant {
    PeerTransport kind = PeerTransport::kNone;  // the transport of the peers it names
    std::string target;  // identity name ("uid:1000", "cert:CN=a", "10.0.0.1") or "*"
    std::vector<int> rights;
  };

  // No grant: only root and the service's user hold rights.
  PeerGrants() = default;
  explicit PeerGrants(std::vector<Grant> grants) : m_grants(std::move(grants)) {}

  // The lines named `name` (e.g. "VRKMS_GRANT") of `config`. Returns false,
  // with *error naming the first line that cannot be read and why, and
  // leaves *grants alone.
  static bool read(const VrConfReader& config, const std::string& name, PeerGrants* grants,
                   std::string* error);

  // Parses one line's value; false with *why for a line that cannot be
  // read.
  static bool parse(const std::string& value, Grant* grant, std::string* why);

  // The rights of `peer`. `serviceUid` is the uid the service runs as.
  PeerRights rightsOf(const PeerIdentity& peer, uid_t serviceUid) const;

  const std::vector<Grant>& grants() const { return m_grants; }

 private:
  std::vector<Grant> m_grants;
};

}  // namespace Framework
}  // namespace TL
}  // namespace Vaultrest
}  // namespace Ardentis
