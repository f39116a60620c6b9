#include "kms/platform/HostCheck.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <netinet/in.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include "kms/platform/VrConfReader.h"

namespace {

// One address, family and raw bytes (4 or 16), IPv4-mapped IPv6 folded to IPv4.
struct HostAddress {
  int family;
  unsigned char bytes[16];

  bool operator==(const HostAddress& other) const {
    const size_t n = family == AF_INET ? 4 : 16;
    return family == other.family && std::memcmp(bytes, other.bytes, n) == 0;
  }
};

bool toHostAddress(const struct sockaddr* sa, HostAddress* out) {
  if (sa == nullptr) {
    return false;
  }
  std::memset(out, 0, sizeof(*out));
  if (sa->sa_family == AF_INET) {
    const auto* in = reinterpret_cast<const struct sockaddr_in*>(sa);
    out->family = AF_INET;
    std::memcpy(out->bytes, &in->sin_addr, 4);
    return true;
  }
  if (sa->sa_family == AF_INET6) {
    const auto* in6 = reinterpret_cast<const struct sockaddr_in6*>(sa);
    if (IN6_IS_ADDR_V4MAPPED(&in6->sin6_addr)) {
      out->family = AF_INET;
      std::memcpy(out->bytes, in6->sin6_addr.s6_addr + 12, 4);
    } else {
      out->family = AF_INET6;
      std::memcpy(out->bytes, in6->sin6_addr.s6_addr, 16);
    }
    return true;
  }
  return false;
}

bool isLoopback(const HostAddress& address) {
  if (address.family == AF_INET) {
    return address.bytes[0] == 127;
  }
  static const unsigned char kLoopback6[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
  return std::memcmp(address.bytes, kLoopback6, 16) == 0;
}

std::vector<HostAddress> resolve(const char* name) {
  std::vector<HostAddress> addresses;
  struct addrinfo hints;
  std::memset(&hints, 0, sizeof(hints));
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  struct addrinfo* result = nullptr;
  if (getaddrinfo(name, nullptr, &hints, &result) != 0) {
    return addresses;
  }
  for (const struct addrinfo* ai = result; ai != nullptr; ai = ai->ai_next) {
    HostAddress address;
    if (toHostAddress(ai->ai_addr, &address)) {
      addresses.push_back(address);
    }
  }
  freeaddrinfo(result);
  return addresses;
}

std::vector<HostAddress> interfaceAddresses() {
  std::vector<HostAddress> addresses;
  struct ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) {
    return addresses;
  }
  for (const struct ifaddrs* ifa = list; ifa != nullptr; ifa = ifa->ifa_next) {
    HostAddress address;
    if (toHostAddress(ifa->ifa_addr, &address)) {
      addresses.push_back(address);
    }
  }
  freeifaddrs(list);
  return addresses;
}

bool contains(const std::vector<HostAddress>& list, const HostAddress& address) {
  for (const HostAddress& entry : list) {
    if (entry == address) {
      return true;
    }
  }
  return false;
}

std::string thisHostName() {
  char name[HOST_NAME_MAX + 1];
  if (gethostname(name, sizeof(name)) != 0) {
    return std::string();
  }
  name[HOST_NAME_MAX] = '\0';
  return name;
}

bool sameName(const std::string& a, const char* b) {
  return !a.empty() && strcasecmp(a.c_str(), b) == 0;
}

}  // namespace

bool vrnet_is_local_host(const char* name) {
  if (name == nullptr || name[0] == '\0') {
    return false;
  }
  if (sameName(thisHostName(), name) || strcasecmp(name, "localhost") == 0) {
    return true;
  }
  const std::vector<HostAddress> addresses = resolve(name);
  if (addresses.empty()) {
    return false;
  }
  const std::vector<HostAddress> local = interfaceAddresses();
  for (const HostAddress& address : addresses) {
    if (isLoopback(address) || contains(local, address)) {
      return true;
    }
  }
  return false;
}

bool vrnet_is_master_server(const char* peer) {
  if (peer == nullptr || peer[0] == '\0') {
    return false;
  }
  std::shared_ptr<const VrMasterConfig> config = get_master_config_ptr();
  if (!config) {
    VR_read_master_config();
    config = get_master_config_ptr();
  }
  if (!config || config->servers.empty() || config->servers.front().empty()) {
    return false;
  }
  const std::string& master = config->servers.front();
  if (sameName(master, peer)) {
    return true;
  }
  const std::vector<HostAddress> masterAddresses = resolve(master.c_str());
  for (const HostAddress& address : resolve(peer)) {
    if (contains(masterAddresses, address)) {
      return true;
    }
  }
  return false;
}
