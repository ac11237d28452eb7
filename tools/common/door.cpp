// door.cpp: sockets of one request.

#include "common/door.hpp"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "server/bytes.hpp"

namespace kepcommand {

namespace {

constexpr size_t kRequestSize = 16;
constexpr size_t kHeaderSize = 12;  // of a message; its last field is the sequence
constexpr size_t kSequenceOffset = 8;
constexpr size_t kMostCallers = 8;  // that have yet to say a number

// A socket at a free port of the listen address.
Descriptor openSocket(int type, const std::string &listenAddress) {
  Descriptor fd(socket(AF_INET, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (fd.get() < 0) failWithErrno(kNoAnswer, "cannot open a socket");
  sockaddr_in address{};
  address.sin_family = AF_INET;
  inet_pton(AF_INET, listenAddress.c_str(), &address.sin_addr);
  if (bind(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) < 0) {
    failWithErrno(errno == EADDRNOTAVAIL ? kUsage : kNoAnswer, listenAddress);
  }
  return fd;
}

in_port_t portOf(int fd) {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  if (getsockname(fd, reinterpret_cast<sockaddr *>(&address), &size) < 0)
    failWithErrno(kNoAnswer, "cannot tell a port");
  return ntohs(address.sin_port);
}

// The UDP socket is connected, so that a board that does not serve shows itself at once as a refusal.
void sendRequest(int fd, in_addr board, const Request &request, in_port_t listenPort) {
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(request.port);
  to.sin_addr = board;
  const std::array<uint32_t, 4> fields = {htonl(kRequestSize), htonl(request.type),
                                          htonl(static_cast<uint32_t>(request.sequence)), htonl(listenPort)};
  static_assert(sizeof fields == kRequestSize, "four fields of 4 bytes");
  if (connect(fd, reinterpret_cast<const sockaddr *>(&to), sizeof to) < 0 ||
      send(fd, fields.data(), kRequestSize, MSG_NOSIGNAL) < 0) {
    failWithErrno(kNoAnswer, "cannot send the request to " + request.host);
  }
}

// A refusal comes as the request socket's error; a datagram has nothing to say to us and is thrown away.
void throwOnRefusal(int requestSocket, const Request &request) {
  char unused = 0;
  if (recv(requestSocket, &unused, sizeof unused, 0) >= 0 || errno == EAGAIN || errno == EINTR) return;
  failWithErrno(kNoAnswer, request.host + " port " + std::to_string(request.port));
}

// Whether accept's error is that of a connection which is gone already, or of its network, and says nothing of the
// next.
bool isOfOneConnection(int error) {
  constexpr std::array<int, 9> kErrors = {ECONNABORTED, ENETDOWN,     EPROTO,     ENOPROTOOPT, EHOSTDOWN,
                                          ENONET,       EHOSTUNREACH, EOPNOTSUPP, ENETUNREACH};
  return std::find(kErrors.begin(), kErrors.end(), error) != kErrors.end();
}

std::string unnumbered(in_addr from) {
  return std::string(", but one from ") + inet_ntoa(from) + " that does not begin with the request's number";
}

enum class Word { kNone, kRight, kWrong };

// Reads on, no further than to the number.
Word wordOf(Caller &caller, int32_t sequence) {
  if (sequence == 0) return Word::kRight;  // the board's own number is not known
  std::array<char, kHeaderSize> bytes;
  const ssize_t size = recv(caller.connection.get(), bytes.data(), kHeaderSize - caller.begun.size(), 0);
  if (size < 0 && (errno == EAGAIN || errno == EINTR)) return Word::kNone;
  if (size <= 0) return Word::kWrong;
  caller.begun.append(bytes.data(), static_cast<size_t>(size));
  if (caller.begun.size() < kHeaderSize) return Word::kNone;
  const auto number = kepserver::loadBig<uint32_t>(caller.begun.data() + kSequenceOffset);
  return number == static_cast<uint32_t>(sequence) ? Word::kRight : Word::kWrong;
}

}  // namespace

Door::Door(const Request &request, in_addr board)
    : request_(request),
      board_(board),
      listener_(openSocket(SOCK_STREAM, request.listenAddress)),
      requestSocket_(openSocket(SOCK_DGRAM, request.listenAddress)) {
  if (listen(listener_.get(), kMostCallers) < 0) failWithErrno(kNoAnswer, "cannot listen");
  sendRequest(requestSocket_.get(), board, request, portOf(listener_.get()));
}

void Door::await(std::vector<pollfd> &entries) const {
  for (const Descriptor *socket : {&listener_, &requestSocket_}) entries.push_back({socket->get(), POLLIN, 0});
  for (const Caller &caller : callers_) entries.push_back({caller.connection.get(), POLLIN, 0});
}

std::optional<Caller> Door::answer() {
  takeCaller();
  for (auto caller = callers_.begin(); caller != callers_.end();) {
    const Word word = wordOf(*caller, request_.sequence);
    if (word == Word::kRight) return std::move(*caller);
    if (word == Word::kWrong) stranger_ = unnumbered(caller->from);
    caller = word == Word::kWrong ? callers_.erase(caller) : std::next(caller);
  }
  return std::nullopt;
}

std::string Door::missing() const {
  const std::string who = !callers_.empty() ? unnumbered(callers_.back().from) : stranger_;
  return "no connection from " + request_.host + " port " + std::to_string(request_.port) + who;
}

// Where too many say nothing the first to have come gives way, so that they keep no board out.
void Door::takeCaller() {
  sockaddr_in peer{};
  socklen_t size = sizeof peer;
  Descriptor connection(
      accept4(listener_.get(), reinterpret_cast<sockaddr *>(&peer), &size, SOCK_NONBLOCK | SOCK_CLOEXEC));
  if (connection.get() < 0) {
    if (errno != EAGAIN && errno != EINTR && !isOfOneConnection(errno)) failWithErrno(kNoAnswer, "cannot accept");
    return throwOnRefusal(requestSocket_.get(), request_);
  }
  if (!request_.anySource && peer.sin_addr.s_addr != board_.s_addr) {
    stranger_ = std::string(", but one from ") + inet_ntoa(peer.sin_addr) + ": see --any-source";
    return;
  }
  callers_.push_back({std::move(connection), peer.sin_addr, ""});
  if (callers_.size() > kMostCallers) callers_.pop_front();
}

}  // namespace kepcommand
