#include "kms/server/keystore/ReaderWriter.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <optional>
#include <type_traits>
#include <utility>

#include "kms/platform/CmnException.h"
#include "kms/server/diagnostics/ErrorMapping.h"
#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/Raise.h"
#include "kms/server/keystore/BigEndian.h"
#include "kms/server/keystore/KeyRecordTable.h"
#include "kms/server/keystore/RecordTable.h"
#include "kms/server/keystore/SecureBytes.h"

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

const unsigned char kDigestSeed = 'Z';

// A digest of field contents. Failures of the digest library become
// KeyStoreError 1225 under `function`.
class FieldDigest {
 public:
  FieldDigest(CmnCrypto::_HASH_ALGO algo, const char* function) : m_function(function) {
    try {
      m_hash.emplace(algo);
      m_hash->addData(&kDigestSeed, 1);
    } catch (const CmnCrypto::CmnException& e) {
      fail(e);
    }
  }

  void add(const void* data, size_t len) {
    try {
      m_hash->addData(data, len);
    } catch (const CmnCrypto::CmnException& e) {
      fail(e);
    }
  }

  std::string finish() {
    try {
      return m_hash->generateBinaryHash();
    } catch (const CmnCrypto::CmnException& e) {
      fail(e);
    }
  }

 private:
  [[noreturn]] void fail(const CmnCrypto::CmnException& e) {
    KMS_DEBUG(m_function, 1, "Digest failed: " << e.what());
    KS_THROW(1225, m_function);
  }

  const char* m_function;
  std::optional<CmnCrypto::HashGenerator> m_hash;
};

// Writes fields and adds their contents to a digest begun with selector 1.
class DigestingWriter {
 public:
  DigestingWriter(KSOutStream& out, const char* function)
      : m_out(out), m_digest(CmnCrypto::HASH_SHA256, function) {}

  void bytes(const void* data, size_t len) {
    ReaderWriter::writeRecordField(m_out, data, len);
    m_digest.add(data, len);
  }
  void string(const std::string& s) { bytes(s.data(), s.size()); }
  void integer(uint64_t value, size_t len) {
    unsigned char be[8];
    Utils::storeBigEndian(be, value, len);
    bytes(be, len);
  }
  // The digest as the record's last field.
  void finish() {
    const std::string digest = m_digest.finish();
    ReaderWriter::writeRecordField(m_out, digest.data(), digest.size());
  }

 private:
  KSOutStream& m_out;
  FieldDigest m_digest;
};

// Reads fields into the one 4096-byte buffer of the function that owns it
// and adds their contents to a digest. The part of the buffer that was used
// is wiped when the reader goes, as fields may hold keys.
class DigestingReader {
 public:
  DigestingReader(KSInputBuffer& in, const char* function) : m_in(in), m_function(function) {}
  ~DigestingReader() { OPENSSL_cleanse(m_buf, m_used); }
  DigestingReader(const DigestingReader&) = delete;
  DigestingReader& operator=(const DigestingReader&) = delete;

  // A field not covered by the digest (marker, count); returns its length.
  unsigned long raw() {
    const unsigned long n = ReaderWriter::readRecordField(m_in, m_buf, sizeof m_buf);
    m_used = std::max<size_t>(m_used, n);
    return n;
  }
  // A 2-byte marker field; its selector starts the digest.
  template <typename Verify>
  void marker(Verify verify) {
    if (raw() != 2) {
      KMS_DEBUG(m_function, 1, "Marker field is not 2 bytes long");
      KS_THROW(1208, m_function);
    }
    m_digest.emplace(verify(m_buf), m_function);
  }
  // A field covered by the digest.
  std::string string() {
    const unsigned long n = raw();
    m_digest->add(m_buf, n);
    return std::string(reinterpret_cast<const char*>(m_buf), n);
  }
  // A digested integer field that must be exactly `len` bytes long.
  uint64_t integer(size_t len) {
    const unsigned long n = raw();
    if (n != len) {
      KMS_DEBUG(m_function, 1, "Integer field of " << n << " bytes where " << len << " belong");
      KS_THROW(1208, m_function);
    }
    m_digest->add(m_buf, n);
    return Utils::loadBigEndian(m_buf, n);
  }
  // A 4-byte count field outside the digest.
  uint32_t count() {
    if (raw() != 4) {
      KMS_DEBUG(m_function, 1, "Count field is not 4 bytes long");
      KS_THROW(1208, m_function);
    }
    return static_cast<uint32_t>(Utils::loadBigEndian(m_buf, 4));
  }
  // Reads the stored digest and compares it with the computed one.
  void checkDigest() {
    const std::string computed = m_digest->finish();
    const unsigned long n = raw();
    if (n != computed.size() || std::memcmp(m_buf, computed.data(), n) != 0) {
      KMS_DEBUG(m_function, 1, "Digest mismatch");
      KS_THROW(1208, m_function);
    }
  }

