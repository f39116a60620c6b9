#include "kms/server/KMSServiceExceptionHelper.h"

#include <ace/OS_NS_string.h>
#include <ace/OS_NS_sys_utsname.h>

#include <ctime>
#include <sstream>

#include "kms/platform/CrvnLis.h"

namespace Ardentis {
namespace Vaultrest {
namespace DL {
namespace KMS {

namespace {
constexpr size_t kMaxHostLength = 64;
}  // namespace

KMSServiceExceptionHelper::KMSServiceExceptionHelper(const char* method, int code) {
  TL::Framework::ErrorCodeExceptionDetails_var details =
      new OBV_Ardentis::Vaultrest::TL::Framework::ErrorCodeExceptionDetails();
  details->originatingService("vrkms");
  details->exceptionClassName(static_cast<const char*>(m_exception._name()));
  ACE_utsname name;
  char host[kMaxHostLength + 1] = "";
  if (ACE_OS::uname(&name) == 0) {
    ACE_OS::strsncpy(host, name.nodename, sizeof host);
  }
  details->originatingHost(static_cast<const char*>(host));
  details->originatingMethod(method != nullptr ? method : "");
  details->timeStamp(static_cast<CORBA::LongLong>(time(nullptr)));
  details->errorCode(code);
  m_exception.details = details._retn();
}

KMSServiceExceptionHelper::~KMSServiceExceptionHelper() = default;

void KMSServiceExceptionHelper::raise() const {
  throw m_exception;
}

std::string KMSServiceExceptionHelper::str() const {
  return str(m_exception.details.in());
}

std::string KMSServiceExceptionHelper::str(TL::Framework::ServiceExceptionDetails* details) {
  if (details == nullptr) {
    return "";
  }
  const TL::Framework::ErrorCodeExceptionDetails* coded =
      TL::Framework::ErrorCodeExceptionDetails::_downcast(details);
  const int code = coded != nullptr ? coded->errorCode() : 0;
  std::ostringstream text;
  text << " Error code " << code << " (";
  const char* shortText = getECmsg(code);
  if (shortText == nullptr) {
    return text.str();
  }
  const time_t when = static_cast<time_t>(details->timeStamp());
  char timeText[64] = "";
  ctime_r(&when, timeText);
  const char* method = details->originatingMethod();
  const char* host = details->originatingHost();
  text << shortText << ")"
       << " in method " << (method != nullptr ? method : "") << " on host "
       << (host != nullptr ? host : "") << " at (" << timeText << ") ";
  return text.str();
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
}  // namespace Ardentis
