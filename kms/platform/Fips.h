// FIPS mode: what the product's configuration asks for a process, and what the
// crypto library is actually doing. The two are separate on purpose.
#pragma once

// Non-zero when the master configuration asks FIPS mode for the process
// `name`: the boolean "<NAME>_FIPS" (name in capitals, so "vrkms" reads
// VRKMS_FIPS) is YES, TRUE or 1. 0 when it is absent, false or malformed, when
// the configuration cannot be read, or when `name` is null or empty. Uses the
// process-wide copy of VR_read_master_config() when there is one, otherwise
// reads the file. Never throws.
int getFIPSModeForProcess(const char* name);

// Whether the crypto library's default properties require FIPS providers
// (OpenSSL 3's EVP_default_properties_is_fips_enabled on the default library
// context): 1 or 0.
int FIPS_mode();
