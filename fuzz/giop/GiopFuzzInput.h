// One input of the GIOP request fuzzer, and the bytes it puts on a
// connection to the service. Shared by the fuzzer, its seed generator and
// the replay test, so that a corpus file means the same bytes to all three.
//
// Layout of an input:
//
//   byte 0   bits 0-1: the object (0 manager, 1 control, 2 modifying,
//            3 query facet); bits 2-3: its object key as it is (0), with the
//            last octet flipped (1), empty (2), with an octet added (3)
//   byte 1   the operation: an index into operations(object), modulo its size
//   byte 2   GIOP version: bits 0-1 give 1.0, 1.1, 1.2, or (3) major
//            bits 2-3 and minor bits 4-7 as they stand
//   byte 3   flags:
//              0x01  little-endian (the body's byte order must agree)
//              0x02  a response is expected
//              0x04  sent in fragments of the size of byte 4
//              0x08  with the peer version service context, built from byte 7
//              0x10  the first message's size field off by byte 5 (signed)
//              0x20  the last byte 5 + 1 bytes left off
//              0x40  the message sent twice (request ids 1 and 2)
//              0x80  message type of byte 6 instead of a request
//   byte 4   fragment size: bits 0-6 in units of 8 bytes (0 means 8), bit 7
//            adds 3 bytes so that the fragments are not multiples of 8
//   byte 5   size change or truncation length
//   byte 6   message type when flag 0x80 is set (8 and above: 0x2a, unknown)
//   byte 7   the version context: patch level; bit 7 sends only bits 0-1
//            octets of it (a short context)
//   rest     the body: the operation's arguments, CDR-encoded as if from an
//            8-byte boundary (the builder pads the request header to put it
//            on one in every version)
//
// The records that the harness keeps (GiopBaseline.h) are not known when a
// corpus is made: a body names their tags, times and revisions by markers
// of the same length, which the builder replaces by the current values in
// the body's byte order. A hexadecimal "KEY_SALT" of a slow scheme is made
// quick (detail::quickenSalts).
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "fuzz/giop/GiopWire.h"

