// The file an export is written to. It appears under its name only whole:
// the bytes go to a new file beside it (same directory, mode 0600), which is
// synced, renamed over the name and followed by a sync of the directory. A
// file that was not committed is removed when the object goes, so a failed
// or refused export leaves nothing behind, and an existing file of that name
// stays as it was until the rename.
//
// One thread; one commit.
#pragma once

#include <stdexcept>
#include <string>

namespace Vaultrest {
namespace DL {
namespace KMSCtl {

// A failure to write the file after it was created (disk full, I/O error).
class FileError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class CtlExportFile {
 public:
  // Creates the new file beside `path`. A directory that is missing or not
  // writable throws UsageError: nothing has been asked of the service yet.
  explicit CtlExportFile(const std::string& path);
  // Removes the new file unless commit() has put it in place.
  ~CtlExportFile();
  CtlExportFile(const CtlExportFile&) = delete;
  CtlExportFile& operator=(const CtlExportFile&) = delete;

  // Writes `bytes`, syncs, renames the file to its name and syncs the
  // directory. Throws FileError; the name is then untouched.
  void commit(const void* bytes, size_t size);

  // The name of the new file while it is not committed (for tests).
  const std::string& tempPath() const { return m_tempPath; }

 private:
  void discard();

  std::string m_path;
  std::string m_tempPath;
  int m_fd = -1;
};

}  // namespace KMSCtl
}  // namespace DL
}  // namespace Vaultrest
