// names_book.hpp: the names files of the fleet's kinds of board, each read once, and again when told to.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "kep-fleet/config.hpp"
#include "server/names.hpp"

namespace kepfleet {

using NamesPointer = std::shared_ptr<const kepserver::Names>;

class NamesBook {
 public:
  // Reads every file that the configuration names, and all of its folder's. Throws ConfigError for one that is refused,
  // and then keeps what it has.
  void load(const Config &config);

  // Never nullptr: a board without a file has names that name nothing. `identity` is two bytes, or empty.
  NamesPointer of(const BoardConfig &board, const std::string &identity) const;

  // Every file read, by path: metrics look for collisions among them.
  std::map<std::string, NamesPointer> all() const;

 private:
  mutable std::mutex mutex_;
  std::map<std::string, NamesPointer> byPath_;
  std::map<std::string, NamesPointer> byIdentity_;  // four lower-case hex digits
};

}  // namespace kepfleet
