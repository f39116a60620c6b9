#include "kms/platform/framework/StartServiceContainer.h"

#include <ace/Service_Config.h>
#include <ace/Service_Repository.h>
#include <ace/Service_Types.h>
#include <pthread.h>
#include <signal.h>
#include <strings.h>

#include <atomic>
#include <ctime>
#include <iostream>
#include <mutex>
#include <sstream>
#include <thread>
#include <utility>
#include <vector>

#include "kms/platform/framework/FrameworkLog.h"
#include "kms/platform/framework/OrbTransports.h"
#include "kms/platform/framework/ServiceProcess.h"
#include "kms/platform/framework/SystemdNotifier.h"
#include "kms/platform/framework/VRServiceObject.h"

namespace Ardentis {
namespace Vaultrest {
namespace TL {
namespace Framework {

namespace {

constexpr int kStartWaitSeconds = 120;

struct LoadedService {
  std::string name;
  VRServiceObject* object;  // owned by the service repository
};

// The name of the service a directive loads: the word after "static" or
// "dynamic"; empty for other directives.
std::string serviceNameOf(const std::string& directive) {
  std::istringstream words(directive);
  std::string kind;
  std::string name;
  words >> kind >> name;
  return kind == "static" || kind == "dynamic" ? name : std::string();
}

VRServiceObject* findService(const std::string& name) {
  const ACE_Service_Type* type = nullptr;
  if (ACE_Service_Repository::instance()->find(name.c_str(), &type) != 0 || type == nullptr ||
      type->type() == nullptr) {
    return nullptr;
  }
  auto* object = static_cast<ACE_Service_Object*>(type->type()->object());
  return dynamic_cast<VRServiceObject*>(object);
}

// Takes SIGTERM, SIGINT and SIGHUP away from every thread made from now on
// and answers them on a thread of its own.
class SignalWatcher {
 public:
  explicit SignalWatcher(ServiceContainer& container) : m_container(container) {
    sigemptyset(&m_signals);
    sigaddset(&m_signals, SIGTERM);
    sigaddset(&m_signals, SIGINT);
    sigaddset(&m_signals, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &m_signals, &m_previous);
    ::signal(SIGPIPE, SIG_IGN);
    m_thread = std::thread([this] { watch(); });
  }
  ~SignalWatcher() {
    m_done = true;
    m_thread.join();
    pthread_sigmask(SIG_SETMASK, &m_previous, nullptr);
  }
  SignalWatcher(const SignalWatcher&) = delete;
  SignalWatcher& operator=(const SignalWatcher&) = delete;

  // The services that SIGHUP reaches; none until they are loaded.
  void setServices(const std::vector<LoadedService>& services) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_services = services;
  }

 private:
  void watch() {
    const timespec tick{0, 200 * 1000 * 1000};
    while (!m_done) {
      const int signal = sigtimedwait(&m_signals, nullptr, &tick);
      if (signal == SIGTERM || signal == SIGINT) {
        FW_DEBUG("startServiceContainer", 1, "Signal " << signal << " received: stopping");
        m_container.stopByEvent(false);
      } else if (signal == SIGHUP) {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (const LoadedService& service : m_services) {
          service.object->doReconfig();
        }
      }
    }
  }

