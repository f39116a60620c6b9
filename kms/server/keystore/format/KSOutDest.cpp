#include "kms/server/keystore/format/KSOutDest.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

KSOutDest::~KSOutDest() = default;

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
