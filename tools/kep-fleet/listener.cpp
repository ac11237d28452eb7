// listener.cpp: sockets, and the exchange of one request for one answer.

#include "kep-fleet/listener.hpp"

#include <netdb.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace kepfleet {

namespace {

constexpr int kBacklog = 128;
constexpr int kUnread = 256 << 10;  // bytes that the system takes: no worker waits for the reader of a small answer
constexpr int kSlice = 100;         // milliseconds: how late the end is noticed
constexpr std::chrono::milliseconds kToEnd{300};
constexpr std::chrono::seconds kFairTime{5};  // with a place that others wait for
constexpr std::chrono::seconds kPatience{10};

thread_local Places::Taken held;  // by the answer that this worker gives

int untilDeadline(Listener::Clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Listener::Clock::now());
  return static_cast<int>(std::clamp<int64_t>(left.count() + 1, 0, kSlice));
}

// ---- requests

// Where the value of a header begins in a head; npos: it has none. `name` is in lower case.
// The library ends a line at a line feed, whatever is in front of it.
size_t valueOf(std::string_view head, std::string_view name) {
  const std::string wanted = "\n" + std::string(name) + ":";
  const auto same = [](char a, char b) { return (a >= 'A' && a <= 'Z' ? a + ('a' - 'A') : a) == b; };
  const auto found = std::search(head.begin(), head.end(), wanted.begin(), wanted.end(), same);
  return found == head.end() ? std::string_view::npos : static_cast<size_t>(found - head.begin()) + wanted.size();
}

size_t bodySize(std::string_view head) {
  size_t begin = valueOf(head, "content-length");
  if (begin == std::string_view::npos) return 0;
  while (begin < head.size() && head[begin] == ' ') ++begin;
  uint32_t size = 0;
  std::from_chars(head.data() + begin, head.data() + head.size(), size);
  return size;
}

// Nothing here is served in parts; and the library reads what a Range header says with a regular expression, whose
// recursion a long one could drive through the stack.
void forgetRanges(std::string &bytes, size_t headSize) {
  for (size_t at = 0;;) {  // behind the one before: a head may be full of them
    const size_t value = valueOf(std::string_view(bytes).substr(at, headSize - at), "range");
    if (value == std::string_view::npos) return;
    at += value;
    bytes[at - 2] = 'd';
  }
}

// ---- answers

struct Address {
  std::string host;
  int port = 0;
};

template <class Get>
Address addressOf(int socket, Get get) {
  sockaddr_storage storage{};
  socklen_t size = sizeof storage;
  auto *const address = reinterpret_cast<sockaddr *>(&storage);
  std::array<char, NI_MAXHOST> host{};
  std::array<char, NI_MAXSERV> port{};
  if (get(socket, address, &size) != 0 ||
      getnameinfo(address, size, host.data(), host.size(), port.data(), port.size(), NI_NUMERICHOST | NI_NUMERICSERV)) {
    return {};
  }
  std::string text = host.data();
  if (text.rfind("::ffff:", 0) == 0 && text.find('.') != std::string::npos) text = text.substr(7);
  return {text, std::atoi(port.data())};
}

// What the library reads a request from, and writes the answer to.
class Exchange : public httplib::Stream {
 public:
  Exchange(const Listener &listener, const Listener::Connection &connection, Listener::Clock::time_point deadline)
      : listener_(listener), connection_(connection), deadline_(deadline) {}

  bool is_readable() const override { return position_ < connection_.bytes.size(); }

  bool is_writable() const override {
    while (!listener_.isEnding() && !(held && held->isLost) && Listener::Clock::now() < deadline_) {
      pollfd file = {connection_.socket, POLLOUT, 0};
      if (poll(&file, 1, untilDeadline(deadline_)) > 0) return (file.revents & (POLLERR | POLLHUP)) == 0;
    }
    return false;
  }

  ssize_t read(char *bytes, size_t size) override {
    size = std::min(size, connection_.bytes.size() - position_);
    std::memcpy(bytes, connection_.bytes.data() + position_, size);
    position_ += size;
    return static_cast<ssize_t>(size);
  }

