#include "kms/server/diagnostics/Messages.h"

#include <cstdlib>

#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/Raise.h"
#include "kms/server/diagnostics/StatusCodes.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

namespace {

constexpr const char* kLabel = "GetCxULMessageBottom";

// " (<text>)" for a catalogue result, or nothing when the result has no text.
std::string resultText(crvnLisResult_t result) {
  const char* text = crvnLogGetErrorMessage(crvnLogMapLisResToLoggingRes(result));
  return text != nullptr ? std::string(" (") + text + ")" : std::string();
}

// Releases the arguments of a crvnLis on every way out.
class LisRelease {
 public:
  explicit LisRelease(crvnLis* lis) : m_lis(lis) {}
  ~LisRelease() { crvnLisFree(m_lis); }
  LisRelease(const LisRelease&) = delete;
  LisRelease& operator=(const LisRelease&) = delete;

 private:
  crvnLis* m_lis;
};

}  // namespace

std::string GetCxULMessageEx(int originator, int messageId) {
  KMS_TRACE("GetCxULMessageEx");
  crvnLis lis;
  const crvnLisResult_t result = crvnLisBuild(&lis, messageId, "");
  return GetCxULMessageBottom(originator, messageId, result, &lis);
}

std::string GetCxULMessageBottom(int originator, int messageId, crvnLisResult_t result,
                                 crvnLis* lis) {
  KMS_TRACE(kLabel);
  LisRelease release(lis);
  if (result != CRVN_LIS_SUCCESS) {
    KMS_DEBUG(kLabel, 1,
              "message catalog failure: crvnLis(mssgId=" << messageId << ") returned status "
                                                         << result << resultText(result));
    KS_THROW(EC_KS_catalogue_failure, kLabel);
  }
  char* text = nullptr;
  const crvnLisResult_t xlated = xlatemsg(originator, messageId, lis, &text);
  if (xlated != CRVN_LIS_SUCCESS) {
    std::free(text);
    KMS_DEBUG(kLabel, 1,
              "message catalog failure: xlatemsg(orgId=" << originator << ", mssgId=" << messageId
                                                         << ") returned status " << xlated
                                                         << resultText(xlated));
    KS_THROW(EC_KS_catalogue_failure, kLabel);
  }
  if (text == nullptr) {
    KMS_DEBUG(kLabel, 1,
              "message catalog failure: xlatemsg(orgId=" << originator << ", mssgId=" << messageId
                                                         << ") failed to set a message string");
    KS_THROW(EC_KS_catalogue_failure, kLabel);
  }
  std::string message(text);
  std::free(text);
  return message;
}

std::string GetConversion(double) {
  return "%f";
}
std::string GetConversion(float) {
  return "%lf";
}
std::string GetConversion(const char*) {
  return "%s";
}
std::string GetConversion(const std::string&) {
  return "%s";
}
std::string GetConversion(unsigned long) {
  return "%lud";
}
std::string GetConversion(long) {
  return "%ld";
}
std::string GetConversion(unsigned int) {
  return "%u";
}
std::string GetConversion(int) {
  return "%d";
}
std::string GetConversion(short) {
  return "%hd";
}
std::string GetConversion(char) {
  return "%c";
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
