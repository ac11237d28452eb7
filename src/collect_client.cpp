// collect_client.cpp: the request socket, the connection of a run, and every byte that goes over it.
//
// All of it belongs to the serving thread, but for the settings and the counters. The connection never blocks: whatever
// waits does so in waitUnlessStopped, which a limit or a stop of the service ends.
//
//   send buffer  message header: length (4) | type (4) | sequence (4) | payload (1024)
//
// The layouts of requests, messages and records are in CollectClient.h.
#include "collect_client.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cstring>

#include "Kep.hpp"
#include "ZuBuffer.hpp"
#include "ZuPrint.hpp"
#include "ZuSock.hpp"
#include "ZuWrite.hpp"
#include "collect_stop.hpp"
#include "kep/ZuMem.h"
#include "kep/platform.h"

namespace {

constexpr int kRequestPort = 9099;
constexpr int32_t kRequestSize = 16;
constexpr uint32_t kRequestTypeCount = 4;
constexpr int32_t kFailurePauseMs = 1000;

constexpr int32_t kMessageHeaderSize = 12;
constexpr int32_t kPayloadSize = 1024;
static_assert(kMessageHeaderSize + kPayloadSize == 1036, "one send buffer");

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

int32_t l_unacknowledged;  // messages of the run, so far

CollectStats l_stats;  // read by any thread, without a lock

// ---- settings, which any thread may make

// How long each may take, in milliseconds; 0: for ever.
int32_t l_connectMs;
int32_t l_sendMs;
int32_t l_ackMs;

bool l_isSilent;

// Under the lock: where the next request socket is bound, and where connections leave from.
in_addr_t l_listenHost = INADDR_ANY;
int32_t l_listenPort = kRequestPort;
in_addr_t l_ownHost = INADDR_ANY;
bool l_hasListened;

template <typename T>
T read(const T &value) {
  return __atomic_load_n(&value, __ATOMIC_RELAXED);
}

template <typename T>
void set(T *out, T value) {
  __atomic_store_n(out, value, __ATOMIC_RELAXED);
}

// ---- texts

void say(const char *text) {
  if (!isSilent()) printPastSink("%s\n", text);
}

// ---- sockets

sockaddr_in addressOf(in_addr_t host, int32_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = host;
  return address;
}

bool bindTo(int fd, const sockaddr_in &address) {
  return bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
}

Deadline deadlineFor(int32_t limitMs) { return Deadline(limitMs > 0 ? limitMs : Deadline::kNoLimit); }

bool leaveFromOwnAddress(int fd) {
  in_addr_t host;
  {
    const Locked locked;
    host = l_ownHost;
  }
  return host == INADDR_ANY || bindTo(fd, addressOf(host, 0));
}

bool connectTo(int fd, const sockaddr_in &address) {
  if (isStopped()) return false;
  const Deadline deadline = deadlineFor(read(l_connectMs));
  if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0) return true;
  if ((errno != EINTR && errno != EINPROGRESS) || !waitUnlessStopped(deadline, fd, POLLOUT)) return false;
  int error = 0;
  socklen_t size = sizeof error;
  return getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) == 0 && error == 0;
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

