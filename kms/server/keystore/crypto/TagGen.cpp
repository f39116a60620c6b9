#include "kms/server/keystore/crypto/TagGen.h"

#include "kms/server/diagnostics/Log.h"
#include "kms/server/keystore/crypto/RandData.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

std::string TagGen::newTag() {
  KMS_TRACE("TagGen::newTag");
  // getRandData makes the same 20 attempts and gives exactly TAG_LEN bytes
  // or nothing.
  return Utils::getRandData(TAG_LEN);
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
