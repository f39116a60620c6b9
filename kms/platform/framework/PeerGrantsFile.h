// The grants of the master configuration as last read whole.
//
// The peer check works on what this object holds, never on a half-read
// file. A read that fails for any reason keeps the grants last read and
// logs the failure once: the file is gone, is no regular file, cannot be
// opened (permission, no descriptor left), changed while it was read, is
// empty, or its last line has no line break, which is how a file cut off
// while it was written looks (so a grant line cut in the middle, which
// could name another peer, is never read). A file that reads whole with
// fewer grant lines is the administrator's new configuration: grants only
// ever say who gains a right, so fewer lines never widen anyone's rights.
// A grant line that cannot be read makes the whole file unreadable too.
//
// The file is read again only when its stamp (FileStamp.h) changed, so a
// peer check costs one stat.
//
// Threads: every member may be called from any thread at once.
#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "kms/platform/FileStamp.h"
#include "kms/platform/framework/PeerGrants.h"

namespace Ardentis {
namespace Vaultrest {
namespace TL {
namespace Framework {

class PeerGrantsFile {
 public:
  // The lines named `name` (e.g. "VRKMS_GRANT") of the file at `path`.
  // Holds no grant until a read succeeds.
  PeerGrantsFile(std::string path, std::string name);

  // Reads the file now. False, with *error saying why and naming the file
  // or the line, when it cannot be read whole; the grants held stay.
  bool load(std::string* error);

  // The grants, read again first if the file changed since. Never null.
  std::shared_ptr<const PeerGrants> current();

 private:
  // Reads and parses the file; the caller holds m_mutex.
  bool readLocked(std::string* error);

  const std::string m_path;
  const std::string m_name;
  std::mutex m_mutex;  // guards all below
  std::shared_ptr<const PeerGrants> m_grants;
  FileStamp m_read;       // of the file last read whole
  timespec m_readAt{};    // when it was read
  std::string m_failure;  // the failure last logged, so that each is logged once
};

}  // namespace Framework
}  // namespace TL
}  // namespace Vaultrest
}  // namespace Ardentis
