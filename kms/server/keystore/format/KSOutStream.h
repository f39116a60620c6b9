// The output side of all file and block encoding: a buffer in front of a
// destination, with an optional crypter between them.
//
//   StringOutDest dest(bytes);
//   KSOutStream out(dest, &crypter, KSOutStream::kBufferSize);
//   ReaderWriter::writeRecordTable(out, keys);
//   out.flush(true);
//
// The destination and the crypter are borrowed and must outlive the stream.
// The caller resets the crypter before making the stream; the stream only
// calls encrypt and getEncryptedData. A stream must be flushed with
// flush(true) before it is destroyed: destroying one that still holds bytes
// (also while an exception unwinds past it) logs "m_buf.empty()" and aborts
// the process, so that buffered data is never lost in silence. The buffer is
// wiped whenever it is emptied or grows, as it may hold plain keys. No lock:
// a stream belongs to the one operation that made it.
#pragma once

#include "kms/server/keystore/crypto/KSCrypt.h"
#include "kms/server/keystore/crypto/SecureBytes.h"
#include "kms/server/keystore/format/KSOutDest.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

class KSOutStream {
 public:
  // The buffer size every stream of the store uses.
  static constexpr unsigned long kBufferSize = 65536;
  // More than any crypter adds to a stream.
  static constexpr unsigned long kCipherRoom = 64;

  // `crypter` may be null for a stream that does not encrypt. Reserves
  // `bufsize` bytes.
  KSOutStream(KSOutDest& dest, KSCrypt* crypter, unsigned long bufsize);
  ~KSOutStream();
  KSOutStream(const KSOutStream&) = delete;
  KSOutStream& operator=(const KSOutStream&) = delete;

  // Appends to the buffer, flushing it first (flush(false)) when it holds
  // bytes and these would not fit. A write larger than the buffer into an
  // empty buffer grows the buffer instead of being split. Throws as flush.
  void write(const void* data, unsigned long len);

  // For a destination in memory (KSOutDest::inMemory), `count()` tells how
  // many more bytes are coming, and the destination makes room for them,
  // what the stream holds and a cipher's IV, padding and tag. Files are
  // spared the count.
  template <typename Count>
  void expect(Count&& count) {
    if (m_dest.inMemory()) {
      m_dest.expect(m_buf.size() + count() + kCipherRoom);
    }
  }

  // Hands the buffer to the destination, through the crypter if there is
  // one, and empties it. The crypter is called even for an empty buffer, so
  // flush(true) finishes the cipher (a GCM stream gets its tag); without a
  // crypter `final` changes nothing. Throws 1224 if the crypter fails and
  // whatever the destination throws (1210 for a file); the buffer then keeps
  // its bytes.
  void flush(bool final);

  // Drops the buffered bytes (wiped) without writing them, so that a writer
  // whose output has failed can give it up and let the stream go. The bytes
  // are lost: only a caller that reports the failure and throws the output
  // away (as a failed commit deletes its new files) may call it.
  void discard();

 private:
  KSOutDest& m_dest;
  KSCrypt* m_crypter;
  SecureBytes m_buf;
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
