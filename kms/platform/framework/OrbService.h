// The process's running service as seen from inside: its ORB and its stop.
// There is at most one per process (the ServiceContainer); Instance() is
// null when there is none, as in a plain command-line run.
#pragma once

#include <condition_variable>
#include <mutex>

#include "kms/platform/framework/Orb.h"

namespace Ardentis {
namespace Vaultrest {
namespace TL {
namespace Framework {

class OrbService {
 public:
  // The process's service, or null.
  static OrbService* Instance();

  // The service's ORB; owned by this object, uninitialised until the
  // service starts.
  Orb* getOrb() { return &m_orb; }

  // Asks the service to stop in order: the framework's control thread
  // leaves its wait, finalises the services and shuts the ORB down. Safe
  // from any thread, ORB threads and signal watchers included; returns at
  // once. `abnormal` marks a stop forced by a fault: the service's result
  // is then 1.
  void stopByEvent(bool abnormal);

  bool stopRequested() const;
  bool stoppedAbnormally() const;

  // Blocks until stopByEvent has been called.
  void waitForStop();

 protected:
  OrbService();
  virtual ~OrbService();
  OrbService(const OrbService&) = delete;
  OrbService& operator=(const OrbService&) = delete;

 private:
  Orb m_orb;
  mutable std::mutex m_mutex;  // guards the two flags
  std::condition_variable m_stopped;
  bool m_stopRequested = false;
  bool m_abnormal = false;
};

}  // namespace Framework
}  // namespace TL
}  // namespace Vaultrest
}  // namespace Ardentis
