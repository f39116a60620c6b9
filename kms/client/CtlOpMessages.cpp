#include "kms/client/CtlOpMessages.h"

#include <algorithm>
#include <cstddef>

namespace Vaultrest {
namespace DL {
namespace KMSCtl {

namespace {

struct MessageForm {
  long code;
  const char* form;
};

// One row per message of export (1, 8) and import (the others).
const MessageForm kForms[] = {
    {1, "ERR: KeyGroup %1 does not exist"},
    {2, "Key group [%1] already exists in the database"},
    {3, "Tag for key group [%1]  conflicts with the existing key group [%2]"},
    {4, "Changing key group [%1] to [%2]"},
    {5, "Generating new tag for key group [%1]"},
    {6, "Key group [%1] imported as-is"},
    {7, "Key group [%1] exceeds the limit of maximum allowed keys"},
    {8, "ERR: Key %1 does not exist in Key Group %2"},
    {9,
     "Ignoring key [%1] from group [%2] which is a duplicate of existing key [%3] from group "
     "[%4]"},
    {10,
     "Key [%1] from group [%2] has the same tag as that of existing key [%3] from group [%4], "
     "but different value."},
    {11, "Updating key group tag for key [%1] of key group [%2]"},
    {12, "Key [%1] of key group [%2] imported as-is"},
};

// The highest argument number that `form` names.
size_t argumentCount(const std::string& form) {
  size_t count = 0;
  for (size_t at = form.find('%'); at != std::string::npos; at = form.find('%', at + 1)) {
    if (at + 1 < form.size() && form[at + 1] >= '1' && form[at + 1] <= '9') {
      count = std::max(count, static_cast<size_t>(form[at + 1] - '0'));
    }
  }
  return count;
}

std::string asReceived(long code, const std::vector<std::string>& args) {
  std::string text = "message " + std::to_string(code);
  for (size_t i = 0; i < args.size(); ++i) {
    text += (i == 0 ? ": " : ", ") + args[i];
  }
  return text;
}

}  // namespace

const char* CtlOpMessages::form(long code) {
  for (const MessageForm& row : kForms) {
    if (row.code == code) {
      return row.form;
    }
  }
  return nullptr;
}

std::string CtlOpMessages::text(long code, const std::vector<std::string>& args) {
  const char* found = form(code);
  if (found == nullptr) {
    return asReceived(code, args);
  }
  const std::string pattern = found;
  if (argumentCount(pattern) != args.size()) {
    return asReceived(code, args);
  }
  // One pass over the form, so that an argument holding "%2" stays as it is.
  std::string text;
  for (size_t i = 0; i < pattern.size(); ++i) {
    if (pattern[i] == '%' && i + 1 < pattern.size() && pattern[i + 1] >= '1' &&
        pattern[i + 1] <= '9') {
      text += args[static_cast<size_t>(pattern[i + 1] - '1')];
      ++i;
    } else {
      text += pattern[i];
    }
  }
  return text;
}

}  // namespace KMSCtl
}  // namespace DL
}  // namespace Vaultrest
