#include "kms/server/keystore/RecordFields.h"

#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/Raise.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

void assignBoundedField(const char* function, const char* what, std::string& field,
                        const std::string& value) {
  if (value.size() > kMaxRecordFieldLength) {
    KMS_DEBUG(function, 1, what << value.size());
    KS_THROW(1214, function);
  }
  field = value;
}

void assignTruncatedField(const char* function, const char* what, std::string& field,
                          const std::string& value) {
  if (value.size() > kMaxRecordFieldLength) {
    KMS_DEBUG(function, 1,
              "Encountered " << what << " of size " << value.size() << ". Truncating to "
                             << kMaxRecordFieldLength);
    field.assign(value, 0, kMaxRecordFieldLength);
    return;
  }
  field = value;
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
