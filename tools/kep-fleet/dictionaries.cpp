// dictionaries.cpp: which dictionary a stream is coded with, and how long each is kept.

#include "kep-fleet/dictionaries.hpp"

#include <algorithm>

namespace kepfleet {

namespace {

constexpr int64_t kDay = 86'400'000;
constexpr size_t kMaxKinds = 64;  // that are remembered at a time, whatever boards say of themselves
constexpr size_t kMaxToRead = 64;

// The two bytes by which a board tells its kind, behind the length, type and sequence of its first message.
std::string_view identityOf(std::string_view stream) {
  static constexpr std::string_view kIdentity("\0\0\0\0", 4);
  return stream.size() >= 14 && stream.substr(4, 4) == kIdentity ? stream.substr(12, 2) : std::string_view();
}

// Until when a dictionary is needed by a run. Rounded up, with a day to spare, so that it is written once a day.
int64_t neededBy(int64_t started) { return (started / kDay + 3) * kDay; }

}  // namespace

CodedStream Dictionaries::encode(const Run &run) {
  CodedStream coded;
  const std::string_view identity = identityOf(run.stream);
  if (identity.empty()) {
    if (auto compressed = compressor_.compress(run.stream, nullptr)) coded = {0, *std::move(compressed)};
    return coded;
  }
  Kind &kind = kindOf(identity, run.type);
  if (auto compressed = compressor_.compress(run.stream, kind.dictionary.get())) {
    coded = {kind.id, *std::move(compressed)};
  }
  kind.trainer.take(run.stream, coded.coding < 0 ? run.stream.size() : coded.bytes.size());
  if (kind.trainer.isDue()) improve(kind, run);
  return coded;
}

Dictionaries::Kind &Dictionaries::kindOf(std::string_view identity, int type) {
  const auto [place, isNew] = kinds_.try_emplace({std::string(identity), type});
  place->second.lastUse = ++uses_;
  if (isNew) {
    takeNewer(place->second, identity, type);
    if (kinds_.size() > kMaxKinds) {
      kinds_.erase(std::min_element(kinds_.begin(), kinds_.end(),
                                    [](const auto &a, const auto &b) { return a.second.lastUse < b.second.lastUse; }));
    }
  }
  return place->second;
}

// What another instance has made serves this one as well.
bool Dictionaries::takeNewer(Kind &kind, std::string_view identity, int type) {
  const int64_t before = kind.id;
  database_.execute(
      "SELECT id, content FROM dictionaries WHERE identity = $1 AND type = $2 AND id > $3 ORDER BY id DESC LIMIT 1",
      {identity, int64_t{type}, before}, [&](const Row &row) {
        kind.dictionary = std::make_shared<Dictionary>(std::string(row.bytes(1)));
        kind.id = row.integer(0);
      });
  if (kind.id == before) return false;
  kind.trainer.use(compressor_, *kind.dictionary);
  return true;
}

// One that no run is stored with in the end goes like the others. It is in use when it is stored, and not yet when the
// database tells its number: where storing it fails behind that, as on a full disk, another one gets the number.
void Dictionaries::improve(Kind &kind, const Run &run) {
  const std::string_view identity = identityOf(run.stream);
  if (takeNewer(kind, identity, run.type)) return;
  const auto better = kind.trainer.train(compressor_, kind.dictionary.get());
  if (!better) return;
  int64_t id = 0;
  database_.execute(
      "INSERT INTO dictionaries (identity, type, needed_until, content) VALUES ($1, $2, $3, $4) RETURNING id",
      {identity, int64_t{run.type}, neededBy(run.started), better->content()},
      [&](const Row &row) { id = row.integer(0); });
  kind.id = id;
  kind.dictionary = better;
  kind.trainer.use(compressor_, *better);
}

void Dictionaries::keep(int64_t coding, int64_t started) {
  if (coding <= 0) return;
  const auto known = neededUntil_.find(coding);
  if (known != neededUntil_.end() && started + kDay < known->second) return;
  const int64_t until = neededBy(started);
  const int64_t changed = database_.execute(
      "UPDATE dictionaries SET needed_until = CASE WHEN needed_until < $1 THEN $1 ELSE needed_until END WHERE id = $2",
      {until, coding});
  if (changed == 0) {
    kinds_.clear();
    throw DictionaryGone("A dictionary was removed while it was used");
  }
  neededUntil_[coding] = until;
}

std::string Dictionaries::decode(int64_t coding, std::string_view stored, size_t bytes) {
  if (coding < 0) return std::string(stored);
  if (coding == 0) return compressor_.decompress(stored, bytes, nullptr);
  auto found = toRead_.find(coding);
  if (found == toRead_.end()) {
    std::shared_ptr<Dictionary> dictionary;
    database_.execute("SELECT content FROM dictionaries WHERE id = $1", {coding},
                      [&](const Row &row) { dictionary = std::make_shared<Dictionary>(std::string(row.bytes(0))); });
    if (!dictionary) throw StoreError("The dictionary of a stored stream is missing");
    if (toRead_.size() >= kMaxToRead) toRead_.clear();
    found = toRead_.emplace(coding, std::move(dictionary)).first;
  }
  return compressor_.decompress(stored, bytes, found->second.get());
}

void Dictionaries::removeBefore(int type, int64_t time) {
  database_.execute("DELETE FROM dictionaries WHERE type = $1 AND needed_until <= $2", {int64_t{type}, time});
}

}  // namespace kepfleet
