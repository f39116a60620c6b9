// Entry point of vrkms. The command-line grammar arrives with the entry work;
// until then the program only sets up its loggers and exits.
#include "kms/platform/VRLogFactory.h"

int main() {
  VRLogFactory* factory = VRLogFactory::Instance();
  VRLogger::s_default = factory->getLogger(286, true);
  VRLogger::s_defaultLib = factory->getLogger(137, false);
  return 0;
}
