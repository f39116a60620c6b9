#include "kms/client/KmsClient.h"

#include <unistd.h>

#include "kms/client/CtlCommandLine.h"
#include "kms/client/CtlEndpoint.h"
#include "kms/platform/framework/ClientVersionInterceptor.h"
#include "kms/platform/framework/FrameworkRegistrar.h"
#include "kms/platform/framework/Orb.h"
#include "kms/platform/framework/TlsContext.h"

namespace Vaultrest {
namespace DL {
namespace KMSCtl {

namespace Remote = ::Ardentis::Vaultrest::DL::KMS;
namespace Facets = ::Ardentis::Vaultrest::DL::KMSFacetsV1;
namespace Fw = ::Ardentis::Vaultrest::TL::Framework;

namespace {

// A call waits this long for its answer; a change commits three files.
constexpr const char* kCallTimeoutMs = "120000";
constexpr const char* kConnectTimeoutMs = "10000";

// The narrowed facet; a manager that hands out nil (not serving) is a
// service that cannot be reached.
template <typename Facet>
typename Facet::_ptr_type narrowFacet(CORBA::Object_ptr base) {
  CORBA::Object_var held = base;
  typename Facet::_ptr_type facet = Facet::_narrow(held.in());
  if (CORBA::is_nil(facet)) {
    throw CORBA::OBJECT_NOT_EXIST(0, CORBA::COMPLETED_NO);
  }
  return facet;
}

}  // namespace

KmsClient::KmsClient(const std::string& reference, const CtlCommandLine::TlsFiles& tls) {
  const bool tlsGiven = !tls.certificate.empty() || !tls.key.empty() || !tls.ca.empty();
  if (tlsGiven || reference.compare(0, 16, "corbaloc:ssliop:") == 0) {
    // Without a CA nothing could be verified; a client without a
    // certificate of its own is refused by the service, not here.
    if (tls.ca.empty() || tls.certificate.empty() != tls.key.empty()) {
      throw UsageError("TLS needs --tls-ca, and --tls-cert with --tls-key");
    }
    for (const std::string* file : {&tls.certificate, &tls.key, &tls.ca}) {
      if (!file->empty() && ::access(file->c_str(), R_OK) != 0) {
        throw UsageError("cannot read " + *file);
      }
    }
    Fw::TlsContext::install({tls.certificate, tls.key, tls.ca});
  }
  // The ORB gets an argument vector of its own: the program's arguments are
  // not its options.
  int argc = 1;
  char name[] = "vrkmsctl";
  char* argv[] = {name, nullptr};
  // Every call goes by the transport of the reference given: the service's
  // references name its local endpoint too, and a client told to use TCP
  // must not be known by another identity for the facets it is handed.
  const char* transport = CtlEndpoint::isLocal(reference)                     ? "* unix"
                          : reference.compare(0, 16, "corbaloc:ssliop:") == 0 ? "* ssl"
                                                                              : "* tcp";
  const char* options[][2] = {{"clientTransportRule", transport},
                              {"clientCallTimeOutPeriod", kCallTimeoutMs},
                              {"clientConnectTimeOutPeriod", kConnectTimeoutMs},
                              {"traceLevel", "0"},
                              {"giopMaxMsgSize", Fw::Orb::kMaxMessageSize},
                              {nullptr, nullptr}};
  m_orb = CORBA::ORB_init(argc, argv, "omniORB4", options);
  Fw::FrameworkRegistrar().init(m_orb.in());
  Fw::ClientVersionInterceptor::install(kVersionMajor, kVersionMinor, kVersionPatch);
  try {
    m_object = m_orb->string_to_object(reference.c_str());
  } catch (const CORBA::BAD_PARAM&) {
    release();
    throw UsageError("not an object reference: " + reference);
  }
}

KmsClient::~KmsClient() {
  release();
}

void KmsClient::release() {
  if (CORBA::is_nil(m_orb.in())) {
    return;
  }
  m_query = Facets::KMSQueryableFacet::_nil();
  m_modify = Facets::KMSModifiableFacet::_nil();
  m_control = Facets::KMSControlFacet::_nil();
  m_manager = Remote::KMSMgr::_nil();
  m_object = CORBA::Object::_nil();
  Fw::ClientVersionInterceptor::remove();
  try {
    m_orb->destroy();
  } catch (const CORBA::Exception&) {
    // Nothing more to do at the end of the program.
  }
  m_orb = CORBA::ORB::_nil();
}

Remote::KMSMgr_ptr KmsClient::manager() {
  if (CORBA::is_nil(m_manager.in())) {
    m_manager = Remote::KMSMgr::_narrow(m_object.in());
    if (CORBA::is_nil(m_manager.in())) {
      throw CORBA::OBJECT_NOT_EXIST(0, CORBA::COMPLETED_NO);
    }
  }
  return m_manager.in();
}

Facets::KMSQueryableFacet_ptr KmsClient::query() {
  if (CORBA::is_nil(m_query.in())) {
    m_query = narrowFacet<Facets::KMSQueryableFacet>(manager()->getQueryableFacet());
  }
  return m_query.in();
}

Facets::KMSModifiableFacet_ptr KmsClient::modify() {
  if (CORBA::is_nil(m_modify.in())) {
    m_modify = narrowFacet<Facets::KMSModifiableFacet>(manager()->getModifiableFacet());
  }
  return m_modify.in();
}

Facets::KMSControlFacet_ptr KmsClient::control() {
  if (CORBA::is_nil(m_control.in())) {
    m_control = narrowFacet<Facets::KMSControlFacet>(manager()->getControlFacet());
  }
  return m_control.in();
}

}  // namespace KMSCtl
}  // namespace DL
}  // namespace Vaultrest
