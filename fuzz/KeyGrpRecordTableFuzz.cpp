// Fuzzes ReaderWriter::readRecordTable for a table of key group records. An
// input is the bytes of one table.
//
// Checks: a read either succeeds or fails with 1208; a table that was read,
// written again, reads back record for record over exactly the bytes
// written.
#include <cstddef>
#include <cstdint>
#include <string>

#include "FormatFuzzUtil.h"
#include "kms/server/keystore/format/ReaderWriter.h"
#include "kms/server/keystore/records/RecordTable.h"

using namespace Vaultrest::DL::KMS;
using formatfuzz::check;
using formatfuzz::statusOf;
using formatfuzz::written;

typedef RecordTable<KeyGrpRecord_v1> GroupTable;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  KSInputBuffer in(std::string(reinterpret_cast<const char*>(data), size));
  GroupTable table;
  const int status = statusOf([&] { ReaderWriter::readRecordTable(in, table); });
  check(status == 0 || status == 1208);
  if (status != 0) {
    return 0;
  }

  const std::string bytes =
      written([&](KSOutStream& out) { ReaderWriter::writeRecordTable(out, table); });
  KSInputBuffer again(bytes);
  GroupTable back;
  check(statusOf([&] { ReaderWriter::readRecordTable(again, back); }) == 0);
  check(again.remaining() == 0);
  check(back.size() == table.size());
  for (const auto& entry : table) {
    check(back.getRecord(entry.first) == entry.second);
  }
  return 0;
}
