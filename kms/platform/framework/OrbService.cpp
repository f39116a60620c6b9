#include "kms/platform/framework/OrbService.h"

#include <atomic>

#include "kms/platform/framework/FrameworkLog.h"

namespace Ardentis {
namespace Vaultrest {
namespace TL {
namespace Framework {

namespace {
std::atomic<OrbService*> s_instance{nullptr};
}  // namespace

OrbService* OrbService::Instance() {
  return s_instance.load();
}

OrbService::OrbService() {
  OrbService* expected = nullptr;
  s_instance.compare_exchange_strong(expected, this);
}

OrbService::~OrbService() {
  OrbService* expected = this;
  s_instance.compare_exchange_strong(expected, nullptr);
}

void OrbService::stopByEvent(bool abnormal) {
  FW_DEBUG("OrbService::stopByEvent", 1, "Stop requested" << (abnormal ? " after a fault" : ""));
  std::lock_guard<std::mutex> lock(m_mutex);
  m_stopRequested = true;
  m_abnormal = m_abnormal || abnormal;
  m_stopped.notify_all();
}

bool OrbService::stopRequested() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_stopRequested;
}

bool OrbService::stoppedAbnormally() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_abnormal;
}

void OrbService::waitForStop() {
  std::unique_lock<std::mutex> lock(m_mutex);
  m_stopped.wait(lock, [this] { return m_stopRequested; });
}

}  // namespace Framework
}  // namespace TL
}  // namespace Vaultrest
}  // namespace Ardentis
