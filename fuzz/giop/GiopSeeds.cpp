// Writes the seed corpus of GiopRequestFuzz: a valid body for every
// operation of every object, marshalled by the ORB's own code for the IDL
// types, behind the prefix of GiopFuzzInput.h; and variants of the message
// framing (versions, byte order, fragments, wrong sizes, other message
// types).
//
//   giop-fuzz-seeds DIR
//
// File names say what the service must answer, and the replay test holds it
// to that: "ok-" a reply with a result or a ServiceException, "sys-" a reply
// with a system exception, "locate-" a locate reply; anything else only
// must not hang the service.
#include <omniORB4/CORBA.h>

#include <KMS.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "fuzz/giop/GiopFuzzInput.h"

namespace Facets = Ardentis::Vaultrest::DL::KMSFacetsV1;
namespace Fw = Ardentis::Vaultrest::TL::Framework;
using namespace giopfuzz;

namespace {

constexpr uint8_t kGiop10 = 0;
constexpr uint8_t kGiop11 = 1;
constexpr uint8_t kGiop12 = 2;
constexpr uint8_t kPlain = kLittleEndian | kResponseExpected;

// An operation's arguments as the ORB marshals them.
class Body {
 public:
  explicit Body(bool little = true) { m_stream.setByteSwapFlag(little); }
  cdrMemoryStream& out() { return m_stream; }
  Body& string(const char* text) {
    m_stream.marshalString(text);
    return *this;
  }
  Body& boolean(bool value) {
    m_stream.marshalBoolean(value);
    return *this;
  }
  Body& number(CORBA::Long value) {
    value >>= m_stream;
    return *this;
  }
  template <typename T>
  Body& value(const T& value) {
    value >>= m_stream;
    return *this;
  }
  std::string bytes() const {
    return std::string(static_cast<const char*>(m_stream.bufPtr()), m_stream.bufSize());
  }

 private:
  cdrMemoryStream m_stream;
};

// The number whose little-endian bytes are `marker`.
uint64_t markerValue(const std::string& marker) {
  uint64_t value = 0;
  for (size_t i = 0; i < marker.size(); ++i) {
    value |= static_cast<uint64_t>(static_cast<uint8_t>(marker[i])) << (8 * i);
  }
  return value;
}

Facets::AttrElemSeq attributes(std::vector<std::pair<const char*, const char*>> pairs) {
  Facets::AttrElemSeq list;
  list.length(static_cast<CORBA::ULong>(pairs.size()));
  for (CORBA::ULong i = 0; i < list.length(); ++i) {
    list[i].name = pairs[i].first;
    list[i].value = pairs[i].second;
  }
  return list;
}

// A group record; with `kept` >= 0 it carries the markers of kept group
// `kept`, so that an update presents the stored times and revision.
Facets::KeyGroupRecord group(const char* name, CORBA::Long type, int kept = -1) {
  Facets::KeyGroupRecord record;
  record.updateTime = 0;
  record.type = type;
  record.rev = 0;
  record.stat.hasActiveKey = false;
  record.stat.numKeys = 0;
  record.description = "made by a seed";
  record.tag = "";
  record.createTime = 0;
  record.attributeList = attributes({{"origin", "seed"}});
  record.name = name;
  if (kept >= 0) {
    record.updateTime = static_cast<CORBA::LongLong>(markerValue(timeMarker('G', 'u', kept)));
    record.createTime = static_cast<CORBA::LongLong>(markerValue(timeMarker('G', 'c', kept)));
    record.rev = static_cast<CORBA::Long>(markerValue(revisionMarker('G', kept)));
    record.tag = groupTagMarker(kept).c_str();
  }
  return record;
}

// A key record in kept group `inGroup`; with `kept` >= 0 the markers of
// kept key `kept`.
Facets::KeyRecord key(const char* name, int inGroup, CORBA::Long state, int kept = -1) {
  Facets::KeyRecord record;
  record.kpkType = 1;
  record.updateTime = 0;
  record.keyGroup = groupTagMarker(inGroup).c_str();
  record.kpkTag = "";
  record.rev = 0;
  record.description = "made by a seed";
  record.tag = "";
  record.createTime = 0;
  record.state = state;
  record.name = name;
  if (kept >= 0) {
    record.updateTime = static_cast<CORBA::LongLong>(markerValue(timeMarker('K', 'u', kept)));
    record.createTime = static_cast<CORBA::LongLong>(markerValue(timeMarker('K', 'c', kept)));
    record.rev = static_cast<CORBA::Long>(markerValue(revisionMarker('K', kept)));
    record.tag = keyTagMarker(kept).c_str();
  }
  return record;
}

struct Seed {
  std::string name;
  std::string bytes;
};

// The framing bytes of a seed's prefix; a well-formed GIOP 1.2 request by
// default.
struct Frame {
  uint8_t keyVariant = 0;
  uint8_t version = kGiop12;
  uint8_t flags = kPlain;
  uint8_t fragment = 0;
  uint8_t size = 0;
  uint8_t type = 0;
  uint8_t context = 0;

