#include "kms/platform/CrvnLis.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>

#include "kms/platform/CatalogueTexts.h"

void crvnLisInit(crvnLis* lis, int messageId, int utf8) {
  lis->messageId = messageId;
  lis->utf8 = utf8;
  lis->argCount = 0;
  lis->args = nullptr;
}

crvnLisResult_t crvnLisAddArg(crvnLis* lis, crvnLisAny* arg) {
  if (lis == nullptr || arg == nullptr) {
    return CRVN_LIS_BAD_ARG;
  }
  if (lis->argCount >= CRVN_LIS_MAX_ARGS) {
    return CRVN_LIS_TOO_MANY;
  }
  void* grown = std::realloc(lis->args, sizeof(crvnLisAny*) * (lis->argCount + 1));
  if (grown == nullptr) {
    return CRVN_LIS_NO_MEMORY;
  }
  lis->args = static_cast<crvnLisAny**>(grown);
  lis->args[lis->argCount++] = arg;
  return CRVN_LIS_SUCCESS;
}

void crvnLisFree(crvnLis* lis) {
  if (lis == nullptr) {
    return;
  }
  for (int i = 0; i < lis->argCount; ++i) {
    std::free(lis->args[i]->text);
    std::free(lis->args[i]);
  }
  std::free(lis->args);
  lis->args = nullptr;
  lis->argCount = 0;
}

int GetCrvnLisGlobalUtf8Setting() {
  return 1;
}

const char* crvnCatalogueText(int originator, int messageId) {
  const CatalogueText* end = kCatalogueTexts + kCatalogueTextCount;
  const CatalogueText* it =
      std::lower_bound(kCatalogueTexts, end, std::make_pair(originator, messageId),
                       [](const CatalogueText& row, const std::pair<int, int>& key) {
                         return std::make_pair(row.originator, row.id) < key;
                       });
  if (it == end || it->originator != originator || it->id != messageId) {
    return nullptr;
  }
  return it->text;
}

namespace {

std::string argText(const crvnLisAny* arg) {
  switch (arg->type) {
    case crvnLisAny_int:
      return std::to_string(arg->intValue);
    case crvnLisAny_string:
    case crvnLisAny_utf8string:
      return arg->text != nullptr ? arg->text : "";
    default:
      return "";
  }
}

}  // namespace

crvnLisResult_t xlatemsg(int originator, int messageId, const crvnLis* lis, char** out) {
  if (out == nullptr) {
    return CRVN_LIS_BAD_ARG;
  }
  *out = nullptr;
  const char* text = crvnCatalogueText(originator, messageId);
  if (text == nullptr) {
    return CRVN_LIS_NOT_FOUND;
  }
  std::string result;
  int next = 0;
  for (const char* p = text; *p != '\0'; ++p) {
    if (p[0] == '{' && p[1] == '}') {
      if (lis != nullptr && next < lis->argCount) {
        result += argText(lis->args[next]);
      }
      ++next;
      ++p;
    } else {
      result += *p;
    }
  }
  *out = static_cast<char*>(std::malloc(result.size() + 1));
  if (*out == nullptr) {
    return CRVN_LIS_NO_MEMORY;
  }
  std::memcpy(*out, result.c_str(), result.size() + 1);
  return CRVN_LIS_SUCCESS;
}

int crvnLogMapLisResToLoggingRes(crvnLisResult_t result) {
  return result;
}

const char* crvnLogGetErrorMessage(int loggingResult) {
  switch (loggingResult) {
    case CRVN_LIS_SUCCESS:
      return "success";
    case CRVN_LIS_NOT_FOUND:
      return "message not found in catalogue";
    case CRVN_LIS_BAD_ARG:
      return "bad argument";
    case CRVN_LIS_NO_MEMORY:
      return "out of memory";
    case CRVN_LIS_TOO_MANY:
      return "too many arguments";
    default:
      return nullptr;
  }
}

const char* getECmsg(int status) {
  const StatusText* end = kStatusTexts + kStatusTextCount;
  const StatusText* it = std::lower_bound(
      kStatusTexts, end, status, [](const StatusText& row, int code) { return row.code < code; });
  if (it == end || it->code != status) {
    return nullptr;
  }
  return it->shortText;
}
