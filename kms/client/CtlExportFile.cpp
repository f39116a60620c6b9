#include "kms/client/CtlExportFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "kms/client/CtlCommandLine.h"

namespace Vaultrest {
namespace DL {
namespace KMSCtl {

namespace {

std::string directoryOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) {
    return ".";
  }
  return slash == 0 ? "/" : path.substr(0, slash);
}

std::string baseOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string failure(const char* what, const std::string& path) {
  return std::string("cannot ") + what + " " + path + ": " + std::strerror(errno);
}

}  // namespace

CtlExportFile::CtlExportFile(const std::string& path) : m_path(path) {
  const std::string base = baseOf(path);
  if (base.empty() || base == "." || base == "..") {
    throw UsageError("not a file name: " + path);
  }
  // Hidden and unique beside the target, so that the rename stays within one
  // file system. mkstemp makes it with mode 0600.
  std::string name = directoryOf(path) + "/." + base + ".XXXXXX";
  std::vector<char> buffer(name.begin(), name.end());
  buffer.push_back('\0');
  m_fd = ::mkstemp(buffer.data());
  if (m_fd < 0) {
    throw UsageError(failure("create a file in the directory of", path));
  }
  m_tempPath = buffer.data();
}

CtlExportFile::~CtlExportFile() {
  discard();
}

void CtlExportFile::discard() {
  if (m_fd >= 0) {
    ::close(m_fd);
    m_fd = -1;
  }
  if (!m_tempPath.empty()) {
    ::unlink(m_tempPath.c_str());
    m_tempPath.clear();
  }
}

void CtlExportFile::commit(const void* bytes, size_t size) {
  const char* at = static_cast<const char*>(bytes);
  while (size > 0) {
    const ssize_t written = ::write(m_fd, at, size);
    if (written < 0) {
      if (errno == EINTR) {
        continue;
      }
      throw FileError(failure("write", m_tempPath));
    }
    at += written;
    size -= static_cast<size_t>(written);
  }
  if (::fsync(m_fd) != 0) {
    throw FileError(failure("sync", m_tempPath));
  }
  const int fd = m_fd;
  m_fd = -1;
  if (::close(fd) != 0) {
    throw FileError(failure("close", m_tempPath));
  }
  if (::rename(m_tempPath.c_str(), m_path.c_str()) != 0) {
    throw FileError(failure("rename the export file to", m_path));
  }
  m_tempPath.clear();
  // The rename is durable only once the directory is.
  const std::string directory = directoryOf(m_path);
  const int dirFd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dirFd < 0) {
    throw FileError(failure("open the directory", directory));
  }
  const int synced = ::fsync(dirFd);
  const int savedErrno = errno;
  ::close(dirFd);
  if (synced != 0) {
    errno = savedErrno;
    throw FileError(failure("sync the directory", directory));
  }
}

}  // namespace KMSCtl
}  // namespace DL
}  // namespace Vaultrest
