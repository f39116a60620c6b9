// Base of a service object that the framework loads from a "static <Name>"
// directive. Besides the service configurator's init/fini/suspend/resume it
// has the framework's hooks, called on the framework's control thread:
//   doRun            once the service is initialised and serving
//   doStop           as a stop begins, before fini
//   doExit           as the process is about to exit, after fini
//   doReconfig       on SIGHUP
//   doDump           on a request to dump state (level)
//   doLicenseChange  when the product's licence changes
#pragma once

#include <ace/Service_Object.h>

namespace Ardentis {
namespace Vaultrest {
namespace TL {
namespace Framework {

class VRServiceObject : public virtual ACE_Service_Object {
 public:
  // 0 on success.
  virtual int doRun() { return 0; }
  virtual void doStop() {}
  virtual void doExit() {}
  virtual void doReconfig() {}
  virtual void doDump(int level) { (void)level; }
  virtual void doLicenseChange() {}

  ~VRServiceObject() override = default;
};

}  // namespace Framework
}  // namespace TL
}  // namespace Vaultrest
}  // namespace Ardentis
