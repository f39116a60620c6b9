#include "kms/platform/MangleRandom.h"

#include <openssl/rand.h>

#include <atomic>
#include <climits>

namespace {
std::atomic<MangleRandomSource> g_source{nullptr};
}  // namespace

MangleRandomSource mangleSetRandomSource(MangleRandomSource source) {
  return g_source.exchange(source);
}

int mangleGetRandom(unsigned char* buf, size_t len) {
  const MangleRandomSource source = g_source.load();
  if (source != nullptr) {
    return source(buf, len);
  }
  while (len > 0) {
    const int chunk = len > static_cast<size_t>(INT_MAX) ? INT_MAX : static_cast<int>(len);
    if (RAND_bytes(buf, chunk) != 1) {
      return -1;
    }
    buf += chunk;
    len -= static_cast<size_t>(chunk);
  }
  return 0;
}
