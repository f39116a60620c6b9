// A KSOutDest over an open FILE*. The file is borrowed: it stays open after
// the destination is gone, and flushing it to the disk is the caller's job.
#pragma once

#include <cstdio>

#include "kms/server/keystore/format/KSOutDest.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

class FileOutDest : public KSOutDest {
 public:
  explicit FileOutDest(FILE* file) : m_file(file) {}

  // Utils::fwriteall of all the bytes; throws KeyStoreError 1210 when it fails.
  void write(const void* data, unsigned long len) override;

 private:
  FILE* m_file;
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
