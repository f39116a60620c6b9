// Who the peer of a remote request is, by the transport it came on:
//
//  - local: a process on this host, on the service's Unix-domain endpoint;
//    known by its uid, which the kernel gives for the connection's socket
//    (SO_PEERCRED). Name "uid:<number>".
//  - certificate: a client on the TLS endpoint that showed a certificate of
//    the service's CA; known by the certificate's subject. Name
//    "cert:<subject>", or empty when the connection has no such certificate.
//  - address: a client on plain TCP; known only by its numeric address,
//    IPv4 addresses in IPv6 form given as IPv4. Name "10.1.2.3" or "::1".
//
// Pure functions apart from localPeerUid (one getsockopt).
#pragma once

#include <sys/types.h>

#include <string>

namespace Ardentis {
namespace Vaultrest {
namespace TL {
namespace Framework {

enum class PeerTransport { kNone, kLocal, kTls, kTcp };

struct PeerIdentity {
  PeerTransport transport = PeerTransport::kNone;
  std::string name;  // as above; empty when the peer could not be identified
};

// The transport of an ORB address: "giop:unix:..." is local, "giop:ssl:..."
// TLS, "giop:tcp:..." TCP, anything else kNone.
PeerTransport transportOf(const std::string& address);

// "local", "tls", "tcp" or "none", for logs.
const char* transportName(PeerTransport transport);

// The host of an ORB peer address: "giop:tcp:10.0.0.1:4000" gives
// "10.0.0.1", "giop:tcp:[::1]:4000" gives "::1", and an IPv4 address in
// IPv6 form ("::ffff:10.0.0.1") gives the IPv4 text. A text that is no such
// address is given back as it stands.
std::string peerHostOf(const std::string& address);

// The canonical numeric text of `host` (as peerHostOf gives it), or empty
// when it is no numeric address.
std::string canonicalAddress(const std::string& host);

// The uid of the process at the other end of the Unix-domain socket `fd`;
// false (and *uid untouched) when the kernel does not tell.
bool localPeerUid(int fd, uid_t* uid);

// "uid:<uid>".
std::string localIdentityName(uid_t uid);

// The name of the peer of a TLS connection, from what the ORB's connection
// tells of it (peeridentity() and peerdetails(), an X509* of the verified
// client certificate, or nulls): "cert:<subject>", or empty when the
// connection carries no verified client certificate.
std::string tlsIdentityName(const char* peerIdentity, void* peerDetails);

}  // namespace Framework
}  // namespace TL
}  // namespace Vaultrest
}  // namespace Ardentis
