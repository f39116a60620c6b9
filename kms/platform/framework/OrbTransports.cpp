#include "kms/platform/framework/OrbTransports.h"

#include <omniORB4/CORBA.h>
#include <omniORB4/giopEndpoint.h>
#include <omniORB4/internal/SocketCollection.h>
#include <omniORB4/internal/giopStrand.h>

#include <omniORB4/internal/giopStream.h>

#include <omniORB4/internal/GIOP_S.h>
#include <omniORB4/internal/localIdentity.h>
#include <omniORB4/internal/objectTable.h>
#include <omniORB4/omniInterceptors.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <mutex>
#include <vector>

#include "kms/platform/VrConfReader.h"
#include "kms/platform/framework/FrameworkLog.h"
#include "kms/platform/framework/Orb.h"
#include "kms/platform/framework/PeerGrants.h"
#include "kms/platform/framework/PeerIdentity.h"
#include "kms/platform/framework/RequestGuard.h"
#include "kms/platform/framework/ServiceContainer.h"
#include "kms/platform/framework/TlsContext.h"

namespace Ardentis {
namespace Vaultrest {
namespace TL {
namespace Framework {

namespace {

// The socket of an accepted connection. The ORB keeps it in a protected
// member of the connection's socket base; a pointer to that member, taken
// in a class derived from the base, reads it without copying the ORB's
// internals.
struct SocketOf : omni::SocketHolder {
  static int of(omni::giopConnection* connection) {
    auto* holder = dynamic_cast<omni::SocketHolder*>(connection);
    if (holder == nullptr) {
      return -1;
    }
    constexpr omni::SocketHandle_t omni::SocketHolder::*member = &SocketOf::pd_socket;
    return static_cast<int>(holder->*member);
  }
};

// An open connection: its descriptor and the socket's identity, so that a
// descriptor reused by a later connection is not taken for this one.
struct OpenSocket {
  int fd;
  dev_t device;
  ino_t inode;
  bool stillOpen() const {
    struct stat now;
    return ::fstat(fd, &now) == 0 && now.st_ino == inode && now.st_dev == device;
  }
};

std::mutex g_mutex;  // guards g_open and g_limit
std::map<std::string, std::vector<OpenSocket>> g_open;
int g_limit = 0;

bool startsWith(const std::string& text, const char* prefix) {
  return text.compare(0, std::strlen(prefix), prefix) == 0;
}

// Whether one more connection from `peer` on socket `fd` fits the bounds;
// counts it when it does.
bool takeConnectionSlot(const std::string& peer, int fd, std::string* why) {
  struct stat identity;
  if (::fstat(fd, &identity) != 0) {
    *why = "its socket cannot be examined";
    return false;
  }
  std::lock_guard<std::mutex> lock(g_mutex);
  if (fd >= g_limit) {
    *why = "the service holds its most connections";
    return false;
  }
  std::vector<OpenSocket>& open = g_open[peer];
  open.erase(
      std::remove_if(open.begin(), open.end(), [](const OpenSocket& s) { return !s.stillOpen(); }),
      open.end());
  if (open.size() >= static_cast<size_t>(OrbTransports::kMaxConnectionsPerPeer)) {
    *why = "the peer holds its most connections";
    return false;
  }
  open.push_back({fd, identity.st_dev, identity.st_ino});
  return true;
}

CORBA::Boolean onAccept(omni::omniInterceptors::serverAcceptConnection_T::info_T& info) {
  const std::string address = info.peeraddress() != nullptr ? info.peeraddress() : "";
  const std::string host = peerHostOf(address);
  std::string why;
  ServiceContainer* container = ServiceContainer::current();
  // A plain TCP peer is known by its address alone: one that no grant names
  // could never be served, so it is not even read from. TLS peers have
  // shown a certificate of the CA by now; local peers are judged by their
  // user on every request.
  if (startsWith(address, "giop:tcp:") && container != nullptr &&
      !container->peerRights({PeerTransport::kTcp, canonicalAddress(host)}).holdsAny()) {
    why = "no grant names the address";
  } else {
    const int fd = SocketOf::of(info.strand.connection);
    std::string peer = host;
    if (startsWith(address, "giop:unix:")) {
      // Local peers are told apart by their user.
      struct ucred credentials {};
      socklen_t length = sizeof credentials;
      peer = fd >= 0 && ::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) == 0
                 ? "uid " + std::to_string(credentials.uid)
                 : std::string("local");
    }
    if (fd >= 0) {
      takeConnectionSlot(peer, fd, &why);
    }
  }
  if (!why.empty()) {
    FW_DEBUG("OrbTransports", 2, "Refused a connection from " << address << ": " << why);
    info.reject = true;
  }
  return true;
}

// The repository id of the servant that a request's object key names, or
// "" when no active object has that key.
std::string repositoryIdOf(omni::GIOP_S& request) {
  if (request.keysize() <= 0) {
    return "";
  }
  const CORBA::ULong hash = omni::hash(request.key(), request.keysize());
  omni_tracedmutex_lock sync(*omni::internalLock);
  omniObjTableEntry* entry = omniObjTable::locateActive(request.key(), request.keysize(), hash, 1);
  return entry != nullptr && entry->servant() != nullptr ? entry->servant()->_mostDerivedRepoId()
                                                         : "";
}

// Runs after RequestGuard's own interceptor has recorded the peer: the
// request is judged before its arguments are read, so that a peer without
// the operation's rights never makes the service take in (and allocate)
// what it sent; the rest of the message is skipped unread. The same check
// runs again as the servant is called.
CORBA::Boolean onRequestHeader(omni::omniInterceptors::serverReceiveRequest_T::info_T& info) {
  ServiceContainer* container = ServiceContainer::current();
  const PeerTSSResources* peer = RequestGuard::currentRequest();
  const char* operation = info.giop_s.operation();
  // The ORB calls its interceptors in the order they were added, RequestGuard's
  // (added by Orb::init) first; a record of another peer would be one left
  // from an earlier request, and the check at the servant call stands alone.
  const char* address = info.peeraddress();
  if (container == nullptr || peer == nullptr || operation == nullptr || operation[0] == '_' ||
      address == nullptr || peer->peerAddress != address) {
    return true;
  }
  const std::string repositoryId = repositoryIdOf(info.giop_s);
  if (!repositoryId.empty() &&
      !RequestGuard::admit(*container, *peer,
                           RequestGuard::operationKey(repositoryId.c_str(), operation), false)) {
    throw CORBA::NO_PERMISSION(0, CORBA::COMPLETED_NO);
  }
  return true;
}

// Raises the soft descriptor limit to the hard one; returns the limit now in
// force.
rlim_t raiseDescriptorLimit() {
  struct rlimit limit;
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) {
    return 1024;
  }
  if (limit.rlim_cur < limit.rlim_max) {
    struct rlimit raised = limit;
    raised.rlim_cur = limit.rlim_max;
    if (::setrlimit(RLIMIT_NOFILE, &raised) == 0) {
      limit = raised;
    }
  }
  return limit.rlim_cur;
}

}  // namespace

std::string OrbTransports::configure(ServiceContainer& container, Orb& orb) {
  FW_TRACE("OrbTransports::configure");
  VR_read_master_config();
  const std::shared_ptr<const VrMasterConfig> config = get_master_config_ptr();
  const VrConfReader none;
  TlsContext::Files files;
  std::string tlsEndpoint;
  const std::string problem = TlsContext::fromConfig(
      config ? config->reader : none, container.configKey("TLS_"), &files, &tlsEndpoint);
  if (!problem.empty()) {
    return problem;
  }
  if (!tlsEndpoint.empty()) {
    TlsContext::install(files);
    orb.addOption("endPoint", tlsEndpoint);
    FW_DEBUG("OrbTransports::configure", 1, "TLS endpoint " << tlsEndpoint);
  }

  const rlim_t descriptors = raiseDescriptorLimit();
  {
    std::lock_guard<std::mutex> lock(g_mutex);
    const rlim_t cap = std::min<rlim_t>(descriptors, 1u << 20);
    const rlim_t reserved = kReservedDescriptors;
    g_limit = static_cast<int>(std::max<rlim_t>(cap > reserved ? cap - reserved : 0, 16));
    g_open.clear();
  }
  const std::string limit = std::to_string(connectionLimit());
  // Beyond a few hundred connections one thread watches them all and a pool
  // serves their calls, instead of a thread each.
  orb.addOption("threadPerConnectionUpperLimit", "256");
  orb.addOption("threadPerConnectionLowerLimit", "192");
  orb.addOption("maxServerThreadPoolSize", "64");
  orb.addOption("maxServerThreadPerConnection", std::to_string(kThreadsPerConnection));
  orb.addOption("inConScanPeriod", std::to_string(kIdleSeconds));
  orb.addOption("serverCallTimeOutPeriod", std::to_string(kRequestArrivalMs));
  orb.addOption("sslAcceptTimeOut", "5000");
  FW_DEBUG("OrbTransports::configure", 2,
           "At most " << limit << " connections, " << kMaxConnectionsPerPeer << " a peer");
  return "";
}

void OrbTransports::install() {
  omniORB::getInterceptors()->serverAcceptConnection.add(onAccept);
  omniORB::getInterceptors()->serverReceiveRequest.add(onRequestHeader);
}

void OrbTransports::remove() {
  omniORB::getInterceptors()->serverReceiveRequest.remove(onRequestHeader);
  omniORB::getInterceptors()->serverAcceptConnection.remove(onAccept);
}

int OrbTransports::connectionLimit() {
  std::lock_guard<std::mutex> lock(g_mutex);
  return g_limit;
}

}  // namespace Framework
}  // namespace TL
}  // namespace Vaultrest
}  // namespace Ardentis
