// collect_client.cpp: the request socket, the connection of a run, and every byte that goes over it.
//
//   send buffer  message header: length (4) | type (4) | sequence (4) | payload (1024)
//
// The layouts of requests, messages and records are in CollectClient.h.
#include "collect_client.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cstring>

#include "ZuBuffer.hpp"
#include "ZuPrint.hpp"
#include "ZuSock.hpp"
#include "kep/ZuMem.h"
#include "kep/platform.h"

namespace {

constexpr int kRequestPort = 9099;
constexpr int32_t kRequestSize = 16;
constexpr uint32_t kRequestTypeCount = 4;
constexpr uint32_t kFailurePauseMs = 1000;

constexpr int32_t kModuleId = 100;  // of tracked memory
constexpr int32_t kHeaderSize = 12;
constexpr int32_t kPayloadSize = 1024;
static_assert(kHeaderSize + kPayloadSize == 1036, "one send buffer");

constexpr int32_t kAckSize = 16;  // an acknowledgement has at most so many bytes

constexpr uint8_t kIntRecord = 0x81;
constexpr uint8_t kLongRecord = 0x82;
constexpr uint8_t kStringPiece = 0x03;
constexpr uint8_t kBufferPiece = 0x04;
constexpr uint8_t kLastPiece = 0x80;
constexpr int32_t kIntSize = 17;
constexpr int32_t kLongSize = 21;
constexpr int32_t kPieceHeadSize = 15;
constexpr int32_t kSmallestPieceRoom = 25;  // a piece is begun only where 10 of its bytes fit

int l_fd;           // the connection of the run; 0 for none
uint8_t *l_buffer;  // the send buffer; NULL outside a run
int32_t l_bufPos;   // payload bytes gathered
int32_t _sequence;  // the last automatic sequence; runs on from run to run

// How long each may take, in milliseconds; 0: for ever.
int32_t l_connectMs;
int32_t l_sendMs;
int32_t l_ackMs;

CollectStats l_stats;

// ---- sockets

sockaddr_in addressOf(in_addr_t host, int32_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = host;
  return address;
}

Deadline deadlineFor(int32_t limitMs) { return Deadline(limitMs > 0 ? limitMs : Deadline::kNoLimit); }

// With a limit the socket must not block; without one, an interrupted connect still goes on by itself.
bool connectTo(int fd, const sockaddr_in &address) {
  const Deadline deadline = deadlineFor(l_connectMs);
  if (deadline.isSet() && fcntl(fd, F_SETFL, O_NONBLOCK) != 0) return false;
  if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
    if ((errno != EINTR && errno != EINPROGRESS) || !deadline.waitFor(fd, POLLOUT)) return false;
    int error = 0;
    socklen_t size = sizeof error;
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) != 0 || error != 0) return false;
  }
  return !deadline.isSet() || fcntl(fd, F_SETFL, 0) == 0;
}

// Where nobody listens, the system can give a connection of the board to itself the very port that it goes to, and the
// board would acknowledge its own messages. A connection whose ends cannot be told is over already, as its first
// message will find out.
bool meetsItself(int fd) {
  sockaddr_in own{}, peer{};
  socklen_t ownSize = sizeof own, peerSize = sizeof peer;
  if (getsockname(fd, reinterpret_cast<sockaddr *>(&own), &ownSize) != 0) return false;
  if (getpeername(fd, reinterpret_cast<sockaddr *>(&peer), &peerSize) != 0) return false;
  return own.sin_addr.s_addr == peer.sin_addr.s_addr && own.sin_port == peer.sin_port;
}

// Closing with an acknowledgement unread, or part of one, resets the connection, and what the system still holds back
// of the last messages is lost; the end of the data pushes out before that what the peer's window takes.
void closeConnection() {
  if (l_fd == 0) return;
  shutdown(l_fd, SHUT_WR);
  close(l_fd);
  l_fd = 0;
}

// The host may run with descriptors 0 to 2 closed. A connection must not take their place: what the host prints would
// go out by it.
int aboveStandard(int fd) {
  constexpr int kFirstOther = 3;
  if (fd < 0 || fd >= kFirstOther) return fd;
  const int moved = fcntl(fd, F_DUPFD, kFirstOther);
  close(fd);
  return moved;
}

bool openConnection(const char *addrText, int32_t port) {
  closeConnection();  // an earlier run that failed leaves its own behind
  const int fd = aboveStandard(socket(AF_INET, SOCK_STREAM, 0));
  if (fd < 0) return false;
  const in_addr_t host = inet_addr(addrText);
  if (host == INADDR_NONE || !connectTo(fd, addressOf(host, port)) || meetsItself(fd)) {
    close(fd);
    return false;
  }
  l_fd = fd;
  return true;
}

