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
