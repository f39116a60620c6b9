// Result of an export or an import: one error code (0 for none) and the coded
// messages of the decisions and findings, in the order they were added. A
// status belongs to the one request that fills it; it has no lock.
#pragma once

#include <vector>

#include "kms/server/keystore/store/KSOpMessage.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

class KSOpStatus {
 public:
  typedef std::vector<KSOpMessage> MessageList;

  // Code 0, no messages.
  KSOpStatus();

  // Replaces the code; codes do not accumulate.
  void setErrCode(int code) { m_errcode = code; }
  int errCode() const { return m_errcode; }
  bool hasErrors() const { return m_errcode != 0; }

  // Appends a copy.
  void addMessage(const KSOpMessage& message);
  const MessageList& messages() const { return m_messages; }

  // Equal codes, and equal messages pair by pair in order.
  bool operator==(const KSOpStatus& other) const;
  bool operator!=(const KSOpStatus& other) const { return !(*this == other); }

 private:
  int m_errcode;
  MessageList m_messages;
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
