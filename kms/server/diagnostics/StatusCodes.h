// Status codes of the key store that carry a symbolic name. All other codes
// are used by number where they are raised.
#pragma once

namespace Vaultrest {
namespace DL {
namespace KMS {

enum StatusCode : int {
  EC_KS_success = 0,
  EC_KS_internal_error = 1200,
  EC_KS_HMKfile_open_error = 1203,
  EC_KS_invalid_HMKfile = 1206,
  EC_KS_KPKfile_open_error = 1248,
  EC_KS_db_write_fail_changed = 1277,
};

// The symbolic name of a code ("EC_KS_internal_error"), or null.
const char* statusSymbol(int code);

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
