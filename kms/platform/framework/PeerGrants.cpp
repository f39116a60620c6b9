#include "kms/platform/framework/PeerGrants.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "kms/platform/VrConfReader.h"

namespace Ardentis {
namespace Vaultrest {
namespace TL {
namespace Framework {

namespace {

// The canonical numeric text of `host`, or empty when it is no numeric
// address. IPv4 addresses in IPv6 form become plain IPv4.
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

bool targetMatches(const std::string& target, const std::string& peer) {
  if (target == "*") {
    return true;
  }
  const std::string numeric = canonicalAddress(target);
  if (!numeric.empty()) {
    return numeric == peer;
  }
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(target.c_str(), nullptr, &hints, &found) != 0) {
    return false;
  }
  bool match = false;
  for (addrinfo* a = found; a != nullptr && !match; a = a->ai_next) {
    char text[NI_MAXHOST];
    if (getnameinfo(a->ai_addr, a->ai_addrlen, text, sizeof text, nullptr, 0, NI_NUMERICHOST) ==
        0) {
      match = canonicalAddress(text) == peer;
    }
  }
  freeaddrinfo(found);
  return match;
}

}  // namespace

std::string peerHostOf(const std::string& address) {
  std::string rest = address;
  for (const char* prefix : {"giop:tcp:", "giop:ssl:"}) {
    if (rest.compare(0, std::strlen(prefix), prefix) == 0) {
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

bool isLoopbackAddress(const std::string& host) {
  const std::string numeric = canonicalAddress(host);
  in_addr v4;
  if (inet_pton(AF_INET, numeric.c_str(), &v4) == 1) {
    return (ntohl(v4.s_addr) >> 24) == 127;
  }
  in6_addr v6;
  return inet_pton(AF_INET6, numeric.c_str(), &v6) == 1 && IN6_IS_ADDR_LOOPBACK(&v6);
}

PeerGrants::PeerGrants(const VrConfReader& config, const std::string& name) {
  for (const std::string& value : config.getAll(name)) {
    ++m_configured;
    Grant grant;
    if (parse(value, &grant)) {
      m_grants.push_back(std::move(grant));
    }
  }
}

bool PeerGrants::parse(const std::string& value, Grant* grant) {
  std::istringstream words(value);
  Grant parsed;
  if (!(words >> parsed.target)) {
    return false;
  }
  std::string list;
  for (std::string word; words >> word;) {
    list += word;
  }
  std::istringstream items(list);
  for (std::string item; std::getline(items, item, ',');) {
    if (item.empty()) {
      continue;
    }
    char* end = nullptr;
    const long right = std::strtol(item.c_str(), &end, 10);
    if (*end != '\0' || !std::isdigit(static_cast<unsigned char>(item[0]))) {
      return false;
    }
    parsed.rights.push_back(static_cast<int>(right));
  }
  if (parsed.rights.empty()) {
    return false;
  }
  *grant = std::move(parsed);
  return true;
}

PeerRights PeerGrants::rightsOf(const std::string& peerHost) const {
  const std::string peer = canonicalAddress(peerHost);
  if (empty()) {
    return !peer.empty() && isLoopbackAddress(peer) ? PeerRights::all() : PeerRights();
  }
  PeerRights held;
  if (peer.empty()) {
    return held;
  }
  for (const Grant& grant : m_grants) {
    if (targetMatches(grant.target, peer)) {
      held.merge(PeerRights::of(std::set<int>(grant.rights.begin(), grant.rights.end())));
    }
  }
  return held;
}

}  // namespace Framework
}  // namespace TL
}  // namespace Vaultrest
}  // namespace Ardentis
