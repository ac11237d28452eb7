// collector.cpp: what a run is on the network.
//
//   request   length (4) = 16 | type (4) | number (4) | port to connect back to (4)    one UDP datagram, sent once
//
// The board connects by TCP, sends message by message, each when the one before is acknowledged by one byte, and closes
// the connection behind the last. A connection is a stranger's until the head of its first message is there.
//
// Sockets are waited for and then read into one buffer, so that a connection that is silent costs little. Handlers hold
// what they work on; what is over, or dropped, has a closed socket and is left alone.

#include "kep-fleet/collector.hpp"

#include <netinet/in.h>

#include <algorithm>
#include <optional>
#include <random>
#include <utility>
#include <vector>

#include "server/bytes.hpp"
#include "server/stream.hpp"

namespace kepfleet {

namespace {

using asio::ip::tcp;
using asio::ip::udp;
using namespace kepserver;

constexpr size_t kHeadSize = 12;  // of a message: length, type, number
constexpr char kAcknowledgement = '\x06';
constexpr int32_t kNeverAnswered = -1;
constexpr size_t kMostStrangers = 1024;
constexpr std::chrono::seconds kStrangersTime{5};
constexpr std::chrono::milliseconds kAcceptPause{100};    // when there are no descriptors left
constexpr size_t kMostBytesUnderWay = size_t{256} << 20;  // of all runs; beyond it the large ones are broken off
constexpr size_t kLarge = size_t{1} << 20;

std::array<uint32_t, 4> requestOf(int type, int32_t number, uint16_t port) {
  std::array<uint32_t, 4> fields{};
  fields = {htonl(sizeof fields), htonl(static_cast<uint32_t>(type)), htonl(static_cast<uint32_t>(number)),
            htonl(port)};
  return fields;
}

int64_t wallClock() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
      .count();
}

bool isAgain(const asio::error_code &error) {
  return error == asio::error::would_block || error == asio::error::try_again || error == asio::error::interrupted;
}

void abandon(tcp::socket &socket) {
  asio::error_code ignored;
  socket.close(ignored);
}

}  // namespace

// A run from its request to its end.
struct Collector::Session {
  Session(asio::io_context &context, Question toAsk, Done whenDone)
      : question(std::move(toAsk)), done(std::move(whenDone)), socket(context), timer(context) {}

  Question question;
  Done done;
  int32_t number = 0;
  tcp::socket socket;  // closed until the board has connected
  asio::steady_timer timer;
  std::optional<StreamDecoder> decoder;
  Run run;
  Clock::time_point asked, heard;
  Limits limits;
  bool isOver = false;
};

struct Collector::Stranger {
  Stranger(tcp::socket &&connection, Clock::time_point now) : socket(std::move(connection)), since(now) {}

  tcp::socket socket;
  Clock::time_point since;
  std::array<char, kHeadSize> head{};
  size_t size = 0;
  std::list<StrangerPointer>::iterator place;
  bool isGone = false;
};

Collector::Collector(asio::io_context &context, const std::string &address, uint16_t port, const Limits &limits)
    : context_(context),
      limits_(limits),
      requests_(context),
      acceptor_(context),
      acceptTimer_(context),
      strangerTimer_(context),
      resolver_(context) {
  try {
    const asio::ip::address local = asio::ip::make_address_v4(address);
    acceptor_.open(tcp::v4());
    acceptor_.set_option(tcp::acceptor::reuse_address(true));
    acceptor_.bind({local, port});
    acceptor_.listen(asio::socket_base::max_listen_connections);
    requests_.open(udp::v4());
    requests_.bind({local, 0});
    requests_.non_blocking(true);
    port_ = acceptor_.local_endpoint().port();
  } catch (const std::system_error &error) {
    throw ConfigError{"", 0,
                      "cannot listen at " + address + ":" + std::to_string(port) + ": " + error.code().message()};
  }
  accept();
}

Collector::~Collector() = default;

// ---- requests

int32_t Collector::freeNumber() {
  static std::random_device random;
  for (;;) {
    const auto number = static_cast<int32_t>(random());
    if (number != 0 && number != kNeverAnswered && sessions_.count(number) == 0) return number;
  }
}

void Collector::ask(Question question, Done done) {
  const auto session = std::make_shared<Session>(context_, std::move(question), std::move(done));
  const Question &asked = session->question;
  session->number = freeNumber();
  session->limits = limits_;
  session->asked = Clock::now();
  session->run.board = asked.board;
  session->run.started = wallClock();
  session->run.type = asked.type;
  session->run.lease = asked.lease;
  sessions_.emplace(session->number, session);
  underWay_ = sessions_.size();
  watch(session);
  const std::string host = asked.host;
  resolver_.find(host, [this, session](const asio::ip::address_v4 &address, const std::string &error) {
    if (session->isOver) return;
    if (error.empty()) return send(session, address);
    // Not from within ask(): whoever asks is told later.
    asio::post(context_, [this, session, error] { end(session, Outcome::kNoAnswer, error); });
  });
}

