// leases.hpp: which instance asks which board, where instances share a database.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "kep-fleet/board_ids.hpp"
#include "kep-fleet/database.hpp"
#include "kep-fleet/store.hpp"

namespace kepfleet {

class SharedLeases : public Leases {
 public:
  SharedLeases(Database &database, BoardIds &ids) : database_(database), ids_(ids) {}

  Renewal renew(const std::string &instance, const std::vector<std::string> &boards, double seconds) override;
  void release(const std::string &instance) override;

  // Within a transaction, until whose end they stay what they are: the numbers of these boards' leases.
  std::map<int64_t, uint64_t> lock(const std::set<int64_t> &boards);

 private:
  size_t live(const std::string &instance, double seconds, std::chrono::milliseconds &othersEnd);
  void claim(const std::string &instance, const std::map<int64_t, std::string> &wanted, size_t atMost,
             const std::function<void(const Row &)> &take);
  void giveBack(const std::string &instance, const std::set<int64_t> &boards);

  Database &database_;
  BoardIds &ids_;
  std::set<int64_t> leaving_;  // what renew() did not return any more, and is to be given back by the next one
};

}  // namespace kepfleet