bool openConnection(const char *addrText, int32_t port) {
  closeConnection();  // an earlier run that failed leaves its own behind
  const int fd = kep::aboveStandard(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (fd < 0) return false;
  const in_addr_t host = inet_addr(addrText);
  if (host == INADDR_NONE || !leaveFromOwnAddress(fd) || !connectTo(fd, addressOf(host, port)) || meetsItself(fd)) {
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
  if (l_fd == 0 || isStopped()) return false;
  const size_t whole = size;
  const Deadline deadline = deadlineFor(read(l_sendMs));
  while (size > 0) {
    const ssize_t sent = send(l_fd, data, size, MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent < 0 && errno == EAGAIN) {
      if (!deadline.isOver() && waitUnlessStopped(deadline, l_fd, POLLOUT)) continue;
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

// One receive, of at most 16 bytes that nobody looks at. Returns their number, 0 for a connection closed by the server,
// or -1. A socket can be called ready and yet have nothing to give.
ssize_t receiveAck() {
  const Deadline deadline = deadlineFor(read(l_ackMs));
  uint8_t ack[kAckSize];
  while (waitUnlessStopped(deadline, l_fd, POLLIN)) {
    const ssize_t size = recv(l_fd, ack, sizeof ack, 0);
    if (size >= 0) return size;
    if (errno == EINTR) continue;
    if (errno != EAGAIN) return -1;
    if (deadline.isOver()) break;
  }
  closeConnection();
  return -1;
}

// ---- the send buffer

bool makeBuffer() {
  if (!l_buffer) l_buffer = static_cast<uint8_t *>(ZuMem_Malloc(kCollectModule, kMessageHeaderSize + kPayloadSize));
  return l_buffer != nullptr;
}

int32_t room() { return kPayloadSize - l_bufPos; }

// Where the next `size` bytes of payload go.
uint8_t *take(int32_t size) {
  assert(size <= room());
  uint8_t *out = l_buffer + kMessageHeaderSize + l_bufPos;
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
  const bool mayStop = isServing();  // elsewhere the socket is the host's, and waits as the host wants it to
  const int flags = MSG_TRUNC | (mayStop ? MSG_DONTWAIT : 0);  // the true size: a longer datagram is no good one cut
  socklen_t senderSize = sizeof *sender;
  ssize_t size;
  do {
    if (mayStop && !waitUnlessStopped(Deadline(Deadline::kNoLimit), fd, POLLIN)) return -1;
    size = recvfrom(fd, request, kRequestSize, flags, reinterpret_cast<sockaddr *>(sender), &senderSize);
  } while (size < 0 && (errno == EINTR || (mayStop && errno == EAGAIN)));
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

void countRun(bool isDone) { countUp(isDone && l_unacknowledged == 0 ? l_stats.finishedRuns : l_stats.failedRuns); }

bool isSilent() { return read(l_isSilent); }

void dropRun() {
  closeConnection();
  ZuMem_Free(kCollectModule, l_buffer);
  l_buffer = nullptr;
  l_bufPos = 0;
}

int CollectClient_Init(void) {
  const Guarded guard(__func__);
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  if (!bindTo(fd, addressOf(l_listenHost, l_listenPort))) {
    close(fd);
    return -1;
  }
  l_ownHost = l_listenHost;
  l_hasListened = true;
  return fd;
}

int32_t CollectClient_WaitFor(int fd, uint8_t, uint8_t, uint32_t *typeOut, char *addrTextOut, int32_t *portOut) {
  const Waiting mark(__func__);
  if (fd < 0) return -1;
  uint8_t request[kRequestSize] = {};  // what a shorter datagram does not bring is 0
  sockaddr_in sender{};
  const ssize_t size = receiveRequest(fd, request, &sender);
  if (size < 0) {
    pauseUnlessStopped(kFailurePauseMs);  // a socket that keeps failing must not make its server spin
    return -1;
  }
  if (!isSilent()) printPastSink("size=%ld\n", static_cast<long>(size));
  countUp(l_stats.datagrams);

  const auto length = loadBig<uint32_t>(request), type = loadBig<uint32_t>(request + 4);
  const auto sequence = loadBig<uint32_t>(request + 8), port = loadBig<uint32_t>(request + 12);
  if (size > kRequestSize || static_cast<int32_t>(length) != size || type >= kRequestTypeCount ||
      !canBeOneHost(sender.sin_addr)) {
    countUp(l_stats.dropped);
    return -1;
  }
  if (typeOut) *typeOut = type;
  if (addrTextOut) inet_ntop(AF_INET, &sender.sin_addr, addrTextOut, INET_ADDRSTRLEN);
  if (portOut) *portOut = static_cast<int32_t>(port);
  return static_cast<int32_t>(sequence);
}

int32_t CollectClient_Start(const char *addrText, int32_t port) {
  const Waiting mark(__func__);
  if (!addrText || !openConnection(addrText, port)) {
    say("connect error.");
    return 0;
  }
  if (!makeBuffer()) {
    closeConnection();
    return 0;
  }
  l_bufPos = 0;
  l_unacknowledged = 0;
  CollectClient_SetType(0);
  return 1;
}

void CollectClient_SetType(int32_t type) {
  const Waiting mark(__func__);
  if (l_buffer) storeBig(l_buffer + 4, static_cast<uint32_t>(type));
}

int32_t CollectClient_AppendInt(int32_t value) {
  const Waiting mark(__func__);
  if (!l_buffer) return 0;
  constexpr int32_t kSize = 4;
  if (room() >= kSize) storeBig(take(kSize), static_cast<uint32_t>(value));
  return l_bufPos;
}

void CollectClient_AppendString(const char *text) {
  const Waiting mark(__func__);
  constexpr int32_t kLengthSize = 2;
  if (!l_buffer || !text) return;
  const size_t length = std::strlen(text);
  if (room() < kLengthSize || length > static_cast<size_t>(room() - kLengthSize)) return;
  storeBig(take(kLengthSize), static_cast<uint16_t>(length));
  CollectClient_AppendBuffer(text, static_cast<int32_t>(length));
}

void CollectClient_AppendBuffer(const void *data, int32_t length) {
  const Waiting mark(__func__);
  if (!l_buffer || !data || length < 0 || length > room()) return;
  std::memcpy(take(length), data, static_cast<size_t>(length));
}

void CollectClient_CollectInt(int32_t index, int32_t section, int32_t key, int32_t value) {
  const Waiting mark(__func__);
  if (!l_buffer) return;
  storeBig(beginRecord(kIntSize, kIntRecord, index, section, key), static_cast<uint32_t>(value));
}

void CollectClient_CollectLong(int32_t index, int32_t section, int32_t key, int64_t value) {
  const Waiting mark(__func__);
  if (!l_buffer) return;
  storeBig(beginRecord(kLongSize, kLongRecord, index, section, key), static_cast<uint64_t>(value));
}

int32_t CollectClient_CollectString(int32_t index, int32_t section, int32_t key, const char *text, int32_t length) {
  const Waiting mark(__func__);
  if (!l_buffer || !text || length < 0) return 0;
  if (length == 0) length = static_cast<int32_t>(strnlen(text, INT32_MAX));
  return putPiece(kStringPiece, index, section, key, text, length);
}

int32_t CollectClient_CollectBuffer(int32_t index, int32_t section, int32_t key, const void *data, int32_t length) {
  const Waiting mark(__func__);
  if (!l_buffer || !data || length <= 0) return 0;
  return putPiece(kBufferPiece, index, section, key, data, length);
}

int32_t CollectClient_Flush(int32_t sequence) {
  const Waiting mark(__func__);
  if (!l_buffer) return 0;
  const int32_t size = kMessageHeaderSize + l_bufPos;
  if (sequence == 0) sequence = _sequence = static_cast<int32_t>(static_cast<uint32_t>(_sequence) + 1);
  storeBig(l_buffer, static_cast<uint32_t>(size));
  storeBig(l_buffer + 8, static_cast<uint32_t>(sequence));
  l_bufPos = 0;  // before the send: a message that fails to go out is dropped, never sent twice
  ++l_unacknowledged;
  if (!sendAll(l_buffer, static_cast<size_t>(size))) {
    say("send error.");
    return 0;
  }
  const ssize_t ackSize = receiveAck();
  if (ackSize < 0) {
    say("recv error.");
    return 0;
  }
  if (ackSize > 0) {
    --l_unacknowledged;
    countUp(l_stats.messages);
  }
  return 1;
}

void CollectClient_End(void) {
  const Waiting mark(__func__);
  if (!l_buffer) return;
  CollectClient_Flush(0);
  dropRun();
}

void CollectClient_SetTimeout(int32_t connectMs, int32_t sendMs, int32_t ackMs) {
  const Waiting mark(__func__);
  set(&l_connectMs, connectMs);
  set(&l_sendMs, sendMs);
  set(&l_ackMs, ackMs);
}

void CollectClient_SetTrace(int32_t on) {
  const Waiting mark(__func__);
  set(&l_isSilent, on == 0);
}

int32_t Collect_SetAddress(const char *addressText, int32_t port) {
  const Guarded guard(__func__);
  in_addr host = {INADDR_ANY};
  if (port < 0 || port > UINT16_MAX || (addressText && inet_pton(AF_INET, addressText, &host) != 1)) return 0;
  l_listenHost = host.s_addr;
  l_listenPort = port == 0 ? kRequestPort : port;
  if (!l_hasListened) l_ownHost = l_listenHost;
  return 1;
}

void Collect_GetStats(CollectStats *out) {
  if (!out) return;
  *out = {read(l_stats.datagrams),    read(l_stats.dropped),    read(l_stats.refused),
          read(l_stats.finishedRuns), read(l_stats.failedRuns), read(l_stats.messages)};
}
