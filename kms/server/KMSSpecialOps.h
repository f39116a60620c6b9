// The administrator's operations on the store files, run by the command line
// instead of the service, and the tests that decide whether the service may
// start. All members are static; everything runs on the main thread.
//
// Each operation returns an int status (0, or a key store code of 1200 and
// up) and lets no exception out; main turns the status into text and the
// exit status (kmsStatus). Questions and prompts go to the standard output
// and answers are read from the standard input, from a terminal or a pipe.
// Passphrases are read without echo on a terminal, held only in local
// strings that are wiped afterwards, and never logged.
#pragma once

#include <ace/Arg_Shifter.h>

#include <memory>
#include <string>

#include "kms/platform/Secret.h"
#include "kms/server/keystore/records/KeyInfo.h"
#include "kms/server/keystore/store/FileKeyStore.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

class KMSSpecialOps {
 public:
  // Size of a passphrase buffer: at most KS_MAX_PASS_LEN - 1 characters are
  // read, the line end included.
  static constexpr int KS_MAX_PASS_LEN = 1024;

  // First step of every operation. Refuses with 1267 (caller is no
  // administrator), 1272 (a vrkms runs), 1281 (inactive cluster node) or
  // 1271 (not the master server), in that order; otherwise makes m_ks over
  // the store of the master configuration, not initialized. 1200 when the
  // store cannot be located (message 37 logged).
  static int setupEnv();

  // "-createemptydb [flags]": a new empty store, asking for what the flags do
  // not give. 1268 when a store exists and overwriting is refused; 1214 for a
  // fault of the flags; 1269 for a catalogue failure; else what createEmpty
  // returns.
  static int createEmptyDB(ACE_Arg_Shifter_T<char>& shifter);
  // "-resethmk [flags]": remakes the HMK file from its passphrase. 1264
  // (random HMK refused), 1209 (overwrite refused), 1214, or what
  // createHMKFile returns (1221 for a wrong passphrase).
  static int resetHmk(ACE_Arg_Shifter_T<char>& shifter);
  // "-resetkpk [flags]": remakes the KPK file beside a good HMK file. 1221
  // without one (message 85), 1265, 1251, 1214, or what createKPKFile returns
  // (1249 for a wrong passphrase).
  static int resetKpk(ACE_Arg_Shifter_T<char>& shifter);
  // "-info": prints what the store file says of both master keys.
  static int info();

  // Asks for a passphrase twice (message `promptId`, then messages 4 and 2)
  // until both entries agree. An empty passphrase is refused (message 18)
  // unless `allowEmpty`; then question `emptyQuestionId` decides, and either
  // answer marks the keys as random (setIsRandom). 0 with `out` set, or 1200
  // when the input ends.
  static int getPassphrase(CmnCrypto::Secret& out, int promptId, bool allowEmpty,
                           int emptyQuestionId);
  // Prints id, kind, algorithm and FIPS state of one master key. Throws 1269
  // when the catalogue fails.
  static void displayKeyInfo(const KeyInfo& info);
  // One line of the standard input without its line end, of any length.
  // The end of the input ends the line as a line end would.
  static std::string myGetLine();
  // Access rights of the store directories: nothing to do on this platform
  // (the files are made private by the process's umask). Returns 0.
  static int createMyDACL();

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
  // The one body of resetHmk and resetKpk, and what differs between them.
  struct MasterKeyReset;
  static const MasterKeyReset kHmkReset;
  static const MasterKeyReset kKpkReset;
  static int resetMasterKey(ACE_Arg_Shifter_T<char>& shifter, const MasterKeyReset& kind);

  static bool isRandomPassphrase;
  // The store the operations work on; made by setupEnv, kept until the
  // process ends. Never initialized here: the operations use the calls made
  // for a closed store.
  static std::unique_ptr<FileKeyStore> m_ks;
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
