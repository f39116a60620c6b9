#include "kms/platform/framework/PeerGrantsFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "kms/platform/VrConfReader.h"
#include "kms/platform/framework/FrameworkLog.h"

namespace Ardentis {
namespace Vaultrest {
namespace TL {
namespace Framework {

namespace {

constexpr off_t kLargestFile = 16 * 1024 * 1024;

// The whole text of the regular file open at `fd`, and its stamp; false
// with *why when it cannot be had whole.
bool readWhole(int fd, std::string* text, FileStamp* stamp, std::string* why) {
  struct stat info;
  if (::fstat(fd, &info) != 0) {
    *why = std::strerror(errno);
    return false;
  }
  if (!S_ISREG(info.st_mode)) {
    *why = "it is no regular file";
    return false;
  }
  if (info.st_size > kLargestFile) {
    *why = "it is larger than 16 MiB";
    return false;
  }
  // One byte more than its size: a file that grows meanwhile shows.
  text->assign(static_cast<size_t>(info.st_size) + 1, '\0');
  size_t got = 0;
  while (got < text->size()) {
    const ssize_t n = ::read(fd, &(*text)[got], text->size() - got);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n < 0) {
      *why = std::strerror(errno);
      return false;
    }
    if (n == 0) {
      break;
    }
    got += static_cast<size_t>(n);
  }
  text->resize(got);
  struct stat after;
  if (got != static_cast<size_t>(info.st_size) || ::fstat(fd, &after) != 0 ||
      FileStamp(after) != FileStamp(info)) {
    *why = "it changed while it was read";
    return false;
  }
  if (text->empty()) {
    *why = "it is empty";
    return false;
  }
  if (text->back() != '\n') {
    *why = "its last line has no line break (cut off while written?)";
    return false;
  }
  *stamp = FileStamp(info);
  return true;
}

}  // namespace

PeerGrantsFile::PeerGrantsFile(std::string path, std::string name)
    : m_path(std::move(path)), m_name(std::move(name)) {}

bool PeerGrantsFile::load(std::string* error) {
  std::lock_guard<std::mutex> lock(m_mutex);
  return readLocked(error);
}

std::shared_ptr<const PeerGrants> PeerGrantsFile::current() {
  FileStamp seen;
  const bool found = FileStamp::of(m_path, &seen);
  const int statError = errno;
  std::lock_guard<std::mutex> lock(m_mutex);
  if (!found || seen != m_read || m_read.racy(m_readAt)) {
    std::string error;
    if (!found) {
      error = "the grants of " + m_path + " cannot be read: " + std::strerror(statError);
    } else {
      readLocked(&error);
    }
    if (!error.empty() && error != m_failure) {
      FW_DEBUG("PeerGrantsFile::current", 1, error << "; the grants last read stay in force");
      m_failure = error;
    }
  }
  if (!m_grants) {
    m_grants = std::make_shared<const PeerGrants>();
  }
  return m_grants;
}

bool PeerGrantsFile::readLocked(std::string* error) {
  const timespec readAt = FileStamp::now();
  const int fd = ::open(m_path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
  if (fd < 0) {
    *error = "the grants of " + m_path + " cannot be read: " + std::strerror(errno);
    return false;
  }
  std::string text;
  FileStamp stamp;
  std::string why;
  const bool whole = readWhole(fd, &text, &stamp, &why);
  ::close(fd);
  if (!whole) {
    *error = "the grants of " + m_path + " cannot be read: " + why;
    return false;
  }
  VrConfReader config;
  config.parse(text);
  PeerGrants grants;
  if (!PeerGrants::read(config, m_name, &grants, &why)) {
    *error = "in " + m_path + ", " + why;
    return false;
  }
  if (stamp != m_read) {
    FW_DEBUG("PeerGrantsFile::load", 4,
             "Read " << grants.grants().size() << " " << m_name << " lines from " << m_path);
  }
  m_grants = std::make_shared<const PeerGrants>(std::move(grants));
  m_read = stamp;
  m_readAt = readAt;
  m_failure.clear();
  return true;
}

}  // namespace Framework
}  // namespace TL
}  // namespace Vaultrest
}  // namespace Ardentis
