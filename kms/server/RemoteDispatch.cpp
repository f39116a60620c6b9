#include "kms/server/RemoteDispatch.h"

#include <openssl/crypto.h>

#include <cstring>

namespace Ardentis {
namespace Vaultrest {
namespace DL {
namespace KMS {

namespace {

// The request this thread is dispatching from another process; null when none.
thread_local RemoteDispatch* t_current = nullptr;

}  // namespace

RemoteDispatch::RemoteDispatch() : m_outer(t_current) {
  t_current = this;
}

RemoteDispatch::~RemoteDispatch() {
  t_current = m_outer;
}

void RemoteDispatch::lendReplyKey(TL::Framework::octetSeq& key) {
  if (t_current == nullptr || key.length() == 0) {
    return;
  }
  const CORBA::ULong length = key.length();
  CORBA::Octet* own = key.get_buffer();
  ::Vaultrest::DL::KMS::SecureBytes& held = t_current->m_replyKeys.emplace_back(own, own + length);
  OPENSSL_cleanse(own, length);
  key.replace(length, length, held.data(), false);
}

void RemoteDispatch::wipeArgument(const char* text) {
  if (t_current != nullptr && text != nullptr) {
    OPENSSL_cleanse(const_cast<char*>(text), std::strlen(text));
  }
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
}  // namespace Ardentis
