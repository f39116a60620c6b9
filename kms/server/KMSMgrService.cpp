#include "kms/server/KMSMgrService.h"

#include <new>

#include "kms/platform/VRCluster.h"
#include "kms/platform/VrConfReader.h"
#include "kms/server/KMSMgrImpl.h"
#include "kms/server/diagnostics/Log.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

KMSMgrService::KMSMgrService() = default;

KMSMgrService::~KMSMgrService() {
  KMS_TRACE_THIS("KMSMgrService::~KMSMgrService");
  // A servant is reference counted: the last reference deletes it, so an
  // ORB that still holds one keeps it alive until it lets go.
  m_kmsMgr = nullptr;
}

int KMSMgrService::init(int argc, ACE_TCHAR** argv) {
  KMS_TRACE_THIS("KMSMgrService::init");
  if (m_kmsMgr.in() != nullptr) {
    return 0;
  }
  m_kmsMgr = new (std::nothrow)::Ardentis::Vaultrest::DL::KMS::KMSMgrImpl();
  return m_kmsMgr.in() != nullptr ? m_kmsMgr->init(argc, argv) : 0;
}

int KMSMgrService::fini() {
  KMS_TRACE_THIS("KMSMgrService::fini");
  return m_kmsMgr.in() != nullptr ? m_kmsMgr->fini() : 0;
}

int KMSMgrService::resume() {
  KMS_TRACE_THIS("KMSMgrService::resume");
  return m_kmsMgr.in() != nullptr ? m_kmsMgr->resume() : 0;
}

int KMSMgrService::suspend() {
  KMS_TRACE_THIS("KMSMgrService::suspend");
  return m_kmsMgr.in() != nullptr ? m_kmsMgr->suspend() : 0;
}

int KMSMgrService::doRun() {
  KMS_TRACE_THIS("KMSMgrService::doRun");
  enableClusterServiceMonitoring();
  return 0;
}

void KMSMgrService::doStop() {
  KMS_TRACE_THIS("KMSMgrService::doStop");
}

void KMSMgrService::doReconfig() {
  KMS_TRACE_THIS("KMSMgrService::doReconfig");
}

void KMSMgrService::doDump(int) {
  KMS_TRACE_THIS("KMSMgrService::doDump");
}

void KMSMgrService::doLicenseChange() {}

int KMSMgrService::enableClusterServiceMonitoring() {
  KMS_TRACE("KMSMgrService::enableClusterServiceMonitoring");
  const char* label = "KMSMgrService::enableClusterServiceMonitoring";
  VRCluster cluster(0);
  ClusterGroupInfo info;
  if (!cluster.isNodeClustered() || !cluster.isClustered()) {
    return 0;
  }
  KMS_DEBUG(label, 1, "This is a cluster setup. Checking if vrkms service is monitored.");
  if (cluster.getClusterData(info, nullptr) != 0) {
    KMS_DEBUG(label, 1, "Error occured while fetching cluster info");
    return 1;
  }
  VR_read_master_config();
  bool disabled = false;
  if (get_master_config_ptr() != nullptr &&
      vrconfGetKeyValPairAsBool("DISABLE_VRKMS_CLUSTER_MONITORING", &disabled) == 0 && disabled) {
    KMS_DEBUG(label, 1, "Automatic vrkms service monitoring on node is disabled");
    return 0;
  }
  for (const std::string& service : info.monitoredServices) {
    if (service == "vrkms") {
      KMS_DEBUG(label, 1, "vrkms service is already enabled for monitoring.");
      return 0;
    }
  }
  cluster.enableServiceMonitoring("vrkms");
  return 0;
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest

// The factory (_make_KMSMgrService) and destroyer (_gobble_KMSMgrService) of
// the service object, and its static descriptor: an ACE_Service_Object that
// the repository deletes with its descriptor, not active at load.
ACE_FACTORY_NAMESPACE_DEFINE(ACE_Local_Service, KMSMgrService, Vaultrest::DL::KMS::KMSMgrService)
ACE_STATIC_SVC_DEFINE(KMSMgrService, ACE_TEXT("KMSMgrService"), ACE_SVC_OBJ_T,
                      &ACE_SVC_NAME(KMSMgrService),
                      ACE_Service_Type::DELETE_THIS | ACE_Service_Type::DELETE_OBJ, 0)