  ssize_t write(const char *bytes, size_t size) override {
    if (held) held->readSince = std::min(held->readSince.load(), Listener::Clock::now());
    while (is_writable()) {
      const ssize_t sent = send(connection_.socket, bytes, size, MSG_NOSIGNAL | MSG_DONTWAIT);
      if (sent >= 0 || (errno != EAGAIN && errno != EINTR)) return sent;
    }
    return -1;
  }

  void get_remote_ip_and_port(std::string &ip, int &port) const override {
    const Address address = addressOf(connection_.socket, getpeername);
    ip = address.host;
    port = address.port;
  }

  void get_local_ip_and_port(std::string &ip, int &port) const override {
    const Address address = addressOf(connection_.socket, getsockname);
    ip = address.host;
    port = address.port;
  }

  socket_t socket() const override { return connection_.socket; }

 private:
  const Listener &listener_;
  const Listener::Connection &connection_;
  const Listener::Clock::time_point deadline_;
  size_t position_ = 0;
};

// The fastest coding of those the client takes: the library would rather use one that takes seconds for a large answer.
void preferGzip(httplib::Request &request) {
  const bool takesGzip = request.get_header_value("Accept-Encoding").find("gzip") != std::string::npos;
  request.headers.erase("Accept-Encoding");
  if (takesGzip) request.set_header("Accept-Encoding", "gzip");
}

int listenAt(const addrinfo &address) {
  const int socket = ::socket(address.ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (socket < 0) return -1;
  const int on = 1;
  setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &kUnread, sizeof kUnread);  // also of those it accepts
  if (bind(socket, address.ai_addr, address.ai_addrlen) == 0 && listen(socket, kBacklog) == 0) return socket;
  const int error = errno;
  ::close(socket);
  errno = error;
  return -1;
}

}  // namespace

// ---- places

Places::Taken Places::take(const std::atomic<bool> &isEnding) {
  const auto deadline = Clock::now() + kPatience;
  std::unique_lock lock(mutex_);
  while (taken_.size() >= most_) {
    const auto now = Clock::now();
    if (isEnding || now >= deadline) return nullptr;
    for (Place *const place : taken_) place->isLost = place->isLost || place->readSince.load() <= now - kFairTime;
    isFree_.wait_for(lock, std::chrono::milliseconds(kSlice));
  }
  auto place = std::make_unique<Place>();
  taken_.push_back(place.get());
  lock.unlock();  // whatever fails from here on gives it back, which locks
  return Taken(place.release(), [this](Place *one) { giveBack(one); });
}

void Places::giveBack(Place *place) {
  {
    const std::lock_guard lock(mutex_);
    taken_.erase(std::find(taken_.begin(), taken_.end(), place));
    isFree_.notify_one();
  }
  delete place;
}

void Listener::hold(Places::Taken place) { held = std::move(place); }

// ---- the beginning and the end

int Listener::open(const std::string &address, uint16_t port) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE;
  addrinfo *found = nullptr;
  if (const int error = getaddrinfo(address.c_str(), std::to_string(port).c_str(), &hints, &found)) {
    throw std::runtime_error(address + ": " + gai_strerror(error));
  }
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> addresses(found, freeaddrinfo);
  for (const addrinfo *one = found; one && socket_ < 0; one = one->ai_next) socket_ = listenAt(*one);
  if (socket_ < 0) throw std::runtime_error(address + ":" + std::to_string(port) + ": " + std::strerror(errno));
  svr_sock_ = socket_;  // the library writes long answers while it has one
  wake_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  start(&Listener::readRequests);
  for (size_t i = 0; i < limits_.workers; ++i) start(&Listener::serve);
  return addressOf(socket_, getsockname).port;
}

void Listener::start(void (Listener::*work)()) {
  {
    const std::lock_guard lock(mutex_);
    ++running_;
  }
  threads_.emplace_back([this, work] {
    (this->*work)();
    const std::lock_guard lock(mutex_);
    --running_;
    isOver_.notify_all();
  });
}

bool Listener::close() {
  std::unique_lock lock(mutex_);
  ending_ = true;
  svr_sock_ = INVALID_SOCKET;
  isReady_.notify_all();
  if (wake_ >= 0) eventfd_write(wake_, 1);
  return isOver_.wait_for(lock, kToEnd, [this] { return running_ == 0; });
}

