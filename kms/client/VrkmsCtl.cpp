#include "kms/client/VrkmsCtl.h"

#include <Framework.h>

#include "kms/client/CtlCommandLine.h"
#include "kms/client/CtlCommands.h"
#include "kms/client/CtlEndpoint.h"
#include "kms/client/CtlExportFile.h"
#include "kms/client/CtlPrinter.h"
#include "kms/client/KmsClient.h"

namespace Vaultrest {
namespace DL {
namespace KMSCtl {

namespace Fw = ::Ardentis::Vaultrest::TL::Framework;

namespace {

// Whether a system exception means that the service was not reached at all
// (nothing listens, the connection broke, the object is not served there).
bool isUnreachable(const CORBA::SystemException& e) {
  return CORBA::TRANSIENT::_downcast(&e) != nullptr ||
         CORBA::COMM_FAILURE::_downcast(&e) != nullptr ||
         CORBA::OBJECT_NOT_EXIST::_downcast(&e) != nullptr ||
         CORBA::INV_OBJREF::_downcast(&e) != nullptr || CORBA::TIMEOUT::_downcast(&e) != nullptr;
}

// Whether a system exception means that the reply could not be read as the
// service writes it: not to be trusted, whoever sent it.
bool isUntrusted(const CORBA::SystemException& e) {
  return CORBA::MARSHAL::_downcast(&e) != nullptr;
}

std::string systemExceptionText(const CORBA::SystemException& e) {
  if (CORBA::NO_PERMISSION::_downcast(&e) != nullptr) {
    return "the service does not grant this host the right to this call";
  }
  return "the call failed in the ORB";
}

}  // namespace

int VrkmsCtl::run(const std::vector<std::string>& args) {
  bool json = false;
  std::string reference;
  try {
    const CtlCommandLine line = CtlCommandLine::parse(args);
    json = line.json();
    if (line.helpRequested()) {
      m_out << CtlCommandLine::usage();
      return kSuccess;
    }
    reference = line.endpoint().empty() ? CtlEndpoint::configuredReference()
                                        : CtlEndpoint::toReference(line.endpoint());
    KmsClient client(reference, line.tls());
    CtlPrinter printer(m_out, json);
    const bool succeeded = CtlCommands(client, printer).run(line);
    m_out.flush();
    return succeeded ? kSuccess : kServiceError;
  } catch (const UsageError& e) {
    m_err << "vrkmsctl: " << e.what() << "\n" << CtlCommandLine::usage();
    return kUsageError;
  } catch (const Fw::ServiceException& e) {
    const Fw::ErrorCodeExceptionDetails* details =
        Fw::ErrorCodeExceptionDetails::_downcast(e.details.in());
    const int code = details != nullptr ? details->errorCode() : 0;
    CtlPrinter::error(json ? m_out : m_err, json, std::to_string(code), true,
                      CtlPrinter::statusText(code));
    return kServiceError;
  } catch (const CORBA::SystemException& e) {
    if (isUnreachable(e)) {
      const std::string text = "cannot reach the service at " + reference;
      CtlPrinter::error(json ? m_out : m_err, json, e._name(), false, text);
      return kUnreachable;
    }
    if (isUntrusted(e)) {
      const std::string text = "the reply from " + reference + " is not to be trusted";
      CtlPrinter::error(json ? m_out : m_err, json, e._name(), false, text);
      return kUnreachable;
    }
    CtlPrinter::error(json ? m_out : m_err, json, e._name(), false, systemExceptionText(e));
    return kServiceError;
  } catch (const FileError& e) {
    CtlPrinter::error(json ? m_out : m_err, json, "FILE", false, e.what());
    return kServiceError;
  } catch (const CORBA::Exception& e) {
    CtlPrinter::error(json ? m_out : m_err, json, e._name(), false, "unexpected exception");
    return kServiceError;
  }
}

}  // namespace KMSCtl
}  // namespace DL
}  // namespace Vaultrest
