#include "kms/server/keystore/store/KSOpMessage.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

KSOpMessage::KSOpMessage() : m_code(KSMSG_NONE) {}

KSOpMessage::KSOpMessage(ks_opmessage_t code, std::string_view arg1)
    : m_code(code), m_args{std::string(arg1)} {}

KSOpMessage::KSOpMessage(ks_opmessage_t code, std::string_view arg1, std::string_view arg2)
    : m_code(code), m_args{std::string(arg1), std::string(arg2)} {}

KSOpMessage::KSOpMessage(ks_opmessage_t code, std::string_view arg1, std::string_view arg2,
                         std::string_view arg3)
    : m_code(code), m_args{std::string(arg1), std::string(arg2), std::string(arg3)} {}

KSOpMessage::KSOpMessage(ks_opmessage_t code, std::string_view arg1, std::string_view arg2,
                         std::string_view arg3, std::string_view arg4)
    : m_code(code),
      m_args{std::string(arg1), std::string(arg2), std::string(arg3), std::string(arg4)} {}

bool KSOpMessage::operator==(const KSOpMessage& other) const {
  return m_code == other.m_code && m_args == other.m_args;
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
