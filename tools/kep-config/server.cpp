// server.cpp: queries and answers as the network sees them.
//
// A board broadcasts its first query, and asks whoever answered from then on. A query is sent once and waits a second.

#include "server.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <optional>
#include <string_view>

#include "common/process.hpp"

namespace kepconfig {

namespace {

using namespace kepcommand;

sockaddr_in addressOf(const Endpoint &endpoint) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(endpoint.port);
  inet_pton(AF_INET, endpoint.address.c_str(), &address.sin_addr);
  return address;
}

Endpoint endpointOf(const sockaddr_in &address) {
  std::array<char, INET_ADDRSTRLEN> text{};
  inet_ntop(AF_INET, &address.sin_addr, text.data(), text.size());
  return {text.data(), ntohs(address.sin_port)};
}

Wake waitForDatagram(int fd, std::optional<Clock::time_point> deadline) {
  pollfd entry = {fd, POLLIN, 0};
  return waitUntil(&entry, 1, deadline);
}

// Answers one datagram, and returns what became of it, as the log has it.
std::string answer(int fd, const sockaddr_in &from, std::string_view datagram, const Settings &settings,
                   bool echoDefault) {
  const std::optional<Query> query = parseQuery(datagram);
  if (!query) return "malformed " + escaped(datagram);
  const std::string name = escaped(query->section) + " " + escaped(query->key);
  const auto known = settings.find({query->section, query->key});
  if (known == settings.end() && !echoDefault) return "silent " + name;
  const std::string &value = known == settings.end() ? query->defaultValue : known->second.value;
  if (sendto(fd, value.data(), value.size(), 0, reinterpret_cast<const sockaddr *>(&from), sizeof from) < 0) {
    return "unsent " + name + " " + std::strerror(errno);
  }
  return (known == settings.end() ? "default " : "value ") + name + " " + escaped(value);
}

}  // namespace

std::string nameOf(const Endpoint &endpoint) { return endpoint.address + " port " + std::to_string(endpoint.port); }

Socket::Socket(const Endpoint &local) : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
  if (fd_ < 0) failWithErrno(kBrokenOff, "cannot open a socket");
  const sockaddr_in address = addressOf(local);
  if (bind(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0) return;
  const int error = errno;
  close(fd_);
  errno = error;
  failWithErrno(kUsage, nameOf(local));
}

Socket::~Socket() { close(fd_); }

Endpoint Socket::local() const {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  if (getsockname(fd_, reinterpret_cast<sockaddr *>(&address), &size) < 0) failWithErrno(kBrokenOff, "getsockname");
  return endpointOf(address);
}

bool serve(const Socket &socket, const Settings &settings, bool echoDefault, std::ostream &log) {
  std::array<char, kMaxSize + 1> datagram{};  // one byte more than a query, so that a longer one is told
  for (;;) {
    const Wake wake = waitForDatagram(socket.fd(), std::nullopt);
    if (wake == Wake::kHangup || wake == Wake::kSignal) return wake == Wake::kHangup;
    sockaddr_in from{};
    socklen_t fromSize = sizeof from;
    const ssize_t size =
        recvfrom(socket.fd(), datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr *>(&from), &fromSize);
    if (size < 0 && (errno == EAGAIN || errno == EINTR)) continue;
    if (size < 0) failWithErrno(kBrokenOff, "cannot receive");
    const std::string_view text(datagram.data(), static_cast<size_t>(size));
    const Endpoint sender = endpointOf(from);
    log << sender.address << ':' << sender.port << ' ' << answer(socket.fd(), from, text, settings, echoDefault)
        << std::endl;
  }
}

std::string ask(const Endpoint &server, const Query &query, std::chrono::milliseconds timeout) {
  const Clock::time_point deadline = Clock::now() + timeout;
  const sockaddr_in address = addressOf(server);
  const Socket socket({"0.0.0.0", 0});
  const int on = 1;
  setsockopt(socket.fd(), SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
  const std::string text = formatQuery(query);
  if (sendto(socket.fd(), text.data(), text.size(), 0, reinterpret_cast<const sockaddr *>(&address), sizeof address) <
      0) {
    failWithErrno(kNoAnswer, "cannot send to " + nameOf(server));
  }
  for (;;) {
    const Wake wake = waitForDatagram(socket.fd(), deadline);
    if (wake == Wake::kTimeout) throw Failure{kNoAnswer, "no answer from " + nameOf(server)};
    if (wake == Wake::kSignal) throw Failure{kBrokenOff, "interrupted"};
    std::array<char, kMaxSize> reply{};
    const ssize_t size = recv(socket.fd(), reply.data(), reply.size(), 0);
    if (size >= 0) return std::string(reply.data(), static_cast<size_t>(size));
    if (errno != EAGAIN && errno != EINTR) failWithErrno(kNoAnswer, "cannot receive");
  }
}

}  // namespace kepconfig
