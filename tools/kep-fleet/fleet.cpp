// fleet.cpp: what ties the parts together.

#include "kep-fleet/fleet.hpp"

#include <spdlog/spdlog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <future>
#include <random>
#include <tuple>
#include <utility>

#include "server/text.hpp"

namespace kepfleet {

namespace {

using std::chrono::milliseconds;

constexpr int kBurst = 64;  // requests in one go: after a standstill boards are not asked all at once
constexpr Moment kBreath{10};
constexpr milliseconds kLeaseCheck{250};   // the timer's clock stands still while the machine sleeps
constexpr milliseconds kLeaseMargin{250};  // to break off what is under way, before another instance may ask
constexpr milliseconds kToJudge{400}, kToStore{1000}, kToRelease{300}, kToAlarm{200};  // of two seconds to end
constexpr size_t kLarge = size_t{64} << 10;  // a run of which the network's thread does not decode
constexpr size_t kMostToJudge = size_t{128} << 20;

std::vector<Interval> intervalsOf(const BoardConfig &board, const std::vector<Poll> &polls) {
  std::vector<Interval> intervals;
  for (const Poll &poll : polls) {
    if (hasLabels(board.labels, poll.labels)) intervals.push_back({poll.type, poll.every});
  }
  return intervals;
}

// Two instances of one name would hold the same boards: unless it is given, nobody else has it.
std::string instanceName(const std::string &given) {
  if (!given.empty()) return given;
  std::array<char, 256> host{};
  gethostname(host.data(), host.size() - 1);
  std::random_device random;
  return std::string(host.data()) + "-" + fmt::format("{:08x}", random());
}

// What only a start can change.
auto settledPart(const Config &config) {
  const HttpConfig &http = config.http;
  return std::tie(config.store, config.instance, config.lease, config.listenAddress, config.listenPort, config.log.json,
                  http.address, http.port, http.prefix, http.hosts, http.token, http.probeAny);
}

std::vector<std::string> namesOf(const Config &config) {
  std::vector<std::string> names;
  for (const BoardConfig &board : config.boards) names.push_back(board.name);
  return names;
}

}  // namespace

Fleet::Fleet(const Config &config, const OpenStore &open)
    : boards_(names_),
      config_(config),
      work_(asio::make_work_guard(context_)),
      timer_(context_),
      leaseTimer_(context_),
      schedule_(config.limits.longestPause),
      collector_(context_, config.listenAddress, config.listenPort, config.limits),
      alarm_(config.alarm) {
  names_.load(config);
  boards_.configure(config);
  std::unique_ptr<Store> store = open(config.store, kStorePatience);
  const std::optional<int64_t> newest = recallRuns(*store);
  if (store->leases()) {
    LeaseKeeper::Takers takers;
    takers.leases = [this](const std::vector<Lease> &leases, milliseconds until) {
      onNetwork([&](const Answer &answer) {
        takeLeases(leases, until);
        answer(Asked::kYes);
      });
    };
    takers.othersRuns = [this](StoredRun &&stored) {
      const std::optional<BoardState> state = boards_.find(stored.run.board);
      if (state && !state->isHeld) boards_.recall(std::move(stored.run));
    };
    // One that hangs is to be tried again before the leases end.
    leaseKeeper_ = std::make_unique<LeaseKeeper>(open(config.store, config.lease / 3), instanceName(config.instance),
                                                 config.lease, std::move(takers));
  }
  keeper_ = std::make_unique<Keeper>(std::move(store), config.limits.waitingBytes, config.keep, newest);
  configureBoards(config);
}

Fleet::~Fleet() { stop(); }

void Fleet::start() {
  spdlog::info("{} boards; listening at {}:{}; runs go to {}", boards_.count(), config_.listenAddress, port(),
               leaseKeeper_ ? "the database" : config_.store);  // whose address may hold a password
  asio::post(context_, [this] { tick(); });
  if (leaseKeeper_) asio::post(context_, [this] { watchLeases(); });
  thread_ = std::thread([this] { context_.run(); });
  if (leaseKeeper_) leaseKeeper_->start(namesOf(config_));  // which waits for that thread
}

void Fleet::reload(const Config &config) {
  names_.load(config);
  if (settledPart(config) != settledPart(config_)) {
    spdlog::warn("store, instance, lease, listen, [http] and the log's format change at the next start");
  }
  config_ = config;
  spdlog::set_level(spdlog::level::from_str(config.log.level));
  keeper_->configure(config.limits.waitingBytes, config.keep);
  alarm_.configure(config.alarm);
  if (leaseKeeper_) leaseKeeper_->setBoards(namesOf(config));
  std::promise<void> done;
  asio::post(context_, [&] {
    boards_.configure(config);
    collector_.setLimits(config.limits);
    schedule_.setLongestPause(config.limits.longestPause);
    configureBoards(config);
    arm();
    done.set_value();
  });
  done.get_future().wait();
  spdlog::info("the configuration is read again: {} boards", config.boards.size());
}

Fleet::End Fleet::stop() {
  if (isEnding_.exchange(true)) return End::kGood;
  asio::post(context_, [this] {
    isDiscarding_ = true;
    collector_.cancelAll("the server ends");
  });
  const auto begin = std::chrono::steady_clock::now();
  const uint64_t droppedBefore = keeper_->status().droppedRuns;
  bool isJudged = true;
  if (thread_.joinable()) {
    isJudged = waitForJudge(kToJudge);
    judge_.stop();
    asio::post(context_, [this] { context_.stop(); });
    thread_.join();
    putUnjudged();
  }
  const auto taken = std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - begin);
  const bool isTaken = keeper_->stop(kToStore - taken);
  const bool isStored = isTaken && keeper_->status().droppedRuns == droppedBefore;
  alarm_.stop(kToAlarm);
  const bool isReleased = !leaseKeeper_ || leaseKeeper_->stop(kToRelease);
  if (!isStored) spdlog::error("the store has not taken what waited for it: it is lost");
  if (!isReleased)
    spdlog::warn("the leases are not given back, as the database does not answer: they stay until they end");
  if (!isStored) return End::kLost;
  return isReleased && isJudged ? End::kGood : End::kLate;
}

