// board_ids.hpp: the numbers that stand for boards in the store's tables.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <unordered_map>

#include "kep-fleet/database.hpp"

namespace kepfleet {

class BoardIds {
 public:
  explicit BoardIds(Database &database) : database_(database) {}

  // Gives numbers to those that have none, in a transaction of its own.
  void add(const std::set<std::string> &names);

  int64_t find(const std::string &name);  // 0: there is none

 private:
  Database &database_;
  std::unordered_map<std::string, int64_t> known_;
};

}  // namespace kepfleet
