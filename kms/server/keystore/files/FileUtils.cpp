#include "kms/server/keystore/files/FileUtils.h"

#include <fcntl.h>
#include <openssl/crypto.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ace/OS_NS_string.h>
#include <algorithm>
#include <cerrno>
#include <string>

#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/Raise.h"
#include "kms/server/diagnostics/StatusCodes.h"
#include "kms/server/keystore/files/FileFaults.h"

namespace Vaultrest {
namespace DL {
namespace KMS {
namespace Utils {

namespace {

constexpr int kMsgCreateDirFailed = 43;
constexpr int kMsgCreateFileFailed = 44;
constexpr int kMsgRenameFailed = 47;
constexpr int kMsgDeleteFailed = 48;
constexpr int kMsgFlushFailed = 59;
constexpr int kMsgCloseFailed = 60;
constexpr int kMsgReadFailed = 61;
constexpr int kMsgWriteFailed = 62;
constexpr int kMsgUntrustedPath = 110;

constexpr size_t kReadPiece = 4096;

// "errno = <n>, <text>"
std::string errnoText(int error) {
  const char* text = ACE_OS::strerror(error);
  return "errno = " + std::to_string(error) + ", " + (text != nullptr ? text : "");
}

}  // namespace

FileHolder::~FileHolder() {
  try {
    close();
  } catch (const KeyStoreError& error) {
    KMS_DEBUG("FileHolder::~FileHolder", 1, "Exception Caught: " << error.str(true));
    KMS_DEBUG("FileHolder::~FileHolder", 1, "Exception Caught in Destructor!! Ignoring");
  }
}

void FileHolder::close() {
  if (m_file == nullptr) {
    return;
  }
  FILE* file = m_file;
  m_file = nullptr;
  if (FileFaults::closeStream(file) != 0) {
    const int error = errno;
    KMS_DEBUG("FileHolder::close", 1, "Failed to close file: " << errnoText(error));
    logAppMessage("FileHolder::close", CRVN_SEV_ERROR, kMsgCloseFailed);
    KS_THROW(EC_KS_file_write_error, "FileHolder::close");
  }
}

FileHolder openFile(const char* path, const char* mode) {
  return FileHolder(FileFaults::openStream(path, mode));
}

std::string untrustedReason(const struct stat& st, bool directory) {
  if (S_ISLNK(st.st_mode)) {
    return "it is a symbolic link";
  }
  if (directory ? !S_ISDIR(st.st_mode) : !S_ISREG(st.st_mode)) {
    return directory ? "it is not a directory" : "it is not a regular file";
  }
  if (st.st_uid != ::geteuid()) {
    return "it is owned by user " + std::to_string(st.st_uid) + ", not by user " +
           std::to_string(::geteuid()) + " that the service runs as";
  }
  if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    return "it is writable by group or others";
  }
  return std::string();
}

FileHolder openForReading(const char* function, const std::string& path, off_t maxBytes) {
  KMS_TRACE("Utils::openForReading");
  FileHolder file(FileFaults::openStream(path.c_str(), "rb"));
  if (file.get() == nullptr) {
    if (errno == ELOOP) {
      logAppMessage(function, CRVN_SEV_ERROR, kMsgUntrustedPath, path,
                    std::string("it is a symbolic link"));
      errno = ELOOP;
    }
    return file;
  }
  struct stat st;
  std::string reason;
  if (FileFaults::statFd(::fileno(file.get()), &st) != 0) {
    reason = "its status cannot be read: " + errnoText(errno);
  } else {
    reason = untrustedReason(st, false);
    if (reason.empty() && st.st_size > maxBytes) {
      reason = "it holds " + std::to_string(st.st_size) + " bytes, more than the " +
               std::to_string(maxBytes) + " of any valid file";
    }
  }
  if (reason.empty()) {
    return file;
  }
  logAppMessage(function, CRVN_SEV_ERROR, kMsgUntrustedPath, path, reason);
  try {
    file.close();
  } catch (const KeyStoreError&) {
    // Nothing was read from it.
  }
  errno = EPERM;
  return FileHolder();
}

FileHolder createForWriting(const char* function, const std::string& path, unsigned long line,
                            const char* file) {
  KMS_TRACE("Utils::createForWriting");
  int error = 0;
  struct stat st;
  if (FileFaults::statPath(path.c_str(), &st) == 0 && FileFaults::unlinkPath(path.c_str()) != 0 &&
      errno != ENOENT) {
    error = errno;
    KMS_DEBUG(function, 1, "ACE_OS::unlink() failed: " << errnoText(error));
  } else {
    const int fd = FileFaults::openFd(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, 0600);
    if (fd >= 0) {
      FILE* stream = FileFaults::streamOfFd(fd, "wb");
      if (stream != nullptr) {
        return FileHolder(stream);
      }
      error = errno;
      FileFaults::closeFd(fd);
    } else {
      error = errno;
    }
    KMS_DEBUG(function, 1, "ACE_OS::open failed: " << errnoText(error));
  }
  logAppMessage(function, CRVN_SEV_ERROR, kMsgCreateFileFailed, path);
  raiseKeyStoreError(EC_KS_file_create_failed, function, file, line);
}

void requireSameFile(const char* function, const std::string& path, FILE* stream,
                     unsigned long line, const char* file) {
  KMS_TRACE("Utils::requireSameFile");
  struct stat open;
  struct stat named;
  if (FileFaults::statFd(::fileno(stream), &open) == 0 &&
      FileFaults::statPath(path.c_str(), &named) == 0 && S_ISREG(named.st_mode) &&
      open.st_dev == named.st_dev && open.st_ino == named.st_ino) {
    return;
  }
  logAppMessage(function, CRVN_SEV_ERROR, kMsgUntrustedPath, path,
                std::string("it was replaced while it was being written"));
  raiseKeyStoreError(EC_KS_file_create_failed, function, file, line);
}

void requireTrustedPath(const char* function, const std::string& path, bool directory,
                        unsigned long line, const char* file) {
  KMS_TRACE("Utils::requireTrustedPath");
  struct stat st;
  if (FileFaults::statPath(path.c_str(), &st) != 0) {
    const int error = errno;
    if (error == ENOENT) {
      return;
    }
    KMS_DEBUG(function, 1, "lstat( " << path << ") failed: " << errnoText(error));
    logAppMessage(function, CRVN_SEV_ERROR, kMsgUntrustedPath, path,
                  "its status cannot be read: " + errnoText(error));
    raiseKeyStoreError(EC_KS_untrusted_path, function, file, line);
  }
  const std::string reason = untrustedReason(st, directory);
  if (!reason.empty()) {
    logAppMessage(function, CRVN_SEV_ERROR, kMsgUntrustedPath, path, reason);
    raiseKeyStoreError(EC_KS_untrusted_path, function, file, line);
  }
}

std::string directoryOf(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  if (slash == std::string::npos) {
    return ".";
  }
  return slash == 0 ? std::string("/") : path.substr(0, slash);
}

bool fileExists(const char* path, LogDisposition disposition, const char* function) {
  KMS_TRACE("Utils::fileExists");
  if (FileFaults::accessPath(path, F_OK) == 0) {
    if (disposition == LOG_BOTH || disposition == LOG_EXISTS) {
      KMS_DEBUG(function, 1, "File <" << path << "> exists");
    }
    return true;
  }
  const int error = errno;
  if (error == ENOENT) {
    if (disposition == LOG_BOTH || disposition == LOG_MISSING) {
      KMS_DEBUG(function, 1, "File <" << path << "> does not exist");
    }
    return false;
  }
  KMS_DEBUG(function, 1,
            "access( " << path << ") failed: errno = " << error << ", " << ACE_OS::strerror(error));
  KS_THROW(EC_KS_internal_error, function);
}

void createFile(const char* function, const char* path, unsigned long line, bool keepExisting,
                const char* file) {
  KMS_TRACE("Utils::createFile");
  if (keepExisting && fileExists(path, LOG_NEITHER, function)) {
    return;
  }
  if (CreateFileWithRootAccessOnly(path) != 0) {
    logAppMessage(function, CRVN_SEV_ERROR, kMsgCreateFileFailed, std::string(path));
    raiseKeyStoreError(EC_KS_file_create_failed, function, file, line);
  }
}

void deleteFile(const char* function, const char* path, unsigned long line, bool ignoreMissing,
                const char* file) {
  KMS_TRACE("Utils::deleteFile");
  if (ignoreMissing && !fileExists(path, LOG_NEITHER, function)) {
    return;
  }
  if (FileFaults::unlinkPath(path) != 0) {
    const int error = errno;
    KMS_DEBUG(function, 1, "Failed to unlink file: " << errnoText(error));
    logAppMessage(function, CRVN_SEV_ERROR, kMsgDeleteFailed, std::string(path));
    raiseKeyStoreError(EC_KS_file_delete_failed, function, file, line);
  }
}

void renameFile(const char* function, const char* from, const char* to, unsigned long line,
                const char* file) {
  KMS_TRACE("Utils::renameFile");
  if (FileFaults::renamePath(from, to) != 0) {
    const int error = errno;
    KMS_DEBUG(function, 1, "Failed to rename file: " << errnoText(error));
    logAppMessage(function, CRVN_SEV_ERROR, kMsgRenameFailed, std::string(from), std::string(to));
    raiseKeyStoreError(EC_KS_file_rename_failed, function, file, line);
  }
}

void createDir(const char* function, const char* path, unsigned long line, const char* file) {
  KMS_TRACE("Utils::createDir");
  if (CreateDirWithRootAccessOnly(path) != 0) {
    logAppMessage(function, CRVN_SEV_ERROR, kMsgCreateDirFailed, std::string(path));
    raiseKeyStoreError(EC_KS_dir_create_failed, function, file, line);
  }
}

void flushFileToDisk(const char* function, FILE* stream, const char* file, unsigned long line) {
  KMS_TRACE("Utils::flushFileToDisk");
  if (FileFaults::flushStream(stream) != 0) {
    const int error = errno;
    KMS_DEBUG(function, 1, "Failed to flush file: " << errnoText(error));
    logAppMessage(function, CRVN_SEV_ERROR, kMsgFlushFailed);
    raiseKeyStoreError(EC_KS_file_write_error, function, file, line);
  }
  if (FileFaults::syncFd(::fileno(stream)) != 0) {
    const int error = errno;
    KMS_DEBUG(function, 1, "Failed to sync file: " << errnoText(error));
    logAppMessage(function, CRVN_SEV_ERROR, kMsgFlushFailed);
    raiseKeyStoreError(EC_KS_file_write_error, function, file, line);
  }
}

void syncDirectory(const char* function, const char* path, unsigned long line, const char* file) {
  KMS_TRACE("Utils::syncDirectory");
  const int fd = FileFaults::openDir(path);
  if (fd < 0) {
    const int error = errno;
    KMS_DEBUG(function, 1, "Failed to open directory <" << path << ">: " << errnoText(error));
    logAppMessage(function, CRVN_SEV_ERROR, kMsgFlushFailed);
    raiseKeyStoreError(EC_KS_file_write_error, function, file, line);
  }
  if (FileFaults::syncDir(fd) != 0) {
    const int error = errno;
    FileFaults::closeFd(fd);
    KMS_DEBUG(function, 1, "Failed to sync directory <" << path << ">: " << errnoText(error));
    logAppMessage(function, CRVN_SEV_ERROR, kMsgFlushFailed);
    raiseKeyStoreError(EC_KS_file_write_error, function, file, line);
  }
  if (FileFaults::closeFd(fd) != 0) {
    const int error = errno;
    KMS_DEBUG(function, 1, "Failed to close directory <" << path << ">: " << errnoText(error));
    logAppMessage(function, CRVN_SEV_ERROR, kMsgFlushFailed);
    raiseKeyStoreError(EC_KS_file_write_error, function, file, line);
  }
}

void readFileIntoString(FILE* stream, std::string& out, size_t maxBytes) {
  KMS_TRACE("Utils::readFileIntoString");
  // Room for the whole file at once: a string grown piece by piece copies
  // itself over and over, and leaves its old buffers, unwiped, on the heap.
  struct stat st;
  const off_t at = ftello(stream);
  if (fstat(fileno(stream), &st) == 0 && S_ISREG(st.st_mode) && at >= 0 && st.st_size > at) {
    const size_t rest = static_cast<size_t>(st.st_size - at);
    out.reserve(out.size() + std::min(rest, maxBytes));
  }
  unsigned char piece[kReadPiece];
  ssize_t bytesread = 0;
  size_t total = 0;
  do {
    bytesread = freadall(stream, piece, sizeof(piece));
    if (bytesread > 0) {
      total += static_cast<size_t>(bytesread);
    }
    if (bytesread < 0 || total > maxBytes) {
      OPENSSL_cleanse(piece, sizeof(piece));
      logAppMessage("Utils::readFileIntoString", CRVN_SEV_ERROR, kMsgReadFailed);
      KS_THROW(EC_KS_file_write_error, "Utils::readFileIntoString");
    }
    KS_ASSERT("Utils::readFileIntoString", bytesread >= 0);
    out.append(reinterpret_cast<const char*>(piece), static_cast<size_t>(bytesread));
  } while (static_cast<size_t>(bytesread) == sizeof(piece));
  // The pieces of key and store files are secret.
  OPENSSL_cleanse(piece, sizeof(piece));
}

void writeStringIntoFile(const std::string& buf, FILE* stream) {
  KMS_TRACE("Utils::writeStringIntoFile");
  const ssize_t written = fwriteall(stream, buf.data(), buf.size());
  if (written < 0) {
    logAppMessage("Utils::writeStringIntoFile", CRVN_SEV_ERROR, kMsgWriteFailed);
    KS_THROW(EC_KS_file_write_error, "Utils::writeStringIntoFile");
  }
  KS_ASSERT("Utils::writeStringIntoFile", (size_t)written == buf.size());
}

ssize_t freadall(FILE* stream, void* buffer, size_t size) {
  const size_t n = FileFaults::readStream(buffer, size, stream);
  if (n == size) {
    return static_cast<ssize_t>(n);
  }
  if (std::feof(stream) != 0 && std::ferror(stream) == 0) {
    return static_cast<ssize_t>(n);
  }
  KMS_DEBUG("Utils::freadall", 1, "fread() failed: ferror = " << std::ferror(stream));
  std::clearerr(stream);
  return -1;
}

ssize_t fwriteall(FILE* stream, const void* buffer, size_t size) {
  const size_t n = FileFaults::writeStream(buffer, size, stream);
  if (n != size) {
    KMS_DEBUG("Utils::fwriteall", 1, "fwrite() failed: ferror = " << std::ferror(stream));
    std::clearerr(stream);
    return -1;
  }
  return static_cast<ssize_t>(n);
}

int CreateFileWithRootAccessOnly(const char* path) {
  KMS_TRACE("Utils::CreateFileWithRootAccessOnly");
  if (FileFaults::accessPath(path, F_OK) == 0 && FileFaults::unlinkPath(path) != 0 &&
      errno != ENOENT) {
    const int error = errno;
    KMS_DEBUG("Utils::CreateFileWithRootAccessOnly", 1,
              "ACE_OS::unlink() failed: " << errnoText(error));
    return EC_KS_file_create_failed;
  }
  const int fd = FileFaults::openFd(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, 0600);
  if (fd < 0) {
    const int error = errno;
    KMS_DEBUG("Utils::CreateFileWithRootAccessOnly", 1,
              "ACE_OS::open failed: " << errnoText(error));
    return EC_KS_file_create_failed;
  }
  // The file exists and is empty; a failed close of a descriptor that was
  // never written loses nothing.
  FileFaults::closeFd(fd);
  return 0;
}

int CreateDirWithRootAccessOnly(const char* path) {
  KMS_TRACE("Utils::CreateDirWithRootAccessOnly");
  if (FileFaults::accessPath(path, F_OK) == 0) {
    KMS_DEBUG("Utils::CreateDirWithRootAccessOnly", 1,
              "The directory already exists. Returning Success");
    return 0;
  }
  if (FileFaults::makeDir(path, 0700) != 0 && errno != EEXIST) {
    const int error = errno;
    KMS_DEBUG("Utils::CreateDirWithRootAccessOnly", 1,
              "ACE_OS::mkdir() failed: " << errnoText(error));
    return EC_KS_dir_create_failed;
  }
  return 0;
}

}  // namespace Utils
}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
