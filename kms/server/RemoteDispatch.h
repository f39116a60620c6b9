// The secrets a servant hands to, or takes from, the ORB on a request that
// came through it. An in-string argument (a passphrase) is the ORB's own
// copy, freed after the call as it is; a reply's octet sequence frees its
// buffer after marshalling as it is. While a servant's _dispatch runs under
// RemoteDispatch::run, the servant may wipe such an argument in place and
// lend a reply the plain key from a buffer that is wiped once the reply has
// been marshalled and sent.
//
// Calls made within the process (the caller's own strings and the records it
// gets back) are left alone: outside run() both calls do nothing. Per thread;
// no lock.
#pragma once

#include <Framework.h>
#include <omniORB4/callHandle.h>

#include <list>

#include "kms/server/keystore/crypto/SecureBytes.h"

namespace Ardentis {
namespace Vaultrest {
namespace DL {
namespace KMS {

class RemoteDispatch {
 public:
  // Runs `dispatch()` (the skeleton's _dispatch) for `handle` and gives its
  // result; for a request from another process, with the buffers above.
  template <typename Dispatch>
  static CORBA::Boolean run(omniCallHandle& handle, Dispatch&& dispatch) {
    if (handle.iop_s() == nullptr) {
      return dispatch();
    }
    RemoteDispatch scope;
    return dispatch();
  }

  // Moves `key`'s bytes into a buffer of the running request, which the
  // sequence then borrows.
  static void lendReplyKey(TL::Framework::octetSeq& key);
  // Overwrites an in-string argument of the running request.
  static void wipeArgument(const char* text);

 private:
  RemoteDispatch();
  ~RemoteDispatch();
  RemoteDispatch(const RemoteDispatch&) = delete;
  RemoteDispatch& operator=(const RemoteDispatch&) = delete;

  std::list<::Vaultrest::DL::KMS::SecureBytes> m_replyKeys;  // wiped as freed
  RemoteDispatch* m_outer;
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
}  // namespace Ardentis
