// Who the process runs as: the administrator test of the command-line
// operations and the switch to the service account.
#pragma once

// Switches the process to the product's service account. Returns 0.
int enable_process_for_service_account();

// True when the caller may administer the key store: the effective user is
// root, unless a test has set an override (below).
bool is_user_admin();

// Process-wide override of is_user_admin() for tests, which mostly do not run
// as root. kSystem restores the real check. Set it while no other thread asks.
enum class AdminCheck { kSystem, kForceAdmin, kForceNotAdmin };
void setAdminCheckOverride(AdminCheck check);

// Keeps the process's memory, which holds keys and passphrases, out of core
// files and away from other processes of the same user: no core file
// (RLIMIT_CORE 0) and not dumpable (which also closes /proc/<pid>/mem and
// ptrace to anyone without CAP_SYS_PTRACE). Returns 0, or -1 when either
// setting failed (errno tells).
int protect_process_memory();
