// Reporting the crypto library's error queue.
#pragma once

namespace Vaultrest {
namespace DL {
namespace KMS {

// Takes every error off this thread's OpenSSL error queue and logs each as
// "OpenSSL error <context>: <text>" at debug level 1. The queue is emptied
// also when the logger is off, so a later failure never reports an old error.
// `context` may be null.
void logOpenSSLErrors(const char* context);

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
