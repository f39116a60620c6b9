// One exchange with a GIOP server over a fresh loopback TCP connection:
// send bytes, then read until the server answers request 1, ends the
// connection, or takes too long. Used by the request fuzzer and the replay
// test; neither has an ORB of its own on this road.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <string>

#include "fuzz/giop/GiopFuzzInput.h"
#include "fuzz/giop/GiopWire.h"

namespace giopfuzz {

enum class Outcome {
  kReply,            // a Reply or LocateReply to request 1
  kMessageError,     // the server refused the bytes
  kCloseConnection,  // the server said it closes
  kClosed,           // the connection ended without a word
  kNoConnection,     // nothing listens on the port
  kTimedOut,         // no answer and no end in time: the server hangs
};

inline const char* outcomeName(Outcome outcome) {
  switch (outcome) {
    case Outcome::kReply:
      return "reply";
    case Outcome::kMessageError:
      return "MessageError";
    case Outcome::kCloseConnection:
      return "CloseConnection";
    case Outcome::kClosed:
      return "closed";
    case Outcome::kNoConnection:
      return "no connection";
    case Outcome::kTimedOut:
      return "timed out";
  }
  return "?";
}

struct Exchange {
  Outcome outcome = Outcome::kClosed;
  uint8_t messageType = 0;  // of the reply
  giopwire::ReplyHead head;
  std::string message;  // the reply, header included
};

namespace detail {

inline int connectLoopback(uint16_t port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    return -1;
  }
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    ::close(fd);
    return -1;
  }
  const int one = 1;
  ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  // Closed by a reset, not by the usual handshake: thousands of connections
  // a second would otherwise use up the local ports in TIME_WAIT.
  const linger abortive{1, 0};
  ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &abortive, sizeof abortive);
  return fd;
}

// Sends all of `bytes`; false when the server ended the connection first
// (which is an answer too).
inline bool sendAll(int fd, const std::string& bytes) {
  size_t sent = 0;
  while (sent < bytes.size()) {
    const ssize_t n = ::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      return false;
    }
    sent += static_cast<size_t>(n);
  }
  return true;
}

// Reads what has arrived into `buffer`, waiting until `deadline`. 1 when
// bytes came, 0 at the end of the connection, -1 at the deadline.
inline int readSome(int fd, std::string& buffer, std::chrono::steady_clock::time_point deadline) {
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                          deadline - std::chrono::steady_clock::now())
                          .count();
    if (left <= 0) {
      return -1;
    }
    pollfd wait{fd, POLLIN, 0};
    const int ready = ::poll(&wait, 1, static_cast<int>(left));
    if (ready < 0 && errno == EINTR) {
      continue;
    }
    if (ready <= 0) {
      continue;
    }
    char chunk[16384];
    const ssize_t n = ::recv(fd, chunk, sizeof chunk, 0);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      return 0;  // end, or reset by the server
    }
    buffer.append(chunk, static_cast<size_t>(n));
    return 1;
  }
}

}  // namespace detail

// Sends `wire` to the server on `port` and reads its answer. With
// wire.expectReply the server has `timeout` to answer request 1 or end the
// connection; otherwise the connection is half-closed at once and the
// server has `timeout` to end it (a reply to request 1 ends the wait
// early). Messages of other requests, and fragments, are passed over.
inline Exchange exchange(uint16_t port, const Wire& wire, std::chrono::milliseconds timeout) {
  using namespace giopwire;
  Exchange result;
  const int fd = detail::connectLoopback(port);
  if (fd < 0) {
    result.outcome = Outcome::kNoConnection;
    return result;
  }
  const bool sent = detail::sendAll(fd, wire.bytes);
  if (sent && !wire.expectReply) {
    ::shutdown(fd, SHUT_WR);
  }
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  std::string buffer;
  for (;;) {
    // Whole messages first.
    MessageHeader header;
    while (buffer.size() >= kHeaderSize) {
      if (!decodeHeader(buffer, header)) {
        result.outcome = Outcome::kMessageError;  // not GIOP at all
        ::close(fd);
        return result;
      }
      if (buffer.size() - kHeaderSize < header.size) {
        break;
      }
      const std::string message = buffer.substr(0, kHeaderSize + header.size);
      buffer.erase(0, message.size());
      if (header.type == kMessageError || header.type == kCloseConnection) {
        result.outcome =
            header.type == kMessageError ? Outcome::kMessageError : Outcome::kCloseConnection;
        result.messageType = header.type;
        ::close(fd);
        return result;
      }
      ReplyHead head;
      if ((header.type == kReply || header.type == kLocateReply) &&
          decodeReplyHead(message, head) && head.requestId == kFirstRequestId) {
        result.outcome = Outcome::kReply;
        result.messageType = header.type;
        result.head = head;
        result.message = message;
        ::close(fd);
        return result;
      }
    }
    const int got = detail::readSome(fd, buffer, deadline);
    if (got == 0) {
      result.outcome = Outcome::kClosed;
      break;
    }
    if (got < 0) {
      result.outcome = Outcome::kTimedOut;
      break;
    }
  }
  ::close(fd);
  return result;
}

// A well-formed GIOP 1.2 request of `operation` on the object `key` with
// the CDR-encoded (little-endian) `arguments`, expecting a response.
inline Wire request(const std::string& key, const std::string& operation,
                    const std::string& arguments = std::string()) {
  Wire wire;
  const std::string message = detail::requestMessage(1, 2, true, kFirstRequestId, true, key,
                                                     operation, false, 0, arguments);
  wire.bytes = detail::frame(1, 2, giopwire::kFlagLittleEndian, giopwire::kRequest, kFirstRequestId,
                             message, 0);
  wire.expectReply = true;
  return wire;
}

// Whether `result` is a reply that carries the operation's result.
inline bool succeeded(const Exchange& result) {
  return result.outcome == Outcome::kReply && result.messageType == giopwire::kReply &&
         result.head.status == giopwire::kNoException;
}

// Asks the manager (object key "KMS.KMSMgr") on `port` for its three facets
// and takes their object keys from the references it returns. False when
// one cannot be had.
inline bool fetchObjectKeys(uint16_t port, ObjectKeys& keys, std::chrono::milliseconds timeout) {
  keys.key[kManager] = "KMS.KMSMgr";
  const std::pair<Target, const char*> getters[] = {{kControl, "getControlFacet"},
                                                    {kModifiable, "getModifiableFacet"},
                                                    {kQuery, "getQueryableFacet"}};
  for (const auto& getter : getters) {
    const Exchange result = exchange(port, request(keys.key[kManager], getter.second), timeout);
    if (!succeeded(result)) {
      return false;
    }
    giopwire::MessageHeader header;
    giopwire::decodeHeader(result.message, header);
    giopwire::CdrReader in(result.message, result.head.bodyOffset, header.littleEndian());
    if (!giopwire::readObjectKey(in, keys.key[getter.first])) {
      return false;
    }
  }
  return true;
}

}  // namespace giopfuzz
