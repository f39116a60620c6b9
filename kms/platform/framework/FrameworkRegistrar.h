// Registers with an ORB the factories of the framework's value types
// (ServiceExceptionDetails and the rest). A process that receives a
// ServiceException must do this once after ORB_init, or the ORB cannot
// unmarshal the exception's details (MARSHAL). The service and every
// client call it.
//
// Details nest through their root causes, and reading them recurses once a
// level: a reply whose details nest deeper than kMaxDetailDepth is not read
// but fails as MARSHAL, long before the reading thread's stack runs out.
#pragma once

#include <omniORB4/CORBA.h>

namespace Ardentis {
namespace Vaultrest {
namespace TL {
namespace Framework {

class Orb;

class FrameworkRegistrar {
 public:
  static constexpr int kMaxDetailDepth = 64;

  // Returns 0, or -1 when there is no ORB (null, or not initialised).
  int init(Orb* orb);
  int init(CORBA::ORB_ptr orb);
};

}  // namespace Framework
}  // namespace TL
}  // namespace Vaultrest
}  // namespace Ardentis
