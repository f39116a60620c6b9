#include "kms/platform/ProcessAccount.h"

#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>

namespace {

std::atomic<AdminCheck> g_adminCheck{AdminCheck::kSystem};

}  // namespace

int enable_process_for_service_account() {
  // A separate service account with logon rights of its own exists only on
  // other platforms. On Linux the daemon keeps the identity it was started
  // with (root, by the system's service manager), and the command-line
  // operations must run as root anyway (is_user_admin), so there is nothing to
  // switch to.
  return 0;
}

bool is_user_admin() {
  switch (g_adminCheck.load()) {
    case AdminCheck::kForceAdmin:
      return true;
    case AdminCheck::kForceNotAdmin:
      return false;
    case AdminCheck::kSystem:
      break;
  }
  return geteuid() == 0;
}

void setAdminCheckOverride(AdminCheck check) {
  g_adminCheck.store(check);
}

int protect_process_memory() {
  const struct rlimit noCore = {0, 0};
  const bool coreOff = setrlimit(RLIMIT_CORE, &noCore) == 0;
  const bool dumpOff = prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) == 0;
  return coreOff && dumpOff ? 0 : -1;
}
