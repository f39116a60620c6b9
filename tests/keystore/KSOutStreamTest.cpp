// The byte streams: buffering, flushing through a crypter, file failures and
// the abort of a stream dropped with bytes in it.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "CryptoTestUtil.h"
#include "FormatTestUtil.h"
#include "kms/server/keystore/crypto/CryptFactory.h"
#include "kms/server/keystore/crypto/GCMCrypter.h"
#include "kms/server/keystore/files/FileFaults.h"
#include "kms/server/keystore/format/FileOutDest.h"
#include "kms/server/keystore/format/KSInputBuffer.h"
#include "kms/server/keystore/format/KSOutStream.h"
#include "kms/server/keystore/format/StringOutDest.h"
#include "support/TempRoot.h"

using namespace Vaultrest::DL::KMS;
using cryptotest::decryptAll;

namespace {

const std::string kKey(32, '\x5c');
const std::string kIv(16, '\x0f');

// Keeps every write it is given, call by call.
class RecordingDest : public KSOutDest {
 public:
  void write(const void* data, unsigned long len) override {
    calls.push_back(len);
    bytes.append(static_cast<const char*>(data), len);
  }
  std::vector<unsigned long> calls;
  std::string bytes;
};

}  // namespace

TEST(KSOutStream, PartialFlushThenFinalEqualsOneFinalFlush) {
  const std::string first(5000, 'a');
  const std::string second = "tail of the stream";
  // The same IV for both GCM streams, so their bytes can be compared.
  cryptotest::ScriptedRandom fixedIv(0, std::string(1, '\x24'));
  for (KSCrypt::CryptType type :
       {KSCrypt::CRYPT_INVALID, KSCrypt::AES_256_CBC_EVP, KSCrypt::AES_256_GCM}) {
    SCOPED_TRACE(KSCrypt::cryptTypeToString(type));
    std::string streams[2];
    for (int split = 0; split < 2; ++split) {
      std::unique_ptr<KSCrypt> crypter(
          type == KSCrypt::CRYPT_INVALID ? nullptr : CryptFactory::createCrypter(type, kKey, kIv));
      StringOutDest dest(streams[split]);
      KSOutStream out(dest, crypter.get(), KSOutStream::kBufferSize);
      out.write(first.data(), first.size());
      if (split == 1) {
        out.flush(false);
      }
      out.write(second.data(), second.size());
      out.flush(true);
    }
    EXPECT_EQ(streams[0], streams[1]);
  }
}

TEST(KSOutStream, BufferRulesAndAWriteLargerThanTheBuffer) {
  RecordingDest dest;
  KSOutStream out(dest, nullptr, 16);
  out.write("0123456789", 10);
  out.write("abcdef", 6);  // exactly fills the buffer
  EXPECT_TRUE(dest.calls.empty());
  out.write("g", 1);  // does not fit: the 16 go first
  EXPECT_EQ(dest.calls, (std::vector<unsigned long>{16}));

  // The buffer holds one byte, so a large write flushes it and then, into
  // the empty buffer, goes in whole: one call at the next flush.
  const std::string big(100, 'B');
  out.write(big.data(), big.size());
  EXPECT_EQ(dest.calls, (std::vector<unsigned long>{16, 1}));
  out.flush(true);
  EXPECT_EQ(dest.calls, (std::vector<unsigned long>{16, 1, 100}));
  EXPECT_EQ(dest.bytes, "0123456789abcdefg" + big);

  // Without a crypter a final flush of nothing writes nothing more.
  out.flush(true);
  EXPECT_EQ(dest.bytes.size(), 117u);
}

TEST(KSOutStream, FailingFileWriteGives1210AndKeepsTheBytes) {
  TempRoot dir("vrkms-stream");
  FILE* file = std::fopen(dir.file("out").c_str(), "wb");
  ASSERT_NE(file, nullptr);
  {
    FileOutDest dest(file);
    KSOutStream out(dest, nullptr, KSOutStream::kBufferSize);
    out.write("payload", 7);
    {
      FailNthFileOp full(1, ENOSPC, FileOp::Fwrite);
      ScopedFileFaultHook hook(&full);
      EXPECT_EQ(KS_STATUS(out.flush(true)), 1210);
    }
    out.flush(true);  // the bytes stayed in the buffer
  }
  std::fclose(file);
  std::ifstream in(dir.file("out"));
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "payload");
}

TEST(KSOutStream, EmptyFinalFlushOfAGcmStreamIsIvAndTagAndEndsTheStream) {
  GCMCrypter crypter(kKey), opener(kKey);
  RecordingDest dest;
  KSOutStream out(dest, &crypter, KSOutStream::kBufferSize);
  out.flush(true);
  EXPECT_EQ(dest.bytes.size(), 28u);
  EXPECT_EQ(decryptAll(opener, dest.bytes).status, 0);
  // A finished crypter refuses more, also for an empty buffer.
  EXPECT_EQ(KS_STATUS(out.flush(true)), 1224);
  EXPECT_EQ(dest.bytes.size(), 28u);
}

TEST(KSOutStreamDeathTest, DroppingAStreamWithBytesAborts) {
  RecordingDest dest;
  EXPECT_DEATH(
      {
        formattest::logAppToStderr();
        KSOutStream out(dest, nullptr, 64);
        out.write("x", 1);
      },
      "m_buf.empty\\(\\)");
  // Writing after the final flush fails at the next flush, and the stream
  // that still holds the bytes ends the process when it goes.
  EXPECT_DEATH(
      {
        formattest::logAppToStderr();
        GCMCrypter crypter(kKey);
        KSOutStream out(dest, &crypter, 64);
        out.flush(true);
        out.write("late", 4);
        if (KS_STATUS(out.flush(true)) == 1224) {
          std::fprintf(stderr, "flush refused\n");
        }
      },
      "flush refused(.|\n)*m_buf.empty\\(\\)");
}

TEST(KSInputBuffer, OwnsACopyAndMovesOnlyWithinIt) {
  std::string source("abc\0def", 7);
  KSInputBuffer in(source);
  source[0] = 'X';
  EXPECT_EQ(in.cursor()[0], 'a');
  in.advance(4);
  EXPECT_EQ(in.remaining(), 3u);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(in.cursor()), 3), "def");
  in.advance(3);
  EXPECT_EQ(in.remaining(), 0u);
  EXPECT_DEATH(
      {
        formattest::logAppToStderr();
        in.advance(1);
      },
      "n <= m_remaining");
}
