// What the framework knows of the peer of the request that the calling
// thread serves. Filled by the framework's request interceptor as each
// remote request arrives; read by servants through Orb::getTSSResources().
#pragma once

#include <cstdint>
#include <string>

#include "kms/platform/framework/PeerIdentity.h"

namespace Ardentis {
namespace Vaultrest {
namespace TL {
namespace Framework {

// Service context in which a client sends its product version: three
// octets, major, minor and patch.
constexpr uint32_t kPeerVersionContextId = 0x56524b01;

struct PeerTSSResources {
  bool remote = false;          // the thread serves a remote request
  std::string peerAddress;      // the ORB's text, "giop:tcp:10.0.0.1:4000"
  std::string peerHost;         // the numeric host of peerAddress; loopback for a local peer
  PeerIdentity identity;        // who the peer is, by its transport
  bool versionPresent = false;  // the peer sent its version
  uint8_t major = 0;
  uint8_t minor = 0;
  uint8_t patch = 0;

  void reset() { *this = PeerTSSResources(); }
};

}  // namespace Framework
}  // namespace TL
}  // namespace Vaultrest
}  // namespace Ardentis
