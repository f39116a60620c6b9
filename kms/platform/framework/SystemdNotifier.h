// Tells systemd how the service is doing, over the socket that systemd
// names in $NOTIFY_SOCKET (sd_notify): readiness, a status line that
// `systemctl status` shows, the stop, and a watchdog. Without
// NOTIFY_SOCKET (not started by systemd, or by a unit that is not
// Type=notify) every call does nothing. Never throws.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace Ardentis {
namespace Vaultrest {
namespace TL {
namespace Framework {

class SystemdNotifier {
 public:
  // "READY=1": the service answers requests.
  static void ready();
  // "STATUS=<text>" (line ends in `text` become spaces).
  static void status(const std::string& text);
  // "STOPPING=1": the service has begun to stop.
  static void stopping();

  // Feeds systemd's watchdog ("WATCHDOG=1") from a thread of its own, at
  // half the interval systemd asks for (WATCHDOG_USEC), each time `check`
  // passes; a check that fails or hangs leaves the watchdog unfed, and
  // systemd then stops the service. Without a watchdog requested it starts
  // no thread. The destructor stops the thread and waits for a check in
  // progress; `check` must stay callable until then.
  class Watchdog {
   public:
    explicit Watchdog(std::function<bool()> check);
    ~Watchdog();
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

   private:
    void feed(uint64_t intervalUsec);

    std::function<bool()> m_check;
    std::mutex m_mutex;  // guards m_done
    std::condition_variable m_wake;
    bool m_done = false;
    std::thread m_thread;
  };
};

}  // namespace Framework
}  // namespace TL
}  // namespace Vaultrest
}  // namespace Ardentis
