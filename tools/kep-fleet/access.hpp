// access.hpp: who may see the fleet, and who may act.
//
// A browser holds the token in a cookie that no script reads and no other site's request carries. What acts is beyond
// other sites in three ways: by that cookie, by a header that only a page of ours can send, and by where the browser
// says the request comes from. A name that leads here, and is not known, is refused: it may be another site's trick to
// count as this one.
#pragma once

#include <httplib.h>

#include <chrono>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "kep-fleet/config.hpp"

namespace kepfleet {

struct Refusal {
  int status = 0;
  std::string reason;
};

class Access {
 public:
  using Clock = std::chrono::steady_clock;

  explicit Access(const HttpConfig &config);

  // Empty: granted. The three build upon one another.
  std::optional<Refusal> toKnow(const httplib::Request &request) const;  // that this server exists
  std::optional<Refusal> toSee(const httplib::Request &request);
  std::optional<Refusal> toAsk(const httplib::Request &request);  // a board, by whatever request
  std::optional<Refusal> toAct(const httplib::Request &request);  // by the page's buttons, and scripts

  // Whether `token`, as typed in, is the one.
  std::optional<Refusal> toEnter(const httplib::Request &request, const std::string &token);

  std::string cookie(const httplib::Request &request) const;  // that lets in from then on, as a header's value

 private:
  struct Bucket {
    double tries = 0;
    Clock::time_point filled;
  };

  bool isOurs(const std::string &host, const httplib::Request &request) const;
  std::optional<Refusal> compare(const httplib::Request &request, std::string_view given, std::string_view wanted);
  bool mayTry(const std::string &address);
  std::string cookieName() const;

  const HttpConfig config_;
  const bool isLoopback_;
  std::mutex mutex_;
  std::map<std::string, Bucket> buckets_;  // by address
};

// Whether nobody but this machine's users reaches the address.
bool isLoopback(const std::string &address);

}  // namespace kepfleet
