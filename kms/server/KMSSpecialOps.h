// The administrator's operations on the store files, run by the command line
// instead of the service, and the tests that decide whether the service may
// start. All members are static; everything runs on the main thread.
//
// Only the start tests and the random-key flag are here so far: the
// operations themselves ("-createemptydb", "-resethmk", "-resetkpk", "-info")
// arrive with the store's master keys.
#pragma once

namespace Vaultrest {
namespace DL {
namespace KMS {

class KMSSpecialOps {
 public:
  // True when another process named "vrkms" runs (this one left out).
  static bool serviceAlreadyRunning();
  // True when the host is a cluster node that is not the active one, by the
  // cluster utility's two answers. A missing utility means no cluster.
  static bool onInactiveClusterNode();
  // True when the first SERVER of the master configuration is this host.
  // No server (or no configuration) logs message 32 and gives false.
  static bool onMasterServer();

  // Whether the master keys just created came from random data.
  static bool getIsRandom() { return isRandomPassphrase; }
  static void setIsRandom(bool random) { isRandomPassphrase = random; }

 private:
  static bool isRandomPassphrase;
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
