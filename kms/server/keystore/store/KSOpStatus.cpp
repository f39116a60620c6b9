#include "kms/server/keystore/store/KSOpStatus.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

KSOpStatus::KSOpStatus() : m_errcode(0) {}

void KSOpStatus::addMessage(const KSOpMessage& message) {
  m_messages.push_back(message);
}

bool KSOpStatus::operator==(const KSOpStatus& other) const {
  return m_errcode == other.m_errcode && m_messages == other.m_messages;
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
