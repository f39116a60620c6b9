// The one road from the key store to the file system. Every system call made
// by the file functions (FileUtils.h) goes through a FileFaults wrapper, so
// that a test can watch each operation, make one fail with a chosen errno, or
// end the process just before it runs, and so replay a crash at any point of
// a commit.
//
// Production code never installs a hook: with none installed a wrapper costs
// one atomic load and then makes the plain call.
//
//   FailNthFileOp hook(2, ENOSPC, FileOp::Fwrite);    // second fwrite fails
//   ScopedFileFaultHook installed(&hook);
//   ... run the operation under test ...
//   hook.operations();                                 // what ran, in order
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdio>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace Vaultrest {
namespace DL {
namespace KMS {

enum class FileOp {
  Open,   // open(2)/creat of a plain file
  Close,  // close(2) of a descriptor from Open or OpenDir
  Fopen,
  Fread,
  Fwrite,
  Fflush,
  Fsync,  // fsync(2) of a file
  Fclose,
  Rename,
  Unlink,
  Mkdir,
  Access,
  OpenDir,  // open(2) of a directory, to sync it
  SyncDir,  // fsync(2) of a directory
  Stat,     // fstat(2) of a descriptor or lstat(2) of a path
};
constexpr size_t kFileOpCount = static_cast<size_t>(FileOp::Stat) + 1;

// "Open", "Fwrite", ...
const char* fileOpName(FileOp op);

// One operation as a hook sees it. For operations on a descriptor or stream
// `path` is the file it refers to (from /proc/self/fd); `target` is the new
// name of a Rename and empty otherwise.
struct FileOperation {
  FileOp op;
  std::string path;
  std::string target;
};

struct FileFaultDecision {
  enum Action { Run, Fail, Crash };
  Action action = Run;
  int error = 0;  // errno of a Fail (EIO when 0)
};

// Sees every file operation of the process, in order, on the calling thread,
// before the operation runs. Must be thread-safe if the code under test runs
// file operations on several threads.
class FileFaultHook {
 public:
  virtual ~FileFaultHook() = default;
  virtual FileFaultDecision onFileOp(const FileOperation& operation) = 0;
};

// The wrappers. Each behaves as the system call it names: on failure it
// returns the call's failure value with errno set.
//
// An injected failure means the operation did not run, except for Close and
// Fclose: those release the descriptor or stream as a real failing close does,
// and then report the failure. An injected crash calls _exit(kCrashExitStatus)
// before the operation: buffered stdio data is lost as in a real crash.
class FileFaults {
 public:
  static constexpr int kCrashExitStatus = 197;

  // Installs `hook` (null removes it) and returns the previous one. Install
  // and remove only while no file operation is in flight; the caller keeps
  // the hook alive while it is installed.
  static FileFaultHook* install(FileFaultHook* hook);
  static FileFaultHook* installed();

  static int openFd(const char* path, int flags, mode_t mode);
  static int closeFd(int fd);
  // fopen(path, mode) that never follows a symlink in the last component
  // (O_NOFOLLOW: ELOOP) and, when reading, does not wait for a writer of a
  // FIFO (O_NONBLOCK), so that the caller can fstat what it got first.
  static FILE* openStream(const char* path, const char* mode);
  // fdopen: a stream over a descriptor from openFd. No file system call of
  // its own, so no hook sees it; on failure the descriptor stays open.
  static FILE* streamOfFd(int fd, const char* mode);
  static int statFd(int fd, struct stat* st);
  static int statPath(const char* path, struct stat* st);  // lstat
  static size_t readStream(void* buffer, size_t size, FILE* stream);
  static size_t writeStream(const void* buffer, size_t size, FILE* stream);
  static int flushStream(FILE* stream);
  static int syncFd(int fd);
  static int closeStream(FILE* stream);
  static int renamePath(const char* from, const char* to);
  static int unlinkPath(const char* path);
  static int makeDir(const char* path, mode_t mode);
  static int accessPath(const char* path, int mode);
  static int openDir(const char* path);
  static int syncDir(int fd);
};

// Installs a hook for its lifetime and puts the previous one back.
class ScopedFileFaultHook {
 public:
  explicit ScopedFileFaultHook(FileFaultHook* hook) : m_previous(FileFaults::install(hook)) {}
  ~ScopedFileFaultHook() { FileFaults::install(m_previous); }
  ScopedFileFaultHook(const ScopedFileFaultHook&) = delete;
  ScopedFileFaultHook& operator=(const ScopedFileFaultHook&) = delete;

 private:
  FileFaultHook* m_previous;
};

// Lets every operation run and keeps a list of them. The injectors below are
// recorders too, so a test can see what ran before the fault.
class FileOpRecorder : public FileFaultHook {
 public:
  FileFaultDecision onFileOp(const FileOperation& operation) override;

  std::vector<FileOperation> operations() const;
  size_t count() const;
  // The kinds alone, in order.
  std::vector<FileOp> kinds() const;

 protected:
  // Records `operation` and gives its 1-based number among the operations
  // that match `kind` (all when no kind), or 0 when it does not match.
  size_t record(const FileOperation& operation, const std::optional<FileOp>& kind);

 private:
  mutable std::mutex m_mutex;
  std::vector<FileOperation> m_operations;
  size_t m_countByKind[kFileOpCount] = {};
};

// Fails the `n`th operation (1-based), counting only operations of `kind` when
// one is given, with `error`. Every other operation runs.
class FailNthFileOp : public FileOpRecorder {
 public:
  FailNthFileOp(size_t n, int error, std::optional<FileOp> kind = std::nullopt)
      : m_n(n), m_error(error), m_kind(kind) {}
  FileFaultDecision onFileOp(const FileOperation& operation) override;
  // Whether the failure has been injected.
  bool fired() const;

 private:
  const size_t m_n;
  const int m_error;
  const std::optional<FileOp> m_kind;
  mutable std::mutex m_mutex;
  bool m_fired = false;
};

// Ends the process with FileFaults::kCrashExitStatus just before the `n`th
// operation (1-based; of `kind` only when given). Meant for a forked child
// whose parent then looks at the files.
class CrashAtNthFileOp : public FileOpRecorder {
 public:
  explicit CrashAtNthFileOp(size_t n, std::optional<FileOp> kind = std::nullopt)
      : m_n(n), m_kind(kind) {}
  FileFaultDecision onFileOp(const FileOperation& operation) override;

 private:
  const size_t m_n;
  const std::optional<FileOp> m_kind;
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
