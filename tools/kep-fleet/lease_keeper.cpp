#include "kep-fleet/lease_keeper.hpp"

#include <spdlog/spdlog.h>

#include <algorithm>
#include <ctime>
#include <utility>

namespace kepfleet {

namespace {

using std::chrono::milliseconds;

constexpr milliseconds kLookAtOthers{15'000};
constexpr std::chrono::hours kNews{48};  // what others stored before that was known at the start
constexpr milliseconds kMargin{10};      // behind the moment when another instance has ended
constexpr milliseconds kLeastPause{100};

}  // namespace

milliseconds bootClock() {
  timespec now{};
  clock_gettime(CLOCK_BOOTTIME, &now);
  return milliseconds(int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000);
}

LeaseKeeper::LeaseKeeper(std::unique_ptr<Store> store, std::string instance, milliseconds lease, Takers takers)
    : store_(std::move(store)), instance_(std::move(instance)), lease_(lease), takers_(std::move(takers)) {}

LeaseKeeper::~LeaseKeeper() {
  stop(milliseconds(0));
  if (thread_.joinable()) thread_.join();
}

void LeaseKeeper::start(std::vector<std::string> boards) {
  setBoards(std::move(boards));
  thread_ = std::thread([this] { work(); });
}

void LeaseKeeper::setBoards(std::vector<std::string> boards) {
  const std::lock_guard<std::mutex> lock(mutex_);
  boards_ = std::move(boards);
}

std::string LeaseKeeper::problem() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return problem_;
}

bool LeaseKeeper::stop(milliseconds patience) {
  std::unique_lock<std::mutex> lock(mutex_);
  isStopping_ = true;
  wake_.notify_all();
  return !thread_.joinable() || wake_.wait_for(lock, patience, [this] { return isOver_; });
}

bool LeaseKeeper::isStopping() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return isStopping_;
}

void LeaseKeeper::work() {
  newUntil_ = bootClock() + lease_;
  std::unique_lock<std::mutex> lock(mutex_);
  while (!isStopping_) {
    const std::vector<std::string> boards = boards_;
    lock.unlock();
    renew(boards);
    if (bootClock() < nextRenewal_) lookAtOthers(boards);
    lock.lock();
    wake_.wait_for(lock, nextRenewal_ - bootClock(), [this] { return isStopping_; });
  }
  lock.unlock();
  try {
    store_->leases()->release(instance_);
  } catch (const std::exception &error) {
    spdlog::warn("the leases stay until they end: {}", error.what());
  }
  lock.lock();
  isOver_ = true;
  wake_.notify_all();
}

void LeaseKeeper::renew(const std::vector<std::string> &boards) {
  const milliseconds before = bootClock();
  std::string problem;
  try {
    const double seconds = static_cast<double>(lease_.count()) / 1000;
    const Renewal renewal = store_->leases()->renew(instance_, boards, seconds);
    nextRenewal_ = bootClock() + pauseBehind(renewal);
    takers_.leases(renewal.leases, before + lease_);
  } catch (const std::exception &error) {
    problem = error.what();
    nextRenewal_ = bootClock() + lease_ / 15;
    newUntil_ = bootClock() + lease_;
  }
  const std::lock_guard<std::mutex> lock(mutex_);
  if (problem.empty() && !problem_.empty()) spdlog::info("the leases are renewed again");
  if (!problem.empty() && problem_.empty()) spdlog::error("the leases cannot be renewed: {}", problem);
  problem_ = problem;
}

// A third of the lease, unless something is to be had or given before: the boards of another instance that ends; for
// one that has just begun, or come back, those that the others give back; and what this one gives back itself.
milliseconds LeaseKeeper::pauseBehind(const Renewal &renewal) const {
  milliseconds pause = lease_ / 3;
  if (bootClock() < newUntil_) pause = lease_ / 15;
  if (renewal.othersEnd < pause) pause = renewal.othersEnd + kMargin;
  return renewal.isLeaving ? kLeastPause : std::max(pause, kLeastPause);
}

// That may take long, as boards may say much: the leases are renewed meanwhile.
void LeaseKeeper::lookAtOthers(const std::vector<std::string> &boards) {
  const auto now = std::chrono::steady_clock::now();
  if (now < nextLook_) return;
  nextLook_ = now + kLookAtOthers;
  try {
    const auto since = std::chrono::system_clock::now().time_since_epoch() - kNews;
    store_->lastRuns(std::chrono::duration_cast<milliseconds>(since).count(), [&](StoredRun &&stored) {
      if (bootClock() >= nextRenewal_) renew(boards);
      takers_.othersRuns(std::move(stored));
      return !isStopping();
    });
  } catch (const std::exception &error) {
    spdlog::warn("what other instances collected cannot be read: {}", error.what());
  }
}

}  // namespace kepfleet
