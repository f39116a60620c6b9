// Helpers shared by the record and table tests.
#pragma once

#include <string>

#include "kms/platform/VRLogger.h"
#include "kms/server/keystore/records/KeyRecord_v1.h"

namespace recordtest {

// A 32-byte tag made from `n`, with zero bytes in it, so that nothing on the
// way may treat it as a C string.
inline std::string tagOf(unsigned n, char first = 'T') {
  std::string tag(32, '\0');
  tag[0] = first;
  tag[12] = static_cast<char>(n & 0xff);
  tag[13] = static_cast<char>((n >> 8) & 0xff);
  tag[31] = static_cast<char>(0xff);
  return tag;
}

inline Vaultrest::DL::KMS::KeyRecord_v1 keyRecord(const std::string& tag, const std::string& group,
                                                  Vaultrest::DL::KMS::ks_keystate_t state) {
  Vaultrest::DL::KMS::KeyRecord_v1 rec;
  rec.setTag(tag);
  rec.setKeyGroup(group);
  rec.setState(state);
  rec.setKpkType(Vaultrest::DL::KMS::KPK_LOCAL);
  rec.setName("key");
  return rec;
}

// For the child of a death test: application messages, the assertion text
// among them, go to standard error, where EXPECT_DEATH matches them.
inline void logAppToStderr() {
  static VRLogger logger(286, "/dev/null", "/dev/stderr", 0);
  VRLogger::s_default = &logger;
}

}  // namespace recordtest
