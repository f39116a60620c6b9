#include "kms/server/FacetCall.h"

#include "kms/platform/framework/OrbService.h"
#include "kms/server/KMSServiceExceptionHelper.h"
#include "kms/server/diagnostics/Log.h"

namespace Ardentis {
namespace Vaultrest {
namespace DL {
namespace KMS {

void raiseFacetError(const char* label, ::Vaultrest::DL::KMS::KeyStore& store,
                     const ::Vaultrest::DL::KMS::KeyStoreError& error) {
  KMS_DEBUG(label, 1, "Exception Caught: " << error.str(true));
  if (!store.isInitialized()) {
    // The store has dropped its state; this process must not go on serving.
    TL::Framework::OrbService* service = TL::Framework::OrbService::Instance();
    if (service != nullptr) {
      service->stopByEvent(true);
    }
  }
  KMSServiceExceptionHelper helper(label, error.status());
  KMS_DEBUG(label, 1, "Throwing ServiceException: " << helper.str());
  helper.raise();
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
}  // namespace Ardentis
