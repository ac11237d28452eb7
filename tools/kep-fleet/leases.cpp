// leases.cpp: leases as rows. A board is its owner's as long as that lives, so renewing is one row, however many
// boards. Renewals come one at a time; what a write holds locked, be it of an instance that stands still, is not waited
// for.

#include "kep-fleet/leases.hpp"

#include <algorithm>

#include "kep-fleet/schema.hpp"

namespace kepfleet {

namespace {

// As a parameter, and what makes it a list again.
std::string listOf(const std::set<int64_t> &numbers) {
  std::string list = "{";
  for (const int64_t number : numbers) list += (list.size() > 1 ? "," : "") + std::to_string(number);
  return list + "}";
}
const std::string kInList = " = ANY(convert_from($1, 'UTF8')::integer[])";

}  // namespace

Renewal SharedLeases::renew(const std::string &instance, const std::vector<std::string> &boards, double seconds) {
  checkVersion(database_, migrations().size());
  ids_.add({boards.begin(), boards.end()});
  std::map<int64_t, std::string> wanted;
  for (const std::string &board : boards) wanted.emplace(ids_.find(board), board);

  Transaction transaction(database_);
  Renewal renewal;
  const size_t instances = live(instance, seconds, renewal.othersEnd);
  giveBack(instance, leaving_);
  const size_t share = (wanted.size() + instances - 1) / instances;
  std::vector<Lease> &held = renewal.leases;
  std::set<int64_t> leaving;
  const auto take = [&](const Row &row) {
    const auto board = wanted.find(row.integer(0));
    if (board == wanted.end() || held.size() >= share) {
      leaving.insert(row.integer(0));
    } else {
      held.push_back({board->second, static_cast<uint64_t>(row.integer(1))});
    }
  };
  database_.execute("SELECT board, number FROM leases WHERE owner = $1 ORDER BY board", {instance}, take);
  if (held.size() < share) claim(instance, wanted, share - held.size(), take);
  transaction.commit();
  leaving_ = std::move(leaving);
  renewal.isLeaving = !leaving_.empty();
  return renewal;
}

// Whoever does not live any more is removed, so that its boards are free. Returns how many live.
size_t SharedLeases::live(const std::string &instance, double seconds, std::chrono::milliseconds &othersEnd) {
  database_.script("LOCK TABLE instances IN SHARE ROW EXCLUSIVE MODE");
  database_.execute("DELETE FROM instances WHERE until < now() AND name <> $1", {instance});
  database_.execute(
      "INSERT INTO instances (name, until) VALUES ($1, now() + $2 * interval '1 microsecond')"
      " ON CONFLICT (name) DO UPDATE SET until = EXCLUDED.until",
      {instance, static_cast<int64_t>(seconds * 1e6)});
  size_t count = 1;
  const auto take = [&](const Row &row) {
    count = static_cast<size_t>(row.integer(0));
    if (count > 1) othersEnd = std::chrono::milliseconds(row.integer(1));
  };
  database_.execute(
      "SELECT count(*), ceil(extract(epoch FROM min(until) FILTER (WHERE name <> $1) - now()) * 1000)::bigint"
      " FROM instances",
      {instance}, take);
  return count;
}

// The list of what is locked is made once, as an array, however the update is planned.
void SharedLeases::claim(const std::string &instance, const std::map<int64_t, std::string> &wanted, size_t atMost,
                         const std::function<void(const Row &)> &take) {
  std::set<int64_t> ids;
  for (const auto &board : wanted) ids.insert(board.first);
  const std::string list = listOf(ids);
  database_.execute(
      "INSERT INTO leases (board) SELECT unnest(convert_from($1, 'UTF8')::integer[]) ON CONFLICT DO NOTHING", {list});
  database_.execute(
      "UPDATE leases SET owner = $2, number = number + 1 WHERE board = ANY(ARRAY("
      " SELECT l.board FROM leases l WHERE l.board" +
          kInList +
          " AND NOT EXISTS (SELECT 1 FROM instances i WHERE i.name = l.owner)"
          " ORDER BY l.board LIMIT $3 FOR UPDATE OF l SKIP LOCKED)) RETURNING board, number",
      {list, instance, static_cast<int64_t>(atMost)}, take);
}

// What is being written just now stays for the next time: all other instances would wait with this one.
void SharedLeases::giveBack(const std::string &instance, const std::set<int64_t> &boards) {
  if (boards.empty()) return;
  database_.execute(
      "UPDATE leases SET owner = '' WHERE board = ANY(ARRAY("
      " SELECT board FROM leases WHERE board" +
          kInList + " AND owner = $2 ORDER BY board FOR UPDATE SKIP LOCKED))",
      {listOf(boards), instance});
}

void SharedLeases::release(const std::string &instance) {
  Transaction transaction(database_);
  database_.script("LOCK TABLE instances IN SHARE ROW EXCLUSIVE MODE");
  database_.execute("DELETE FROM instances WHERE name = $1", {instance});
  transaction.commit();
}

std::map<int64_t, uint64_t> SharedLeases::lock(const std::set<int64_t> &boards) {
  std::map<int64_t, uint64_t> numbers;
  database_.execute("SELECT board, number FROM leases WHERE board" + kInList + " ORDER BY board FOR SHARE",
                    {listOf(boards)},
                    [&](const Row &row) { numbers[row.integer(0)] = static_cast<uint64_t>(row.integer(1)); });
  return numbers;
}

}  // namespace kepfleet
