// session.cpp: a board's run as the network sees it: a name is looked up, a request sent, a connection awaited. The
// board sends message by message, each only after the one before was acknowledged, and closes the connection behind
// the last.
//
// All boards are served in turn, whichever has something to say; only what goes to a raw file is waited for.

#include "common/session.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <list>
#include <optional>
#include <string_view>
#include <utility>

#include "common/door.hpp"
#include "common/look_up.hpp"

namespace kepcommand {

namespace {

using namespace kepserver;

constexpr char kAcknowledgement = '\x06';

// One board's run. Of lookUp_, door_ and connection_ there is one at a time, and none when it is over.
class Session {
 public:
  Session(const Request &request, int raw)
      : request_(request),
        raw_(raw),
        decoder_({request.type == kSelfTestRequest ? RunKind::kSelfTest : RunKind::kCollection, request.sequence}) {
    attempt([this] { begin(); });
  }

  // Appends what it waits for, if anything, and makes the deadline its own where that is nearer.
  void await(std::vector<pollfd> &entries, Clock::time_point &deadline);

  // Goes on after the wait. Throws nothing.
  void goOn(Wake wake, const std::vector<pollfd> &entries);

  Outcome takeOutcome() { return std::move(outcome_); }

 private:
  template <class Step>
  void attempt(const Step &step) {
    try {
      step();
    } catch (const Failure &failure) {
      end({failure.status, signalled() ? "" : failure.text, false, decoder_.takeRun()});
    }
  }

  bool isOver() const { return !lookUp_ && !door_ && !connection_; }
  void begin();
  void ask(in_addr board);
  void step();
  void open(Caller caller);
  void receive();
  void take(std::string_view bytes);
  void acknowledge();
  std::string patience() const;
  void end(Outcome outcome);
  void renewDeadline() { deadline_ = Clock::now() + request_.timeout; }

  Request request_;
  int raw_;
  StreamDecoder decoder_;
  std::optional<LookUp> lookUp_;
  std::optional<Door> door_;
  std::optional<Descriptor> connection_;
  bool hasConnected_ = false;
  bool isKept_ = false;                     // some of it, in the raw file
  size_t owed_ = 0;                         // acknowledgements
  size_t firstEntry_ = 0, entryCount_ = 0;  // its own of the last wait
  Clock::time_point deadline_;
  Outcome outcome_;
};

void Session::await(std::vector<pollfd> &entries, Clock::time_point &deadline) {
  firstEntry_ = entries.size();
  if (lookUp_) entries.push_back({lookUp_->fd(), POLLIN, 0});
  if (door_) door_->await(entries);
  if (connection_) entries.push_back({connection_->get(), static_cast<short>(owed_ > 0 ? POLLOUT : POLLIN), 0});
  entryCount_ = entries.size() - firstEntry_;
  if (!isOver()) deadline = std::min(deadline, deadline_);
}

// A deadline is met even where something is always ready, as strangers are that knock on and on.
void Session::goOn(Wake wake, const std::vector<pollfd> &entries) {
  if (isOver()) return;
  if (wake == Wake::kSignal) return end({kBrokenOff, "", false, decoder_.takeRun()});
  const auto first = entries.begin() + static_cast<std::ptrdiff_t>(firstEntry_);
  const bool isReady = std::any_of(first, first + static_cast<std::ptrdiff_t>(entryCount_),
                                   [](const pollfd &entry) { return entry.revents != 0; });
  attempt([&] {
    if (isReady) step();
    if (!isOver() && Clock::now() >= deadline_) throw Failure{kNoAnswer, "timed out: " + patience()};
  });
}

void Session::begin() {
  in_addr board{};
  renewDeadline();
  if (inet_pton(AF_INET, request_.host.c_str(), &board) == 1) return ask(board);
  lookUp_.emplace(request_.host);
}

void Session::ask(in_addr board) {
  lookUp_.reset();
  door_.emplace(request_, board);
  renewDeadline();
}

void Session::step() {
  if (lookUp_) return ask(lookUp_->address());
  if (connection_) return owed_ > 0 ? acknowledge() : receive();
  if (std::optional<Caller> caller = door_->answer()) open(std::move(*caller));
}

void Session::open(Caller caller) {
  const int on = 1;
  setsockopt(caller.connection.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);  // acknowledgements are waited for
  door_.reset();
  connection_.emplace(std::move(caller.connection));
  hasConnected_ = true;
  renewDeadline();
  if (!caller.begun.empty()) take(caller.begun);
}

void Session::receive() {
  std::array<char, 4096> buffer;
  const ssize_t size = recv(connection_->get(), buffer.data(), buffer.size(), 0);
  if (size < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (size < 0) failWithErrno(kBrokenOff, "the connection broke");
  if (size > 0) return take({buffer.data(), static_cast<size_t>(size)});
  decoder_.finish();
  end(outcomeOf(decoder_));
}

void Session::take(std::string_view bytes) {
  // What is no file, as a pipe, has nothing in it to go.
  const bool isCleared = raw_ < 0 || std::exchange(isKept_, true) || ftruncate(raw_, 0) == 0 || errno == EINVAL;
  if (!isCleared || (raw_ >= 0 && !writeAll(raw_, bytes.data(), bytes.size()))) {
    failWithErrno(kBrokenOff, "cannot write the raw file");
  }
  owed_ += decoder_.feed(bytes.data(), bytes.size());
  renewDeadline();
  acknowledge();
}

// One byte each: the board takes whatever one receive call yields for a whole acknowledgement, and a single byte cannot
// arrive in parts. A connection that is gone is left to the next read, which tells whether it was closed or reset.
void Session::acknowledge() {
  for (; owed_ > 0; --owed_) {
    if (send(connection_->get(), &kAcknowledgement, 1, MSG_NOSIGNAL) > 0) continue;
    if (errno == EAGAIN || errno == EINTR) return;
    owed_ = 0;
    break;
  }
  if (decoder_.damage()) end(outcomeOf(decoder_));
}

// What is waited for.
std::string Session::patience() const {
  if (lookUp_) return "no address of " + request_.host;
  if (door_) return door_->missing();
  if (owed_ > 0) return "the board takes no acknowledgement";
  const std::string item = decoder_.lastItem();
  return "no more data from the board, which " +
         (item.empty() ? "has reported nothing yet" : "reported " + item + " last");
}

void Session::end(Outcome outcome) {
  outcome_ = std::move(outcome);
  outcome_.connected = hasConnected_;
  lookUp_.reset();
  door_.reset();
  connection_.reset();
}

}  // namespace

Outcome outcomeOf(StreamDecoder &decoder) {
  Outcome outcome;
  outcome.run = decoder.takeRun();
  if (const std::optional<Damage> &damage = decoder.damage()) {
    outcome.status = kDamaged;
    outcome.diagnostic = describe(*damage);
  }
  return outcome;
}

std::vector<Outcome> collect(const std::vector<Request> &requests, int raw) {
  failIfSignalled();
  std::list<Session> sessions;
  for (const Request &request : requests) sessions.emplace_back(request, raw);
  for (;;) {
    std::vector<pollfd> entries;
    Clock::time_point deadline = Clock::time_point::max();
    for (Session &session : sessions) session.await(entries, deadline);
    if (entries.empty()) break;
    const Wake wake = waitUntil(entries.data(), entries.size(), deadline);
    for (Session &session : sessions) session.goOn(wake, entries);
  }
  std::vector<Outcome> outcomes;
  for (Session &session : sessions) outcomes.push_back(session.takeOutcome());
  return outcomes;
}

}  // namespace kepcommand
