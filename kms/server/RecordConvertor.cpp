#include "kms/server/RecordConvertor.h"

#include <cstring>
#include <string_view>

#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/Raise.h"
#include "kms/server/keystore/records/RecordUtils.h"

namespace Ardentis {
namespace Vaultrest {
namespace DL {
namespace KMS {

namespace Store = ::Vaultrest::DL::KMS;

namespace {

// Attributes of a store record into the wire sequence, in the list's order.
void toIdlAttributes(const Store::AttributeList& attrl, KMSFacetsV1::AttrElemSeq& out,
                     const char* label) {
  out.length(static_cast<CORBA::ULong>(attrl.size()));
  Store::AttributeList::const_iterator iter = attrl.begin();
  for (CORBA::ULong i = 0; i < out.length(); ++i, ++iter) {
    KS_ASSERT(label, iter != attrl.end());
    out[i].name = std::string(iter->first).c_str();
    out[i].value = std::string(iter->second).c_str();
  }
}

void toKsAttributes(const KMSFacetsV1::AttrElemSeq& attributes, Store::AttributeList& out) {
  for (CORBA::ULong i = 0; i < attributes.length(); ++i) {
    out.addAttribute(attributes[i].name.in(), attributes[i].value.in());
  }
}

std::string toBytes(const TL::Framework::octetSeq& octets) {
  std::string bytes;
  bytes.reserve(octets.length());
  for (CORBA::ULong i = 0; i < octets.length(); ++i) {
    bytes.push_back(static_cast<char>(octets[i]));
  }
  return bytes;
}

void toOctets(std::string_view bytes, TL::Framework::octetSeq& out) {
  out.length(static_cast<CORBA::ULong>(bytes.size()));
  if (!bytes.empty()) {
    std::memcpy(out.get_buffer(), bytes.data(), bytes.size());
  }
}

// A tag in lower-case hexadecimal, written straight into a new wire string
// that the caller owns (a String_member adopts it).
char* toIdlHex(std::string_view bytes) {
  static const char kDigits[] = "0123456789abcdef";  // Utils::toAscii's digits
  char* text = CORBA::string_alloc(static_cast<CORBA::ULong>(bytes.size() * 2));
  char* at = text;
  for (char c : bytes) {
    const unsigned char b = static_cast<unsigned char>(c);
    *at++ = kDigits[b >> 4];
    *at++ = kDigits[b & 0x0f];
  }
  *at = '\0';
  return text;
}

// A name or description as a new wire string that the caller owns. A wire
// string ends at its first NUL byte, so the text is cut there.
char* toIdlString(std::string_view text) {
  const std::string_view kept = text.substr(0, text.find('\0'));
  char* out = CORBA::string_alloc(static_cast<CORBA::ULong>(kept.size()));
  std::memcpy(out, kept.data(), kept.size());
  out[kept.size()] = '\0';
  return out;
}

}  // namespace

int64_t RecordConvertor::toIdlTime(uint64_t seconds) {
  return (kGregorianOffsetSeconds + static_cast<int64_t>(seconds)) * kTicksPerSecond;
}

uint64_t RecordConvertor::toKsTime(int64_t ticks) {
  return static_cast<uint64_t>(ticks / kTicksPerSecond - kGregorianOffsetSeconds);
}

std::string RecordConvertor::hexToBin(const std::string& text) {
  return Store::Utils::hexToBin(text);
}

std::string RecordConvertor::binToHex(std::string_view bytes) {
  return Store::Utils::binToHex(bytes);
}

char RecordConvertor::toAscii(char nibble) {
  return Store::Utils::toAscii(nibble);
}

KMSFacetsV1::KeyRecord* RecordConvertor::toIdlKeyRecord(const Store::KeyRecord_v1& rec) {
  KMSFacetsV1::KeyRecord_var out = new KMSFacetsV1::KeyRecord();
  toIdlKeyRecord(rec, out.inout());
  return out._retn();
}

void RecordConvertor::toIdlKeyRecord(const Store::KeyRecord_v1& rec, KMSFacetsV1::KeyRecord& out) {
  KMS_TRACE("RecordConvertor::toIdlKeyRecord");
  out.updateTime = toIdlTime(rec.updateTime());
  out.createTime = toIdlTime(rec.createTime());
  out.rev = static_cast<CORBA::Long>(rec.rev());
  out.state = static_cast<CORBA::Long>(rec.state());
  out.kpkType = static_cast<CORBA::Long>(rec.kpkType());
  out.tag = toIdlHex(rec.tag());
  out.keyGroup = toIdlHex(rec.keyGroup());
  out.kpkTag = toIdlHex(rec.kpkTag());
  out.name = toIdlString(rec.name());
  out.description = toIdlString(rec.description());
  toOctets(rec.key(), out.encKey);
  toIdlAttributes(rec.attributes(), out.attributeList, "RecordConvertor::toIdlKeyRecord");
}

KMSFacetsV1::KeyGroupRecord* RecordConvertor::toIdlKeyGroupRecord(
    const Store::KeyGrpRecord_v1& rec) {
  KMSFacetsV1::KeyGroupRecord_var out = new KMSFacetsV1::KeyGroupRecord();
  toIdlKeyGroupRecord(rec, out.inout());
  return out._retn();
}

void RecordConvertor::toIdlKeyGroupRecord(const Store::KeyGrpRecord_v1& rec,
                                          KMSFacetsV1::KeyGroupRecord& out) {
  KMS_TRACE("RecordConvertor::toIdlKeyGroupRecord");
  out.updateTime = toIdlTime(rec.updateTime());
  out.createTime = toIdlTime(rec.createTime());
  out.rev = static_cast<CORBA::Long>(rec.rev());
  out.type = static_cast<CORBA::Long>(rec.cipherType());
  out.stat.hasActiveKey = rec.hasActiveKey();
  out.stat.numKeys = static_cast<CORBA::Long>(rec.numKeys());
  out.tag = toIdlHex(rec.tag());
  out.name = toIdlString(rec.name());
  out.description = toIdlString(rec.description());
  toIdlAttributes(rec.attributes(), out.attributeList, "RecordConvertor::toIdlKeyGroupRecord");
}

KMSFacetsV1::KSOpStatus* RecordConvertor::toIdlKSOpStatus(const Store::KSOpStatus& ksrec) {
  KMS_TRACE("RecordConvertor::toIdlKSOpStatus");
  KMSFacetsV1::KSOpStatus_var out = new KMSFacetsV1::KSOpStatus();
  out->error_code = ksrec.errCode();
  out->messages.length(static_cast<CORBA::ULong>(ksrec.messages().size()));
  Store::KSOpStatus::MessageList::const_iterator iter = ksrec.messages().begin();
  for (CORBA::ULong i = 0; i < out->messages.length(); ++i, ++iter) {
    KS_ASSERT("RecordConvertor::toIdlKSOpStatus", iter != ksrec.messages().end());
    KMSFacetsV1::KSOpMessage& message = out->messages[i];
    message.msg_code = static_cast<CORBA::Long>(iter->code());
    message.args.length(static_cast<CORBA::ULong>(iter->args().size()));
    Store::KSOpMessage::ArgList::const_iterator aiter = iter->args().begin();
    for (CORBA::ULong j = 0; j < message.args.length(); ++j, ++aiter) {
      KS_ASSERT("RecordConvertor::toIdlKSOpStatus", aiter != iter->args().end());
      message.args[j] = aiter->c_str();
    }
    KS_ASSERT("RecordConvertor::toIdlKSOpStatus", aiter == iter->args().end());
  }
  KS_ASSERT("RecordConvertor::toIdlKSOpStatus", iter == ksrec.messages().end());
  return out._retn();
}

Store::KeyRecord_v1 RecordConvertor::toKsKeyRecord(const KMSFacetsV1::KeyRecord& record) {
  KMS_TRACE("RecordConvertor::toKsKeyRecord");
  Store::KeyRecord_v1 rec;
  rec.attributes().testInvariant();
  rec.testInvariant();
  // All fields in one change (one block); a name or description over 4096
  // bytes is cut, with a log line.
  rec.setFields(hexToBin(record.tag.in()), record.name.in(), hexToBin(record.keyGroup.in()),
                static_cast<Store::ks_keystate_t>(record.state), toKsTime(record.updateTime),
                toKsTime(record.createTime), record.description.in(),
                static_cast<uint32_t>(record.rev), static_cast<Store::ks_kpktype_t>(record.kpkType),
                hexToBin(record.kpkTag.in()), toBytes(record.encKey));
  toKsAttributes(record.attributeList, rec.attributes());
  return rec;
}

Store::KeyGrpRecord_v1 RecordConvertor::toKsKeyGroupRecord(
    const KMSFacetsV1::KeyGroupRecord& record) {
  KMS_TRACE("RecordConvertor::toKsKeyGroupRecord");
  Store::KeyGrpRecord_v1 rec;
  rec.attributes().testInvariant();
  rec.testInvariant();
  rec.setUpdateTime(toKsTime(record.updateTime));
  rec.setCreateTime(toKsTime(record.createTime));
  rec.setRev(static_cast<uint32_t>(record.rev));
  rec.setTag(hexToBin(record.tag.in()));
  rec.setName(record.name.in());
  rec.testInvariant();
  rec.setDescription(record.description.in());
  rec.testInvariant();
  rec.setCipherType(static_cast<Store::ks_ciphertype_t>(record.type));
  toKsAttributes(record.attributeList, rec.attributes());
  return rec;
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
}  // namespace Ardentis