  ServiceContainer& m_container;
  std::mutex m_mutex;  // guards m_services
  std::vector<LoadedService> m_services;
  sigset_t m_signals;
  sigset_t m_previous;
  std::atomic<bool> m_done{false};
  std::thread m_thread;
};

// Loads the container's services; false when a directive fails or loads
// no VRServiceObject.
bool loadServices(ServiceContainer& container, std::vector<LoadedService>& services) {
  for (const std::string& directive : container.directives()) {
    int failures = 0;
    try {
      failures = ACE_Service_Config::process_directive(directive.c_str());
    } catch (...) {
      failures = 1;
    }
    const std::string name = serviceNameOf(directive);
    VRServiceObject* object = name.empty() ? nullptr : findService(name);
    if (failures != 0 || object == nullptr) {
      FW_DEBUG("startServiceContainer", 1, "The directive \"" << directive << "\" failed");
      return false;
    }
    services.push_back({name, object});
  }
  return true;
}

void unloadServices(std::vector<LoadedService>& services) {
  for (auto it = services.rbegin(); it != services.rend(); ++it) {
    ACE_Service_Config::remove(it->name.c_str());
  }
  services.clear();
}

int runService(ServiceContainer& container, int argc, char** argv, int readyFd) {
  std::vector<LoadedService> services;
  SignalWatcher watcher(container);
  // Who may call is settled before anyone can: a configuration whose grants
  // cannot be read whole keeps the service from starting.
  std::string grantsError;
  if (!container.loadGrants(&grantsError)) {
    FW_DEBUG("startServiceContainer", 1, "The service cannot start: " << grantsError);
    std::cerr << container.serviceName() << ": cannot start: " << grantsError << std::endl;
    ServiceProcess::reportReady(readyFd, 1);
    return 1;
  }
  Orb* orb = container.getOrb();
  const std::string transports = OrbTransports::configure(container, *orb);
  if (!transports.empty()) {
    FW_DEBUG("startServiceContainer", 1, "The service cannot start: " << transports);
    ServiceProcess::reportReady(readyFd, 1);
    return 1;
  }
  if (orb->init(argc, argv, container.endpoint(), container.runDirectory(),
                container.localSocketPath()) != 0) {
    ServiceProcess::reportReady(readyFd, 1);
    return 1;
  }
  OrbTransports::install();
  const bool started = loadServices(container, services);
  if (started) {
    watcher.setServices(services);
    for (const LoadedService& service : services) {
      // The result only informs: a service that runs stays up.
      const int run = service.object->doRun();
      FW_DEBUG("startServiceContainer", 4, service.name << " doRun returned " << run);
    }
  }
  int result = 1;
  if (started && !container.stopRequested()) {
    FW_DEBUG("startServiceContainer", 1,
             "The " << container.serviceName() << " service is running");
    ServiceProcess::reportReady(readyFd, 0);
    readyFd = -1;
    SystemdNotifier::ready();
    {
      const SystemdNotifier::Watchdog watchdog([orb] { return orb->answers(); });
      container.waitForStop();
    }
    SystemdNotifier::stopping();
    result = container.stoppedAbnormally() ? 1 : 0;
  } else if (started) {
    result = container.stoppedAbnormally() ? 1 : 0;
  }
  ServiceProcess::reportReady(readyFd, 1);
  FW_DEBUG("startServiceContainer", 1, "The " << container.serviceName() << " service is stopping");
  for (const LoadedService& service : services) {
    service.object->doStop();
  }
  // Services take their objects out of the POA while it still exists: once
  // the ORB is shut down nothing can be deactivated, and a servant the POA
  // still holds outlives its owner (and everything the servant owns).
  // fini, when the services are unloaded, finds them suspended already.
  for (auto it = services.rbegin(); it != services.rend(); ++it) {
    it->object->suspend();
  }
  orb->shutdown(true);
  for (const LoadedService& service : services) {
    service.object->doExit();
  }
  watcher.setServices({});
  unloadServices(services);
  OrbTransports::remove();
  orb->destroy();
  FW_DEBUG("startServiceContainer", 1, "The " << container.serviceName() << " service has stopped");
  return result;
}

}  // namespace

int startServiceContainer(ServiceContainer* container, int argc, char** argv,
                          unsigned long originator, bool foreground, bool keepPidFile,
                          const char* unused) {
  FW_TRACE("startServiceContainer");
  (void)unused;
  if (container == nullptr) {
    return 1;
  }
  bool console = foreground;
  bool terminate = false;
  for (int i = 1; i < argc; ++i) {
    if (::strcasecmp(argv[i], "-console") == 0) {
      console = true;
    } else if (::strcasecmp(argv[i], "-terminate") == 0) {
      terminate = true;
    }
  }
  FW_DEBUG("startServiceContainer", 1,
           "Service " << container->serviceName() << " (originator " << originator << ")"
                      << (terminate ? ": terminate"
                          : console ? ": console"
                                    : ""));
  if (terminate) {
    return ServiceProcess::terminate(container->pidFilePath(), container->serviceName(),
                                     container->stopTimeoutSeconds());
  }
  int readyFd = -1;
  if (!console) {
    int startStatus = 1;
    if (!ServiceProcess::daemonize(kStartWaitSeconds, &readyFd, &startStatus)) {
      return startStatus;
    }
  }
  if (ServiceProcess::writePidFile(container->pidFilePath(), container->serviceName()) != 0) {
    ServiceProcess::reportReady(readyFd, 1);
    return 1;
  }
  const int result = runService(*container, argc, argv, readyFd);
  if (!keepPidFile) {
    ServiceProcess::removePidFile(container->pidFilePath());
  }
  return result;
}

}  // namespace Framework
}  // namespace TL
}  // namespace Vaultrest
}  // namespace Ardentis
