#include "kms/platform/framework/PeerIdentity.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>

#include "kms/platform/framework/TlsContext.h"

namespace Ardentis {
namespace Vaultrest {
namespace TL {
namespace Framework {

namespace {

bool startsWith(const std::string& text, const char* prefix) {
  return text.compare(0, std::strlen(prefix), prefix) == 0;
}

}  // namespace

PeerTransport transportOf(const std::string& address) {
  if (startsWith(address, "giop:unix:")) {
    return PeerTransport::kLocal;
  }
  if (startsWith(address, "giop:ssl:")) {
    return PeerTransport::kTls;
  }
  if (startsWith(address, "giop:tcp:")) {
    return PeerTransport::kTcp;
  }
  return PeerTransport::kNone;
}

const char* transportName(PeerTransport transport) {
  switch (transport) {
    case PeerTransport::kLocal:
      return "local";
    case PeerTransport::kTls:
      return "tls";
    case PeerTransport::kTcp:
      return "tcp";
    case PeerTransport::kNone:
      break;
  }
  return "none";
}

std::string canonicalAddress(const std::string& host) {
  in_addr v4;
  if (inet_pton(AF_INET, host.c_str(), &v4) == 1) {
    char text[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &v4, text, sizeof text);
    return text;
  }
  in6_addr v6;
  if (inet_pton(AF_INET6, host.c_str(), &v6) == 1) {
    if (IN6_IS_ADDR_V4MAPPED(&v6)) {
      std::memcpy(&v4, &v6.s6_addr[12], 4);
      char text[INET_ADDRSTRLEN];
      inet_ntop(AF_INET, &v4, text, sizeof text);
      return text;
    }
    char text[INET6_ADDRSTRLEN];
    inet_ntop(AF_INET6, &v6, text, sizeof text);
    return text;
  }
  return "";
}

std::string peerHostOf(const std::string& address) {
  std::string rest = address;
  for (const char* prefix : {"giop:tcp:", "giop:ssl:"}) {
    if (startsWith(rest, prefix)) {
      rest = rest.substr(std::strlen(prefix));
      break;
    }
  }
  std::string host;
  if (!rest.empty() && rest[0] == '[') {
    const size_t close = rest.find(']');
    host = close == std::string::npos ? rest : rest.substr(1, close - 1);
  } else {
    const size_t colon = rest.rfind(':');
    host = colon == std::string::npos || rest.find(':') != colon ? rest : rest.substr(0, colon);
  }
  const std::string numeric = canonicalAddress(host);
  return numeric.empty() ? address : numeric;
}

bool localPeerUid(int fd, uid_t* uid) {
  ucred credentials{};
  socklen_t length = sizeof credentials;
  if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0 ||
      length != sizeof credentials) {
    return false;
  }
  *uid = credentials.uid;
  return true;
}

std::string localIdentityName(uid_t uid) {
  return "uid:" + std::to_string(uid);
}

std::string tlsIdentityName(const char* peerIdentity, void* peerDetails) {
  // The handshake admitted only a certificate that verified against the
  // service's CA; the ORB's own identity text (the common name alone) is not
  // used.
  (void)peerIdentity;
  const std::string subject = TlsContext::subjectOf(peerDetails);
  return subject.empty() ? std::string() : "cert:" + subject;
}

}  // namespace Framework
}  // namespace TL
}  // namespace Vaultrest
}  // namespace Ardentis
