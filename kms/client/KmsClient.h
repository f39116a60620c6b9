// A client's connection to the service: its own ORB (which listens on
// nothing), the framework's value factories registered so that the details
// of a ServiceException can be read, this client's product version sent with
// every request, and the manager "KMS.KMSMgr" with the three facets it
// hands out, each fetched once on first use.
//
// One thread at a time. Calls throw what the ORB throws: ServiceException
// for a refusal by the service, CORBA system exceptions otherwise
// (TRANSIENT, COMM_FAILURE, OBJECT_NOT_EXIST when the service cannot be
// reached; NO_PERMISSION when it refuses the peer).
#pragma once

#include <cstdint>
#include <string>

#include <KMS.h>

#include "kms/client/CtlCommandLine.h"

namespace Vaultrest {
namespace DL {
namespace KMSCtl {

class KmsClient {
 public:
  // The product version this client reports.
  static constexpr uint8_t kVersionMajor = 1;
  static constexpr uint8_t kVersionMinor = 0;
  static constexpr uint8_t kVersionPatch = 0;

  // Starts the ORB and resolves `reference` (a corbaloc or IOR text); nothing
  // is sent yet. With `tls`, the ORB speaks TLS, shows that certificate and
  // key (if given) and accepts only a service whose certificate chains to
  // that CA: nothing is sent to one it cannot verify. Throws UsageError for a
  // text that is no reference, or for a TLS reference ("corbaloc:ssliop:")
  // without a CA.
  explicit KmsClient(const std::string& reference, const CtlCommandLine::TlsFiles& tls = {});
  // Stops sending the version and destroys the ORB.
  ~KmsClient();
  KmsClient(const KmsClient&) = delete;
  KmsClient& operator=(const KmsClient&) = delete;

  // The manager, narrowed on first use (a remote call).
  ::Ardentis::Vaultrest::DL::KMS::KMSMgr_ptr manager();
  // The facets, borrowed: valid as long as the client.
  ::Ardentis::Vaultrest::DL::KMSFacetsV1::KMSQueryableFacet_ptr query();
  ::Ardentis::Vaultrest::DL::KMSFacetsV1::KMSModifiableFacet_ptr modify();
  ::Ardentis::Vaultrest::DL::KMSFacetsV1::KMSControlFacet_ptr control();

 private:
  // Drops the references, stops sending the version, destroys the ORB.
  void release();

  CORBA::ORB_var m_orb;
  CORBA::Object_var m_object;
  ::Ardentis::Vaultrest::DL::KMS::KMSMgr_var m_manager;
  ::Ardentis::Vaultrest::DL::KMSFacetsV1::KMSQueryableFacet_var m_query;
  ::Ardentis::Vaultrest::DL::KMSFacetsV1::KMSModifiableFacet_var m_modify;
  ::Ardentis::Vaultrest::DL::KMSFacetsV1::KMSControlFacet_var m_control;
};

}  // namespace KMSCtl
}  // namespace DL
}  // namespace Vaultrest
