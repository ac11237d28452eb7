// listener.hpp: takes connections for HTTP, and bounds what slow clients, and many, can hold.
//
// One thread reads all requests as they come and gives to the workers those that are there whole, so that a client
// that trickles its request costs a few kilobytes and no thread. A connection carries one request. While there are too
// many, those that have waited longest without having said what they want make room; when all have said it, nobody is
// accepted until one is answered, and the system's own queue bounds the rest. Large answers have few places, so that
// those who read slowly neither hold much memory nor keep others from theirs.
#pragma once

#include <httplib.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kepfleet {

// Places for large answers, each taken from before it is made until it is read. While somebody waits for one, who has
// been reading for a while loses his: his answer is broken off.
class Places {
 public:
  using Clock = std::chrono::steady_clock;
  struct Place {
    std::atomic<Clock::time_point> readSince{Clock::time_point::max()};
    std::atomic<bool> isLost{false};
  };
  using Taken = std::shared_ptr<Place>;

  explicit Places(size_t most) : most_(most) {}

  // Not before its places are given back it ends. Empty: none became free in time, or `isEnding`.
  Taken take(const std::atomic<bool> &isEnding);

 private:
  void giveBack(Place *place);

  const size_t most_;
  std::mutex mutex_;
  std::condition_variable isFree_;
  std::deque<Place *> taken_;
};

struct ListenerLimits {
  size_t workers = 64;                        // most wait for boards
  size_t connections = 256;                   // that are not at a worker
  size_t requestBytes = 32768;                // head and body
  std::chrono::milliseconds request{10'000};  // from the connection to a worker
  std::chrono::milliseconds answer{60'000};   // from there to the end
};

// Routes are those of its base, whose own way to listen is not used.
class Listener : public httplib::Server {
 public:
  using Clock = std::chrono::steady_clock;

  // One connection, and what has come of its request.
  struct Connection {
    int socket = -1;
    Clock::time_point deadline;
    std::string bytes;
    size_t whole = 0;  // how many bytes the request has; 0: its head has not come
  };

  explicit Listener(const ListenerLimits &limits = {}) : limits_(limits) {}
  ~Listener() override;

  // Serves from now on, and returns the port. Throws std::runtime_error when the address cannot be had.
  int open(const std::string &address, uint16_t port);

  // Breaks off what is served; not to be called by a worker. False: some worker has not noticed in time, and the
  // destructor would wait for it.
  bool close();

  const std::atomic<bool> &isEnding() const { return ending_; }

  // For a worker: the answer that it gives holds the place from now on.
  static void hold(Places::Taken place);

 private:
  void start(void (Listener::*work)());
  void accept();
  void readRequests();
  int untilNext() const;
  bool isFull();
  bool read(Connection &connection) const;
  void serve();
  void answer(const Connection &connection);

  const ListenerLimits limits_;
  int socket_ = -1, wake_ = -1;
  std::atomic<bool> ending_{false};
  std::deque<Connection> reading_;  // the reading thread's own, the oldest first
  std::mutex mutex_;                // of what follows
  std::condition_variable isReady_;
  std::deque<Connection> ready_;
  std::condition_variable isOver_;
  size_t running_ = 0;  // threads
  std::vector<std::thread> threads_;
};

}  // namespace kepfleet
