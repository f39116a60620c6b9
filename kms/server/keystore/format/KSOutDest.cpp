#include "kms/server/keystore/format/KSOutDest.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

KSOutDest::~KSOutDest() = default;

bool KSOutDest::inMemory() const {
  return false;
}

void KSOutDest::expect(unsigned long) {}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
