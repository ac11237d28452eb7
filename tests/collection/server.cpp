#include "collection/server.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "transport/own_network.hpp"

namespace wire {

std::string request(int64_t length, int64_t type, int64_t sequence, int64_t port) {
  return word(length) + word(type) + word(sequence) + word(port);
}

int32_t wordAt(const std::string &bytes, size_t offset) {
  uint32_t value = 0;
  for (size_t i = 0; i < 4; ++i) value = value << 8 | static_cast<uint8_t>(bytes.at(offset + i));
  return static_cast<int32_t>(value);
}

void Stream::putInt(int32_t index, int32_t section, int32_t key, int32_t value) {
  if (room() < 17) flush();
  append(board::head(0x81, index, section, key) + word(value));
}

void Stream::putLong(int32_t index, int32_t section, int32_t key, int64_t value) {
  if (room() < 21) flush();
  append(board::head(0x82, index, section, key) + board::number(static_cast<uint64_t>(value), 8));
}

void Stream::put(int type, int32_t index, int32_t section, int32_t key, std::string bytes) {
  for (bool more = true; more;) {
    if (room() < 25) flush();
    const std::string piece = bytes.substr(0, room() - 15);
    bytes.erase(0, piece.size());
    more = !bytes.empty();
    append(board::head(static_cast<uint8_t>(more ? type : type | 0x80), index, section, key) + counted(piece));
  }
}

void Stream::flush(int32_t sequence) {
  if (sequence == 0) sequence = ++sequence_;
  messages_.push_back(board::message(type_, sequence, payload_));
  payload_.clear();
}

}  // namespace wire

int openSocket(int kind, const char *address, int32_t *portOut) {
  const int fd = socket(AF_INET, kind | SOCK_CLOEXEC, 0);
  sockaddr_in name = socketAddress(address, 0);
  socklen_t size = sizeof name;
  EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&name), size), 0);
  EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr *>(&name), &size), 0);
  *portOut = ntohs(name.sin_port);
  return fd;
}

int32_t closedPort() {
  static int32_t port = 0;
  if (port == 0) openSocket(SOCK_STREAM, "127.0.0.1", &port);
  return port;
}

void ask(const std::string &datagram, int32_t port, const char *address, const std::string &board) {
  int32_t ownPort;
  const int fd = openSocket(SOCK_DGRAM, address, &ownPort);
  const sockaddr_in to = socketAddress(board, port);
  EXPECT_EQ(sendto(fd, datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr *>(&to), sizeof to),
            static_cast<ssize_t>(datagram.size()));
  close(fd);
}

bool isBound(int32_t port) {
  for (int fd = 0; fd < 100; ++fd) {
    sockaddr_in name{};
    socklen_t size = sizeof name;
    const bool isNamed = getsockname(fd, reinterpret_cast<sockaddr *>(&name), &size) == 0;
    if (isNamed && ntohs(name.sin_port) == port) return true;
  }
  return false;
}

Server::Server(Manner manner, const char *address)
    : manner_(manner), listener_(openSocket(SOCK_STREAM, address, &port_)) {
  if (manner_.ending == Manner::kRefuses) return;
  if (manner_.ending == Manner::kNeverAccepts) {
    fillQueue(address);
  } else {
    begin();
  }
}

Server::~Server() {
  shutdown(listener_, SHUT_RDWR);  // wakes a thread that still waits for its client
  shutdown(connection_, SHUT_RDWR);
  if (thread_.joinable()) thread_.join();
  close(queued_);
  close(listener_);
}

void Server::begin() {
  if (manner_.ending == Manner::kStopsReading) {
    // Small buffers, the client's too, which goes by the segments: what is not read soon holds it up.
    const int bytes = 1, segment = 536;
    setsockopt(listener_, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
    setsockopt(listener_, IPPROTO_TCP, TCP_MAXSEG, &segment, sizeof segment);
  }
  EXPECT_EQ(listen(listener_, 1), 0);
  thread_ = std::thread(&Server::serve, this);
}

// With room for one, a connection that nobody takes keeps all others waiting.
void Server::fillQueue(const char *address) {
  EXPECT_EQ(listen(listener_, 0), 0);
  const sockaddr_in name = socketAddress(address, port_);
  queued_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  EXPECT_EQ(connect(queued_, reinterpret_cast<const sockaddr *>(&name), sizeof name), 0);
  pollfd queue = {listener_, POLLIN, 0};
  poll(&queue, 1, -1);
}

const std::vector<std::string> &Server::messages() {
  if (thread_.joinable()) thread_.join();
  return messages_;
}

void Server::serve() {
  sockaddr_in client{};
  socklen_t clientSize = sizeof client;
  connection_ = accept4(listener_, reinterpret_cast<sockaddr *>(&client), &clientSize, SOCK_CLOEXEC);
  client_ = inet_ntoa(client.sin_addr);
  const int atOnce = 1;
  setsockopt(connection_, IPPROTO_TCP, TCP_NODELAY, &atOnce, sizeof atOnce);
  while (manner_.ending != Manner::kClosesAtOnce && readMessage() && answer()) {
  }
  close(connection_.exchange(-1));
}

bool Server::readMessage() {
  const auto receive = [this](char *out, size_t size) {  // no bytes at once: a receive of none waits for some
    return size == 0 ? 0 : static_cast<size_t>(std::max<ssize_t>(recv(connection_, out, size, MSG_WAITALL), 0));
  };
  std::string bytes(12, '\0');
  if (receive(bytes.data(), 12) != 12) return false;
  const auto size = static_cast<size_t>(std::max(wire::wordAt(bytes, 0), 12));
  bytes.resize(std::min<size_t>(size, 100000));
  bytes.resize(12 + receive(bytes.data() + 12, bytes.size() - 12));
  messages_.push_back(bytes);
  ++messageCount_;
  return bytes.size() == size;
}

// False when the connection is over.
bool Server::answer() {
  if (manner_.endsAt == 0 || messages_.size() < manner_.endsAt) return acknowledge(), true;
  const linger atOnce = {1, 0};
  pollfd client = {connection_, POLLRDHUP, 0};
  switch (manner_.ending) {
    case Manner::kFallsSilent: return true;
    case Manner::kResets: setsockopt(connection_, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce); return false;
    case Manner::kStopsReading:
      acknowledge();
      poll(&client, 1, -1);
      return false;
    default: return false;
  }
}

void Server::acknowledge() {
  char next;
  if (recv(connection_, &next, 1, MSG_PEEK | MSG_DONTWAIT) > 0) hurried_ = true;
  const std::string ack(manner_.ackSize, 'A');
  send(connection_, ack.data(), ack.size(), MSG_NOSIGNAL);
}

static int countDescriptors(int flags) {
  DIR *folder = opendir("/proc/self/fd");
  int count = 0;
  while (const dirent *entry = readdir(folder)) count += (fcntl(std::atoi(entry->d_name), F_GETFD) & flags) == 0;
  closedir(folder);
  return count;
}

int openDescriptors() { return countDescriptors(0); }

int inheritedDescriptors() { return countDescriptors(FD_CLOEXEC); }