 private:
  KSInputBuffer& m_in;
  const char* m_function;
  std::optional<FieldDigest> m_digest;
  size_t m_used = 0;
  unsigned char m_buf[ReaderWriter::kMaxFieldLength];
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

unsigned long ReaderWriter::readRecordField(KSInputBuffer& in, void* out, unsigned long maxsize) {
  RW_TRACE("ReaderWriter::readRecordField");
  static const char* const kLabel = "ReaderWriter::readRecordField";
  if (in.remaining() < 2) {
    KMS_DEBUG(kLabel, 1, "Only " << in.remaining() << " bytes left for a field length");
    KS_THROW(1208, kLabel);
  }
  const unsigned long n = static_cast<unsigned long>(Utils::loadBigEndian(in.cursor(), 2));
  if (n > maxsize) {
    KMS_DEBUG(kLabel, 1, "Field of " << n << " bytes where at most " << maxsize << " fit");
    KS_THROW(1208, kLabel);
  }
  if (n + 2 > in.remaining()) {
    KMS_DEBUG(kLabel, 1, "Field of " << n << " bytes with " << in.remaining() << " bytes left");
    KS_THROW(1208, kLabel);
  }
  std::memcpy(out, in.cursor() + 2, n);
  in.advance(n + 2);
  return n;
}

CmnCrypto::_HASH_ALGO ReaderWriter::verifyRecordMarkerAndGetHashAlgo(const unsigned char* mark) {
  if (std::memcmp(mark, s_recordmark, 2) == 0) {
    return CmnCrypto::HASH_SHA256;
  }
  if (std::memcmp(mark, s_recordmarkOld, 2) == 0) {
    return CmnCrypto::HASH_SHA1;
  }
  KMS_DEBUG("ReaderWriter::verifyRecordMarkerAndGetHashAlgo", 1, "Not a record marker");
  KS_THROW(1208, "ReaderWriter::verifyRecordMarkerAndGetHashAlgo");
}

CmnCrypto::_HASH_ALGO ReaderWriter::verifyAttrMarkerAndGetHashAlgo(const unsigned char* mark) {
  if (std::memcmp(mark, s_attrmark, 2) == 0) {
    return CmnCrypto::HASH_SHA256;
  }
  if (std::memcmp(mark, s_attrmarkOld, 2) == 0) {
    return CmnCrypto::HASH_SHA1;
  }
  KMS_DEBUG("ReaderWriter::verifyAttrMarkerAndGetHashAlgo", 1, "Not an attribute list marker");
  KS_THROW(1208, "ReaderWriter::verifyAttrMarkerAndGetHashAlgo");
}

void ReaderWriter::writeAttributeList(KSOutStream& out, const AttributeList& list) {
  RW_TRACE("ReaderWriter::writeAttributeList");
  static const char* const kLabel = "ReaderWriter::writeAttributeList";
  translateErrors(kLabel, kWriteMap, [&] {
    const size_t listsize = list.size();
    writeMarker(out, s_attrmark);
    writeCount(out, listsize);
    DigestingWriter fields(out, kLabel);
    size_t count = 0;
    for (const auto& attribute : list) {
      fields.string(attribute.first);
      fields.string(attribute.second);
      ++count;
    }
    fields.finish();
    KS_ASSERT(kLabel, listsize == count);
  });
}

void ReaderWriter::readAttributeList(KSInputBuffer& in, AttributeList& list) {
  RW_TRACE("ReaderWriter::readAttributeList");
  static const char* const kLabel = "ReaderWriter::readAttributeList";
  translateErrors(kLabel, kReadListMap, [&] {
    DigestingReader fields(in, kLabel);
    fields.marker(verifyAttrMarkerAndGetHashAlgo);
    const uint32_t count = fields.count();
    if (count > kMaxAttributeCount) {
      KMS_DEBUG(kLabel, 1, "Attribute count " << count << " is above " << kMaxAttributeCount);
      KS_THROW(1208, kLabel);
    }
    for (uint32_t i = 0; i < count; ++i) {
      std::string name = fields.string();
      std::string value = fields.string();
      const bool added = list.addAttribute(name, value);
      wipeString(value);
      if (!added) {
        KMS_DEBUG(kLabel, 1, "Duplicate attribute " << name);
        KS_THROW(1208, kLabel);
      }
    }
    fields.checkDigest();
  });
}

namespace {

// A record on the stream: its marker, the fields that key and group records
// share (tag, name, times, description, revision), then those that
// `ownFields` writes or reads, the digest over all of them, and the
// attribute list.
template <typename Record, typename OwnFields>
void writeRecordWith(KSOutStream& out, const Record& rec, OwnFields&& ownFields) {
  static const char* const kLabel = "ReaderWriter::writeRecord";
  translateErrors(kLabel, kWriteMap, [&] {
    writeMarker(out, ReaderWriter::s_recordmark);
    DigestingWriter fields(out, kLabel);
    fields.string(rec.tag());
    fields.string(rec.name());
    fields.integer(rec.updateTime(), 8);
    fields.integer(rec.createTime(), 8);
    fields.string(rec.description());
    fields.integer(rec.rev(), 4);
    ownFields(fields);
    fields.finish();
    ReaderWriter::writeAttributeList(out, rec.attributes());
  });
}

template <typename Record, typename OwnFields>
void readRecordWith(KSInputBuffer& in, Record& rec, OwnFields&& ownFields) {
  static const char* const kLabel = "ReaderWriter::readRecord";
  translateErrors(kLabel, kReadRecordMap, [&] {
    DigestingReader fields(in, kLabel);
    fields.marker(ReaderWriter::verifyRecordMarkerAndGetHashAlgo);
    rec.setTag(fields.string());
    rec.setName(fields.string());
    rec.setUpdateTime(fields.integer(8));
    rec.setCreateTime(fields.integer(8));
    rec.setDescription(fields.string());
    rec.setRev(static_cast<uint32_t>(fields.integer(4)));
    ownFields(fields);
    fields.checkDigest();
    ReaderWriter::readAttributeList(in, rec.attributes());
  });
}

}  // namespace

void ReaderWriter::writeRecord(KSOutStream& out, const KeyRecord_v1& rec) {
  RW_TRACE("ReaderWriter::writeRecord");
  writeRecordWith(out, rec, [&](DigestingWriter& fields) {
    fields.string(rec.keyGroup());
    fields.integer(static_cast<uint16_t>(rec.state()), 2);
    fields.integer(static_cast<uint16_t>(rec.kpkType()), 2);
    fields.string(rec.kpkTag());
    fields.string(rec.key());
  });
}

void ReaderWriter::writeRecord(KSOutStream& out, const KeyGrpRecord_v1& rec) {
  RW_TRACE("ReaderWriter::writeRecord");
  writeRecordWith(out, rec, [&](DigestingWriter& fields) {
    fields.integer(static_cast<uint16_t>(rec.cipherType()), 2);
  });
}

void ReaderWriter::readRecord(KSInputBuffer& in, KeyRecord_v1& rec) {
  RW_TRACE("ReaderWriter::readRecord");
  readRecordWith(in, rec, [&](DigestingReader& fields) {
    rec.setKeyGroup(fields.string());
    rec.setState(enumOf<ks_keystate_t>(fields.integer(2)));
    rec.setKpkType(enumOf<ks_kpktype_t>(fields.integer(2)));
    rec.setKpkTag(fields.string());
    std::string key = fields.string();
    ScopedWipe wipeKey(key);
    rec.setKey(key);
  });
}

void ReaderWriter::readRecord(KSInputBuffer& in, KeyGrpRecord_v1& rec) {
  RW_TRACE("ReaderWriter::readRecord");
  readRecordWith(in, rec, [&](DigestingReader& fields) {
    rec.setCipherType(enumOf<ks_ciphertype_t>(fields.integer(2)));
  });
}

template <typename Table>
void ReaderWriter::writeRecordTable(KSOutStream& out, const Table& table) {
  RW_TRACE("ReaderWriter::writeRecordTable");
  static const char* const kLabel = "ReaderWriter::writeRecordTable";
  translateErrors(kLabel, kWriteTableMap, [&] {
    KS_ASSERT(kLabel, table.size() <= UINT32_MAX);
    writeMarker(out, s_tablemark);
    writeCount(out, table.size());
    for (const auto& entry : table) {
      writeRecord(out, entry.second);
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
    KS_THROW(1208, kLabel);
  }
  if (readRecordField(in, field, sizeof field) != 4) {
    KMS_DEBUG(kLabel, 1, "Record count field is not 4 bytes long");
    KS_THROW(1208, kLabel);
  }
  const uint32_t count = static_cast<uint32_t>(Utils::loadBigEndian(field, 4));
  KMS_DEBUG(kLabel, 4, "Reading " << count << " records");
  for (uint32_t i = 0; i < count; ++i) {
    RecordOf<Table> rec;
    readRecord(in, rec);
    if (!table.addRecord(rec)) {
      KMS_DEBUG(kLabel, 1, "The table refused record " << i);
      KS_THROW(1208, kLabel);
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
