// played_board.hpp: a board that a test plays on loopback, from a script.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "server/board_stream.hpp"

inline sockaddr_in loopback(uint16_t port, uint32_t host = INADDR_LOOPBACK) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(host);
  return address;
}

// A connection to the server's port.
class Connection {
 public:
  explicit Connection(uint16_t port, uint32_t from = INADDR_LOOPBACK) : fd(socket(AF_INET, SOCK_STREAM, 0)) {
    const sockaddr_in local = loopback(0, from), server = loopback(port);
    bind(fd, reinterpret_cast<const sockaddr *>(&local), sizeof local);
    EXPECT_EQ(connect(fd, reinterpret_cast<const sockaddr *>(&server), sizeof server), 0) << strerror(errno);
    const timeval patience = {20, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  }
  Connection &operator=(Connection &&) = delete;
  ~Connection() { close(fd); }

  bool say(const std::string &bytes) const {
    return send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
  }
  ssize_t hear() const {
    char bytes[16];
    return recv(fd, bytes, sizeof bytes, 0);
  }
  bool isAcknowledged(const std::string &message) const { return say(message) && hear() == 1; }
  void pause(int milliseconds) const { std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds)); }

  const int fd;
};

// A collection, or a self-test, that answers a request: the first message carries its number.
inline std::vector<std::string> answering(std::vector<std::string> messages, int32_t number) {
  messages[0] = messages[0].substr(0, 8) + board::word(number) + messages[0].substr(12);
  return messages;
}

struct Request {
  int32_t type = 0, number = 0;
  uint16_t port = 0;
};

// Takes requests at a port of its own, one at a time, until it goes.
class PlayedBoard {
 public:
  using Script = std::function<void(const Request &)>;

  explicit PlayedBoard(Script script) : script_(std::move(script)), fd_(socket(AF_INET, SOCK_DGRAM, 0)) {
    sockaddr_in address = loopback(0);
    socklen_t size = sizeof address;
    EXPECT_EQ(bind(fd_, reinterpret_cast<const sockaddr *>(&address), size), 0);
    getsockname(fd_, reinterpret_cast<sockaddr *>(&address), &size);
    port = ntohs(address.sin_port);
    thread_ = std::thread([this] { serve(); });
  }
  PlayedBoard &operator=(PlayedBoard &&) = delete;
  ~PlayedBoard() {
    isOver_ = true;
    thread_.join();
    close(fd_);
  }

  // Sends message by message, each when the one before is acknowledged.
  static void answer(const Request &request) {
    const Connection connection(request.port);
    for (const std::string &m :
         answering(request.type == 3 ? board::selfTest() : board::collection(), request.number)) {
      if (!connection.isAcknowledged(m)) return;
    }
  }

  uint16_t port = 0;

 private:
  void serve() {
    while (!isOver_) {
      pollfd entry = {fd_, POLLIN, 0};
      uint32_t fields[4];
      if (poll(&entry, 1, 20) != 1 || recv(fd_, fields, sizeof fields, 0) != sizeof fields) continue;
      EXPECT_EQ(ntohl(fields[0]), sizeof fields);
      script_({static_cast<int32_t>(ntohl(fields[1])), static_cast<int32_t>(ntohl(fields[2])),
               static_cast<uint16_t>(ntohl(fields[3]))});
    }
  }

  Script script_;
  int fd_;
  std::atomic<bool> isOver_{false};
  std::thread thread_;
};
