// Registers with an ORB the factories of the framework's value types
// (ServiceExceptionDetails and the rest). A process that receives a
// ServiceException must do this once after ORB_init, or the ORB cannot
// unmarshal the exception's details (MARSHAL). The service and every
// client call it.
#pragma once

#include <omniORB4/CORBA.h>

namespace Ardentis {
namespace Vaultrest {
namespace TL {
namespace Framework {

class Orb;

class FrameworkRegistrar {
 public:
  // Returns 0, or -1 when there is no ORB (null, or not initialised).
  int init(Orb* orb);
  int init(CORBA::ORB_ptr orb);
};

}  // namespace Framework
}  // namespace TL
}  // namespace Vaultrest
}  // namespace Ardentis
