// Texts of catalogued messages, for output that goes to a terminal rather than
// to the logs (prompts, results of the command-line operations).
#pragma once

#include <string>

#include "kms/platform/CrvnLis.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

// The text of message `messageId` of `originator`, with no arguments. Throws
// KeyStoreError 1269 as GetCxULMessageBottom does.
std::string GetCxULMessageEx(int originator, int messageId);

// Turns a built crvnLis into its text. `result` is what building `lis` gave;
// a result other than CRVN_LIS_SUCCESS, a message the catalogue cannot render,
// or a render that gives no text is logged ("message catalog failure: ...")
// under "GetCxULMessageBottom" and throws KeyStoreError 1269. `lis` may be
// null (no arguments); its arguments are released with crvnLisFree on every
// path, so it may be reused only after crvnLisInit.
std::string GetCxULMessageBottom(int originator, int messageId, crvnLisResult_t result,
                                 crvnLis* lis);

// The printf conversion for an argument type, for building argument formats.
// The results are historical and kept as they are: "%f" for double, "%lf" for
// float, "%lud" for unsigned long.
std::string GetConversion(double);
std::string GetConversion(float);
std::string GetConversion(const char*);
std::string GetConversion(const std::string&);
std::string GetConversion(unsigned long);
std::string GetConversion(long);
std::string GetConversion(unsigned int);
std::string GetConversion(int);
std::string GetConversion(short);
std::string GetConversion(char);

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
