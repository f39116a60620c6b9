// Encoding of fields, attribute lists, records and record tables, and the
// password-secured envelope (PasswordSecured.cpp). All big-endian, nothing
// aligned or padded. The unit is the field: a 2-byte length n <= 4096, then
// n bytes. Integers are fields of fixed length (8, 4 or 2 bytes).
//
//   attribute list  "BB" | count (4) | name, value ... | digest
//   key record      "BS" | tag | name | update time (8) | create time (8) |
//                   description | revision (4) | group tag | state (2) |
//                   KPK type (2) | KPK tag | key | digest | attribute list
//   group record    "BS" | tag | name | update time (8) | create time (8) |
//                   description | revision (4) | cipher type (2) | digest |
//                   attribute list
//   record table    "BT" | count (4) | records in tag order
//
// A digest covers the contents of the fields between the marker and itself
// (never lengths, markers or counts), seeded with the byte "Z". It is an
// integrity check without a key. Writers use "BS"/"BB" and SHA-256
// (selector 1); readers also take "BR"/"BA" with SHA-1 (selector 3), marker
// by marker.
//
// Failures (KeyStoreError): every malformed input is 1208 on reading, and no
// input can make a read leave its buffer; 1225 from a failed digest becomes
// 1200 at the function's edge; writing passes on 1210 from a file. After a
// failure the target list or table is partly filled and must be dropped,
// and the input buffer's cursor is somewhere inside it. A field longer than
// 4096 bytes on writing is a fault of the caller and aborts the process.
// Everything is reentrant; nothing locks.
#pragma once

#include <string>

#include "kms/platform/HashGenerator.h"
#include "kms/server/keystore/format/KSInputBuffer.h"
#include "kms/server/keystore/format/KSOutStream.h"
#include "kms/server/keystore/records/AttributeList.h"
#include "kms/server/keystore/records/KeyGrpRecord_v1.h"
#include "kms/server/keystore/records/KeyRecord_v1.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

class ReaderWriter {
 public:
  // The markers, each a 2-byte field.
  static constexpr char s_tablemark[2] = {'B', 'T'};
  static constexpr char s_recordmarkOld[2] = {'B', 'R'};
  static constexpr char s_attrmarkOld[2] = {'B', 'A'};
  static constexpr char s_recordmark[2] = {'B', 'S'};
  static constexpr char s_attrmark[2] = {'B', 'B'};

  // Largest content of a field, and largest count of an attribute list.
  static constexpr unsigned long kMaxFieldLength = 4096;
  static constexpr unsigned long kMaxAttributeCount = 100000;

  // Entry tracing of these functions; set once at start.
  static bool s_debug;
  static void debug(bool on) { s_debug = on; }

  // Length and content, each through KSOutStream::write. `_size` above 4096
  // aborts the process. Throws as the stream does.
  static void writeRecordField(KSOutStream& out, const void* data, unsigned long _size);
  // Copies the next field's content (at most `maxsize` bytes) to `out` and
  // returns its length. Throws 1208, without moving the cursor, when fewer
  // than 2 bytes remain, the length exceeds `maxsize` or the content runs
  // past the end.
  static unsigned long readRecordField(KSInputBuffer& in, void* out, unsigned long maxsize);

  // The list's bytes (AttributeList::encoding). Throws 1210 from a file,
  // else 1200.
  static void writeAttributeList(KSOutStream& out, const AttributeList& list);
  // Adds the attributes to `list`, which should be empty; an empty list then
  // keeps the bytes read, unless they are under SHA-1 or their names are out
  // of order (they are then encoded afresh, in name order). Throws 1208 for a bad marker, a
  // count above 100000, a duplicate name, a digest mismatch or a malformed
  // field; 1200 for anything else.
  static void readAttributeList(KSInputBuffer& in, AttributeList& list);

  // Throw 1210 from a file, else 1200.
  static void writeRecord(KSOutStream& out, const KeyRecord_v1& rec);
  static void writeRecord(KSOutStream& out, const KeyGrpRecord_v1& rec);
  // Fill an empty record (a key record keeps the bytes read as its block).
  // Throw 1208 for malformed input, an integer field of the wrong length, a
  // digest mismatch or a value outside the record's bounds; 1200 for
  // anything else.
  static void readRecord(KSInputBuffer& in, KeyRecord_v1& rec);
  static void readRecord(KSInputBuffer& in, KeyGrpRecord_v1& rec);

  // The digest selector of a 2-byte marker: 1 for "BS"/"BB", 3 for
  // "BR"/"BA". Anything else throws 1208.
  static CmnCrypto::_HASH_ALGO verifyRecordMarkerAndGetHashAlgo(const unsigned char* mark);
  static CmnCrypto::_HASH_ALGO verifyAttrMarkerAndGetHashAlgo(const unsigned char* mark);

  // Instantiated for KeyRecordTable<KeyRecord_v1> and
  // RecordTable<KeyGrpRecord_v1>.
  //
  // writeRecordTable throws 1210 from a file and 1200 (1224 from the
  // crypter included) for anything else. readRecordTable adds each record
  // to `table` and throws 1208 for a bad marker or count, a record the table
  // refuses (a second tag, a second active key of a group), and what
  // readRecord throws. The count has no limit but the bytes there. A
  // KeyRecordTable being loaded should have skipInvariant set (the caller's
  // job), or each record costs a walk of the table.
  template <typename Table>
  static void writeRecordTable(KSOutStream& out, const Table& table);
  template <typename Table>
  static void readRecordTable(KSInputBuffer& in, Table& table);

  // The passphrase-sealed envelope of an export (PasswordSecured.cpp):
  //
  //   HMAC-SHA-256 field (32) | N field (4) | N bytes:
  //     SecuredDataHeader list ("IV" 16, "SALT" 24, "VERSION" 0x200) |
  //     E field (4) | E bytes of AES-256-CBC ciphertext of `data`
  //
  // Both keys come from one PBKDF2 output of 64 bytes over the salt (the
  // salt names the scheme). Keys are wiped before return.
  //
  // Writes one block to `out`; the caller flushes `out`. Throws 1200 when
  // no salt or IV could be made, or the derivation, the cipher or the HMAC
  // failed.
  static void writeDataPasswordSecured(KSOutStream& out, const std::string& passphrase,
                                       const std::string& data);
  // Reads one block at the cursor into `data`. Throws 1284 for a wrong
  // passphrase or a changed byte under the HMAC (the two are one answer);
  // 1208 for a malformed field, length, header or salt, also where a changed
  // byte breaks the header's own digest before the HMAC is reached; 1218
  // for a header version other than 0x200; 1200 when the derivation, the
  // HMAC or the cipher failed. On failure `data` is unchanged and the buffer
  // must be dropped.
  static void readDataPasswordSecured(KSInputBuffer& in, const std::string& passphrase,
                                      std::string& data);
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
