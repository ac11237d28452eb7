// host.hpp: a host that reports values of every kind, and the runs that a server should get of it.
#pragma once

#include <kep/kep.h>
#include <csignal>

#include <map>

#include "collection/server.hpp"

namespace host {

constexpr int32_t kSelfTest = 3;  // as a request type

extern CollectItem *figures, *logs;
extern ZuFault *fault;

// Registers the items, without memory fewer of them.
void registerItems();
void releaseItems();

// What the values are made of from now on.
void setContent(int32_t number, size_t textSize = 1100);

// Makes a run of a type for a server of 127.0.0.1.
int32_t start(int32_t type, int32_t port, int32_t sequence);

// A service on a thread and an address of its own, which no other process has.
class Service {
 public:
  explicit Service(int32_t (*serve)() = [] { return Collect_Init(0xABCD1234); });
  ~Service() {
    if (thread_.joinable()) stop();
  }

  static const std::string &address();
  void ask(const std::string &datagram, const char *from = "127.0.0.1") const {
    ::ask(datagram, 9099, from, address());
  }

  // Waits until it waits for something that does not come.
  void awaitSleep() const;
  void interrupt(int signal) { pthread_kill(thread_.native_handle(), signal); }

  // Return its result, once it has ended; and end it.
  int32_t join();
  int32_t stop() { return Collect_Stop(), join(); }

 private:
  std::atomic<int> task_{0};
  std::atomic<bool> hasReturned_{false};
  int32_t result_ = 0;
  std::thread thread_;
};

// What a run sends, and when it looks whether that goes through.
struct Run {
  // The automatic numbers begin behind `lastNumber`.
  Run(int32_t type, int32_t sequence, int32_t lastNumber);

  size_t size() const { return stream.messages().size(); }

  wire::Stream stream;
  std::map<size_t, std::string> checks;  // of these messages; and what is logged since the last one
};

// With # for the digits of times.
std::vector<std::string> withoutTimes(std::vector<std::string> texts);

// Texts of the service's log.
std::string line(const std::string &text);
std::string beginAndEnd(const std::string &item);

}  // namespace host
