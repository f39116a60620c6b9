// Whether a text is a number written in decimal digits only: no sign, no
// space, not empty (a uid, a pid, a port, a right).
#pragma once

#include <string_view>

namespace CmnText {

inline bool allDigits(std::string_view text) {
  if (text.empty()) {
    return false;
  }
  for (char c : text) {
    if (c < '0' || c > '9') {
      return false;
    }
  }
  return true;
}

}  // namespace CmnText
