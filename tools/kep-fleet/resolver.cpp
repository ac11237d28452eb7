// resolver.cpp: getaddrinfo, which blocks, on a few threads of its own. Nothing can end a look-up that waits for a name
// server, so that the threads are let go with the process rather than waited for.

#include "kep-fleet/resolver.hpp"

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

namespace kepfleet {

namespace {

constexpr size_t kMostWorkers = 8;
constexpr size_t kMostNames = 65536;
constexpr std::chrono::seconds kFresh{60};    // a name server is not asked again for so long
constexpr std::chrono::seconds kRefusal{10};  // likewise, where there was no address

struct Answer {
  asio::ip::address_v4 address;
  std::string error;
};

Answer lookUp(const std::string &host) {
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo *found = nullptr;
  const int error = getaddrinfo(host.c_str(), nullptr, &hints, &found);
  const std::unique_ptr<addrinfo, void (*)(addrinfo *)> guard(found, [](addrinfo *list) {
    if (list) freeaddrinfo(list);
  });
  if (error != 0) return {{}, host + ": " + gai_strerror(error)};
  sockaddr_in address{};
  std::memcpy(&address, found->ai_addr, sizeof address);
  return {asio::ip::address_v4(ntohl(address.sin_addr.s_addr)), ""};
}

}  // namespace

// Shared with the threads, which outlive the resolver.
struct Resolver::Workers {
  using Done = std::function<void(Answer)>;

  std::mutex mutex;
  std::condition_variable wake;
  std::deque<std::pair<std::string, Done>> jobs;
  size_t count = 0, idle = 0;
  bool isOver = false;

  static void work(const std::shared_ptr<Workers> &workers) {
    std::unique_lock<std::mutex> lock(workers->mutex);
    for (;;) {
      ++workers->idle;
      workers->wake.wait(lock, [&workers] { return workers->isOver || !workers->jobs.empty(); });
      --workers->idle;
      if (workers->isOver) return;
      const auto [host, done] = std::move(workers->jobs.front());
      workers->jobs.pop_front();
      lock.unlock();
      Answer answer = lookUp(host);
      lock.lock();
      if (!workers->isOver) done(std::move(answer));  // posts it: the context is there as long as it is not over
    }
  }

  static void add(const std::shared_ptr<Workers> &workers, const std::string &host, Done done) {
    const std::lock_guard<std::mutex> lock(workers->mutex);
    workers->jobs.emplace_back(host, std::move(done));
    if (workers->idle < workers->jobs.size() && workers->count < kMostWorkers) {
      try {
        std::thread(work, workers).detach();
        ++workers->count;
      } catch (const std::system_error &) {  // the system has no more: those that there are, or a later one, do it
      }
    }
    workers->wake.notify_one();
  }
};

Resolver::Resolver(asio::io_context &context)
    : context_(context), workers_(std::make_shared<Workers>()), self_(std::make_shared<Resolver *>(this)) {}

Resolver::~Resolver() {
  const std::lock_guard<std::mutex> lock(workers_->mutex);
  workers_->isOver = true;
  workers_->jobs.clear();
  workers_->wake.notify_all();
}

void Resolver::find(const std::string &host, Found found) {
  asio::error_code error;
  const asio::ip::address_v4 address = asio::ip::make_address_v4(host, error);
  if (!error) return found(address, "");
  if (entries_.size() >= kMostNames) forget();
  Entry &entry = entries_[host];
  const bool isFresh = std::chrono::steady_clock::now() < entry.expires;
  if (!isFresh && !entry.isAsked) look(host);
  if (entry.isKnown) {  // also while it is looked up again: what was right a minute ago mostly is
    found(entry.address, "");
  } else if (isFresh) {
    found({}, entry.error);
  } else {
    entry.waiting.push_back(std::move(found));
  }
}

std::optional<asio::ip::address_v4> Resolver::known(const std::string &host) const {
  asio::error_code error;
  const asio::ip::address_v4 address = asio::ip::make_address_v4(host, error);
  if (!error) return address;
  const auto entry = entries_.find(host);
  if (entry == entries_.end() || !entry->second.isKnown) return std::nullopt;
  return entry->second.address;
}

// Names of boards that are long gone, and of those that were only probed.
void Resolver::forget() {
  for (auto entry = entries_.begin(); entry != entries_.end();) {
    entry = entry->second.isAsked ? std::next(entry) : entries_.erase(entry);
  }
}

void Resolver::look(const std::string &host) {
  entries_[host].isAsked = true;
  asio::io_context &context = context_;
  const std::weak_ptr<Resolver *> self = self_;
  Workers::add(workers_, host, [&context, self, host](Answer answer) {
    asio::post(context, [self, host, answer = std::move(answer)] {
      if (const auto resolver = self.lock()) (*resolver)->take(host, answer.address, answer.error);
    });
  });
}

void Resolver::take(const std::string &host, const asio::ip::address_v4 &address, const std::string &error) {
  Entry &entry = entries_[host];
  entry.isAsked = false;
  if (error.empty()) entry.address = address;
  entry.isKnown = entry.isKnown || error.empty();
  entry.error = error;
  entry.expires = std::chrono::steady_clock::now() + (error.empty() ? kFresh : kRefusal);
  for (const Found &found : std::exchange(entry.waiting, {})) {
    found(entry.address, entry.isKnown ? "" : error);
  }
}

}  // namespace kepfleet