// A closed connection is a result here and must not raise a signal in the host. After a failed run whose successor
// could not connect there is a buffer but no connection.
// Nothing may follow a message of which only a part went out, so such a failure closes the connection.
bool sendAll(const uint8_t *data, size_t size) {
  if (l_fd == 0) return false;
  const size_t whole = size;
  const Deadline deadline = deadlineFor(l_sendMs);
  const int flags = MSG_NOSIGNAL | (deadline.isSet() ? MSG_DONTWAIT : 0);
  while (size > 0) {
    const ssize_t sent = send(l_fd, data, size, flags);
    if (sent < 0 && errno == EINTR) continue;
    if (sent < 0 && errno == EAGAIN && deadline.isSet()) {
      if (!deadline.isOver() && deadline.waitFor(l_fd, POLLOUT)) continue;
      closeConnection();  // given up: the rest of the run shall not wait for it again
    }
    if (sent <= 0) {
      if (size < whole) closeConnection();
      return false;
    }
    data += sent;
    size -= static_cast<size_t>(sent);
  }
  return true;
}

// One receive, of at most 16 bytes that nobody looks at. A connection closed by the server counts as acknowledged. With
// a limit only the wait may take time, never the receive: a socket can be called ready and yet have nothing to give.
bool receiveAck() {
  const Deadline deadline = deadlineFor(l_ackMs);
  const int flags = deadline.isSet() ? MSG_DONTWAIT : 0;
  uint8_t ack[kAckSize];
  while (!deadline.isSet() || deadline.waitFor(l_fd, POLLIN)) {
    if (recv(l_fd, ack, sizeof ack, flags) >= 0) return true;
    if (errno == EINTR) continue;
    if (errno != EAGAIN || !deadline.isSet()) return false;
    if (deadline.isOver()) break;
  }
  closeConnection();
  return false;
}

// ---- the send buffer

bool makeBuffer() {
  if (!l_buffer) l_buffer = static_cast<uint8_t *>(ZuMem_Malloc(kModuleId, kHeaderSize + kPayloadSize));
  return l_buffer != nullptr;
}

int32_t room() { return kPayloadSize - l_bufPos; }

// Where the next `size` bytes of payload go.
uint8_t *take(int32_t size) {
  assert(size <= room());
  uint8_t *out = l_buffer + kHeaderSize + l_bufPos;
  l_bufPos += size;
  return out;
}

// A failed flush is noticed by the driver at the end of the item; it has emptied the buffer all the same.
void flushUnlessRoomFor(int32_t size) {
  if (room() < size) CollectClient_Flush(0);
}

// Begins a record of `size` bytes: room for it, and the fields that every record has. Returns where the next one goes.
uint8_t *beginRecord(int32_t size, unsigned type, int32_t index, int32_t section, int32_t key) {
  flushUnlessRoomFor(size);
  uint8_t *out = storeBig(take(size), static_cast<uint8_t>(type));
  out = storeBig(out, static_cast<uint32_t>(index));
  out = storeBig(out, static_cast<uint32_t>(section));
  return storeBig(out, static_cast<uint32_t>(key));
}

// Writes one string or buffer record of as many bytes as fit and returns their number.
int32_t putPiece(uint8_t pieceType, int32_t index, int32_t section, int32_t key, const void *data, int32_t length) {
  flushUnlessRoomFor(kSmallestPieceRoom);
  const bool isLast = length <= room() - kPieceHeadSize;
  const int32_t taken = isLast ? length : room() - kPieceHeadSize;
  const unsigned type = isLast ? pieceType | kLastPiece : pieceType;
  uint8_t *out = beginRecord(kPieceHeadSize + taken, type, index, section, key);
  std::memcpy(storeBig(out, static_cast<uint16_t>(taken)), data, static_cast<size_t>(taken));
  return taken;
}

// ---- the request

// The size of the next datagram, of which at most 16 bytes are kept, or -1.
ssize_t receiveRequest(int fd, uint8_t *request, sockaddr_in *sender) {
  socklen_t senderSize = sizeof *sender;
  ssize_t size;
  do {
    // MSG_TRUNC: the true size, so that a longer datagram is not taken for a good one cut to 16 bytes.
    size = recvfrom(fd, request, kRequestSize, MSG_TRUNC, reinterpret_cast<sockaddr *>(sender), &senderSize);
  } while (size < 0 && errno == EINTR);
  return size;
}

// A datagram can claim any sender. What connects to 0.0.0.0 meets the board itself, past an access rule that refuses
// its loopback addresses.
bool canBeOneHost(in_addr address) {
  const in_addr_t host = ntohl(address.s_addr);
  return host >> 24 != 0 && !IN_MULTICAST(host) && host != INADDR_BROADCAST;
}

}  // namespace

CollectStats &collectStats() { return l_stats; }

