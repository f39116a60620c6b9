#include "kms/platform/framework/SystemdNotifier.h"

#include <systemd/sd-daemon.h>

#include <chrono>

#include "kms/platform/framework/FrameworkLog.h"

namespace Ardentis {
namespace Vaultrest {
namespace TL {
namespace Framework {

void SystemdNotifier::ready() {
  sd_notify(0, "READY=1");
}

void SystemdNotifier::status(const std::string& text) {
  std::string line = "STATUS=" + text;
  for (char& c : line) {
    if (c == '\n' || c == '\r') {
      c = ' ';
    }
  }
  sd_notify(0, line.c_str());
}

void SystemdNotifier::stopping() {
  sd_notify(0, "STOPPING=1");
}

SystemdNotifier::Watchdog::Watchdog(std::function<bool()> check) : m_check(std::move(check)) {
  uint64_t interval = 0;
  if (sd_watchdog_enabled(0, &interval) > 0 && interval > 0) {
    FW_DEBUG("SystemdNotifier::Watchdog", 1,
             "Feeding the watchdog every " << interval / 2 << " us");
    m_thread = std::thread([this, interval] { feed(interval); });
  }
}

SystemdNotifier::Watchdog::~Watchdog() {
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_done = true;
  }
  m_wake.notify_all();
  if (m_thread.joinable()) {
    m_thread.join();
  }
}

void SystemdNotifier::Watchdog::feed(uint64_t intervalUsec) {
  const std::chrono::microseconds period(intervalUsec / 2);
  std::unique_lock<std::mutex> lock(m_mutex);
  while (!m_done) {
    lock.unlock();
    if (m_check()) {
      sd_notify(0, "WATCHDOG=1");
    } else {
      FW_DEBUG("SystemdNotifier::Watchdog", 1, "The self-check failed: the watchdog is not fed");
    }
    lock.lock();
    m_wake.wait_for(lock, period, [this] { return m_done; });
  }
}

}  // namespace Framework
}  // namespace TL
}  // namespace Vaultrest
}  // namespace Ardentis