// Returns when the newest run began. A row that cannot be read keeps no board from being asked.
std::optional<int64_t> Fleet::recallRuns(Store &store) {
  std::optional<int64_t> newest;
  try {
    store.lastRuns(INT64_MIN, [&](StoredRun &&stored) {
      newest = std::max(newest.value_or(stored.run.started), stored.run.started);
      boards_.recall(std::move(stored.run));
      return true;
    });
  } catch (const StoreError &error) {
    spdlog::error("what was collected before cannot be read: {}", error.what());
  }
  return newest;
}

// ---- which boards this instance asks

void Fleet::configureBoards(const Config &config) {
  std::unordered_map<std::string, Place> before = std::exchange(places_, {});
  spread_ = Moment(static_cast<int64_t>(config.boards.size()));
  for (const BoardConfig &board : config.boards) {
    Place &place = places_[board.name];
    place.config = board;
    place.intervals = intervalsOf(board, config.polls);
    const auto known = before.find(board.name);
    if (known != before.end()) {
      const BoardConfig &was = known->second.config;
      const bool hasMoved = was.host != board.host || was.port != board.port;
      place.lease = known->second.lease;
      place.ticket = known->second.ticket;
      place.isHeld = known->second.isHeld;
      before.erase(known);
      if (hasMoved && place.isHeld) {
        letGo(board.name);
        place.isHeld = true;
        ++heldBoards_;
      }
    }
    if (!leaseKeeper_ || place.isHeld) hold(board.name, place.lease);
    boards_.setHeld(board.name, place.isHeld);
    // Who may probe anything is to know the boards by their addresses, too.
    if (config.http.probeAny) collector_.resolver().find(board.host, [](const auto &, const std::string &) {});
  }
  for (const auto &[name, place] : before) {
    if (!place.isHeld) continue;
    places_.emplace(name, place);
    letGo(name);
    places_.erase(name);
  }
}

