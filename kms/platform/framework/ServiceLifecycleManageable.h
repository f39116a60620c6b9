// The life cycle that a service object forwards to the object that does its
// work: init once, then resume and suspend any number of times, fini at the
// end. Each returns 0, or -1 for a failure. Control thread only.
#pragma once

namespace Ardentis {
namespace Vaultrest {
namespace TL {
namespace Framework {

class Orb;

class ServiceLifecycleManageable {
 public:
  virtual ~ServiceLifecycleManageable() = default;

  virtual int init(int argc, char** argv) = 0;
  virtual int fini() = 0;
  // The ORB of the running service, or null when there is none.
  virtual Orb* getOrb() = 0;
  virtual int resume() = 0;
  virtual int suspend() = 0;
};

}  // namespace Framework
}  // namespace TL
}  // namespace Vaultrest
}  // namespace Ardentis
