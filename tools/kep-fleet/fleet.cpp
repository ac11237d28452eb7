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
constexpr milliseconds kLeaseCheck{250};
constexpr milliseconds kToStore{1000}, kToRelease{300}, kToAlarm{200};  // of the two seconds there are to end

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

std::string placeOf(const std::string &host, uint16_t port) { return host + ":" + std::to_string(port); }

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
  std::unique_ptr<Store> store = open(config.store);
  const std::optional<int64_t> newest = recallRuns(*store);
  if (store->leases()) {
    LeaseKeeper::Takers takers;
    takers.leases = [this](std::vector<Lease> leases, milliseconds until) {
      asio::post(context_, [this, leases = std::move(leases), until] { takeLeases(leases, until); });
    };
    takers.othersRuns = [this](StoredRun &&stored) {
      const std::optional<BoardState> state = boards_.find(stored.run.board);
      if (state && !state->isHeld) boards_.recall(std::move(stored.run));
    };
    leaseKeeper_ = std::make_unique<LeaseKeeper>(open(config.store), instanceName(config.instance), config.lease,
                                                 std::move(takers));
  }
  keeper_ = std::make_unique<Keeper>(std::move(store), config.limits.waitingBytes, config.keep, newest);
  configureBoards(config);
}

Fleet::~Fleet() { stop(); }

void Fleet::start() {
  spdlog::info("{} boards; listening at {}:{}; runs go to {}", boards_.count(), config_.listenAddress, port(),
               leaseKeeper_ ? "the database" : config_.store);  // whose address may hold a password
  asio::post(context_, [this] { tick(); });
  if (leaseKeeper_) {
    asio::post(context_, [this] { watchLeases(); });
    leaseKeeper_->start(namesOf(config_));
  }
  thread_ = std::thread([this] { context_.run(); });
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

bool Fleet::stop() {
  if (isEnding_.exchange(true)) return true;
  asio::post(context_, [this] {
    isDiscarding_ = true;
    collector_.cancelAll("the server ends");
    work_.reset();
    context_.stop();
  });
  if (thread_.joinable()) thread_.join();
  const bool isStored = keeper_->stop(kToStore);
  alarm_.stop(kToAlarm);
  const bool isReleased = !leaseKeeper_ || leaseKeeper_->stop(kToRelease);
  if (!isStored) spdlog::error("the store has not taken what waited for it: it is lost");
  return isStored && isReleased;
}

// Returns when the newest run began.
std::optional<int64_t> Fleet::recallRuns(Store &store) {
  std::optional<int64_t> newest;
  store.lastRuns([&](StoredRun &&stored) {
    newest = std::max(newest.value_or(stored.run.started), stored.run.started);
    boards_.recall(std::move(stored.run));
  });
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
  const bool before = std::exchange(isDiscarding_, true);
  collector_.cancel(board, "this instance asks the board no more");
  isDiscarding_ = before;
  schedule_.remove(board);
  boards_.setHeld(board, false);
}

// A lease whose number has grown was lost in between.
void Fleet::takeLeases(const std::vector<Lease> &leases, milliseconds until) {
  if (isEnding_ || bootClock() >= until) return;  // it took longer to hear of them than they last
  checkLeases();
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
  leaseTimer_.expires_after(kLeaseCheck);
  leaseTimer_.async_wait([this](const asio::error_code &error) {
    if (!error) watchLeases();
  });
}

// ---- asking

Moment Fleet::now() { return std::chrono::duration_cast<Moment>(std::chrono::steady_clock::now().time_since_epoch()); }

void Fleet::tick() {
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
  const Place &place = places_.at(board);
  ++startedRuns_;
  collector_.ask({board, place.config.host, place.config.port, type, place.lease},
                 [this, asked = now(), done = std::move(done)](Run &&run) { finish(std::move(run), asked, done); });
}

void Fleet::finish(Run &&run, Moment asked, const Done &done) {
  schedule_.end(run.board, asked, now(), run.outcome != Outcome::kNoAnswer);
  if (!isDiscarding_) {
    checkLeases();
    arm();
  }
  const auto place = places_.find(run.board);
  const bool isHeld = place != places_.end() && place->second.isHeld;
  if (isDiscarding_ || !isHeld) {
    if (!isDiscarding_) ++refusedRuns_;
    if (done) done(run);
    return;
  }
  if (run.outcome == Outcome::kWhole) ++wholeRuns_;
  spdlog::debug("{}: type {}, {} in {} ms{}{}", run.board, run.type, nameOf(run.outcome), run.duration,
                run.reason.empty() ? "" : ": ", run.reason);
  Boards::Taken taken = boards_.take(std::move(run));
  for (const Event &event : taken.events) announce(event);
  keeper_->put(*taken.run, std::move(taken.events));
  if (done) done(*taken.run);
}

void Fleet::announce(const Event &event) {
  const bool isGood = event.kind == EventKind::kFound || event.kind == EventKind::kTestPassed;
  spdlog::log(isGood ? spdlog::level::info : spdlog::level::warn, "{}: {}{}{}", event.board, nameOf(event.kind),
              event.text.empty() ? "" : ": ", event.text);
  alarm_.put(event);
}

// ---- what other threads ask for

Asked Fleet::onNetwork(std::function<Asked()> what) {
  if (isEnding_) return Asked::kEnding;
  const auto answer = std::make_shared<std::promise<Asked>>();
  std::future<Asked> future = answer->get_future();
  asio::post(context_,
             [this, answer, what = std::move(what)] { answer->set_value(isEnding_ ? Asked::kEnding : what()); });
  // A server that ends meanwhile runs nothing more.
  while (future.wait_for(milliseconds(100)) != std::future_status::ready) {
    if (context_.stopped()) return Asked::kEnding;
  }
  return future.get();
}

Asked Fleet::ask(const std::string &board, int type, Done done) {
  return onNetwork([this, board, type, done = std::move(done)] { return askNow(board, type, done); });
}

Asked Fleet::probe(const std::string &host, uint16_t port, int type, Done done) {
  return onNetwork([this, host, port, type, done = std::move(done)] { return probeNow(host, port, type, done); });
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

// A board of the configuration shall not be asked two things at once because it is called otherwise.
Asked Fleet::probeNow(const std::string &host, uint16_t port, int type, const Done &done) {
  const auto isThere = [&](const auto &place) {
    return place.second.config.host == host && place.second.config.port == port;
  };
  if (std::any_of(places_.begin(), places_.end(), isThere)) return Asked::kBusy;
  const std::string place = placeOf(host, port);
  if (!probed_.insert(place).second) return Asked::kBusy;
  collector_.ask({place, host, port, type, 0}, [this, place, done](Run &&run) {
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