void Fleet::hold(const std::string &board, uint64_t lease) {
  Place &place = places_[board];
  heldBoards_ += place.isHeld ? 0 : 1;
  place.isHeld = true;
  place.lease = lease;
  schedule_.put(board, place.intervals, now(), spread_);
  boards_.setHeld(board, true);
}

void Fleet::letGo(const std::string &board) {
  Place &place = places_[board];
  heldBoards_ -= place.isHeld ? 1 : 0;
  place.isHeld = false;
  place.ticket = 0;
  const bool before = std::exchange(isDiscarding_, true);
  collector_.cancel(board, "this instance asks the board no more");
  isDiscarding_ = before;
  schedule_.remove(board);
  boards_.setHeld(board, false);
}

// A lease whose number has grown was lost in between.
void Fleet::takeLeases(const std::vector<Lease> &leases, milliseconds until) {
  if (isEnding_) return;
  until -= kLeaseMargin;
  checkLeases();                     // also of those that the next renewal gives back
  if (bootClock() >= until) return;  // it took longer to hear of them than they last
  leasesUntil_ = until;
  std::unordered_map<std::string, uint64_t> held;
  for (const Lease &lease : leases) held.emplace(lease.board, lease.number);
  for (auto &[board, place] : places_) {
    const auto lease = held.find(board);
    const bool isHeld = lease != held.end();
    if (place.isHeld && (!isHeld || lease->second != place.lease)) letGo(board);
    if (isHeld && !place.isHeld) hold(board, lease->second);
  }
  arm();
}

void Fleet::checkLeases() {
  if (!leaseKeeper_ || heldBoards_ == 0 || bootClock() < leasesUntil_) return;
  spdlog::error("the leases have ended: no board is asked until they are renewed");
  for (auto &[board, place] : places_) {
    if (place.isHeld) letGo(board);
  }
}

void Fleet::watchLeases() {
  checkLeases();
  const milliseconds left = leasesUntil_ - bootClock();
  leaseTimer_.expires_after(left > milliseconds(0) ? std::min(left, kLeaseCheck) : kLeaseCheck);
  leaseTimer_.async_wait([this](const asio::error_code &error) {
    if (!error) watchLeases();
  });
}

// ---- asking

Moment Fleet::now() { return std::chrono::duration_cast<Moment>(std::chrono::steady_clock::now().time_since_epoch()); }

void Fleet::tick() {
  if (isEnding_) return;
  checkLeases();
  armed_.reset();
  isBreathing_ = false;
  for (int i = 0; i < kBurst; ++i) {
    const std::optional<Schedule::Due> due = schedule_.take(now());
    if (!due) return arm();
    begin(due->board, due->type, nullptr);
  }
  skippedPolls_ = schedule_.skipped();
  isBreathing_ = true;
  timer_.expires_after(kBreath);
  timer_.async_wait([this](const asio::error_code &error) {
    if (!error) tick();
  });
}

// The timer is left alone when it is early enough.
void Fleet::arm() {
  skippedPolls_ = schedule_.skipped();
  const std::optional<Moment> next = schedule_.next();
  if (isBreathing_ || !next || (armed_ && *armed_ <= *next)) return;
  armed_ = next;
  timer_.expires_at(std::chrono::steady_clock::time_point(*next));
  timer_.async_wait([this](const asio::error_code &error) {
    if (!error) tick();
  });
}

void Fleet::begin(const std::string &board, int type, Done done) {
  Place &place = places_.at(board);
  ++startedRuns_;
  place.ticket = ++tickets_;
  collector_.ask(
      {board, place.config.host, place.config.port, type, place.lease},
      [this, ticket = Ticket{place.ticket, now(), std::move(done)}](Run &&run) { finish(std::move(run), ticket); });
}

