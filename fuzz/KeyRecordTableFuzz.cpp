// Fuzzes ReaderWriter::readRecordTable for a table of key records, loaded
// as the store loads it (the table's checks held back until the end). An
// input is the bytes of one table.
//
// Checks: a read either succeeds or fails with 1208; the table's indexes
// hold even after a failed read; a table that was read, written again,
// reads back record for record over exactly the bytes written.
#include <cstddef>
#include <cstdint>
#include <string>

#include "FormatFuzzUtil.h"
#include "kms/server/keystore/format/ReaderWriter.h"
#include "kms/server/keystore/records/KeyRecordTable.h"

using namespace Vaultrest::DL::KMS;
using formatfuzz::check;
using formatfuzz::statusOf;
using formatfuzz::written;

typedef KeyRecordTable<KeyRecord_v1> KeyTable;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  KSInputBuffer in(std::string(reinterpret_cast<const char*>(data), size));
  KeyTable table(true);
  table.setSkipInvariant(true);
  const int status = statusOf([&] { ReaderWriter::readRecordTable(in, table); });
  check(status == 0 || status == 1208);
  table.setSkipInvariant(false);
  table.testInvariant();
  if (status != 0) {
    return 0;
  }

  const std::string bytes =
      written([&](KSOutStream& out) { ReaderWriter::writeRecordTable(out, table); });
  KSInputBuffer again(bytes);
  KeyTable back(true);
  check(statusOf([&] { ReaderWriter::readRecordTable(again, back); }) == 0);
  check(again.remaining() == 0);
  check(back.size() == table.size());
  for (const auto& entry : table) {
    check(back.getRecord(entry.first) == entry.second);
  }
  return 0;
}
