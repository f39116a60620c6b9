// Catalogued messages in the making: an id plus arguments, released on
// destruction. Built on the stack and handed to VRLogger::logApp() or rendered
// through xlatemsg().
#pragma once

#include <string>

#include "kms/platform/CrvnLis.h"

namespace Corvane {
namespace L10N {

// Thrown when an argument cannot be added; result() is the crvnLis result
// (-3 for a failed allocation).
class LisX {
 public:
  explicit LisX(int result) : m_result(result) {}
  int result() const { return m_result; }

 private:
  int m_result;
};

// Owns one crvnLis. Not copyable.
class LisMgr {
 public:
  explicit LisMgr(int messageId);
  ~LisMgr();
  LisMgr(const LisMgr&) = delete;
  LisMgr& operator=(const LisMgr&) = delete;

  int messageId() const { return m_lis.messageId; }
  const crvnLis* lis() const { return &m_lis; }
  crvnLis* lis() { return &m_lis; }

 protected:
  // Adds one argument of 32 bytes of malloc memory; throws LisX when the
  // allocation or crvnLisAddArg fails.
  void NextParam(int value);
  void NextParam(const std::string& value);

 private:
  crvnLis m_lis;
};

class Lis : public LisMgr {
 public:
  explicit Lis(int messageId) : LisMgr(messageId) {}

  Lis& operator<<(int value) {
    NextParam(value);
    return *this;
  }
  Lis& operator<<(const std::string& value) {
    NextParam(value);
    return *this;
  }
  Lis& operator<<(const char* value) {
    NextParam(std::string(value != nullptr ? value : ""));
    return *this;
  }
};

// Renders `message` under `originator`. Returns false when the catalogue has
// no text for it (then *text is "message <id>" with its arguments).
bool renderLis(int originator, const LisMgr& message, std::string* text);

}  // namespace L10N
}  // namespace Corvane
