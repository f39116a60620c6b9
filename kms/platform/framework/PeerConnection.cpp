#include "kms/platform/framework/PeerConnection.h"

#include <omniORB4/giopEndpoint.h>
// The socket of a Unix-domain connection is only reachable through the
// transport's own connection class.
#include <omniORB4/unixConnection.h>

namespace Ardentis {
namespace Vaultrest {
namespace TL {
namespace Framework {

PeerIdentity identityOfConnection(omni::giopConnection* connection, const std::string& address) {
  PeerIdentity peer;
  peer.transport = transportOf(address);
  if (connection == nullptr) {
    return peer;
  }
  switch (peer.transport) {
    case PeerTransport::kLocal: {
      // The transport is known from the address: the connection is the
      // Unix-domain transport's own.
      uid_t uid = 0;
      if (localPeerUid(static_cast<omni::unixConnection*>(connection)->handle(), &uid)) {
        peer.name = localIdentityName(uid);
      }
      break;
    }
    case PeerTransport::kTls:
      peer.name = tlsIdentityName(connection->peeridentity(), connection->peerdetails());
      break;
    case PeerTransport::kTcp:
      peer.name = canonicalAddress(peerHostOf(address));
      break;
    case PeerTransport::kNone:
      break;
  }
  return peer;
}

}  // namespace Framework
}  // namespace TL
}  // namespace Vaultrest
}  // namespace Ardentis
