// The service's container: the framework's container with one rule of its
// own on who may call (extraServiceLevelValidation).
#pragma once

#include "kms/platform/framework/ServiceContainer.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

class KMSServiceContainer : public ::Ardentis::Vaultrest::TL::Framework::ServiceContainer {
 public:
  using ServiceContainer::ServiceContainer;

  // With "VRKMS_BLOCK_MEDIA" set in the master configuration, only the
  // master server (a local host that is the first SERVER) may call: 1
  // allows, 0 refuses. Without the flag, or when the master configuration
  // cannot be read, every peer is allowed. Reads the master configuration
  // on every call; keeps no state; any thread.
  int extraServiceLevelValidation(const char* peer) override;
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
