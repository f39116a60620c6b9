// Shared by the store format's fuzz targets.
#pragma once

#include <cstdlib>
#include <string>

#include "kms/server/diagnostics/KeyStoreError.h"
#include "kms/server/keystore/format/KSOutStream.h"
#include "kms/server/keystore/format/StringOutDest.h"

namespace formatfuzz {

// A failed property is a crash the fuzzer reports.
inline void check(bool ok) {
  if (!ok) {
    std::abort();
  }
}

// The status of the KeyStoreError that `f` throws, or 0. Any other exception
// escapes, and the fuzzer reports it.
template <typename F>
int statusOf(F&& f) {
  try {
    f();
  } catch (const Vaultrest::DL::KMS::KeyStoreError& e) {
    return e.status();
  }
  return 0;
}

// What `write(stream)` puts through a non-encrypting stream, flushed.
template <typename Write>
std::string written(Write&& write) {
  std::string bytes;
  Vaultrest::DL::KMS::StringOutDest dest(bytes);
  Vaultrest::DL::KMS::KSOutStream out(dest, nullptr, Vaultrest::DL::KMS::KSOutStream::kBufferSize);
  write(out);
  out.flush(true);
  return bytes;
}

}  // namespace formatfuzz
