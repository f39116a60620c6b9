// Assignment of the bounded byte-string fields of the records: identifiers
// and keys refuse to be cut, names and descriptions are cut in silence.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace Vaultrest {
namespace DL {
namespace KMS {

// Longest content of a record's string field.
constexpr size_t kMaxRecordFieldLength = 4096;

// `value` if it has at most 4096 bytes. Otherwise logs `what` and the size
// at debug level 1 under `function` and throws KeyStoreError 1214.
std::string_view boundedField(const char* function, const char* what, std::string_view value);

// The first 4096 bytes of `value`; a longer value is logged as
// "Encountered <what> of size <n>. Truncating to 4096" under `function`.
std::string_view truncatedField(const char* function, const char* what, std::string_view value);

// Assigns `value` to `field` if it has at most 4096 bytes. Otherwise logs
// `what` and the size at debug level 1 under `function` and throws
// KeyStoreError 1214; `field` is unchanged.
void assignBoundedField(const char* function, const char* what, std::string& field,
                        std::string_view value);

// Assigns the first 4096 bytes of `value` to `field`; a longer value is logged
// as "Encountered <what> of size <n>. Truncating to 4096" under `function`.
void assignTruncatedField(const char* function, const char* what, std::string& field,
                          std::string_view value);

// Writes one field in its stream form at `out`: a 2-byte big-endian length,
// then the `size` bytes of `content` (at most 65,535). Returns the end.
unsigned char* putField(unsigned char* out, const void* content, size_t size);

// What assignTruncatedField keeps of `value`: a name is stored this way, so
// it is looked up and compared this way too. Valid while `value` is.
inline std::string_view truncatedField(std::string_view value) {
  return value.substr(0, kMaxRecordFieldLength);
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
