// resolver.hpp: the addresses of boards that are called by name. Look-ups that take long, as of names that a server
// does not answer for, hold up no other board's.
#pragma once

#include <asio.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace kepfleet {

// Belongs to one thread, that of its context, on which all answers come.
class Resolver {
 public:
  // `error` is empty when there is an address.
  using Found = std::function<void(const asio::ip::address_v4 &address, const std::string &error)>;

  explicit Resolver(asio::io_context &context);
  ~Resolver();  // look-ups under way end some time later, and nobody hears of them

  // Answers at once for an address, and for a name that was looked up lately.
  void find(const std::string &host, Found found);

  // What is known already, maybe of some time ago.
  std::optional<asio::ip::address_v4> known(const std::string &host) const;

 private:
  struct Entry {
    asio::ip::address_v4 address;
    std::string error;  // of the last look-up
    bool isKnown = false, isAsked = false;
    std::chrono::steady_clock::time_point expires;
    std::vector<Found> waiting;
  };
  struct Workers;

  void forget();
  void look(const std::string &host);
  void take(const std::string &host, const asio::ip::address_v4 &address, const std::string &error);

  asio::io_context &context_;
  std::unordered_map<std::string, Entry> entries_;
  std::shared_ptr<Workers> workers_;
  std::shared_ptr<Resolver *> self_;  // gone when this is: an answer that comes later finds nobody
};

}  // namespace kepfleet