int CollectClient_Init(void) {
  const int fd = socket(AF_INET, SOCK_DGRAM, 0);
  if (fd < 0) return -1;
  const sockaddr_in address = addressOf(htonl(INADDR_ANY), kRequestPort);
  if (bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

int32_t CollectClient_WaitFor(int fd, uint8_t, uint8_t, uint32_t *typeOut, char *addrTextOut, int32_t *portOut) {
  if (fd < 0) return -1;
  uint8_t request[kRequestSize] = {};  // what a shorter datagram does not bring is 0
  sockaddr_in sender{};
  const ssize_t size = receiveRequest(fd, request, &sender);
  if (size < 0) {
    VRK_Delay(kFailurePauseMs);  // a socket that keeps failing must not make its server spin
    return -1;
  }
  printPastSink("size=%ld\n", static_cast<long>(size));
  ++l_stats.datagrams;

  const auto length = loadBig<uint32_t>(request), type = loadBig<uint32_t>(request + 4);
  const auto sequence = loadBig<uint32_t>(request + 8), port = loadBig<uint32_t>(request + 12);
  if (size > kRequestSize || static_cast<int32_t>(length) != size || type >= kRequestTypeCount ||
      !canBeOneHost(sender.sin_addr)) {
    ++l_stats.dropped;
    return -1;
  }
  if (typeOut) *typeOut = type;
  if (addrTextOut) inet_ntop(AF_INET, &sender.sin_addr, addrTextOut, INET_ADDRSTRLEN);
  if (portOut) *portOut = static_cast<int32_t>(port);
  return static_cast<int32_t>(sequence);
}

int32_t CollectClient_Start(const char *addrText, int32_t port) {
  if (!addrText || !openConnection(addrText, port)) {
    printPastSink("connect error.\n");
    return 0;
  }
  if (!makeBuffer()) {
    closeConnection();
    return 0;
  }
  l_bufPos = 0;
  CollectClient_SetType(0);
  return 1;
}

void CollectClient_SetType(int32_t type) {
  if (l_buffer) storeBig(l_buffer + 4, static_cast<uint32_t>(type));
}

int32_t CollectClient_AppendInt(int32_t value) {
  if (!l_buffer) return 0;
  constexpr int32_t kSize = 4;
  if (room() >= kSize) storeBig(take(kSize), static_cast<uint32_t>(value));
  return l_bufPos;
}

void CollectClient_AppendString(const char *text) {
  constexpr int32_t kLengthSize = 2;
  if (!l_buffer || !text) return;
  const size_t length = std::strlen(text);
  if (room() < kLengthSize || length > static_cast<size_t>(room() - kLengthSize)) return;
  storeBig(take(kLengthSize), static_cast<uint16_t>(length));
  CollectClient_AppendBuffer(text, static_cast<int32_t>(length));
}

void CollectClient_AppendBuffer(const void *data, int32_t length) {
  if (!l_buffer || !data || length < 0 || length > room()) return;
  std::memcpy(take(length), data, static_cast<size_t>(length));
}

void CollectClient_CollectInt(int32_t index, int32_t section, int32_t key, int32_t value) {
  if (!l_buffer) return;
  storeBig(beginRecord(kIntSize, kIntRecord, index, section, key), static_cast<uint32_t>(value));
}

void CollectClient_CollectLong(int32_t index, int32_t section, int32_t key, int64_t value) {
  if (!l_buffer) return;
  storeBig(beginRecord(kLongSize, kLongRecord, index, section, key), static_cast<uint64_t>(value));
}

int32_t CollectClient_CollectString(int32_t index, int32_t section, int32_t key, const char *text, int32_t length) {
  if (!l_buffer || !text || length < 0) return 0;
  if (length == 0) length = static_cast<int32_t>(strnlen(text, INT32_MAX));
  return putPiece(kStringPiece, index, section, key, text, length);
}

int32_t CollectClient_CollectBuffer(int32_t index, int32_t section, int32_t key, const void *data, int32_t length) {
  if (!l_buffer || !data || length <= 0) return 0;
  return putPiece(kBufferPiece, index, section, key, data, length);
}

int32_t CollectClient_Flush(int32_t sequence) {
  if (!l_buffer) return 0;
  const int32_t size = kHeaderSize + l_bufPos;
  if (sequence == 0) sequence = _sequence = static_cast<int32_t>(static_cast<uint32_t>(_sequence) + 1);
  storeBig(l_buffer, static_cast<uint32_t>(size));
  storeBig(l_buffer + 8, static_cast<uint32_t>(sequence));
  l_bufPos = 0;  // before the send: a message that fails to go out is dropped, never sent twice
  if (!sendAll(l_buffer, static_cast<size_t>(size))) {
    printPastSink("send error.\n");
    return 0;
  }
  if (!receiveAck()) {
    printPastSink("recv error.\n");
    return 0;
  }
  ++l_stats.messages;
  return 1;
}

void CollectClient_End(void) {
  if (!l_buffer) return;
  CollectClient_Flush(0);
  closeConnection();
  ZuMem_Free(kModuleId, l_buffer);
  l_buffer = nullptr;
  l_bufPos = 0;
}

void CollectClient_SetTimeout(int32_t connectMs, int32_t sendMs, int32_t ackMs) {
  l_connectMs = connectMs;
  l_sendMs = sendMs;
  l_ackMs = ackMs;
}
