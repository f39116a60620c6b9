// vrkmsctl: the command-line client of the key management service, for
// administrators and scripts. One command per run; see VrkmsCtl.h for the
// exit statuses and CtlCommandLine.cpp for the commands.
#include <iostream>
#include <string>
#include <vector>

#include "kms/client/VrkmsCtl.h"

int main(int argc, char** argv) {
  const std::vector<std::string> args(argv + 1, argv + argc);
  return Vaultrest::DL::KMSCtl::VrkmsCtl(std::cout, std::cerr).run(args);
}
