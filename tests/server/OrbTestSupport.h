// The test process's own client ORB (no endpoint of its own), made once,
// with the framework's value factories registered. It calls over TCP only,
// as a client on another host would, never on the service's local endpoint.
#pragma once

#include <omniORB4/CORBA.h>

#include "kms/platform/framework/FrameworkRegistrar.h"

inline CORBA::ORB_ptr testOrb() {
  static CORBA::ORB_ptr orb = [] {
    int argc = 1;
    char name[] = "server_tests";
    char* argv[] = {name, nullptr};
    const char* options[][2] = {
        {"clientCallTimeOutPeriod", "20000"}, {"clientTransportRule", "* tcp"}, {nullptr, nullptr}};
    CORBA::ORB_ptr made = CORBA::ORB_init(argc, argv, "omniORB4", options);
    Ardentis::Vaultrest::TL::Framework::FrameworkRegistrar().init(made);
    return made;
  }();
  return orb;
}
