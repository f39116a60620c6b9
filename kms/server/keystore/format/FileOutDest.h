// A KSOutDest over an open FILE*. The file is borrowed: it stays open after
// the destination is gone, and flushing it to the disk is the caller's job.
// `room` bounds the bytes the destination writes in all, so that a writer can
// keep a file within what its reader accepts.
#pragma once

#include <cstdint>
#include <cstdio>

#include "kms/server/keystore/format/KSOutDest.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

class FileOutDest : public KSOutDest {
 public:
  explicit FileOutDest(FILE* file, uint64_t room = UINT64_MAX) : m_file(file), m_room(room) {}

  // Utils::fwriteall of all the bytes; throws KeyStoreError 1210 when it
  // fails, or without writing when the bytes would pass `room`.
  void write(const void* data, unsigned long len) override;

 private:
  FILE* m_file;
  uint64_t m_room;
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
