// GIOP and CDR at the byte level, as the request fuzzer and its replay test
// write and read them without an ORB: a CDR writer and reader, the 12-byte
// message header, reply headers of GIOP 1.0 to 1.2, and the object key of an
// IIOP profile.
//
// Alignment in CDR is counted from the start of the GIOP message (or of an
// encapsulation); writers and readers take the offset of their first byte
// within that unit as `origin`. Readers never throw: a read past the end
// sets ok() false and gives zero values.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace giopwire {

enum MessageType : uint8_t {
  kRequest = 0,
  kReply = 1,
  kCancelRequest = 2,
  kLocateRequest = 3,
  kLocateReply = 4,
  kCloseConnection = 5,
  kMessageError = 6,
  kFragment = 7,
};

enum ReplyStatus : uint32_t {
  kNoException = 0,
  kUserException = 1,
  kSystemException = 2,
  kLocationForward = 3,
};

constexpr size_t kHeaderSize = 12;
constexpr uint8_t kFlagLittleEndian = 0x01;
constexpr uint8_t kFlagMoreFragments = 0x02;

class CdrWriter {
 public:
  explicit CdrWriter(bool littleEndian, size_t origin = 0)
      : m_little(littleEndian), m_origin(origin) {}

  void align(size_t boundary) {
    while ((m_origin + m_bytes.size()) % boundary != 0) {
      m_bytes.push_back('\0');
    }
  }
  void octet(uint8_t value) { m_bytes.push_back(static_cast<char>(value)); }
  void ushort(uint16_t value) { put(value, 2); }
  void ulong(uint32_t value) { put(value, 4); }
  // A string with its terminating NUL counted in the length.
  void string(const std::string& text) {
    ulong(static_cast<uint32_t>(text.size() + 1));
    m_bytes.append(text);
    m_bytes.push_back('\0');
  }
  void octets(const std::string& bytes) {
    ulong(static_cast<uint32_t>(bytes.size()));
    m_bytes.append(bytes);
  }
  void raw(const std::string& bytes) { m_bytes.append(bytes); }

  const std::string& bytes() const { return m_bytes; }
  bool littleEndian() const { return m_little; }

 private:
  void put(uint64_t value, size_t width) {
    align(width);
    for (size_t i = 0; i < width; ++i) {
      const size_t shift = 8 * (m_little ? i : width - 1 - i);
      m_bytes.push_back(static_cast<char>((value >> shift) & 0xff));
    }
  }

  bool m_little;
  size_t m_origin;
  std::string m_bytes;
};

class CdrReader {
 public:
  // Reads `data` from `position`; `origin` is the offset in `data` that
  // alignment counts from.
  CdrReader(const std::string& data, size_t position, bool littleEndian, size_t origin = 0)
      : m_data(data), m_pos(position), m_little(littleEndian), m_origin(origin) {}

  bool ok() const { return m_ok; }
  size_t position() const { return m_pos; }
  bool littleEndian() const { return m_little; }

  uint8_t octet() { return static_cast<uint8_t>(get(1, 1)); }
  uint16_t ushort() { return static_cast<uint16_t>(get(2, 2)); }
  uint32_t ulong() { return static_cast<uint32_t>(get(4, 4)); }
  std::string string() {
    const uint32_t length = ulong();
    std::string text = take(length);
    if (!m_ok || text.empty() || text.back() != '\0') {
      m_ok = false;
      return std::string();
    }
    text.pop_back();
    return text;
  }
  std::string octets() { return take(ulong()); }
  void align(size_t boundary) {
    while (m_ok && (m_pos - m_origin) % boundary != 0) {
      take(1);
    }
  }

 private:
  uint64_t get(size_t width, size_t boundary) {
    align(boundary);
    const std::string bytes = take(width);
    uint64_t value = 0;
    for (size_t i = 0; i < bytes.size(); ++i) {
      const size_t shift = 8 * (m_little ? i : width - 1 - i);
      value |= static_cast<uint64_t>(static_cast<uint8_t>(bytes[i])) << shift;
    }
    return value;
  }
  std::string take(size_t count) {
    if (!m_ok || count > m_data.size() - m_pos) {
      m_ok = false;
      return std::string();
    }
    std::string bytes = m_data.substr(m_pos, count);
    m_pos += count;
    return bytes;
  }

  const std::string& m_data;
  size_t m_pos;
  bool m_little;
  size_t m_origin;
  bool m_ok = true;
};

struct MessageHeader {
  uint8_t major = 1;
  uint8_t minor = 2;
  uint8_t flags = 0;
  uint8_t type = kRequest;
  uint32_t size = 0;  // bytes after the header

