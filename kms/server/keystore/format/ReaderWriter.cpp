#include "kms/server/keystore/format/ReaderWriter.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string_view>
#include <type_traits>
#include <utility>

#include "kms/platform/CmnException.h"
#include "kms/server/diagnostics/ErrorMapping.h"
#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/Raise.h"
#include "kms/server/diagnostics/StatusCodes.h"
#include "kms/server/keystore/crypto/SecureBytes.h"
#include "kms/server/keystore/format/BigEndian.h"
#include "kms/server/keystore/records/KeyRecordBlock.h"
#include "kms/server/keystore/records/KeyRecordTable.h"
#include "kms/server/keystore/records/RecordTable.h"
#include "kms/server/keystore/records/RecordUtils.h"

// Entry tracing, only while ReaderWriter::debug(true) is in force.
#define RW_TRACE(label)                                                                       \
  ::Tracer rwTracer_(                                                                         \
      ::Vaultrest::DL::KMS::ReaderWriter::s_debug ? ::VRLogger::s_default : nullptr, nullptr, \
      (label), __FILE__, __LINE__)

namespace Vaultrest {
namespace DL {
namespace KMS {

bool ReaderWriter::s_debug = false;

namespace {

// What each function lets pass and maps on its way out.
const ErrorMap kWriteMap{{1210}, {{{1224, 1225}, EC_KS_internal_error}}};
const ErrorMap kWriteTableMap{{1210, EC_KS_internal_error}, {{{1224}, EC_KS_internal_error}}};
const ErrorMap kReadListMap{{1208}, {}};
const ErrorMap kReadRecordMap{{1208}, {{{1214}, 1208}}};

const unsigned char kDigestSeed = KeyRecordBlock::kDigestSeed;
static_assert(ReaderWriter::s_recordmark[0] == KeyRecordBlock::kMarker[0] &&
                  ReaderWriter::s_recordmark[1] == KeyRecordBlock::kMarker[1],
              "key records are kept in their stream form");
static_assert(ReaderWriter::s_attrmark[0] == AttributeList::kMarker[0] &&
                  ReaderWriter::s_attrmark[1] == AttributeList::kMarker[1],
              "attribute lists make and keep their own stream form");

// A byte buffer that only grows: appending is a copy, and clear() keeps the
// room. What it held is wiped when it grows and when it goes (SecureBytes).
class ByteBuffer {
 public:
  void append(const void* data, size_t len) {
    if (m_used + len > m_bytes.size()) {
      m_bytes.resize(std::max<size_t>(2 * m_bytes.size(), m_used + len + 512));
    }
    std::memcpy(m_bytes.data() + m_used, data, len);
    m_used += len;
  }
  void push_back(unsigned char byte) { append(&byte, 1); }
  void clear() { m_used = 0; }
  const unsigned char* data() const { return m_bytes.data(); }
  size_t size() const { return m_used; }

 private:
  SecureBytes m_bytes;
  size_t m_used = 0;
};

// What the encoding of a table reuses from record to record, so that a
// record costs no allocation of its own: the bytes of the fields being
// written, the contents that a digest covers, the entries of an attribute
// list being read, and one digest computation per selector. The buffers may
// hold key material; they are wiped once, when the scratch goes, not after
// every record.
class Scratch {
 public:
  explicit Scratch(const char* function) : m_function(function) {}
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;

  // Field bytes (length, content) to go to a stream in one write.
  ByteBuffer fields;
  // The seed and the contents of the fields under the current digest.
  ByteBuffer digested;
  // The entries of an attribute list being read, as views into the input.
  std::vector<AttributeList::value_type> entries;

  // Starts the contents of a digest with the seed.
  void beginDigest() {
    digested.clear();
    digested.push_back(kDigestSeed);
  }
  void addDigested(const void* data, size_t len) { digested.append(data, len); }
  // The digest of `digested` under `algo` into `out` (room for
  // EVP_MAX_MD_SIZE bytes); its length. Failures of the digest library
  // become KeyStoreError 1225 under the function's label.
  size_t digest(CmnCrypto::_HASH_ALGO algo, unsigned char* out) {
    try {
      std::optional<CmnCrypto::HashGenerator>& hash =
          algo == CmnCrypto::HASH_SHA256 ? m_sha256 : m_other;
      if (hash && hash->algo() == algo) {
        hash->restart();
      } else {
        hash.emplace(algo);
      }
      hash->addData(digested.data(), digested.size());
      return hash->generateBinaryHash(out);
    } catch (const CmnCrypto::CmnException& e) {
      KMS_DEBUG(m_function, 1, "Digest failed: " << e.what());
      KS_THROW(EC_KS_integrity_failed, m_function);
    }
  }

