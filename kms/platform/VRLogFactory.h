// Hands out the process's loggers, one per originator, created on first use
// and alive until the process ends.
#pragma once

#include <map>
#include <memory>
#include <mutex>

#include "kms/platform/VRLogger.h"

class VRLogFactory {
 public:
  static VRLogFactory* Instance();

  // The logger of `originator`. Its debug level comes from VRKMS_DEBUG_LEVEL
  // in the master configuration (default 1), read when the logger is made.
  // The `primary` flag marks the program's own logger; library loggers write
  // to the same files. Never returns null.
  VRLogger* getLogger(unsigned long originator, bool primary);

  // Directory of the log files: $VREST_ROOT/logs/vrkms.
  static std::string logDirectory();

 private:
  VRLogFactory() = default;
  std::mutex m_mutex;
  std::map<unsigned long, std::unique_ptr<VRLogger>> m_loggers;
};