  Frame& key(uint8_t v) { return keyVariant = v, *this; }
  Frame& giop(uint8_t v) { return version = v, *this; }
  Frame& with(uint8_t f) { return flags = f, *this; }
  Frame& fragments(uint8_t v) { return fragment = v, *this; }
  Frame& sizeByte(uint8_t v) { return size = v, *this; }
  Frame& messageType(uint8_t v) { return type = v, *this; }
  Frame& contextByte(uint8_t v) { return context = v, *this; }
};

class Seeds {
 public:
  void add(const std::string& name, Target target, const std::string& operation,
           const std::string& body, const Frame& frame = Frame()) {
    if (operationIndex(target, operation) < 0) {
      std::fprintf(stderr, "no operation %s\n", operation.c_str());
      std::exit(2);
    }
    std::string prefix = encodePrefix(target, operation, frame.version, frame.flags, frame.fragment,
                                      frame.size, frame.type, frame.context);
    prefix[0] = static_cast<char>(target | (frame.keyVariant << 2));
    m_seeds.push_back({name, prefix + body});
  }
  void raw(const std::string& name, const std::string& bytes) { m_seeds.push_back({name, bytes}); }
  const std::vector<Seed>& all() const { return m_seeds; }

 private:
  std::vector<Seed> m_seeds;
};

void operationSeeds(Seeds& seeds) {
  const char* hexTag = "00112233445566778899aabbccddeeff00112233445566778899aabbccddeeff";
  // The manager.
  for (const char* op :
       {"getQueryableFacet", "getModifiableFacet", "getControlFacet", "getEximFacet"}) {
    seeds.add(std::string("ok-manager-") + op, kManager, op, "");
  }
  // The control facet.
  seeds.add("ok-control-getHMKId", kControl, "getHMKId", "");
  seeds.add("ok-control-getKPKId", kControl, "getKPKId", "");
  seeds.add("ok-control-updateHMK-random", kControl, "updateHMK",
            Body().string("").string("hmk-fuzz-2").bytes());
  seeds.add("ok-control-updateKPK-passphrase", kControl, "updateKPK",
            Body().string("kpk passphrase").string("kpk-fuzz-2").bytes());
  seeds.add("ok-control-updateHMK-no-id", kControl, "updateHMK",
            Body().string("p").string("").bytes());
  seeds.add("ok-control-quiesce", kControl, "quiesce", "");
  seeds.add("ok-control-unquiesce", kControl, "unquiesce", Body().boolean(false).bytes());
  seeds.add("ok-control-unquiesce-force", kControl, "unquiesce", Body().boolean(true).bytes());
  seeds.add("ok-control-isQuiesced", kControl, "isQuiesced", "");

  // The modifying facet.
  seeds.add("ok-modify-createKeyGroup", kModifiable, "createKeyGroup",
            Body().value(group("seed-group", 1)).bytes());
  seeds.add("ok-modify-createKeyGroup-bad-cipher", kModifiable, "createKeyGroup",
            Body().value(group("seed-group-7", 7)).bytes());
  seeds.add("ok-modify-updateKeyGroup", kModifiable, "updateKeyGroup",
            Body().value(group("fuzz-group-0", 3, 0)).bytes());
  seeds.add("ok-modify-updateKeyGroup-rename", kModifiable, "updateKeyGroup",
            Body().value(group("seed-renamed", 4, 1)).bytes());
  seeds.add("ok-modify-deleteKeyGroup-not-empty", kModifiable, "deleteKeyGroup",
            Body().string(groupTagMarker(0).c_str()).boolean(false).bytes());
  seeds.add("ok-modify-deleteKeyGroup-force", kModifiable, "deleteKeyGroup",
            Body().string(groupTagMarker(1).c_str()).boolean(true).bytes());
  seeds.add("ok-modify-createKey-active", kModifiable, "createKey",
            Body().string("").value(key("seed-key", 0, 1)).bytes());
  seeds.add("ok-modify-createKey-passphrase", kModifiable, "createKey",
            Body().string("seed passphrase").value(key("seed-key-p", 1, 4)).bytes());
  seeds.add("ok-modify-updateKey-deactivate", kModifiable, "updateKey",
            Body().value(key("fuzz-key-0", 0, 2, 0)).bytes());
  seeds.add("ok-modify-updateKey-move-and-activate", kModifiable, "updateKey",
            Body().value(key("fuzz-key-1", 1, 1, 1)).bytes());
  seeds.add("ok-modify-deleteKey", kModifiable, "deleteKey",
            Body().string(keyTagMarker(1).c_str()).bytes());
  seeds.add("ok-modify-deleteKey-active", kModifiable, "deleteKey",
            Body().string(keyTagMarker(0).c_str()).bytes());
  {
    Facets::KeyRecord recovered = key("seed-recovered", 1, 2);
    recovered.tag = hexTag;
    // A salt of the slow scheme 2, which the fuzzer's builder makes quick.
    recovered.attributeList =
        attributes({{"KEY_SALT", "5302000102030405060708090a0b0c0d0e0f101112131415"}});
    seeds.add("ok-modify-recoverKey-salted", kModifiable, "recoverKey",
              Body().string("seed passphrase").value(recovered).bytes());
    recovered.attributeList.length(0);
    recovered.tag = keyTagMarker(2).c_str();
    seeds.add("ok-modify-recoverKey-known-tag", kModifiable, "recoverKey",
              Body().string("fuzz passphrase").value(recovered).bytes());
  }
  seeds.add("ok-modify-getNewKey", kModifiable, "getNewKey", "");
  seeds.add("ok-modify-getNewKeyGroup", kModifiable, "getNewKeyGroup", "");
  {
    Fw::octetSeq data;
    data.length(16);
    for (CORBA::ULong i = 0; i < data.length(); ++i) {
      data[i] = static_cast<CORBA::Octet>(i);
    }
    seeds.add("ok-modify-importKS", kModifiable, "importKS",
              Body()
                  .value(data)
                  .string("import passphrase")
                  .boolean(true)
                  .boolean(false)
                  .string("seed import")
                  .bytes());
  }

  // The query facet.
  seeds.add("ok-query-getKeyRecord", kQuery, "getKeyRecord",
            Body().string(keyTagMarker(0).c_str()).bytes());
  seeds.add("ok-query-getKeyRecordByName", kQuery, "getKeyRecordByName",
            Body().string(groupTagMarker(0).c_str()).string("fuzz-key-1").bytes());
  seeds.add("ok-query-getKey", kQuery, "getKey", Body().string(keyTagMarker(2).c_str()).bytes());
  seeds.add("ok-query-getActiveKeyRecord", kQuery, "getActiveKeyRecord",
            Body().string(groupTagMarker(0).c_str()).bytes());
  seeds.add("ok-query-getKeyGroupRecord", kQuery, "getKeyGroupRecord",
            Body().string(groupTagMarker(1).c_str()).bytes());
  seeds.add("ok-query-getKeyGroupRecordByName", kQuery, "getKeyGroupRecordByName",
            Body().string("fuzz-group-0").bytes());
  seeds.add("ok-query-getAllKeyGroupRecords", kQuery, "getAllKeyGroupRecords", "");
  seeds.add("ok-query-getAllKeyRecordsInGroup", kQuery, "getAllKeyRecordsInGroup",
            Body().string(groupTagMarker(0).c_str()).bytes());
  seeds.add("ok-query-getKeyStoreStats", kQuery, "getKeyStoreStats", "");
  seeds.add("ok-query-getKeyAndKad", kQuery, "getKeyAndKad",
            Body().string(keyTagMarker(0).c_str()).number(16).bytes());
  seeds.add("ok-query-getKeyAndKad-longest", kQuery, "getKeyAndKad",
            Body().string(keyTagMarker(2).c_str()).number(4096).bytes());
  {
    const std::string marker = kadMarker(0);
    Fw::octetSeq kad;
    kad.length(static_cast<CORBA::ULong>(marker.size()));
    for (CORBA::ULong i = 0; i < kad.length(); ++i) {
      kad[i] = static_cast<CORBA::Octet>(marker[i]);
    }
    seeds.add("ok-query-getKeyRecordsByKad", kQuery, "getKeyRecordsByKad",
              Body().value(kad).bytes());
  }
  {
    Facets::ExportKeyListSeq list;
    list.length(1);
    list[0].kgname = "fuzz-group-0";
    list[0].keyname = "fuzz-key-0";
    seeds.add("ok-query-exportKS", kQuery, "exportKS",
              Body().value(list).string("export passphrase").bytes());
  }

  // Operations that every object has, and one that none has.
  seeds.add("ok-query-_is_a", kQuery, "_is_a",
            Body().string("IDL:Ardentis/Vaultrest/DL/KMSFacetsV1/KMSQueryableFacet:1.0").bytes());
  seeds.add("ok-manager-_is_a-other", kManager, "_is_a",
            Body().string("IDL:Ardentis/Vaultrest/DL/KMS/EximFacet:1.0").bytes());
  seeds.add("ok-control-_non_existent", kControl, "_non_existent", "");
  seeds.add("sys-modify-_not_existent", kModifiable, "_not_existent", "");
  seeds.add("sys-control-noSuchOperation", kControl, "noSuchOperation", "");
}

void framingSeeds(Seeds& seeds) {
  const std::string tag = Body().string(keyTagMarker(0).c_str()).bytes();
  const std::string groupBody = Body().value(group("seed-fragmented", 2)).bytes();
  // Versions and byte order; 1.3 and 2.0 are versions the service does not
  // speak.
  seeds.add("ok-query-getKeyRecord-giop10", kQuery, "getKeyRecord", tag, Frame().giop(kGiop10));
  seeds.add("ok-query-getKeyRecord-giop11", kQuery, "getKeyRecord", tag, Frame().giop(kGiop11));
  seeds.add("ok-query-getKeyGroupRecordByName-big-endian", kQuery, "getKeyGroupRecordByName",
            Body(false).string("fuzz-group-1").bytes(), Frame().with(kResponseExpected));
  seeds.add("hdr-byte-order-flag-wrong", kQuery, "getKeyGroupRecordByName",
            Body().string("fuzz-group-1").bytes(), Frame().with(kResponseExpected));
  seeds.add("hdr-giop13", kQuery, "getKeyStoreStats", "", Frame().giop(0x37));
  seeds.add("hdr-giop20", kQuery, "getKeyStoreStats", "", Frame().giop(0x0b));
  // Fragments of 16 and 8 bytes, and of 19 (not a multiple of 8).
  seeds.add("ok-modify-createKeyGroup-fragments-giop12", kModifiable, "createKeyGroup", groupBody,
            Frame().with(kPlain | kFragmented).fragments(2));
  seeds.add("hdr-fragments-giop11", kModifiable, "createKeyGroup", groupBody,
            Frame().giop(kGiop11).with(kPlain | kFragmented).fragments(1));
  seeds.add("hdr-fragments-unaligned", kModifiable, "createKeyGroup", groupBody,
            Frame().with(kPlain | kFragmented).fragments(0x82));
  seeds.add("hdr-fragments-giop10", kQuery, "getKeyRecord", tag,
            Frame().giop(kGiop10).with(kPlain | kFragmented).fragments(1));
  // The peer version context, whole and short.
  seeds.add("ok-manager-getControlFacet-version", kManager, "getControlFacet", "",
            Frame().with(kPlain | kVersionContext).contextByte(3));
  seeds.add("ok-manager-getQueryableFacet-short-version", kManager, "getQueryableFacet", "",
            Frame().with(kPlain | kVersionContext).contextByte(0x82));
  seeds.add("ok-control-getHMKId-version-giop10", kControl, "getHMKId", "",
            Frame().giop(kGiop10).with(kPlain | kVersionContext).contextByte(5));
  // Object keys that name nothing.
  seeds.add("sys-query-key-flipped", kQuery, "getKeyStoreStats", "", Frame().key(1));
  seeds.add("sys-control-key-empty", kControl, "isQuiesced", "", Frame().key(2));
  seeds.add("sys-modify-key-longer", kModifiable, "getNewKey", "", Frame().key(3));
  // Sizes and lengths.
  seeds.add("hdr-size-longer", kQuery, "getKeyRecord", tag,
            Frame().with(kPlain | kSizeChanged).sizeByte(5));
  seeds.add("hdr-size-shorter", kQuery, "getKeyRecord", tag,
            Frame().with(kPlain | kSizeChanged).sizeByte(0xfc));
  seeds.add("hdr-truncated", kQuery, "getKeyRecord", tag,
            Frame().with(kPlain | kTruncated).sizeByte(9));
  seeds.add("hdr-oneway-isQuiesced", kControl, "isQuiesced", "", Frame().with(kLittleEndian));
  seeds.add("ok-query-getKeyStoreStats-twice", kQuery, "getKeyStoreStats", "",
            Frame().with(kPlain | kSentTwice));
  // Other message types.
  seeds.add("locate-query", kQuery, "getKeyStoreStats", "",
            Frame().with(kPlain | kOtherMessageType).messageType(giopwire::kLocateRequest));
  seeds.add(
      "locate-manager-giop10", kManager, "getControlFacet", "",
      Frame().giop(kGiop10).with(kPlain | kOtherMessageType).messageType(giopwire::kLocateRequest));
  const std::pair<const char*, uint8_t> types[] = {
      {"hdr-type-cancel", giopwire::kCancelRequest},
      {"hdr-type-reply", giopwire::kReply},
      {"hdr-type-locate-reply", giopwire::kLocateReply},
      {"hdr-type-close", giopwire::kCloseConnection},
      {"hdr-type-message-error", giopwire::kMessageError},
      {"hdr-type-fragment", giopwire::kFragment},
      {"hdr-type-unknown", 8}};
  for (const auto& type : types) {
    seeds.add(type.first, kControl, "isQuiesced", tag,
              Frame().with(kPlain | kOtherMessageType).messageType(type.second));
  }
  seeds.raw("hdr-too-short", "GIOP");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s DIR\n", argv[0]);
    return 2;
  }
  // The ORB sets up the code sets that strings are marshalled with.
  int orbArgc = 1;
  CORBA::ORB_var orb = CORBA::ORB_init(orbArgc, argv, "omniORB4");
  Seeds seeds;
  operationSeeds(seeds);
  framingSeeds(seeds);
  for (const Seed& seed : seeds.all()) {
    const std::string path = std::string(argv[1]) + "/" + seed.name;
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(seed.bytes.data(), static_cast<std::streamsize>(seed.bytes.size()));
    if (!out.flush()) {
      std::fprintf(stderr, "cannot write %s\n", path.c_str());
      return 1;
    }
  }
  std::printf("%zu seeds written to %s\n", seeds.all().size(), argv[1]);
  orb->destroy();
  return 0;
}
