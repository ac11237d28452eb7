// dictionaries.hpp: how streams are coded in the store's rows: with which dictionary, if any. Dictionaries are rows of
// their own; instances that share a database share them.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "kep-fleet/compress.hpp"
#include "kep-fleet/database.hpp"
#include "kep-fleet/run.hpp"
#include "kep-fleet/store.hpp"

namespace kepfleet {

// Another instance has removed a dictionary that this one goes on using: what is to be stored has to be coded anew.
struct DictionaryGone : StoreError {
  using StoreError::StoreError;
};

struct CodedStream {
  int64_t coding = -1;  // as it came; 0: compressed; else: with this dictionary
  std::string bytes;    // empty when it is stored as it came
};

class Dictionaries {
 public:
  explicit Dictionaries(Database &database) : database_(database) {}

  // Outside of a transaction: makes a dictionary when it is time for one.
  CodedStream encode(const Run &run);

  // Within the transaction that stores it: says until when its dictionary is needed. Throws DictionaryGone.
  void keep(int64_t coding, int64_t started);

  // A transaction was rolled back.
  void forget() { neededUntil_.clear(); }

  std::string decode(int64_t coding, std::string_view stored, size_t bytes);

  // Those that only runs of a type from before a time needed, when these are gone.
  void removeBefore(int type, int64_t time);

 private:
  struct Kind {
    int64_t id = 0;  // of the dictionary in use; 0: none
    std::shared_ptr<Dictionary> dictionary;
    Trainer trainer;
    uint64_t lastUse = 0;
  };
  Kind &kindOf(std::string_view identity, int type);
  bool takeNewer(Kind &kind, std::string_view identity, int type);
  void improve(Kind &kind, const Run &run);

  Database &database_;
  Compressor compressor_;
  std::map<std::pair<std::string, int>, Kind> kinds_;
  std::unordered_map<int64_t, std::shared_ptr<Dictionary>> toRead_;
  std::unordered_map<int64_t, int64_t> neededUntil_;  // at least, as the database knows it
  uint64_t uses_ = 0;
};

}  // namespace kepfleet
