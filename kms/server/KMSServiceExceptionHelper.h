// Builds the one exception that a client of the service ever sees:
// ServiceException with ErrorCodeExceptionDetails that name the service
// ("vrkms"), this host, the method and the store's status code.
//
//   KMSServiceExceptionHelper helper("KMSControlFacetImpl::isQuiesced", 1202);
//   KMS_DEBUG(label, 1, "Throwing ServiceException: " << helper.str());
//   helper.raise();
#pragma once

#include <string>

#include <Framework.h>

namespace Ardentis {
namespace Vaultrest {
namespace DL {
namespace KMS {

class KMSServiceExceptionHelper {
 public:
  // `method` is copied.
  KMSServiceExceptionHelper(const char* method, int code);
  virtual ~KMSServiceExceptionHelper();
  KMSServiceExceptionHelper(const KMSServiceExceptionHelper&) = delete;
  KMSServiceExceptionHelper& operator=(const KMSServiceExceptionHelper&) = delete;

  // Throws a copy of the held exception.
  [[noreturn]] void raise() const;

  // str(details of the held exception).
  std::string str() const;
  // " Error code <n> (<short text>) in method <m> on host <h> at (<time>) ";
  // a code without a short text ends the text after " (". The code is 0
  // when `details` carry none.
  static std::string str(TL::Framework::ServiceExceptionDetails* details);

  const TL::Framework::ServiceException& exception() const { return m_exception; }

 private:
  TL::Framework::ServiceException m_exception;
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
}  // namespace Ardentis
