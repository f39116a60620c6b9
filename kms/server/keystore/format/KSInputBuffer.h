// The input side of all file and block decoding: all the bytes of one file
// or block in memory, with a cursor. The readers of ReaderWriter check every
// length against remaining() before they move the cursor, so no input can
// make a read go past the end. The copy is wiped when the buffer goes, as it
// may hold plain keys (an export's content). No lock: a buffer belongs to
// the one operation that made it.
#pragma once

#include <string>

namespace Vaultrest {
namespace DL {
namespace KMS {

class KSInputBuffer {
 public:
  // Takes its own copy of `bytes` (moved in when given an rvalue); the
  // cursor starts at the first byte.
  explicit KSInputBuffer(std::string bytes);
  // Reads the `length` bytes at `bytes` in place, without a copy: they must
  // outlive the buffer, and their owner wipes them.
  KSInputBuffer(const unsigned char* bytes, unsigned long length);
  ~KSInputBuffer();
  KSInputBuffer(const KSInputBuffer&) = delete;
  KSInputBuffer& operator=(const KSInputBuffer&) = delete;

  // Bytes left behind the cursor.
  unsigned long remaining() const { return m_remaining; }
  // The next byte; cursor() + remaining() is the end of the copy.
  const unsigned char* cursor() const { return m_cursor; }

  // Moves the cursor on by `n`. The caller has checked n <= remaining();
  // anything more is a fault in the caller, which aborts the process.
  void advance(unsigned long n);

 private:
  std::string m_bytes;
  unsigned long m_remaining;
  const unsigned char* m_cursor;
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
