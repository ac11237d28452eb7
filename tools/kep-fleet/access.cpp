// access.cpp: the token, and where a request comes from.

#include "kep-fleet/access.hpp"

#include <arpa/inet.h>

#include <algorithm>

#include "server/text.hpp"

namespace kepfleet {

namespace {

constexpr double kTries = 20;          // wrong tokens of an address at once
constexpr double kTriesASecond = 1;    // from then on
constexpr size_t kMostBuckets = 4096;  // addresses that are remembered

// Takes as long whatever is given, and wherever it differs.
bool areSame(std::string_view given, std::string_view wanted) {
  size_t difference = given.size() ^ wanted.size();
  for (size_t i = 0; i < given.size(); ++i) {
    difference |= static_cast<unsigned>(given[i] ^ wanted[i % wanted.size()]);
  }
  return difference == 0;
}

// The name in "name", "name:port" and "[address]:port".
std::string nameIn(const std::string &host) {
  if (!host.empty() && host[0] == '[') return host.substr(1, host.find(']') - 1);
  return host.substr(0, host.find(':'));
}

std::string lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c; });
  return text;
}

// Empty: none of that name.
std::string cookieOf(const httplib::Request &request, const std::string &name) {
  const std::string cookies = "; " + request.get_header_value("Cookie");
  const std::string wanted = "; " + name + "=";
  const size_t found = cookies.find(wanted);
  if (found == std::string::npos) return "";
  const size_t begin = found + wanted.size();
  return cookies.substr(begin, cookies.find(';', begin) - begin);
}

bool isOfOtherSite(const httplib::Request &request) {
  const std::string site = request.get_header_value("Sec-Fetch-Site");
  return !site.empty() && site != "same-origin" && site != "none";
}

}  // namespace

bool isLoopback(const std::string &address) {
  in_addr number{};
  if (inet_pton(AF_INET, address.c_str(), &number) == 1) return ntohl(number.s_addr) >> 24 == 127;
  return address == "::1" || address == "localhost";
}

Access::Access(const HttpConfig &config) : config_(config), isLoopback_(isLoopback(config.address)) {}

bool Access::isOurs(const std::string &host, const httplib::Request &request) const {
  const std::string whole = lower(host), name = lower(nameIn(host));
  if (name == request.local_addr || name == lower(config_.address)) return true;
  if (name == "localhost" && isLoopback(request.local_addr)) return true;
  return std::any_of(config_.hosts.begin(), config_.hosts.end(),
                     [&](const std::string &known) { return lower(known) == whole || lower(known) == name; });
}

std::optional<Refusal> Access::toKnow(const httplib::Request &request) const {
  if (request.get_header_value_count("Host") == 1 && isOurs(request.get_header_value("Host"), request)) return {};
  return Refusal{421, "the Host is neither the address of this server nor configured as one of its names"};
}

// Whether `address` may be told that its token is wrong, rather than to come again later.
bool Access::mayTry(const std::string &address) {
  const std::lock_guard lock(mutex_);
  if (buckets_.size() >= kMostBuckets && buckets_.count(address) == 0) buckets_.clear();
  const Clock::time_point now = Clock::now();
  Bucket &bucket = buckets_.try_emplace(address, Bucket{kTries, now}).first->second;
  const double seconds = std::chrono::duration<double>(now - bucket.filled).count();
  bucket.tries = std::min(kTries, bucket.tries + seconds * kTriesASecond);
  bucket.filled = now;
  if (bucket.tries < 1) return false;
  bucket.tries -= 1;
  return true;
}

// The right one always passes: behind a proxy all clients are of one address, and a stranger among them would lock all
// of them out.
std::optional<Refusal> Access::compare(const httplib::Request &request, std::string_view given,
                                       std::string_view wanted) {
  if (areSame(given, wanted)) return {};
  if (!mayTry(request.remote_addr)) return Refusal{429, "too many wrong tokens from this address"};
  return Refusal{401, "not the token"};
}

std::string Access::cookieName() const { return "kep_fleet_" + std::to_string(config_.port); }

std::optional<Refusal> Access::toSee(const httplib::Request &request) {
  if (config_.token.empty()) return {};
  constexpr std::string_view kBearer = "Bearer ";
  const std::string authorization = request.get_header_value("Authorization");
  if (authorization.rfind(kBearer, 0) == 0) {
    return compare(request, std::string_view(authorization).substr(kBearer.size()), config_.token);
  }
  const std::string cookie = cookieOf(request, cookieName());
  if (cookie.empty()) return Refusal{401, "this needs the token"};
  return compare(request, cookie, kepserver::hex(config_.token));
}

std::optional<Refusal> Access::toAsk(const httplib::Request &request) {
  if (auto refusal = toSee(request)) return refusal;
  if (isOfOtherSite(request)) return Refusal{403, "another site's page asks for it"};
  if (!config_.token.empty() || isLoopback_) return {};
  return Refusal{403, "where others than this machine's users can ask for it, it needs a token: configure token_file"};
}

std::optional<Refusal> Access::toAct(const httplib::Request &request) {
  if (auto refusal = toAsk(request)) return refusal;
  if (!request.has_header("X-Kep")) return Refusal{403, "it needs the header \"X-Kep: 1\""};
  const std::string origin = request.get_header_value("Origin");
  const size_t scheme = origin.find("://");
  if (origin.empty() || (scheme != std::string::npos && isOurs(origin.substr(scheme + 3), request))) return {};
  return Refusal{403, "another site's page asks for it"};
}

std::optional<Refusal> Access::toEnter(const httplib::Request &request, const std::string &token) {
  if (isOfOtherSite(request)) return Refusal{403, "another site's page asks for it"};
  return config_.token.empty() ? std::nullopt : compare(request, token, config_.token);
}

std::string Access::cookie(const httplib::Request &request) const {
  const bool isSecure = request.get_header_value("X-Forwarded-Proto") == "https";
  return cookieName() + "=" + kepserver::hex(config_.token) + "; Path=" + config_.prefix +
         "/; Max-Age=31536000; HttpOnly; SameSite=Strict" + (isSecure ? "; Secure" : "");
}

}  // namespace kepfleet
