#include "kms/server/keystore/files/ConfigurationAgent.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

ConfigurationAgent::~ConfigurationAgent() = default;

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
