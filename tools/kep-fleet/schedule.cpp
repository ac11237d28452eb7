// schedule.cpp: one queue of all that will be due, in order. What a busy board will be asked is not in it.

#include "kep-fleet/schedule.hpp"

#include <algorithm>
#include <tuple>

namespace kepfleet {

namespace {

constexpr int kTestType = 3;  // a self-test is not made just because the server starts
constexpr unsigned kMostDoublings = 30;

// The same in every process: FNV-1a, its bits mixed once more as names often differ in their last letter only.
uint64_t hashOf(const std::string &text, int type) {
  uint64_t hash = 0xcbf29ce484222325u + static_cast<uint64_t>(type);
  for (const char c : text) hash = (hash ^ static_cast<uint8_t>(c)) * 0x100000001b3u;
  hash = (hash ^ (hash >> 33)) * 0xff51afd7ed558ccdu;
  return hash ^ (hash >> 33);
}

Moment partOf(Moment period, uint64_t hash) {
  return Moment(static_cast<int64_t>(hash % static_cast<uint64_t>(std::max<int64_t>(period.count(), 1))));
}

// The first time of the schedule that is not before `from`.
Moment firstFrom(Moment from, Moment phase, Moment period) {
  const int64_t ahead = (from - phase).count();
  const int64_t periods = ahead <= 0 ? 0 : (ahead + period.count() - 1) / period.count();
  return phase + periods * period;
}

Moment tolerated(Moment period) { return period / 4; }

}  // namespace

bool Schedule::Earlier::operator()(const Entry *a, const Entry *b) const {
  return std::tie(a->at, a->due, *a->board->name, a->interval.type) <
         std::tie(b->at, b->due, *b->board->name, b->interval.type);
}

void Schedule::put(const std::string &name, const std::vector<Interval> &intervals, Moment now, Moment spread) {
  const auto [place, isNew] = boards_.try_emplace(name);
  Board &board = place->second;
  board.name = &place->first;
  const auto isSame = [](const Entry &entry, const Interval &interval) { return entry.interval == interval; };
  if (!isNew && std::equal(board.entries.begin(), board.entries.end(), intervals.begin(), intervals.end(), isSame)) {
    return;
  }
  const bool wasBusy = board.isBusy;
  makeBusy(board);
  board.entries.clear();
  Entry *soonest = nullptr;
  board.entries.reserve(intervals.size());
  for (const Interval &interval : intervals) {
    Entry entry;
    entry.interval = interval;
    entry.board = &board;
    entry.phase = partOf(interval.every, hashOf(name, interval.type));
    entry.due = firstFrom(now, entry.phase, interval.every);
    Entry &added = board.entries.emplace_back(entry);
    const bool isSooner = !soonest || interval.every < soonest->interval.every;
    if (interval.type != kTestType && isSooner) soonest = &added;
  }
  if (isNew && soonest) soonest->due = std::min(soonest->due, now + partOf(spread, hashOf(name, -1)));
  if (!wasBusy) enqueue(board, now, true);
}

void Schedule::remove(const std::string &name) {
  const auto place = boards_.find(name);
  if (place == boards_.end()) return;
  makeBusy(place->second);
  boards_.erase(place);
}

std::vector<std::string> Schedule::boards() const {
  std::vector<std::string> names;
  names.reserve(boards_.size());
  for (const auto &[name, board] : boards_) names.push_back(name);
  return names;
}

std::optional<Moment> Schedule::next() const {
  if (queue_.empty()) return std::nullopt;
  return (*queue_.begin())->at;
}

std::optional<Schedule::Due> Schedule::take(Moment now) {
  while (!queue_.empty() && (*queue_.begin())->at <= now) {
    Entry &entry = **queue_.begin();
    if (now - entry.due > tolerated(entry.interval.every)) {
      queue_.erase(queue_.begin());
      enqueue(entry, now, entry.board->failures > 0);
      continue;
    }
    makeBusy(*entry.board);
    Due due{*entry.board->name, entry.interval.type, entry.due};
    entry.due = firstFrom(entry.due + Moment(1), entry.phase, entry.interval.every);
    return due;
  }
  return std::nullopt;
}

bool Schedule::begin(const std::string &name) {
  const auto place = boards_.find(name);
  if (place == boards_.end() || place->second.isBusy) return false;
  makeBusy(place->second);
  return true;
}

void Schedule::end(const std::string &name, Moment asked, Moment now, bool answered) {
  const auto place = boards_.find(name);
  if (place == boards_.end() || !place->second.isBusy) return;
  Board &board = place->second;
  const bool wasPausing = board.failures > 0;
  board.failures = answered ? 0 : board.failures + 1;
  board.pausedUntil = Moment(0);
  if (!answered && !board.entries.empty()) {
    const auto isShorter = [](const Entry &a, const Entry &b) { return a.interval.every < b.interval.every; };
    const Moment shortest = std::min_element(board.entries.begin(), board.entries.end(), isShorter)->interval.every;
    const unsigned doublings = std::min(board.failures - 1, kMostDoublings);
    board.pausedUntil = asked + std::min(shortest * (int64_t{1} << doublings), longestPause_);
  }
  enqueue(board, now, wasPausing);
}

void Schedule::makeBusy(Board &board) {
  if (!board.isBusy) {
    for (Entry &entry : board.entries) queue_.erase(&entry);
  }
  board.isBusy = true;
}

void Schedule::enqueue(Board &board, Moment now, bool wasPausing) {
  board.isBusy = false;
  for (Entry &entry : board.entries) enqueue(entry, now, wasPausing);
}

// What passes while a board pauses is nobody's fault; all else that passes is counted. Until the pause is over it is
// not settled what has passed: the board may be asked beside the schedule, and answer.
void Schedule::enqueue(Entry &entry, Moment now, bool wasPausing) {
  const Moment period = entry.interval.every;
  const Moment from = std::max(now, entry.board->pausedUntil);
  const Moment oldest = from - tolerated(period);
  const Moment due = entry.due < oldest ? firstFrom(oldest, entry.phase, period) : entry.due;
  entry.at = std::max(due, from);
  if (from == now) {
    if (!wasPausing) skipped_ += static_cast<uint64_t>((due - entry.due) / period);
    entry.due = due;
  }
  queue_.insert(&entry);
}

}  // namespace kepfleet