void Fleet::finish(Run &&run, const Ticket &ticket) {
  if (isDiscarding_) {
    schedule_.end(run.board, ticket.asked, now(), run.outcome != Outcome::kNoAnswer);
    if (ticket.done) ticket.done(run);
    return;
  }
  if (run.stream.size() <= kLarge) {
    run.stream.shrink_to_fit();  // it may wait for long; the judge's are copies
    return settle(boards_.judge(std::move(run)), ticket);
  }
  if (judgingBytes_ + run.stream.size() <= kMostToJudge) return judge(std::move(run), ticket);
  run.stream = {};
  run.outcome = Outcome::kBrokenOff;
  run.reason = "too much is under way";
  settle(boards_.judge(std::move(run)), ticket);
}

// Until then its board is not asked again, so that its runs stay in order.
void Fleet::judge(Run &&run, const Ticket &ticket) {
  judgingBytes_ += run.stream.size();
  const RunPointer waiting = judging_[ticket.number] = std::make_shared<const Run>(std::move(run));
  asio::post(judge_, [this, waiting, ticket] {
    asio::post(context_, [this, judged = boards_.judge(*waiting), ticket]() mutable {
      judgingBytes_ -= judged.run.stream.size();
      judging_.erase(ticket.number);
      settle(std::move(judged), ticket);
    });
  });
}

// A board that was let go in between has another ticket, or none.
void Fleet::settle(Boards::Judged &&judged, const Ticket &ticket) {
  checkLeases();
  const auto place = places_.find(judged.run.board);
  if (place == places_.end() || place->second.ticket != ticket.number) {
    ++refusedRuns_;
    if (ticket.done) ticket.done(judged.run);
    return;
  }
  place->second.ticket = 0;
  const Run &run = judged.run;
  schedule_.end(run.board, ticket.asked, now(), run.outcome != Outcome::kNoAnswer);
  arm();
  if (isWhole(run)) ++wholeRuns_;
  spdlog::debug("{}: type {}, {} in {} ms{}{}", run.board, run.type, nameOf(run.outcome), run.duration,
                run.reason.empty() ? "" : ": ", run.reason);
  Boards::Taken taken = boards_.take(std::move(judged));
  for (const Event &event : taken.events) announce(event);
  if (ticket.done) ticket.done(taken.run);
  keeper_->put(std::move(taken.run), std::move(taken.events));
}

// What ended before is in front of it: the network's thread comes first, and last. False: that takes longer.
bool Fleet::waitForJudge(milliseconds patience) {
  const auto over = std::make_shared<std::promise<void>>();
  asio::post(context_, [this, over] {
    asio::post(judge_, [this, over] { asio::post(context_, [over] { over->set_value(); }); });
  });
  return over->get_future().wait_for(patience) == std::future_status::ready;
}

// At the end: they are stored as they came, with no judgement but that of their streams. A self-test that nobody has
// judged has not passed: it counts as broken off.
void Fleet::putUnjudged() {
  for (const auto &[ticket, waiting] : judging_) {
    const auto place = places_.find(waiting->board);
    if (place == places_.end() || place->second.ticket != ticket) continue;
    Boards::Taken taken{*waiting, {}};
    Run &run = taken.run;
    if (run.type == kSelfTest && run.outcome == Outcome::kWhole) {
      run.outcome = Outcome::kBrokenOff;
      run.reason = "the server ended before it was judged";
    }
    // What fails is told now: the next start takes it for known.
    if (!isWhole(run)) taken = boards_.take({run, std::make_shared<const Run>(run), false, "", "", {}});
    for (const Event &event : taken.events) announce(event);
    keeper_->put(std::move(run), std::move(taken.events));
  }
}

