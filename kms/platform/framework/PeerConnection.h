// The identity of the peer at the other end of one of the ORB's server
// connections (see PeerIdentity.h): the uid on the Unix-domain endpoint,
// the certificate's subject on TLS, the numeric address on TCP.
//
// Called on the ORB thread that serves a request on `connection`, which
// the ORB keeps alive meanwhile. Never throws.
#pragma once

#include <omniORB4/CORBA.h>

#include <string>

#include "kms/platform/framework/PeerIdentity.h"

namespace Ardentis {
namespace Vaultrest {
namespace TL {
namespace Framework {

// `address` is the connection's peer address as the ORB gives it.
PeerIdentity identityOfConnection(omni::giopConnection* connection, const std::string& address);

}  // namespace Framework
}  // namespace TL
}  // namespace Vaultrest
}  // namespace Ardentis