 private:
  const char* m_function;
  std::optional<CmnCrypto::HashGenerator> m_sha256;
  std::optional<CmnCrypto::HashGenerator> m_other;
};

// Appends one field (length, content) to `fields`. More than 4096 bytes is a
// fault of the caller and aborts the process.
void appendField(ByteBuffer& fields, const void* data, unsigned long _size) {
  KS_ASSERT("ReaderWriter::writeRecordField", _size <= 4096);
  unsigned char length[2];
  Utils::storeBigEndian(length, _size, 2);
  fields.append(length, 2);
  fields.append(data, _size);
}

// Builds the digested fields of a record or list in the scratch and writes
// them, closed by their digest (selector 1), to the stream in one piece.
class DigestingWriter {
 public:
  DigestingWriter(KSOutStream& out, Scratch& scratch) : m_out(out), m_scratch(scratch) {
    m_scratch.fields.clear();
    m_scratch.beginDigest();
  }

  void bytes(const void* data, size_t len) {
    appendField(m_scratch.fields, data, len);
    m_scratch.addDigested(data, len);
  }
  void string(std::string_view s) { bytes(s.data(), s.size()); }
  void integer(uint64_t value, size_t len) {
    unsigned char be[8];
    Utils::storeBigEndian(be, value, len);
    bytes(be, len);
  }
  // The digest as the last field; then all of it to the stream.
  void finish() {
    unsigned char digest[EVP_MAX_MD_SIZE];
    const size_t length = m_scratch.digest(CmnCrypto::HASH_SHA256, digest);
    appendField(m_scratch.fields, digest, length);
    m_out.write(m_scratch.fields.data(), m_scratch.fields.size());
    m_scratch.fields.clear();
  }

 private:
  KSOutStream& m_out;
  Scratch& m_scratch;
};

// The next field's content as a view into the input, the cursor moved
// behind it. Throws 1208, without moving the cursor, when fewer than 2 bytes
// remain, the length exceeds `maxsize` or the content runs past the end.
std::string_view fieldView(KSInputBuffer& in, unsigned long maxsize) {
  static const char* const kLabel = "ReaderWriter::readRecordField";
  if (in.remaining() < 2) {
    KMS_DEBUG(kLabel, 1, "Only " << in.remaining() << " bytes left for a field length");
    KS_THROW(EC_KS_malformed, kLabel);
  }
  const unsigned long n = static_cast<unsigned long>(Utils::loadBigEndian(in.cursor(), 2));
  if (n > maxsize) {
    KMS_DEBUG(kLabel, 1, "Field of " << n << " bytes where at most " << maxsize << " fit");
    KS_THROW(EC_KS_malformed, kLabel);
  }
  if (n + 2 > in.remaining()) {
    KMS_DEBUG(kLabel, 1, "Field of " << n << " bytes with " << in.remaining() << " bytes left");
    KS_THROW(EC_KS_malformed, kLabel);
  }
  const std::string_view view(reinterpret_cast<const char*>(in.cursor()) + 2, n);
  in.advance(n + 2);
  return view;
}

// Reads fields as views into the input, which stays the only copy of their
// bytes until a record takes them, and gathers their contents for one digest.
class DigestingReader {
 public:
  DigestingReader(KSInputBuffer& in, const char* function, Scratch& scratch)
      : m_in(in), m_function(function), m_scratch(scratch) {}
  DigestingReader(const DigestingReader&) = delete;
  DigestingReader& operator=(const DigestingReader&) = delete;

