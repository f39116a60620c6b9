#include "kms/server/keystore/records/RecordFields.h"

#include <cstring>

#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/Raise.h"
#include "kms/server/diagnostics/StatusCodes.h"
#include "kms/server/keystore/format/BigEndian.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

std::string_view boundedField(const char* function, const char* what, std::string_view value) {
  if (value.size() > kMaxRecordFieldLength) {
    KMS_DEBUG(function, 1, what << value.size());
    KS_THROW(EC_KS_bad_argument, function);
  }
  return value;
}

std::string_view truncatedField(const char* function, const char* what, std::string_view value) {
  if (value.size() > kMaxRecordFieldLength) {
    KMS_DEBUG(function, 1,
              "Encountered " << what << " of size " << value.size() << ". Truncating to "
                             << kMaxRecordFieldLength);
  }
  return value.substr(0, kMaxRecordFieldLength);
}

void assignBoundedField(const char* function, const char* what, std::string& field,
                        std::string_view value) {
  field.assign(boundedField(function, what, value));
}

void assignTruncatedField(const char* function, const char* what, std::string& field,
                          std::string_view value) {
  field.assign(truncatedField(function, what, value));
}

unsigned char* putField(unsigned char* out, const void* content, size_t size) {
  Utils::storeBigEndian(out, size, 2);
  if (size != 0) {
    std::memcpy(out + 2, content, size);
  }
  return out + 2 + size;
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
