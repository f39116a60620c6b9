#include "kms/server/KMSServiceContainer.h"

#include "kms/platform/HostCheck.h"
#include "kms/platform/VrConfReader.h"
#include "kms/server/diagnostics/Log.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

int KMSServiceContainer::extraServiceLevelValidation(const char* peer) {
  KMS_TRACE_THIS("KMSServiceContainer::extraServiceLevelValidation");
  const char* label = "KMSServiceContainer::extraServiceLevelValidation";
  const int status = VR_read_master_config();
  if (status != 0) {
    KMS_DEBUG(label, 1, "VR_read_master_config failed with status :" << status);
    return 1;
  }
  bool blockMedia = false;
  if (vrconfGetKeyValPairAsBool("VRKMS_BLOCK_MEDIA", &blockMedia) != 0 || !blockMedia) {
    return 1;
  }
  KMS_DEBUG(label, 6,
            "Configuration flag:VRKMS_BLOCK_MEDIA is set, checking whether the peer is media "
            "server");
  const char* name = peer != nullptr ? peer : "";
  if (vrnet_is_local_host(name) && vrnet_is_master_server(name)) {
    KMS_DEBUG(label, 6, "Peer:" << name << " is master server, allowing request");
    return 1;
  }
  KMS_DEBUG(label, 1, "Peer:" << name << " is media server, NOT allowing request");
  return 0;
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
