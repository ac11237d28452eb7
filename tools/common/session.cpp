// session.cpp: a run as the network sees it.
//
//   request   length (4) = 16 | type (4) | sequence (4) | port to connect back to (4)      one UDP datagram
//
// The board connects by TCP to the datagram's source address and the port named in it. It sends message by message,
// each only after the one before was acknowledged, and closes the connection behind the last.
//
// The request is sent once, never again: every datagram that a board takes starts a run of its own.

#include "common/session.hpp"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <random>
#include <utility>

#include "common/command_line.hpp"
#include "server/text.hpp"

namespace kepcommand {

namespace {

using namespace kepserver;

constexpr size_t kRequestSize = 16;
constexpr char kAcknowledgement = '\x06';
constexpr int kBacklog = 8;  // others may knock, too

void waitOrFail(pollfd *entries, nfds_t count, Clock::time_point deadline, const std::string &what) {
  const Wake wake = waitUntil(entries, count, deadline);
  if (wake == Wake::kTimeout) throw Failure{kNoAnswer, "timed out: " + what};
  if (wake == Wake::kSignal) throw Failure{kBrokenOff, "interrupted"};
}

sockaddr_in resolve(const std::string &host, uint16_t port, int flags) {
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_DGRAM;
  hints.ai_flags = flags;
  addrinfo *found = nullptr;
  const int error = getaddrinfo(host.c_str(), nullptr, &hints, &found);
  const std::unique_ptr<addrinfo, void (*)(addrinfo *)> guard(found, freeaddrinfo);
  failIfSignalled();  // no signal cuts a look-up short: it may have come long ago
  if (error != 0) throw Failure{kNoAnswer, host + ": " + gai_strerror(error)};
  sockaddr_in address{};
  std::memcpy(&address, found->ai_addr, sizeof address);
  address.sin_port = htons(port);
  return address;
}

// A socket at a free port of the listen address.
Descriptor openSocket(int type, const std::string &listenAddress) {
  Descriptor fd(socket(AF_INET, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (fd.get() < 0) failWithErrno(kNoAnswer, "cannot open a socket");
  const sockaddr_in address = resolve(listenAddress, 0, AI_NUMERICHOST);
  if (bind(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) < 0) {
    failWithErrno(errno == EADDRNOTAVAIL ? kUsage : kNoAnswer, listenAddress);
  }
  return fd;
}

// The socket's own address, or with getpeername that of its other end.
sockaddr_in addressOf(int fd, int (*end)(int, sockaddr *, socklen_t *)) {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  if (end(fd, reinterpret_cast<sockaddr *>(&address), &size) < 0) failWithErrno(kNoAnswer, "cannot tell an address");
  return address;
}

// The UDP socket is connected, so that a board that does not serve shows itself at once as a refusal.
void sendRequest(int fd, const sockaddr_in &board, const Request &request, uint16_t listenPort) {
  const std::array<uint32_t, 4> fields = {htonl(kRequestSize), htonl(request.type),
                                          htonl(static_cast<uint32_t>(request.sequence)), htonl(listenPort)};
  static_assert(sizeof fields == kRequestSize, "four fields of 4 bytes");
  if (connect(fd, reinterpret_cast<const sockaddr *>(&board), sizeof board) < 0 ||
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

// The first to come from the board's address is the board, and nobody comes second. Anybody else is turned away, and
// named should the board not come: it may be the board at another of its addresses.
Descriptor takeConnection(int listener, int requestSocket, const Request &request) {
  const Clock::time_point deadline = Clock::now() + request.timeout;
  const in_addr board = addressOf(requestSocket, getpeername).sin_addr;
  const std::string what = "no connection from " + request.host + " port " + std::to_string(request.port);
  std::string stranger;
  do {
    std::array<pollfd, 2> entries = {pollfd{listener, POLLIN, 0}, pollfd{requestSocket, POLLIN, 0}};
    waitOrFail(entries.data(), entries.size(), deadline, what + stranger);
    sockaddr_in peer{};
    socklen_t size = sizeof peer;
    Descriptor connection(accept4(listener, reinterpret_cast<sockaddr *>(&peer), &size, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (connection.get() < 0) {
      if (errno != EAGAIN && errno != EINTR && !isOfOneConnection(errno)) failWithErrno(kNoAnswer, "cannot accept");
      throwOnRefusal(requestSocket, request);
    } else if (request.anySource || peer.sin_addr.s_addr == board.s_addr) {
      return connection;
    } else {
      stranger = std::string(", but one from ") + inet_ntoa(peer.sin_addr) + ": see --any-source";
    }
  } while (Clock::now() < deadline);
  throw Failure{kNoAnswer, "timed out: " + what + stranger};
}

Descriptor connectionFrom(const Request &request) {
  const sockaddr_in board = resolve(request.host, request.port, 0);
  const Descriptor listener = openSocket(SOCK_STREAM, request.listenAddress);
  const Descriptor requestSocket = openSocket(SOCK_DGRAM, request.listenAddress);
  if (listen(listener.get(), kBacklog) < 0) failWithErrno(kNoAnswer, "cannot listen");
  sendRequest(requestSocket.get(), board, request, ntohs(addressOf(listener.get(), getsockname).sin_port));
  return takeConnection(listener.get(), requestSocket.get(), request);
}

// One byte: the board takes whatever one receive call yields for a whole acknowledgement, and a single byte cannot
// arrive in parts. A connection that is gone is left to the next read, which tells whether it was closed or reset.
void acknowledge(int fd, std::chrono::milliseconds timeout) {
  while (send(fd, &kAcknowledgement, 1, MSG_NOSIGNAL) < 0) {
    if (errno != EAGAIN && errno != EINTR) return;
    pollfd entry = {fd, POLLOUT, 0};
    waitOrFail(&entry, 1, Clock::now() + timeout, "the board takes no acknowledgement");
  }
}

// Where the board was, as far as it has said.
std::string placeIn(const Run &run) {
  if (run.values.empty()) return ", which has reported nothing yet";
  const std::string name = printable(itemName(run, run.values.back()));
  return ", which reported " + (name.empty() ? "item " + std::to_string(run.values.back().item) : name) + " last";
}

// What is no file, as a pipe, has nothing in it to go.
void clearFile(int raw) {
  if (ftruncate(raw, 0) < 0 && errno != EINVAL) failWithErrno(kBrokenOff, "cannot write the raw file");
}

// Returns when the board has closed the connection or the data is damaged.
void receiveRun(int fd, std::chrono::milliseconds timeout, StreamDecoder &decoder, int raw) {
  const int on = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);  // acknowledgements are small and waited for
  std::array<char, 4096> buffer;
  bool hasBegun = false;
  while (!decoder.damage()) {
    pollfd entry = {fd, POLLIN, 0};
    const Wake wake = waitUntil(&entry, 1, Clock::now() + timeout);
    if (wake == Wake::kTimeout)
      throw Failure{kNoAnswer, "timed out: no more data from the board" + placeIn(decoder.run())};
    failIfSignalled();
    const ssize_t size = recv(fd, buffer.data(), buffer.size(), 0);
    if (size < 0 && (errno == EAGAIN || errno == EINTR)) continue;
    if (size < 0) failWithErrno(kBrokenOff, "the connection broke");
    if (size == 0) {
      decoder.finish();
      return;
    }
    if (raw >= 0 && !std::exchange(hasBegun, true)) clearFile(raw);
    if (raw >= 0 && !writeAll(raw, buffer.data(), static_cast<size_t>(size))) {
      failWithErrno(kBrokenOff, "cannot write the raw file");
    }
    const size_t completed = decoder.feed(buffer.data(), static_cast<size_t>(size));
    for (size_t i = 0; i < completed; ++i) acknowledge(fd, timeout);
  }
}

// The system lets a socket listen at a multicast address and at the broadcast as well.
std::string checkListenAddress(const std::string &text) {
  in_addr address{};
  if (inet_pton(AF_INET, text.c_str(), &address) != 1) return checkAddress(text);
  const bool isMany = ntohl(address.s_addr) >> 28 == 0xE || address.s_addr == INADDR_BROADCAST;
  return isMany ? "nobody can connect to " + text : "";
}

}  // namespace

int32_t randomSequence() {
  std::random_device random;
  for (;;) {
    const auto sequence = static_cast<int32_t>(random());
    if (sequence != 0 && sequence != kNeverAnswered) return sequence;
  }
}

CLI::Option *addHost(CLI::App &app, const std::string &name, Request &request, const std::string &help) {
  const auto read = [&app, name, &request](const std::string &text) {
    const size_t colon = text.rfind(':');
    request.host = text.substr(0, colon);
    const std::string complaint = checkHost(request.host);
    if (!complaint.empty()) throw CLI::ValidationError(name, complaint);
    if (colon == std::string::npos) return;
    if (app.count("--port") > 0) throw CLI::ValidationError(name, "a port in " + text + ", and --port");
    request.port = static_cast<uint16_t>(wholeNumber(name, text.substr(colon + 1), 1, 65535));
  };
  return app.add_option_function<std::string>(name, read, help);
}

std::vector<CLI::Option *> addRequestOptions(CLI::App &app, Request &request) {
  return {
      addNumber(app, "--port", request.port, 1, 65535, "UDP port at which the board takes requests [9099]")
          ->type_name("PORT"),
      addNumber(app, "--type", request.type, 0, 2, "What to collect; the board says what each means [0]")
          ->type_name("0|1|2"),
      app.add_option("--listen", request.listenAddress, "Local IPv4 address that the board connects to [any]")
          ->type_name("ADDR")
          ->check(checkListenAddress),
      app.add_flag("--any-source", request.anySource, "Let the board connect from any address, not only from HOST's"),
      addSeconds(app, "--timeout", request.timeout, "Longest wait for the connection, and for data each time [10]")
          ->type_name("SECONDS"),
  };
}

Outcome outcomeOf(StreamDecoder &decoder) {
  Outcome outcome;
  outcome.run = decoder.takeRun();
  if (const std::optional<Damage> &damage = decoder.damage()) {
    outcome.status = kDamaged;
    outcome.diagnostic = describe(*damage);
  }
  return outcome;
}

Outcome collect(const Request &request, int raw) {
  const RunKind kind = request.type == kSelfTestRequest ? RunKind::kSelfTest : RunKind::kCollection;
  StreamDecoder decoder({kind, request.sequence});
  bool connected = false;
  Outcome outcome;
  try {
    const Descriptor connection = connectionFrom(request);
    connected = true;
    receiveRun(connection.get(), request.timeout, decoder, raw);
    outcome = outcomeOf(decoder);
  } catch (const Failure &failure) {
    outcome = {failure.status, failure.text, false, decoder.takeRun()};
  }
  outcome.connected = connected;
  return outcome;
}

}  // namespace kepcommand
