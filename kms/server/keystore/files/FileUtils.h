// The file functions of the key store: the only way the store touches the
// file system (each call goes through the FileFaults seam). Every function
// that can fail logs the failure and throws KeyStoreError, so a commit can be
// written as a straight line; the exceptions are openFile, openForReading,
// freadall/fwriteall and the two Create*WithRootAccessOnly functions, which
// return a result.
//
// Nothing here follows a symlink to a store, key or configuration file:
// files are read after an fstat proves them regular, this user's, written
// by nobody else and of bounded size, and written through the descriptor
// that created them.
//
// `function`, `file` and `line` are the caller's: a thrown error carries them
// as its origin, and `function` is the label of the log lines.
//
// Files are created with mode 0600 and directories with 0700; the mode of an
// existing directory is left as it is. None of this locks: the callers hold
// the store's write lock.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
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

// fopen(path, mode), never following a symlink in the last component. Null
// holder on failure, with errno as open left it. Nothing is logged: the
// caller knows what a missing file means to it. Reading a store, key or
// configuration file goes through openForReading instead.
FileHolder openFile(const char* path, const char* mode);

// The largest files a valid store has; a bigger file is refused before it is
// read. A key file is one attribute list of two attributes (key and version)
// and its digest, each field at most 4096 bytes behind a two-byte length:
// under 32 KiB, so 1 MiB leaves room for every version. The store file is its
// metadata block (an attribute list of some twenty attributes) and the
// encrypted record stream: the limits max_key_groups and max_keys_per_group
// bound the records to groups x (keys per group + 1), and each record is its
// fields of at most 4096 bytes and its bounded attribute list. A limit may be
// 0 (none), and the configuration file may set either up to 2^31 - 1, so the
// limits give no bound the program can rely on; the bound is therefore where
// a store, which is held in memory whole and twice during a commit, could no
// longer be committed at all: 1 GiB.
constexpr off_t kMaxKeyFileBytes = 1 << 20;
constexpr off_t kMaxStoreFileBytes = off_t(1) << 30;

// Why a file (or, with `directory`, a directory) as lstat or fstat describes
// it in `st` is not one this process may trust: a symlink, not of the
// expected type, owned by a user other than the effective one, or writable
// by group or others. Empty when it is trusted.
std::string untrustedReason(const struct stat& st, bool directory);

// Opens `path` for reading without following a symlink and without waiting
// on a FIFO, and checks with fstat that it is a regular file that the
// process may trust (untrustedReason) of at most `maxBytes`. Null holder when
// it does not exist or cannot be opened (errno as open left it, nothing
// logged), or when it is refused: message 110 names the path and the reason,
// errno is EPERM.
FileHolder openForReading(const char* function, const std::string& path, off_t maxBytes);

// Creates `path` and gives the one stream through which it is written,
// synced and closed: an existing file of that name is removed first, then
// open(O_CREAT | O_EXCL | O_NOFOLLOW, 0600), so that nothing planted under
// the name is followed or reused. Throws 1237 (message 44).
FileHolder createForWriting(const char* function, const std::string& path, unsigned long line,
                            const char* file);

// Throws 1237 (message 110) unless `path`, not following a symlink, is still
// the file open on `stream`: nobody replaced it while it was written.
void requireSameFile(const char* function, const std::string& path, FILE* stream,
                     unsigned long line, const char* file);

// Nothing when `path` does not exist. Throws 1295 (message 110 with the path
// and what to correct) when it is not a file (a directory with `directory`)
// that the process may trust (untrustedReason).
void requireTrustedPath(const char* function, const std::string& path, bool directory,
                        unsigned long line, const char* file);

// Replaces `path` whole: `write` fills a new file beside it (`path` + ".tmp",
// made by createForWriting), which is flushed, synced, closed and renamed
// over `path`; then the directory is synced. A crash at any point leaves the
// old file or the new one, whole. On failure the new file is removed and the
// failure (1237, 1210, 1238, or what `write` threw) rethrown; `renamed`, when
// given, tells whether the new file had already replaced the old one (only a
// failed directory sync comes after that).
template <typename Write>
void replaceFileDurably(const char* function, const std::string& path, unsigned long line,
                        const char* file, Write&& write, bool* renamed = nullptr);

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
// piece comes short. Throws 1210 on a read failure, and when more than
// `maxBytes` would be appended.
void readFileIntoString(FILE* stream, std::string& out, size_t maxBytes = SIZE_MAX);

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
[[nodiscard]] int CreateFileWithRootAccessOnly(const char* path);

// Makes directory `path` with mode 0700. An existing path, or EEXIST, is
// success. Returns 0 or 1236 (logged); never throws.
[[nodiscard]] int CreateDirWithRootAccessOnly(const char* path);

// The directory part of `path` ("." when it has none).
std::string directoryOf(const std::string& path);

template <typename Write>
void replaceFileDurably(const char* function, const std::string& path, unsigned long line,
                        const char* file, Write&& write, bool* renamed) {
  const std::string temporary = path + ".tmp";
  try {
    FileHolder out = createForWriting(function, temporary, line, file);
    write(out.get());
    flushFileToDisk(function, out, file, line);
    requireSameFile(function, temporary, out, line, file);
    out.close();
    renameFile(function, temporary.c_str(), path.c_str(), line, file);
    if (renamed != nullptr) {
      *renamed = true;
    }
  } catch (...) {
    try {
      deleteFile(function, temporary.c_str(), line, true, file);
    } catch (...) {
      // The failure that matters is the first one.
    }
    throw;
  }
  syncDirectory(function, directoryOf(path).c_str(), line, file);
}

}  // namespace Utils
}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
