#include "kms/server/keystore/store/KSOpMessage.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

KSOpMessage::KSOpMessage() : m_code(KSMSG_NONE) {}

KSOpMessage::KSOpMessage(ks_opmessage_t code, const std::string& arg1)
    : m_code(code), m_args{arg1} {}

KSOpMessage::KSOpMessage(ks_opmessage_t code, const std::string& arg1, const std::string& arg2)
    : m_code(code), m_args{arg1, arg2} {}

KSOpMessage::KSOpMessage(ks_opmessage_t code, const std::string& arg1, const std::string& arg2,
                         const std::string& arg3)
    : m_code(code), m_args{arg1, arg2, arg3} {}

KSOpMessage::KSOpMessage(ks_opmessage_t code, const std::string& arg1, const std::string& arg2,
                         const std::string& arg3, const std::string& arg4)
    : m_code(code), m_args{arg1, arg2, arg3, arg4} {}

bool KSOpMessage::operator==(const KSOpMessage& other) const {
  return m_code == other.m_code && m_args == other.m_args;
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
