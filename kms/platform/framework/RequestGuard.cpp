#include "kms/platform/framework/RequestGuard.h"

#include <omniORB4/CORBA.h>
#include <omniORB4/callDescriptor.h>
#include <omniORB4/omniInterceptors.h>

// The request's service contexts are only reachable through GIOP_S, whose
// header needs the two stream headers before it.
#include <omniORB4/internal/giopStrand.h>

#include <omniORB4/internal/giopStream.h>

#include <omniORB4/internal/GIOP_S.h>

#include <cstring>

#include "kms/platform/framework/FrameworkLog.h"
#include "kms/platform/framework/PeerConnection.h"
#include "kms/platform/framework/ServiceContainer.h"

namespace Ardentis {
namespace Vaultrest {
namespace TL {
namespace Framework {

namespace {

thread_local PeerTSSResources t_request;

CORBA::Boolean onRequestReceived(omni::omniInterceptors::serverReceiveRequest_T::info_T& info) {
  t_request.reset();
  t_request.remote = true;
  const char* address = info.peeraddress();
  t_request.peerAddress = address != nullptr ? address : "";
  t_request.identity = identityOfConnection(info.giop_s.strand().connection, t_request.peerAddress);
  // A local peer is on this host: the peer rule sees it as loopback.
  t_request.peerHost = t_request.identity.transport == PeerTransport::kLocal
                           ? "127.0.0.1"
                           : peerHostOf(t_request.peerAddress);
  const IOP::ServiceContextList& contexts = info.giop_s.service_contexts();
  for (CORBA::ULong i = 0; i < contexts.length(); ++i) {
    if (contexts[i].context_id == kPeerVersionContextId && contexts[i].context_data.length() >= 3) {
      t_request.versionPresent = true;
      t_request.major = contexts[i].context_data[0];
      t_request.minor = contexts[i].context_data[1];
      t_request.patch = contexts[i].context_data[2];
    }
  }
  return true;
}

void onServantCall(omniCallDescriptor* call, omniServant* servant) {
  ServiceContainer* container = ServiceContainer::current();
  if (container != nullptr && call->is_upcall() && t_request.remote) {
    const char* operation = call->op() != nullptr ? call->op() : "";
    const bool builtIn = operation[0] == '_';
    const std::string key =
        builtIn ? std::string(operation)
                : RequestGuard::operationKey(servant->_mostDerivedRepoId(), operation);
    if (!RequestGuard::admit(*container, t_request, key, builtIn)) {
      throw CORBA::NO_PERMISSION(0, CORBA::COMPLETED_NO);
    }
  }
  call->interceptedCall(servant);
}

}  // namespace

void RequestGuard::install() {
  omni::omniInterceptors* interceptors = omniORB::getInterceptors();
  interceptors->serverReceiveRequest.add(onRequestReceived);
  omniCallDescriptor::addInterceptor(onServantCall);
}

void RequestGuard::remove() {
  omni::omniInterceptors* interceptors = omniORB::getInterceptors();
  interceptors->serverReceiveRequest.remove(onRequestReceived);
  omniCallDescriptor::removeInterceptor(onServantCall);
}

PeerTSSResources* RequestGuard::currentRequest() {
  return t_request.remote ? &t_request : nullptr;
}

std::string RequestGuard::operationKey(const char* repositoryId, const char* operation) {
  std::string id = repositoryId != nullptr ? repositoryId : "";
  if (id.compare(0, 4, "IDL:") == 0) {
    id = id.substr(4);
  }
  const size_t version = id.rfind(':');
  if (version != std::string::npos) {
    id = id.substr(0, version);
  }
  return id + "_" + (operation != nullptr ? operation : "");
}

bool RequestGuard::admit(ServiceContainer& container, const PeerTSSResources& peer,
                         const std::string& operation, bool builtIn) {
  if (container.extraServiceLevelValidation(peer.peerHost.c_str()) == 0) {
    FW_DEBUG("RequestGuard::admit", 1,
             "Refused " << operation << " to peer " << peer.peerAddress
                        << ": the service does not serve this peer");
    return false;
  }
  if (builtIn) {
    return true;
  }
  const PeerRights rights = container.peerRights(peer.identity);
  if (!container.authorizes(operation, rights)) {
    FW_DEBUG("RequestGuard::admit", 1,
             "Refused " << operation << " to peer " << peer.peerAddress << " ("
                        << transportName(peer.identity.transport) << " "
                        << (peer.identity.name.empty() ? "unidentified" : peer.identity.name)
                        << "): the peer lacks the rights");
    return false;
  }
  return true;
}

}  // namespace Framework
}  // namespace TL
}  // namespace Vaultrest
}  // namespace Ardentis
