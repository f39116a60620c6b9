// General source of random bytes for the store (salts, IVs, the random half
// of a wrapped key, verifier texts).
#pragma once

#include <string>

namespace Vaultrest {
namespace DL {
namespace KMS {
namespace Utils {

// `len` random bytes from mangleGetRandom, trying up to 20 times. Returns an
// empty string if every attempt failed, and also for `len` 0: callers test
// for empty, so a zero-length request counts as a failure.
std::string getRandData(unsigned long len);

// How often getRandData and TagGen::newTag ask the random source.
constexpr int kRandomAttempts = 20;

}  // namespace Utils
}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
