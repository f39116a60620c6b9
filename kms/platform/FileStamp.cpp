#include "kms/platform/FileStamp.h"

namespace {

bool sameTime(const timespec& a, const timespec& b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

}  // namespace

FileStamp::FileStamp(const struct stat& info)
    : m_valid(true),
      m_device(info.st_dev),
      m_inode(info.st_ino),
      m_size(info.st_size),
      m_modified(info.st_mtim),
      m_changed(info.st_ctim) {}

bool FileStamp::of(const std::string& path, FileStamp* stamp) {
  struct stat info;
  if (::stat(path.c_str(), &info) != 0) {
    return false;
  }
  *stamp = FileStamp(info);
  return true;
}

bool FileStamp::racy(const timespec& readAt) const {
  const timespec& last =
      m_changed.tv_sec > m_modified.tv_sec ||
              (m_changed.tv_sec == m_modified.tv_sec && m_changed.tv_nsec > m_modified.tv_nsec)
          ? m_changed
          : m_modified;
  return readAt.tv_sec <= last.tv_sec + 1;
}

timespec FileStamp::now() {
  timespec time{};
  ::clock_gettime(CLOCK_REALTIME, &time);
  return time;
}

bool FileStamp::operator==(const FileStamp& other) const {
  return m_valid && other.m_valid && m_device == other.m_device && m_inode == other.m_inode &&
         m_size == other.m_size && sameTime(m_modified, other.m_modified) &&
         sameTime(m_changed, other.m_changed);
}
