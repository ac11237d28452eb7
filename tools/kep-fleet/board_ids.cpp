// board_ids.cpp: a board keeps its number for ever, so whatever is known of them stays true.

#include "kep-fleet/board_ids.hpp"

namespace kepfleet {

// In the order of their names: instances that add the same boards wait for each other, never in a circle.
void BoardIds::add(const std::set<std::string> &names) {
  std::set<std::string_view> missing;
  for (const std::string &name : names) {
    if (find(name) == 0) missing.insert(name);
  }
  if (missing.empty()) return;
  Transaction transaction(database_);
  for (const std::string_view name : missing) {
    database_.execute("INSERT INTO boards (name) VALUES ($1) ON CONFLICT DO NOTHING", {name});
  }
  transaction.commit();
}

int64_t BoardIds::find(const std::string &name) {
  const auto known = known_.find(name);
  if (known != known_.end()) return known->second;
  int64_t id = 0;
  database_.execute("SELECT id FROM boards WHERE name = $1", {name}, [&](const Row &row) { id = row.integer(0); });
  if (id != 0) known_.emplace(name, id);
  return id;
}

}  // namespace kepfleet