  bool littleEndian() const { return (flags & kFlagLittleEndian) != 0; }
};

inline std::string encodeHeader(const MessageHeader& header) {
  CdrWriter out(header.littleEndian());
  out.raw("GIOP");
  out.octet(header.major);
  out.octet(header.minor);
  out.octet(header.flags);
  out.octet(header.type);
  out.ulong(header.size);
  return out.bytes();
}

// False when `bytes` (at least 12) do not start with "GIOP". In GIOP 1.0
// the flags octet is only the byte order, which is all that is read here.
inline bool decodeHeader(const std::string& bytes, MessageHeader& header) {
  if (bytes.size() < kHeaderSize || bytes.compare(0, 4, "GIOP") != 0) {
    return false;
  }
  header.major = static_cast<uint8_t>(bytes[4]);
  header.minor = static_cast<uint8_t>(bytes[5]);
  header.flags = static_cast<uint8_t>(bytes[6]);
  header.type = static_cast<uint8_t>(bytes[7]);
  CdrReader in(bytes, 8, header.littleEndian());
  header.size = in.ulong();
  return true;
}

// The head of a Reply or LocateReply message.
struct ReplyHead {
  uint32_t requestId = 0;
  uint32_t status = 0;
  size_t bodyOffset = 0;  // offset of the body in the message
};

// Reads the reply header of `message` (header included). A LocateReply has
// the same two numbers in every version. False when the message is too short.
inline bool decodeReplyHead(const std::string& message, ReplyHead& head) {
  MessageHeader header;
  if (!decodeHeader(message, header)) {
    return false;
  }
  CdrReader in(message, kHeaderSize, header.littleEndian());
  const bool twelve = header.major == 1 && header.minor >= 2;
  if (header.type == kReply && !twelve) {
    const uint32_t contexts = in.ulong();
    for (uint32_t i = 0; i < contexts && in.ok(); ++i) {
      in.ulong();
      in.octets();
    }
  }
  head.requestId = in.ulong();
  head.status = in.ulong();
  if (header.type == kReply && twelve) {
    const uint32_t contexts = in.ulong();
    for (uint32_t i = 0; i < contexts && in.ok(); ++i) {
      in.ulong();
      in.octets();
    }
    // A 1.2 body starts on an 8-byte boundary, when there is one.
    if (in.ok() && in.position() < message.size()) {
      in.align(8);
    }
  }
  head.bodyOffset = in.position();
  return in.ok();
}

// The host, port and object key of the first IIOP profile of the object
// reference at `in` (type id, then the tagged profiles). False when there
// is none or the reference cannot be read.
inline bool readObjectKey(CdrReader& in, std::string& key, std::string* host = nullptr,
                          uint16_t* port = nullptr) {
  constexpr uint32_t kTagInternetIop = 0;
  in.string();  // type id
  const uint32_t profiles = in.ulong();
  for (uint32_t i = 0; i < profiles && in.ok(); ++i) {
    const uint32_t tag = in.ulong();
    const std::string body = in.octets();
    if (!in.ok() || tag != kTagInternetIop || body.empty()) {
      continue;
    }
    // The profile is an encapsulation: its first octet is its byte order.
    CdrReader profile(body, 1, (body[0] & 1) != 0, 0);
    profile.octet();  // IIOP version
    profile.octet();
    const std::string profileHost = profile.string();
    const uint16_t profilePort = profile.ushort();
    const std::string objectKey = profile.octets();
    if (profile.ok()) {
      key = objectKey;
      if (host != nullptr) {
        *host = profileHost;
      }
      if (port != nullptr) {
        *port = profilePort;
      }
      return true;
    }
  }
  return false;
}

// The same for a stringified reference "IOR:<hex>".
inline bool objectKeyOfIor(const std::string& ior, std::string& key, std::string* host = nullptr,
                           uint16_t* port = nullptr) {
  if (ior.compare(0, 4, "IOR:") != 0) {
    return false;
  }
  std::string bytes;
  for (size_t i = 4; i + 1 < ior.size(); i += 2) {
    const std::string pair = ior.substr(i, 2);
    if (pair.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
      break;
    }
    bytes.push_back(static_cast<char>(std::stoi(pair, nullptr, 16)));
  }
  if (bytes.empty()) {
    return false;
  }
  CdrReader in(bytes, 1, (bytes[0] & 1) != 0, 0);
  return readObjectKey(in, key, host, port);
}

}  // namespace giopwire
