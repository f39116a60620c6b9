// Names of the record enumerations, hexadecimal conversion, time stamps and
// the console dumps of records. All strings are byte strings: they may hold
// zero bytes and are never read as C strings.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>

#include "kms/server/keystore/store/KeyStoreTypes.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

// Whether a value is one of the enumeration, its zero value included. The
// record invariants use these; the store's own checks exclude zero.
inline bool isKnownKeyState(ks_keystate_t state) {
  return state >= KEY_INVALID && state <= KEY_TERMINATED;
}
inline bool isKnownKpkType(ks_kpktype_t type) {
  return type >= KPK_INVALID && type <= KPK_LOCAL;
}
inline bool isKnownCipherType(ks_ciphertype_t type) {
  return type >= CT_INVALID_CBC && type <= CT_BLOW_CBC;
}

namespace Utils {

// "CT_AES128_CBC" etc.; any other value gives "* UNKNOWN CIPHERTYPE *".
std::string cipherTypeToString(ks_ciphertype_t type);
// "KEY_ACTIVE" etc.; any other value gives "* UNKNOWN STATE *".
std::string keystateToString(ks_keystate_t state);
// "KPK_INVALID", "KPK_LOCAL"; any other value gives "* UNKNOWN KPKTYPE *".
std::string kpkTypeToString(ks_kpktype_t type);
// Key length in bytes of the cipher: 16, 24, 32, 16 (Blowfish); 0 otherwise.
size_t cipherTypeToKeyLen(ks_ciphertype_t type);

// One hexadecimal digit, lower case, for a nibble 0..15.
char toAscii(char nibble);
// Two lower-case digits per byte, high nibble first.
std::string binToHex(std::string_view bytes);
// The inverse of binToHex. Accepts only '0'-'9' and 'a'-'f'; an odd length or
// any other character (upper case included) gives the empty string.
std::string hexToBin(const std::string& text);
// Printable bytes as themselves, others as '.', then "(<hex>)".
std::string bufferToString(std::string_view bytes);

// Local time as "YYYYMMDDhhmmss".
std::string getTimestampSuffix(time_t seconds);

// Console dumps (standard output).
void displayObjRev(uint32_t rev);
void displayTimestamp(uint64_t seconds);
// Prints prefix and "(<n> bytes)", with the content inline when `inlineForm`
// (hexadecimal when `asHex`, else printable text), then the bytes in rows of
// 32 with offsets, ASCII and hexadecimal lines.
void displayBuffer(std::string_view bytes, bool inlineForm, const std::string& prefix, bool asHex);

}  // namespace Utils
}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