// The socket is shared and not connected, so that what a host refuses is no error of the next request's. What is for a
// host that the link does not know stays in it for three seconds: when many of them have filled it, there is a new one,
// and the old one's requests are sent all the same.
void Collector::send(const SessionPointer &session, const asio::ip::address_v4 &address) {
  const auto request = requestOf(session->question.type, session->number, port_);
  const udp::endpoint place(address, session->question.port);
  asio::error_code error;
  requests_.send_to(asio::buffer(request), place, 0, error);
  if (isAgain(error)) {
    udp::socket empty(context_);
    empty.open(udp::v4(), error);
    if (!error) empty.bind({acceptor_.local_endpoint(error).address(), 0}, error);
    if (!error) empty.non_blocking(true, error);
    if (!error) empty.send_to(asio::buffer(request), place, 0, error);
    if (!error) requests_ = std::move(empty);
  }
  if (!error) return;
  asio::post(context_, [this, session, text = "cannot send the request: " + error.message()] {
    end(session, Outcome::kNoAnswer, text);
  });
}

void Collector::cancel(const std::string &board, const std::string &reason) {
  for (const auto &[number, session] : sessions_) {
    if (session->question.board != board) continue;
    const SessionPointer found = session;
    return end(found, Outcome::kBrokenOff, reason);
  }
}

void Collector::cancelAll(const std::string &reason) {
  std::vector<SessionPointer> all;
  for (const auto &[number, session] : sessions_) all.push_back(session);
  for (const SessionPointer &session : all) end(session, Outcome::kBrokenOff, reason);
}

// ---- strangers

void Collector::accept() {
  acceptor_.async_accept([this](const asio::error_code &error, tcp::socket socket) {
    if (error == asio::error::operation_aborted) return;
    if (error == asio::error::no_descriptors || error.value() == ENFILE || error == asio::error::no_memory ||
        error == asio::error::no_buffer_space) {
      dropOldest();
      return acceptLater();
    }
    if (!error) welcome(std::move(socket));  // other errors are of a connection that is gone already
    accept();
  });
}

void Collector::acceptLater() {
  acceptTimer_.expires_after(kAcceptPause);
  acceptTimer_.async_wait([this](const asio::error_code &error) {
    if (!error) accept();
  });
}

void Collector::welcome(tcp::socket socket) {
  asio::error_code ignored;
  socket.non_blocking(true, ignored);
  socket.set_option(tcp::no_delay(true), ignored);  // acknowledgements are small and waited for
  if (strangers_.size() >= kMostStrangers) dropOldest();
  const auto stranger = std::make_shared<Stranger>(std::move(socket), Clock::now());
  stranger->place = strangers_.insert(strangers_.end(), stranger);
  watchStrangers();
  hear(stranger);
}

void Collector::hear(const StrangerPointer &stranger) {
  stranger->socket.async_wait(tcp::socket::wait_read, [this, stranger](const asio::error_code &error) {
    if (stranger->isGone) return;
    if (error) return drop(stranger);
    hearMore(stranger);
  });
}

// Takes no more than the head: the rest is the run's.
void Collector::hearMore(const StrangerPointer &stranger) {
  Stranger &who = *stranger;
  asio::error_code error;
  who.size += who.socket.read_some(asio::buffer(who.head.data() + who.size, kHeadSize - who.size), error);
  if (error && !isAgain(error)) return drop(stranger);
  if (who.size < kHeadSize) return hear(stranger);
  const auto number = static_cast<int32_t>(loadBig<uint32_t>(who.head.data() + 8));
  const auto found = sessions_.find(number);
  if (found == sessions_.end() || found->second->socket.is_open()) return drop(stranger);
  const SessionPointer session = found->second;
  who.isGone = true;
  strangers_.erase(who.place);
  join(session, who);
}

// The argument is not the list's own, which goes.
void Collector::drop(const StrangerPointer &stranger) {
  if (std::exchange(stranger->isGone, true)) return;
  abandon(stranger->socket);
  strangers_.erase(stranger->place);
  ++strangerCount_;
}

void Collector::dropOldest() {
  if (!strangers_.empty()) drop(StrangerPointer(strangers_.front()));
}

// All have the same time, so that one timer does for the oldest.
void Collector::watchStrangers() {
  if (watchesStrangers_ || strangers_.empty()) return;
  watchesStrangers_ = true;
  strangerTimer_.expires_at(strangers_.front()->since + kStrangersTime);
  strangerTimer_.async_wait([this](const asio::error_code &error) {
    if (error) return;
    watchesStrangers_ = false;
    const Clock::time_point now = Clock::now();
    while (!strangers_.empty() && strangers_.front()->since + kStrangersTime <= now) dropOldest();
    watchStrangers();
  });
}

