#include "kms/platform/Lis.h"

#include <cstdlib>
#include <cstring>

namespace Corvane {
namespace L10N {

namespace {

crvnLisAny* allocateArg() {
  void* block = std::malloc(32);
  if (block == nullptr) {
    throw LisX(CRVN_LIS_NO_MEMORY);
  }
  std::memset(block, 0, 32);
  return static_cast<crvnLisAny*>(block);
}

// Results from -6 to 1 other than -3 let the argument stand.
void checkResult(crvnLisResult_t result, crvnLisAny* arg) {
  if (result == CRVN_LIS_NO_MEMORY || result < -6 || result > 1) {
    std::free(arg->text);
    std::free(arg);
    throw LisX(result);
  }
}

}  // namespace

LisMgr::LisMgr(int messageId) {
  crvnLisInit(&m_lis, messageId, GetCrvnLisGlobalUtf8Setting());
}

LisMgr::~LisMgr() {
  crvnLisFree(&m_lis);
}

void LisMgr::NextParam(int value) {
  crvnLisAny* arg = allocateArg();
  arg->type = crvnLisAny_int;
  arg->intValue = value;
  checkResult(crvnLisAddArg(&m_lis, arg), arg);
}

void LisMgr::NextParam(const std::string& value) {
  crvnLisAny* arg = allocateArg();
  arg->type = m_lis.utf8 ? crvnLisAny_utf8string : crvnLisAny_string;
  arg->text = static_cast<char*>(std::malloc(value.size() + 1));
  if (arg->text == nullptr) {
    std::free(arg);
    throw LisX(CRVN_LIS_NO_MEMORY);
  }
  std::memcpy(arg->text, value.data(), value.size());
  arg->text[value.size()] = '\0';
  checkResult(crvnLisAddArg(&m_lis, arg), arg);
}

bool renderLis(int originator, const LisMgr& message, std::string* text) {
  char* out = nullptr;
  if (xlatemsg(originator, message.messageId(), message.lis(), &out) == CRVN_LIS_SUCCESS &&
      out != nullptr) {
    text->assign(out);
    std::free(out);
    return true;
  }
  std::free(out);
  *text = "message " + std::to_string(message.messageId());
  const crvnLis* lis = message.lis();
  for (int i = 0; i < lis->argCount; ++i) {
    const crvnLisAny* arg = lis->args[i];
    *text += i == 0 ? ": " : ", ";
    *text += arg->type == crvnLisAny_int ? std::to_string(arg->intValue)
                                         : std::string(arg->text != nullptr ? arg->text : "");
  }
  return false;
}

}  // namespace L10N
}  // namespace Corvane
