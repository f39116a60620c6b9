#include "kms/server/keystore/files/FileFaults.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>

namespace Vaultrest {
namespace DL {
namespace KMS {

namespace {

std::atomic<FileFaultHook*> g_hook{nullptr};

// The file a descriptor refers to, for the hook's record.
std::string pathOfFd(int fd) {
  if (fd < 0) {
    return std::string();
  }
  char link[64];
  std::snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
  char target[PATH_MAX];
  ssize_t n = ::readlink(link, target, sizeof(target) - 1);
  if (n < 0) {
    return std::string();
  }
  return std::string(target, static_cast<size_t>(n));
}

std::string pathOfStream(FILE* stream) {
  return stream != nullptr ? pathOfFd(::fileno(stream)) : std::string();
}

// Asks the hook about one operation. Returns true when the operation is to
// run; false with errno set when it is to fail. A crash does not return.
// `describe` makes the FileOperation and runs only when a hook is installed.
template <typename Describe>
bool admit(Describe&& describe) {
  FileFaultHook* hook = g_hook.load(std::memory_order_acquire);
  if (hook == nullptr) {
    return true;
  }
  const FileFaultDecision decision = hook->onFileOp(describe());
  switch (decision.action) {
    case FileFaultDecision::Run:
      return true;
    case FileFaultDecision::Crash:
      ::_exit(FileFaults::kCrashExitStatus);
    case FileFaultDecision::Fail:
      break;
  }
  errno = decision.error != 0 ? decision.error : EIO;
  return false;
}

FileOperation operation(FileOp op, std::string path, std::string target = std::string()) {
  return FileOperation{op, std::move(path), std::move(target)};
}

}  // namespace

const char* fileOpName(FileOp op) {
  switch (op) {
    case FileOp::Open:
      return "Open";
    case FileOp::Close:
      return "Close";
    case FileOp::Fopen:
      return "Fopen";
    case FileOp::Fread:
      return "Fread";
    case FileOp::Fwrite:
      return "Fwrite";
    case FileOp::Fflush:
      return "Fflush";
    case FileOp::Fsync:
      return "Fsync";
    case FileOp::Fclose:
      return "Fclose";
    case FileOp::Rename:
      return "Rename";
    case FileOp::Unlink:
      return "Unlink";
    case FileOp::Mkdir:
      return "Mkdir";
    case FileOp::Access:
      return "Access";
    case FileOp::OpenDir:
      return "OpenDir";
    case FileOp::SyncDir:
      return "SyncDir";
    case FileOp::Stat:
      return "Stat";
  }
  return "Unknown";
}

FileFaultHook* FileFaults::install(FileFaultHook* hook) {
  return g_hook.exchange(hook, std::memory_order_acq_rel);
}

FileFaultHook* FileFaults::installed() {
  return g_hook.load(std::memory_order_acquire);
}

int FileFaults::openFd(const char* path, int flags, mode_t mode) {
  if (!admit([&] { return operation(FileOp::Open, path); })) {
    return -1;
  }
  return ::open(path, flags | O_CLOEXEC, mode);
}

int FileFaults::closeFd(int fd) {
  if (!admit([&] { return operation(FileOp::Close, pathOfFd(fd)); })) {
    const int error = errno;
    ::close(fd);
    errno = error;
    return -1;
  }
  return ::close(fd);
}

FILE* FileFaults::openStream(const char* path, const char* mode) {
  if (!admit([&] { return operation(FileOp::Fopen, path); })) {
    return nullptr;
  }
  // The flags of fopen's modes, with O_NOFOLLOW and O_CLOEXEC (the
  // descriptor is not inherited by programs this process starts).
  const std::string m(mode);
  const bool plus = m.find('+') != std::string::npos;
  int flags = O_NOFOLLOW | O_CLOEXEC;
  switch (m.empty() ? 'r' : m[0]) {
    case 'w':
      flags |= (plus ? O_RDWR : O_WRONLY) | O_CREAT | O_TRUNC;
      break;
    case 'a':
      flags |= (plus ? O_RDWR : O_WRONLY) | O_CREAT | O_APPEND;
      break;
    default:
      flags |= (plus ? O_RDWR : O_RDONLY) | O_NONBLOCK;
      break;
  }
  if (m.find('x') != std::string::npos) {
    flags |= O_EXCL;
  }
  const int fd = ::open(path, flags, 0600);
  if (fd < 0) {
    return nullptr;
  }
  // O_NONBLOCK stays: it changes nothing for a regular file, and the
  // caller refuses anything else by fstat before reading.
  FILE* stream = streamOfFd(fd, mode);
  if (stream == nullptr) {
    const int error = errno;
    ::close(fd);
    errno = error;
  }
  return stream;
}

FILE* FileFaults::streamOfFd(int fd, const char* mode) {
  std::string m;
  for (const char* c = mode; *c != '\0'; ++c) {
    if (*c != 'x' && *c != 'e') {
      m.push_back(*c);
    }
  }
  return ::fdopen(fd, m.c_str());
}

int FileFaults::statFd(int fd, struct stat* st) {
  if (!admit([&] { return operation(FileOp::Stat, pathOfFd(fd)); })) {
    return -1;
  }
  return ::fstat(fd, st);
}

int FileFaults::statPath(const char* path, struct stat* st) {
  if (!admit([&] { return operation(FileOp::Stat, path); })) {
    return -1;
  }
  return ::lstat(path, st);
}

size_t FileFaults::readStream(void* buffer, size_t size, FILE* stream) {
  if (!admit([&] { return operation(FileOp::Fread, pathOfStream(stream)); })) {
    return 0;
  }
  return std::fread(buffer, 1, size, stream);
}

size_t FileFaults::writeStream(const void* buffer, size_t size, FILE* stream) {
  if (!admit([&] { return operation(FileOp::Fwrite, pathOfStream(stream)); })) {
    return 0;
  }
  return std::fwrite(buffer, 1, size, stream);
}

int FileFaults::flushStream(FILE* stream) {
  if (!admit([&] { return operation(FileOp::Fflush, pathOfStream(stream)); })) {
    return EOF;
  }
  return std::fflush(stream);
}

int FileFaults::syncFd(int fd) {
  if (!admit([&] { return operation(FileOp::Fsync, pathOfFd(fd)); })) {
    return -1;
  }
  return ::fsync(fd);
}

int FileFaults::closeStream(FILE* stream) {
  if (!admit([&] { return operation(FileOp::Fclose, pathOfStream(stream)); })) {
    const int error = errno;
    std::fclose(stream);
    errno = error;
    return EOF;
  }
  return std::fclose(stream);
}

int FileFaults::renamePath(const char* from, const char* to) {
  if (!admit([&] { return operation(FileOp::Rename, from, to); })) {
    return -1;
  }
  return std::rename(from, to);
}

int FileFaults::unlinkPath(const char* path) {
  if (!admit([&] { return operation(FileOp::Unlink, path); })) {
    return -1;
  }
  return ::unlink(path);
}

int FileFaults::makeDir(const char* path, mode_t mode) {
  if (!admit([&] { return operation(FileOp::Mkdir, path); })) {
    return -1;
  }
  return ::mkdir(path, mode);
}

int FileFaults::accessPath(const char* path, int mode) {
  if (!admit([&] { return operation(FileOp::Access, path); })) {
    return -1;
  }
  return ::access(path, mode);
}

int FileFaults::openDir(const char* path) {
  if (!admit([&] { return operation(FileOp::OpenDir, path); })) {
    return -1;
  }
  return ::open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
}

int FileFaults::syncDir(int fd) {
  if (!admit([&] { return operation(FileOp::SyncDir, pathOfFd(fd)); })) {
    return -1;
  }
  return ::fsync(fd);
}

FileFaultDecision FileOpRecorder::onFileOp(const FileOperation& operation) {
  record(operation, std::nullopt);
  return FileFaultDecision{};
}

size_t FileOpRecorder::record(const FileOperation& operation, const std::optional<FileOp>& kind) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_operations.push_back(operation);
  ++m_countByKind[static_cast<size_t>(operation.op)];
  if (!kind) {
    return m_operations.size();
  }
  return *kind == operation.op ? m_countByKind[static_cast<size_t>(*kind)] : 0;
}

std::vector<FileOperation> FileOpRecorder::operations() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_operations;
}

size_t FileOpRecorder::count() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_operations.size();
}

std::vector<FileOp> FileOpRecorder::kinds() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  std::vector<FileOp> kinds;
  kinds.reserve(m_operations.size());
  for (const FileOperation& operation : m_operations) {
    kinds.push_back(operation.op);
  }
  return kinds;
}

FileFaultDecision FailNthFileOp::onFileOp(const FileOperation& operation) {
  const size_t number = record(operation, m_kind);
  if (number == 0 || number != m_n) {
    return FileFaultDecision{};
  }
  std::lock_guard<std::mutex> lock(m_mutex);
  m_fired = true;
  return FileFaultDecision{FileFaultDecision::Fail, m_error};
}

bool FailNthFileOp::fired() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_fired;
}

FileFaultDecision CrashAtNthFileOp::onFileOp(const FileOperation& operation) {
  const size_t number = record(operation, m_kind);
  if (number == 0 || number != m_n) {
    return FileFaultDecision{};
  }
  return FileFaultDecision{FileFaultDecision::Crash, 0};
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
