// The test's side of a call to the service: the client library's KmsClient
// for the connection to the manager and its facets, and what a call ended
// with.
#pragma once

#include <functional>
#include <string>

#include <KMS.h>

#include "kms/client/KmsClient.h"

using Vaultrest::DL::KMSCtl::KmsClient;

namespace ServiceClient {

namespace Fw = ::Ardentis::Vaultrest::TL::Framework;

// The error code of a ServiceException; -1 when its details carry none.
inline int errorCode(const Fw::ServiceException& e) {
  const Fw::ErrorCodeExceptionDetails* details =
      Fw::ErrorCodeExceptionDetails::_downcast(e.details.in());
  return details != nullptr ? details->errorCode() : -1;
}

// The error code of the ServiceException that `call` raises; 0 for none.
inline int serviceError(const std::function<void()>& call) {
  try {
    call();
  } catch (const Fw::ServiceException& e) {
    return errorCode(e);
  }
  return 0;
}

// Calls `call`; "" when it went through, "ServiceException <code>", or the
// system exception's name.
inline std::string outcome(const std::function<void()>& call) {
  try {
    call();
    return "";
  } catch (const Fw::ServiceException& e) {
    return "ServiceException " + std::to_string(errorCode(e));
  } catch (const CORBA::SystemException& e) {
    return e._name();
  }
}

}  // namespace ServiceClient