  // A field not covered by the digest (marker, count).
  std::string_view raw() { return fieldView(m_in, ReaderWriter::kMaxFieldLength); }
  // A 2-byte marker field; its selector starts the digest.
  template <typename Verify>
  void marker(Verify verify) {
    const std::string_view mark = raw();
    if (mark.size() != 2) {
      KMS_DEBUG(m_function, 1, "Marker field is not 2 bytes long");
      KS_THROW(EC_KS_malformed, m_function);
    }
    m_algo = verify(reinterpret_cast<const unsigned char*>(mark.data()));
    m_scratch.beginDigest();
  }
  // A field covered by the digest, as a view into the input.
  std::string_view view() {
    const std::string_view field = raw();
    m_scratch.addDigested(field.data(), field.size());
    return field;
  }
  // A digested integer field that must be exactly `len` bytes long.
  std::string_view integerView(size_t len) {
    const std::string_view field = raw();
    if (field.size() != len) {
      KMS_DEBUG(m_function, 1,
                "Integer field of " << field.size() << " bytes where " << len << " belong");
      KS_THROW(EC_KS_malformed, m_function);
    }
    m_scratch.addDigested(field.data(), field.size());
    return field;
  }
  uint64_t integer(size_t len) {
    return Utils::loadBigEndian(reinterpret_cast<const unsigned char*>(integerView(len).data()),
                                len);
  }
  // A 4-byte count field outside the digest.
  uint32_t count() {
    const std::string_view field = raw();
    if (field.size() != 4) {
      KMS_DEBUG(m_function, 1, "Count field is not 4 bytes long");
      KS_THROW(EC_KS_malformed, m_function);
    }
    return static_cast<uint32_t>(
        Utils::loadBigEndian(reinterpret_cast<const unsigned char*>(field.data()), 4));
  }
  // The digest selector of the marker read.
  CmnCrypto::_HASH_ALGO algo() const { return m_algo; }
  // Reads the stored digest and compares it with the computed one.
  void checkDigest() {
    unsigned char computed[EVP_MAX_MD_SIZE];
    const size_t length = m_scratch.digest(m_algo, computed);
    const std::string_view stored = raw();
    if (stored.size() != length || std::memcmp(stored.data(), computed, length) != 0) {
      KMS_DEBUG(m_function, 1, "Digest mismatch");
      KS_THROW(EC_KS_malformed, m_function);
    }
  }

 private:
  KSInputBuffer& m_in;
  const char* m_function;
  Scratch& m_scratch;
  CmnCrypto::_HASH_ALGO m_algo = CmnCrypto::HASH_SHA256;
};

void writeMarker(KSOutStream& out, const char (&mark)[2]) {
  ReaderWriter::writeRecordField(out, mark, 2);
}

void writeCount(KSOutStream& out, uint64_t count) {
  unsigned char be[4];
  Utils::storeBigEndian(be, count, 4);
  ReaderWriter::writeRecordField(out, be, 4);
}

template <typename Enum>
Enum enumOf(uint64_t value) {
  return static_cast<Enum>(static_cast<int32_t>(value));
}

// A group record's digested fields in stream order, into `fields` (a
// DigestingWriter or a FieldCounter). A key record keeps its own in stream
// form (KeyRecordBlock).
template <typename Fields>
void recordFields(const KeyGrpRecord_v1& rec, Fields& fields) {
  fields.string(rec.tag());
  fields.string(rec.name());
  fields.integer(rec.updateTime(), 8);
  fields.integer(rec.createTime(), 8);
  fields.string(rec.description());
  fields.integer(rec.rev(), 4);
  fields.integer(static_cast<uint16_t>(rec.cipherType()), 2);
}

// Counts the bytes that a DigestingWriter given the same fields writes.
class FieldCounter {
 public:
  static constexpr size_t kLength = 2;  // a field's length prefix
  static constexpr size_t kMarker = kLength + 2;
  static constexpr size_t kCount = kLength + 4;
  static constexpr size_t kDigest = kLength + 32;  // SHA-256

  void string(std::string_view s) { bytes += kLength + s.size(); }
  void integer(uint64_t, size_t len) { bytes += kLength + len; }

