// collector.hpp: asks boards and takes their runs, thousands at a time, on one thread.
//
// One UDP socket sends all requests, and every board connects back to the one TCP port. Which run a connection belongs
// to, its first message tells, by the number of the request. Numbers are random, and unique among the runs under way: a
// board may come from another address than it was asked at, and a late answer or a stranger finds no run.
#pragma once

#include <array>
#include <asio.hpp>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <unordered_map>

#include "kep-fleet/config.hpp"
#include "kep-fleet/resolver.hpp"
#include "kep-fleet/run.hpp"

namespace kepfleet {

struct Question {
  std::string board;
  std::string host;
  uint16_t port = 0;
  int type = 0;
  uint64_t lease = 0;
};

// Belongs to the thread of its context, but for what is said to be for any.
class Collector {
 public:
  // Called once for every question, later than ask(). The outcome is what the stream tells: whether a test failed, who
  // knows the names finds out.
  using Done = std::function<void(Run &&run)>;

  // Throws ConfigError when the port cannot be had; 0 takes a free one.
  Collector(asio::io_context &context, const std::string &address, uint16_t port, const Limits &limits);
  ~Collector();

  uint16_t port() const { return port_; }
  void setLimits(const Limits &limits) { limits_ = limits; }  // for runs that begin

  void ask(Question question, Done done);

  // Where the boards are that it asks.
  Resolver &resolver() { return resolver_; }

  // Breaks off what is under way, of one board or of all; the reason is that of the runs, which end before it returns.
  void cancel(const std::string &board, const std::string &reason);
  void cancelAll(const std::string &reason);

  // For any thread.
  size_t underWay() const { return underWay_; }
  uint64_t strangers() const { return strangerCount_; }  // that were dropped

 private:
  struct Session;
  struct Stranger;
  using SessionPointer = std::shared_ptr<Session>;
  using StrangerPointer = std::shared_ptr<Stranger>;
  using Clock = std::chrono::steady_clock;

  int32_t freeNumber();
  void send(const SessionPointer &session, const asio::ip::address_v4 &address);

  void accept();
  void welcome(asio::ip::tcp::socket socket);
  void acceptLater();
  void hear(const StrangerPointer &stranger);
  void hearMore(const StrangerPointer &stranger);
  void drop(const StrangerPointer &stranger);
  void dropOldest();
  void watchStrangers();

  void join(const SessionPointer &session, Stranger &stranger);
  void wait(const SessionPointer &session);
  void read(const SessionPointer &session);
  bool feed(const SessionPointer &session, const char *bytes, size_t size);
  void watch(const SessionPointer &session);
  void checkTime(const SessionPointer &session);
  void end(const SessionPointer &session, Outcome outcome, std::string reason);
  void endByStream(const SessionPointer &session);

  asio::io_context &context_;
  Limits limits_;
  uint16_t port_ = 0;
  asio::ip::udp::socket requests_;
  asio::ip::tcp::acceptor acceptor_;
  asio::steady_timer acceptTimer_, strangerTimer_;
  Resolver resolver_;
  std::unordered_map<int32_t, SessionPointer> sessions_;  // by number, from the request to the end
  std::list<StrangerPointer> strangers_;                  // the oldest first
  bool watchesStrangers_ = false;
  size_t bytesUnderWay_ = 0;  // of streams
  std::array<char, 65536> buffer_;
  std::atomic<size_t> underWay_{0};
  std::atomic<uint64_t> strangerCount_{0};
};

}  // namespace kepfleet