// ---- runs

void Collector::join(const SessionPointer &session, Stranger &stranger) {
  const RunKind kind = session->question.type == kSelfTest ? RunKind::kSelfTest : RunKind::kCollection;
  session->socket = std::move(stranger.socket);
  session->decoder.emplace(Expectation{kind, session->number, false});
  session->heard = Clock::now();
  watch(session);
  if (feed(session, stranger.head.data(), stranger.size)) wait(session);
}

void Collector::wait(const SessionPointer &session) {
  session->socket.async_wait(tcp::socket::wait_read, [this, session](const asio::error_code &error) {
    if (session->isOver) return;
    if (error) return end(session, Outcome::kBrokenOff, "the connection broke: " + error.message());
    read(session);
  });
}

// One portion, so that a board that sends without end holds up no other.
void Collector::read(const SessionPointer &session) {
  asio::error_code error;
  const size_t size = session->socket.read_some(asio::buffer(buffer_), error);
  if (isAgain(error)) return wait(session);
  if (error == asio::error::eof) return endByStream(session);
  if (error) return end(session, Outcome::kBrokenOff, "the connection broke: " + error.message());
  session->heard = Clock::now();
  if (feed(session, buffer_.data(), size)) wait(session);
}

// Returns whether the run goes on.
bool Collector::feed(const SessionPointer &session, const char *bytes, size_t size) {
  std::string &stream = session->run.stream;
  const bool isTooMuch = bytesUnderWay_ + size > kMostBytesUnderWay && stream.size() + size > kLarge;
  if (isTooMuch || stream.size() + size > session->limits.runBytes) {
    const std::string most = std::to_string(session->limits.runBytes);
    end(session, Outcome::kBrokenOff,
        isTooMuch ? "too much is under way" : "the run goes on beyond " + most + " bytes");
    return false;
  }
  stream.append(bytes, size);
  bytesUnderWay_ += size;
  const size_t completed = session->decoder->feed(bytes, size);
  asio::error_code error;
  for (size_t i = 0; i < completed && !error; ++i) {  // one by one: a board takes what comes at once for one
    session->socket.write_some(asio::buffer(&kAcknowledgement, 1), error);
  }
  if (session->decoder->damage()) {
    endByStream(session);
    return false;
  }
  // A connection that is gone, the next read tells; what takes no acknowledgements waits for none.
  if (!isAgain(error)) return true;
  end(session, Outcome::kBrokenOff, "the board takes no acknowledgements");
  return false;
}

// One timer, looked at when the earliest of the limits could have come: most of the time it has moved on by then.
void Collector::watch(const SessionPointer &session) {
  const Clock::time_point last = session->asked + session->limits.run;
  const Clock::time_point next =
      session->decoder ? session->heard + session->limits.silence : session->asked + session->limits.connect;
  session->timer.expires_at(std::min(last, next));
  session->timer.async_wait([this, session](const asio::error_code &error) {
    if (!error && !session->isOver) checkTime(session);
  });
}

void Collector::checkTime(const SessionPointer &session) {
  const Clock::time_point now = Clock::now();
  if (!session->decoder && now >= session->asked + session->limits.connect) {
    return end(session, Outcome::kNoAnswer, "no connection from the board");
  }
  if (now >= session->asked + session->limits.run) {
    return end(session, Outcome::kBrokenOff, "timed out: the run takes too long");
  }
  if (session->decoder && now >= session->heard + session->limits.silence) {
    return end(session, Outcome::kBrokenOff, "timed out: no more data from the board");
  }
  watch(session);
}

void Collector::endByStream(const SessionPointer &session) {
  session->decoder->finish();
  const std::optional<Damage> &damage = session->decoder->damage();
  end(session, damage ? Outcome::kDamaged : Outcome::kWhole, damage ? describe(*damage) : "");
}

// Likewise, not the map's own.
void Collector::end(const SessionPointer &session, Outcome outcome, std::string reason) {
  if (std::exchange(session->isOver, true)) return;
  sessions_.erase(session->number);
  underWay_ = sessions_.size();
  session->timer.cancel();
  abandon(session->socket);
  Run &run = session->run;
  bytesUnderWay_ -= run.stream.size();
  run.outcome = outcome;
  run.reason = std::move(reason);
  const auto duration = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - session->asked);
  run.duration = static_cast<uint32_t>(duration.count());
  if (session->decoder) run.messages = static_cast<uint32_t>(session->decoder->run().messageCount);
  std::exchange(session->done, nullptr)(std::move(run));
}

}  // namespace kepfleet
