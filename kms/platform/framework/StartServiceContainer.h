// The life of a service process, from the command line to the exit status.
#pragma once

#include "kms/platform/framework/ServiceContainer.h"

namespace Ardentis {
namespace Vaultrest {
namespace TL {
namespace Framework {

// Runs `container`'s service and returns the process's result. The
// arguments after argv[0] that it reads (case ignored):
//   "-terminate"  stop the running service (pid file), wait for it, return
//                 0 when it stopped and 1 when none ran or it did not stop
//   "-console"    run in the foreground
// Without either (and without `foreground`), the process detaches; the
// original process returns once the daemon reports its start (0 when it is
// serving, 1 when it failed).
//
// The start, in order: pid file; SIGTERM and SIGINT (stop) and SIGHUP
// (doReconfig) taken over by a watcher thread; the ORB on the container's
// endpoint; the container's directives through ACE_Service_Config (which
// calls each service object's init); doRun of each VRServiceObject. Then it
// waits for a stop (a signal or OrbService::stopByEvent) and ends in order:
// doStop, suspend of each service (in reverse order of loading: its objects
// leave the POA while the POA still exists), ORB shutdown (requests in
// progress finish), doExit, removal of each service (its fini, then its
// deletion), ORB destroy, pid file.
//
// Returns 0 after a normal stop; 1 when the start failed or the stop was
// forced by a fault. `originator` is the service's logging originator;
// `keepPidFile` leaves the pid file in place at the end; `unused` is
// reserved ("").
int startServiceContainer(ServiceContainer* container, int argc, char** argv,
                          unsigned long originator, bool foreground, bool keepPidFile,
                          const char* unused);

}  // namespace Framework
}  // namespace TL
}  // namespace Vaultrest
}  // namespace Ardentis
