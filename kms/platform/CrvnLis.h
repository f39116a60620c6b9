// The message-catalogue interface of the product, C style: a crvnLis is a
// message id with typed arguments, turned into text by xlatemsg().
#pragma once

#include <cstddef>

typedef int crvnLisResult_t;
typedef int crvnLogSeverity_t;

enum : crvnLisResult_t {
  CRVN_LIS_SUCCESS = 0,
  CRVN_LIS_NOT_FOUND = 2,   // xlatemsg: no text for (originator, id)
  CRVN_LIS_BAD_ARG = -1,    // null pointer or argument of unknown type
  CRVN_LIS_NO_MEMORY = -3,  // allocation failed
  CRVN_LIS_TOO_MANY = -7,   // more arguments than a message can take
};

// Severities of the application log that the program uses.
enum : crvnLogSeverity_t {
  CRVN_SEV_INFO = 0,
  CRVN_SEV_WARNING = 1,
  CRVN_SEV_ERROR = 3,
};

enum crvnLisAnyType { crvnLisAny_int = 1, crvnLisAny_string = 2, crvnLisAny_utf8string = 3 };

// One argument. Always 32 bytes of malloc memory; `text` is a malloc copy.
struct crvnLisAny {
  int type;
  long intValue;
  char* text;
};
static_assert(sizeof(crvnLisAny) <= 32, "an argument fits its 32-byte block");

// A message being built. Owns its arguments; release with crvnLisFree().
struct crvnLis {
  int messageId;
  int utf8;
  int argCount;
  crvnLisAny** args;
};

constexpr int CRVN_LIS_MAX_ARGS = 16;

// Starts `lis` for `messageId` with no arguments.
void crvnLisInit(crvnLis* lis, int messageId, int utf8);
// Appends `arg`; on success `lis` owns it. Returns CRVN_LIS_SUCCESS, or a
// negative result (the caller keeps `arg`).
crvnLisResult_t crvnLisAddArg(crvnLis* lis, crvnLisAny* arg);
// Starts `lis` for `messageId` and adds one argument for each conversion of
// the printf-style `format`, taken from the variable arguments: %d %u %hd %ld
// %lu (integers), %c (one character), %s (text, null read as empty), %f %lf
// (double, added as text). Other characters of the format are skipped, "%%"
// too; "" adds nothing. Returns CRVN_LIS_SUCCESS, or the failure of the first
// argument that could not be added (CRVN_LIS_BAD_ARG for a null format or an
// unknown conversion); `lis` then holds no arguments.
crvnLisResult_t crvnLisBuild(crvnLis* lis, int messageId, const char* format, ...);
// Frees every argument; `lis` may be reused after crvnLisInit().
void crvnLisFree(crvnLis* lis);
// Whether string arguments are added as UTF-8 (process-wide, default true).
int GetCrvnLisGlobalUtf8Setting();

// Renders the catalogue text of (originator, id) with the arguments filled in
// order. On success *out is a malloc string the caller frees. Returns
// CRVN_LIS_SUCCESS, CRVN_LIS_NOT_FOUND or CRVN_LIS_BAD_ARG.
crvnLisResult_t xlatemsg(int originator, int messageId, const crvnLis* lis, char** out);

// Maps a crvnLis result to the logging library's result and gives its text.
int crvnLogMapLisResToLoggingRes(crvnLisResult_t result);
const char* crvnLogGetErrorMessage(int loggingResult);

// Short text of a status code (0 and the codes of originator 271), or null for
// a code the catalogue does not know.
const char* getECmsg(int status);

// The raw catalogue text of (originator, id) with its "{}" placeholders, or
// null. For tests and tools.
const char* crvnCatalogueText(int originator, int messageId);
