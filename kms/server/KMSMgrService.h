// The service object that the framework loads from the directive
// "static KMSMgrService". It owns the KMSMgrImpl and forwards the
// framework's life cycle to it; doRun turns on the cluster's monitoring of
// the service. Control thread only.
#pragma once

#include <ace/Global_Macros.h>
#include <ace/Service_Config.h>
#include <omniORB4/CORBA.h>

#include "kms/platform/framework/VRServiceObject.h"

namespace Ardentis {
namespace Vaultrest {
namespace DL {
namespace KMS {
class KMSMgrImpl;
}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
}  // namespace Ardentis

namespace Vaultrest {
namespace DL {
namespace KMS {

class KMSMgrService : public ::Ardentis::Vaultrest::TL::Framework::VRServiceObject {
 public:
  // enableClusterServiceMonitoring(), whatever it gives; returns 0.
  int doRun() override;
  // Trace only: nothing is stopped, reloaded or dumped here.
  void doStop() override;
  void doReconfig() override;
  void doDump(int level) override;
  // The licence hook; nothing to do.
  void doLicenseChange() override;

  KMSMgrService();
  // Releases the KMSMgrImpl (which shuts the store down).
  ~KMSMgrService() override;

  // The first call makes the KMSMgrImpl and returns its init; a later call
  // returns 0 and does nothing.
  int init(int argc, ACE_TCHAR** argv) override;
  // Forwarded to the KMSMgrImpl when there is one; 0 otherwise.
  int fini() override;
  int resume() override;
  int suspend() override;

  // On a cluster node, puts the service under the cluster's monitoring
  // unless the master configuration disables it ("DISABLE_VRKMS_CLUSTER_
  // MONITORING") or it is monitored already. 1 when the cluster data cannot
  // be had, 0 otherwise.
  static int enableClusterServiceMonitoring();

  // The manager, or null before init.
  ::Ardentis::Vaultrest::DL::KMS::KMSMgrImpl* manager() const { return m_kmsMgr.in(); }

 private:
  // The service's own reference on the manager; null before init (or when
  // it could not be made).
  PortableServer::Servant_var<::Ardentis::Vaultrest::DL::KMS::KMSMgrImpl> m_kmsMgr;
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest

// The static service descriptor of "KMSMgrService", for
// ACE_Service_Config::process_directive before the directive is processed.
ACE_STATIC_SVC_DECLARE(KMSMgrService)
