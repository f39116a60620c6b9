#include "kms/platform/VRLogFactory.h"

#include "kms/platform/InstallRoot.h"
#include "kms/platform/VrConfReader.h"

VRLogFactory* VRLogFactory::Instance() {
  static VRLogFactory* instance = new VRLogFactory();  // lives until exit, never destroyed
  return instance;
}

std::string VRLogFactory::logDirectory() {
  return InstallRoot::path("logs/vrkms");
}

VRLogger* VRLogFactory::getLogger(unsigned long originator, bool /*primary*/) {
  std::lock_guard<std::mutex> lock(m_mutex);
  auto& slot = m_loggers[originator];
  if (!slot) {
    VrConfReader conf;
    long level = 1;
    if (conf.read(VR_master_config_path()) == 0) {
      level = conf.getInt("VRKMS_DEBUG_LEVEL", 1);
    }
    const std::string dir = logDirectory();
    slot = std::make_unique<VRLogger>(originator, dir + "/vrkms_debug.log", dir + "/vrkms_app.log",
                                      static_cast<int>(level));
  }
  return slot.get();
}
