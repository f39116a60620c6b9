// The file functions of the key store: the only way the store touches the
// file system (each call goes through the FileFaults seam). Every function
// that can fail logs the failure and throws KeyStoreError, so a commit can be
// written as a straight line; the exceptions are openFile, freadall/fwriteall
// and the two Create*WithRootAccessOnly functions, which return a result.
//
// `function`, `file` and `line` are the caller's: a thrown error carries them
// as its origin, and `function` is the label of the log lines.
//
// Files are created with mode 0600 and directories with 0700; the mode of an
// existing directory is left as it is. None of this locks: the callers hold
// the store's write lock.
#pragma once

#include <sys/types.h>

#include <cstdio>
#include <string>

namespace Vaultrest {
namespace DL {
namespace KMS {
namespace Utils {

// What fileExists() logs.
enum LogDisposition {
  LOG_BOTH = 0,     // "exists" and "does not exist"
  LOG_EXISTS = 1,   // only "exists"
  LOG_MISSING = 2,  // only "does not exist"
  LOG_NEITHER = 3,
};

// Owns one FILE* (or null). The destructor closes an open file and swallows
// (logs) a failure of that close; call close() to see the failure.
class FileHolder {
 public:
  FileHolder() = default;
  explicit FileHolder(FILE* file) : m_file(file) {}
  FileHolder(FileHolder&& other) noexcept : m_file(other.release()) {}
  FileHolder& operator=(FileHolder&&) = delete;
  FileHolder(const FileHolder&) = delete;
  FileHolder& operator=(const FileHolder&) = delete;
  ~FileHolder();

  operator FILE*() const { return m_file; }
  FILE* get() const { return m_file; }
  // Gives up ownership without closing.
  FILE* release() {
    FILE* file = m_file;
    m_file = nullptr;
    return file;
  }

  // fclose. Does nothing when null. The holder is null afterwards whatever
  // fclose gave, so a file is closed once. Throws 1210 when fclose fails.
  void close();

 private:
  FILE* m_file = nullptr;
};

// fopen(path, mode). Null holder on failure, with errno as fopen left it.
// Nothing is logged: the caller knows what a missing file means to it.
FileHolder openFile(const char* path, const char* mode);

// access(path, F_OK): true or false, logging by `disposition` under
// `function`. Any errno but ENOENT (a directory without search permission,
// for one) logs and throws 1200.
bool fileExists(const char* path, LogDisposition disposition, const char* function);

// Makes `path` an empty file of mode 0600, removing a file of that name first.
// With `keepExisting` an existing file is left alone. Throws 1237 (message 44).
void createFile(const char* function, const char* path, unsigned long line, bool keepExisting,
                const char* file);

// unlink. With `ignoreMissing` a missing file is no failure. Throws 1239
// (message 48).
void deleteFile(const char* function, const char* path, unsigned long line, bool ignoreMissing,
                const char* file);

// rename(from, to). Throws 1238 (message 47).
void renameFile(const char* function, const char* from, const char* to, unsigned long line,
                const char* file);

// Makes directory `path` with mode 0700; an existing one is success.
// Throws 1236 (message 43).
void createDir(const char* function, const char* path, unsigned long line, const char* file);

// fflush, then fsync of the descriptor. Throws 1210.
void flushFileToDisk(const char* function, FILE* stream, const char* file, unsigned long line);

// Opens directory `path`, fsyncs it and closes it, so that renames and
// creations inside it are durable. Throws 1210.
void syncDirectory(const char* function, const char* path, unsigned long line, const char* file);

// Appends the rest of `stream` to `out`, in pieces of 4096 bytes, until a
// piece comes short. Throws 1210 on a read failure.
void readFileIntoString(FILE* stream, std::string& out);

// Writes all of `buffer` (not flushed). Throws 1210.
void writeStringIntoFile(const std::string& buffer, FILE* stream);

// fread of `size` bytes: the count, short only at end of file; -1 on failure
// (logged; the stream's error state is cleared).
ssize_t freadall(FILE* stream, void* buffer, size_t size);

// fwrite of `size` bytes: `size`, or -1 when fewer were written (logged; the
// stream's error state is cleared).
ssize_t fwriteall(FILE* stream, const void* buffer, size_t size);

// Removes an existing `path`, then creates it empty with O_EXCL and mode 0600.
// Returns 0 or 1237 (logged); never throws.
int CreateFileWithRootAccessOnly(const char* path);

// Makes directory `path` with mode 0700. An existing path, or EEXIST, is
// success. Returns 0 or 1236 (logged); never throws.
int CreateDirWithRootAccessOnly(const char* path);

}  // namespace Utils
}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
