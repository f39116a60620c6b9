// Fuzzes ReaderWriter::readAttributeList. An input is the bytes of one list.
//
// Checks: a read either succeeds or fails with 1208; a list that was read,
// written again, reads back as the same list over exactly the bytes written,
// and writing is canonical (writing the list read back gives the same bytes).
#include <cstddef>
#include <cstdint>
#include <string>

#include "FormatFuzzUtil.h"
#include "kms/server/keystore/format/ReaderWriter.h"

using namespace Vaultrest::DL::KMS;
using formatfuzz::check;
using formatfuzz::statusOf;
using formatfuzz::written;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  KSInputBuffer in(std::string(reinterpret_cast<const char*>(data), size));
  AttributeList list;
  const int status = statusOf([&] { ReaderWriter::readAttributeList(in, list); });
  check(status == 0 || status == 1208);
  check(in.remaining() <= size);
  if (status != 0) {
    return 0;
  }
  check(list.size() <= ReaderWriter::kMaxAttributeCount);

  const std::string bytes =
      written([&](KSOutStream& out) { ReaderWriter::writeAttributeList(out, list); });
  KSInputBuffer again(bytes);
  AttributeList back;
  check(statusOf([&] { ReaderWriter::readAttributeList(again, back); }) == 0);
  check(again.remaining() == 0);
  check(back == list);
  check(written([&](KSOutStream& out) { ReaderWriter::writeAttributeList(out, back); }) == bytes);
  return 0;
}
