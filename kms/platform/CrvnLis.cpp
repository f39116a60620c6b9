#include "kms/platform/CrvnLis.h"

#include <algorithm>
#include <cstdarg>
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

namespace {

crvnLisResult_t addArg(crvnLis* lis, int type, long intValue, const std::string* text) {
  crvnLisAny* arg = static_cast<crvnLisAny*>(std::calloc(1, 32));
  if (arg == nullptr) {
    return CRVN_LIS_NO_MEMORY;
  }
  arg->type = type;
  arg->intValue = intValue;
  if (text != nullptr) {
    arg->text = static_cast<char*>(std::malloc(text->size() + 1));
    if (arg->text == nullptr) {
      std::free(arg);
      return CRVN_LIS_NO_MEMORY;
    }
    std::memcpy(arg->text, text->c_str(), text->size() + 1);
  }
  const crvnLisResult_t result = crvnLisAddArg(lis, arg);
  if (result != CRVN_LIS_SUCCESS) {
    std::free(arg->text);
    std::free(arg);
  }
  return result;
}

crvnLisResult_t addTextArg(crvnLis* lis, const std::string& text) {
  return addArg(lis, lis->utf8 ? crvnLisAny_utf8string : crvnLisAny_string, 0, &text);
}

// Adds the argument of the conversion at `spec` (just after '%') and moves
// `spec` past it.
crvnLisResult_t addConversion(crvnLis* lis, const char*& spec, va_list& args) {
  if (spec[0] == 'l' && (spec[1] == 'd' || spec[1] == 'u' || spec[1] == 'f')) {
    const char kind = spec[1];
    spec += 2;
    if (kind == 'd') {
      return addArg(lis, crvnLisAny_int, va_arg(args, long), nullptr);
    }
    if (kind == 'u') {
      return addTextArg(lis, std::to_string(va_arg(args, unsigned long)));
    }
  } else if (spec[0] == 'h' && spec[1] == 'd') {
    spec += 2;
    return addArg(lis, crvnLisAny_int, static_cast<short>(va_arg(args, int)), nullptr);
  } else {
    const char kind = *spec++;
    switch (kind) {
      case 'd':
        return addArg(lis, crvnLisAny_int, va_arg(args, int), nullptr);
      case 'u':
        return addTextArg(lis, std::to_string(va_arg(args, unsigned int)));
      case 'c':
        return addTextArg(lis, std::string(1, static_cast<char>(va_arg(args, int))));
      case 's': {
        const char* s = va_arg(args, const char*);
        return addTextArg(lis, s != nullptr ? s : "");
      }
      case 'f':
        break;
      default:
        return CRVN_LIS_BAD_ARG;
    }
  }
  return addTextArg(lis, std::to_string(va_arg(args, double)));  // as "%f" gives it
}

}  // namespace

crvnLisResult_t crvnLisBuild(crvnLis* lis, int messageId, const char* format, ...) {
  if (lis == nullptr) {
    return CRVN_LIS_BAD_ARG;
  }
  crvnLisInit(lis, messageId, GetCrvnLisGlobalUtf8Setting());
  if (format == nullptr) {
    return CRVN_LIS_BAD_ARG;
  }
  va_list args;
  va_start(args, format);
  crvnLisResult_t result = CRVN_LIS_SUCCESS;
  for (const char* p = format; result == CRVN_LIS_SUCCESS && *p != '\0';) {
    if (p[0] != '%') {
      ++p;
    } else if (p[1] == '%') {
      p += 2;
    } else {
      ++p;
      result = addConversion(lis, p, args);
    }
  }
  va_end(args);
  if (result != CRVN_LIS_SUCCESS) {
    crvnLisFree(lis);
  }
  return result;
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
