#include "kms/server/keystore/KSOutDest.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

KSOutDest::~KSOutDest() = default;

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