Listener::~Listener() {
  close();
  for (std::thread &thread : threads_) thread.join();
  for (const auto *queue : {&reading_, &ready_}) {
    for (const Connection &connection : *queue) ::close(connection.socket);
  }
  for (const int file : {wake_, socket_}) {
    if (file >= 0) ::close(file);
  }
}

// ---- the thread that reads

bool Listener::isFull() {
  const std::lock_guard lock(mutex_);
  return ready_.size() >= limits_.connections;
}

// Not more at once than wait in the queue: whoever connects without end would else keep those from being read who ask.
void Listener::accept() {
  for (int i = 0; i < kBacklog; ++i) {
    const int socket = accept4(socket_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (socket < 0) {  // where it is for want of descriptors, the wait would find the next connection at once
      if (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS) {
        std::this_thread::sleep_for(std::chrono::milliseconds(kSlice));
      }
      return;
    }
    if (reading_.size() >= limits_.connections) {
      ::close(reading_.front().socket);
      reading_.pop_front();
    }
    reading_.push_back({socket, Clock::now() + limits_.request, "", 0});
  }
}

// Takes what has come; false: nothing more will.
bool Listener::read(Connection &connection) const {
  std::array<char, 4096> portion;
  const ssize_t size = recv(connection.socket, portion.data(), portion.size(), 0);
  if (size < 0 && (errno == EAGAIN || errno == EINTR)) return true;
  if (size <= 0) return false;
  std::string &bytes = connection.bytes;
  const size_t before = bytes.size();
  bytes.append(portion.data(), static_cast<size_t>(size));
  if (connection.whole == 0) {
    const size_t end = bytes.find("\r\n\r\n", before < 3 ? 0 : before - 3);
    if (end != std::string::npos) {
      forgetRanges(bytes, end);
      connection.whole = end + 4 + bodySize(std::string_view(bytes).substr(0, end));
    }
  }
  if (bytes.size() < limits_.requestBytes) return true;
  connection.whole = bytes.size();  // the library refuses it, or it is whole
  return true;
}

int Listener::untilNext() const { return reading_.empty() ? kSlice : untilDeadline(reading_.front().deadline); }

void Listener::readRequests() {
  std::vector<pollfd> files;
  while (!ending_) {
    files = {{wake_, POLLIN, 0}, {isFull() ? -1 : socket_, POLLIN, 0}};
    for (const Connection &connection : reading_) files.push_back({connection.socket, POLLIN, 0});
    poll(files.data(), files.size(), untilNext());
    std::deque<Connection> still;
    const Clock::time_point now = Clock::now();
    for (size_t i = 0; i < reading_.size(); ++i) {
      Connection &connection = reading_[i];
      const bool goesOn = now < connection.deadline && (files[i + 2].revents == 0 || read(connection));
      if (!goesOn) {
        ::close(connection.socket);
      } else if (connection.whole != 0 && connection.bytes.size() >= connection.whole) {
        const std::lock_guard lock(mutex_);
        ready_.push_back(std::move(connection));
        isReady_.notify_one();
      } else {
        still.push_back(std::move(connection));
      }
    }
    reading_ = std::move(still);
    if (files[1].revents != 0) accept();
  }
}

// ---- the workers

void Listener::serve() {
  for (;;) {
    Connection connection;
    {
      std::unique_lock lock(mutex_);
      isReady_.wait(lock, [this] { return ending_ || !ready_.empty(); });
      if (ending_) return;
      connection = std::move(ready_.front());
      ready_.pop_front();
    }
    const int socket = connection.socket;
    if (Clock::now() < connection.deadline) answer(connection);
    ::close(socket);
  }
}

void Listener::answer(const Connection &connection) {
  Exchange exchange(*this, connection, Clock::now() + limits_.answer);
  bool isClosed = false;
  try {
    process_request(exchange, true, isClosed, preferGzip);
  } catch (...) {  // in the middle of an answer: it ends there
  }
  held.reset();
}

}  // namespace kepfleet
