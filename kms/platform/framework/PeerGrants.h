// Which rights a calling peer holds, by the grant lines of the master
// configuration:
//
//   VRKMS_GRANT = <address, host name or *> <right>,<right>,...
//
// A peer holds the rights of every line whose target is "*", its own
// address, or a host name that resolves to its address. With no grant line
// at all, loopback peers hold every right and other peers none. Lines that
// cannot be read (no target, a right that is no number) grant nothing.
#pragma once

#include <string>
#include <vector>

#include "kms/platform/framework/AuthorizationTable.h"

class VrConfReader;

namespace Ardentis {
namespace Vaultrest {
namespace TL {
namespace Framework {

// The host of an ORB peer address: "giop:tcp:10.0.0.1:4000" gives
// "10.0.0.1", "giop:tcp:[::1]:4000" gives "::1", and an IPv4 address in
// IPv6 form ("::ffff:10.0.0.1") gives the IPv4 text. A text that is no such
// address is given back as it stands.
std::string peerHostOf(const std::string& address);

// Whether `host` (a numeric address) is a loopback address.
bool isLoopbackAddress(const std::string& host);

class PeerGrants {
 public:
  struct Grant {
    std::string target;
    std::vector<int> rights;
  };

  // The lines named `name` (e.g. "VRKMS_GRANT") of `config`.
  PeerGrants(const VrConfReader& config, const std::string& name);
  explicit PeerGrants(std::vector<Grant> grants) : m_grants(std::move(grants)) {}

  // Parses one line's value; false for a line that cannot be read.
  static bool parse(const std::string& value, Grant* grant);

  // The rights of the peer at numeric address `peerHost`. Resolving host
  // names may block.
  PeerRights rightsOf(const std::string& peerHost) const;

  bool empty() const { return m_configured == 0; }
  const std::vector<Grant>& grants() const { return m_grants; }

 private:
  std::vector<Grant> m_grants;
  size_t m_configured = 0;  // lines present, readable or not
};

}  // namespace Framework
}  // namespace TL
}  // namespace Vaultrest
}  // namespace Ardentis
