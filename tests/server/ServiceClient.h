// The test's side of a call to the service: the client library's KmsClient,
// and what a call ended with.
#pragma once

#include <functional>
#include <string>

#include <KMS.h>
#include <gtest/gtest.h>

#include "kms/client/KmsClient.h"

using Vaultrest::DL::KMSCtl::KmsClient;

namespace ServiceClient {

namespace Fw = ::Ardentis::Vaultrest::TL::Framework;

// The error code of a ServiceException; -1 when its details carry none.
inline int errorCode(const Fw::ServiceException& e) {
  const auto* details = Fw::ErrorCodeExceptionDetails::_downcast(e.details.in());
  return details != nullptr ? details->errorCode() : -1;
}

// Calls `call`; "" when it went through, "ServiceException <code>", or the system exception's name.
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

// The error code of the ServiceException that `call` raises; 0 for none.
// Any other exception fails the test under its name and gives -2.
inline int serviceError(const std::function<void()>& call) {
  const std::string failed = outcome(call);
  const bool service = failed.rfind("ServiceException ", 0) == 0;
  EXPECT_TRUE(failed.empty() || service) << failed;
  return failed.empty() ? 0 : service ? std::stoi(failed.substr(failed.find(' ') + 1)) : -2;
}

}  // namespace ServiceClient
