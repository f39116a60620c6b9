// vrkms-sandbox-store: makes the store of a sandbox root ($VREST_ROOT, with
// KMS_DIR in its vr.conf) with random master keys, unless one is there.
// A development tool of `make run`, not installed: the administrator's way
// to the same end is "vrkms -createemptydb", which runs as root only.
//
// Exit status: 0 when the store exists afterwards, 1 otherwise.
#include <iostream>

#include "kms/platform/Fips.h"
#include "kms/platform/VrConfReader.h"
#include "kms/server/diagnostics/KeyStoreError.h"
#include "kms/server/keystore/files/KMSFileLocator.h"
#include "kms/server/keystore/store/FileKeyStore.h"

using Vaultrest::DL::KMS::FileKeyStore;
using Vaultrest::DL::KMS::KeyStoreError;
using Vaultrest::DL::KMS::KMSFileLocator;

int main() {
  VR_read_master_config();
  FileKeyStore::g_fips_mode_disabled = getFIPSModeForProcess("vrkms") == 0;
  try {
    FileKeyStore store{KMSFileLocator()};
    bool exists = false;
    int status = store.dbExists(exists);
    if (status == 0 && exists) {
      std::cout << "vrkms-sandbox-store: the store is there already" << std::endl;
      return 0;
    }
    if (status == 0) {
      // Empty passphrases: both master keys are made from random data.
      status = store.createEmpty("", "sandbox-hmk", "", "sandbox-kpk", false);
    }
    if (status != 0) {
      std::cerr << "vrkms-sandbox-store: the store was not made, status " << status << std::endl;
      return 1;
    }
    std::cout << "vrkms-sandbox-store: made a store with random master keys" << std::endl;
    return 0;
  } catch (const KeyStoreError& error) {
    std::cerr << "vrkms-sandbox-store: " << error.str(false) << std::endl;
    return 1;
  }
}