  size_t bytes = 0;
};

// The bytes of a record and its attribute list on the stream, for
// KSOutStream::expect.
size_t recordBytes(const KeyRecord_v1& rec) {
  return rec.block().size();
}
size_t recordBytes(const KeyGrpRecord_v1& rec) {
  FieldCounter fields;
  recordFields(rec, fields);
  return fields.bytes + FieldCounter::kMarker + FieldCounter::kDigest;
}
template <typename Record>
size_t streamBytes(const Record& rec) {
  return recordBytes(rec) + rec.attributes().encodedSize();
}

// Starts loading a key record's block and attribute list while the record
// before it is written: a table's records lie scattered over the heap, and a
// record would wait for each in turn. A group table is small.
void prefetchFields(const KeyRecord_v1& rec) {
  __builtin_prefetch(rec.block().data());
  rec.attributes().prefetch();
}
void prefetchFields(const KeyGrpRecord_v1&) {}

// The record type of a table.
template <typename Table>
using RecordOf = std::decay_t<decltype(std::declval<const Table&>().begin()->second)>;

}  // namespace

void ReaderWriter::writeRecordField(KSOutStream& out, const void* data, unsigned long _size) {
  RW_TRACE("ReaderWriter::writeRecordField");
  KS_ASSERT("ReaderWriter::writeRecordField", _size <= 4096);
  unsigned char length[2];
  Utils::storeBigEndian(length, _size, 2);
  out.write(length, 2);
  out.write(data, _size);
}

namespace {

// A list's bytes as it keeps them.
void writeAttributeListWith(KSOutStream& out, const AttributeList& list) {
  translateErrors("ReaderWriter::writeAttributeList", kWriteMap, [&] {
    const std::string_view bytes = list.encoding();
    out.write(bytes.data(), bytes.size());
  });
}

// A list read afresh keeps the bytes it was read from, marker to digest,
// when they are what a write would make of it: the digest is SHA-256 and the
// names came in order. Else its entries, with those it held, are sorted and
// encoded afresh. Either way in one allocation, and O(n) for names in order.
void readAttributeListWith(KSInputBuffer& in, AttributeList& list, Scratch& scratch) {
  static const char* const kLabel = "ReaderWriter::readAttributeList";
  translateErrors(kLabel, kReadListMap, [&] {
    const unsigned char* const start = in.cursor();
    const bool fresh = list.size() == 0;
    DigestingReader fields(in, kLabel, scratch);
    fields.marker(ReaderWriter::verifyAttrMarkerAndGetHashAlgo);
    const uint32_t count = fields.count();
    if (count > ReaderWriter::kMaxAttributeCount) {
      KMS_DEBUG(kLabel, 1,
                "Attribute count " << count << " is above " << ReaderWriter::kMaxAttributeCount);
      KS_THROW(EC_KS_malformed, kLabel);
    }
    std::vector<AttributeList::value_type>& entries = scratch.entries;
    entries.assign(list.begin(), list.end());
    bool ordered = true;
    for (uint32_t i = 0; i < count; ++i) {
      const std::string_view name = fields.view();
      ordered = ordered && (i == 0 || entries.back().first < name);
      entries.emplace_back(name, fields.view());
    }
    const bool adopt = fresh && ordered && fields.algo() == CmnCrypto::HASH_SHA256;
    if (!adopt && !list.assignEntries(entries)) {
      KMS_DEBUG(kLabel, 1, "Duplicate attribute");
      KS_THROW(EC_KS_malformed, kLabel);
    }
    fields.checkDigest();
    if (adopt) {
      list.adoptEncoding(
          std::string_view(reinterpret_cast<const char*>(start), in.cursor() - start), entries);
    }
  });
}

}  // namespace

unsigned long ReaderWriter::readRecordField(KSInputBuffer& in, void* out, unsigned long maxsize) {
  RW_TRACE("ReaderWriter::readRecordField");
  const std::string_view field = fieldView(in, maxsize);
  std::memcpy(out, field.data(), field.size());
  return field.size();
}

CmnCrypto::_HASH_ALGO ReaderWriter::verifyRecordMarkerAndGetHashAlgo(const unsigned char* mark) {
  if (std::memcmp(mark, s_recordmark, 2) == 0) {
    return CmnCrypto::HASH_SHA256;
  }
  if (std::memcmp(mark, s_recordmarkOld, 2) == 0) {
    return CmnCrypto::HASH_SHA1;
  }
  KMS_DEBUG("ReaderWriter::verifyRecordMarkerAndGetHashAlgo", 1, "Not a record marker");
  KS_THROW(EC_KS_malformed, "ReaderWriter::verifyRecordMarkerAndGetHashAlgo");
}

CmnCrypto::_HASH_ALGO ReaderWriter::verifyAttrMarkerAndGetHashAlgo(const unsigned char* mark) {
  if (std::memcmp(mark, s_attrmark, 2) == 0) {
    return CmnCrypto::HASH_SHA256;
  }
  if (std::memcmp(mark, s_attrmarkOld, 2) == 0) {
    return CmnCrypto::HASH_SHA1;
  }
  KMS_DEBUG("ReaderWriter::verifyAttrMarkerAndGetHashAlgo", 1, "Not an attribute list marker");
  KS_THROW(EC_KS_malformed, "ReaderWriter::verifyAttrMarkerAndGetHashAlgo");
}

void ReaderWriter::writeAttributeList(KSOutStream& out, const AttributeList& list) {
  RW_TRACE("ReaderWriter::writeAttributeList");
  writeAttributeListWith(out, list);
}

void ReaderWriter::readAttributeList(KSInputBuffer& in, AttributeList& list) {
  RW_TRACE("ReaderWriter::readAttributeList");
  Scratch scratch("ReaderWriter::readAttributeList");
  readAttributeListWith(in, list, scratch);
}

namespace {

// A key record's block is its marker, fields and digest as they stand; a
// group record's are written from recordFields, with the digest over them.
void writeRecordFields(KSOutStream& out, const KeyRecord_v1& rec, Scratch&) {
  out.write(rec.block().data(), rec.block().size());
}
void writeRecordFields(KSOutStream& out, const KeyGrpRecord_v1& rec, Scratch& scratch) {
  writeMarker(out, ReaderWriter::s_recordmark);
  DigestingWriter fields(out, scratch);
  recordFields(rec, fields);
  fields.finish();
}
// A record on the stream: its marker, fields and digest, then its attribute
// list.
template <typename Record>
void writeAnyRecord(KSOutStream& out, const Record& rec, Scratch& scratch) {
  static const char* const kLabel = "ReaderWriter::writeRecord";
  translateErrors(kLabel, kWriteMap, [&] {
    writeRecordFields(out, rec, scratch);
    writeAttributeListWith(out, rec.attributes());
  });
}

// A key record keeps the bytes read, marker to digest, as its block when the
// digest is the one a write makes (SHA-256); an older record gets a block
// made afresh. The enumerations are checked here, as a setter would.
void readKeyRecord(KSInputBuffer& in, KeyRecord_v1& rec, Scratch& scratch) {
  static const char* const kLabel = "ReaderWriter::readRecord";
  translateErrors(kLabel, kReadRecordMap, [&] {
    const unsigned char* const start = in.cursor();
    DigestingReader fields(in, kLabel, scratch);
    fields.marker(ReaderWriter::verifyRecordMarkerAndGetHashAlgo);
    KeyRecordBlock::Fields views;
    KeyRecordBlock::Offsets offsets;
    for (unsigned f = 0; f < KeyRecordBlock::kFieldCount; ++f) {
      const size_t width = KeyRecordBlock::width(static_cast<KeyRecordBlock::Field>(f));
      views[f] = width != 0 ? fields.integerView(width) : fields.view();
      offsets[f] = static_cast<uint16_t>(reinterpret_cast<const unsigned char*>(views[f].data()) -
                                         2 - start);
    }
    fields.checkDigest();
    KeyRecordBlock::Ref block = fields.algo() == CmnCrypto::HASH_SHA256
                                    ? KeyRecordBlock::adopt(start, in.cursor() - start, offsets)
                                    : KeyRecordBlock::make(views);
    if (!isKnownKeyState(enumOf<ks_keystate_t>(block->integer(KeyRecordBlock::kState))) ||
        !isKnownKpkType(enumOf<ks_kpktype_t>(block->integer(KeyRecordBlock::kKpkType)))) {
      KMS_DEBUG(kLabel, 1, "Unknown key state or KPK type");
      KS_THROW(EC_KS_malformed, kLabel);
    }
    rec = KeyRecord_v1(std::move(block));
    readAttributeListWith(in, rec.attributes(), scratch);
  });
}

void readGroupRecord(KSInputBuffer& in, KeyGrpRecord_v1& rec, Scratch& scratch) {
  static const char* const kLabel = "ReaderWriter::readRecord";
  translateErrors(kLabel, kReadRecordMap, [&] {
    DigestingReader fields(in, kLabel, scratch);
    fields.marker(ReaderWriter::verifyRecordMarkerAndGetHashAlgo);
    rec.setTag(fields.view());
    rec.setName(fields.view());
    rec.setUpdateTime(fields.integer(8));
    rec.setCreateTime(fields.integer(8));
    rec.setDescription(fields.view());
    rec.setRev(static_cast<uint32_t>(fields.integer(4)));
    rec.setCipherType(enumOf<ks_ciphertype_t>(fields.integer(2)));
    fields.checkDigest();
    readAttributeListWith(in, rec.attributes(), scratch);
  });
}

void readAnyRecord(KSInputBuffer& in, KeyRecord_v1& rec, Scratch& scratch) {
  readKeyRecord(in, rec, scratch);
}
void readAnyRecord(KSInputBuffer& in, KeyGrpRecord_v1& rec, Scratch& scratch) {
  readGroupRecord(in, rec, scratch);
}

}  // namespace

void ReaderWriter::writeRecord(KSOutStream& out, const KeyRecord_v1& rec) {
  RW_TRACE("ReaderWriter::writeRecord");
  Scratch scratch("ReaderWriter::writeRecord");
  writeAnyRecord(out, rec, scratch);
}

void ReaderWriter::writeRecord(KSOutStream& out, const KeyGrpRecord_v1& rec) {
  RW_TRACE("ReaderWriter::writeRecord");
  Scratch scratch("ReaderWriter::writeRecord");
  writeAnyRecord(out, rec, scratch);
}

void ReaderWriter::readRecord(KSInputBuffer& in, KeyRecord_v1& rec) {
  RW_TRACE("ReaderWriter::readRecord");
  Scratch scratch("ReaderWriter::readRecord");
  readKeyRecord(in, rec, scratch);
}

void ReaderWriter::readRecord(KSInputBuffer& in, KeyGrpRecord_v1& rec) {
  RW_TRACE("ReaderWriter::readRecord");
  Scratch scratch("ReaderWriter::readRecord");
  readGroupRecord(in, rec, scratch);
}

template <typename Table>
void ReaderWriter::writeRecordTable(KSOutStream& out, const Table& table) {
  RW_TRACE("ReaderWriter::writeRecordTable");
  static const char* const kLabel = "ReaderWriter::writeRecordTable";
  translateErrors(kLabel, kWriteTableMap, [&] {
    KS_ASSERT(kLabel, table.size() <= UINT32_MAX);
    // The table's tree is walked once; the sizing and the write go over
    // the records in order from this list.
    std::vector<const RecordOf<Table>*> records;
    records.reserve(table.size());
    for (const auto& entry : table) {
      records.push_back(&entry.second);
    }
    out.expect([&] {
      size_t bytes = FieldCounter::kMarker + FieldCounter::kCount;
      for (const auto* rec : records) {
        bytes += streamBytes(*rec);
      }
      return bytes;
    });
    writeMarker(out, s_tablemark);
    writeCount(out, table.size());
    // One scratch for all records: wiped once, at the end.
    Scratch scratch("ReaderWriter::writeRecord");
    for (size_t i = 0; i < records.size(); ++i) {
      if (i + 1 < records.size()) {
        prefetchFields(*records[i + 1]);
      }
      writeAnyRecord(out, *records[i], scratch);
    }
  });
}

template <typename Table>
void ReaderWriter::readRecordTable(KSInputBuffer& in, Table& table) {
  RW_TRACE("ReaderWriter::readRecordTable");
  static const char* const kLabel = "ReaderWriter::readRecordTable";
  unsigned char field[4];
  if (readRecordField(in, field, sizeof field) != 2 || std::memcmp(field, s_tablemark, 2) != 0) {
    KMS_DEBUG(kLabel, 1, "No table marker");
    KS_THROW(EC_KS_malformed, kLabel);
  }
  if (readRecordField(in, field, sizeof field) != 4) {
    KMS_DEBUG(kLabel, 1, "Record count field is not 4 bytes long");
    KS_THROW(EC_KS_malformed, kLabel);
  }
  const uint32_t count = static_cast<uint32_t>(Utils::loadBigEndian(field, 4));
  KMS_DEBUG(kLabel, 4, "Reading " << count << " records");
  Scratch scratch("ReaderWriter::readRecord");
  for (uint32_t i = 0; i < count; ++i) {
    RecordOf<Table> rec;
    readAnyRecord(in, rec, scratch);
    if (!table.addRecord(std::move(rec))) {
      KMS_DEBUG(kLabel, 1, "The table refused record " << i);
      KS_THROW(EC_KS_malformed, kLabel);
    }
  }
}

template void ReaderWriter::writeRecordTable(KSOutStream&, const KeyRecordTable<KeyRecord_v1>&);
template void ReaderWriter::writeRecordTable(KSOutStream&, const RecordTable<KeyGrpRecord_v1>&);
template void ReaderWriter::readRecordTable(KSInputBuffer&, KeyRecordTable<KeyRecord_v1>&);
template void ReaderWriter::readRecordTable(KSInputBuffer&, RecordTable<KeyGrpRecord_v1>&);

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
