// What tells one version of a file from another without reading it: its
// device, inode, size, and modification and change times.
//
// File times advance in steps of the kernel's clock tick, so a file written
// twice within one tick, to the same size, keeps its stamp. A reader that
// keeps what it read by the stamp therefore reads again while the stamp is
// racy: less than a second passed between the file's last change and the
// read.
//
// A value type.
#pragma once

#include <sys/stat.h>
#include <time.h>

#include <string>

class FileStamp {
 public:
  FileStamp() = default;
  explicit FileStamp(const struct stat& info);

  // The stamp of the file at `path`; false (errno set) when it cannot be
  // had.
  static bool of(const std::string& path, FileStamp* stamp);

  // Whether a read of this version at `readAt` (CLOCK_REALTIME) may have
  // missed a later change that left the stamp as it was.
  bool racy(const timespec& readAt) const;

  // The current time on the clock that file times use.
  static timespec now();

  bool operator==(const FileStamp& other) const;
  bool operator!=(const FileStamp& other) const { return !(*this == other); }

 private:
  bool m_valid = false;
  dev_t m_device = 0;
  ino_t m_inode = 0;
  off_t m_size = 0;
  timespec m_modified{};
  timespec m_changed{};
};
