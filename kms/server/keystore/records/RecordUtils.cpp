#include "kms/server/keystore/records/RecordUtils.h"

#include <algorithm>
#include <cctype>
#include <cstdio>

namespace Vaultrest {
namespace DL {
namespace KMS {
namespace Utils {

namespace {

bool isGraph(char c) {
  return std::isgraph(static_cast<unsigned char>(c)) != 0;
}

// Value of a lower-case hexadecimal digit, or -1.
int hexValue(char c) {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  if (c >= 'a' && c <= 'f') {
    return c - 'a' + 10;
  }
  return -1;
}

}  // namespace

std::string cipherTypeToString(ks_ciphertype_t type) {
  switch (type) {
    case CT_INVALID_CBC:
      return "CT_INVALID_CBC";
    case CT_AES128_CBC:
      return "CT_AES128_CBC";
    case CT_AES192_CBC:
      return "CT_AES192_CBC";
    case CT_AES256_CBC:
      return "CT_AES256_CBC";
    case CT_BLOW_CBC:
      return "CT_BLOW_CBC";
  }
  return "* UNKNOWN CIPHERTYPE *";
}

std::string keystateToString(ks_keystate_t state) {
  switch (state) {
    case KEY_INVALID:
      return "KEY_INVALID";
    case KEY_ACTIVE:
      return "KEY_ACTIVE";
    case KEY_INACTIVE:
      return "KEY_INACTIVE";
    case KEY_DEPRECATED:
      return "KEY_DEPRECATED";
    case KEY_PRELIVE:
      return "KEY_PRELIVE";
    case KEY_TERMINATED:
      return "KEY_TERMINATED";
  }
  return "* UNKNOWN STATE *";
}

std::string kpkTypeToString(ks_kpktype_t type) {
  switch (type) {
    case KPK_INVALID:
      return "KPK_INVALID";
    case KPK_LOCAL:
      return "KPK_LOCAL";
  }
  return "* UNKNOWN KPKTYPE *";
}

size_t cipherTypeToKeyLen(ks_ciphertype_t type) {
  switch (type) {
    case CT_AES128_CBC:
      return 16;
    case CT_AES192_CBC:
      return 24;
    case CT_AES256_CBC:
      return 32;
    case CT_BLOW_CBC:
      return 16;
    case CT_INVALID_CBC:
      break;
  }
  return 0;
}

char toAscii(char nibble) {
  return nibble <= 9 ? static_cast<char>(nibble + '0') : static_cast<char>(nibble + 87);
}

std::string binToHex(std::string_view bytes) {
  std::string text;
  text.reserve(bytes.size() * 2);
  for (char c : bytes) {
    const unsigned char b = static_cast<unsigned char>(c);
    text.push_back(toAscii(static_cast<char>(b >> 4)));
    text.push_back(toAscii(static_cast<char>(b & 0x0f)));
  }
  return text;
}

std::string hexToBin(const std::string& text) {
  if (text.size() % 2 != 0) {
    return std::string();
  }
  std::string bytes;
  bytes.reserve(text.size() / 2);
  for (size_t i = 0; i < text.size(); i += 2) {
    const int high = hexValue(text[i]);
    const int low = hexValue(text[i + 1]);
    if (high < 0 || low < 0) {
      return std::string();
    }
    bytes.push_back(static_cast<char>((high << 4) | low));
  }
  return bytes;
}

std::string bufferToString(std::string_view bytes) {
  std::string text;
  text.reserve(bytes.size() * 3 + 2);
  for (char c : bytes) {
    text.push_back(isGraph(c) ? c : '.');
  }
  text += "(";
  text += binToHex(bytes);
  text += ")";
  return text;
}

std::string getTimestampSuffix(time_t seconds) {
  struct tm local;
  char buf[32] = {0};
  if (localtime_r(&seconds, &local) != nullptr) {
    std::strftime(buf, sizeof(buf), "%Y%m%d%H%M%S", &local);
  }
  return buf;
}

void displayObjRev(uint32_t rev) {
  std::printf("%lu\n\n", static_cast<unsigned long>(rev));
}

void displayTimestamp(uint64_t seconds) {
  const time_t t = static_cast<time_t>(seconds);
  char buf[64] = {0};
  if (ctime_r(&t, buf) == nullptr) {
    buf[0] = '\0';
  }
  std::printf("%s \t\t(%ld seconds since the Epoch)\n\n", buf, static_cast<long>(t));
}

void displayBuffer(std::string_view bytes, bool inlineForm, const std::string& prefix, bool asHex) {
  const char* pfx = prefix.c_str();
  std::printf("%s(%lu bytes)", pfx, static_cast<unsigned long>(bytes.size()));
  if (bytes.empty()) {
    std::printf("\n");
    return;
  }
  if (inlineForm) {
    std::printf(asHex ? " : HEX(" : " : ASC(");
    for (char c : bytes) {
      if (asHex) {
        std::printf("%02x", static_cast<unsigned char>(c));
      } else {
        std::putchar(isGraph(c) ? c : '.');
      }
    }
    std::printf(")");
  }
  std::printf("\n");

  const size_t kRow = 32;
  for (size_t start = 0; start < bytes.size(); start += kRow) {
    const size_t end = std::min(bytes.size(), start + kRow);
    std::printf("%s\t      ", pfx);
    for (size_t off = start; off < end; ++off) {
      std::printf("%02d ", static_cast<int>(off % 100));
    }
    std::printf("\n%s\tASC : ", pfx);
    for (size_t off = start; off < end; ++off) {
      if (isGraph(bytes[off])) {
        std::printf("%c  ", bytes[off]);
      } else {
        std::printf(".  ");
      }
    }
    std::printf("\n%s\tHEX : ", pfx);
    for (size_t off = start; off < end; ++off) {
      std::printf("%02x ", static_cast<unsigned char>(bytes[off]));
    }
    std::printf("\n\n");
  }
}

}  // namespace Utils
}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
