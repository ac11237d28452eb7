// server.hpp: the other side of the wire for tests: a collection server on loopback, and the bytes that it should get,
// written here without the library's help.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "server/board_stream.hpp"

namespace wire {

using board::counted, board::word;
std::string request(int64_t length, int64_t type, int64_t sequence, int64_t port);

int32_t wordAt(const std::string &bytes, size_t offset);

// The messages that a run should send, built as its values are reported.
class Stream {
 public:
  // `sequence`: the last automatic number that went out before.
  explicit Stream(int32_t sequence) : sequence_(sequence) {}

  void setType(int32_t type) { type_ = type; }
  void append(const std::string &bytes) { payload_ += bytes; }
  void putInt(int32_t index, int32_t section, int32_t key, int32_t value);
  void putLong(int32_t index, int32_t section, int32_t key, int64_t value);
  void putString(int32_t index, int32_t section, int32_t key, std::string text) { put(3, index, section, key, text); }
  void putBuffer(int32_t index, int32_t section, int32_t key, std::string data) { put(4, index, section, key, data); }
  void flush(int32_t sequence = 0);

  const std::vector<std::string> &messages() const { return messages_; }

 private:
  size_t room() const { return 1024 - payload_.size(); }
  void put(int type, int32_t index, int32_t section, int32_t key, std::string bytes);

  int32_t type_ = 0;
  int32_t sequence_;
  std::string payload_;
  std::vector<std::string> messages_;
};

}  // namespace wire

// What a server does with a run.
struct Manner {
  enum Ending {
    kResets,
    kCloses,
    kFallsSilent,   // reads on, but acknowledges no more
    kStopsReading,  // acknowledges the message, and does no more until the client resets
    // Nothing ends, because nothing begins:
    kRefuses,
    kNeverAccepts,
    kClosesAtOnce,
  };
  size_t endsAt = 0;  // the message (1: the first) with which, in place of an acknowledgement, it ends; 0: none
  Ending ending = kResets;
  size_t ackSize = 4;  // bytes that acknowledge a message
};

// Takes one connection and reads its messages on a thread of its own.
class Server {
 public:
  explicit Server(Manner manner = {}, const char *address = "127.0.0.1");
  ~Server();

  int32_t port() const { return port_; }

  // Wait for the connection to end. The messages, headers included; whether
  //  any message came before the one in front of it was acknowledged.
  const std::vector<std::string> &messages();
  bool wasHurried() { return messages(), hurried_; }

  // Waits for so many messages of a connection that goes on.
  void awaitMessages(size_t count) const {
    while (messageCount_ < count) std::this_thread::yield();
  }

  // Where the client connected from.
  const std::string &client() { return messages(), client_; }

 private:
  void begin();
  void fillQueue(const char *address);
  void serve();
  bool readMessage();
  bool answer();
  void acknowledge();

  const Manner manner_;
  int listener_;
  int queued_ = -1;
  std::atomic<int> connection_{-1};
  int32_t port_;
  std::vector<std::string> messages_;
  std::atomic<size_t> messageCount_{0};
  std::string client_;
  bool hurried_ = false;
  std::thread thread_;
};

// Sends a datagram to a board from this address.
void ask(const std::string &datagram, int32_t port, const char *address = "127.0.0.1",
         const std::string &board = "127.0.0.1");

// Whether a socket of this process is bound to the port.
bool isBound(int32_t port);

// Opens a socket of this kind at an address of loopback.
int openSocket(int kind, const char *address, int32_t *portOut);

// A port at which nobody listens while the process lives.
int32_t closedPort();

// How many descriptors the process has open, or of them, those that a program it executes would have.
int openDescriptors();
int inheritedDescriptors();