namespace giopfuzz {

enum Target { kManager = 0, kControl = 1, kModifiable = 2, kQuery = 3, kTargets = 4 };

constexpr size_t kPrefixSize = 8;
constexpr uint32_t kFirstRequestId = 1;

enum Flag : uint8_t {
  kLittleEndian = 0x01,
  kResponseExpected = 0x02,
  kFragmented = 0x04,
  kVersionContext = 0x08,
  kSizeChanged = 0x10,
  kTruncated = 0x20,
  kSentTwice = 0x40,
  kOtherMessageType = 0x80,
};

// The peer version context that clients of the service send (three octets:
// major, minor, patch).
constexpr uint32_t kPeerVersionContextId = 0x56520001;

// The operations that each object serves, in the order of the interface,
// followed by the built-in operations of every object and one that no
// object has.
inline const std::vector<std::string>& operations(Target target) {
  static const std::vector<std::string> extras = {
      "_is_a", "_non_existent", "_not_existent", "_interface", "_repository_id", "noSuchOperation"};
  auto with = [](std::vector<std::string> own) {
    own.insert(own.end(), extras.begin(), extras.end());
    return own;
  };
  static const std::vector<std::string> tables[kTargets] = {
      with({"getQueryableFacet", "getModifiableFacet", "getControlFacet", "getEximFacet"}),
      with(
          {"getHMKId", "getKPKId", "updateHMK", "updateKPK", "quiesce", "unquiesce", "isQuiesced"}),
      with({"createKeyGroup", "updateKeyGroup", "deleteKeyGroup", "createKey", "updateKey",
            "deleteKey", "recoverKey", "getNewKey", "getNewKeyGroup", "importKS"}),
      with({"getKeyRecord", "getKeyRecordByName", "getKey", "getActiveKeyRecord",
            "getKeyGroupRecord", "getKeyGroupRecordByName", "getAllKeyGroupRecords",
            "getAllKeyRecordsInGroup", "getKeyStoreStats", "getKeyAndKad", "getKeyRecordsByKad",
            "exportKS"}),
  };
  return tables[target];
}

// The index of `operation` in operations(target), or -1.
inline int operationIndex(Target target, const std::string& operation) {
  const std::vector<std::string>& table = operations(target);
  for (size_t i = 0; i < table.size(); ++i) {
    if (table[i] == operation) {
      return static_cast<int>(i);
    }
  }
  return -1;
}

// Markers of the records the harness keeps (group i, key i). Tags are 64
// characters of text; a KAD is the first 16 octets of a key's raw tag;
// times (8 octets) and revisions (4 octets) are numbers, written by the seed
// generator in little-endian order.
inline std::string groupTagMarker(int i) {
  return "<group-" + std::to_string(i) + std::string(56 - std::to_string(i).size(), '~') + ">";
}
inline std::string keyTagMarker(int i) {
  return "<key-" + std::to_string(i) + std::string(58 - std::to_string(i).size(), '~') + ">";
}
inline std::string kadMarker(int i) {
  return "<kad-" + std::to_string(i) + std::string(10 - std::to_string(i).size(), '~') + ">";
}
// `kind` 'G' or 'K'; `field` 'c' (create time) or 'u' (update time).
inline std::string timeMarker(char kind, char field, int i) {
  return std::string("\xfe") + kind + field + static_cast<char>('0' + i % 10) + "\xfe\xfe\xfe\x7e";
}
inline std::string revisionMarker(char kind, int i) {
  return std::string("\xfd") + kind + static_cast<char>('0' + i % 10) + "\x7d";
}

// A marker and what replaces it in a body of either byte order; all three
// have the same length.
struct Marker {
  std::string mark;
  std::string little;
  std::string big;
};
typedef std::vector<Marker> Markers;

// What one input puts on the wire.
struct Wire {
  std::string bytes;
  // Whether a server must answer request 1: a request that expects a
  // response, or a locate request, in a version it knows, whole as its
  // headers count it. Otherwise the sender half-closes the connection, and
  // the server, which may be waiting for more bytes, ends it.
  bool expectReply = false;
};

// The object keys the inputs address, by Target.
struct ObjectKeys {
  std::string key[kTargets];
};

// The prefix of an input, for the seed generator.
inline std::string encodePrefix(Target target, const std::string& operation, uint8_t version,
                                uint8_t flags, uint8_t fragment = 0, uint8_t size = 0,
                                uint8_t type = 0, uint8_t context = 0) {
  const int index = operationIndex(target, operation);
  std::string prefix(kPrefixSize, '\0');
  prefix[0] = static_cast<char>(target);
  prefix[1] = static_cast<char>(index < 0 ? 0 : index);
  prefix[2] = static_cast<char>(version);
  prefix[3] = static_cast<char>(flags);
  prefix[4] = static_cast<char>(fragment);
  prefix[5] = static_cast<char>(size);
  prefix[6] = static_cast<char>(type);
  prefix[7] = static_cast<char>(context);
  return prefix;
}

namespace detail {

inline void replaceAll(std::string& text, const Markers& markers, bool little) {
  for (const Marker& marker : markers) {
    const std::string& with = little ? marker.little : marker.big;
    if (marker.mark.empty() || with.size() != marker.mark.size()) {
      continue;
    }
    for (size_t at = text.find(marker.mark); at != std::string::npos;
         at = text.find(marker.mark, at + with.size())) {
      text.replace(at, marker.mark.size(), with);
    }
  }
}

// Salts of the two slow schemes (hexadecimal "53 01" and "53 02" in a
// "KEY_SALT" attribute) become the quick one ("53 03"): a passphrase stretched
// 500000 times costs a second, and the fuzzer would chase time instead of
// faults.
inline void quickenSalts(std::string& body) {
  for (size_t at = body.find("530"); at != std::string::npos; at = body.find("530", at + 1)) {
    if (at + 3 < body.size() && (body[at + 3] == '1' || body[at + 3] == '2')) {
      body[at + 3] = '3';
    }
  }
}

inline std::string versionContext(uint8_t byte) {
  std::string data = {8, 1, static_cast<char>(byte & 0x7f)};
  if ((byte & 0x80) != 0) {
    data.resize(byte & 0x03);
  }
  return data;
}

inline void writeContexts(giopwire::CdrWriter& out, bool withVersion, uint8_t byte) {
  if (!withVersion) {
    out.ulong(0);
    return;
  }
  out.ulong(1);
  out.ulong(kPeerVersionContextId);
  out.octets(versionContext(byte));
}

// A request message (header excluded) whose body starts at an offset of the
// message that is a multiple of 8.
inline std::string requestMessage(uint8_t major, uint8_t minor, bool little, uint32_t requestId,
                                  bool responseExpected, const std::string& key,
                                  const std::string& operation, bool withVersion,
                                  uint8_t contextByte, const std::string& body) {
  giopwire::CdrWriter out(little, giopwire::kHeaderSize);
  if (major == 1 && minor >= 2) {
    out.ulong(requestId);
    out.octet(responseExpected ? 3 : 0);
    out.octet(0);
    out.octet(0);
    out.octet(0);
    out.ushort(0);  // KeyAddr
    out.octets(key);
    out.string(operation);
    writeContexts(out, withVersion, contextByte);
    if (!body.empty()) {
      out.align(8);
    }
  } else {
    writeContexts(out, withVersion, contextByte);
    out.ulong(requestId);
    out.octet(responseExpected ? 1 : 0);
    if (minor >= 1) {
      out.octet(0);
      out.octet(0);
      out.octet(0);
    }
    out.octets(key);
    out.string(operation);
    // The requesting principal is free: its length puts the body on an
    // 8-byte boundary.
    out.align(4);
    const size_t afterLength = giopwire::kHeaderSize + out.bytes().size() + 4;
    out.octets(std::string((8 - afterLength % 8) % 8, '\0'));
  }
  out.raw(body);
  return out.bytes();
}

inline std::string locateRequestMessage(uint8_t major, uint8_t minor, bool little,
                                        uint32_t requestId, const std::string& key) {
  giopwire::CdrWriter out(little, giopwire::kHeaderSize);
  out.ulong(requestId);
  if (major == 1 && minor >= 2) {
    out.ushort(0);
  }
  out.octets(key);
  return out.bytes();
}

// `message` (header excluded) as one message, or as a first message and
// fragments of `chunk` bytes each.
inline std::string frame(uint8_t major, uint8_t minor, uint8_t flags, uint8_t type,
                         uint32_t requestId, const std::string& message, size_t chunk) {
  using namespace giopwire;
  MessageHeader header;
  header.major = major;
  header.minor = minor;
  header.flags = flags;
  header.type = type;
  const bool twelve = major == 1 && minor >= 2;
  // In 1.2 every message aligns its data from its own start, and a
  // fragment's data starts at offset 16: the first message carries 4 bytes
  // more, so that each cut falls on an 8-byte boundary of both messages.
  const size_t first = twelve ? chunk + 4 : chunk;
  if (chunk == 0 || message.size() <= first) {
    header.size = static_cast<uint32_t>(message.size());
    return encodeHeader(header) + message;
  }
  std::string bytes;
  for (size_t at = 0; at < message.size();) {
    const size_t size = at == 0 ? first : chunk;
    const bool last = at + size >= message.size();
    header.flags =
        static_cast<uint8_t>(last ? flags & ~kFlagMoreFragments : flags | kFlagMoreFragments);
    std::string part = message.substr(at, size);
    if (at > 0) {
      header.type = kFragment;
      if (twelve) {
        CdrWriter id(header.littleEndian());
        id.ulong(requestId);
        part = id.bytes() + part;
      }
    }
    header.size = static_cast<uint32_t>(part.size());
    bytes += encodeHeader(header) + part;
    at += size;
  }
  return bytes;
}

}  // namespace detail

// The bytes that `data` (an input as laid out above) puts on a connection
// to the objects of `keys`, with `markers` replaced in its body.
inline Wire buildWire(const uint8_t* data, size_t size, const ObjectKeys& keys,
                      const Markers& markers) {
  using namespace giopwire;
  Wire wire;
  if (size < kPrefixSize) {
    // Too short to say anything: sent as it stands.
    wire.bytes.assign(reinterpret_cast<const char*>(data), size);
    return wire;
  }
  const Target target = static_cast<Target>(data[0] & 0x03);
  std::string key = keys.key[target];
  switch ((data[0] >> 2) & 0x03) {
    case 1:
      if (!key.empty()) {
        key.back() = static_cast<char>(key.back() ^ 0x01);
      }
      break;
    case 2:
      key.clear();
      break;
    case 3:
      key.push_back('\x01');
      break;
  }
  const std::vector<std::string>& table = operations(target);
  const std::string& operation = table[data[1] % table.size()];
  uint8_t major = 1;
  uint8_t minor = static_cast<uint8_t>(data[2] & 0x03);
  if (minor == 3) {
    major = static_cast<uint8_t>((data[2] >> 2) & 0x03);
    minor = static_cast<uint8_t>(data[2] >> 4);
  }
  const uint8_t flags = data[3];
  const bool little = (flags & kLittleEndian) != 0;
  std::string body(reinterpret_cast<const char*>(data + kPrefixSize), size - kPrefixSize);
  // Salts first: a tag that a marker brings in may hold "5301" by chance.
  detail::quickenSalts(body);
  detail::replaceAll(body, markers, little);

  uint8_t type = kRequest;
  if ((flags & kOtherMessageType) != 0) {
    type = data[6] < 8 ? data[6] : 0x2a;
  }
  const uint8_t headerFlags = little ? kFlagLittleEndian : 0;
  size_t chunk = 0;
  if ((flags & kFragmented) != 0) {
    chunk = 8 * ((data[4] & 0x7f) == 0 ? 1 : (data[4] & 0x7f)) + ((data[4] & 0x80) != 0 ? 3 : 0);
  }
  const int copies = (flags & kSentTwice) != 0 ? 2 : 1;
  for (int copy = 0; copy < copies; ++copy) {
    const uint32_t requestId = kFirstRequestId + static_cast<uint32_t>(copy);
    std::string message;
    switch (type) {
      case kRequest:
        message = detail::requestMessage(major, minor, little, requestId,
                                         (flags & kResponseExpected) != 0, key, operation,
                                         (flags & kVersionContext) != 0, data[7], body);
        break;
      case kLocateRequest:
        message = detail::locateRequestMessage(major, minor, little, requestId, key);
        break;
      case kCancelRequest: {
        CdrWriter out(little);
        out.ulong(requestId);
        message = out.bytes();
        break;
      }
      default:
        message = body;
        break;
    }
    wire.bytes += detail::frame(major, minor, headerFlags, type, requestId, message, chunk);
  }

  if ((flags & kSizeChanged) != 0 && wire.bytes.size() >= kHeaderSize) {
    MessageHeader header;
    decodeHeader(wire.bytes, header);
    const int8_t change = static_cast<int8_t>(data[5]);
    header.size = static_cast<uint32_t>(static_cast<int64_t>(header.size) + change);
    wire.bytes.replace(0, kHeaderSize, encodeHeader(header));
  }
  if ((flags & kTruncated) != 0) {
    const size_t cut = static_cast<size_t>(data[5]) + 1;
    wire.bytes.resize(wire.bytes.size() > cut ? wire.bytes.size() - cut : 0);
  }
  // A message said to be longer than it is leaves the server waiting; one
  // said to be shorter makes its tail the next message, which may claim
  // anything.
  const bool whole = (flags & (kSizeChanged | kTruncated)) == 0;
  const bool known = major == 1 && minor <= 2;
  const bool answered =
      (type == kRequest && (flags & kResponseExpected) != 0) || type == kLocateRequest;
  wire.expectReply = whole && known && answered;
  return wire;
}

}  // namespace giopfuzz
