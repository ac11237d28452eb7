// keeper.cpp: batches. Times are those of the monotonic clock, but for the age of what is stored.

#include "kep-fleet/keeper.hpp"

#include <spdlog/spdlog.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "kep-fleet/lease_keeper.hpp"

namespace kepfleet {

namespace {

using std::chrono::milliseconds;

constexpr size_t kMostRuns = 1000;
constexpr size_t kMostBytes = size_t{16} << 20;  // of one batch
constexpr size_t kMostEvents = 65536;            // that wait
constexpr milliseconds kMostWait{800};           // with the time to write them within a second
constexpr milliseconds kRetry{1000};
constexpr milliseconds kCleanup{60'000};
constexpr milliseconds kCleanupStep{100};
constexpr size_t kStep = 500;
constexpr milliseconds kJump{3'600'000};  // of the clock, which is followed at once
constexpr milliseconds kDoubt{86'400'000};

size_t bytesOf(const Run &run) { return sizeof run + run.stream.capacity() + run.board.size() + run.reason.size(); }

int64_t wallClock() {
  return std::chrono::duration_cast<milliseconds>(std::chrono::system_clock::now().time_since_epoch()).count();
}

// Says what goes wrong once, not with every attempt, and when it is over.
void note(std::string &known, const std::string &problem, const char *wrong, const char *right) {
  if (problem.empty() && !known.empty()) spdlog::info(right);
  if (!problem.empty() && known.empty()) spdlog::error("{}: {}", wrong, problem);
  known = problem;
}

}  // namespace

int64_t PatientClock::now(int64_t wall, milliseconds uptime) {
  const int64_t passed = (uptime - seen_.value_or(uptime)).count();
  seen_ = uptime;
  time_ = time_.value_or(wall) + passed;
  const bool isFarAhead = wall > *time_ + kJump.count();
  if (isFarAhead && !doubtingSince_) doubtingSince_ = uptime;
  if (!isFarAhead || uptime - *doubtingSince_ >= kDoubt) {
    doubtingSince_.reset();
    time_ = wall;
  }
  return *time_;
}

Keeper::Keeper(std::unique_ptr<Store> store, size_t waitingBytes, Keep keep, std::optional<int64_t> newest)
    : store_(std::move(store)),
      mostBytes_(waitingBytes),
      keep_(std::move(keep)),
      cleanup_(Clock::now() + kCleanupStep),
      oldest_(keep_.begin()),
      clock_(newest) {
  thread_ = std::thread([this] { work(); });
}

Keeper::~Keeper() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    isStopping_ = true;
    wake_.notify_all();
  }
  thread_.join();
}

void Keeper::configure(size_t waitingBytes, const Keep &keep) {
  const std::lock_guard<std::mutex> lock(mutex_);
  mostBytes_ = waitingBytes;
  keep_ = keep;
  oldest_ = keep_.begin();
  trim();
}

void Keeper::put(Run run, std::vector<Event> events) {
  const std::lock_guard<std::mutex> lock(mutex_);
  status_.waitingBytes += bytesOf(run);
  waiting_.push_back({std::move(run), Clock::now()});
  std::move(events.begin(), events.end(), std::back_inserter(events_));
  trim();
  const bool isBatch = waiting_.size() >= kMostRuns || status_.waitingBytes >= kMostBytes;
  if (waiting_.size() == 1 || isBatch) wake_.notify_all();
}

Keeper::Status Keeper::status() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  Status status = status_;
  status.waitingRuns = waiting_.size() + runsInHand_;
  status.waitingBytes += bytesInHand_;
  return status;
}

bool Keeper::stop(milliseconds patience) {
  std::unique_lock<std::mutex> lock(mutex_);
  isStopping_ = true;
  wake_.notify_all();
  return wake_.wait_for(lock, patience, [this] { return isOver_; }) && isAllStored_;
}

void Keeper::work() {
  std::unique_lock<std::mutex> lock(mutex_);
  while (!isStopping_) {
    const Clock::time_point now = Clock::now();
    if (isDue(now)) {
      writeBatch(lock);
    } else if (now >= cleanup_) {
      removeOld(lock);
    } else {
      wake_.wait_until(lock, nextLook());
    }
  }
  do {  // a store that failed before gets a last chance
    writeBatch(lock);
  } while (status_.problem.empty() && !waiting_.empty());
  if (!waiting_.empty()) spdlog::error("{} runs are lost: the store did not take them", waiting_.size());
  status_.droppedRuns += waiting_.size();
  isAllStored_ = waiting_.empty();
  waiting_.clear();
  isOver_ = true;
  wake_.notify_all();
}

