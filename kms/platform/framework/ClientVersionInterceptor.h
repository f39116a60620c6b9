// Client side of the peer version: adds the client's product version to
// every request it sends, as the kPeerVersionContextId service context
// (three octets: major, minor, patch). A service reads it with
// Orb::getTSSResources().
#pragma once

#include <cstdint>

namespace Ardentis {
namespace Vaultrest {
namespace TL {
namespace Framework {

class ClientVersionInterceptor {
 public:
  // Call once after ORB_init; a second call only changes the version sent.
  static void install(uint8_t major, uint8_t minor, uint8_t patch);
  // Stops sending the version; call before the ORB is destroyed.
  static void remove();
};

}  // namespace Framework
}  // namespace TL
}  // namespace Vaultrest
}  // namespace Ardentis
