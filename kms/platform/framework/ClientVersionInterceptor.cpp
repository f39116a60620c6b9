#include "kms/platform/framework/ClientVersionInterceptor.h"

#include <omniORB4/CORBA.h>
#include <omniORB4/omniInterceptors.h>

#include <atomic>

#include "kms/platform/framework/PeerTSSResources.h"

namespace Ardentis {
namespace Vaultrest {
namespace TL {
namespace Framework {

namespace {

std::atomic<uint32_t> s_version{0};  // 0x00MMmmpp
std::atomic<bool> s_installed{false};

CORBA::Boolean addVersion(omni::omniInterceptors::clientSendRequest_T::info_T& info) {
  const uint32_t version = s_version.load();
  const CORBA::ULong index = info.service_contexts.length();
  info.service_contexts.length(index + 1);
  IOP::ServiceContext& context = info.service_contexts[index];
  context.context_id = kPeerVersionContextId;
  context.context_data.length(3);
  context.context_data[0] = static_cast<CORBA::Octet>(version >> 16);
  context.context_data[1] = static_cast<CORBA::Octet>(version >> 8);
  context.context_data[2] = static_cast<CORBA::Octet>(version);
  return true;
}

}  // namespace

void ClientVersionInterceptor::install(uint8_t major, uint8_t minor, uint8_t patch) {
  s_version = (uint32_t{major} << 16) | (uint32_t{minor} << 8) | patch;
  if (!s_installed.exchange(true)) {
    omniORB::getInterceptors()->clientSendRequest.add(addVersion);
  }
}

void ClientVersionInterceptor::remove() {
  if (s_installed.exchange(false)) {
    omniORB::getInterceptors()->clientSendRequest.remove(addVersion);
  }
}

}  // namespace Framework
}  // namespace TL
}  // namespace Vaultrest
}  // namespace Ardentis