bool Keeper::isDue(Clock::time_point now) const {
  if (waiting_.empty() || now < retry_) return false;
  return waiting_.size() >= kMostRuns || status_.waitingBytes >= kMostBytes ||
         now >= waiting_.front().since + kMostWait;
}

Keeper::Clock::time_point Keeper::nextLook() const {
  if (waiting_.empty()) return cleanup_;
  return std::min(cleanup_, std::max(retry_, waiting_.front().since + kMostWait));
}

void Keeper::writeBatch(std::unique_lock<std::mutex> &lock) {
  std::vector<Run> runs;
  while (!waiting_.empty() && runs.size() < kMostRuns && (runs.empty() || bytesInHand_ < kMostBytes)) {
    const size_t bytes = bytesOf(waiting_.front().run);
    bytesInHand_ += bytes;
    status_.waitingBytes -= bytes;
    runs.push_back(std::move(waiting_.front().run));
    waiting_.pop_front();
  }
  std::vector<Event> events(std::make_move_iterator(events_.begin()), std::make_move_iterator(events_.end()));
  events_.clear();
  runsInHand_ = runs.size();
  lock.unlock();
  Written written;
  std::string problem;
  try {
    if (!runs.empty() || !events.empty()) written = store_->write(runs, events);
  } catch (const std::exception &error) {
    problem = error.what();
  }
  lock.lock();
  runsInHand_ = bytesInHand_ = 0;
  status_.refusedRuns += written.refusedRuns;
  status_.refusedEvents += written.refusedEvents;
  note(status_.problem, problem, "the store takes no runs", "the store takes runs again");
  if (!problem.empty()) takeBack(runs, events);
}

void Keeper::takeBack(std::vector<Run> &runs, std::vector<Event> &events) {
  const Clock::time_point now = Clock::now();
  retry_ = now + kRetry;
  for (auto run = runs.rbegin(); run != runs.rend(); ++run) {
    status_.waitingBytes += bytesOf(*run);
    waiting_.push_front({std::move(*run), now});
  }
  events_.insert(events_.begin(), std::make_move_iterator(events.begin()), std::make_move_iterator(events.end()));
  trim();
}

// The newest stays, be it larger than all of the limit: it would never be stored.
void Keeper::trim() {
  while (waiting_.size() > 1 && status_.waitingBytes + bytesInHand_ > mostBytes_) {
    status_.waitingBytes -= bytesOf(waiting_.front().run);
    waiting_.pop_front();
    ++status_.droppedRuns;
  }
  while (events_.size() > kMostEvents) events_.pop_front();
}

// One small step; the next comes soon, until all is done.
void Keeper::removeOld(std::unique_lock<std::mutex> &lock) {
  if (oldest_ == keep_.end()) {
    oldest_ = keep_.begin();
    cleanup_ = Clock::now() + kCleanup;
    return;
  }
  const int type = oldest_->first;
  const milliseconds age = oldest_->second;
  lock.unlock();
  Removed removed;
  std::string problem;
  try {
    removed = store_->removeBefore(type, retentionTime() - age.count(), kStep);
  } catch (const std::exception &error) {
    problem = error.what();
  }
  lock.lock();
  note(status_.removal, problem, "what is old is not removed", "what is old is removed again");
  cleanup_ = Clock::now() + (problem.empty() ? kCleanupStep : kCleanup);
  // The configuration may have changed meanwhile; then it begins again.
  if (removed.isAll && oldest_ != keep_.end() && oldest_->first == type) ++oldest_;
}

int64_t Keeper::retentionTime() {
  const bool wasDoubting = clock_.isDoubting();
  const int64_t wall = wallClock(), time = clock_.now(wall, bootClock());
  if (clock_.isDoubting() && !wasDoubting) {
    spdlog::warn("the clock is {} hours ahead of the newest run: for a day nothing is removed because of that",
                 (wall - time) / 3'600'000);
  }
  return time;
}

}  // namespace kepfleet