void Fleet::announce(const Event &event) {
  const bool isGood = event.kind == EventKind::kFound || event.kind == EventKind::kTestPassed;
  spdlog::log(isGood ? spdlog::level::info : spdlog::level::warn, "{}: {}{}{}", event.board, nameOf(event.kind),
              event.text.empty() ? "" : ": ", event.text);
  alarm_.put(event);
}

// ---- what other threads ask for

// `what` answers once, there, at once or later.
Asked Fleet::onNetwork(std::function<void(const Answer &)> what) {
  if (isEnding_) return Asked::kEnding;
  const auto promise = std::make_shared<std::promise<Asked>>();
  std::future<Asked> future = promise->get_future();
  asio::post(context_, [this, promise, what = std::move(what)] {
    const Answer answer = [promise](Asked asked) { promise->set_value(asked); };
    isEnding_ ? answer(Asked::kEnding) : what(answer);
  });
  // A server that ends meanwhile runs nothing more.
  while (future.wait_for(milliseconds(100)) != std::future_status::ready) {
    if (context_.stopped()) return Asked::kEnding;
  }
  return future.get();
}

Asked Fleet::ask(const std::string &board, int type, Done done) {
  return onNetwork([=](const Answer &answer) { answer(askNow(board, type, done)); });
}

Asked Fleet::probe(const std::string &host, uint16_t port, int type, Done done) {
  return onNetwork([=](const Answer &answer) { findAndProbe(host, port, type, done, answer); });
}

Asked Fleet::askNow(const std::string &board, int type, const Done &done) {
  checkLeases();
  const auto place = places_.find(board);
  if (place == places_.end()) return Asked::kUnknown;
  if (!place->second.isHeld) return Asked::kNotHeld;
  if (!schedule_.begin(board)) return Asked::kBusy;
  begin(board, type, done);
  return Asked::kYes;
}

// A name that has no address is asked all the same: the run says why.
void Fleet::findAndProbe(const std::string &host, uint16_t port, int type, const Done &done, const Answer &answer) {
  collector_.resolver().find(host, [=](const asio::ip::address_v4 &address, const std::string &) {
    answer(isEnding_ ? Asked::kEnding : probeNow(host, {address, port}, type, done));
  });
}

// A board of the configuration shall not be asked two things at once because it is called otherwise.
Asked Fleet::probeNow(const std::string &host, const asio::ip::udp::endpoint &place, int type, const Done &done) {
  const auto isThere = [&](const auto &other) {
    const BoardConfig &board = other.second.config;
    if (board.port != place.port()) return false;
    return board.host == host || collector_.resolver().known(board.host) == place.address().to_v4();
  };
  if (std::any_of(places_.begin(), places_.end(), isThere)) return Asked::kBusy;
  if (!probed_.insert(place).second) return Asked::kBusy;
  collector_.ask({host + ":" + std::to_string(place.port()), host, place.port(), type, 0},
                 [this, place, done](Run &&run) {
                   probed_.erase(place);
                   done(run);
                 });
  return Asked::kYes;
}

Health Fleet::health() const {
  const Keeper::Status kept = keeper_->status();
  Health health;
  health.store = kept.problem;
  health.removal = kept.removal;
  health.leases = leaseKeeper_ ? leaseKeeper_->problem() : "";
  health.heldBoards = heldBoards_;
  health.runsUnderWay = collector_.underWay();
  health.waitingRuns = kept.waitingRuns;
  health.waitingBytes = kept.waitingBytes;
  health.droppedRuns = kept.droppedRuns;
  health.refusedRuns = kept.refusedRuns + refusedRuns_;
  health.refusedEvents = kept.refusedEvents;
  health.strangers = collector_.strangers();
  health.skippedPolls = skippedPolls_;
  health.startedRuns = startedRuns_;
  health.wholeRuns = wholeRuns_;
  const Alarm::Counts alarms = alarm_.counts();
  health.startedAlarms = alarms.started;
  health.failedAlarms = alarms.failed;
  health.droppedAlarms = alarms.dropped;
  return health;
}

}  // namespace kepfleet
